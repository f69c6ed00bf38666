// Memory mapped into user processes.
#pragma once

#include <cstdint>

namespace kernel
{

// Unmaps what the process still has mapped: a broken rule of the driver that mapped it, unless a handle of the
// process lives on in another one, whose end the driver may wait for.
void EndViews(uint32_t processId, bool handlesLeft);

} // namespace kernel
