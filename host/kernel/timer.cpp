// Timers and deferred calls. One host thread expires timers and runs the deferred calls, one after the other,
// at DISPATCH_LEVEL. A timer or DPC is not touched any more once its routine has been called: the routine may
// free it.
#include "dispatcher.h"
#include "irql.h"
#include "verifier.h"

#include <ndis.h>

#include <algorithm>
#include <pthread.h>
#include <thread>

namespace kernel
{

namespace
{

// Values of KDPC::Type. The routine of an NDIS timer takes the same arguments but has another type.
enum : UCHAR { kDpc = 19, kNdisTimerDpc = 119 };

Deadline DueTimeOf(const KTIMER* timer)
{
    return {static_cast<int64_t>(timer->DueTime.QuadPart), timer->Header.Absolute != 0};
}

TimerQueue& QueueOf(const KTIMER* timer)
{
    Dispatcher& dispatcher = TheDispatcher();
    return timer->Header.Absolute != 0 ? dispatcher.systemTimers : dispatcher.intervalTimers;
}

bool QueueDpc(Dispatcher& dispatcher, KDPC* dpc, void* argument1, void* argument2)
{
    if (dpc->DpcData != nullptr)
        return false;
    dpc->SystemArgument1 = argument1;
    dpc->SystemArgument2 = argument2;
    dpc->DpcData = &dispatcher.dpcs;
    InsertTailList(&dispatcher.dpcs, &dpc->DpcListEntry);
    dispatcher.dpcsQueued++;
    return true;
}

void Set(KTIMER* timer, const Deadline& deadline)
{
    timer->Header.Inserted = 1;
    timer->Header.Absolute = deadline.absolute;
    timer->DueTime.QuadPart = static_cast<ULONGLONG>(deadline.time);
    QueueOf(timer).Insert(timer);
    Live().timers++;
}

void Unset(KTIMER* timer)
{
    QueueOf(timer).Remove(timer);
    timer->Header.Inserted = 0;
    Live().timers--;
}

void Expire(Dispatcher& dispatcher, KTIMER* timer)
{
    KDPC* dpc = timer->Dpc;
    const int64_t late = RemainingTime(DueTimeOf(timer));
    Unset(timer);
    if (timer->Period != 0)
        Set(timer, {InterruptTime() + late + static_cast<int64_t>(timer->Period) * 10'000, false});
    Signal(&timer->Header);
    if (dpc != nullptr)
        QueueDpc(dispatcher, dpc, nullptr, nullptr);
}

KTIMER* FindDue(Dispatcher& dispatcher)
{
    for (TimerQueue* queue : {&dispatcher.intervalTimers, &dispatcher.systemTimers}) {
        KTIMER* first = queue->First();
        if (first != nullptr && RemainingTime(DueTimeOf(first)) <= 0)
            return first;
    }
    return nullptr;
}

void RunDpc(Dispatcher& dispatcher, std::unique_lock<std::mutex>& lock)
{
    auto* dpc = CONTAINING_RECORD(RemoveHeadList(&dispatcher.dpcs), KDPC, DpcListEntry);
    KDPC copy = *dpc;
    dpc->DpcData = nullptr;
    dispatcher.dpcRunning = true;
    lock.unlock();

    ThreadState& thread = t_thread;
    RaiseToDispatch(thread);
    if (copy.Type == kNdisTimerDpc)
        reinterpret_cast<PNDIS_TIMER_FUNCTION>(copy.DeferredRoutine)(
            dpc, copy.DeferredContext, copy.SystemArgument1, copy.SystemArgument2);
    else
        copy.DeferredRoutine(dpc, copy.DeferredContext, copy.SystemArgument1, copy.SystemArgument2);
    CheckReturn(DISPATCH_LEVEL, "deferred call", reinterpret_cast<const void*>(copy.DeferredRoutine));
    LowerTo(thread, PASSIVE_LEVEL, "deferred call");

    lock.lock();
    dispatcher.dpcRunning = false;
    dispatcher.dpcsEnded++;
    if (dispatcher.dpcFlushes != 0)
        dispatcher.idle.notify_all();
}

void Sleep(Dispatcher& dispatcher, std::unique_lock<std::mutex>& lock)
{
    dispatcher.idle.notify_all();
    int64_t next = 0;
    if (ClockStopped() || !EarliestTimer(&next))
        dispatcher.timerWork.wait(lock);
    else
        dispatcher.timerWork.wait_until(lock, RealTimeOf({next, false}));
}

void RunTimers()
{
    pthread_setname_np(pthread_self(), "kernel-timers");
    // Deferred calls go before all threads, also those that they start. Where the system does not let them they come
    // when their turn comes.
    sched_param priority{};
    priority.sched_priority = sched_get_priority_min(SCHED_RR);
    sched_setscheduler(0, SCHED_RR | SCHED_RESET_ON_FORK, &priority);
    Dispatcher& dispatcher = TheDispatcher();
    std::unique_lock lock(dispatcher.mutex);
    for (;;) {
        // Deferred calls run before the next timer expires, so that each call sees the clock at its own time.
        if (!IsListEmpty(&dispatcher.dpcs))
            RunDpc(dispatcher, lock);
        else if (KTIMER* due = FindDue(dispatcher))
            Expire(dispatcher, due);
        else
            Sleep(dispatcher, lock);
    }
}

void WakeTimerThread(Dispatcher& dispatcher)
{
    if (!dispatcher.timerThreadStarted) {
        dispatcher.timerThreadStarted = true;
        std::thread(RunTimers).detach();
    }
    dispatcher.timerWork.notify_one();
}

} // namespace

bool EarliestTimer(int64_t* due)
{
    Dispatcher& dispatcher = TheDispatcher();
    bool found = false;
    for (TimerQueue* queue : {&dispatcher.intervalTimers, &dispatcher.systemTimers}) {
        if (queue->IsEmpty())
            continue;
        int64_t first = DueIn(RemainingTime(DueTimeOf(queue->First())));
        *due = found ? std::min(*due, first) : first;
        found = true;
    }
    return found;
}

bool TimersAtRest()
{
    Dispatcher& dispatcher = TheDispatcher();
    return IsListEmpty(&dispatcher.dpcs) && !dispatcher.dpcRunning && FindDue(dispatcher) == nullptr;
}

const void* CancelTimersIn(const void* begin, const void* end)
{
    const size_t size = static_cast<size_t>(static_cast<const char*>(end) - static_cast<const char*>(begin));
    if (Live().timers.load(std::memory_order_relaxed) == 0 || size < sizeof(KTIMER))
        return nullptr;
    Dispatcher& dispatcher = TheDispatcher();
    std::lock_guard lock(dispatcher.mutex);
    std::vector<KTIMER*> found;
    for (TimerQueue* queue : {&dispatcher.intervalTimers, &dispatcher.systemTimers})
        for (KTIMER* timer : queue->All())
            if (timer >= begin && timer < end)
                found.push_back(timer);
    for (KTIMER* timer : found)
        Unset(timer);
    return found.empty() ? nullptr : found.front();
}

} // namespace kernel

using namespace kernel;

VOID KeInitializeDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext)
{
    *Dpc = {};
    Dpc->Type = kDpc;
    Dpc->DeferredRoutine = DeferredRoutine;
    Dpc->DeferredContext = DeferredContext;
}

BOOLEAN KeInsertQueueDpc(PRKDPC Dpc, PVOID SystemArgument1, PVOID SystemArgument2)
{
    Dispatcher& dispatcher = TheDispatcher();
    std::lock_guard lock(dispatcher.mutex);
    bool queued = QueueDpc(dispatcher, Dpc, SystemArgument1, SystemArgument2);
    WakeTimerThread(dispatcher);
    return queued;
}

VOID KeFlushQueuedDpcs(VOID)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "KeFlushQueuedDpcs");
    Dispatcher& dispatcher = TheDispatcher();
    std::unique_lock lock(dispatcher.mutex);
    const uint64_t queued = dispatcher.dpcsQueued;
    dispatcher.dpcFlushes++;
    dispatcher.idle.wait(lock, [&] { return dispatcher.dpcsEnded >= queued; });
    dispatcher.dpcFlushes--;
}

