// The control device as a user program sees it.
#include "suite.h"

#include "indicator.h"

using namespace suite;

namespace
{

// The loaded framework.
struct Filter {
    Filter()
    {
        driver.Start();
        cleanup.emplace();
    }

    Service driver{L"ndisfilter"};
    std::optional<CleanupRequests> cleanup; // goes first
};

constexpr uint64_t kNoAddress = NDIS_FILTER_SHARE_FAILED; // another program has it
constexpr int kDied = 77;                                 // exit code of a program that ends in the middle

TEST(requests, AnswerWithStatusesAndLengths)
{
    const Filter filter;
    Device device;
    struct Case {
        uint32_t code;
        size_t input, output;
        DWORD error;
        size_t returned;
    };
    const Case cases[] = {
        {IOCTL_NDIS_FILTER_GET_VERSION, 0, 2, ERROR_SUCCESS, 0}, // writes two bytes and returns none
        {IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE, 0, 4, ERROR_SUCCESS, 4},
        {IOCTL_NDIS_FILTER_START_SHARE, 4, 8, ERROR_INVALID_PARAMETER, 0},              // of value 0
        {IOCTL_NDIS_FILTER_READ_SHARE, 0, 0, ERROR_GEN_FAILURE, 0},                     // not the owner
        {IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES, 0, 9028, ERROR_INTERNAL_ERROR, 0},     // no hook driver
        {IOCTL_NDIS_FILTER_GET_EVENT, 0, 1036, ERROR_SUCCESS, 0},                       // none waits
        {IOCTL_NDIS_FILTER_SET_IPCONFIG, 224, 0, ERROR_INVALID_PARAMETER, 0},           // of adapter 0
        {IOCTL_NDIS_FILTER_SET_CONGESTION_CONTROL, 0, 0, ERROR_INSUFFICIENT_BUFFER, 0}, // no buffer to read
        {IOCTL_NDIS_FILTER_DIAG, 6, 64, ERROR_SUCCESS, 40},       // one of zeros, which nobody answers
        {IOCTL_INDICATOR_GET_COUNTERS, 0, 16, ERROR_SUCCESS, 16}, // a client driver's own
        {NDIS_FILTER_CTL_CODE(0x980), 16, 16, ERROR_NOT_SUPPORTED, 0},
    };
    Service indicator(L"indicator");
    indicator.Start();
    for (const Case& test : cases) {
        SCOPED_TRACE(testing::Message() << "function 0x" << std::hex << (test.code >> 2 & 0xFFF)
                                        << ", lengths " << std::dec << test.input << " and " << test.output);
        const std::vector<uint8_t> input(test.input);
        const Answer answer = device.Control(test.code, input, test.output);
        EXPECT_EQ(answer.error, test.error);
        EXPECT_EQ(answer.bytes.size(), test.returned);
    }
    const Answer size = device.Control(IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE, {}, 4);
    EXPECT_EQ(As<uint32_t>(size.bytes), NDIS_FILTER_MAPPED_MEMORY_SIZE);
}

TEST(requests, TheProgramSeesTheSharedMemory)
{
    if (IsWine()) {
        GTEST_SKIP() << "Wine maps no memory of a driver into a program";
    }
    const Filter filter;
    Device device;
    const auto* shared = reinterpret_cast<const SharedMemory*>(device.StartShare());
    EXPECT_EQ(shared->KernelModeInput.m_iBlockSize, NDIS_FILTER_BLOCK_SIZE);
    EXPECT_EQ(shared->KernelModeInput.m_iBlockCount, NDIS_FILTER_BLOCK_COUNT);
    EXPECT_EQ(shared->KernelModeInput.m_iBaseOffset, 862208);
}

TEST(requests, AReadIsParkedAndEndsOneWay)
{
    const Filter filter;
    const struct {
        void (*end)(Device& device, Request& read);
        DWORD error;
    } ways[] = {
        {[](Device&, Request& read) { read.Cancel(); }, ERROR_OPERATION_ABORTED},
        {[](Device& device, Request&) { device.Control(IOCTL_NDIS_FILTER_STOP_SHARE); }, ERROR_SUCCESS},
        {[](Device& device, Request&) { device.Close(); }, ERROR_SUCCESS},
    };
    for (const auto& way : ways) {
        Device device;
        EXPECT_GT(device.StartShare(), kNoAddress);
        EXPECT_EQ(Device().StartShare(), kNoAddress);
        Request read(device, IOCTL_NDIS_FILTER_READ_SHARE, {}, 0);
        EXPECT_TRUE(read.IsPending());
        EXPECT_EQ(device.Control(IOCTL_NDIS_FILTER_READ_SHARE).error, DWORD{ERROR_GEN_FAILURE}); // only one
        way.end(device, read);
        EXPECT_EQ(read.Wait().error, way.error);
    }
}

// A group of its own: what the test below runs as another program.
TEST(dies, WithARead)
{
    Device device;
    device.StartShare();
    Request read(device, IOCTL_NDIS_FILTER_READ_SHARE, {}, 0);
    TerminateProcess(GetCurrentProcess(), read.IsPending() ? kDied : 1);
}

TEST(requests, AProgramThatDiesLosesItsShare)
{
    const Filter filter;
    const std::wstring arguments = L"dies \"" + options.drivers + L"\" \"" + options.debugOutput + L"\"";
    EXPECT_EQ(RunProgram(L"ndisfilter-test.exe", arguments).code, kDied);
    EXPECT_TRUE(Eventually([] { return Device().StartShare() > kNoAddress; }));
}

} // namespace
