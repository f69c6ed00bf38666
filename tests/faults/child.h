// A process of its own for each piece of work, one on each processor, for a minute at most.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace faults
{

struct ChildResult {
    std::string output; // what the work answered
    std::string errors; // what it said on standard error
    std::string end;    // empty: as it should; else "signal 11", "exit status 1", "no end within 60 s"
};

// Works on 0 to count - 1 in forked processes. The work answers a text; what it leaves behind goes with its process.
std::vector<ChildResult> RunChildren(size_t count, const std::function<std::string(size_t)>& work);

} // namespace faults
