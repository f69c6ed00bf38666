#include "session.h"

#include "capture-writer.h"
#include "filter-counters.h"
#include "filter-modules.h"
#include "lab-error.h"

#include <algorithm>
#include <set>

#include <fmt/format.h>
#include <hook/virtual-adapters.h>
#include <machine.h>

namespace lab
{
namespace
{

constexpr uint32_t kDrainMs = 10000;

// A file's name without extension, made unique: two captures of one name have two adapters, and files of
// their own.
std::string LaneName(const std::string& capture, std::set<std::string>& taken)
{
    const std::string stem = std::filesystem::path(capture).stem().string();
    std::string name = stem;
    for (int number = 2; !taken.insert(name).second; ++number) {
        name = fmt::format("{}-{}", stem, number);
    }
    return name;
}

Lanes OpenLanes(const LabOptions& options)
{
    Lanes lanes;
    std::set<std::string> names;
    for (size_t i = 0; i < options.captures.size(); ++i) {
        LaneOptions lane;
        lane.name = LaneName(options.captures[i], names);
        lane.capture = options.captures[i];
        if (i < options.addresses.size()) {
            lane.address = options.addresses[i];
        }
        lane.direction = options.direction;
        lane.rounds = options.repeat;
        lanes.push_back(std::make_unique<Lane>(lane));
    }
    for (const NamedAdapter& adapter : options.adapters) {
        if (!names.insert(adapter.name).second) {
            throw LabError(
                ExitCode::Usage,
                fmt::format("--adapter {}: there is an adapter of that name already", adapter.name));
        }
        LaneOptions lane;
        lane.name = adapter.name;
        lane.address = adapter.address;
        lanes.push_back(std::make_unique<Lane>(lane));
    }
    return lanes;
}

void TellAddresses(const Lanes& lanes)
{
    for (const auto& lane : lanes) {
        fmt::print(stderr, "{}: adapter {}, {}\n", lane->Name(), FormatMacAddress(lane->Address()),
                   lane->AddressOrigin());
    }
}

void CheckSettings(const LabOptions& options, const std::vector<FilterModule>& modules)
{
    for (const Setting& setting : options.settings) {
        const auto isModule = [&](const FilterModule& module) { return module.service == setting.service; };
        if (setting.service != kFrameworkService && std::ranges::none_of(modules, isModule)) {
            throw LabError(ExitCode::Usage,
                           fmt::format("setting {}.{}: no driver {} is loaded; name it with --filter",
                                       setting.service, setting.name, setting.service));
        }
    }
}

void CreateDirectory(const char* option, const std::filesystem::path& directory)
{
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (!std::filesystem::is_directory(directory)) {
        throw LabError(ExitCode::Capture,
                       fmt::format("{} {}: cannot make this directory: {}", option, directory.string(),
                                   error ? error.message() : "a file of that name exists"));
    }
}

PacketBalance ToPacketBalance(const hook::Balance& balance)
{
    return {.received = balance.received,
            .sent = balance.sent,
            .allocated = balance.allocated,
            .delivered = balance.deliveredToAdapter + balance.deliveredToProtocols,
            .refused = balance.refused,
            .released = balance.freed,
            .stranded = balance.stranded,
            .stillOut = balance.outstanding};
}

void CheckBalance(Report& report, const PacketBalance& balance, const char* when)
{
    if (!balance.Holds()) {
        report.Fail(
            ExitCode::Balance,
            fmt::format(
                "the packet balance does not hold {}: {} in ({} received, {} sent, {} allocated), {} out "
                "({} delivered, {} refused, {} released, {} stranded, {} still out)",
                when, balance.In(), balance.received, balance.sent, balance.allocated, balance.Out(),
                balance.delivered, balance.refused, balance.released, balance.stranded, balance.stillOut));
    }
}

// Frames that queues and threads still hold get the time to come out.
void Drain(Report& report, const char* when)
{
    if (!machine::WaitIdle(kDrainMs)) {
        report.notes.push_back(
            fmt::format("drivers were still at work {} seconds {}", kDrainMs / 1000, when));
    }
}

// Loads the filters, opens the adapters, works, and unloads the filters.
void RunWithFilters(const std::vector<FilterModule>& modules, Lanes& lanes, const SessionWork& work,
                    Report& report)
{
    LoadedFilters filters;
    for (const FilterModule& module : modules) {
        filters.Load(module);
    }
    // Filters are there first: they may wait for adapters to open.
    for (const auto& lane : lanes) {
        lane->OpenAdapter();
    }
    for (const std::string& service : filters.WithoutFilter(ReadFilterCounters())) {
        report.notes.push_back(fmt::format("{} has no packet filter in any chain", service));
    }

    work(lanes, report);
    Drain(report, "after the last frame");
    for (const FilterCounters& counters : ReadFilterCounters()) {
        report.filters.push_back({filters.ServiceOf(counters), counters});
    }
    const uint64_t kept = hook::TakeBalance().outstanding;
    if (kept != 0) {
        report.notes.push_back(fmt::format("{} packets were still kept at the end", kept));
    }
    filters.Unload();
    Drain(report, "after the filters were unloaded");
}

// What is out although no filter is loaded any more will never come back.
void ReportLostPackets(Report& report)
{
    const std::vector<std::string> lost = hook::Outstanding();
    if (!lost.empty()) {
        report.Fail(ExitCode::BrokenRule,
                    fmt::format("{} packets were not given back by any filter, the first of them: {}",
                                lost.size(), lost.front()));
    }
}

void ReportBrokenRules(Report& report)
{
    for (const std::string& misuse : hook::TakeMisuses()) {
        report.Fail(ExitCode::BrokenRule, fmt::format("the hook driver was misused: {}", misuse));
    }
    for (const machine::Violation& violation : machine::TakeViolations()) {
        report.Fail(ExitCode::BrokenRule, fmt::format("a driver broke a kernel rule: {}: {}: {}",
                                                      violation.rule, violation.function, violation.detail));
    }
}

} // namespace

Report RunSession(const LabOptions& options, const SessionWork& work)
{
    const std::vector<FilterModule> modules = FindFilterModules(options.filters, options.filterDirectories);
    CheckSettings(options, modules);
    Lanes lanes = OpenLanes(options);
    if (!options.quiet) {
        TellAddresses(lanes);
    }
    if (!options.writeDirectory.empty()) {
        CreateDirectory("--write", options.writeDirectory);
        for (const auto& lane : lanes) {
            lane->CreateWriters(options.writeDirectory);
        }
    }
    if (!options.driveC.empty()) {
        CreateDirectory("--drive-c", options.driveC);
        machine::SetDriveC(std::filesystem::absolute(options.driveC).string());
    }

    Report report;
    MachineRoom room(options.settings, options.packets, options.sockets);
    try {
        RunWithFilters(modules, lanes, work, report);
    } catch (const LabError& error) {
        report.Fail(error.Code(), error.what());
    }
    for (const auto& lane : lanes) {
        report.adapters.push_back(lane->Describe());
        lane->AddNotes(report.notes);
    }
    report.balance = ToPacketBalance(hook::TakeBalance());
    CheckBalance(report, report.balance, "at the end");
    ReportLostPackets(report);
    room.Stop();
    CheckBalance(report, ToPacketBalance(hook::TakeBalance()), "after the drivers were unloaded");
    ReportBrokenRules(report);
    for (const auto& lane : lanes) {
        try {
            lane->CloseWriters();
        } catch (const LabError& error) {
            report.Fail(error.Code(), error.what());
        }
    }
    return report;
}

} // namespace lab
