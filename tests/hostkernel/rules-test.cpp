// The verifier's rules, each of them broken once: the name that it gets, and that the machine goes on behind it.
#include "probe-driver.h"

#include <hostguard.h>
#include <ndis.h>

#include <thread>

using namespace probe;

namespace
{

using RulesTest = DriverTest;

constexpr ULONG kTag = 0x6B636F4C; // "Lock"
constexpr ULONG kLarge = 3 * 65536 + 20;

UCHAR* NewBlock(SIZE_T size)
{
    return static_cast<UCHAR*>(ExAllocatePoolWithTag(NonPagedPool, size, kTag));
}

// Without the sanitizers' bookkeeping, which would report it first.
__attribute__((no_sanitize("address", "thread"), noinline)) void WriteUnchecked(void* address)
{
    *static_cast<volatile unsigned char*>(address) = 1;
}

TEST_F(RulesTest, OfLocksAndLevels)
{
    NDIS_RW_LOCK lock = {};
    LOCK_STATE state, again;
    NdisAcquireReadWriteLock(&lock, FALSE, &state);
    ExpectRules("lock-not-initialized");
    std::thread([&] {
        LOCK_STATE copy = state;
        NdisReleaseReadWriteLock(&lock, &copy);
    }).join();
    ExpectRules("lock-held-by-another-thread");
    KeLowerIrql(PASSIVE_LEVEL);
    ExpectRules("irql-lowered-with-lock-held");
    NdisReleaseReadWriteLock(&lock, &state);
    NdisReleaseReadWriteLock(&lock, &state);
    ExpectRules("lock-not-held");
    for (const auto& [outer, inner] : {std::pair{FALSE, TRUE}, {TRUE, FALSE}, {TRUE, TRUE}}) {
        NdisAcquireReadWriteLock(&lock, static_cast<BOOLEAN>(outer), &state);
        NdisAcquireReadWriteLock(&lock, static_cast<BOOLEAN>(inner), &again);
        ExpectRules("rw-lock-recursion"); // instead of hanging
        NdisReleaseReadWriteLock(&lock, &again);
        NdisReleaseReadWriteLock(&lock, &state);
    }
    KSPIN_LOCK spin = 0;
    KIRQL outer, inner;
    KeReleaseSpinLock(&spin, PASSIVE_LEVEL);
    ExpectRules("lock-not-held");
    KeAcquireSpinLock(&spin, &outer);
    KeAcquireSpinLock(&spin, &inner);
    ExpectRules("spin-lock-recursion");
    KeReleaseSpinLock(&spin, inner);
    KeReleaseSpinLock(&spin, outer);
    KeAcquireSpinLockAtDpcLevel(&spin);
    ExpectRules("irql-too-low");
    machine::CheckReturnToUser("a request");
    ExpectRules("lock-left-held");
    KfRaiseIrql(DISPATCH_LEVEL);
    machine::CheckReturnToUser("a request");
    ExpectRules("irql-changed");
    KeLowerIrql(DISPATCH_LEVEL);
    ExpectRules("irql-raised-by-lowering");
    {
        const machine::AtDispatch first(1);
        KfRaiseIrql(PASSIVE_LEVEL);
        ExpectRules("irql-lowered-by-raising");
        const machine::AtDispatch second(2);
        ExpectRules("processor-changed-at-dispatch");
    }
    KeEnterCriticalRegion();
    machine::CheckReturnToUser("a request");
    ExpectRules("critical-region-left");
    KeLeaveCriticalRegion();
    ExpectRules("critical-region-not-entered");
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    EXPECT_EQ(machine::TakeCensus().locksHeld, 0u);
}

TEST_F(RulesTest, OfWaitsAndObjects)
{
    KEVENT event, blank{};
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    LARGE_INTEGER past{};
    RTL_QUERY_REGISTRY_TABLE none[1] = {};
    UNICODE_STRING link = Name(u"\\??\\Missing");
    PVOID paged = nullptr;
    {
        const machine::AtDispatch level;
        EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr), STATUS_TIMEOUT);
        ExpectRules("wait-at-dispatch");
        KeDelayExecutionThread(KernelMode, FALSE, &past);
        IoDeleteSymbolicLink(&link);
        RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, link.Buffer, none, nullptr, nullptr);
        paged = ExAllocatePool(PagedPool, 8);
        ExpectRules("irql-too-high", "irql-too-high", "irql-too-high", "irql-too-high");
    }
    ExFreePool(paged);
    KeWaitForSingleObject(&blank, Executive, KernelMode, FALSE, nullptr);
    ExpectRules("object-not-initialized");
    EXPECT_EQ(ZwClose(reinterpret_cast<HANDLE>(0x7000)), STATUS_INVALID_HANDLE);
    ExpectRules("invalid-handle");
    ObDereferenceObject(&event);
    ExpectRules("not-an-object");
    EXPECT_EQ(PsTerminateSystemThread(0), STATUS_INVALID_PARAMETER);
    KeSetPriorityThread(KeGetCurrentThread(), LOW_PRIORITY);
    ExpectRules("invalid-priority");
    machine::AdvanceClock(1);
    ExpectRules("clock-not-stopped");

    KSPIN_LOCK lock = 0;
    StartThread([](PVOID held) { KeAcquireSpinLockRaiseToDpc(static_cast<PKSPIN_LOCK>(held)); }, &lock);
    ASSERT_TRUE(machine::WaitIdle());
    ExpectRules("lock-left-held", "irql-changed");
    WORK_QUEUE_ITEM item;
    ExInitializeWorkItem(
        &item, [](PVOID) {}, nullptr);
    {
        const machine::WorkItemHold hold;
        ExQueueWorkItem(&item, DelayedWorkQueue);
        ExQueueWorkItem(&item, DelayedWorkQueue);
    }
    ASSERT_TRUE(machine::WaitIdle());
    ExpectRules("work-item-queued-twice");

    machine::SetRegistryString("RulesTest", "Text", "no number");
    ULONG number = 7;
    RTL_QUERY_REGISTRY_TABLE query[2] = {};
    query[0].Flags = RTL_QUERY_REGISTRY_DIRECT;
    query[0].Name = Name(u"Text").Buffer;
    query[0].EntryContext = &number;
    query[0].DefaultType = REG_DWORD;
    UNICODE_STRING key = Name(u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\RulesTest");
    EXPECT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, key.Buffer, query, nullptr, nullptr),
              STATUS_OBJECT_TYPE_MISMATCH);
    ExpectRules("registry-type-mismatch");
    EXPECT_EQ(number, 7u);
    machine::DeleteRegistryKey("RulesTest");
}

