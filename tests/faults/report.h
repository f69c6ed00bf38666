// What all runs came to.
#pragma once

#include "runs.h"

#include <string>
#include <vector>

namespace faults
{

struct Report {
    size_t calls = 0; // that the scenario makes
    std::vector<std::string> missing;
    std::vector<Verdict> singles;
    std::vector<Verdict> pairs;
    double seconds = 0;

    // A call that does not tell its failure must be one that is documented not to.
    void CheckOutcomes();
    bool IsGood() const;
    std::string Text(bool verbose) const;
};

// Exports and control requests that no entry has.
std::vector<std::string> MissingFrom(const std::vector<Entry>& entries);

// "pool:3 and file:1"
std::string NameOf(const std::vector<Point>& points);

} // namespace faults
