// Puts the framework between two Linux interfaces.
#pragma once

#include <atomic>
#include <string>

#include "report.h"
#include "session.h"

namespace lab
{

struct LiveOptions {
    std::string wire;      // the interface that stands for the adapter's cable
    std::string protocols; // the one whose stations are the protocols above the adapter
    uint64_t seconds = 0;  // 0: until it is stopped
    std::string socketPath;
};

// A session that takes every frame of both interfaces through the framework and out at the other one, and offers the
// control device on a socket meanwhile, until `stop` is set. Throws LabError when it could not even start.
Report Live(const LabOptions& options, const LiveOptions& live, const std::atomic<bool>& stop);

} // namespace lab
