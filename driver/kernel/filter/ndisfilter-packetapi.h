// The wire headers that the packet rooms read: offsets in bytes, all fields big-endian.
// Ethernet: IEEE 802.3; ARP: RFC 826; IPv4: RFC 791; UDP: RFC 768; TCP: RFC 9293; ICMP: RFC 792.
#pragma once

#include "ndisfilter-internal.h"

constexpr ULONG ETHERNET_HEADER_SIZE = 14;
constexpr ULONG ETHERNET_SOURCE_OFFSET = 6;
constexpr ULONG ETHERTYPE_OFFSET = 12;
constexpr ULONG ETHERTYPE_IP = 0x0800;
constexpr ULONG ETHERTYPE_ARP = 0x0806;
constexpr ULONG ETHERTYPE_RARP = 0x8035;

constexpr ULONG IP_HEADER_SIZE = 20; // without options
constexpr ULONG IP_LONGEST_HEADER_SIZE = 60;
constexpr ULONG IP_TOTAL_LENGTH_OFFSET = 2;
constexpr ULONG IP_IDENTIFICATION_OFFSET = 4;
constexpr ULONG IP_FLAGS_OFFSET = 6; // flags and fragment offset in one word
constexpr ULONG IP_PROTOCOL_OFFSET = 9;
constexpr ULONG IP_CHECKSUM_OFFSET = 10;
constexpr ULONG IP_SOURCE_OFFSET = 12;
constexpr ULONG IP_DESTINATION_OFFSET = 16;
constexpr ULONG IP_DONT_FRAGMENT = 0x4000;
constexpr ULONG IP_MORE_FRAGMENTS = 0x2000;
constexpr ULONG IP_FRAGMENT_OFFSET_MASK = 0x1FFF; // in units of 8 bytes
constexpr UCHAR IP_PROTOCOL_ICMP = 1;
constexpr UCHAR IP_PROTOCOL_TCP = 6;
constexpr UCHAR IP_PROTOCOL_UDP = 17;

// What Filter_InitPacketHeader does with the frame in the packet's own buffer, without its trace lines and its guard.
VOID ParsePacket(FilterPacket* pPacket);

// Prints the packet; title and adapter are given.
VOID DumpPacket(PCSTR pszTitle, FilterPacket* pPacket);

// The same if its adapter's dump flag is on: all that a frame's road costs for it.
inline VOID DumpWhenEnabled(PCSTR pszTitle, FilterPacket* pPacket)
{
    const FilterAdapter* const adapter = pPacket->m_hAdapter;
    if (adapter != nullptr && __builtin_expect(LoadRelaxed(adapter->m_bPacketDump) != 0, 0)) {
        DumpPacket(pszTitle, pPacket);
    }
}

inline ULONG ReadBe16(const UCHAR* p)
{
    return static_cast<ULONG>(p[0]) << 8 | p[1];
}

// Size in bytes as the header says it: 0 to 60.
inline ULONG IpHeaderSize(const UCHAR* ip)
{
    return 4u * (ip[0] & 0x0Fu);
}

// In bytes.
inline ULONG FragmentOffset(const UCHAR* ip)
{
    return (ReadBe16(ip + IP_FLAGS_OFFSET) & IP_FRAGMENT_OFFSET_MASK) * 8;
}

// The packet has its frame there, and no headers are known of it.
inline VOID SetFrameWithoutHeaders(FilterPacket& packet, UCHAR* frame)
{
    packet.m_pEthernet = frame;
    static_assert(offsetof(FilterPacket, m_pDns) - offsetof(FilterPacket, m_pArp) == 6 * sizeof(PVOID));
    RtlZeroMemory(&packet.m_pArp, 7 * sizeof(PVOID)); // in as few stores as it takes
}
