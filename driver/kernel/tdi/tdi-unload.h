// What the driver that holds the kernel-socket library does before it is unloaded.
#pragma once

namespace tdi
{

// Waits until no work item of the library is under way. PASSIVE_LEVEL.
void WaitForClosings();

} // namespace tdi
