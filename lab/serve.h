// Keeps the framework running for programs of other processes.
#pragma once

#include <atomic>
#include <string>

#include "report.h"
#include "session.h"

namespace lab
{

// A session that offers the control device on a socket and replays its captures meanwhile, until `stop` is
// set. Throws LabError when it could not even start.
Report Serve(const LabOptions& options, const std::string& socketPath, const std::atomic<bool>& stop);

} // namespace lab
