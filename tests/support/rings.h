// The program's side of the shared memory: a share, and its two rings.
#pragma once

#include "records.h"

#include <machine.h>

#include <ndisfilter-user.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>

namespace support
{

inline constexpr char kDeviceName[] = "\\\\.\\NdisFilter";

// A user program with the control device open.
struct UserProgram {
    machine::Process process;
    std::unique_ptr<machine::File> device = process.Open(kDeviceName);
};

// The memory; null when the program cannot have it, though the request succeeds.
inline SharedMemory* StartShare(machine::File& device, machine::Status* status = nullptr, uint32_t value = 1)
{
    uint64_t address = 0;
    const auto result = device.Control(IOCTL_NDIS_FILTER_START_SHARE, In(value), Out(address));
    if (status != nullptr) {
        *status = result.status;
    }
    return address > NDIS_FILTER_SHARE_FAILED ? reinterpret_cast<SharedMemory*>(address) : nullptr;
}

inline int32_t Load(const int32_t& index)
{
    return __atomic_load_n(&index, __ATOMIC_SEQ_CST);
}

inline void Store(int32_t& index, int32_t value)
{
    __atomic_store_n(&index, value, __ATOMIC_SEQ_CST);
}

inline int32_t Next(int32_t index)
{
    return (index + 1) % NDIS_FILTER_BLOCK_COUNT;
}

inline void Advance(int32_t& index)
{
    Store(index, Next(Load(index)));
}

inline bool IsEmpty(const SharedRing& ring)
{
    return Load(ring.m_iRead) == Load(ring.m_iWrite);
}

// Empty, with its next block at this index.
inline void StartRingAt(SharedRing& ring, int32_t index)
{
    Store(ring.m_iRead, index);
    Store(ring.m_iWrite, index);
}

// The block that the program fills next, and the one that it reads next.
inline SharedBlock& NextInput(SharedMemory& memory)
{
    return memory.m_InputBlocks[Load(memory.KernelModeInput.m_iWrite)];
}
inline SharedBlock& NextOutput(SharedMemory& memory)
{
    return memory.m_OutputBlocks[Load(memory.KernelModeOutput.m_iRead)];
}

// A frame may be longer than a block's data, and reach into the next block.
inline void Fill(SharedBlock& block, uint32_t adapterId, uint32_t direction, std::span<const uint8_t> frame)
{
    std::memset(&block, 0, sizeof(block));
    block.m_nAdapterId = adapterId;
    block.m_nDirection = direction;
    block.m_nPacketSize = static_cast<uint32_t>(frame.size());
    std::ranges::copy(frame, reinterpret_cast<uint8_t*>(&block) + offsetof(SharedBlock, m_Data));
}

} // namespace support
