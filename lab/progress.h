// A line on standard error that tells how far a replay is.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "lane.h"

namespace lab
{

// Prints while it lives, unless it is not wanted; removes its line at the end.
class Progress
{
  public:
    Progress(bool wanted, const std::vector<std::unique_ptr<Lane>>& lanes, uint64_t rounds);

  private:
    void Run(std::stop_token stop);
    void Print(double seconds);

    const std::vector<std::unique_ptr<Lane>>& lanes_;
    uint64_t totalBytes_ = 0;
    uint64_t lastFrames_ = 0;
    std::mutex mutex_;
    std::condition_variable_any wake_;
    std::jthread thread_; // last: it uses the others
};

} // namespace lab
