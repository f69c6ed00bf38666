// Who shares the memory, and the one read request that waits for blocks.
#include "program.h"

#include <atomic>
#include <thread>

using namespace sharing;
using namespace support;

namespace
{

class OwnerTest : public SharingTest
{};

TEST_F(OwnerTest, OneHandleAtATimeOwnsTheShare)
{
    SharingProgram owner, other;
    uint8_t size[4] = {};
    uint32_t mappedSize = 0;
    EXPECT_EQ(OpenDevice()->Control(IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE, {}, size).information, 4u);
    std::memcpy(&mappedSize, size, sizeof(size));
    EXPECT_EQ(mappedSize, NDIS_FILTER_MAPPED_MEMORY_SIZE);

    // Nobody owns it yet.
    EXPECT_EQ(owner.Control(IOCTL_NDIS_FILTER_READ_SHARE).status, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(owner.AnnounceOnly().status, STATUS_SUCCESS);
    EXPECT_EQ(owner.Stop().status, STATUS_SUCCESS);

    ASSERT_NE(owner.Start(), NDIS_FILTER_SHARE_FAILED);
    EXPECT_EQ(owner.Start(), NDIS_FILTER_SHARE_FAILED);
    EXPECT_EQ(other.Start(), NDIS_FILTER_SHARE_FAILED);
    EXPECT_EQ(other.Control(IOCTL_NDIS_FILTER_READ_SHARE).status, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(other.Stop().status, STATUS_SUCCESS);

    // The other's announcement wakes nobody; its close gives nothing back.
    Fill(owner.NextInput(), NDIS_FILTER_DIRECTION_TO_APPLICATION, UdpFrame());
    Store(owner.In().m_iWrite, 1);
    EXPECT_EQ(other.AnnounceOnly().status, STATUS_SUCCESS);
    other.Close();
    ASSERT_TRUE(machine::WaitIdle());
    EXPECT_EQ(Load(owner.In().m_iRead), 0);
    owner.AnnounceOnly();
    ASSERT_TRUE(owner.WaitForOutput());

    // The next owner finds the rings as this one leaves them.
    EXPECT_EQ(owner.Stop().status, STATUS_SUCCESS);
    SharingProgram next;
    ASSERT_NE(next.Start(7), NDIS_FILTER_SHARE_FAILED);
    EXPECT_EQ(next.In().m_iRead, 1);
    EXPECT_EQ(next.Out().m_iRead, 0);
    EXPECT_EQ(next.Out().m_iWrite, 1);
    EXPECT_EQ(owner.Control(IOCTL_NDIS_FILTER_READ_SHARE).status, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(next.Control(IOCTL_NDIS_FILTER_READ_SHARE).status, STATUS_SUCCESS); // a block is waiting
    next.Close();
    EXPECT_NE(owner.Start(), NDIS_FILTER_SHARE_FAILED);
}

TEST_F(OwnerTest, AProgramThatEndsGivesTheShareBack)
{
    {
        SharingProgram ending;
        ASSERT_NE(ending.Start(), NDIS_FILTER_SHARE_FAILED);
    }
    SharingProgram next;
    EXPECT_NE(next.Start(), NDIS_FILTER_SHARE_FAILED);
}

TEST_F(OwnerTest, AMappingThatFailsLeavesNoOwner)
{
    for (const bool byHook : {true, false}) {
        if (!byHook) {
            ASSERT_EQ(hook::Unbind(), STATUS_SUCCESS);
            ASSERT_EQ(hook::Bind({.without = {hook::Function::MmMapLockedPages,
                                              hook::Function::MmUnmapLockedPages}}),
                      STATUS_SUCCESS);
        }
        SharingProgram failing, other;
        machine::FailCall(machine::Fault::MapPages, 1);
        EXPECT_EQ(failing.Start(), NDIS_FILTER_SHARE_FAILED);
        EXPECT_TRUE(machine::FaultHit(machine::Fault::MapPages));
        EXPECT_EQ(failing.Control(IOCTL_NDIS_FILTER_READ_SHARE).status, STATUS_UNSUCCESSFUL);
        ASSERT_NE(other.Start(), NDIS_FILTER_SHARE_FAILED);
        ExpectLoopBack(other);
    }
}

class ParkedReadTest : public SharedTest
{};

TEST_F(ParkedReadTest, WaitsForABlockAndAllowsNoSecond)
{
    machine::Request read = program.Read();
    EXPECT_EQ(read.DispatchStatus(), STATUS_PENDING);
    EXPECT_FALSE(read.IsComplete());
    EXPECT_EQ(program.Control(IOCTL_NDIS_FILTER_READ_SHARE).status, STATUS_UNSUCCESSFUL);
    EXPECT_FALSE(read.IsComplete());
    EXPECT_EQ(SendSignal(), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(ResultOf(read).status, STATUS_SUCCESS);
    EXPECT_EQ(read.Output().size(), 0u);
    EXPECT_EQ(program.Control(IOCTL_NDIS_FILTER_READ_SHARE).status, STATUS_SUCCESS); // it is not taken yet
}

TEST_F(ParkedReadTest, ABlockForAnUnknownAdapterWakesNobody)
{
    machine::Request read = program.Read();
    for (uint8_t i = 2; i <= 32; ++i) { // the identifiers run out
        ULONG id;
        EXPECT_EQ(Filter_AdapterToId(AddAdapter("{A}", {2, 0, 0, 0, 0, i}), &id), FILTER_STATUS_SUCCESS);
    }
    FilterPacket* packet = MakePacket(AddAdapter("{B}", {2, 0, 0, 0, 0, 33}), UdpFrame());
    EXPECT_EQ(Filter_IndicatePacketToApplication(packet, 0, 0), FILTER_STATUS_SUCCESS);
    EXPECT_FALSE(read.IsComplete());
    EXPECT_TRUE(program.IsOutputEmpty());
    Filter_ReleasePacket(packet);
    read.Cancel();
}

TEST_F(ParkedReadTest, IsCancelledAndAnotherMayFollow)
{
    machine::Request read = program.Read();
    read.Cancel();
    EXPECT_EQ(ResultOf(read).status, STATUS_CANCELLED);
    EXPECT_EQ(ResultOf(read).information, 0u);
    machine::Request next = program.Read();
    EXPECT_FALSE(next.IsComplete());
    SendSignal();
    EXPECT_EQ(ResultOf(next).status, STATUS_SUCCESS);
}

TEST_F(ParkedReadTest, CompletesWhenTheShareEnds)
{
    machine::Request stopped = program.Read();
    EXPECT_EQ(program.Stop().status, STATUS_SUCCESS);
    EXPECT_EQ(ResultOf(stopped).status, STATUS_SUCCESS);
    ASSERT_NE(program.Start(), NDIS_FILTER_SHARE_FAILED);
    machine::Request closed = program.Read();
    program.Close();
    EXPECT_EQ(ResultOf(closed).status, STATUS_SUCCESS);
}

// A request of a driver, which has its hands on the record that the I/O manager hides from programs.
class DriverRequest
{
  public:
    DriverRequest(PDEVICE_OBJECT device, PFILE_OBJECT file, ULONG code)
        : device_(device), irp_(IoAllocateIrp(device->StackSize, FALSE))
    {
        irp_->AssociatedIrp.SystemBuffer = &buffer_;
        PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp_);
        stack->MajorFunction = IRP_MJ_DEVICE_CONTROL;
        stack->FileObject = file;
        stack->Parameters.DeviceIoControl.IoControlCode = code;
        stack->Parameters.DeviceIoControl.InputBufferLength = sizeof(buffer_);
        stack->Parameters.DeviceIoControl.OutputBufferLength = sizeof(buffer_);
        const auto note = [](PDEVICE_OBJECT, PIRP done, PVOID status) -> NTSTATUS {
            *static_cast<NTSTATUS*>(status) = done->IoStatus.Status;
            return STATUS_MORE_PROCESSING_REQUIRED;
        };
        IoSetCompletionRoutine(irp_, note, &status_, TRUE, TRUE, TRUE);
    }
    ~DriverRequest() { IoFreeIrp(irp_); }
    NTSTATUS Send()
    {
        IoCallDriver(device_, irp_);
        return status_;
    }
    PIRP Irp() const { return irp_; }
    NTSTATUS Status() const { return status_; } // STATUS_PENDING until it is complete

  private:
    PDEVICE_OBJECT device_;
    PIRP irp_;
    uint64_t buffer_ = 1;
    NTSTATUS status_ = STATUS_PENDING;
};

class DriverReadTest : public SharingTest
{
  protected:
    void SetUp() override
    {
        SharingTest::SetUp();
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, NDIS_FILTER_DEVICE_NAME);
        ASSERT_EQ(IoGetDeviceObjectPointer(&name, FILE_READ_DATA, &file, &device), STATUS_SUCCESS);
        ASSERT_EQ(DriverRequest(device, file, IOCTL_NDIS_FILTER_START_SHARE).Send(), STATUS_SUCCESS);
    }

    void TearDown() override
    {
        EXPECT_EQ(DriverRequest(device, file, IOCTL_NDIS_FILTER_STOP_SHARE).Send(), STATUS_SUCCESS);
        ObDereferenceObject(file);
        SharingTest::TearDown();
    }

    PFILE_OBJECT file = nullptr;
    PDEVICE_OBJECT device = nullptr;
};

TEST_F(DriverReadTest, ARequestCancelledBeforehandIsNotParked)
{
    for (int i = 0; i < 2; ++i) { // the first leaves nothing behind
        DriverRequest read(device, file, IOCTL_NDIS_FILTER_READ_SHARE);
        IoCancelIrp(read.Irp());
        EXPECT_EQ(read.Send(), STATUS_CANCELLED);
    }
}

// What IoCancelIrp does, with a block that arrives between its two halves.
TEST_F(DriverReadTest, ACancellationThatHasBegunIsLeftToItsRoutine)
{
    DriverRequest read(device, file, IOCTL_NDIS_FILTER_READ_SHARE);
    ASSERT_EQ(read.Send(), STATUS_PENDING);
    read.Irp()->Cancel = TRUE;
    const PDRIVER_CANCEL routine = IoSetCancelRoutine(read.Irp(), nullptr);
    ASSERT_NE(routine, nullptr);
    EXPECT_EQ(SendSignal(), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(read.Status(), STATUS_PENDING);
    KIRQL irql;
    IoAcquireCancelSpinLock(&irql);
    read.Irp()->CancelIrql = irql;
    routine(device, read.Irp());
    EXPECT_EQ(read.Status(), STATUS_CANCELLED);
    EXPECT_EQ(DriverRequest(device, file, IOCTL_NDIS_FILTER_READ_SHARE).Send(), STATUS_SUCCESS); // the block
}

// Whoever comes first completes the read, and only he.
TEST_F(ParkedReadTest, CancelCloseAndCompletionRaceForTheRead)
{
    constexpr int kRounds = 1200;
    std::atomic<int> begun{0}, ended{0};
    std::thread writer([&] {
        for (int round = 1; round <= kRounds; ++round) {
            while (begun.load() < round) {
                std::this_thread::yield();
            }
            EXPECT_EQ(SendSignal(), FILTER_STATUS_SUCCESS);
            ended = round;
        }
    });
    int cancelled = 0;
    auto racing = std::make_unique<SharingProgram>();
    EXPECT_EQ(program.Stop().status, STATUS_SUCCESS);
    for (int round = 1; round <= kRounds; ++round) {
        if (round == 1 || round % 8 == 1) {
            racing = std::make_unique<SharingProgram>();
            ASSERT_NE(racing->Start(), NDIS_FILTER_SHARE_FAILED);
        }
        machine::Request read = racing->Read();
        EXPECT_EQ(read.DispatchStatus(), STATUS_PENDING);
        begun = round;
        if (round % 8 == 0) {
            racing->Close();
        } else {
            read.Cancel();
        }
        const Result result = ResultOf(read);
        EXPECT_TRUE(result.status == STATUS_SUCCESS || result.status == STATUS_CANCELLED) << result.status;
        cancelled += result.status == STATUS_CANCELLED ? 1 : 0;
        while (ended.load() < round) {
            std::this_thread::yield();
        }
        if (round % 8 == 0) { // the next owner drains for this one
            racing = std::make_unique<SharingProgram>();
            ASSERT_NE(racing->Start(), NDIS_FILTER_SHARE_FAILED);
        }
        racing->TakeOutput();
        EXPECT_TRUE(racing->IsOutputEmpty());
    }
    writer.join();
    RecordProperty("cancelled", cancelled);
}

class NoMemoryTest : public SharingTest
{
  protected:
    NoMemoryTest() { plan_.loadFramework = plan_.loadHook = plan_.bind = false; }
    void SetUp() override { FrameworkTest::SetUp(); }
};

TEST_F(NoMemoryTest, WithoutSharedMemoryEverythingElseWorks)
{
    machine::FailCall(machine::Fault::Mdl, 1);
    ASSERT_EQ(LoadFramework(), STATUS_SUCCESS);
    machine::ClearFaults();
    ASSERT_EQ(hook::Load(), STATUS_SUCCESS);
    ASSERT_EQ(hook::Bind(), STATUS_SUCCESS);
    adapter = AddAdapter();
    EXPECT_EQ(program.Start(), NDIS_FILTER_SHARE_FAILED);
    EXPECT_EQ(program.Control(IOCTL_NDIS_FILTER_READ_SHARE).status, STATUS_UNSUCCESSFUL);
    EXPECT_EQ(program.AnnounceOnly().status, STATUS_SUCCESS);
    EXPECT_EQ(SendSignal(), FILTER_ERROR_OUT_OF_MEMORY);
    Filter_InjectPacketFromApplication(adapter, MakePacket(adapter, UdpFrame()), 3);
    Filter_InjectPacketFromApplication(adapter, MakePacket(adapter, UdpFrame()), 2);
    EXPECT_TRUE(Eventually([] { return hook::TakeBalance().outstanding == 0; }));
    EXPECT_EQ(hook::TakeBalance().deliveredToAdapter, 1u);
    EXPECT_EQ(hook::TakeBalance().freed, 1u);
}

} // namespace
