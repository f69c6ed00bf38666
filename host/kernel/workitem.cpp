// Work items run on a few host threads at PASSIVE_LEVEL. An item is not touched any more once its routine has
// been called: the routine may free it.
#include "dispatcher.h"
#include "thread.h"
#include "verifier.h"

#include <pthread.h>
#include <thread>

using namespace kernel;

namespace
{

constexpr uint32_t kMaxWorkers = 4;

// One at a time is told: whoever comes up and leaves items behind tells the next. So a burst of items costs its thread
// one wake-up, and an item that waits for another one does not stop the rest.
void TellWorker(Dispatcher& dispatcher)
{
    if (dispatcher.idleWorkers != 0 && !dispatcher.workerWakes) {
        dispatcher.workerWakes = true;
        dispatcher.work.notify_one();
    }
}

void WaitForWork(Dispatcher& dispatcher, std::unique_lock<std::mutex>& lock)
{
    dispatcher.idle.notify_all();
    dispatcher.idleWorkers++;
    dispatcher.work.wait(lock);
    dispatcher.idleWorkers--;
    dispatcher.workerWakes = false;
}

void RunWorker()
{
    pthread_setname_np(pthread_self(), "kernel-worker");
    Dispatcher& dispatcher = TheDispatcher();
    std::unique_lock lock(dispatcher.mutex);
    for (;;) {
        if (IsListEmpty(&dispatcher.workItems) || dispatcher.workItemHolds != 0) {
            WaitForWork(dispatcher, lock);
            continue;
        }
        auto* item = CONTAINING_RECORD(RemoveHeadList(&dispatcher.workItems), WORK_QUEUE_ITEM, List);
        PWORKER_THREAD_ROUTINE routine = item->WorkerRoutine;
        void* parameter = item->Parameter;
        __atomic_store_n(&item->List.Flink, nullptr, __ATOMIC_RELAXED);
        dispatcher.workItemsRunning++;
        if (!IsListEmpty(&dispatcher.workItems))
            TellWorker(dispatcher);
        lock.unlock();

        routine(parameter);
        CheckReturn(PASSIVE_LEVEL, "work item", reinterpret_cast<const void*>(routine));

        lock.lock();
        dispatcher.workItemsRunning--;
        Live().workItems--;
    }
}

} // namespace

VOID ExQueueWorkItem(PWORK_QUEUE_ITEM WorkItem, WORK_QUEUE_TYPE)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "ExQueueWorkItem");
    Dispatcher& dispatcher = TheDispatcher();
    std::lock_guard lock(dispatcher.mutex);
    if (WorkItem->List.Flink != nullptr) {
        Report("work-item-queued-twice", "ExQueueWorkItem", "item %p, routine %s",
               static_cast<void*>(WorkItem),
               DescribeSite(reinterpret_cast<const void*>(WorkItem->WorkerRoutine)).text);
        return;
    }
    InsertTailList(&dispatcher.workItems, &WorkItem->List);
    Live().workItems++;
    if (dispatcher.workers < kMaxWorkers && Live().workItems > dispatcher.workers) {
        dispatcher.workers++;
        std::thread(RunWorker).detach();
    }
    TellWorker(dispatcher);
}

namespace machine
{

WorkItemHold::WorkItemHold()
{
    std::lock_guard lock(TheDispatcher().mutex);
    TheDispatcher().workItemHolds++;
}

WorkItemHold::~WorkItemHold()
{
    std::lock_guard lock(TheDispatcher().mutex);
    TheDispatcher().workItemHolds--;
    TheDispatcher().work.notify_all();
}

} // namespace machine
