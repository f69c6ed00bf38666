#include "dispatcher.h"
#include "verifier.h"

#include <algorithm>
#include <time.h>

namespace kernel
{

namespace
{

constexpr int64_t kUnitsPerSecond = 10'000'000;
constexpr int64_t kUnitsPerMillisecond = 10'000;
constexpr int64_t kUnixEpoch = 11'644'473'600 * kUnitsPerSecond; // 1 January 1970 since 1 January 1601
constexpr ULONG kTimeIncrement = 156'250;

// Changed under the dispatcher's mutex, read without it.
std::atomic<bool> g_stopped{false};
std::atomic<int64_t> g_stoppedSystemTime{0};
std::atomic<int64_t> g_stoppedInterruptTime{0};
std::atomic<int64_t> g_interruptOffset{0};

int64_t HostTime(clockid_t clock)
{
    timespec now;
    clock_gettime(clock, &now);
    return now.tv_sec * kUnitsPerSecond + now.tv_nsec / 100;
}

} // namespace

bool ClockStopped()
{
    return g_stopped.load(std::memory_order_acquire);
}

int64_t InterruptTime()
{
    if (ClockStopped())
        return g_stoppedInterruptTime.load();
    return HostTime(CLOCK_MONOTONIC) + g_interruptOffset.load();
}

int64_t SystemTime()
{
    if (ClockStopped())
        return g_stoppedSystemTime.load();
    return HostTime(CLOCK_REALTIME) + kUnixEpoch;
}

Deadline DeadlineOf(const LARGE_INTEGER& timeout)
{
    if (timeout.QuadPart >= 0)
        return {timeout.QuadPart, true};
    return {DueIn(timeout.QuadPart == INT64_MIN ? INT64_MAX : -timeout.QuadPart), false};
}

int64_t DueIn(int64_t remaining)
{
    int64_t due = 0;
    return __builtin_add_overflow(InterruptTime(), remaining, &due) ? INT64_MAX : due;
}

Deadline DeadlineIn(uint64_t milliseconds)
{
    return {InterruptTime() + static_cast<int64_t>(milliseconds) * kUnitsPerMillisecond, false};
}

int64_t RemainingTime(const Deadline& deadline)
{
    return deadline.time - (deadline.absolute ? SystemTime() : InterruptTime());
}

std::chrono::steady_clock::time_point RealTimeOf(const Deadline& deadline)
{
    constexpr int64_t kLongest = 3600 * kUnitsPerSecond; // whoever sleeps looks again then
    int64_t remaining = std::min(RemainingTime(deadline), kLongest);
    return std::chrono::steady_clock::now() + std::chrono::nanoseconds(remaining * 100);
}

} // namespace kernel

using namespace kernel;

ULONG KeQueryTimeIncrement(VOID)
{
    return kTimeIncrement;
}

// As of the last tick of the host's clock: a drivers' read of the time is meant to cost nothing, not to be precise.
VOID KeQuerySystemTime(PLARGE_INTEGER CurrentTime)
{
    CurrentTime->QuadPart = ClockStopped() ? SystemTime() : HostTime(CLOCK_REALTIME_COARSE) + kUnixEpoch;
}

VOID KeQueryTickCount(PLARGE_INTEGER TickCount)
{
    TickCount->QuadPart = InterruptTime() / kTimeIncrement;
}

LARGE_INTEGER KeQueryPerformanceCounter(PLARGE_INTEGER PerformanceFrequency)
{
    if (PerformanceFrequency != nullptr)
        PerformanceFrequency->QuadPart = kUnitsPerSecond;
    LARGE_INTEGER now;
    now.QuadPart = InterruptTime();
    return now;
}

namespace machine
{

void StopClock(int64_t time)
{
    std::lock_guard lock(TheDispatcher().mutex);
    g_stoppedInterruptTime = InterruptTime();
    g_stoppedSystemTime = time;
    g_stopped = true;
    WakeDueWaits();
    RecheckTimedWaits();
}

void AdvanceClock(uint64_t milliseconds)
{
    Dispatcher& dispatcher = TheDispatcher();
    std::unique_lock lock(dispatcher.mutex);
    if (!ClockStopped()) {
        Report("clock-not-stopped", "AdvanceClock", "by %llu ms",
               static_cast<unsigned long long>(milliseconds));
        return;
    }
    int64_t end = g_stoppedInterruptTime + static_cast<int64_t>(milliseconds) * kUnitsPerMillisecond;
    for (bool last = false; !last;) {
        // Stops at each deadline on the way, so that what a deferred call sets anew fires at its own time.
        int64_t next = end;
        last = !NextDueTime(end, &next);
        next = std::max(next, g_stoppedInterruptTime.load());
        g_stoppedSystemTime += next - g_stoppedInterruptTime;
        g_stoppedInterruptTime = next;
        WakeDueWaits();
        dispatcher.timerWork.notify_all();
        dispatcher.idle.wait(lock, [] { return TimersAtRest(); });
    }
}

void StartClock()
{
    std::lock_guard lock(TheDispatcher().mutex);
    if (!ClockStopped())
        return;
    g_interruptOffset = g_stoppedInterruptTime - HostTime(CLOCK_MONOTONIC);
    g_stopped = false;
    RecheckTimedWaits();
}

} // namespace machine
