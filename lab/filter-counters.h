// The verdict counters of packet filters. No function of the framework hands them out: they are read where a
// person reads them, in what Filter_DumpFilter prints.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace lab
{

struct FilterCounters {
    std::string name;
    std::string chain;      // FILTER_TYPE_INCOMING_PACKET ...
    uint64_t procedure = 0; // address of the filter procedure: tells which module the filter is of
    uint32_t process = 0;   // counters are 32 bits wide and wrap
    uint32_t bypass = 0;
    uint32_t discard = 0;
    uint32_t consume = 0;
    uint32_t capture = 0;
};

// The filters of a dump, in its order. Lines that are not a filter's are passed over.
std::vector<FilterCounters> ParseFilterDump(std::string_view dump);

// All filters of the four chains, as they are now.
std::vector<FilterCounters> ReadFilterCounters();

} // namespace lab
