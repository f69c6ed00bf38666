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
    const auto entry = [](void* driver, void* path) {
        return DriverEntry(static_cast<PDRIVER_OBJECT>(driver), static_cast<PUNICODE_STRING>(path));
    };
    Check("loading the framework", machine::LoadDriver("NdisFilter", entry));
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
