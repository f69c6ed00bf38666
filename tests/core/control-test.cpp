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
constexpr machine::Status kNotSupported = static_cast<machine::Status>(0xC00000BB);
constexpr machine::Status kBufferTooSmall = static_cast<machine::Status>(0xC0000023);
constexpr machine::Status kInvalidParameter2 = static_cast<machine::Status>(0xC00000F0);

class ControlTest : public FrameworkTest
{
  protected:
    ControlTest() : FrameworkTest(WithTrace(kTraceCore)) {}

    void SetUp() override
    {
        FrameworkTest::SetUp();
        device_ = OpenDevice();
        ASSERT_NE(device_, nullptr);
        Debug().Take();
    }
    void TearDown() override
    {
        device_.reset();
        FrameworkTest::TearDown();
    }

    std::unique_ptr<machine::File> device_;
};

TEST_F(ControlTest, TheVersionIsWrittenButNotReported)
{
    // Nothing is copied back of a reply of no bytes; the length of the buffer is what is checked.
    Bytes output(2, 0xEE);
    machine::Request::Result result = device_->Control(IOCTL_NDIS_FILTER_GET_VERSION, {}, output);
    EXPECT_EQ(result.status, STATUS_SUCCESS);
    EXPECT_EQ(result.information, 0u);
    EXPECT_THAT(output, Each(0xEE));
    EXPECT_EQ(Debug().Take(),
              "Enter NdisFilterIoControl\n  - ControlCode - 0x80002320\n  - InputBufferLength - 0x0\n"
              "  - OutputBufferLength - 0x2\n  IOCTL_NDIS_FILTER_GET_VERSION\n"
              "Leave NdisFilterIoControl\n");
    output.resize(1);
    result = device_->Control(IOCTL_NDIS_FILTER_GET_VERSION, Counting(8), output);
    EXPECT_EQ(result.status, kBufferTooSmall);
    EXPECT_EQ(result.information, 0u);
    EXPECT_THAT(Debug().Take(),
                HasSubstr("    Output Buffer Length are too small\nLeave NdisFilterIoControl\n"));
}

TEST_F(ControlTest, TheSizeOfTheSharedMemoryIsReported)
{
    Bytes output(8, 0xEE);
    const machine::Request::Result result =
        device_->Control(IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE, {}, output);
    EXPECT_EQ(result.status, STATUS_SUCCESS);
    EXPECT_EQ(result.information, 4u);
    EXPECT_EQ(output, (Bytes{0x68, 0x50, 0x1A, 0x00, 0xEE, 0xEE, 0xEE, 0xEE})); // 1724520
    Bytes small(3);
    EXPECT_EQ(device_->Control(IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE, {}, small).status, kBufferTooSmall);
}

TEST_F(ControlTest, StartingTheShareChecksOutputThenInputThenTheValue)
{
    Bytes output(8, 0xEE);
    Bytes small(7);
    EXPECT_EQ(device_->Control(IOCTL_NDIS_FILTER_START_SHARE, Counting(3, 1), small).status, kBufferTooSmall);
    EXPECT_THAT(Debug().Take(), HasSubstr("    Output Buffer Length are too small\n"));
    EXPECT_EQ(device_->Control(IOCTL_NDIS_FILTER_START_SHARE, Counting(3, 1), output).status,
              kBufferTooSmall);
    EXPECT_THAT(Debug().Take(), HasSubstr("    Input Buffer Length are too small\n"));
    EXPECT_EQ(device_->Control(IOCTL_NDIS_FILTER_START_SHARE, Bytes(4, 0), output).status,
              kInvalidParameter2);
    EXPECT_THAT(Debug().Take(), HasSubstr("    User Virtual Address is error\n"));
    EXPECT_THAT(output, Each(0xEE));

    const machine::Request::Result result =
        device_->Control(IOCTL_NDIS_FILTER_START_SHARE, Counting(4, 1), output);
    EXPECT_EQ(result.status, STATUS_SUCCESS);
    EXPECT_EQ(result.information, 8u);
    uint64_t address = 0;
    memcpy(&address, output.data(), sizeof(address));
    EXPECT_GT(address, NDIS_FILTER_SHARE_FAILED);
    EXPECT_EQ((address - NDIS_FILTER_SHARE_FAILED) % 4096, 0u);
    EXPECT_THAT(Debug().Take(), HasSubstr("    NdisFilter_StartShare() success\n"));

    // A second program gets a success that carries the value of failure.
    machine::Process second;
    std::unique_ptr<machine::File> other = second.Open(kDeviceName);
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(other->Control(IOCTL_NDIS_FILTER_START_SHARE, Counting(4, 1), output).status, STATUS_SUCCESS);
    memcpy(&address, output.data(), sizeof(address));
    EXPECT_EQ(address, NDIS_FILTER_SHARE_FAILED);
    // It may stop and write without an owner's rights; both are answered with success and change nothing.
    EXPECT_EQ(other->Control(IOCTL_NDIS_FILTER_STOP_SHARE, {}, {}).status, STATUS_SUCCESS);
    EXPECT_EQ(other->Control(IOCTL_NDIS_FILTER_WRITE_SHARE, {}, {}).status, STATUS_SUCCESS);
    EXPECT_EQ(machine::TakeCensus().views, 1u);
    // Closing its handle gives the share back.
    device_.reset();
    EXPECT_EQ(machine::TakeCensus().views, 0u);
    EXPECT_EQ(other->Control(IOCTL_NDIS_FILTER_START_SHARE, Counting(4, 1), output).status, STATUS_SUCCESS);
    memcpy(&address, output.data(), sizeof(address));
    EXPECT_GT(address, NDIS_FILTER_SHARE_FAILED);
    EXPECT_EQ(other->Control(IOCTL_NDIS_FILTER_STOP_SHARE, {}, {}).status, STATUS_SUCCESS);
    EXPECT_EQ(machine::TakeCensus().views, 0u);
}

