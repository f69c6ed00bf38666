#include "dispatcher.h"

#include "thread.h"
#include "verifier.h"

namespace kernel
{

namespace
{

// A thread in a wait; lives on that thread's stack.
struct WaitBlock {
    LIST_ENTRY objectEntry; // in the waiters of `header`
    LIST_ENTRY timedEntry;  // in the timed waits
    DISPATCHER_HEADER* header;
    const Deadline* deadline;
    bool systemThread;
    bool done;
    NTSTATUS status;
    std::condition_variable wake;
};

void Finish(Dispatcher& dispatcher, WaitBlock* block, NTSTATUS status)
{
    if (block->header != nullptr)
        RemoveEntryList(&block->objectEntry);
    if (block->deadline != nullptr)
        RemoveEntryList(&block->timedEntry);
    block->done = true;
    block->status = status;
    if (block->systemThread)
        dispatcher.runningThreads++;
    block->wake.notify_one();
}

bool IsSynchronization(UCHAR type)
{
    return type == kSynchronizationEvent || type == kSynchronizationTimer;
}

bool Consume(DISPATCHER_HEADER* header)
{
    if (__atomic_load_n(&header->SignalState, __ATOMIC_ACQUIRE) == 0)
        return false;
    if (IsSynchronization(header->Type))
        __atomic_store_n(&header->SignalState, 0, __ATOMIC_RELEASE);
    return true;
}

// Where a ThreadHold stops system threads.
void StayWhileHeld(Dispatcher& dispatcher, std::unique_lock<std::mutex>& lock)
{
    while (dispatcher.threadHolds.load() != 0) {
        uint64_t seen = dispatcher.threadReleases;
        dispatcher.runningThreads--;
        dispatcher.heldThreads++;
        dispatcher.idle.notify_all();
        dispatcher.threadRelease.wait(lock, [&] { return dispatcher.threadReleases != seen; });
        // Whoever ended the hold has counted this thread as running again.
    }
}

void Sleep(Dispatcher& dispatcher, WaitBlock* block, std::unique_lock<std::mutex>& lock)
{
    while (!block->done) {
        if (block->deadline == nullptr || ClockStopped()) {
            block->wake.wait(lock);
        } else if (RemainingTime(*block->deadline) <= 0) {
            Finish(dispatcher, block, STATUS_TIMEOUT);
        } else {
            block->wake.wait_until(lock, RealTimeOf(*block->deadline));
        }
    }
}

} // namespace

Dispatcher::Dispatcher()
{
    InitializeListHead(&timedWaits);
    InitializeListHead(&dpcs);
    InitializeListHead(&workItems);
}

Dispatcher& TheDispatcher()
{
    static Dispatcher& dispatcher =
        *new Dispatcher; // never destroyed: its threads run until the process ends
    return dispatcher;
}

void InitializeHeader(DISPATCHER_HEADER* header, UCHAR type, UCHAR sizeInBytes, bool signalled)
{
    header->Type = type;
    header->Absolute = 0;
    header->Size = static_cast<UCHAR>(sizeInBytes / sizeof(ULONG));
    header->Inserted = 0;
    __atomic_store_n(&header->SignalState, signalled ? 1 : 0, __ATOMIC_RELEASE);
    InitializeListHead(&header->WaitListHead);
}

void Signal(DISPATCHER_HEADER* header)
{
    Dispatcher& dispatcher = TheDispatcher();
    bool one = IsSynchronization(header->Type);
    if (one && !IsListEmpty(&header->WaitListHead)) {
        Finish(dispatcher, CONTAINING_RECORD(header->WaitListHead.Flink, WaitBlock, objectEntry),
               STATUS_SUCCESS);
        return;
    }
    __atomic_store_n(&header->SignalState, 1, __ATOMIC_SEQ_CST);
    while (!IsListEmpty(&header->WaitListHead))
        Finish(dispatcher, CONTAINING_RECORD(header->WaitListHead.Flink, WaitBlock, objectEntry),
               STATUS_SUCCESS);
}

void WakeDueWaits()
{
    Dispatcher& dispatcher = TheDispatcher();
    for (LIST_ENTRY* entry = dispatcher.timedWaits.Flink; entry != &dispatcher.timedWaits;) {
        auto* block = CONTAINING_RECORD(entry, WaitBlock, timedEntry);
        entry = entry->Flink;
        if (RemainingTime(*block->deadline) <= 0)
            Finish(dispatcher, block, STATUS_TIMEOUT);
    }
}

void RecheckTimedWaits()
{
    Dispatcher& dispatcher = TheDispatcher();
    for (LIST_ENTRY* entry = dispatcher.timedWaits.Flink; entry != &dispatcher.timedWaits;
         entry = entry->Flink)
        CONTAINING_RECORD(entry, WaitBlock, timedEntry)->wake.notify_one();
    dispatcher.timerWork.notify_all();
}

bool NextDueTime(int64_t limit, int64_t* time)
{
    Dispatcher& dispatcher = TheDispatcher();
    bool found = false;
    auto consider = [&](int64_t due) {
        if (due <= limit && (!found || due < *time)) {
            *time = due;
            found = true;
        }
    };
    for (LIST_ENTRY* entry = dispatcher.timedWaits.Flink; entry != &dispatcher.timedWaits;
         entry = entry->Flink)
        consider(DueIn(RemainingTime(*CONTAINING_RECORD(entry, WaitBlock, timedEntry)->deadline)));
    if (int64_t due = 0; EarliestTimer(&due))
        consider(due);
    return found;
}

bool EverythingAtRest()
{
    Dispatcher& dispatcher = TheDispatcher();
    return IsListEmpty(&dispatcher.workItems) && dispatcher.workItemsRunning == 0 &&
           dispatcher.runningThreads == 0 && TimersAtRest();
}

NTSTATUS Wait(DISPATCHER_HEADER* header, const Deadline* deadline, const char* function)
{
    ThreadState& thread = t_thread;
    bool mayBlock = deadline == nullptr || RemainingTime(*deadline) > 0;
    if (mayBlock && thread.irql >= DISPATCH_LEVEL) {
        Report("wait-at-dispatch", function, "a wait that may block at IRQL %u", thread.irql);
        mayBlock = false;
    }
    Dispatcher& dispatcher = TheDispatcher();
    std::unique_lock lock(dispatcher.mutex);
    if (header != nullptr && header->WaitListHead.Flink == nullptr) {
        Report("object-not-initialized", function, "object %p", static_cast<void*>(header));
        return STATUS_INVALID_PARAMETER;
    }
    if (thread.systemThread && mayBlock)
        StayWhileHeld(dispatcher, lock);
    if (header != nullptr && Consume(header))
        return STATUS_SUCCESS;
    if (!mayBlock)
        return STATUS_TIMEOUT;

    WaitBlock block{};
    block.header = header;
    block.deadline = deadline;
    block.systemThread = thread.systemThread;
    if (header != nullptr)
        InsertTailList(&header->WaitListHead, &block.objectEntry);
    if (deadline != nullptr)
        InsertTailList(&dispatcher.timedWaits, &block.timedEntry);
    if (thread.systemThread) {
        dispatcher.runningThreads--;
        dispatcher.idle.notify_all();
    }
    Sleep(dispatcher, &block, lock);
    if (thread.systemThread)
        StayWhileHeld(dispatcher, lock);
    return block.status;
}

} // namespace kernel

using namespace kernel;

NTSTATUS KeWaitForSingleObject(PVOID Object, KWAIT_REASON, KPROCESSOR_MODE, BOOLEAN, PLARGE_INTEGER Timeout)
{
    auto* header = static_cast<DISPATCHER_HEADER*>(Object);
    if (Timeout == nullptr)
        return Wait(header, nullptr, "KeWaitForSingleObject");
    Deadline deadline = DeadlineOf(*Timeout);
    return Wait(header, &deadline, "KeWaitForSingleObject");
}

NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE, BOOLEAN, PLARGE_INTEGER Interval)
{
    Deadline deadline = DeadlineOf(*Interval);
    RequireIrqlAtMost(APC_LEVEL, "KeDelayExecutionThread");
    Wait(nullptr, &deadline, "KeDelayExecutionThread");
    return STATUS_SUCCESS;
}
