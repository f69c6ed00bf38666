// Clones: packets that hold a copy of another packet's frame.
#include "ndisfilter-packetapi.h"

namespace
{

// What a clone takes over: from the parsed protocol to the end of the frame's buffer.
constexpr ULONG COPY_OFFSET = offsetof(FilterPacket, m_nProtocol);
// What of it is the source's alone: place in a queue, release callback, the hook driver's own.
constexpr ULONG CLEAR_OFFSET = offsetof(FilterPacket, m_InjectOrigin);
constexpr ULONG CLEAR_SIZE = offsetof(FilterPacket, m_pOutgoingNdisPacket) - CLEAR_OFFSET;
static_assert(sizeof(FilterPacket) - COPY_OFFSET == 2324 && CLEAR_SIZE == 384);

constexpr ULONG PORTS_SIZE = 4;
constexpr ULONG PARSED_SIZE = ETHERNET_HEADER_SIZE + IP_LONGEST_HEADER_SIZE + PORTS_SIZE; // that parsing may read

PUCHAR At(FilterPacket* packet, ULONG offset)
{
    return reinterpret_cast<PUCHAR>(packet) + offset;
}

// Headers of the clone, parsed at the place where the source has its frame. The source's own buffer stands for the
// clone's; of any other place the clone's counterpart may lie outside of it, and is then only named.
VOID ParseClone(const FilterPacket* source, FilterPacket* clone)
{
    if (source->m_pEthernet == source->m_Data) {
        Filter_InitPacketHeader(clone, nullptr);
        return;
    }
    const ULONG_PTR offset =
        reinterpret_cast<ULONG_PTR>(source->m_pEthernet) - reinterpret_cast<ULONG_PTR>(source);
    UCHAR* const frame = reinterpret_cast<UCHAR*>(reinterpret_cast<ULONG_PTR>(clone) + offset);
    if (offset <= sizeof(FilterPacket) - PARSED_SIZE) {
        Filter_InitPacketHeader(clone, frame);
    } else {
        SetFrameWithoutHeaders(*clone, frame);
    }
}

VOID DropNdisPackets(FilterPacket* clone)
{
    clone->m_pOutgoingNdisPacket = nullptr;
    RtlZeroMemory(clone->m_HookReserved5, sizeof(clone->m_HookReserved5));
    clone->m_pIncomingNdisPacket = nullptr;
    clone->m_bDirty = FALSE;
}

VOID FillClone(const FilterPacket* source, FilterPacket* clone)
{
    RtlCopyMemory(At(clone, COPY_OFFSET), reinterpret_cast<const UCHAR*>(source) + COPY_OFFSET,
                  sizeof(FilterPacket) - COPY_OFFSET);
    RtlZeroMemory(At(clone, CLEAR_OFFSET), CLEAR_SIZE);
    Filter_TransferPacketData(clone); // out of the source's NDIS packet
    DropNdisPackets(clone);
    ParseClone(source, clone);
}

} // namespace

FILTER_STATUS Filter_ClonePacket(FilterPacket* pPacket, FilterPacket** ppClone)
{
    constexpr CallTrace trace{"Filter_ClonePacket", TRACE_PACKET};
    return TracedCall(trace, [&]() -> FILTER_STATUS {
        if (pPacket == nullptr || ppClone == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        FilterPacket* const clone = Filter_AllocatePacket(pPacket->m_hAdapter);
        if (clone == nullptr) {
            return FILTER_ERROR_OUT_OF_MEMORY;
        }
        NTSTATUS code = Guarded([&] { *ppClone = clone; });
        if (code != 0) {
            Filter_ReleasePacket(clone); // nobody knows of it
            return ExceptionStatus(trace.Name, code);
        }
        code = Guarded([&] { FillClone(pPacket, clone); });
        if (code != 0) { // half-filled it is the caller's to release, with nothing of the source's in it
            RtlZeroMemory(At(clone, CLEAR_OFFSET), CLEAR_SIZE);
            DropNdisPackets(clone);
            return ExceptionStatus(trace.Name, code);
        }
        return FILTER_STATUS_SUCCESS;
    });
}
