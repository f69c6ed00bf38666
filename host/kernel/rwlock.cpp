// NDIS read-write locks. A reader marks the slot of its processor with one exchange and looks at the writer's
// mark; a writer sets its mark with one exchange and looks at the slots. Both exchanges are sequentially
// consistent, so at least one of the two sees the other. Readers give way to a writer that waits, except a
// thread that reads already.
#include "irql.h"

#include <ndis.h>

#include <cstring>

using namespace kernel;

namespace
{

constexpr ULONG kSignature = 0x4B4C5752; // "RWLK"

enum : USHORT { kStateRead = 1, kStateWrite = 2, kStateRefused = 3, kStateReleased = 0 };

constexpr LOCK_STATE kReadAtDispatch = {kStateRead, DISPATCH_LEVEL};

struct Slot {
    ULONG* count;
    ULONG Get() const { return __atomic_load_n(count, __ATOMIC_RELAXED); }
    void Set(ULONG value) const { __atomic_store_n(count, value, __ATOMIC_RELAXED); }
};

// Of the processor that the thread owns.
Slot SlotOf(NDIS_RW_LOCK* lock, const ThreadState& thread)
{
    return {&lock->Reader[static_cast<ptrdiff_t>(thread.processor) - 1].Count};
}

[[gnu::noinline]] void WaitForWriter(NDIS_RW_LOCK* lock, Slot slot)
{
    Backoff backoff;
    for (;;) {
        __atomic_store_n(slot.count, 0, __ATOMIC_RELEASE);
        while (__atomic_load_n(&lock->Writer, __ATOMIC_RELAXED) != 0)
            backoff.Wait();
        __atomic_exchange_n(slot.count, 1, __ATOMIC_SEQ_CST);
        if (__atomic_load_n(&lock->Writer, __ATOMIC_ACQUIRE) == 0)
            return;
    }
}

[[gnu::noinline]] void RefuseRecursion(ThreadState& thread, NDIS_RW_LOCK* lock, PLOCK_STATE state,
                                       const char* what, const void* site)
{
    const HeldLock* first = FindHeld(thread, lock);
    Report("rw-lock-recursion", "NdisAcquireReadWriteLock", "%s of lock %p, first acquired at %s", what,
           static_cast<void*>(lock), DescribeSite(first ? first->site : nullptr).text);
    PushHeld(thread, lock, LockKind::Write, site, true);
    state->LockState = kStateRefused;
}

[[gnu::noinline]] void ReportUninitialized(NDIS_RW_LOCK* lock)
{
    Report("lock-not-initialized", "NdisAcquireReadWriteLock", "read-write lock %p",
           static_cast<void*>(lock));
    NdisInitializeReadWriteLock(lock);
}

[[gnu::noinline]] void AcquireWrite(ThreadState& thread, NDIS_RW_LOCK* lock, PLOCK_STATE state,
                                    const void* site)
{
    if (const HeldLock* held = FindHeld(thread, lock)) {
        RefuseRecursion(thread, lock, state,
                        held->kind == LockKind::Read ? "write inside read" : "write inside write", site);
        return;
    }
    Backoff backoff;
    while (__atomic_exchange_n(&lock->Writer, 1, __ATOMIC_SEQ_CST) != 0)
        backoff.Wait();
    uint32_t limit = g_processorLimit.load();
    for (uint32_t processor = 0; processor < limit; processor++) {
        Backoff slotBackoff;
        while (__atomic_load_n(&lock->Reader[processor].Count, __ATOMIC_ACQUIRE) != 0)
            slotBackoff.Wait();
    }
    __atomic_store_n(&lock->WriterThread, &thread, __ATOMIC_RELAXED);
    PushHeld(thread, lock, LockKind::Write, site, false);
    state->LockState = kStateWrite;
}

[[gnu::noinline]] void ReportBadRelease(NDIS_RW_LOCK* lock, const LOCK_STATE* state)
{
    bool elsewhere = __atomic_load_n(&lock->Writer, __ATOMIC_RELAXED) != 0;
    for (const auto& reader : lock->Reader)
        elsewhere = elsewhere || __atomic_load_n(&reader.Count, __ATOMIC_RELAXED) != 0;
    Report(elsewhere ? "lock-held-by-another-thread" : "lock-not-held", "NdisReleaseReadWriteLock",
           "read-write lock %p, lock state %u", static_cast<void*>(lock), state->LockState);
}

void FinishRead(ThreadState& thread, NDIS_RW_LOCK* lock, PLOCK_STATE state, const void* site, KIRQL oldIrql)
{
    PushHeld(thread, lock, LockKind::Read, site, false);
    state->LockState = kStateRead;
    state->OldIrql = oldIrql;
}

// The slot is marked and a writer holds the lock or waits for it.
[[gnu::noinline]] void GiveWay(NDIS_RW_LOCK* lock, PLOCK_STATE state, const void* site, KIRQL oldIrql)
{
    ThreadState& thread = t_thread;
    Slot slot = SlotOf(lock, thread);
    if (__atomic_load_n(&lock->WriterThread, __ATOMIC_RELAXED) == &thread) {
        __atomic_store_n(slot.count, 0, __ATOMIC_RELEASE);
        state->OldIrql = oldIrql;
        RefuseRecursion(thread, lock, state, "read inside write", site);
        return;
    }
    WaitForWriter(lock, slot);
    FinishRead(thread, lock, state, site, oldIrql);
}

[[gnu::noinline]] void AcquireRead(NDIS_RW_LOCK* lock, PLOCK_STATE state, const void* site, KIRQL oldIrql)
{
    ThreadState& thread = t_thread;
    Slot slot = SlotOf(lock, thread);
    ULONG count = slot.Get();
    if (count != 0) {
        slot.Set(count + 1); // only this thread runs on the processor, so it reads the lock already
    } else {
        __atomic_exchange_n(slot.count, 1, __ATOMIC_SEQ_CST);
        if (__atomic_load_n(&lock->Writer, __ATOMIC_ACQUIRE) != 0)
            return GiveWay(lock, state, site, oldIrql);
    }
    FinishRead(thread, lock, state, site, oldIrql);
}

[[gnu::noinline]] void AcquireAny(NDIS_RW_LOCK* lock, BOOLEAN write, PLOCK_STATE state, const void* site)
{
    if (lock->Signature != kSignature)
        ReportUninitialized(lock);
    KIRQL oldIrql = RaiseToDispatch(t_thread);
    if (!write)
        return AcquireRead(lock, state, site, oldIrql);
    state->OldIrql = oldIrql;
    AcquireWrite(t_thread, lock, state, site);
}

[[gnu::noinline]] void ReleaseAny(NDIS_RW_LOCK* lock, PLOCK_STATE state)
{
    ThreadState& thread = t_thread;
    const HeldLock* held = PopHeld(thread, lock);
    if (held == nullptr) {
        ReportBadRelease(lock, state);
        return;
    }
    if (held->kind == LockKind::Read) {
        Slot slot = SlotOf(lock, thread);
        __atomic_store_n(slot.count, slot.Get() - 1, __ATOMIC_RELEASE);
    } else if (!held->refused) {
        __atomic_store_n(&lock->WriterThread, nullptr, __ATOMIC_RELAXED);
        __atomic_store_n(&lock->Writer, 0, __ATOMIC_RELEASE);
    }
    state->LockState = kStateReleased;
    LowerTo(thread, state->OldIrql, "NdisReleaseReadWriteLock");
}

// With its address in a register: else each access finds the thread's memory anew.
inline ThreadState& ThisThread()
{
    ThreadState* thread = &t_thread;
    asm("" : "+r"(thread));
    return *thread;
}

} // namespace

