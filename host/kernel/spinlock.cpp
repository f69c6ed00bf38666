#include "irql.h"

using namespace kernel;

namespace
{

// The word holds the address of the owner's thread state while the lock is held.
ULONG_PTR OwnerWord(const ThreadState& thread)
{
    return reinterpret_cast<ULONG_PTR>(&thread);
}

void Acquire(ThreadState& thread, PKSPIN_LOCK lock, const char* function, const void* site)
{
    ULONG_PTR owner = 0;
    if (__builtin_expect(!__atomic_compare_exchange_n(lock, &owner, OwnerWord(thread), false,
                                                      __ATOMIC_ACQUIRE, __ATOMIC_RELAXED),
                         0)) {
        if (owner == OwnerWord(thread)) {
            const HeldLock* first = FindHeld(thread, lock);
            Report("spin-lock-recursion", function, "lock %p, first acquired at %s", static_cast<void*>(lock),
                   DescribeSite(first ? first->site : nullptr).text);
            PushHeld(thread, lock, LockKind::Spin, site, true);
            return;
        }
        Backoff backoff;
        do {
            backoff.Wait();
            owner = 0;
        } while (__atomic_load_n(lock, __ATOMIC_RELAXED) != 0 ||
                 !__atomic_compare_exchange_n(lock, &owner, OwnerWord(thread), false, __ATOMIC_ACQUIRE,
                                              __ATOMIC_RELAXED));
    }
    PushHeld(thread, lock, LockKind::Spin, site, false);
}

bool Release(ThreadState& thread, PKSPIN_LOCK lock, const char* function)
{
    const HeldLock* held = PopHeld(thread, lock);
    if (held == nullptr) {
        ULONG_PTR owner = __atomic_load_n(lock, __ATOMIC_RELAXED);
        Report(owner == 0 ? "lock-not-held" : "lock-held-by-another-thread", function, "spin lock %p",
               static_cast<void*>(lock));
        return false;
    }
    if (!held->refused)
        __atomic_store_n(lock, 0, __ATOMIC_RELEASE);
    return true;
}

void RequireDispatch(const ThreadState& thread, const char* function)
{
    if (thread.irql < DISPATCH_LEVEL)
        Report("irql-too-low", function, "called at IRQL %u, needs DISPATCH_LEVEL", thread.irql);
}

} // namespace

VOID KeInitializeSpinLock(PKSPIN_LOCK SpinLock)
{
    __atomic_store_n(SpinLock, 0, __ATOMIC_RELAXED);
}

KIRQL KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock)
{
    ThreadState& thread = t_thread;
    RequireIrqlAtMost(DISPATCH_LEVEL, "KeAcquireSpinLock");
    KIRQL old = RaiseToDispatch(thread);
    Acquire(thread, SpinLock, "KeAcquireSpinLock", __builtin_return_address(0));
    return old;
}

VOID KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql)
{
    ThreadState& thread = t_thread;
    if (Release(thread, SpinLock, "KeReleaseSpinLock"))
        LowerTo(thread, NewIrql, "KeReleaseSpinLock");
}

VOID KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock)
{
    ThreadState& thread = t_thread;
    RequireDispatch(thread, "KeAcquireSpinLockAtDpcLevel");
    Acquire(thread, SpinLock, "KeAcquireSpinLockAtDpcLevel", __builtin_return_address(0));
}

VOID KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock)
{
    ThreadState& thread = t_thread;
    RequireDispatch(thread, "KeReleaseSpinLockFromDpcLevel");
    Release(thread, SpinLock, "KeReleaseSpinLockFromDpcLevel");
}
