// The framework with its hook driver, client filters and adapters, from the load to the unload.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "capture-reader.h"
#include "lane.h"
#include "machine-room.h"
#include "report.h"

namespace lab
{

using Lanes = std::vector<std::unique_ptr<Lane>>;

// An adapter that no capture is replayed on.
struct NamedAdapter {
    std::string name;
    MacAddress address;
};

struct LabOptions {
    std::vector<std::string> captures; // one adapter for each
    std::vector<MacAddress> addresses; // of the first adapters; the others' are taken from their captures
    std::vector<NamedAdapter> adapters;
    Direction direction = Direction::Auto;
    std::vector<std::string> filters;
    std::vector<std::filesystem::path> filterDirectories;
    std::vector<Setting> settings;
    uint32_t threads = 1;
    uint64_t repeat = 1;
    uint64_t rate = 0;                    // frames a second, of all captures together; 0: as fast as they go
    std::optional<uint32_t> present;      // bytes of a frame that are there at first; nothing: all
    uint32_t packets = 4096;              // that exist at most at a time
    std::filesystem::path writeDirectory; // empty: nothing is written
    std::filesystem::path driveC;         // empty: drivers see no drive C
    bool sockets = false;                 // drivers find a transport
    bool progress = false;
    bool quiet = false;
};

// What happens while everything is loaded.
using SessionWork = std::function<void(Lanes& lanes, Report& report)>;

// Loads the drivers, opens the adapters, works, and unloads everything in the opposite order. Throws LabError
// when it could not even start; what fails later is in the report.
Report RunSession(const LabOptions& options, const SessionWork& work);

} // namespace lab
