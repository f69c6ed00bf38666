// The packet object: allocation and release through the hook driver, lazy reading, header parsing.
#include "ndisfilter-packetapi.h"

FilterPacket* Filter_AllocatePacketp(FilterAdapter* hAdapter, PCSTR pszFile, ULONG nLine)
{
    FilterPacket* packet = nullptr;
    Trace(TRACE_PACKET, "Enter Filter_AllocatePacket\n");
    const NTSTATUS code = Guarded([&] {
        const HOOK_ALLOCATE_PACKET allocate = BoundHookFunction(&NdisHookAPI::Hook_AllocatePacket);
        if (allocate != nullptr) {
            packet = allocate(hAdapter, pszFile, nLine);
        }
    });
    if (code != 0) {
        PrintException("Filter_AllocatePacket", code);
        packet = nullptr;
    }
    Trace(TRACE_PACKET, "Leave Filter_AllocatePacket, pPacket = 0x%p\n", packet);
    return packet;
}

FILTER_STATUS Filter_ReleasePacketp(FilterPacket* pPacket, PCSTR pszFile, ULONG nLine)
{
    const CallTrace trace = {.Name = "Filter_ReleasePacket",
                             .Area = TRACE_PACKET,
                             .Enter = "Enter Filter_ReleasePacket, pPacket=0x%p\n",
                             .Subject = pPacket};
    return TracedCall(trace, [&]() -> FILTER_STATUS {
        if (pPacket == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        const HOOK_FREE_PACKET free = BoundHookFunction(&NdisHookAPI::Hook_FreePacket);
        if (free != nullptr) {
            free(pPacket, pszFile, nLine);
        }
        return FILTER_STATUS_SUCCESS; // also while no hook driver is there to take it
    });
}

namespace
{

// Copies `total` bytes of a buffer chain to the packet's data. FALSE when the chain ends before; `m_Data` takes what
// fits, though the hook driver guarantees that frames do.
BOOLEAN CopyChain(PNDIS_BUFFER first, ULONG total, FilterPacket& packet)
{
    ULONG copied = 0;
    for (PMDL mdl = first; mdl != nullptr && copied < total; mdl = mdl->Next) {
        const ULONG available = MmGetMdlByteCount(mdl);
        if (available == 0) {
            continue;
        }
        const PVOID source = MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority);
        if (source == nullptr) {
            return FALSE;
        }
        const ULONG wanted = available < total - copied ? available : total - copied;
        const ULONG room = copied < FILTER_PACKET_DATA_SIZE ? FILTER_PACKET_DATA_SIZE - copied : 0;
        RtlCopyMemory(packet.m_Data + (FILTER_PACKET_DATA_SIZE - room), source, wanted < room ? wanted : room);
        copied += wanted;
    }
    return copied == total;
}

FILTER_STATUS TransferPacketData(FilterPacket& packet)
{
    PNDIS_PACKET source = packet.m_pOutgoingNdisPacket;
    if (source != nullptr) {
        Trace(TRACE_PACKET, "Read packet data from outgoing packet\n");
    } else if (packet.m_pIncomingNdisPacket != nullptr) {
        source = packet.m_pIncomingNdisPacket;
        Trace(TRACE_PACKET, "Read packet data from incoming packet\n");
    } else {
        Trace(TRACE_PACKET, "Empty packet, no data to read\n");
        return FILTER_STATUS_SUCCESS;
    }

    PNDIS_BUFFER first = nullptr;
    UINT total = 0;
    NdisQueryPacket(source, nullptr, nullptr, &first, &total);
    packet.m_nPacketSize = total;
    if (packet.m_nBytesRead == total) {
        Trace(TRACE_PACKET, "Full packet, no data to read\n");
        return FILTER_STATUS_SUCCESS;
    }
    if (CopyChain(first, total, packet)) {
        packet.m_nBytesRead = packet.m_nPacketSize;
        Trace(TRACE_PACKET, "Filter_TransferPacketData, lazy read %d, total %d\n", total, packet.m_nPacketSize);
    }
    return FILTER_STATUS_SUCCESS;
}

constexpr ULONG DHCP_CLIENT_PORT = 68;
constexpr ULONG DHCP_SERVER_PORT = 67;
constexpr ULONG DNS_PORT = 53;
constexpr ULONG UDP_HEADER_SIZE = 8;

// A traced parse says what it finds; any other one is spared the questions whether to.
template <BOOLEAN TRACED>
VOID TraceHeader(PCSTR format, const UCHAR* header)
{
    if constexpr (TRACED) {
        DbgPrint(format, header);
    }
}

template <BOOLEAN TRACED>
VOID ParseUdp(FilterPacket& packet, UCHAR* udp)
{
    packet.m_pUdp = udp;
    TraceHeader<TRACED>("pPacket->m_pUdp = 0x%p\n", udp);
    const ULONG destinationPort = ReadBe16(udp + 2);
    if (destinationPort == DHCP_CLIENT_PORT || destinationPort == DHCP_SERVER_PORT) {
        packet.m_pDhcp = udp + UDP_HEADER_SIZE;
        TraceHeader<TRACED>("pPacket->m_pDhcp = 0x%p\n", packet.m_pDhcp);
    } else if (destinationPort == DNS_PORT || ReadBe16(udp) == DNS_PORT) {
        packet.m_pDns = udp + UDP_HEADER_SIZE;
        TraceHeader<TRACED>("pPacket->m_pDns = 0x%p\n", packet.m_pDns);
    }
}

template <BOOLEAN TRACED>
VOID ParseIp(FilterPacket& packet, UCHAR* ip)
{
    packet.m_pIp = ip;
    TraceHeader<TRACED>("pPacket->m_pIp = 0x%p\n", ip);
    packet.m_nProtocol = ip[IP_PROTOCOL_OFFSET];
    if (__builtin_expect(FragmentOffset(ip) > 0, 0)) {
        if constexpr (TRACED) {
            DbgPrint(" - IP Fragment\n");
        }
        return;
    }
    UCHAR* const transport = ip + IpHeaderSize(ip);
    switch (__builtin_expect(packet.m_nProtocol, IP_PROTOCOL_TCP)) {
    case IP_PROTOCOL_UDP:
        ParseUdp<TRACED>(packet, transport);
        break;
    case IP_PROTOCOL_TCP:
        packet.m_pTcp = transport;
        TraceHeader<TRACED>("pPacket->m_pTcp = 0x%p\n", transport);
        break;
    case IP_PROTOCOL_ICMP:
        packet.m_pIcmp = transport;
        TraceHeader<TRACED>("pPacket->m_pIcmp = 0x%p\n", transport);
        break;
    default:
        break;
    }
}

template <BOOLEAN TRACED>
VOID ParseFrame(FilterPacket& packet, UCHAR* frame)
{
    SetFrameWithoutHeaders(packet, frame);
    switch (__builtin_expect(ReadBe16(frame + ETHERTYPE_OFFSET), ETHERTYPE_IP)) {
    case ETHERTYPE_ARP:
        packet.m_pArp = frame + ETHERNET_HEADER_SIZE;
        TraceHeader<TRACED>("pPacket->m_pArp = 0x%p\n", packet.m_pArp);
        break;
    case ETHERTYPE_IP:
        ParseIp<TRACED>(packet, frame + ETHERNET_HEADER_SIZE);
        break;
    default:
        break;
    }
}

__attribute__((noinline, cold)) VOID ParseFrameTraced(FilterPacket& packet, UCHAR* frame)
{
    ParseFrame<TRUE>(packet, frame);
}

// A packet whose frame lies in its own buffer; not for a traced parse.
__attribute__((noinline)) VOID ParseOwnFrame(PVOID context)
{
    FilterPacket& packet = *static_cast<FilterPacket*>(context);
    ParseFrame<FALSE>(packet, packet.m_Data);
}

VOID ParseHeaders(FilterPacket& packet, UCHAR* frame)
{
    if (TraceEnabled(TRACE_PACKET)) {
        ParseFrameTraced(packet, frame);
    } else {
        ParseFrame<FALSE>(packet, frame);
    }
}

} // namespace

