#include "timer-queue.h"

namespace kernel
{

void TimerQueue::Insert(KTIMER* timer)
{
    heap_.push_back(timer);
    Settle(heap_.size() - 1, timer);
}

void TimerQueue::Remove(KTIMER* timer)
{
    KTIMER* last = heap_.back();
    heap_.pop_back();
    if (last != timer)
        Settle(PlaceOf(timer), last);
}

size_t TimerQueue::PlaceOf(const KTIMER* timer)
{
    return reinterpret_cast<size_t>(timer->TimerListEntry.Flink);
}

void TimerQueue::Put(size_t place, KTIMER* timer)
{
    heap_[place] = timer;
    timer->TimerListEntry.Flink = reinterpret_cast<LIST_ENTRY*>(place);
}

void TimerQueue::Settle(size_t place, KTIMER* timer)
{
    for (; place > 0; place = (place - 1) / 2) {
        KTIMER* parent = heap_[(place - 1) / 2];
        if (DueTime(parent) <= DueTime(timer))
            break;
        Put(place, parent);
    }
    for (size_t child; (child = 2 * place + 1) < heap_.size(); place = child) {
        if (child + 1 < heap_.size() && DueTime(heap_[child + 1]) < DueTime(heap_[child]))
            child++;
        if (DueTime(timer) <= DueTime(heap_[child]))
            break;
        Put(place, heap_[child]);
    }
    Put(place, timer);
}

} // namespace kernel
