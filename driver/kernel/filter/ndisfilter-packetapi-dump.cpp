// Packet dumps for the debugger: a hex dump and the decoded headers, for adapters whose dump flag is on.
#include "ndisfilter-packetapi.h"

namespace
{

constexpr ULONG BYTES_PER_LINE = 16;
constexpr ULONG LINE_SIZE = 80;
constexpr ULONG HEX_COLUMN = 6;
constexpr ULONG TEXT_COLUMN = 56;
constexpr ULONG MAC_TEXT_SIZE = 18;
constexpr ULONG IP_TEXT_SIZE = 16;

constexpr ULONG ARP_SENDER_MAC = 22; // in the frame
constexpr ULONG ARP_SENDER_IP = 28;
constexpr ULONG ARP_TARGET_MAC = 32;
constexpr ULONG ARP_TARGET_IP = 38;
constexpr ULONG ARPOP_REQUEST = 1;

class MacText
{
  public:
    explicit MacText(const UCHAR* address)
    {
        inet_mtoa(address, text_, sizeof(text_));
    }
    PCSTR Get() const
    {
        return text_;
    }

  private:
    CHAR text_[MAC_TEXT_SIZE];
};

class IpText
{
  public:
    explicit IpText(const UCHAR* address)
    {
        ULONG value;
        RtlCopyMemory(&value, address, sizeof(value));
        inet_ntoa(value, text_, sizeof(text_));
    }
    PCSTR Get() const
    {
        return text_;
    }

