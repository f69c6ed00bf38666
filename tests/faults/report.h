// What all runs came to.
#pragma once

#include "runs.h"

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

namespace faults
{

struct Report {
    size_t calls = 0; // that the scenario makes
    std::vector<std::string> missing;
    std::vector<std::vector<Point>> sets;
    std::vector<Verdict> verdicts; // of sets
    std::vector<std::vector<Point>> pairs;
    std::vector<Verdict> pairVerdicts;
    double seconds = 0;

    // A call that does not tell its failure must be one that is documented not to.
    void CheckOutcomes();
    bool IsGood() const;
    std::string Text(bool verbose) const;
    nlohmann::json Json() const;
};

} // namespace faults
