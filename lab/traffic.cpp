#include "traffic.h"

#include "progress.h"

#include <algorithm>
#include <thread>

#include <fmt/format.h>

namespace lab
{
namespace
{

constexpr uint32_t kPacketWaitMs = 200; // between two looks at what moves
constexpr auto kStallLimit = std::chrono::seconds(5);
constexpr auto kStopLatency = std::chrono::milliseconds(50);

} // namespace

Traffic::Traffic(const LabOptions& options, Lanes& lanes, const std::atomic<bool>& stop)
    : options_(options), lanes_(lanes), stop_(stop)
{
    if (options.present.has_value()) {
        frameOptions_.presentBytes = options.present;
        frameOptions_.pieces = {60, 0, 400}; // a chain of several buffers, one of them empty
    }
    frameOptions_.waitMs = kPacketWaitMs;
    frameOptions_.endWithoutPacket = true;
}

// A packet that comes to its end, on whatever way, is free for the next frame: as long as some do, waiting is
// worth while.
bool Traffic::HasStalled()
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

// With a rate, each frame has its time; who comes late does not wait. False when the replay must end.
bool Traffic::WaitForTurn()
{
    if (options_.rate == 0) {
        return true;
    }
    const std::chrono::duration<double> offset(static_cast<double>(turns_++) /
                                               static_cast<double>(options_.rate));
    const auto due = start_ + std::chrono::duration_cast<Clock::duration>(offset);
    for (auto now = Clock::now(); now < due && !MustStop(); now = Clock::now()) {
        std::this_thread::sleep_until(std::min(due, now + kStopLatency));
    }
    return !MustStop();
}

// False when the replay must end.
bool Traffic::DeliverAll(Lane& lane, const FrameBatch& batch)
{
    const size_t most = options_.rate == 0 ? batch.Size() : 1;
    for (size_t next = 0; next < batch.Size();) {
        if (most == 1 && !WaitForTurn()) {
            return false;
        }
        hook::BatchResult result = lane.Deliver(batch, next, most, frameOptions_);
        next += result.Ended();
        refused_ += result.Ended() - result.accepted;
        while (result.noPacket != 0) { // the frame that got none is in turn already
            if (HasStalled()) {
                stalled_ = true;
            }
            if (MustStop()) {
                return false;
            }
            result = lane.Deliver(batch, next, 1, frameOptions_);
            next += result.Ended();
            refused_ += result.Ended() - result.accepted;
        }
    }
    return true;
}

void Traffic::Work(size_t worker)
{
    FrameBatch batch(0); // the lanes' batches take its place
    // Workers start at different lanes and go round, so that several captures progress alike.
    size_t finished = 0;
    for (size_t turn = worker; finished < lanes_.size() && !MustStop(); ++turn) {
        Lane& lane = *lanes_[turn % lanes_.size()];
        if (!lane.TakeBatch(batch)) {
            ++finished;
            continue;
        }
        finished = 0;
        if (!DeliverAll(lane, batch)) {
            return;
        }
    }
}

void Traffic::Run(Report& report)
{
    start_ = Clock::now();
    report.started = true;
    for (const auto& lane : lanes_) {
        lane->StartReading();
    }
    {
        const Progress progress(options_.progress, lanes_, options_.repeat);
        std::vector<std::jthread> workers;
        for (uint32_t i = 0; i < options_.threads; ++i) {
            workers.emplace_back([this, i] { Work(i); });
        }
    }
    report.seconds = std::chrono::duration<double>(Clock::now() - start_).count();

    for (const auto& lane : lanes_) {
        lane->EndReading();
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
    }
    if (refused_ != 0) {
        report.notes.push_back(fmt::format("{} frames refused by their adapter", refused_.load()));
    }
}

} // namespace lab
