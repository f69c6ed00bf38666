// Up to ten thousand repeating timers of ten milliseconds: the processor time that a tick takes, and the share of the
// ticks that were due and did not come, of all timers and of the worst. It measures the clock, not a loop.
#include "framework.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

namespace
{

using bench::Check;

constexpr ULONG kPeriodMs = 10;
constexpr int kSeconds = 2;
constexpr size_t kCounts[] = {100, 1000, 10'000};

struct Ticks {
    std::atomic<uint64_t> count{0};
};

VOID Tick(FilterDriver*, PVOID, FilterTimer*, PVOID context)
{
    static_cast<Ticks*>(context)->count.fetch_add(1, std::memory_order_relaxed);
}

double ProcessorSeconds()
{
    timespec time;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

void Run(benchmark::State& state, FilterDriver* driver, size_t count)
{
    std::vector<Ticks> ticks(count);
    std::vector<FilterTimer*> timers(count);
    for (size_t i = 0; i < count; i++) {
        Check("a timer", Filter_InitializeTimer(driver, Tick, &ticks[i], TRUE, &timers[i]));
        Check("starting", Filter_StartTimer(timers[i], kPeriodMs));
    }
    const auto begin = std::chrono::steady_clock::now();
    const double processorBegin = ProcessorSeconds();
    std::this_thread::sleep_for(std::chrono::seconds(kSeconds));
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    const double processor = ProcessorSeconds() - processorBegin;
    std::vector<uint64_t> counts;
    uint64_t all = 0;
    for (const Ticks& tick : ticks) {
        counts.push_back(tick.count);
        all += counts.back();
    }
    for (FilterTimer* timer : timers) {
        Check("freeing", Filter_FreeTimer(driver, timer));
    }
    const double due = seconds * 1000 / kPeriodMs;
    const double dueOfAll = due * static_cast<double>(count);
    const auto missed = [](double came, double expected) { return std::max(0.0, 1 - came / expected); };
    state.SetIterationTime(seconds);
    state.counters["missed"] = missed(static_cast<double>(all), dueOfAll);
    state.counters["missed, worst"] =
        missed(static_cast<double>(*std::min_element(counts.begin(), counts.end())), due);
    bench::SetValue(state, 1e6 * processor / static_cast<double>(all));
    bench::SetWork(state, count);
}

} // namespace

int main(int argc, char** argv)
{
    bench::LoadFramework();
    char text[] = "bench";
    const STRING name = {5, 6, text};
    FilterDriver* driver = nullptr;
    Check("registering", Filter_RegisterDriver(&name, nullptr, 1, 0, &driver));
    for (const size_t count : kCounts) {
        benchmark::RegisterBenchmark(("timer tick/framework/" + std::to_string(count) + " timers").c_str(),
                                     [driver, count](benchmark::State& state) {
                                         for (auto _ : state) {
                                             Run(state, driver, count);
                                         }
                                     })
            ->UseManualTime()
            ->Iterations(1);
    }
    const int result = bench::Run(argc, argv);
    Check("deregistering", Filter_DeregisterDriver(driver));
    bench::UnloadFramework();
    return result;
}
