// Every control code of the device and beyond, with buffers of any length and content: each request ends or
// can be cancelled, and the driver stays up.
#include "suite.h"

#include <algorithm>
#include <cstdio>
#include <random>

using namespace suite;

namespace
{

constexpr uint32_t kFirstCode = 0x80002000;
constexpr uint32_t kLastCode = 0x80002800;
constexpr size_t kLongest = 2000;

// Each code comes from a program without the share, and from its owner while a read is parked.
void StrikeAll(uint32_t seed)
{
    printf("seed %u\n", seed);
    std::mt19937 random(seed);
    // Short ones are the interesting ones.
    const auto length = [&] { return random() % 4 == 0 ? random() % kLongest : random() % 24; };
    const auto strike = [&](Device& device, uint32_t code) {
        std::vector<uint8_t> content(length());
        std::generate(content.begin(), content.end(), [&] { return static_cast<uint8_t>(random()); });
        const Request request(device, code, content, length()); // is over with this object
    };
    for (uint32_t code = kFirstCode; code <= kLastCode; ++code) {
        {
            Device stranger; // cannot be opened when the driver has died
            strike(stranger, code);
        }
        Device device;
        EXPECT_GT(device.StartShare(), NDIS_FILTER_SHARE_FAILED);
        Request read(device, IOCTL_NDIS_FILTER_READ_SHARE, {}, 0);
        EXPECT_TRUE(read.IsPending());
        for (int round = 0; round < 4; ++round) {
            strike(device, code);
        }
        read.Cancel();
        const DWORD error = read.Wait().error;
        EXPECT_TRUE(error == ERROR_SUCCESS || error == ERROR_OPERATION_ABORTED) << error;
    }
}

TEST(hammer, EveryControlCodeUnboundAndBound)
{
    Room room;
    Service indicator(L"indicator");
    indicator.Start();
    const CleanupRequests cleanup;
    StrikeAll(options.seed);
    room.Open();
    StrikeAll(options.seed + 1);
    EXPECT_TRUE(room.filter.IsRunning());
}

} // namespace
