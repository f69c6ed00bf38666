// Who shares the memory, and the one read request that waits for blocks.
#include "program.h"

#include <atomic>
#include <thread>

using namespace sharing;
using namespace support;

namespace
{

class OwnerTest : public SharingTest
{
};

Result ResultOf(machine::Request& request)
{
    return request.Wait().value_or(Result{-1, 0});
}

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
            ASSERT_EQ(hook::Bind({.without = {hook::Function::MmMapLockedPages, hook::Function::MmUnmapLockedPages}}),
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
{
};

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

// A driver sends the requests, as only a driver can cancel one that it has not sent yet.
TEST_F(ParkedReadTest, ARequestCancelledBeforehandIsNotParked)
{
    EXPECT_EQ(program.Stop().status, STATUS_SUCCESS);
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, NDIS_FILTER_DEVICE_NAME);
    PFILE_OBJECT file = nullptr;
    PDEVICE_OBJECT device = nullptr;
    ASSERT_EQ(IoGetDeviceObjectPointer(&name, FILE_READ_DATA, &file, &device), STATUS_SUCCESS);
    const auto send = [&](ULONG code, bool cancelled) {
        uint64_t buffer = 1;
        PIRP irp = IoAllocateIrp(device->StackSize, FALSE);
        irp->AssociatedIrp.SystemBuffer = &buffer;
        PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
        stack->MajorFunction = IRP_MJ_DEVICE_CONTROL;
        stack->FileObject = file;
        stack->Parameters.DeviceIoControl.IoControlCode = code;
        stack->Parameters.DeviceIoControl.InputBufferLength = sizeof(buffer);
        stack->Parameters.DeviceIoControl.OutputBufferLength = sizeof(buffer);
        NTSTATUS completed = STATUS_PENDING;
        IoSetCompletionRoutine(
            irp,
            [](PDEVICE_OBJECT, PIRP done, PVOID context) -> NTSTATUS {
                *static_cast<NTSTATUS*>(context) = done->IoStatus.Status;
                return STATUS_MORE_PROCESSING_REQUIRED;
            },
            &completed, TRUE, TRUE, TRUE);
        if (cancelled) {
            IoCancelIrp(irp);
        }
        IoCallDriver(device, irp);
        IoFreeIrp(irp);
        return completed;
    };
    EXPECT_EQ(send(IOCTL_NDIS_FILTER_START_SHARE, false), STATUS_SUCCESS);
    EXPECT_EQ(send(IOCTL_NDIS_FILTER_READ_SHARE, true), STATUS_CANCELLED);
    EXPECT_EQ(send(IOCTL_NDIS_FILTER_READ_SHARE, true), STATUS_CANCELLED); // the first left nothing behind
    EXPECT_EQ(send(IOCTL_NDIS_FILTER_STOP_SHARE, false), STATUS_SUCCESS);
    ObDereferenceObject(file);
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
    NoMemoryTest()
    {
        plan_.loadFramework = plan_.loadHook = plan_.bind = false;
    }
    void SetUp() override
    {
        FrameworkTest::SetUp();
    }
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