  private:
    CHAR text_[IP_TEXT_SIZE];
};

CHAR HexDigit(ULONG value)
{
    return "0123456789ABCDEF"[value & 0xF];
}

CHAR Printable(UCHAR value)
{
    return value >= 0x20 && value <= 0x7E ? static_cast<CHAR>(value) : '.';
}

VOID PrintHexLine(const UCHAR* bytes, ULONG count, USHORT offset)
{
    CHAR line[LINE_SIZE];
    for (CHAR& column : line) {
        column = ' ';
    }
    for (ULONG digit = 0; digit < 4; digit++) {
        line[digit] = HexDigit(offset >> (12 - 4 * digit));
    }
    for (ULONG i = 0; i < count; i++) {
        line[HEX_COLUMN + 3 * i] = HexDigit(bytes[i] >> 4);
        line[HEX_COLUMN + 3 * i + 1] = HexDigit(bytes[i]);
        line[TEXT_COLUMN + i] = Printable(bytes[i]);
    }
    line[TEXT_COLUMN + count] = '\0';
    DbgPrint("  \t%s\n", line);
}

// `size` is printed as given; the bytes are those that lie in the buffer.
VOID PrintHexDump(PCSTR title, const UCHAR* buffer, ULONG size)
{
    DbgPrint("%s, Size = %d - 0x%x\n", title, size, size);
    const ULONG present = size < FILTER_PACKET_DATA_SIZE ? size : FILTER_PACKET_DATA_SIZE;
    for (ULONG offset = 0; offset < present; offset += BYTES_PER_LINE) {
        const ULONG left = present - offset;
        PrintHexLine(buffer + offset, left < BYTES_PER_LINE ? left : BYTES_PER_LINE, static_cast<USHORT>(offset));
    }
}

PCSTR EtherTypeSuffix(ULONG etherType)
{
    switch (etherType) {
    case ETHERTYPE_IP:
        return "/IP";
    case ETHERTYPE_ARP:
        return "/ARP";
    case ETHERTYPE_RARP:
        return "/RARP";
    default:
        return "";
    }
}

VOID DumpArp(const UCHAR* frame)
{
    const UCHAR* const arp = frame + ETHERNET_HEADER_SIZE;
    DbgPrint(" - arp_hrd = %d\n", ReadBe16(arp));
    DbgPrint(" - arp_pro = %d\n", ReadBe16(arp + 2));
    DbgPrint(" - arp_hln = %d\n", arp[4]);
    DbgPrint(" - arp_pln = %d\n", arp[5]);
    DbgPrint(" - arp_op  = %s\n", ReadBe16(arp + 6) == ARPOP_REQUEST ? "ARPOP_REQUEST" : "ARPOP_REPLY");
    DbgPrint(" - arp_sha = %s\n", MacText(frame + ARP_SENDER_MAC).Get());
    DbgPrint(" - arp_spa = %s\n", IpText(frame + ARP_SENDER_IP).Get());
    DbgPrint(" - arp_tha = %s\n", MacText(frame + ARP_TARGET_MAC).Get());
    DbgPrint(" - arp_tpa = %s\n", IpText(frame + ARP_TARGET_IP).Get());
}

PCSTR ProtocolName(UCHAR protocol)
{
    switch (protocol) {
    case IP_PROTOCOL_TCP:
        return "TCP";
    case IP_PROTOCOL_UDP:
        return "UDP";
    case IP_PROTOCOL_ICMP:
        return "ICMP";
    default:
        return "Other";
    }
}

VOID DumpTransport(const FilterPacket& packet, UCHAR protocol)
{
    switch (protocol) {
    case IP_PROTOCOL_ICMP:
        DbgPrint(" - ICMP ID %d, Sequence %d\n", ReadBe16(packet.m_pIcmp + 4), ReadBe16(packet.m_pIcmp + 6));
        break;
    case IP_PROTOCOL_TCP:
        DbgPrint(" - TCP SrcPort %d, DstPort %d\n", ReadBe16(packet.m_pTcp), ReadBe16(packet.m_pTcp + 2));
        break;
    case IP_PROTOCOL_UDP:
        DbgPrint(" - UDP SrcPort %d, DstPort %d\n", ReadBe16(packet.m_pUdp), ReadBe16(packet.m_pUdp + 2));
        break;
    default:
        DbgPrint(" - Other protocl %d\n", protocol);
        break;
    }
}

VOID DumpIp(FilterPacket& packet)
{
    Filter_InitPacketHeader(&packet, nullptr);
    const UCHAR* const ip = packet.m_pIp;
    if (ip == nullptr) {
        return; // the frame parsed before lies elsewhere and m_Data holds another
    }
    const ULONG flags = ReadBe16(ip + IP_FLAGS_OFFSET);
    const ULONG fragmentOffset = FragmentOffset(ip);
    const UCHAR protocol = ip[IP_PROTOCOL_OFFSET];
    DbgPrint(" - SrcIP %s, DstIP %s, PacketId 0x%x, Proto: %s DF:%c MF:%c FO:%d %s\n",
             IpText(ip + IP_SOURCE_OFFSET).Get(), IpText(ip + IP_DESTINATION_OFFSET).Get(),
             ReadBe16(ip + IP_IDENTIFICATION_OFFSET), ProtocolName(protocol),
             (flags & IP_DONT_FRAGMENT) != 0 ? 'T' : 'F', (flags & IP_MORE_FRAGMENTS) != 0 ? 'T' : 'F', fragmentOffset,
             fragmentOffset > 0 ? "IP Fragment" : "");
    if (fragmentOffset == 0) {
        DumpTransport(packet, protocol);
    }
}

// Where the Ethernet header can be read; nullptr when the packet was never parsed. A clone may name a place that is
// none: of a frame outside of the packet only headers that were found in it tell that it is there. Else m_Data stands
// for it.
const UCHAR* ReadableFrame(const FilterPacket& packet)
{
    UCHAR* const frame = packet.m_pEthernet;
    const ULONG_PTR offset = reinterpret_cast<ULONG_PTR>(frame) - reinterpret_cast<ULONG_PTR>(&packet);
    if (frame == nullptr || offset <= sizeof(FilterPacket) - ETHERNET_HEADER_SIZE) {
        return frame;
    }
    const UCHAR* const behind = frame + ETHERNET_HEADER_SIZE;
    return packet.m_pIp == behind || packet.m_pArp == behind ? frame : packet.m_Data;
}

} // namespace

VOID DumpPacket(PCSTR pszTitle, FilterPacket* pPacket)
{
    PrintHexDump(pszTitle, pPacket->m_Data, pPacket->m_nPacketSize);
    DbgPrint(" - pPacket 0x%p, hAdapter 0x%p, Size %d\n", pPacket, pPacket->m_hAdapter, pPacket->m_nPacketSize);
    const UCHAR* const frame = ReadableFrame(*pPacket);
    if (pPacket->m_nPacketSize == 0 || frame == nullptr) {
        return; // no frame, or never parsed
    }
    const ULONG etherType = ReadBe16(frame + ETHERTYPE_OFFSET);
    DbgPrint(" - SrcMac %s, DstMAC %s, Proto 0x%x%s\n", MacText(frame + ETHERNET_SOURCE_OFFSET).Get(),
             MacText(frame).Get(), etherType, EtherTypeSuffix(etherType));
    if (etherType == ETHERTYPE_ARP) {
        DumpArp(pPacket->m_Data);
    } else if (etherType == ETHERTYPE_IP) {
        DumpIp(*pPacket);
    }
}

VOID Filter_DumpPacket(PCSTR pszTitle, FilterPacket* pPacket)
{
    if (pszTitle != nullptr && pPacket != nullptr) {
        DumpWhenEnabled(pszTitle, pPacket);
    }
}
