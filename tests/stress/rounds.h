// Rounds of the stress.
#pragma once

#include "stress.h"

#include <hook/virtual-adapters.h>

namespace stress
{

struct RoundResult {
    std::vector<Tally> tallies; // by kind of call
    hook::Balance balance;
};

RoundPlan PlanRound(uint64_t seed, uint64_t round);

// `steps`: calls of each calling thread. `scratch`: a directory for the files that drivers write.
RoundResult RunRound(const RoundPlan& plan, uint32_t threads, uint64_t steps, const std::string& scratch);

// frames.cpp: so many frames through filters with random verdicts, counted and compared. Exit status of the program.
int RunFrames(uint64_t frames, uint64_t seed, bool json);

} // namespace stress
