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

void RunWorker()
{
    pthread_setname_np(pthread_self(), "kernel-worker");
    Dispatcher& dispatcher = TheDispatcher();
    std::unique_lock lock(dispatcher.mutex);
    for (;;) {
        if (IsListEmpty(&dispatcher.workItems) || dispatcher.workItemHolds != 0) {
            dispatcher.idle.notify_all();
            dispatcher.work.wait(lock);
            continue;
        }
        auto* item = CONTAINING_RECORD(RemoveHeadList(&dispatcher.workItems), WORK_QUEUE_ITEM, List);
        PWORKER_THREAD_ROUTINE routine = item->WorkerRoutine;
        void* parameter = item->Parameter;
        __atomic_store_n(&item->List.Flink, nullptr, __ATOMIC_RELAXED);
        dispatcher.workItemsRunning++;
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
    dispatcher.work.notify_one();
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
