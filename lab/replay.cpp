#include "replay.h"

#include "capture-writer.h"
#include "filter-counters.h"
#include "filter-modules.h"
#include "lab-error.h"
#include "lane.h"
#include "machine-room.h"
#include "progress.h"

#include <algorithm>
#include <chrono>
#include <mutex>
#include <set>
#include <thread>

#include <fmt/format.h>
#include <hook/virtual-adapters.h>
#include <machine.h>

namespace lab
{
namespace
{

using Clock = std::chrono::steady_clock;
using Lanes = std::vector<std::unique_ptr<Lane>>;

constexpr size_t kBatchFrames = 64;
constexpr uint32_t kPacketWaitMs = 200; // between two looks at what moves
constexpr auto kStallLimit = std::chrono::seconds(5);
constexpr uint32_t kDrainMs = 10000;

// What the workers share.
class ReplayRun
{
  public:
    ReplayRun(const ReplayOptions& options, Lanes& lanes, const std::atomic<bool>& stop)
        : options_(options), lanes_(lanes), stop_(stop)
    {
        if (options.present.has_value()) {
            frameOptions_.presentBytes = options.present;
            frameOptions_.pieces = {60, 0, 400}; // a chain of several buffers, one of them empty
        }
        frameOptions_.waitMs = kPacketWaitMs;
    }

    // Replays all lanes; returns when they are through or the replay has ended early.
    void Run(Report& report);

  private:
    void Work(size_t worker);
    bool DeliverFrame(Lane& lane, const FrameBatch::Frame& frame);
    bool HasStalled();
    bool MustStop() const { return stop_ || stalled_; }

    const ReplayOptions& options_;
    Lanes& lanes_;
    const std::atomic<bool>& stop_;
    hook::FrameOptions frameOptions_;
    std::atomic<uint64_t> refused_ = 0; // by the hook driver, before they became packets
    std::atomic<bool> stalled_ = false;
    std::mutex stallMutex_; // of the two below
    uint64_t ended_ = 0;    // packets that had come to their end at `lastMove_`
    Clock::time_point lastMove_ = Clock::now();
};

// A packet that comes to its end, on whatever way, is free for the next frame: as long as some do, waiting is
// worth while.
bool ReplayRun::HasStalled()
{
    std::lock_guard lock(stallMutex_);
    const uint64_t ended = hook::TakeBalance().Ended();
    const auto now = Clock::now();
    if (ended != ended_) {
        ended_ = ended;
        lastMove_ = now;
    }
    return now - lastMove_ > kStallLimit;
}

// False when the replay must end.
bool ReplayRun::DeliverFrame(Lane& lane, const FrameBatch::Frame& frame)
{
    while (true) {
        switch (lane.Deliver(frame, frameOptions_)) {
        case hook::Accepted::Yes:
            return true;
        case hook::Accepted::NoPacket:
            if (HasStalled()) {
                stalled_ = true;
            }
            if (MustStop()) {
                return false;
            }
            break;
        default:
            ++refused_;
            return true;
        }
    }
}

void ReplayRun::Work(size_t worker)
{
    FrameBatch batch(kBatchFrames);
    // Workers start at different lanes and go round, so that several captures progress alike.
    size_t finished = 0;
    for (size_t turn = worker; finished < lanes_.size() && !MustStop(); ++turn) {
        Lane& lane = *lanes_[turn % lanes_.size()];
        batch.Clear();
        if (!lane.TakeBatch(batch)) {
            ++finished;
            continue;
        }
        finished = 0;
        for (size_t i = 0; i < batch.Size(); ++i) {
            if (!DeliverFrame(lane, batch[i])) {
                return;
            }
        }
    }
}

void ReplayRun::Run(Report& report)
{
    const auto start = Clock::now();
    report.started = true;
    {
        const Progress progress(options_.progress, lanes_, options_.repeat);
        std::vector<std::jthread> workers;
        for (uint32_t i = 0; i < options_.threads; ++i) {
            workers.emplace_back([this, i] { Work(i); });
        }
    }
    report.seconds = std::chrono::duration<double>(Clock::now() - start).count();

    for (const auto& lane : lanes_) {
        if (lane->Failure().has_value()) {
            report.Fail(ExitCode::Capture, *lane->Failure());
        }
    }
    if (stalled_) {
        report.Fail(
            ExitCode::Stalled,
            fmt::format("gave up: all {} packets are out and none came back for {} seconds; a filter keeps "
                        "them, or --packets is too low",
                        hook::PacketsInPool(), kStallLimit.count()));
    } else if (stop_) {
        report.Fail(ExitCode::Interrupted, "interrupted; the numbers are those up to then");
    }
    if (refused_ != 0) {
        report.notes.push_back(fmt::format("{} frames refused by their adapter", refused_.load()));
    }
}

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

Lanes OpenLanes(const ReplayOptions& options)
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
    return lanes;
}

void TellAddresses(const Lanes& lanes)
{
    for (const auto& lane : lanes) {
        fmt::print(stderr, "{}: adapter {}, {}\n", lane->Name(), FormatMacAddress(lane->Address()),
                   lane->AddressOrigin());
    }
}

void CheckSettings(const ReplayOptions& options, const std::vector<FilterModule>& modules)
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

void CreateWriters(const std::filesystem::path& directory, const Lanes& lanes)
{
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (!std::filesystem::is_directory(directory)) {
        throw LabError(ExitCode::Capture,
                       fmt::format("--write {}: cannot make this directory: {}", directory.string(),
                                   error ? error.message() : "a file of that name exists"));
    }
    for (const auto& lane : lanes) {
        lane->CreateWriters(directory);
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

// Loads the filters, opens the adapters, replays, and unloads the filters.
void RunWithFilters(const ReplayOptions& options, const std::vector<FilterModule>& modules, Lanes& lanes,
                    const std::atomic<bool>& stop, Report& report)
{
    LoadedFilters filters;
    for (const FilterModule& module : modules) {
        filters.Load(module);
    }
    // Filters are there first: they may wait for adapters to open.
    for (const auto& lane : lanes) {
        lane->OpenAdapter();
    }
    filters.CheckEachHasFilter(ReadFilterCounters());

    ReplayRun(options, lanes, stop).Run(report);
    Drain(report, "after the last frame");
    for (const FilterCounters& counters : ReadFilterCounters()) {
        report.filters.push_back({filters.ServiceOf(counters), counters});
    }
    const uint64_t kept = hook::TakeBalance().outstanding;
    if (kept != 0) {
        report.notes.push_back(fmt::format("{} packets were still kept at the end of the replay", kept));
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

Report Replay(const ReplayOptions& options, const std::atomic<bool>& stop)
{
    const std::vector<FilterModule> modules = FindFilterModules(options.filters, options.filterDirectories);
    CheckSettings(options, modules);
    Lanes lanes = OpenLanes(options);
    if (!options.quiet) {
        TellAddresses(lanes);
    }
    if (!options.writeDirectory.empty()) {
        CreateWriters(options.writeDirectory, lanes);
    }

    Report report;
    MachineRoom room(options.settings, options.packets);
    try {
        RunWithFilters(options, modules, lanes, stop, report);
    } catch (const LabError& error) {
        report.Fail(error.Code(), error.what());
    }
    for (const auto& lane : lanes) {
        report.adapters.push_back(lane->Describe());
        lane->AddNotes(report.notes);
    }
    report.balance = ToPacketBalance(hook::TakeBalance());
    CheckBalance(report, report.balance, "at the end of the replay");
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
