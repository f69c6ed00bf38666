// The heart of waiting: one lock guards every dispatcher object (events, timers, threads, processes), the waiting
// threads, the clock, deferred calls and work items, as the dispatcher lock of a real kernel does. It is a
// leaf among the kernel's locks: nothing is called out while it is held.
#pragma once

#include "timer-queue.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace kernel
{

// Values of DISPATCHER_HEADER::Type.
enum : UCHAR {
    kNotificationEvent = 0,
    kSynchronizationEvent = 1,
    kProcessObject = 3,
    kThreadObject = 6,
    kNotificationTimer = 8,
    kSynchronizationTimer = 9,
};

// A point in time. Absolute ones follow the system time, the others the time since start; both in 100-ns
// units.
struct Deadline {
    int64_t time;
    bool absolute;
};

struct Dispatcher {
    std::mutex mutex;
    std::condition_variable idle; // something came to rest
    LIST_ENTRY timedWaits;        // wait blocks with a time-out
    size_t runningThreads = 0;    // system threads that do not wait
    size_t heldThreads = 0;       // system threads stopped by a ThreadHold
    std::atomic<uint32_t> threadHolds{0};
    uint64_t threadReleases = 0; // times that the last ThreadHold has ended
    std::condition_variable threadRelease;

    TimerQueue systemTimers;   // set timers with an absolute due time
    TimerQueue intervalTimers; // those with a time since start
    LIST_ENTRY dpcs;           // queued deferred calls
    bool dpcRunning = false;
    uint64_t dpcsQueued = 0; // ever
    uint64_t dpcsEnded = 0;
    size_t dpcFlushes = 0; // threads that wait for deferred calls to end
    bool timerThreadStarted = false;
    std::condition_variable timerWork;

    LIST_ENTRY workItems;
    size_t workItemsRunning = 0;
    uint32_t workItemHolds = 0;
    uint32_t workers = 0;
    uint32_t idleWorkers = 0;  // that wait for `work`
    bool workerWakes = false;  // one has been told, and is not up yet
    std::condition_variable work;

    Dispatcher();
};

Dispatcher& TheDispatcher();

// Prepares a header: not waited for by anybody.
void InitializeHeader(DISPATCHER_HEADER* header, UCHAR type, UCHAR sizeInBytes, bool signalled);

// These expect the dispatcher's mutex to be held.
void Signal(DISPATCHER_HEADER* header); // wakes whoever the object's type lets go
void WakeDueWaits();                    // those whose time-out is over
void RecheckTimedWaits();               // after the clock was stopped or started
bool TimersAtRest();                    // no timer is due, no deferred call queued or running
bool EverythingAtRest();                // neither work items nor running system threads nor timers to serve
bool EarliestTimer(int64_t* due);       // time since start; false when no timer is set
// The earliest deadline of a timer or wait, when it is not behind `limit` (time since start).
bool NextDueTime(int64_t limit, int64_t* time);

Deadline DeadlineOf(const LARGE_INTEGER& timeout); // negative: relative
Deadline DeadlineIn(uint64_t milliseconds);
int64_t RemainingTime(const Deadline& deadline); // 100-ns units; 0 or less: due
int64_t DueIn(int64_t remaining);                // the time since start then; capped at the largest
std::chrono::steady_clock::time_point RealTimeOf(const Deadline& deadline);

bool ClockStopped();
int64_t InterruptTime(); // 100-ns units since start
int64_t SystemTime();    // 100-ns units since 1601

// Waits for an object as KeWaitForSingleObject does; a null object for the deadline alone; a null deadline
// for ever.
NTSTATUS Wait(DISPATCHER_HEADER* header, const Deadline* deadline, const char* function);

// Cancels the set timers that lie in the range; answers one of them, or null. Takes the dispatcher's mutex
// when any timer is set.
const void* CancelTimersIn(const void* begin, const void* end);

} // namespace kernel
