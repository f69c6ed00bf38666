#include "progress.h"

#include <chrono>
#include <cstdio>

#include <fmt/format.h>

namespace lab
{
namespace
{

constexpr auto kInterval = std::chrono::milliseconds(500);
constexpr char kRemoveLine[] = "\r\x1b[K";

} // namespace

Progress::Progress(bool wanted, const std::vector<std::unique_ptr<Lane>>& lanes, uint64_t rounds)
    : lanes_(lanes)
{
    for (const auto& lane : lanes) {
        totalBytes_ += lane->FileSize() * rounds;
    }
    if (wanted) {
        thread_ = std::jthread([this](std::stop_token stop) { Run(stop); });
    }
}

void Progress::Run(std::stop_token stop)
{
    auto last = std::chrono::steady_clock::now();
    std::unique_lock lock(mutex_);
    while (!wake_.wait_for(lock, stop, kInterval, [&] { return stop.stop_requested(); })) {
        const auto now = std::chrono::steady_clock::now();
        Print(std::chrono::duration<double>(now - last).count());
        last = now;
    }
    fmt::print(stderr, "{}", kRemoveLine);
}

void Progress::Print(double seconds)
{
    uint64_t bytes = 0;
    uint64_t frames = 0;
    for (const auto& lane : lanes_) {
        bytes += lane->Position();
        frames += lane->FramesTaken();
    }
    const double rate = static_cast<double>(frames - lastFrames_) / seconds;
    lastFrames_ = frames;
    if (totalBytes_ != 0) {
        const double done = static_cast<double>(bytes);
        const double total = static_cast<double>(totalBytes_);
        fmt::print(stderr, "{}{:3.0f} %  {:.1f} of {:.1f} MB  {:.0f} frames/s", kRemoveLine,
                   100 * done / total, done / 1e6, total / 1e6, rate);
    } else {
        fmt::print(stderr, "{}{} frames  {:.0f} frames/s", kRemoveLine, frames, rate);
    }
    std::fflush(stderr);
}

} // namespace lab