// ---------------------------------------------------------------------------------------------- unknown codes

TEST_F(ControlTest, AnUnknownCodeIsNotSupported)
{
    Bytes output(16, 0xEE);
    const machine::Request::Result result = device_->Control(kUnknown, Counting(16), output);
    EXPECT_EQ(result.status, kNotSupported);
    EXPECT_EQ(result.information, 0u);
    EXPECT_THAT(output, Each(0xEE));
    EXPECT_EQ(device_->Control(kUnknown, {}, {}).status, kNotSupported);
}

TEST_F(ControlTest, AnUnknownCodeGoesToTheHookDriver)
{
    struct Seen {
        uint32_t code;
        Bytes input;
        uint32_t outputLength;
        bool oneBuffer;
    } seen = {};
    hook::SetIoControlHandler([&](uint32_t code, const void* input, uint32_t inputLength, void* output,
                                  uint32_t outputLength, uint32_t* bytesReturned) -> machine::Status {
        const auto* bytes = static_cast<const uint8_t*>(input);
        seen = {code, Bytes(bytes, bytes + inputLength), outputLength, input == output};
        memset(output, 0x77, outputLength);
        *bytesReturned = 3;
        return STATUS_SUCCESS;
    });
    Bytes output(8, 0xEE);
    machine::Request::Result result = device_->Control(kUnknown, Counting(5), output);
    EXPECT_EQ(result.status, STATUS_SUCCESS);
    EXPECT_EQ(result.information, 3u);
    EXPECT_EQ(output, (Bytes{0x77, 0x77, 0x77, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}));
    EXPECT_EQ(seen.code, kUnknown);
    EXPECT_EQ(seen.input, Counting(5));
    EXPECT_EQ(seen.outputLength, 8u);
    EXPECT_TRUE(seen.oneBuffer);

    // What it refuses otherwise than with "not supported" is its answer.
    hook::SetIoControlHandler([](auto...) -> machine::Status { return kInvalidParameter2; });
    EXPECT_EQ(device_->Control(kUnknown, {}, output).status, kInvalidParameter2);
    // A code of the framework's own never reaches it.
    EXPECT_EQ(device_->Control(IOCTL_NDIS_FILTER_GET_VERSION, {}, output).status, STATUS_SUCCESS);
}

TEST_F(ControlTest, AHookDriverThatDeclinesHasSaidNothing)
{
    hook::SetIoControlHandler([](uint32_t, const void*, uint32_t, void*, uint32_t, uint32_t* bytesReturned) {
        *bytesReturned = 4;
        return kNotSupported;
    });
    Bytes output(8, 0xEE);
    const machine::Request::Result result = device_->Control(kUnknown, Counting(8), output);
    EXPECT_EQ(result.status, kNotSupported);
    EXPECT_EQ(result.information, 0u);
}

NTSTATUS FaultingHandler(ULONG, PVOID, ULONG, PVOID, ULONG, PULONG bytesReturned)
{
    *bytesReturned = 4;
    FaultOnRead();
    return STATUS_SUCCESS;
}

struct FaultingHookTest : ControlTest {
    FaultingHookTest() { plan_ = FrameworkOnly(0); }
};

TEST_F(FaultingHookTest, AnExceptionInTheHookDriverIsPrintedAndTheCodeNotSupported)
{
    NdisHookAPI record = HookRecord();
    record.Hook_HandleIoControl = FaultingHandler;
    ASSERT_EQ(Exchange(*device_, IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK, record).status, STATUS_SUCCESS);
    Debug().Take();
    Bytes output(8, 0xEE);
    const machine::Request::Result result = device_->Control(kUnknown, Counting(8), output);
    EXPECT_EQ(result.status, kNotSupported);
    EXPECT_EQ(result.information, 0u);
    EXPECT_EQ(Debug().Take(), "NdisFilterIoControl: exception in hook, code = -1073741819\n");
    ExpectNoLockHeld("an exception in the hook driver");

    ASSERT_EQ(Exchange(*device_, IOCTL_NDIS_FILTER_INTERNAL_UNBIND_NDIS_HOOK, record).status, STATUS_SUCCESS);
    EXPECT_EQ(device_->Control(kUnknown, Counting(8), output).status, kNotSupported);
    EXPECT_EQ(Debug().Take(), "");
}

} // namespace
