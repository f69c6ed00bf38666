// What the host kernel's own files share: reporting broken rules, counting live objects, injected faults.
// No driver and no test includes this; they use <ntddk.h> and machine.h.
#pragma once

#include "machine.h"

#include <atomic>
#include <cstdarg>

namespace kernel
{

// Records a violation and prints it. `function` is the kernel function whose rule is broken. Callable at any
// IRQL, with any host lock of the kernel held. The detail text follows printf of the host (not the Windows
// rules).
void Report(const char* rule, const char* function, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// True when the armed fault of this kind falls on this call; counts the call in any case.
bool Fails(machine::Fault kind);

// Live objects of a kind, for the census: one counter per field of machine::Census that is not derived.
struct LiveCounters {
    std::atomic<size_t> threads{0}, threadHandles{0}, poolBlocks{0}, poolBytes{0}, lookasideLists{0}, mdls{0},
        views{0}, processReferences{0}, devices{0}, links{0}, drivers{0}, files{0}, requests{0}, timers{0},
        workItems{0};
};
LiveCounters& Live();

// Reports "irql-too-high" when the calling thread runs above `limit` (0 PASSIVE_LEVEL, 1 APC_LEVEL, 2
// DISPATCH_LEVEL).
void RequireIrqlAtMost(unsigned char limit, const char* function);

} // namespace kernel
