// What the driver that holds the kernel-socket library does before it is unloaded.
#pragma once

namespace tdi
{

// Refuses new data requests, cancels those under way, and waits until they are completed and no work item of the
// library is left.
// PASSIVE_LEVEL.
void EndEverything();

} // namespace tdi