TEST_F(RulesTest, OfPool)
{
    const machine::Census before = machine::TakeCensus();
    UCHAR* block = NewBlock(80);
    EXPECT_THAT(machine::DescribeCensus(machine::TakeCensus()), testing::HasSubstr("Lock 1 x 80 bytes"));
    ExFreePoolWithTag(block, kTag + 1);
    EXPECT_THAT(ExpectRules("wrong-tag"), testing::HasSubstr("'Lock' freed as 'Mock'"));
    ExFreePool(block);
    ExpectRules("double-free");
    int local[32] = {};
    ExFreePool(local + 8);
    ExFreePool(nullptr);
    ExpectRules("not-a-pool-block", "not-a-pool-block");
    void* memory = nullptr;
    NdisAllocateMemoryWithTag(&memory, 100, kTag);
    NdisFreeMemory(memory, 99, 0);
    ExpectRules("wrong-length");
    NdisAllocateMemoryWithTag(&memory, 100, kTag);
    ExFreePool(memory);
    ExpectRules("wrong-free-routine");
    block = NewBlock(81);
    WriteUnchecked(block + 81);
    ExFreePool(block);
    ExpectRules("pool-overrun");
    // Large blocks lie between guard pages.
    block = NewBlock(32 * PAGE_SIZE);
    EXPECT_EQ(HostCallGuarded(block - 1, WriteUnchecked), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(HostCallGuarded(block + 32 * PAGE_SIZE, WriteUnchecked), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(HostCallGuarded(block + 32 * PAGE_SIZE - 1, WriteUnchecked), 0);
    ExFreePool(block);
    // A write behind a free is seen when the block leaves the quarantine, which is bounded.
    block = NewBlock(64);
    ExFreePool(block);
    WriteUnchecked(block + 5);
    for (int i = 0; i < 200; i++) {
        ExFreePool(NewBlock(60000));
    }
    EXPECT_THAT(ExpectRules("written-after-free"), testing::HasSubstr("offset 5"));

    auto* lock = reinterpret_cast<NDIS_RW_LOCK*>(NewBlock(sizeof(NDIS_RW_LOCK)));
    NdisInitializeReadWriteLock(lock);
    LOCK_STATE state;
    NdisAcquireReadWriteLock(lock, TRUE, &state);
    ExFreePool(lock);
    ExpectRules("lock-freed-while-held");
    machine::CheckReturnToUser("the test");
    machine::TakeViolations();
    auto* timer = reinterpret_cast<NDIS_TIMER*>(NewBlock(4096));
    NdisInitializeTimer(
        timer, [](PVOID, PVOID, PVOID, PVOID) {}, nullptr);
    NdisSetTimer(timer, 1000000);
    ExFreePool(timer);
    ExpectRules("timer-freed-while-set");
    EXPECT_EQ(machine::TakeCensus(), before);
}

TEST_F(RulesTest, OfMdlsAndPackets)
{
    UCHAR memory[64] = {};
    MDL* mdl = IoAllocateMdl(memory + 1, 63, FALSE, FALSE, nullptr);
    EXPECT_EQ(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority), nullptr);
    MmUnlockPages(mdl);
    ExpectRules("mdl-not-locked", "mdl-not-locked");
    MmProbeAndLockPages(mdl, KernelMode, IoModifyAccess);
    MmProbeAndLockPages(mdl, KernelMode, IoModifyAccess);
    ExpectRules("mdl-locked-twice");
    EXPECT_EQ(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority), memory + 1);
    EXPECT_EQ(MmMapLockedPages(mdl, KernelMode), memory + 1);
    ExpectRules("mdl-mapped-twice");
    MmUnlockPages(mdl);
    EXPECT_EQ(machine::TakeCensus().views, 0u);
    MmProbeAndLockPages(mdl, KernelMode, IoModifyAccess);
    IoFreeMdl(mdl);
    ExpectRules("mdl-freed-locked");

    NDIS_STATUS status = 0;
    NDIS_HANDLE pool = nullptr;
    NDIS_PACKET *packet = nullptr, *second = nullptr;
    NdisAllocatePacketPool(&status, &pool, 1, 16);
    NdisAllocatePacket(&status, &packet, pool);
    NdisAllocatePacket(&status, &second, pool);
    EXPECT_EQ(status, NDIS_STATUS_RESOURCES);
    NdisFreePacket(packet);
    NdisFreePacket(packet);
    ExpectRules("packet-freed-twice");
    NdisAllocatePacket(&status, &packet, pool);
    NdisFreePacketPool(pool);
    ExpectRules("packet-pool-busy");
}

