#include "irql.h"

#include <algorithm>
#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

__thread ULONG HostProcessorNumber;

namespace kernel
{

Processor g_processors[MAXIMUM_PROCESSORS];
std::atomic<uint32_t> g_processorLimit{0};
std::atomic<uint32_t> g_processorWaiters{0};

namespace
{

std::atomic<uint32_t> g_releases{0};

bool TryEnter(ThreadState& thread, uint32_t number)
{
    if (g_processors[number].taken.exchange(1, std::memory_order_acquire) != 0)
        return false;
    thread.processor = static_cast<int>(number) + 1;
    HostProcessorNumber = number;
    // A writer that scans reader slots loads the limit after it has set its mark. Raising the limit before
    // any slot of this processor is used makes one of the two see the other.
    uint32_t limit = g_processorLimit.load();
    while (limit <= number && !g_processorLimit.compare_exchange_weak(limit, number + 1)) {
    }
    return true;
}

// The wake-up can be missed, as LeaveProcessor has no barrier between its store and its look at the waiters:
// hence the short time-out.
void WaitForRelease(uint32_t seen)
{
    g_processorWaiters.fetch_add(1);
    timespec timeout = {0, 1000000};
    syscall(SYS_futex, &g_releases, FUTEX_WAIT_PRIVATE, seen, &timeout, nullptr, 0);
    g_processorWaiters.fetch_sub(1);
}

} // namespace

void WakeProcessorWaiters()
{
    g_releases.fetch_add(1);
    syscall(SYS_futex, &g_releases, FUTEX_WAKE_PRIVATE, MAXIMUM_PROCESSORS, nullptr, nullptr, 0);
}

void EnterAnyProcessor(ThreadState& thread)
{
    RegisterThread(thread);
    for (;;) {
        uint32_t seen = g_releases.load();
        for (uint32_t number = 0; number < MAXIMUM_PROCESSORS; number++)
            if (TryEnter(thread, number))
                return;
        WaitForRelease(seen);
    }
}

void EnterProcessor(ThreadState& thread, int number)
{
    RegisterThread(thread);
    for (;;) {
        uint32_t seen = g_releases.load();
        if (TryEnter(thread, static_cast<uint32_t>(number)))
            return;
        WaitForRelease(seen);
    }
}

void LowerIrqlSlow(ThreadState& thread, KIRQL irql, const char* function)
{
    if (irql > thread.irql) {
        Report("irql-raised-by-lowering", function, "from %u to %u", thread.irql, irql);
        return;
    }
    if (thread.irql >= DISPATCH_LEVEL && irql < DISPATCH_LEVEL) {
        if (thread.heldCount != 0) {
            const HeldLock& held = thread.held[thread.heldCount - 1];
            Report("irql-lowered-with-lock-held", function, "to %u while lock %p (acquired at %s) is held",
                   irql, held.lock, DescribeSite(held.site).text);
            return;
        }
        thread.irql = irql;
        LeaveProcessor(thread);
        return;
    }
    thread.irql = irql;
}

void RemoveHeld(ThreadState& thread, uint32_t index)
{
    uint32_t count = thread.heldCount;
    std::rotate(thread.held + index, thread.held + index + 1, thread.held + count);
    __atomic_store_n(&thread.heldCount, count - 1, __ATOMIC_RELAXED);
}

void Backoff::Wait()
{
    rounds_++;
    if (rounds_ < 64) {
        __builtin_ia32_pause();
    } else if (rounds_ < 256) {
        sched_yield();
    } else {
        timespec pause = {0, 50000};
        nanosleep(&pause, nullptr);
    }
}

void RequireIrqlAtMost(unsigned char limit, const char* function)
{
    if (t_thread.irql > limit)
        Report("irql-too-high", function, "called at IRQL %u, allowed up to %u", t_thread.irql, limit);
}

} // namespace kernel

using namespace kernel;

KIRQL KeGetCurrentIrql(VOID)
{
    return t_thread.irql;
}

KIRQL KfRaiseIrql(KIRQL NewIrql)
{
    ThreadState& thread = t_thread;
    KIRQL old = thread.irql;
    if (NewIrql < old) {
        Report("irql-lowered-by-raising", "KeRaiseIrql", "from %u to %u", old, NewIrql);
        return old;
    }
    if (NewIrql >= DISPATCH_LEVEL)
        RaiseToDispatch(thread);
    thread.irql = NewIrql;
    return old;
}

KIRQL KeRaiseIrqlToDpcLevel(VOID)
{
    return KfRaiseIrql(DISPATCH_LEVEL);
}

VOID KeLowerIrql(KIRQL NewIrql)
{
    LowerTo(t_thread, NewIrql, "KeLowerIrql");
}

namespace machine
{

AtDispatch::AtDispatch(int processor) : oldIrql_(t_thread.irql)
{
    ThreadState& thread = t_thread;
    if (thread.irql >= DISPATCH_LEVEL || processor < 0) {
        if (processor >= 0 && thread.processor != processor + 1)
            Report("processor-changed-at-dispatch", "AtDispatch", "from %d to %d", thread.processor - 1,
                   processor);
        RaiseToDispatch(thread);
        return;
    }
    EnterProcessor(thread, processor % MAXIMUM_PROCESSORS);
    thread.irql = DISPATCH_LEVEL;
}

AtDispatch::~AtDispatch()
{
    LowerTo(t_thread, oldIrql_, "AtDispatch");
}

} // namespace machine
