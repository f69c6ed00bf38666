// Runs captures through the framework on virtual adapters.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "capture-reader.h"
#include "lane.h"
#include "machine-room.h"
#include "report.h"

namespace lab
{

struct ReplayOptions {
    std::vector<std::string> captures; // one adapter for each
    std::vector<MacAddress> addresses; // of the first adapters; the others' are taken from their captures
    Direction direction = Direction::Auto;
    std::vector<std::string> filters;
    std::vector<std::filesystem::path> filterDirectories;
    std::vector<Setting> settings;
    uint32_t threads = 1;
    uint64_t repeat = 1;
    std::optional<uint32_t> present;      // bytes of a frame that are there at first; nothing: all
    uint32_t packets = 4096;              // that exist at most at a time
    std::filesystem::path writeDirectory; // empty: nothing is written
    bool progress = false;
    bool quiet = false;
};

// Loads the drivers, replays, unloads them in the opposite order. Throws LabError when it could not even
// start; what fails later is in the report. Ends early, in good order, once `stop` is set.
Report Replay(const ReplayOptions& options, const std::atomic<bool>& stop);

} // namespace lab
