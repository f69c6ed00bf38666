// NDIS 5 packet and buffer pools. A buffer is an MDL over non-paged memory.
#include "verifier.h"

#include <ndis.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace
{

constexpr ULONG kPacketPoolTag = 0x6B50644E; // "NdPk"
constexpr ULONG kBufferPoolTag = 0x6642644E; // "NdBf"
constexpr UCHAR kAllocated = 0x80;           // in NdisPacketFlags, from allocation to free

// The descriptors follow. Free ones are chained through their first buffer pointer.
struct PacketPool {
    KSPIN_LOCK lock = 0;
    UINT descriptorSize = 0;
    UINT outstanding = 0;
    NDIS_PACKET* free = nullptr;
};

struct BufferPool {
    UINT descriptors; // of no consequence: buffers come from the system's MDLs
};

void PushFree(PacketPool* pool, NDIS_PACKET* packet)
{
    packet->Private.NdisPacketFlags = 0;
    packet->Private.Head = reinterpret_cast<NDIS_BUFFER*>(pool->free);
    pool->free = packet;
}

size_t RoundUp(size_t size)
{
    return (size + 15) / 16 * 16;
}

} // namespace

VOID NdisAllocatePacketPoolEx(PNDIS_STATUS status, PNDIS_HANDLE handle, UINT descriptors,
                              UINT overflowDescriptors, UINT protocolReservedLength)
{
    kernel::RequireIrqlAtMost(DISPATCH_LEVEL, "NdisAllocatePacketPool");
    const size_t count = static_cast<size_t>(descriptors) + overflowDescriptors;
    const size_t size = RoundUp(
        std::max(sizeof(NDIS_PACKET), offsetof(NDIS_PACKET, ProtocolReserved) + protocolReservedLength));
    *handle = nullptr;
    *status = NDIS_STATUS_RESOURCES;
    if (count == 0 || size > 0xFFFF || count > 0x40000000 / size ||
        kernel::Fails(machine::Fault::NdisPacket)) {
        return;
    }
    void* block =
        ExAllocatePoolWithTag(NonPagedPool, RoundUp(sizeof(PacketPool)) + count * size, kPacketPoolTag);
    if (block == nullptr) {
        return;
    }
    auto* pool = new (block) PacketPool;
    pool->descriptorSize = static_cast<UINT>(size);
    UCHAR* descriptor = static_cast<UCHAR*>(block) + RoundUp(sizeof(PacketPool)) + count * size;
    for (size_t i = 0; i < count; ++i) {
        descriptor -= size;
        PushFree(pool, reinterpret_cast<NDIS_PACKET*>(descriptor));
    }
    *handle = pool;
    *status = NDIS_STATUS_SUCCESS;
}

VOID NdisAllocatePacketPool(PNDIS_STATUS status, PNDIS_HANDLE handle, UINT descriptors,
                            UINT protocolReservedLength)
{
    NdisAllocatePacketPoolEx(status, handle, descriptors, 0, protocolReservedLength);
}

VOID NdisFreePacketPool(NDIS_HANDLE handle)
{
    auto* pool = static_cast<PacketPool*>(handle);
    if (pool->outstanding != 0) {
        kernel::Report("packet-pool-busy", "NdisFreePacketPool", "pool %p is freed with %u packets out",
                       handle, pool->outstanding);
    }
    ExFreePoolWithTag(pool, kPacketPoolTag);
}

VOID NdisAllocatePacket(PNDIS_STATUS status, PNDIS_PACKET* result, NDIS_HANDLE handle)
{
    auto* pool = static_cast<PacketPool*>(handle);
    const bool fails = kernel::Fails(machine::Fault::NdisPacket);
    const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pool->lock);
    NDIS_PACKET* packet = fails ? nullptr : pool->free;
    if (packet != nullptr) {
        pool->free = reinterpret_cast<NDIS_PACKET*>(packet->Private.Head);
        ++pool->outstanding;
    }
    KeReleaseSpinLock(&pool->lock, irql);
    *result = packet;
    *status = packet != nullptr ? NDIS_STATUS_SUCCESS : NDIS_STATUS_RESOURCES;
    if (packet != nullptr) {
        std::memset(packet, 0, pool->descriptorSize);
        packet->Private.Pool = pool;
        packet->Private.NdisPacketFlags = kAllocated;
    }
}

VOID NdisFreePacket(PNDIS_PACKET packet)
{
    auto* pool = static_cast<PacketPool*>(packet->Private.Pool);
    const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&pool->lock);
    const bool allocated = (packet->Private.NdisPacketFlags & kAllocated) != 0;
    if (allocated) {
        PushFree(pool, packet);
        --pool->outstanding;
    }
    KeReleaseSpinLock(&pool->lock, irql);
    if (!allocated) {
        kernel::Report("packet-freed-twice", "NdisFreePacket", "packet %p of pool %p is free already",
                       static_cast<void*>(packet), static_cast<void*>(pool));
    }
}

VOID NdisAllocateBufferPool(PNDIS_STATUS status, PNDIS_HANDLE handle, UINT descriptors)
{
    auto* pool =
        static_cast<BufferPool*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(BufferPool), kBufferPoolTag));
    *handle = pool;
    *status = pool != nullptr ? NDIS_STATUS_SUCCESS : NDIS_STATUS_RESOURCES;
    if (pool != nullptr) {
        pool->descriptors = descriptors;
    }
}

VOID NdisFreeBufferPool(NDIS_HANDLE handle)
{
    ExFreePoolWithTag(handle, kBufferPoolTag);
}

VOID NdisAllocateBuffer(PNDIS_STATUS status, PNDIS_BUFFER* buffer, NDIS_HANDLE handle, PVOID address,
                        UINT length)
{
    (void)handle;
    *buffer = IoAllocateMdl(address, length, FALSE, FALSE, nullptr);
    *status = *buffer != nullptr ? NDIS_STATUS_SUCCESS : NDIS_STATUS_RESOURCES;
    if (*buffer != nullptr) {
        MmBuildMdlForNonPagedPool(*buffer);
    }
}

VOID NdisFreeBuffer(PNDIS_BUFFER buffer)
{
    IoFreeMdl(buffer);
}

VOID NdisUnchainBufferAtFront(PNDIS_PACKET packet, PNDIS_BUFFER* buffer)
{
    *buffer = packet->Private.Head;
    if (*buffer != nullptr) {
        packet->Private.Head = (*buffer)->Next;
        (*buffer)->Next = nullptr;
        packet->Private.ValidCounts = FALSE;
    }
}

VOID NdisUnchainBufferAtBack(PNDIS_PACKET packet, PNDIS_BUFFER* buffer)
{
    NDIS_BUFFER* previous = nullptr;
    NDIS_BUFFER* last = packet->Private.Head;
    while (last != nullptr && last->Next != nullptr) {
        previous = last;
        last = last->Next;
    }
    *buffer = last;
    if (last != nullptr) {
        (previous != nullptr ? previous->Next : packet->Private.Head) = nullptr;
        packet->Private.Tail = previous;
        packet->Private.ValidCounts = FALSE;
    }
}
