// Every control code of the device and beyond, with buffers of any length and content: each request ends or
// can be cancelled, and the driver stays up.
#include "suite.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <random>

using namespace suite;

namespace
{

constexpr uint32_t kFirstCode = 0x80002000;
constexpr uint32_t kLastCode = 0x80002800;
constexpr size_t kLongest = 2000;
constexpr uint32_t kKnown[] = {
    IOCTL_NDIS_FILTER_GET_VERSION, IOCTL_NDIS_FILTER_START_SHARE,   IOCTL_NDIS_FILTER_READ_SHARE,
    IOCTL_NDIS_FILTER_WRITE_SHARE, IOCTL_NDIS_FILTER_READ_SHARE,    IOCTL_NDIS_FILTER_STOP_SHARE,
    IOCTL_NDIS_FILTER_DIAG,        IOCTL_NDIS_FILTER_SET_IPCONFIG,  IOCTL_NDIS_FILTER_START_SHARE,
    IOCTL_NDIS_FILTER_GET_EVENT,   IOCTL_NDIS_FILTER_START_ETHRLOG, IOCTL_NDIS_FILTER_STOP_ETHRLOG};

class Hammer
{
  public:
    explicit Hammer(uint32_t seed) : random_(seed) { printf("seed %u\n", seed); }

    void StrikeAll()
    {
        for (uint32_t code = kFirstCode; code <= kLastCode; ++code) {
            Device device; // cannot be opened when the driver has died
            Strike(device, code);
            Strike(device, code);
            EndParked();
        }
        // A program with a share, in which requests can be parked.
        Device owner;
        owner.Control(IOCTL_NDIS_FILTER_START_SHARE, Bytes(uint32_t{1}), 8);
        for (int round = 0; round < 50; ++round) {
            for (const uint32_t code : kKnown) {
                Strike(owner, code);
            }
        }
        EndParked();
        EXPECT_GT(ended_, 20u);
    }

  private:
    size_t Length()
    {
        // Short ones are the interesting ones.
        return random_() % 4 == 0 ? random_() % kLongest : random_() % 24;
    }

    void Strike(Device& device, uint32_t code)
    {
        std::vector<uint8_t> content(Length());
        std::generate(content.begin(), content.end(), [this] { return static_cast<uint8_t>(random_()); });
        auto request = std::make_unique<Request>(device, code, content, Length());
        if (request->IsPending()) {
            parked_.push_back(std::move(request));
            if (random_() % 2 == 0) { // now and then one stays parked while others come
                EndParked();
            }
        }
    }

    void EndParked()
    {
        for (const auto& one : parked_) {
            one->Cancel();
        }
        for (const auto& one : parked_) {
            const DWORD error = one->Wait().error;
            EXPECT_TRUE(error == ERROR_SUCCESS || error == ERROR_OPERATION_ABORTED) << error;
            ++ended_;
        }
        parked_.clear();
    }

    std::vector<std::unique_ptr<Request>> parked_;
    size_t ended_ = 0; // parked requests that came to their end
    std::mt19937 random_;
};

void CheckAlive(Service& filter)
{
    EXPECT_TRUE(filter.IsRunning());
    Device device;
    const Answer answer = device.Control(IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE, {}, 4);
    EXPECT_EQ(As<uint32_t>(answer.bytes), NDIS_FILTER_MAPPED_MEMORY_SIZE);
    EXPECT_GT(As<uint64_t>(device.Control(IOCTL_NDIS_FILTER_START_SHARE, Bytes(uint32_t{1}), 8).bytes),
              NDIS_FILTER_SHARE_FAILED);
}

TEST(hammer, EveryControlCodeUnbound)
{
    Service filter(L"ndisfilter");
    filter.Start();
    const CleanupRequests cleanup;
    Hammer(options.seed).StrikeAll();
    CheckAlive(filter);
}

TEST(hammer, EveryControlCodeBound)
{
    Room room;
    room.Open();
    Service indicator(L"indicator");
    indicator.Start();
    const CleanupRequests cleanup;
    Hammer(options.seed + 1).StrikeAll();
    CheckAlive(room.filter);
}

} // namespace
