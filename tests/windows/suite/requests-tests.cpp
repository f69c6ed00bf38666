// The control device as a user program sees it.
#include "suite.h"

#include <ndisfilter-user.h>

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

Answer StartShare(Device& device)
{
    return device.Control(IOCTL_NDIS_FILTER_START_SHARE, Bytes(uint32_t{1}), 8);
}

// What a program that has no share gets when it asks for one that another has.
constexpr uint64_t kNoAddress = NDIS_FILTER_SHARE_FAILED;

constexpr DWORD kDied = 77; // exit code of a program that ends in the middle

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
        {IOCTL_NDIS_FILTER_GET_VERSION, 8, 1, ERROR_INSUFFICIENT_BUFFER, 0},
        {IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE, 0, 4, ERROR_SUCCESS, 4},
        {IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE, 0, 3, ERROR_INSUFFICIENT_BUFFER, 0},
        {IOCTL_NDIS_FILTER_START_SHARE, 4, 7, ERROR_INSUFFICIENT_BUFFER, 0},
        {IOCTL_NDIS_FILTER_START_SHARE, 3, 8, ERROR_INSUFFICIENT_BUFFER, 0},
        {IOCTL_NDIS_FILTER_START_SHARE, 4, 8, ERROR_INVALID_PARAMETER, 0}, // of value 0
        {IOCTL_NDIS_FILTER_STOP_SHARE, 0, 0, ERROR_SUCCESS, 0},
        {IOCTL_NDIS_FILTER_READ_SHARE, 0, 0, ERROR_GEN_FAILURE, 0}, // not the owner
        {IOCTL_NDIS_FILTER_WRITE_SHARE, 0, 0, ERROR_SUCCESS, 0},    // refused, but says nothing
        {0x80002600, 16, 16, ERROR_NOT_SUPPORTED, 0},
    };
    for (const Case& test : cases) {
        const std::vector<uint8_t> input(test.input);
        const Answer answer = device.Control(test.code, input, test.output);
        const std::string name = "code " + Text(test.code) + ", output " + Text(test.output) + ": ";
        CHECK_EQUAL(name + Text(answer.error), name + Text(test.error));
        CHECK_EQUAL(name + Text(answer.bytes.size()), name + Text(test.returned));
    }
    const Answer size = device.Control(IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE, {}, 4);
    CHECK_EQUAL(As<uint32_t>(size.bytes), NDIS_FILTER_MAPPED_MEMORY_SIZE);
}

TEST(requests, SharedMemoryHasOneOwner)
{
    const Filter filter;
    Device first, second;
    CHECK(As<uint64_t>(StartShare(first).bytes) > kNoAddress);
    CHECK_EQUAL(As<uint64_t>(StartShare(second).bytes), kNoAddress);
    second.Control(IOCTL_NDIS_FILTER_STOP_SHARE); // not its own
    CHECK_EQUAL(As<uint64_t>(StartShare(second).bytes), kNoAddress);
    first.Control(IOCTL_NDIS_FILTER_STOP_SHARE);
    CHECK(As<uint64_t>(StartShare(second).bytes) > kNoAddress);
    second.Close(); // ends the share, too
    CHECK(As<uint64_t>(StartShare(first).bytes) > kNoAddress);
}

TEST(requests, TheProgramSeesTheSharedMemory)
{
    if (IsWine()) {
        throw Skipped("Wine maps no memory of a driver into a program");
    }
    const Filter filter;
    Device device;
    const auto* shared = reinterpret_cast<const SharedMemory*>(As<uint64_t>(StartShare(device).bytes));
    CHECK_EQUAL(shared->KernelModeInput.m_iBlockSize, NDIS_FILTER_BLOCK_SIZE);
    CHECK_EQUAL(shared->KernelModeInput.m_iBlockCount, NDIS_FILTER_BLOCK_COUNT);
    CHECK_EQUAL(shared->KernelModeInput.m_iBaseOffset, 862208);
}

TEST(requests, AReadIsParkedAndEndsOneWay)
{
    const Filter filter;
    Device device;
    StartShare(device);
    {
        Request read(device, IOCTL_NDIS_FILTER_READ_SHARE, {}, 0);
        CHECK(read.IsPending());
        CHECK_EQUAL(device.Control(IOCTL_NDIS_FILTER_READ_SHARE).error, DWORD{ERROR_GEN_FAILURE}); // only one
        read.Cancel();
        CHECK_EQUAL(read.Wait().error, DWORD{ERROR_OPERATION_ABORTED});
    }
    {
        Request read(device, IOCTL_NDIS_FILTER_READ_SHARE, {}, 0);
        CHECK(read.IsPending());
        device.Control(IOCTL_NDIS_FILTER_STOP_SHARE);
        CHECK_EQUAL(read.Wait().error, DWORD{ERROR_SUCCESS});
    }
    StartShare(device);
    Request read(device, IOCTL_NDIS_FILTER_READ_SHARE, {}, 0);
    CHECK(read.IsPending());
    device.Close();
    CHECK_EQUAL(read.Wait().error, DWORD{ERROR_SUCCESS});
}

// A group of its own: what the test below runs as another program.
TEST(dies, WithARead)
{
    Device device;
    StartShare(device);
    Request read(device, IOCTL_NDIS_FILTER_READ_SHARE, {}, 0);
    TerminateProcess(GetCurrentProcess(), read.IsPending() ? kDied : 1);
}

TEST(requests, AProgramThatDiesLosesItsShare)
{
    const Filter filter;
    CHECK_EQUAL(RunGroup(L"dies"), kDied);
    CHECK(WaitFor([] {
        Device device;
        return As<uint64_t>(StartShare(device).bytes) > kNoAddress;
    }));
}

} // namespace