VOID KeInitializeTimerEx(PKTIMER Timer, TIMER_TYPE Type)
{
    *Timer = {};
    InitializeHeader(&Timer->Header, Type == NotificationTimer ? kNotificationTimer : kSynchronizationTimer,
                     sizeof(KTIMER), false);
}

VOID KeInitializeTimer(PKTIMER Timer)
{
    KeInitializeTimerEx(Timer, NotificationTimer);
}

BOOLEAN KeSetTimerEx(PKTIMER Timer, LARGE_INTEGER DueTime, LONG Period, PKDPC Dpc)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "KeSetTimer");
    Deadline deadline = DeadlineOf(DueTime);
    // Timers expire when the clock ticks: one without time left does at the next tick. So a timer that a deferred call
    // sets anew with no time does not keep the processor.
    if (RemainingTime(deadline) <= 0)
        deadline = DeadlineIn(1);
    Dispatcher& dispatcher = TheDispatcher();
    std::lock_guard lock(dispatcher.mutex);
    bool wasSet = Timer->Header.Inserted != 0;
    if (wasSet)
        Unset(Timer);
    __atomic_store_n(&Timer->Header.SignalState, 0, __ATOMIC_RELEASE);
    Timer->Dpc = Dpc;
    Timer->Period = Period;
    Set(Timer, deadline);
    if (QueueOf(Timer).First() == Timer)
        WakeTimerThread(dispatcher);
    return wasSet;
}

BOOLEAN KeSetTimer(PKTIMER Timer, LARGE_INTEGER DueTime, PKDPC Dpc)
{
    return KeSetTimerEx(Timer, DueTime, 0, Dpc);
}

BOOLEAN KeCancelTimer(PKTIMER Timer)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "KeCancelTimer");
    std::lock_guard lock(TheDispatcher().mutex);
    bool wasSet = Timer->Header.Inserted != 0;
    if (wasSet)
        Unset(Timer);
    return wasSet;
}

VOID NdisInitializeTimer(PNDIS_TIMER Timer, PNDIS_TIMER_FUNCTION TimerFunction, PVOID FunctionContext)
{
    KeInitializeTimer(&Timer->Timer);
    KeInitializeDpc(&Timer->Dpc, reinterpret_cast<PKDEFERRED_ROUTINE>(TimerFunction), FunctionContext);
    Timer->Dpc.Type = kNdisTimerDpc;
}

VOID NdisSetTimer(PNDIS_TIMER Timer, UINT MillisecondsToDelay)
{
    LARGE_INTEGER due;
    due.QuadPart = -static_cast<LONGLONG>(MillisecondsToDelay) * 10'000;
    KeSetTimer(&Timer->Timer, due, &Timer->Dpc);
}

VOID NdisCancelTimer(PNDIS_TIMER Timer, PBOOLEAN TimerCancelled)
{
    *TimerCancelled = KeCancelTimer(&Timer->Timer);
}
