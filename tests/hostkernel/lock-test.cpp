// IRQL, spin locks and read-write locks, and the rules that the verifier knows about them.
#include "rules.h"

#include <ndis.h>

#include <atomic>
#include <cstring>
#include <optional>
#include <thread>

namespace
{

using Locks = KernelTest;

TEST_F(Locks, RaiseToDispatchLevelAndComeBackInAnyNesting)
{
    NDIS_RW_LOCK outer, inner;
    NdisInitializeReadWriteLock(&outer);
    NdisInitializeReadWriteLock(&inner);
    KSPIN_LOCK spin;
    KeInitializeSpinLock(&spin);
    LOCK_STATE first, second, third;
    NdisAcquireReadWriteLock(&outer, FALSE, &first);
    ULONG processor = KeGetCurrentProcessorNumber();
    NdisAcquireReadWriteLock(&outer, FALSE, &second);
    NdisAcquireReadWriteLock(&inner, TRUE, &third);
    KIRQL old = KeAcquireSpinLockRaiseToDpc(&spin);
    EXPECT_EQ(old, DISPATCH_LEVEL);
    EXPECT_NE(spin, 0u);
    EXPECT_EQ(machine::TakeCensus().locksHeld, 4u);
    NdisReleaseReadWriteLock(&inner, &third); // not in the order of acquisition
    KeReleaseSpinLock(&spin, old);
    EXPECT_EQ(spin, 0u);
    EXPECT_EQ(KeGetCurrentProcessorNumber(), processor);
    NdisReleaseReadWriteLock(&outer, &second);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    NdisReleaseReadWriteLock(&outer, &first);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    EXPECT_EQ(machine::TakeCensus().locksHeld, 0u);
}

TEST_F(Locks, ExcludeWritersFromEverybody)
{
    NDIS_RW_LOCK lock;
    NdisInitializeReadWriteLock(&lock);
    KSPIN_LOCK spin = 0;
    int guarded = 0, underSpin = 0; // plain: the thread sanitizer watches them
    std::atomic<int> readers{0}, torn{0};
    auto work = [&](bool atDispatch) {
        for (int i = 0; i < 3000; i++) {
            std::optional<machine::AtDispatch> level;
            if (atDispatch)
                level.emplace();
            LOCK_STATE state;
            BOOLEAN write = i % 4 == 0;
            NdisAcquireReadWriteLock(&lock, write, &state);
            if (write) {
                torn += readers != 0;
                guarded++;
            } else {
                readers++;
                LOCK_STATE nested; // goes through also while a writer waits
                NdisAcquireReadWriteLock(&lock, FALSE, &nested);
                torn += guarded < 0;
                if (i % 16 == 1) {
                    std::this_thread::yield(); // to writers that do not wait
                }
                readers--;
                NdisReleaseReadWriteLock(&lock, &nested);
            }
            NdisReleaseReadWriteLock(&lock, &state);
            KIRQL old;
            KeAcquireSpinLock(&spin, &old);
            underSpin++;
            KeReleaseSpinLock(&spin, old);
        }
    };
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 4; i++) {
            threads.emplace_back(work, i % 2 == 0);
        }
    }
    EXPECT_EQ(guarded, 4 * 750);
    EXPECT_EQ(underSpin, 4 * 3000);
    EXPECT_EQ(torn, 0);
}

TEST_F(Locks, RecursionIsReportedInsteadOfHanging)
{
    NDIS_RW_LOCK lock;
    NdisInitializeReadWriteLock(&lock);
    for (auto [outer, inner] : {std::pair{FALSE, TRUE}, {TRUE, FALSE}, {TRUE, TRUE}}) {
        LOCK_STATE first, second;
        NdisAcquireReadWriteLock(&lock, static_cast<BOOLEAN>(outer), &first);
        NdisAcquireReadWriteLock(&lock, static_cast<BOOLEAN>(inner), &second);
        ExpectRule("rw-lock-recursion");
        NdisReleaseReadWriteLock(&lock, &second);
        NdisReleaseReadWriteLock(&lock, &first);
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    }
    KSPIN_LOCK spin = 0;
    KIRQL old, again;
    KeAcquireSpinLock(&spin, &old);
    KeAcquireSpinLock(&spin, &again);
    ExpectRule("spin-lock-recursion");
    KeReleaseSpinLock(&spin, again);
    EXPECT_NE(spin, 0u);
    KeReleaseSpinLock(&spin, old);
    EXPECT_EQ(spin, 0u);
}

TEST_F(Locks, BrokenRulesAreNamed)
{
    NDIS_RW_LOCK lock;
    memset(&lock, 0, sizeof(lock));
    LOCK_STATE state;
    NdisAcquireReadWriteLock(&lock, FALSE, &state);
    ExpectRule("lock-not-initialized");
    std::thread([&] {
        LOCK_STATE copy = state;
        NdisReleaseReadWriteLock(&lock, &copy);
    }).join();
    ExpectRule("lock-held-by-another-thread");
    KeLowerIrql(PASSIVE_LEVEL);
    ExpectRule("irql-lowered-with-lock-held");
    NdisReleaseReadWriteLock(&lock, &state);
    NdisReleaseReadWriteLock(&lock, &state);
    ExpectRule("lock-not-held");

    KSPIN_LOCK spin = 0;
    KeReleaseSpinLock(&spin, PASSIVE_LEVEL);
    ExpectRule("lock-not-held");
    KeAcquireSpinLockAtDpcLevel(&spin);
    ExpectRule("irql-too-low");
    machine::CheckReturnToUser("a request");
    ExpectRule("lock-left-held");
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    machine::CheckReturnToUser("a request");
    ExpectRule("irql-changed");
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
}

TEST_F(Locks, AThreadAtDispatchLevelOwnsItsProcessor)
{
    constexpr int kThreads = MAXIMUM_PROCESSORS + 8; // more than there are: some wait
    std::atomic<int> owners[MAXIMUM_PROCESSORS] = {};
    std::atomic<int> shared{0};
    const auto work = [&] {
        for (int round = 0; round < 20; round++) {
            machine::AtDispatch level;
            auto& owner = owners[KeGetCurrentProcessorNumber()];
            shared += owner.fetch_add(1) != 0;
            std::this_thread::yield();
            owner--;
        }
    };
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < kThreads; i++) {
            threads.emplace_back(work);
        }
    }
    EXPECT_EQ(shared, 0);
    machine::AtDispatch chosen(37);
    EXPECT_EQ(KeGetCurrentProcessorNumber(), 37u);
}

} // namespace
