// Control requests as a user program sends them: lengths, what is written back, and codes that the framework does not
// know.
#include "support/framework.h"

#include <cstring>
#include <string>
#include <vector>

using namespace support;
using testing::Each;
using testing::HasSubstr;

namespace
{

constexpr uint32_t kTraceCore = 0x100;
constexpr uint32_t kUnknown = 0x80003000;

struct ControlTest : DeviceTest {
    ControlTest() : DeviceTest(WithTrace(kTraceCore)) {}

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

TEST_F(ControlTest, StartingTheShareChecksOutputThenInputThenTheValueThenForAnOwner)
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
    const auto start = [&](machine::File& device) {
        Bytes output(8);
        const auto result = device.Control(IOCTL_NDIS_FILTER_START_SHARE, Counting(4, 1), output);
        EXPECT_EQ(std::pair(result.status, result.information), std::pair(STATUS_SUCCESS, size_t{8}));
        uint64_t address = 0;
        memcpy(&address, output.data(), sizeof(address));
        return address - NDIS_FILTER_SHARE_FAILED;
    };
    const uint64_t distance = start(*device_);
    EXPECT_GT(distance, 0u);
    EXPECT_EQ(distance % 4096, 0u);
    EXPECT_THAT(Debug().Take(), HasSubstr("    NdisFilter_StartShare() success\n"));

    // A second program gets a success that carries the value of failure.
    machine::Process second;
    std::unique_ptr<machine::File> other = second.Open(kDeviceName);
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(start(*other), 0u);
    device_.reset(); // closing its handle gives the share back
    EXPECT_EQ(machine::TakeCensus().views, 0u);
    EXPECT_GT(start(*other), 0u);
}

TEST_F(ControlTest, AnUnknownCodeGoesToTheHookDriver)
{
    Bytes output(8, 0xEE);
    EXPECT_EQ(Control(kUnknown, Counting(16), output, STATUS_NOT_SUPPORTED),
              0u); // no hook driver that would take it
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

struct FaultingHookTest : ControlTest {
    FaultingHookTest() { plan_ = FrameworkOnly(); }
};

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

} // namespace
