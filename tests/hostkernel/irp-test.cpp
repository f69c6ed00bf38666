// Requests: buffers, pending and cancelling, requests between drivers, and the rules that a driver can break.
#include "probe-driver.h"

#include <atomic>
#include <cstring>
#include <span>
#include <thread>

using namespace probe;
using testing::ElementsAre;

namespace
{

constexpr ULONG kBuffered = CTL_CODE(0x8000, 0x800, METHOD_BUFFERED, FILE_ANY_ACCESS);
constexpr ULONG kNeither = CTL_CODE(0x8000, 0x800, METHOD_NEITHER, FILE_ANY_ACCESS);
constexpr ULONG kOutDirect = CTL_CODE(0x8000, 0x800, METHOD_OUT_DIRECT, FILE_ANY_ACCESS);

class IrpTest : public DriverTest
{
  protected:
    static constexpr int kCancelled = -1; // the place of a cancellation among the majors

    void SetUp() override
    {
        DriverTest::SetUp();
        ASSERT_EQ(Load(), STATUS_SUCCESS);
        file = process->Open(kDevice);
        ASSERT_NE(file, nullptr);
    }

    void TearDown() override
    {
        file.reset();
        process.reset();
        DriverTest::TearDown();
    }

    // Marks the request pending and parks it under a cancel routine, as a driver should.
    NTSTATUS Park(IRP* irp)
    {
        irp->Tail.Overlay.DriverContext[0] = this;
        IoMarkIrpPending(irp);
        IoSetCancelRoutine(irp, [](DEVICE_OBJECT*, IRP* request) {
            IoReleaseCancelSpinLock(request->CancelIrql);
            auto* test = static_cast<IrpTest*>(request->Tail.Overlay.DriverContext[0]);
            test->parked = nullptr;
            ++test->cancelled;
            test->majors.push_back(kCancelled);
            Complete(request, STATUS_CANCELLED);
        });
        parked = irp;
        return STATUS_PENDING;
    }

    // False when the cancel routine has the request.
    bool Unpark(NTSTATUS status)
    {
        IRP* irp = parked.exchange(nullptr);
        const bool mine = irp != nullptr && IoSetCancelRoutine(irp, nullptr) != nullptr;
        return mine && Complete(irp, status) == status;
    }

    std::unique_ptr<machine::Process> process = std::make_unique<machine::Process>();
    std::unique_ptr<machine::File> file;
    std::atomic<IRP*> parked{nullptr};
    std::atomic<int> cancelled{0};
};

TEST_F(IrpTest, TheSystemBufferHoldsTheGreaterLengthAndReturnsInformationBytes)
{
    struct Case {
        size_t input, output;
        NTSTATUS status;
        size_t information, copied;
    };
    const Case cases[] = {
        {4, 8, STATUS_SUCCESS, 8, 8},          {4, 8, STATUS_SUCCESS, 3, 3},
        {8, 4, STATUS_SUCCESS, 4, 4},          {4, 8, STATUS_BUFFER_OVERFLOW, 8, 8},
        {4, 8, STATUS_BUFFER_TOO_SMALL, 8, 0}, {0, 0, STATUS_SUCCESS, 0, 0},
        {16, 4, STATUS_SUCCESS, 16, 4}, // more than there is room for: clipped, and reported
    };
    for (const Case& one : cases) {
        control = [&](IRP* irp) {
            const auto& parameters = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
            EXPECT_EQ(parameters.InputBufferLength, one.input);
            EXPECT_EQ(parameters.OutputBufferLength, one.output);
            auto* buffer = static_cast<UCHAR*>(irp->AssociatedIrp.SystemBuffer);
            EXPECT_EQ(buffer == nullptr, one.input == 0 && one.output == 0);
            if (buffer != nullptr) {
                EXPECT_THAT(std::span(buffer, one.input), testing::Each(0x11));
                std::memset(buffer, 0x22, std::max(one.input, one.output));
            }
            return Complete(irp, one.status, one.information);
        };
        const std::vector<uint8_t> input(one.input, 0x11);
        std::vector<uint8_t> output(one.output, 0x33);
        const auto result = file->Control(kBuffered, input, output);
        EXPECT_EQ(result.status, one.status);
        EXPECT_EQ(result.information, one.information);
        std::vector<uint8_t> expected(one.output, 0x33);
        std::fill_n(expected.begin(), one.copied, 0x22);
        EXPECT_EQ(output, expected);
        EXPECT_EQ(BrokenRules().size(), one.information > one.output ? 1u : 0u);
    }
}

TEST_F(IrpTest, UnbufferedMethodsGiveTheProgramsOwnMemoryInItsProcess)
{
    const std::vector<uint8_t> input = {1, 2, 3};
    EXPECT_EQ(reinterpret_cast<uintptr_t>(PsGetCurrentProcessId()), 4u);
    control = [&](IRP* irp) {
        EXPECT_EQ(reinterpret_cast<uintptr_t>(PsGetCurrentProcessId()), process->Id());
        auto& parameters = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
        void* target = irp->UserBuffer;
        if (parameters.IoControlCode == kNeither) {
            EXPECT_EQ(irp->AssociatedIrp.SystemBuffer, nullptr);
            EXPECT_EQ(parameters.Type3InputBuffer, input.data());
        } else {
            EXPECT_EQ(std::memcmp(irp->AssociatedIrp.SystemBuffer, input.data(), 3), 0);
            target = MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority);
        }
        std::memset(target, 0x44, 2);
        return Complete(irp, STATUS_SUCCESS, 2);
    };
    for (const ULONG code : {kNeither, kOutDirect}) {
        std::vector<uint8_t> output(4);
        EXPECT_EQ(file->Control(code, input, output).status, STATUS_SUCCESS);
        EXPECT_THAT(output, ElementsAre(0x44, 0x44, 0, 0));
    }
}