TEST_F(RulesTest, OfMemoryThatProgramsMayChange)
{
    KSPIN_LOCK lock = 0;
    KIRQL level;
    ULONG fields[2] = {1, 2}, copy[2];
    for (int operation = 0; operation < 2; operation++) { // each of them may read everything once
        KeAcquireSpinLock(&lock, &level);
        EXPECT_EQ(ReadULongAcquire(&fields[1]), 2u);
        RtlCopyVolatileMemory(copy, fields, sizeof(fields[0]));
        KeReleaseSpinLock(&lock, level);
    }
    ReadULongAcquire(&fields[0]);
    ExpectRules();
    RtlCopyVolatileMemory(copy, fields, sizeof(fields));
    machine::ChecksSharedAccess() ? ExpectRules("shared-memory-read-twice") : ExpectRules();
}

TEST_F(RulesTest, OfViewsInAProcess)
{
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    UCHAR *block = nullptr, *user = nullptr;
    MDL* mdl = nullptr;
    const auto describe = [&](ULONG size) {
        block = NewBlock(size);
        mdl = IoAllocateMdl(block, size, FALSE, FALSE, nullptr);
        MmBuildMdlForNonPagedPool(mdl);
    };
    const auto map = [&] { user = static_cast<UCHAR*>(MmMapLockedPages(mdl, UserMode)); };
    const auto unmap = [&] { MmUnmapLockedPages(user, mdl); };
    describe(kLarge);
    {
        machine::Process process;
        const auto file = process.Open(kDevice);
        InRequest(*file, map);
        user[kLarge] = 0; // the rest of the last page: what a program writes there is not the driver's fault
        InRequest(*file, unmap);
        InRequest(*file, unmap);
        ExpectRules("view-not-mapped");
        InRequest(*file, map);
        IoFreeMdl(mdl);
        ExpectRules("mdl-freed-mapped");
    }
    ExpectRules("view-left-in-process");
    EXPECT_EQ(machine::TakeCensus().views, 0u);
    ExFreePool(block);

    machine::Process process;
    const auto file = process.Open(kDevice);
    describe(4096); // small blocks share their pages with others
    InRequest(*file, [&] {
        const auto mapUser = [](void* described) {
            MmMapLockedPages(static_cast<MDL*>(described), UserMode);
        };
        EXPECT_EQ(HostCallGuarded(mdl, mapUser), STATUS_INSUFFICIENT_RESOURCES);
    });
    ExpectRules("view-of-shared-pages");
    IoFreeMdl(mdl);
    ExFreePool(block);
    describe(kLarge);
    const PEPROCESS system = IoGetCurrentProcess();
    PEPROCESS owner = nullptr;
    const auto mapForOwner = [&] {
        owner = IoGetCurrentProcess();
        map();
    };
    InRequest(*file, mapForOwner);
    unmap(); // from the system process
    ExpectRules("view-of-other-process");
    InRequest(*file, mapForOwner);
    KAPC_STATE outer, inner;
    KeStackAttachProcess(owner, &outer);
    KeStackAttachProcess(system, &inner);
    EXPECT_EQ(IoGetCurrentProcess(), system);
    KeUnstackDetachProcess(&outer);
    ExpectRules("process-not-attached");
    KeUnstackDetachProcess(&inner);
    EXPECT_EQ(IoGetCurrentProcess(), owner);
    unmap();
    machine::CheckReturnToUser("a request");
    ExpectRules("process-left-attached");
    EXPECT_EQ(IoGetCurrentProcess(), system);
    IoFreeMdl(mdl);
    ExFreePool(block);
}