VOID NdisInitializeReadWriteLock(PNDIS_RW_LOCK Lock)
{
    memset(Lock, 0, sizeof(*Lock));
    Lock->Signature = kSignature;
}

// The two routines below hold only the road of a reader that is at DISPATCH_LEVEL already and meets no
// writer. All else is called at their end, so that they save no registers: the exchange waits for every store
// before it.

VOID NdisAcquireReadWriteLock(PNDIS_RW_LOCK Lock, BOOLEAN fWrite, PLOCK_STATE LockState)
{
    ThreadState& thread = ThisThread();
    const void* site = __builtin_return_address(0);
    if (__builtin_expect(fWrite || thread.irql != DISPATCH_LEVEL || Lock->Signature != kSignature, 0))
        return AcquireAny(Lock, fWrite, LockState, site);
    Slot slot = SlotOf(Lock, thread);
    if (__builtin_expect(slot.Get() != 0 || thread.heldCount == kMaxHeldLocks, 0))
        return AcquireRead(Lock, LockState, site, thread.irql);
    __atomic_exchange_n(slot.count, 1, __ATOMIC_SEQ_CST);
    if (__builtin_expect(__atomic_load_n(&Lock->Writer, __ATOMIC_ACQUIRE) != 0, 0))
        return GiveWay(Lock, LockState, site, DISPATCH_LEVEL);
    NoteHeld(thread, Lock, LockKind::Read, site, false);
    memcpy(LockState, &kReadAtDispatch, sizeof(LOCK_STATE)); // one store, with the padding
}

VOID NdisReleaseReadWriteLock(PNDIS_RW_LOCK Lock, PLOCK_STATE LockState)
{
    ThreadState& thread = ThisThread();
    uint32_t count = thread.heldCount;
    if (__builtin_expect(count == 0 || LockState->OldIrql != thread.irql, 0))
        return ReleaseAny(Lock, LockState);
    const HeldLock& held = thread.held[count - 1];
    if (__builtin_expect(held.lock != Lock || held.kind != LockKind::Read, 0))
        return ReleaseAny(Lock, LockState);
    __atomic_store_n(&thread.heldCount, count - 1, __ATOMIC_RELAXED);
    memset(LockState, kStateReleased, sizeof(LOCK_STATE)); // one store
    Slot slot = SlotOf(Lock, thread);
    __atomic_store_n(slot.count, slot.Get() - 1, __ATOMIC_RELEASE);
}
