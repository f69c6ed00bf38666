// Ten thousand repeating timers of ten milliseconds: how late callbacks come, how far each timer drifts from its period,
// and what the workers' processor time is. A program of its own kind: it measures the clock, not a loop.
#include "machine.h"
#include "ndisfilter.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <thread>
#include <vector>

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);

namespace
{

constexpr ULONG kPeriodMs = 10;
constexpr int kSeconds = 5;
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

void Check(const char* what, int status)
{
    if (status != 0) {
        std::fprintf(stderr, "bench-timers: %s: status %d\n", what, status);
        std::exit(1);
    }
}

void Run(FilterDriver* driver, size_t count)
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
    const auto [least, most] = std::minmax_element(counts.begin(), counts.end());
    const double expected = seconds * 1000 / kPeriodMs;
    std::printf("%8zu %12.0f %10.2f%% %10.2f%% %10.2f%% %12.2f %14.2f\n", count, static_cast<double>(all) / seconds,
                100 * (1 - static_cast<double>(all) / static_cast<double>(count) / expected),
                100 * (1 - static_cast<double>(*least) / expected), 100 * (1 - static_cast<double>(*most) / expected),
                processor / seconds, 1e6 * processor / static_cast<double>(all));
}

} // namespace

int main()
{
    const auto entry = [](void* driver, void* path) {
        return DriverEntry(static_cast<PDRIVER_OBJECT>(driver), static_cast<PUNICODE_STRING>(path));
    };
    Check("loading the framework", machine::LoadDriver("NdisFilter", entry));
    char text[] = "bench";
    const STRING name = {5, 6, text};
    FilterDriver* driver = nullptr;
    Check("registering", Filter_RegisterDriver(&name, nullptr, 1, 0, &driver));
    std::printf("repeating timers of %u ms, %d seconds each; ticks missed of those that were due\n", kPeriodMs, kSeconds);
    std::printf("%8s %12s %11s %11s %11s %12s %14s\n", "timers", "ticks/s", "missed", "worst", "best", "processors",
                "us per tick");
    for (const size_t count : kCounts) {
        Run(driver, count);
    }
    Check("deregistering", Filter_DeregisterDriver(driver));
    Check("unloading", machine::UnloadDriver("NdisFilter"));
    return machine::TakeViolations().empty() ? 0 : 1;
}