TEST_F(RulesTest, OfADispatchRoutine)
{
    const PDRIVER_CANCEL keepsLock = [](DEVICE_OBJECT*, IRP* irp) { Complete(irp, STATUS_CANCELLED); };
    const PDRIVER_CANCEL wrongIrql = [](DEVICE_OBJECT*, IRP* irp) {
        IoReleaseCancelSpinLock(DISPATCH_LEVEL);
        Complete(irp, STATUS_CANCELLED);
    };
    struct Case {
        const char* rule;
        bool marks;
        int completions;
        NTSTATUS completed, returned;
        PDRIVER_CANCEL cancel = nullptr;
        void (*first)() = [] {};
    };
    const Case cases[] = {
        {"irp-completed-twice", false, 2, STATUS_SUCCESS, STATUS_SUCCESS},
        {"irp-pending-not-marked", false, 1, STATUS_SUCCESS, STATUS_PENDING},
        {"irp-marked-not-pending", true, 1, STATUS_SUCCESS, STATUS_SUCCESS},
        {"irp-not-completed", false, 0, 0, STATUS_UNSUCCESSFUL},
        {"irp-completed-pending", true, 1, STATUS_PENDING, STATUS_PENDING},
        {"irp-cancel-routine-set", false, 1, STATUS_SUCCESS, STATUS_SUCCESS, keepsLock},
        {"cancel-lock-held", true, 0, 0, STATUS_PENDING, keepsLock},
        {"cancel-lock-irql", true, 0, 0, STATUS_PENDING, wrongIrql},
        {"cancel-lock-not-held", false, 1, 0, 0, nullptr, [] { IoReleaseCancelSpinLock(PASSIVE_LEVEL); }},
        {"irql-changed", false, 1, 0, 0, nullptr, [] { KfRaiseIrql(APC_LEVEL); }},
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    machine::Process process;
    const auto file = process.Open(kDevice);
    for (const Case& one : cases) {
        control = [&](IRP* irp) {
            one.first();
            if (one.marks) {
                IoMarkIrpPending(irp);
            }
            if (one.cancel != nullptr) {
                IoSetCancelRoutine(irp, one.cancel);
            }
            if (one.cancel != nullptr && one.completions == 0) {
                IoCancelIrp(irp);
            }
            if (one.completions > 0) {
                Complete(irp, one.completed);
            }
            if (one.completions > 1) {
                IoCompleteRequest(irp, IO_NO_INCREMENT);
            }
            return one.returned;
        };
        EXPECT_TRUE(file->Send(kCode, {}, 0).Wait().has_value());
        ExpectRules(one.rule);
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL) << one.rule;
    }
    // More bytes than there is room for are reported to the program as given, and clipped.
    control = [](IRP* irp) { return Complete(irp, STATUS_SUCCESS, 5); };
    machine::Request tooLong = file->Send(kCode, {}, 4);
    EXPECT_EQ(tooLong.Wait()->information, 5u);
    EXPECT_EQ(tooLong.Output().size(), 4u);
    ExpectRules("irp-information-too-long");

    IRP* irp = IoAllocateIrp(0, FALSE);
    IoCallDriver(device, irp);
    ExpectRules("irp-no-stack-location");
    IoFreeIrp(irp);
    IoFreeIrp(irp);
    IoCallDriver(device, irp);
    ExpectRules("irp-not-live", "irp-not-live");
}

