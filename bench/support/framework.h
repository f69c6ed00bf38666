// The framework loaded into a benchmark's own process.
#pragma once

#include "contest.h"
#include "machine.h"
#include "ndisfilter.h"

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);

namespace bench
{

inline void LoadFramework()
{
    Check("loading the framework", machine::LoadDriver("NdisFilter", DriverEntry));
}

// Broken kernel rules were printed as they happened.
inline void UnloadFramework()
{
    Check("unloading the framework", machine::UnloadDriver("NdisFilter"));
    if (!machine::TakeViolations().empty()) {
        Fail("a kernel rule was broken");
    }
}

} // namespace bench
