// IRQL and processor numbers. From raising to DISPATCH_LEVEL until lowering a thread owns a processor number
// that no other thread has.
#pragma once

#include "thread.h"
#include "verifier.h"

namespace kernel
{

struct alignas(64) Processor {
    std::atomic<uint32_t> taken;
};
extern Processor g_processors[MAXIMUM_PROCESSORS];
extern std::atomic<uint32_t> g_processorLimit; // one more than the highest number ever used
extern std::atomic<uint32_t> g_processorWaiters;

void EnterAnyProcessor(ThreadState& thread);          // waits while all are taken
void EnterProcessor(ThreadState& thread, int number); // waits until this one is free
void WakeProcessorWaiters();

inline uint32_t CurrentProcessor(const ThreadState& thread)
{
    return static_cast<uint32_t>(thread.processor - 1);
}

// Raises to DISPATCH_LEVEL; answers the level before.
inline KIRQL RaiseToDispatch(ThreadState& thread)
{
    KIRQL old = thread.irql;
    if (__builtin_expect(old < DISPATCH_LEVEL, 0)) {
        // The acquire pairs with the release in LeaveProcessor: whoever owned the number before is done.
        int last = thread.processor;
        if (last == 0 || g_processors[last - 1].taken.exchange(1, std::memory_order_acquire) != 0)
            EnterAnyProcessor(thread);
        thread.irql = DISPATCH_LEVEL;
    }
    return old;
}

inline void LeaveProcessor(ThreadState& thread)
{
    g_processors[thread.processor - 1].taken.store(0, std::memory_order_release);
    if (__builtin_expect(g_processorWaiters.load(std::memory_order_relaxed) != 0, 0))
        WakeProcessorWaiters();
}

// Lowers to `irql`. While locks are held the level stays at DISPATCH_LEVEL and the rule is reported.
void LowerIrqlSlow(ThreadState& thread, KIRQL irql, const char* function);

inline void LowerTo(ThreadState& thread, KIRQL irql, const char* function)
{
    if (__builtin_expect(irql != thread.irql, 0))
        LowerIrqlSlow(thread, irql, function);
}

// Notes a lock as held where there is room for it for sure.
inline void NoteHeld(ThreadState& thread, const void* lock, LockKind kind, const void* site, bool refused)
{
    uint32_t count = thread.heldCount;
#ifdef NDEBUG
    thread.held[count] = {lock, site, kind, refused};
#else
    thread.held[count] = {lock, site, kind, refused, ++thread.operations};
#endif
    __atomic_store_n(&thread.heldCount, count + 1, __ATOMIC_RELAXED);
}

// Notes a lock as held by the calling thread.
inline void PushHeld(ThreadState& thread, const void* lock, LockKind kind, const void* site, bool refused)
{
    if (__builtin_expect(thread.heldCount == kMaxHeldLocks, 0))
        Report("too-many-locks", "lock acquisition", "the thread holds %u locks already", thread.heldCount);
    else
        NoteHeld(thread, lock, kind, site, refused);
}

// Takes back the note at `index`.
void RemoveHeld(ThreadState& thread, uint32_t index);

// Takes back the latest note of a lock: null when the thread does not hold it. The note stays readable until
// the next lock is taken.
inline const HeldLock* PopHeld(ThreadState& thread, const void* lock)
{
    uint32_t count = thread.heldCount;
    if (__builtin_expect(count != 0 && thread.held[count - 1].lock == lock, 1)) {
        __atomic_store_n(&thread.heldCount, count - 1, __ATOMIC_RELAXED);
        return &thread.held[count - 1];
    }
    for (uint32_t i = count; i-- > 0;) {
        if (thread.held[i].lock == lock) {
            RemoveHeld(thread, i); // moves the note behind those that stay
            return &thread.held[count - 1];
        }
    }
    return nullptr;
}

inline const HeldLock* FindHeld(const ThreadState& thread, const void* lock)
{
    for (uint32_t i = thread.heldCount; i-- > 0;)
        if (thread.held[i].lock == lock)
            return &thread.held[i];
    return nullptr;
}

// Waiting for a lock word: pauses first, then gives the processor away, then sleeps shortly.
class Backoff
{
  public:
    void Wait();

  private:
    uint32_t rounds_ = 0;
};

} // namespace kernel
