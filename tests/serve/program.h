// A user program of a lab: requests and the two rings.
#pragma once

#include <support/rings.h>

#include <gtest/gtest.h>

#include <device.h>

inline constexpr int32_t kSuccess = 0;
inline constexpr int32_t kUnsuccessful = static_cast<int32_t>(0xC0000001);
inline constexpr int32_t kCancelled = static_cast<int32_t>(0xC0000120);
inline constexpr int32_t kNotConnected = static_cast<int32_t>(0xC000009D);
inline constexpr uint32_t kWaitMs = 30'000;

inline SharedMemory* StartShare(ndisfilter::Device& device)
{
    int32_t status = -1;
    void* memory = device.StartShare(1, &status);
    EXPECT_EQ(status, kSuccess);
    return static_cast<SharedMemory*>(memory);
}

// Sends a frame that comes straight back.
inline void SendLoopBack(ndisfilter::Device& device, SharedMemory& memory, uint32_t adapter, uint8_t content)
{
    support::Fill(support::NextInput(memory), adapter, NDIS_FILTER_DIRECTION_TO_APPLICATION,
                  std::vector<uint8_t>(60, content));
    support::Advance(memory.KernelModeInput.m_iWrite);
    EXPECT_EQ(device.Control(IOCTL_NDIS_FILTER_WRITE_SHARE, {}, {}).status, kSuccess);
}

// What a read that was sent comes to; "none" when it does not end in time.
inline std::optional<int32_t> StatusOf(ndisfilter::PendingControl& read)
{
    const auto result = read.Wait(kWaitMs);
    return result ? std::optional(result->status) : std::nullopt;
}

// The status of the request that asks the least of the driver.
inline int32_t AskVersion(ndisfilter::Device& device)
{
    uint8_t room[2] = {};
    return device.Control(IOCTL_NDIS_FILTER_GET_VERSION, {}, room).status;
}

// The identifier of the first adapter.
inline uint32_t FirstAdapter(ndisfilter::Device& device)
{
    UserAdapterList list = {};
    const auto result = device.Control(IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES, {}, support::Out(list));
    EXPECT_EQ(result.status, kSuccess);
    EXPECT_EQ(result.returned, sizeof(list));
    EXPECT_GE(list.m_nAdapterCount, 1u);
    return list.m_Adapters[0].m_nAdapterId;
}