FILTER_STATUS Filter_TransferPacketData(FilterPacket* pPacket)
{
    return TracedCall({.Name = "Filter_TransferPacketData", .Area = TRACE_PACKET}, [&]() -> FILTER_STATUS {
        return pPacket == nullptr ? FILTER_ERROR_INVALID_ARGUMENT : TransferPacketData(*pPacket);
    });
}

FILTER_STATUS Filter_ModifyPacket(FilterPacket* pPacket)
{
    const CallTrace trace = {.Name = "Filter_ModifyPacket",
                             .Area = TRACE_PACKET,
                             .Enter = "Enter Filter_ModifyPacket, pPacket=0x%p\n",
                             .Subject = pPacket};
    return TracedCall(trace, [&]() -> FILTER_STATUS {
        if (pPacket == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (pPacket->m_bDirty) {
            Trace(TRACE_PACKET, "Dirty packet, no data to read\n");
            return FILTER_STATUS_SUCCESS;
        }
        pPacket->m_bDirty = TRUE;
        return Filter_TransferPacketData(pPacket);
    });
}

VOID Filter_SetPacketReleaseCallback(FilterPacket* pPacket, FILTER_RELEASE_CALLBACK pfCallback, PVOID pContext)
{
    if (pPacket != nullptr) {
        pPacket->m_pfReleaseCallback = pfCallback;
        pPacket->m_pReleaseContext = pContext;
    }
}

VOID Filter_ClearPacketReleaseCallback(FilterPacket* pPacket)
{
    Filter_SetPacketReleaseCallback(pPacket, nullptr, nullptr);
}

__attribute__((flatten)) VOID ParsePacket(FilterPacket* pPacket)
{
    ParseFrame<FALSE>(*pPacket, pPacket->m_Data);
}

FILTER_STATUS Filter_InitPacketHeader(FilterPacket* pPacket, UCHAR* pFrame)
{
    if (__builtin_expect(pPacket != nullptr && pFrame == nullptr && !TraceEnabled(TRACE_PACKET), 1)) {
        // As below, without what a guarded call needs that is given more than a packet and answers more than a code.
        const NTSTATUS code = CallGuarded(ParseOwnFrame, pPacket);
        return __builtin_expect(code == 0, 1) ? FILTER_STATUS_SUCCESS
                                              : ExceptionStatus("Filter_InitPacketHeader", code);
    }
    const CallTrace trace = {.Name = "Filter_InitPacketHeader",
                             .Area = TRACE_PACKET,
                             .Enter = "Enter Filter_InitPacketHeader,pPacket=0x%p\n",
                             .Subject = pPacket};
    return TracedCall(trace, [pPacket, pFrame]() -> FILTER_STATUS {
        if (pPacket == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        ParseHeaders(*pPacket, pFrame != nullptr ? pFrame : pPacket->m_Data);
        return FILTER_STATUS_SUCCESS;
    });
}