TEST_F(IrpTest, APendingRequestIsCompletedLaterOrCancelledOrCancelledByClose)
{
    control = [this](IRP* irp) { return Park(irp); };
    auto completed = file->Send(kBuffered, {}, 0);
    EXPECT_EQ(completed.DispatchStatus(), STATUS_PENDING);
    EXPECT_FALSE(completed.Wait(0).has_value());
    EXPECT_TRUE(Unpark(STATUS_SUCCESS));
    EXPECT_EQ(completed.Wait()->status, STATUS_SUCCESS);
    completed.Cancel();

    auto request = file->Send(kBuffered, {}, 0);
    request.Cancel();
    request.Cancel();
    EXPECT_EQ(request.Wait()->status, STATUS_CANCELLED);
    EXPECT_EQ(cancelled, 1);

    auto atDispatch = file->Send(kBuffered, {}, 0);
    {
        machine::AtDispatch dispatch; // the level to return to travels in the request
        atDispatch.Cancel();
    }
    EXPECT_EQ(atDispatch.Wait()->status, STATUS_CANCELLED);

    auto held = file->Send(kBuffered, {}, 0);
    IoSetCancelRoutine(parked, nullptr); // only told that it is cancelled
    held.Cancel();
    machine::CheckReturnToUser("a cancel that finds no routine");
    EXPECT_TRUE(parked.load()->Cancel);
    Complete(parked.exchange(nullptr), STATUS_SUCCESS);
    EXPECT_EQ(held.Wait()->status, STATUS_SUCCESS);

    auto closed = file->Send(kBuffered, {}, 0);
    majors.clear();
    file->Close();
    EXPECT_EQ(closed.Wait()->status, STATUS_CANCELLED);
    EXPECT_THAT(majors, ElementsAre(IRP_MJ_CLEANUP, kCancelled, IRP_MJ_CLOSE));
}

TEST_F(IrpTest, CompletionAndCancelMayMeet)
{
    control = [this](IRP* irp) { return Park(irp); };
    int completions = 0;
    for (int round = 0; round < 500; ++round) {
        auto request = file->Send(kBuffered, {}, 0);
        std::thread canceller([&] { request.Cancel(); });
        if (Unpark(STATUS_SUCCESS)) {
            ++completions;
        }
        canceller.join();
        const auto result = request.Wait();
        ASSERT_TRUE(result.has_value());
        ASSERT_THAT(result->status, testing::AnyOf(STATUS_SUCCESS, STATUS_CANCELLED));
    }
    EXPECT_EQ(completions + cancelled, 500);
    EXPECT_EQ(machine::TakeCensus().requests, 0u);
}

