// What a replay has seen and done, as a table for a person or as one JSON object.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "filter-counters.h"
#include "lab-error.h"

namespace lab
{

struct Flow {
    uint64_t framesIn = 0;
    uint64_t bytesIn = 0;
    uint64_t framesOut = 0;
    uint64_t bytesOut = 0;
};

struct AdapterReport {
    std::string name;
    std::string capture;
    std::string mac;
    Flow received; // in from the adapter, out to the protocols
    Flow sent;     // in from the protocols, out to the adapter
    uint64_t tooLong = 0;
    uint64_t cutShort = 0;
};

// The life of packets: what comes into being must end somewhere.
struct PacketBalance {
    uint64_t received = 0;
    uint64_t sent = 0;
    uint64_t allocated = 0; // by filters
    uint64_t delivered = 0;
    uint64_t refused = 0; // by the hook driver when it was to deliver
    uint64_t released = 0;
    uint64_t stranded = 0; // released while no hook driver was bound
    uint64_t stillOut = 0; // kept by a filter, or queued
    uint64_t In() const { return received + sent + allocated; }
    uint64_t Out() const { return delivered + refused + released + stranded + stillOut; }
    bool Holds() const { return In() == Out(); }
};

struct FilterReport {
    std::string driver;
    FilterCounters counters;
};

struct Failure {
    ExitCode code;
    std::string message;
};

struct Report {
    double seconds = 0;
    std::vector<AdapterReport> adapters;
    std::vector<FilterReport> filters;
    PacketBalance balance;
    std::vector<std::string> notes;
    std::vector<Failure> failures;
    bool started = false; // frames were replayed

    void Fail(ExitCode code, std::string message) { failures.push_back({code, std::move(message)}); }
    ExitCode Code() const; // of the gravest failure
};

std::string FormatTable(const Report& report);
std::string FormatJson(const Report& report);

} // namespace lab
