// Memory mapped into user processes.
#pragma once

#include <cstdint>

namespace kernel
{

// Unmaps what the process still has mapped, which is a broken rule of the driver that mapped it.
void EndViews(uint32_t processId);

} // namespace kernel
