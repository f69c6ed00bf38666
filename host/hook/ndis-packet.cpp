// NDIS packets for frames of which only the beginning is in the packet's buffer.
#include "hook-state.h"

#include <hostguard.h>

#include <algorithm>

namespace hook
{
namespace
{

constexpr size_t kGap = 16; // between the pieces of a frame
constexpr UCHAR kGapByte = 0xEE;

bool MakePools(HookState& state)
{
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&state.ndisLock);
    NDIS_STATUS status = NDIS_STATUS_SUCCESS;
    if (state.ndisBuffers == nullptr) {
        NdisAllocateBufferPool(&status, &state.ndisBuffers, 0);
    }
    if (status == NDIS_STATUS_SUCCESS && state.ndisPackets == nullptr) {
        NdisAllocatePacketPool(&status, &state.ndisPackets, state.pool.Limit(), 0);
    }
    KeReleaseSpinLock(&state.ndisLock, irql);
    return status == NDIS_STATUS_SUCCESS;
}

PNDIS_BUFFER MakeBuffer(HookState& state, PUCHAR address, ULONG length, bool unmapped)
{
    if (unmapped) {
        PMDL mdl = IoAllocateMdl(address, length, FALSE, FALSE, nullptr);
        const auto lock = [](void* pages) {
            MmProbeAndLockPages(static_cast<PMDL>(pages), KernelMode, IoModifyAccess);
        };
        if (mdl != nullptr && HostCallGuarded(mdl, lock) != STATUS_SUCCESS) {
            IoFreeMdl(mdl);
            mdl = nullptr;
        }
        return mdl;
    }
    NDIS_STATUS status;
    PNDIS_BUFFER buffer = nullptr;
    NdisAllocateBuffer(&status, &buffer, state.ndisBuffers, address, length);
    return status == NDIS_STATUS_SUCCESS ? buffer : nullptr;
}

void FreeBuffer(PNDIS_BUFFER buffer)
{
    if (buffer->MdlFlags & MDL_PAGES_LOCKED) {
        MmUnlockPages(buffer); // ends a system mapping that a reader made
        IoFreeMdl(buffer);
    } else {
        NdisFreeBuffer(buffer);
    }
}

} // namespace

bool AttachNdisPacket(HookState& state, FilterPacket* packet, std::span<const uint8_t> frame,
                      const FrameOptions& options)
{
    if (!MakePools(state)) {
        return false;
    }
    const size_t space = frame.size() + (options.pieces.size() + 1) * kGap;
    auto* memory = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPool, space, kFrameTag));
    if (memory == nullptr) {
        return false;
    }
    RtlFillMemory(memory, space, kGapByte);
    PNDIS_PACKET ndisPacket = nullptr;
    NDIS_STATUS status;
    NdisAllocatePacket(&status, &ndisPacket, state.ndisPackets);
    if (status != NDIS_STATUS_SUCCESS) {
        ExFreePoolWithTag(memory, kFrameTag);
        return false;
    }
    PacketHeader* header = HeaderOf(packet);
    header->ndisPacket = ndisPacket;
    header->frame = memory;

    PUCHAR end = memory + space;
    size_t done = 0;
    const auto append = [&](size_t length) {
        end -= length;
        std::copy_n(frame.data() + done, length, end);
        done += length;
        PNDIS_BUFFER buffer = MakeBuffer(state, end, static_cast<ULONG>(length), options.unmappedBuffers);
        end -= kGap;
        if (buffer != nullptr) {
            NdisChainBufferAtBack(ndisPacket, buffer);
        }
        return buffer != nullptr;
    };
    bool complete = true;
    for (const uint32_t piece : options.pieces) {
        complete = complete && append(std::min<size_t>(piece, frame.size() - done));
    }
    if (complete && done < frame.size()) {
        complete = append(frame.size() - done);
    }
    if (!complete) {
        DetachNdisPacket(packet);
        return false;
    }
    (header->origin == Origin::Sent ? packet->m_pOutgoingNdisPacket : packet->m_pIncomingNdisPacket) =
        ndisPacket;
    return true;
}

void DetachNdisPacket(FilterPacket* packet)
{
    PacketHeader* header = HeaderOf(packet);
    for (;;) {
        PNDIS_BUFFER buffer = nullptr;
        NdisUnchainBufferAtFront(header->ndisPacket, &buffer);
        if (buffer == nullptr) {
            break;
        }
        FreeBuffer(buffer);
    }
    NdisFreePacket(header->ndisPacket);
    ExFreePoolWithTag(header->frame, kFrameTag);
    header->ndisPacket = nullptr;
    header->frame = nullptr;
}

size_t GatherNdisPacket(PNDIS_PACKET packet, uint8_t* target, size_t size)
{
    PNDIS_BUFFER buffer = nullptr;
    NdisQueryPacket(packet, nullptr, nullptr, &buffer, nullptr);
    size_t done = 0;
    while (buffer != nullptr && done < size) {
        const size_t length = std::min<size_t>(MmGetMdlByteCount(buffer), size - done);
        if (length != 0) {
            const auto* source =
                static_cast<const uint8_t*>(MmGetSystemAddressForMdlSafe(buffer, NormalPagePriority));
            if (source == nullptr) {
                break;
            }
            std::copy_n(source, length, target + done);
            done += length;
        }
        NdisGetNextBuffer(buffer, &buffer);
    }
    return done;
}

} // namespace hook
