// Every control code of the device and beyond, with buffers of any length and content: each request ends or
// can be cancelled, and the driver stays up.
#include "suite.h"

#include "loophook.h"

#include <ndisfilter-user.h>

#include <cstdio>
#include <memory>
#include <random>

using namespace suite;

namespace
{

constexpr uint32_t kFirstCode = 0x80002000;
constexpr uint32_t kLastCode = 0x80002800;
constexpr size_t kLongest = 2000;

// What an I/O manager answers for a driver that is gone.
bool MeansThatTheDriverDied(DWORD error)
{
    return error == ERROR_INVALID_HANDLE || error == ERROR_BROKEN_PIPE || error == ERROR_FILE_NOT_FOUND;
}

class Hammer
{
  public:
    explicit Hammer(uint32_t seed) : random_(seed) {}

    size_t Length()
    {
        // Short ones are the interesting ones.
        return random_() % 4 == 0 ? random_() % kLongest : random_() % 24;
    }
    std::vector<uint8_t> Content()
    {
        std::vector<uint8_t> bytes(Length());
        for (uint8_t& byte : bytes) {
            byte = static_cast<uint8_t>(random_());
        }
        return bytes;
    }

    void Strike(Device& device, uint32_t code)
    {
        auto request = std::make_unique<Request>(device, code, Content(), Length());
        if (request->IsPending()) {
            parked.push_back(std::move(request));
            // Now and then one stays parked while others come.
            if (random_() % 2 == 0) {
                return;
            }
            for (const auto& one : parked) {
                one->Cancel();
            }
            Collect();
            return;
        }
        const DWORD error = request->Wait().error;
        if (MeansThatTheDriverDied(error)) {
            throw Failure("the driver is gone behind code " + Text(code) + ": error " + Text(error));
        }
    }

    void Collect()
    {
        for (const auto& one : parked) {
            const DWORD error = one->Wait().error;
            CHECK(error == ERROR_SUCCESS || error == ERROR_OPERATION_ABORTED);
            ++ended;
        }
        parked.clear();
    }

    std::vector<std::unique_ptr<Request>> parked;
    size_t ended = 0; // parked requests that came to their end

  private:
    std::mt19937 random_;
};

void StrikeAll(Hammer& hammer)
{
    for (uint32_t code = kFirstCode; code <= kLastCode; ++code) {
        Device device; // opened and closed for each code
        hammer.Strike(device, code);
        hammer.Strike(device, code);
        for (const auto& one : hammer.parked) {
            one->Cancel();
        }
        hammer.Collect();
    }
    // A program with a share, in which requests can be parked.
    Device owner;
    owner.Control(IOCTL_NDIS_FILTER_START_SHARE, Bytes(uint32_t{1}), 8);
    const uint32_t known[] = {IOCTL_NDIS_FILTER_GET_VERSION, IOCTL_NDIS_FILTER_START_SHARE,
                              IOCTL_NDIS_FILTER_READ_SHARE,  IOCTL_NDIS_FILTER_WRITE_SHARE,
                              IOCTL_NDIS_FILTER_READ_SHARE,  IOCTL_NDIS_FILTER_STOP_SHARE,
                              IOCTL_NDIS_FILTER_START_SHARE, IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE};
    for (int round = 0; round < 100; ++round) {
        for (const uint32_t code : known) {
            hammer.Strike(owner, code);
        }
    }
    for (const auto& one : hammer.parked) {
        one->Cancel();
    }
    hammer.Collect();
    CHECK(hammer.ended > 20);
}

void CheckAlive(Service& filter)
{
    CHECK(filter.IsRunning());
    Device device;
    const Answer answer = device.Control(IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE, {}, 4);
    CHECK_EQUAL(As<uint32_t>(answer.bytes), NDIS_FILTER_MAPPED_MEMORY_SIZE);
    CHECK(As<uint64_t>(device.Control(IOCTL_NDIS_FILTER_START_SHARE, Bytes(uint32_t{1}), 8).bytes) >
          NDIS_FILTER_SHARE_FAILED);
}

TEST(hammer, EveryControlCodeUnbound)
{
    printf("         seed %u\n", options.seed);
    Service filter(L"ndisfilter");
    filter.Start();
    const CleanupRequests cleanup;
    Hammer hammer(options.seed);
    StrikeAll(hammer);
    CheckAlive(filter);
}

TEST(hammer, EveryControlCodeBound)
{
    printf("         seed %u\n", options.seed + 1);
    Service filter(L"ndisfilter"), loophook(L"loophook");
    filter.Start();
    loophook.Start();
    const CleanupRequests cleanup;
    {
        Device hook(L"\\\\.\\LoopHook");
        const LoopBinding binding = {168, 168, 1, 0};
        CHECK_EQUAL(hook.Control(LOOPHOOK_BIND, Bytes(binding)).error, DWORD{ERROR_SUCCESS});
    }
    Hammer hammer(options.seed + 1);
    StrikeAll(hammer);
    CheckAlive(filter);
}

} // namespace