TEST_F(IrpTest, BrokenRulesOfADispatchRoutineAreNamed)
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
        NTSTATUS completed;
        NTSTATUS returned;
        PDRIVER_CANCEL cancel = nullptr;
        std::function<void()> first = [] {};
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
        EXPECT_TRUE(file->Send(kBuffered, {}, 0).Wait().has_value());
        ExpectRule(one.rule);
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL) << one.rule;
    }
}

struct Built {
    KEVENT event;
    IO_STATUS_BLOCK status = {{.Status = -1}, 99};
    UCHAR buffer[4] = {1, 2, 3, 4};

    NTSTATUS Send(DEVICE_OBJECT* device, BOOLEAN internal)
    {
        KeInitializeEvent(&event, NotificationEvent, FALSE);
        IRP* irp = IoBuildDeviceIoControlRequest(kBuffered, device, buffer, sizeof(buffer), buffer,
                                                 sizeof(buffer), internal, &event, &status);
        return irp != nullptr ? IoCallDriver(device, irp) : STATUS_INSUFFICIENT_RESOURCES;
    }
};

TEST_F(IrpTest, ABuiltRequestReturnsItsBufferStatusAndEvent)
{
    control = [](IRP* irp) {
        EXPECT_EQ(IoGetCurrentIrpStackLocation(irp)->MajorFunction, IRP_MJ_INTERNAL_DEVICE_CONTROL);
        auto* buffer = static_cast<UCHAR*>(irp->AssociatedIrp.SystemBuffer);
        std::reverse(buffer, buffer + 4);
        return Complete(irp, STATUS_SUCCESS, 4);
    };
    Built good;
    EXPECT_EQ(good.Send(device, TRUE), STATUS_SUCCESS);
    EXPECT_THAT(good.buffer, ElementsAre(4, 3, 2, 1));
    EXPECT_EQ(good.status.Information, 4u);
    EXPECT_NE(KeReadStateEvent(&good.event), 0);

    // An error within the dispatch routine is told by the returned status alone; a later one through the block.
    control = [](IRP* irp) { return Complete(irp, STATUS_UNSUCCESSFUL, 4); };
    Built failed;
    EXPECT_EQ(failed.Send(device, FALSE), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(failed.status.Status, -1);
    EXPECT_EQ(KeReadStateEvent(&failed.event), 0);

    control = [this](IRP* irp) { return Park(irp); };
    Built late;
    EXPECT_EQ(late.Send(device, FALSE), STATUS_PENDING);
    EXPECT_TRUE(Unpark(STATUS_UNSUCCESSFUL));
    EXPECT_EQ(late.status.Status, STATUS_UNSUCCESSFUL);
    EXPECT_THAT(late.buffer, ElementsAre(1, 2, 3, 4));
    EXPECT_NE(KeReadStateEvent(&late.event), 0);

    machine::FailCall(machine::Fault::Request, 1);
    EXPECT_EQ(Built().Send(device, TRUE), STATUS_INSUFFICIENT_RESOURCES);
}

TEST_F(IrpTest, ACompletionRoutineKeepsARequestForItsOwner)
{
    IRP* irp = IoAllocateIrp(device->StackSize, FALSE);
    ASSERT_NE(irp, nullptr);
    for (const NTSTATUS status : {STATUS_SUCCESS, STATUS_UNSUCCESSFUL}) { // the owner may use it again
        int calls = 0;
        control = [status](IRP* request) { return Complete(request, status, 7); };
        IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
        IoSetCompletionRoutine(
            irp,
            [](DEVICE_OBJECT* owner, IRP*, PVOID context) -> NTSTATUS {
                EXPECT_EQ(owner, nullptr);
                ++*static_cast<int*>(context);
                return STATUS_MORE_PROCESSING_REQUIRED;
            },
            &calls, TRUE, TRUE, TRUE);
        EXPECT_EQ(IoCallDriver(device, irp), status);
        EXPECT_EQ(calls, 1);
        EXPECT_EQ(irp->IoStatus.Information, 7u);
    }
    EXPECT_EQ(machine::TakeCensus().requests, 1u);
    IoFreeIrp(irp);
    IoFreeIrp(irp);
    ExpectRule("irp-not-live");
}

} // namespace
