// Hands the frames of captures to the framework.
#pragma once

#include <atomic>
#include <chrono>
#include <mutex>

#include <hook/virtual-adapters.h>

#include "lane.h"
#include "report.h"
#include "session.h"

namespace lab
{

// What the workers share.
class Traffic
{
  public:
    Traffic(const LabOptions& options, Lanes& lanes, const std::atomic<bool>& stop);

    // Replays all lanes; returns when they are through, no packet comes back any more, or `stop` is set.
    void Run(Report& report);

  private:
    using Clock = std::chrono::steady_clock;

    void Work(size_t worker);
    bool DeliverAll(Lane& lane, const FrameBatch& batch);
    bool WaitForTurn();
    bool HasStalled();
    bool MustStop() const { return stop_ || stalled_; }

    const LabOptions& options_;
    Lanes& lanes_;
    const std::atomic<bool>& stop_;
    hook::FrameOptions frameOptions_;
    Clock::time_point start_ = Clock::now();
    std::atomic<uint64_t> turns_ = 0;   // frames that have a place in the rate asked for
    std::atomic<uint64_t> refused_ = 0; // by the hook driver, before they became packets
    std::atomic<bool> stalled_ = false;
    std::mutex stallMutex_; // of the two below
    uint64_t ended_ = 0;    // packets that had come to their end at `lastMove_`
    Clock::time_point lastMove_ = Clock::now();
};

} // namespace lab
