// Pool, NDIS memory and lookaside lists: what they hand out, and what the verifier notices when it comes
// back.
#include "rules.h"

#include <hostguard.h>
#include <ndis.h>

namespace
{

using Pool = KernelTest;

constexpr ULONG kTag = 0x6B636F4C; // "Lock"

// Reads as the driver's tag check does: without the sanitizers' bookkeeping.
__attribute__((no_sanitize("address", "thread"), noinline)) unsigned char
ReadUnchecked(const volatile void* address)
{
    return *static_cast<const volatile unsigned char*>(address);
}

__attribute__((no_sanitize("address", "thread"), noinline)) void WriteUnchecked(volatile void* address)
{
    *static_cast<volatile unsigned char*>(address) = 1;
}

TEST_F(Pool, BlocksAreCountedAlignedAndDescribed)
{
    machine::Census before = machine::TakeCensus();
    void* small = ExAllocatePoolWithTag(NonPagedPool, 80, kTag);
    void* large = ExAllocatePoolWithTag(NonPagedPool, 70000, kTag);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(small) % 16, 0u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(large) % PAGE_SIZE, 0u);
    machine::Census now = machine::TakeCensus();
    EXPECT_EQ(now.poolBlocks, before.poolBlocks + 2);
    EXPECT_EQ(now.poolBytes, before.poolBytes + 70080);
    EXPECT_NE(machine::DescribeCensus(now).find("Lock 1 x 80 bytes"), std::string::npos)
        << DescribeCensus(now);
    memset(small, 1, 80);
    memset(large, 1, 70000);
    // Large blocks lie between guard pages.
    auto write = [](void* address) { WriteUnchecked(address); };
    void* guarded = ExAllocatePoolWithTag(NonPagedPool, 32 * PAGE_SIZE, kTag);
    EXPECT_EQ(HostCallGuarded(write, static_cast<char*>(guarded) - 1), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(HostCallGuarded(write, static_cast<char*>(guarded) + 32 * PAGE_SIZE), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(HostCallGuarded(write, static_cast<char*>(guarded) + 32 * PAGE_SIZE - 1), 0);
    ExFreePool(guarded);
    ExFreePoolWithTag(small, kTag);
    ExFreePool(large);
    EXPECT_EQ(machine::TakeCensus(), before);
    EXPECT_EQ(ReadUnchecked(small), 0xDD); // a stale handle reads no tag
}

TEST_F(Pool, WrongFreesAreNamed)
{
    void* block = ExAllocatePoolWithTag(NonPagedPool, 80, kTag);
    ExFreePoolWithTag(block, kTag + 1);
    EXPECT_NE(ExpectRule("wrong-tag").find("'Lock' freed as 'Mock'"), std::string::npos);
    ExFreePool(block);
    ExpectRule("double-free");
    int local[32] = {};
    for (void* none : {static_cast<void*>(local + 8), static_cast<void*>(nullptr)}) {
        ExFreePool(none);
        ExpectRule("not-a-pool-block");
    }

    void* memory = nullptr;
    ASSERT_EQ(NdisAllocateMemoryWithTag(&memory, 100, kTag), NDIS_STATUS_SUCCESS);
    NdisFreeMemory(memory, 99, 0);
    ExpectRule("wrong-length");
    ASSERT_EQ(NdisAllocateMemoryWithTag(&memory, 100, kTag), NDIS_STATUS_SUCCESS);
    ExFreePool(memory);
    ExpectRule("wrong-free-routine");

    block = ExAllocatePoolWithTag(NonPagedPool, 81, kTag);
    WriteUnchecked(static_cast<char*>(block) + 81);
    ExFreePool(block);
    ExpectRule("pool-overrun");

    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    block = ExAllocatePool(PagedPool, 8);
    KeLowerIrql(old);
    ExpectRule("irql-too-high");
    ExFreePool(block);
}

TEST_F(Pool, MemoryInUseMustNotBeFreed)
{
    auto* lock = static_cast<NDIS_RW_LOCK*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(NDIS_RW_LOCK), kTag));
    NdisInitializeReadWriteLock(lock);
    LOCK_STATE state;
    NdisAcquireReadWriteLock(lock, TRUE, &state);
    ExFreePool(lock);
    ExpectRule("lock-freed-while-held");
    machine::CheckReturnToUser("the test");
    machine::TakeViolations();

    auto* timer = static_cast<NDIS_TIMER*>(ExAllocatePoolWithTag(NonPagedPool, 4096, kTag));
    NdisInitializeTimer(
        timer, [](PVOID, PVOID, PVOID, PVOID) {}, nullptr);
    NdisSetTimer(timer, 1000000);
    ExFreePool(timer);
    ExpectRule("timer-freed-while-set");
    EXPECT_EQ(machine::TakeCensus().timers, 0u);
}

TEST_F(Pool, WritesBehindAFreeAreNoticedAndTheQuarantineIsBounded)
{
    void* stale = ExAllocatePoolWithTag(NonPagedPool, 64, kTag);
    ExFreePool(stale);
    WriteUnchecked(static_cast<char*>(stale) + 5);
    for (int i = 0; i < 200; i++)
        ExFreePool(ExAllocatePool(NonPagedPool, 60000));
    EXPECT_NE(ExpectRule("written-after-free").find("offset 5"), std::string::npos);
}

TEST_F(Pool, LookasideListsKeepTheirDepthAndCount)
{
    machine::Census before = machine::TakeCensus();
    NPAGED_LOOKASIDE_LIST list;
    ExInitializeNPagedLookasideList(&list, nullptr, nullptr, 0, 1056, kTag, 0);
    void* entries[6];
    for (void*& entry : entries)
        entry = ExAllocateFromNPagedLookasideList(&list);
    for (void* entry : entries)
        ExFreeToNPagedLookasideList(&list, entry);
    EXPECT_EQ(list.L.AllocateMisses, 6u);
    EXPECT_EQ(list.L.FreeMisses, 2u);
    EXPECT_EQ(ExAllocateFromNPagedLookasideList(&list), entries[3]); // last in, first out
    machine::FailCall(machine::Fault::Lookaside, 1);
    EXPECT_EQ(ExAllocateFromNPagedLookasideList(&list), nullptr);
    machine::ClearFaults();
    ExFreeToNPagedLookasideList(&list, entries[3]);
    ExDeleteNPagedLookasideList(&list);
    EXPECT_EQ(machine::TakeCensus(), before);
}

} // namespace
