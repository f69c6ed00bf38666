// What the scheduler looks at in memory.
#pragma once

#include <cstddef>

namespace scheduler
{

// From now on a run fails that reads or writes freed memory of the kernel's pool. False: the host has no room for the
// map.
bool WatchFreedMemory();

// Plain reads and writes of this memory are switch points, too.
void WatchRange(const void* memory, size_t size);
void ForgetRanges();

} // namespace scheduler
