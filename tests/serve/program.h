// A user program of a lab: requests and the two rings.
#pragma once

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <device.h>
#include <ndisfilter-user.h>

inline constexpr int32_t kSuccess = 0;
inline constexpr int32_t kUnsuccessful = static_cast<int32_t>(0xC0000001);
inline constexpr int32_t kCancelled = static_cast<int32_t>(0xC0000120);
inline constexpr int32_t kNotConnected = static_cast<int32_t>(0xC000009D);
inline constexpr uint32_t kWaitMs = 30'000;

inline int32_t Load(const int32_t& index)
{
    return __atomic_load_n(&index, __ATOMIC_ACQUIRE);
}

inline void Store(int32_t& index, int32_t value)
{
    __atomic_store_n(&index, value, __ATOMIC_RELEASE);
}

inline int32_t Next(int32_t index)
{
    return (index + 1) % NDIS_FILTER_BLOCK_COUNT;
}

inline SharedMemory* StartShare(ndisfilter::Device& device)
{
    int32_t status = -1;
    void* memory = device.StartShare(1, &status);
    EXPECT_EQ(status, kSuccess);
    return static_cast<SharedMemory*>(memory);
}

inline bool IsOutputEmpty(const SharedMemory& memory)
{
    return Load(memory.KernelModeOutput.m_iRead) == Load(memory.KernelModeOutput.m_iWrite);
}

// Sends a frame that comes straight back.
inline void SendLoopBack(ndisfilter::Device& device, SharedMemory& memory, uint32_t adapter, uint8_t content)
{
    const int32_t write = Load(memory.KernelModeInput.m_iWrite);
    SharedBlock& block = memory.m_InputBlocks[write];
    std::memset(&block, 0, sizeof(block));
    block.m_nAdapterId = adapter;
    block.m_nDirection = NDIS_FILTER_DIRECTION_TO_APPLICATION;
    block.m_nPacketSize = 60;
    std::memset(block.m_Data, content, 60);
    Store(memory.KernelModeInput.m_iWrite, Next(write));
    EXPECT_EQ(device.Control(IOCTL_NDIS_FILTER_WRITE_SHARE, {}, {}).status, kSuccess);
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
    const auto result = device.Control(IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES, {},
                                       {reinterpret_cast<uint8_t*>(&list), sizeof(list)});
    EXPECT_EQ(result.status, kSuccess);
    EXPECT_EQ(result.returned, sizeof(list));
    EXPECT_GE(list.m_nAdapterCount, 1u);
    return list.m_Adapters[0].m_nAdapterId;
}
