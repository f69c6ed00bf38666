// Who shares the memory, and the one read request that waits for blocks.
#include "program.h"

using namespace sharing;
using namespace support;

namespace
{

constexpr uint32_t kRead = IOCTL_NDIS_FILTER_READ_SHARE;

using OwnerTest = SharingTest;
using ParkedReadTest = SharedTest;

// The framework then maps for itself.
void BindWithoutMapping()
{
    EXPECT_EQ(hook::Unbind(), STATUS_SUCCESS);
    EXPECT_EQ(hook::Bind({.without = {hook::Function::MmMapLockedPages, hook::Function::MmUnmapLockedPages}}),
              STATUS_SUCCESS);
}

TEST_F(OwnerTest, OneHandleAtATimeOwnsTheShare)
{
    SharingProgram owner, other;
    // Nobody owns it yet.
    EXPECT_EQ(owner.ReadNow(), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(owner.AnnounceOnly().status, STATUS_SUCCESS);
    EXPECT_EQ(owner.Stop().status, STATUS_SUCCESS);

    ASSERT_NE(owner.Start(), NDIS_FILTER_SHARE_FAILED);
    EXPECT_EQ(owner.Start(), NDIS_FILTER_SHARE_FAILED);
    EXPECT_EQ(other.Start(), NDIS_FILTER_SHARE_FAILED);
    EXPECT_EQ(other.ReadNow(), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(other.Stop().status, STATUS_SUCCESS); // and changes nothing
    EXPECT_EQ(machine::TakeCensus().views, 1u);

    // The other's announcement wakes nobody; its close gives nothing back.
    Fill(owner.NextInput(), NDIS_FILTER_DIRECTION_TO_APPLICATION, UdpFrame());
    Store(owner.In().m_iWrite, 1);
    EXPECT_EQ(other.AnnounceOnly().status, STATUS_SUCCESS);
    other.Close();
    ASSERT_TRUE(machine::WaitIdle());
    EXPECT_EQ(Load(owner.In().m_iRead), 0);
    owner.AnnounceOnly();
    ASSERT_TRUE(owner.WaitForOutput());

    // The next owner finds the rings as this one leaves them: a block is waiting.
    EXPECT_EQ(owner.Stop().status, STATUS_SUCCESS);
    EXPECT_EQ(machine::TakeCensus().views, 0u);
    {
        SharingProgram next;
        ASSERT_NE(next.Start(7), NDIS_FILTER_SHARE_FAILED);
        EXPECT_EQ(next.In().m_iRead, 1);
        EXPECT_EQ(next.Out().m_iWrite, 1);
        EXPECT_EQ(owner.ReadNow(), STATUS_UNSUCCESSFUL);
        EXPECT_EQ(next.ReadNow(), STATUS_SUCCESS);
    } // it ends without a word
    EXPECT_NE(owner.Start(), NDIS_FILTER_SHARE_FAILED);
}

TEST_F(OwnerTest, AMappingThatFailsLeavesNoOwner)
{
    for (const bool byHook : {true, false}) {
        if (!byHook) {
            BindWithoutMapping();
        }
        SharingProgram failing, other;
        machine::FailCall(machine::Fault::MapPages, 1);
        EXPECT_EQ(failing.Start(), NDIS_FILTER_SHARE_FAILED);
        EXPECT_TRUE(machine::FaultHit(machine::Fault::MapPages));
        EXPECT_EQ(failing.ReadNow(), STATUS_UNSUCCESSFUL);
        ASSERT_NE(other.Start(), NDIS_FILTER_SHARE_FAILED);
        ExpectLoopBack(other);
    }
}

using HandedOnTest = Loaded<WithTrace, 0x400, SharingTest>;

// Whichever process closes the last handle, or stops the share, or outlives the owner.
TEST_F(HandedOnTest, AHandleInAnotherProcessEndsTheMappingInTheOwners)
{
    enum class End { Close, Stop, OwnerFirst };
    for (const bool byHook : {true, false}) {
        if (!byHook) {
            BindWithoutMapping();
        }
        for (const End end : {End::Close, End::Stop, End::OwnerFirst}) {
            auto owner = std::make_unique<SharingProgram>();
            SharingProgram heir, next;
            ASSERT_NE(owner->Start(), NDIS_FILTER_SHARE_FAILED);
            MappedMemory* const mapping = &owner->Mapping();
            heir.TakeHandleOf(*owner);
            if (end == End::Close) {
                owner->Close();
                EXPECT_TRUE(MmIsAddressValid(mapping)); // it is not the last
            } else if (end == End::OwnerFirst) {
                owner.reset();
            }
            EXPECT_EQ(next.Start(), NDIS_FILTER_SHARE_FAILED);
            EXPECT_EQ(machine::TakeCensus().processReferences, 1u);
            {
                const machine::DebugCapture debug;
                end == End::Stop ? static_cast<void>(heir.Stop()) : heir.Close();
                EXPECT_TRUE(debug.Contains("MmUnmapLockedPages() complete")); // also without an owner
            }
            EXPECT_FALSE(MmIsAddressValid(mapping));
            EXPECT_EQ(machine::TakeCensus().processReferences, 0u);
            ASSERT_NE(next.Start(), NDIS_FILTER_SHARE_FAILED);
            ExpectLoopBack(next);
        }
    }
}

TEST_F(ParkedReadTest, WaitsForABlockAndAllowsNoSecond)
{
    machine::Request cancelled = program.Read();
    cancelled.Cancel();
    EXPECT_EQ(ResultOf(cancelled).status, STATUS_CANCELLED);
    machine::Request read = program.Read();
    EXPECT_EQ(read.DispatchStatus(), STATUS_PENDING);
    EXPECT_EQ(program.ReadNow(), STATUS_UNSUCCESSFUL);
    EXPECT_FALSE(read.IsComplete());
    EXPECT_EQ(SendSignal(), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(ResultOf(read).status, STATUS_SUCCESS);
    EXPECT_EQ(ResultOf(read).information, 0u);
    EXPECT_EQ(program.ReadNow(), STATUS_SUCCESS); // the block is not taken yet
}

TEST_F(ParkedReadTest, ABlockForAnUnknownAdapterWakesNobody)
{
    machine::Request read = program.Read();
    for (uint8_t i = 2; i <= 32; ++i) { // the identifiers run out
        ULONG id;
        EXPECT_EQ(Filter_AdapterToId(AddAdapter("{A}", {2, 0, 0, 0, 0, i}), &id), FILTER_STATUS_SUCCESS);
    }
    adapter = AddAdapter("{B}", {2, 0, 0, 0, 0, 33});
    Indicate();
    EXPECT_FALSE(read.IsComplete());
    EXPECT_TRUE(program.IsOutputEmpty());
    read.Cancel();
}

// A request of a driver, which has its hands on the record that the I/O manager hides from programs.
struct DriverRequest {
    DriverRequest(PDEVICE_OBJECT target, PFILE_OBJECT file, ULONG code)
        : device(target), irp(IoAllocateIrp(target->StackSize, FALSE))
    {
        irp->AssociatedIrp.SystemBuffer = &buffer;
        PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
        stack->MajorFunction = IRP_MJ_DEVICE_CONTROL;
        stack->FileObject = file;
        stack->Parameters.DeviceIoControl = {sizeof(buffer), sizeof(buffer), code, nullptr};
        const auto note = [](PDEVICE_OBJECT, PIRP done, PVOID result) -> NTSTATUS {
            *static_cast<NTSTATUS*>(result) = done->IoStatus.Status;
            return STATUS_MORE_PROCESSING_REQUIRED;
        };
        IoSetCompletionRoutine(irp, note, &status, TRUE, TRUE, TRUE);
    }
    ~DriverRequest() { IoFreeIrp(irp); }
    NTSTATUS Send()
    {
        IoCallDriver(device, irp);
        return status;
    }

    PDEVICE_OBJECT device;
    PIRP irp;
    uint64_t buffer = 1;
    NTSTATUS status = STATUS_PENDING; // until it is complete
};

// A cancellation that comes before the read, and one whose two halves have a block arrive between them.
TEST_F(OwnerTest, ACancelledReadIsNotParkedAndOneBeingCancelledIsLeftToItsRoutine)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, NDIS_FILTER_DEVICE_NAME);
    PFILE_OBJECT file = nullptr;
    PDEVICE_OBJECT device = nullptr;
    ASSERT_EQ(IoGetDeviceObjectPointer(&name, FILE_READ_DATA, &file, &device), STATUS_SUCCESS);
    ASSERT_EQ(DriverRequest(device, file, IOCTL_NDIS_FILTER_START_SHARE).Send(), STATUS_SUCCESS);
    for (int i = 0; i < 2; ++i) { // the first leaves nothing behind
        DriverRequest read(device, file, kRead);
        IoCancelIrp(read.irp);
        EXPECT_EQ(read.Send(), STATUS_CANCELLED);
    }
    DriverRequest read(device, file, kRead);
    ASSERT_EQ(read.Send(), STATUS_PENDING);
    read.irp->Cancel = TRUE;
    const PDRIVER_CANCEL routine = IoSetCancelRoutine(read.irp, nullptr);
    ASSERT_NE(routine, nullptr);
    EXPECT_EQ(SendSignal(), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(read.status, STATUS_PENDING);
    KIRQL irql;
    IoAcquireCancelSpinLock(&irql);
    read.irp->CancelIrql = irql;
    routine(device, read.irp);
    EXPECT_EQ(read.status, STATUS_CANCELLED);
    EXPECT_EQ(DriverRequest(device, file, kRead).Send(), STATUS_SUCCESS); // the block
    EXPECT_EQ(DriverRequest(device, file, IOCTL_NDIS_FILTER_STOP_SHARE).Send(), STATUS_SUCCESS);
    ObDereferenceObject(file);
}

using NoMemoryTest = Loaded<NothingLoaded>;

TEST_F(NoMemoryTest, WithoutSharedMemoryEverythingElseWorks)
{
    machine::FailCall(machine::Fault::Mdl, 1);
    ASSERT_EQ(LoadFramework(), STATUS_SUCCESS);
    machine::ClearFaults();
    ASSERT_EQ(hook::Load(), STATUS_SUCCESS);
    ASSERT_EQ(hook::Bind(), STATUS_SUCCESS);
    FilterAdapter* const adapter = AddAdapter();
    {
        SharingProgram program;
        EXPECT_EQ(program.Start(), NDIS_FILTER_SHARE_FAILED);
        EXPECT_EQ(program.ReadNow(), STATUS_UNSUCCESSFUL);
        EXPECT_EQ(program.AnnounceOnly().status, STATUS_SUCCESS);
    }
    EXPECT_EQ(SendSignal(), FILTER_ERROR_OUT_OF_MEMORY);
    Filter_InjectPacketFromApplication(adapter, MakePacket(adapter, UdpFrame()), 3);
    EXPECT_TRUE(Eventually([] { return hook::TakeBalance().outstanding == 0; }));
    EXPECT_EQ(hook::TakeBalance().freed, 1u);
}

} // namespace
