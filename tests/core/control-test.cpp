// Control requests as a user program sends them: lengths, what is written back, and codes that the framework does not
// know, for which client drivers have handlers.
#include "support/framework.h"

#include <cstring>

using namespace support;
using testing::Each;
using testing::HasSubstr;

namespace
{

constexpr uint32_t kTraceCore = 0x100;
constexpr uint32_t kUnknown = 0x80003000;

struct ControlTest : Loaded<WithTrace, kTraceCore, DeviceTest> {
    // Sends a request that is to be answered with a status; the bytes returned.
    size_t Control(uint32_t code, const Bytes& input, Bytes& output, machine::Status status = STATUS_SUCCESS)
    {
        const machine::Request::Result result = device_->Control(code, input, output);
        EXPECT_EQ(result.status, status);
        return result.information;
    }
};

TEST_F(ControlTest, VersionAndSizeOfTheSharedMemoryAreAnswered)
{
    // Nothing is copied back of a reply of no bytes; the length of the buffer is what is checked.
    Bytes output(2, 0xEE);
    EXPECT_EQ(Control(IOCTL_NDIS_FILTER_GET_VERSION, {}, output), 0u);
    EXPECT_THAT(output, Each(0xEE));
    EXPECT_EQ(Debug().Take(),
              "Enter NdisFilterIoControl\n  - ControlCode - 0x80002320\n  - InputBufferLength - 0x0\n"
              "  - OutputBufferLength - 0x2\n  IOCTL_NDIS_FILTER_GET_VERSION\n"
              "Leave NdisFilterIoControl\n");
    output.resize(1);
    EXPECT_EQ(Control(IOCTL_NDIS_FILTER_GET_VERSION, Counting(8), output, STATUS_BUFFER_TOO_SMALL), 0u);
    EXPECT_THAT(Debug().Take(),
                HasSubstr("    Output Buffer Length are too small\nLeave NdisFilterIoControl\n"));

    output.assign(8, 0xEE);
    EXPECT_EQ(Control(IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE, {}, output), 4u);
    EXPECT_EQ(output, (Bytes{0x68, 0x50, 0x1A, 0x00, 0xEE, 0xEE, 0xEE, 0xEE})); // 1724520
    output.resize(3);
    Control(IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE, {}, output, STATUS_BUFFER_TOO_SMALL);
}

TEST_F(ControlTest, StartingTheShareChecksOutputThenInputThenTheValue)
{
    struct Case {
        Bytes input;
        size_t output;
        machine::Status status;
        const char* message;
    };
    for (const Case& test :
         {Case{Counting(3, 1), 7, STATUS_BUFFER_TOO_SMALL, "    Output Buffer Length are too small\n"},
          {Counting(3, 1), 8, STATUS_BUFFER_TOO_SMALL, "    Input Buffer Length are too small\n"},
          {Bytes(4, 0), 8, STATUS_INVALID_PARAMETER_2, "    User Virtual Address is error\n"}}) {
        Bytes output(test.output, 0xEE);
        Control(IOCTL_NDIS_FILTER_START_SHARE, test.input, output, test.status);
        EXPECT_THAT(Debug().Take(), HasSubstr(test.message));
        EXPECT_THAT(output, Each(0xEE));
    }
    const auto* const memory = StartShare(*device_);
    ASSERT_NE(memory, nullptr);
    EXPECT_EQ((reinterpret_cast<uint64_t>(memory) - NDIS_FILTER_SHARE_FAILED) % 4096, 0u);
    EXPECT_THAT(Debug().Take(), HasSubstr("    NdisFilter_StartShare() success\n"));
}

TEST_F(ControlTest, AnUnknownCodeGoesToTheHookDriver)
{
    Bytes output(8, 0xEE);
    EXPECT_EQ(Control(kUnknown, Counting(16), output, STATUS_NOT_SUPPORTED), 0u); // nobody takes it
    EXPECT_THAT(output, Each(0xEE));

    uint32_t seen = 0;
    hook::SetIoControlHandler([&](uint32_t code, const void* input, uint32_t inputLength, void* buffer,
                                  uint32_t outputLength, uint32_t* bytesReturned) -> machine::Status {
        seen = code;
        const auto* bytes = static_cast<const uint8_t*>(input);
        EXPECT_EQ(Bytes(bytes, bytes + inputLength), Counting(5));
        EXPECT_EQ(outputLength, 8u);
        EXPECT_EQ(input, buffer);
        memset(buffer, 0x77, outputLength);
        *bytesReturned = 3;
        return STATUS_SUCCESS;
    });
    EXPECT_EQ(Control(kUnknown, Counting(5), output), 3u);
    EXPECT_EQ(output, (Bytes{0x77, 0x77, 0x77, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}));
    EXPECT_EQ(seen, kUnknown);
    // A code of the framework's own never reaches it.
    Control(IOCTL_NDIS_FILTER_GET_VERSION, {}, output);
    EXPECT_EQ(seen, kUnknown);

    // What it refuses is its answer, but for "not supported": then it has said nothing.
    machine::Status answer = STATUS_INVALID_PARAMETER_2;
    hook::SetIoControlHandler([&](auto, auto, auto, auto, auto, uint32_t* bytesReturned) {
        *bytesReturned = 4;
        return answer;
    });
    Control(kUnknown, {}, output, STATUS_INVALID_PARAMETER_2);
    answer = STATUS_NOT_SUPPORTED;
    EXPECT_EQ(Control(kUnknown, Counting(8), output, STATUS_NOT_SUPPORTED), 0u);
}

using FaultingHookTest = Loaded<FrameworkOnly, 0, ControlTest>;

TEST_F(FaultingHookTest, AnExceptionInTheHookDriverIsPrintedAndTheCodeNotSupported)
{
    NdisHookAPI record = HookRecord();
    record.Hook_HandleIoControl = [](ULONG, PVOID, ULONG, PVOID, ULONG, PULONG bytesReturned) {
        *bytesReturned = 4;
        FaultOnRead();
        return NTSTATUS{STATUS_SUCCESS};
    };
    ASSERT_EQ(Exchange(*device_, IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK, record).status, STATUS_SUCCESS);
    Debug().Take();
    Bytes output(8, 0xEE);
    EXPECT_EQ(Control(kUnknown, Counting(8), output, STATUS_NOT_SUPPORTED), 0u);
    EXPECT_EQ(Debug().Take(), "NdisFilterIoControl: exception in hook, code = -1073741819\n");
    ExpectNoLockHeld("an exception in the hook driver");

    ASSERT_EQ(Exchange(*device_, IOCTL_NDIS_FILTER_INTERNAL_UNBIND_NDIS_HOOK, record).status, STATUS_SUCCESS);
    Control(kUnknown, Counting(8), output, STATUS_NOT_SUPPORTED);
    EXPECT_EQ(Debug().Take(), "");
}

using HandlersTest = DeviceTest;

NTSTATUS Decline(const HandlingDriver::Request& request)
{
    return Filter_DefaultIoCtrlHandler(nullptr, request.irp, request.code, request.input, request.inputLength,
                                       request.output, request.outputLength, request.returned);
}

TEST_F(HandlersTest, AreAskedInOrderUntilOneDoesNotDecline)
{
    std::string asked;
    machine::Status answer = STATUS_SUCCESS;
    PIRP pended = nullptr;
    HandlingDriver first("1", [&](const auto& request) {
        asked += "1";
        *request.returned = 5; // the next one finds it: there is one count
        return Decline(request);
    });
    HandlingDriver second("2", [&](const auto& request) {
        asked += "2";
        EXPECT_EQ(request.code, kUnknown);
        EXPECT_EQ(Bytes(static_cast<uint8_t*>(request.input),
                        static_cast<uint8_t*>(request.input) + request.inputLength),
                  Counting(3));
        EXPECT_EQ(request.output, request.input);
        EXPECT_EQ(request.outputLength, 8u);
        EXPECT_EQ(*request.returned, 5u);
        std::memset(request.output, 0x77, 8);
        *request.returned = 2;
        if (answer == STATUS_PENDING) {
            IoMarkIrpPending(request.irp);
            pended = request.irp;
        }
        return answer;
    });
    HandlingDriver third("3", [&](const auto& request) {
        asked += "3";
        return Decline(request);
    });
    Bytes output(8, 0xEE);
    machine::Request::Result result = device_->Control(kUnknown, Counting(3), output);
    EXPECT_EQ(asked, "12");
    EXPECT_EQ(result.status, STATUS_SUCCESS);
    EXPECT_EQ(result.information, 2u);
    EXPECT_EQ(output, (Bytes{0x77, 0x77, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}));
    // The kit's constant of the similar name does not decline.
    answer = STATUS_INVALID_DEVICE_REQUEST;
    EXPECT_EQ(device_->Control(kUnknown, Counting(3), output).status, STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(asked, "1212");
    answer = STATUS_NOT_SUPPORTED;
    EXPECT_EQ(device_->Control(kUnknown, Counting(3), output).status, STATUS_NOT_SUPPORTED);
    EXPECT_EQ(asked, "1212123");
    // One that pends is the handler's to complete.
    answer = STATUS_PENDING;
    asked.clear();
    machine::Request pending = device_->Send(kUnknown, Counting(3), 8);
    EXPECT_EQ(pending.DispatchStatus(), STATUS_PENDING);
    EXPECT_FALSE(pending.IsComplete());
    EXPECT_EQ(asked, "12");
    ASSERT_NE(pended, nullptr);
    pended->IoStatus = {.Status = STATUS_SUCCESS, .Information = 1};
    IoCompleteRequest(pended, IO_NO_INCREMENT);
    EXPECT_EQ(pending.Wait().value_or(machine::Request::Result{}).information, 1u);
    EXPECT_THAT(pending.Output(), testing::ElementsAre(0x77));
    // Nobody is asked for what the hook driver answers.
    hook::SetIoControlHandler([](auto...) -> machine::Status { return STATUS_SUCCESS; });
    EXPECT_EQ(device_->Control(kUnknown, Counting(3), output).status, STATUS_SUCCESS);
    EXPECT_EQ(asked, "12");
}

TEST_F(HandlersTest, MayClaimNoMoreThanTheOutputHolds)
{
    HandlingDriver driver("1", [](const auto& request) {
        *request.returned = ~ULONG_PTR{0};
        return STATUS_SUCCESS;
    });
    Bytes output(8, 0xEE);
    EXPECT_EQ(device_->Control(kUnknown, Counting(3), output).information, 8u);
    EXPECT_EQ(device_->Control(kUnknown, {}, {}).information, 0u);
}

} // namespace