TEST_F(RulesTest, OfUnloading)
{
    struct Left {
        void* block = NewBlock(80);
        MDL* mdl = IoAllocateMdl(block, 80, FALSE, FALSE, nullptr);
        NPAGED_LOOKASIDE_LIST list;
        NDIS_TIMER timer;
        KEVENT end;
        HANDLE handle = nullptr;
        IRP* irp = nullptr;
        PEPROCESS process = IoGetCurrentProcess();
    };
    std::optional<Left> left;
    unload = [&] {
        DEVICE_OBJECT* second = nullptr;
        IoCreateDevice(device->DriverObject, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &second);
        IoDeleteDevice(second);
        IoDeleteDevice(second);
        ExpectRules("device-not-live");
        left.emplace();
        ExInitializeNPagedLookasideList(&left->list, nullptr, nullptr, 0, 80, kTag, 0);
        NdisInitializeTimer(
            &left->timer, [](PVOID, PVOID, PVOID, PVOID) {}, nullptr);
        NdisSetTimer(&left->timer, 1000000);
        KeInitializeEvent(&left->end, NotificationEvent, FALSE);
        const PKSTART_ROUTINE wait = [](PVOID event) {
            KeWaitForSingleObject(event, Executive, KernelMode, FALSE, nullptr);
        };
        PsCreateSystemThread(&left->handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, wait, &left->end);
        left->irp = IoAllocateIrp(1, FALSE);
        ObReferenceObject(left->process);
    };
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    EXPECT_EQ(machine::UnloadDriver(kService), STATUS_SUCCESS);
    EXPECT_THAT(ExpectRules("link-left", "device-left", "thread-left", "handle-left", "pool-left",
                            "lookaside-left", "mdl-left", "process-reference-left", "request-left",
                            "timer-left"),
                testing::HasSubstr("Probe"));
    BOOLEAN cancelled = FALSE;
    NdisCancelTimer(&left->timer, &cancelled);
    EXPECT_TRUE(cancelled);
    KeSetEvent(&left->end, 0, FALSE);
    ASSERT_TRUE(machine::WaitIdle());
    ZwClose(left->handle);
    ObDereferenceObject(left->process);
    IoFreeIrp(left->irp);
    IoFreeMdl(left->mdl);
    ExFreePool(left->block);
    ExDeleteNPagedLookasideList(&left->list);
}

} // namespace
