// The set timers, the earliest first: a binary heap whose timers know their places.
#pragma once

#include <ntddk.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kernel
{

// Due times of one queue are of one kind: all system times, or all times since start.
class TimerQueue
{
  public:
    bool IsEmpty() const { return heap_.empty(); }
    KTIMER* First() const { return heap_.empty() ? nullptr : heap_.front(); }
    const std::vector<KTIMER*>& All() const { return heap_; } // in no order
    void Insert(KTIMER* timer);
    void Remove(KTIMER* timer);

  private:
    static int64_t DueTime(const KTIMER* timer) { return static_cast<int64_t>(timer->DueTime.QuadPart); }
    static size_t PlaceOf(const KTIMER* timer);
    void Put(size_t place, KTIMER* timer);
    void Settle(size_t place, KTIMER* timer); // `place` is free: finds the timer's place from there

    std::vector<KTIMER*> heap_;
};

} // namespace kernel
