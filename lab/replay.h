// Runs captures through the framework on virtual adapters.
#pragma once

#include <atomic>

#include "report.h"
#include "session.h"

namespace lab
{

// A session that replays its captures. Ends early, in good order, once `stop` is set. Throws LabError when it
// could not even start.
Report Replay(const LabOptions& options, const std::atomic<bool>& stop);

} // namespace lab
