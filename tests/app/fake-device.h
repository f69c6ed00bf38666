// A control device whose answers a test writes, and a driver's side of the rings that the test moves by hand.
#pragma once

#include "client.h"

#include <support/rings.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <future>
#include <mutex>
#include <vector>

#include "ndisfilter-client.hpp"

class FakeRead final : public ndisfilter::PendingControl
{
  public:
    struct State {
        void Complete(int32_t status)
        {
            std::call_once(once, [&] { promise.set_value(status); });
        }
        std::once_flag once;
        std::promise<int32_t> promise;
        std::shared_future<int32_t> result = promise.get_future();
    };

    explicit FakeRead(std::shared_ptr<State> state) : state_(std::move(state)) {}
    ~FakeRead() override { Cancel(); }
    std::optional<ndisfilter::ControlResult> Wait(std::optional<uint32_t> timeoutMs) override
    {
        if (timeoutMs &&
            state_->result.wait_for(std::chrono::milliseconds(*timeoutMs)) != std::future_status::ready) {
            return std::nullopt;
        }
        return ndisfilter::ControlResult{state_->result.get(), 0};
    }
    void Cancel() override { state_->Complete(NDISFILTER_CANCELLED); }

  private:
    const std::shared_ptr<State> state_;
};

// What outlives the device: the client owns that.
struct FakeDriver {
    using Answer = std::function<ndisfilter::ControlResult(uint32_t code, std::span<const uint8_t> input,
                                                           std::span<uint8_t> output)>;

    FakeDriver() { Memory().KernelModeOutput.m_nCount = NDIS_FILTER_BLOCK_COUNT; }

    SharedMemory& Memory() { return *reinterpret_cast<SharedMemory*>(storage.data()); }
    SharedRing& Output() { return Memory().KernelModeOutput; }
    SharedRing& Input() { return Memory().KernelModeInput; }

    // Takes input blocks as the driver does, at most `limit`.
    void Drain(size_t limit = SIZE_MAX)
    {
        const std::lock_guard lock(drainMutex);
        for (; limit > 0 && !support::IsEmpty(Input()); --limit) {
            taken.push_back(Memory().m_InputBlocks[support::Load(Input().m_iRead)]);
            support::Advance(Input().m_iRead);
        }
    }

    // Writes a block of raw bytes to the output ring and completes the parked read.
    void WriteBlock(const void* bytes, size_t size)
    {
        std::memcpy(&Memory().m_OutputBlocks[support::Load(Output().m_iWrite)], bytes, size);
        support::Advance(Output().m_iWrite);
        CompleteRead(NDISFILTER_SUCCESS);
    }
    void WriteFrame(uint32_t adapterId, uint32_t size)
    {
        SharedBlock block = {};
        block.m_nAdapterId = adapterId;
        block.m_nPacketSize = size;
        std::memset(block.m_Data, static_cast<int>(adapterId), sizeof(block.m_Data));
        WriteBlock(&block, sizeof(block));
    }

    void CompleteRead(int32_t status)
    {
        const std::lock_guard lock(mutex);
        if (parked != nullptr) {
            parked->Complete(status);
            parked = nullptr;
        }
    }
    bool HasParkedRead()
    {
        const std::lock_guard lock(mutex);
        return parked != nullptr;
    }

    std::vector<uint32_t> storage = std::vector<uint32_t>(sizeof(SharedMemory) / sizeof(uint32_t));
    std::mutex drainMutex; // of `taken`; announcements come from several threads
    std::vector<SharedBlock> taken;
    Answer answer; // for requests that are none of the share's
    uint32_t sizeAnswered = NDIS_FILTER_MAPPED_MEMORY_SIZE;
    bool refusesShare = false;
    bool readsAnswerAtOnce = false;
    std::function<void()> onAnnounce; // WRITE_SHARE
    std::atomic<int> announcements = 0;
    std::atomic<int> stops = 0;
    std::mutex mutex;
    std::shared_ptr<FakeRead::State> parked;
};

class FakeDevice final : public ndisfilter::Device
{
  public:
    explicit FakeDevice(FakeDriver& driver) : driver_(driver) {}

    ndisfilter::ControlResult Control(uint32_t code, std::span<const uint8_t> input,
                                      std::span<uint8_t> output) override
    {
        if (code == IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE) {
            std::memcpy(output.data(), &driver_.sizeAnswered, sizeof(driver_.sizeAnswered));
            return {NDISFILTER_SUCCESS, sizeof(driver_.sizeAnswered)};
        }
        if (code == IOCTL_NDIS_FILTER_WRITE_SHARE) {
            TakeAnnouncement();
            return {};
        }
        return driver_.answer(code, input, output);
    }

    // A read, or an announcement, which is answered at once.
    std::unique_ptr<ndisfilter::PendingControl> Send(uint32_t code) override
    {
        auto state = std::make_shared<FakeRead::State>();
        if (code == IOCTL_NDIS_FILTER_WRITE_SHARE) {
            TakeAnnouncement();
            state->Complete(NDISFILTER_SUCCESS);
        } else if (const std::lock_guard lock(driver_.mutex);
                   driver_.readsAnswerAtOnce || !support::IsEmpty(driver_.Output())) {
            state->Complete(NDISFILTER_SUCCESS);
        } else {
            driver_.parked = state;
        }
        return std::make_unique<FakeRead>(state);
    }

    void* StartShare(uint32_t value, int32_t* status) override
    {
        *status = NDISFILTER_SUCCESS;
        return driver_.refusesShare || value == 0 ? nullptr : &driver_.Memory();
    }

    ndisfilter::ControlResult StopShare() override
    {
        ++driver_.stops;
        return {};
    }

  private:
    void TakeAnnouncement()
    {
        ++driver_.announcements;
        if (driver_.onAnnounce) {
            driver_.onAnnounce();
        }
    }

    FakeDriver& driver_;
};

inline ndisfilter::Client OpenFake(FakeDriver& driver)
{
    return ndisfilter::Client(new ndisfilter_client(std::make_unique<FakeDevice>(driver)));
}
