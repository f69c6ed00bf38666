// Every control code of the device and beyond, with buffers of any length and content: each request ends or
// can be cancelled, and the driver stays up.
#include "suite.h"

#include <algorithm>
#include <cstdio>
#include <list>
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
        owner.StartShare();
        for (int round = 0; round < 50; ++round) {
            for (const uint32_t code : kKnown) {
                Strike(owner, code);
            }
        }
        EndParked();
        EXPECT_GT(ended_, 20u);
        owner.Close();
        EXPECT_GT(Device().StartShare(), NDIS_FILTER_SHARE_FAILED);
    }

  private:
    // Short ones are the interesting ones.
    size_t Length() { return random_() % 4 == 0 ? random_() % kLongest : random_() % 24; }

    void Strike(Device& device, uint32_t code)
    {
        std::vector<uint8_t> content(Length());
        std::generate(content.begin(), content.end(), [this] { return static_cast<uint8_t>(random_()); });
        parked_.emplace_back(device, code, content, Length());
        if (!parked_.back().IsPending()) {
            parked_.pop_back();
        } else if (random_() % 2 == 0) { // now and then one stays parked while others come
            EndParked();
        }
    }

    void EndParked()
    {
        for (Request& one : parked_) {
            one.Cancel();
        }
        for (; !parked_.empty(); parked_.pop_front(), ++ended_) {
            const DWORD error = parked_.front().Wait().error;
            EXPECT_TRUE(error == ERROR_SUCCESS || error == ERROR_OPERATION_ABORTED) << error;
        }
    }

    std::list<Request> parked_;
    size_t ended_ = 0; // parked requests that came to their end
    std::mt19937 random_;
};

TEST(hammer, EveryControlCodeUnbound)
{
    Service filter(L"ndisfilter");
    filter.Start();
    const CleanupRequests cleanup;
    Hammer(options.seed).StrikeAll();
    EXPECT_TRUE(filter.IsRunning());
}

TEST(hammer, EveryControlCodeBound)
{
    Room room;
    room.Open();
    Service indicator(L"indicator");
    indicator.Start();
    const CleanupRequests cleanup;
    Hammer(options.seed + 1).StrikeAll();
    EXPECT_TRUE(room.filter.IsRunning());
}

} // namespace
