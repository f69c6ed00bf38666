// Runs of the scenario, each in a process of its own, so that a crash ends that one alone.
#pragma once

#include "journal.h"

#include <string>
#include <vector>

namespace faults
{

// What a run without faults did.
struct Reference {
    std::vector<Entry> entries; // of the scenario
    std::vector<Entry> again;   // of the short pass behind it, in a framework loaded anew
};

enum class Outcome {
    Said,   // the call under way answered otherwise: it told its failure
    Unmade, // it answered as ever, but what it was to bring about is not there
    Same,   // it did what it does without a fault, as far as its caller sees
    Missed, // the point was not reached
    Bad
};

struct Verdict {
    std::vector<Point> points = {};
    Outcome outcome = Outcome::Bad;
    std::string call = {};             // under way when the call failed
    std::string answer = {};           // "-20 instead of 0"
    std::vector<std::string> bad = {}; // what is wrong, each a sentence
    std::vector<std::string> trace = {};
};

// Without entries when the run failed; `error` says how.
Reference Count(std::string* error);

// One run for each set of points. `startUpOnly`: the short pass takes the place of the scenario behind the start-up.
std::vector<Verdict> RunAll(const std::vector<std::vector<Point>>& sets, bool startUpOnly,
                            const Reference& reference);

} // namespace faults
