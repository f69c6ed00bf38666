// What a filter finds of a frame's headers, also when the frame ends in the middle of them.
#include <support/adapter-test.h>

using namespace support;

namespace
{

constexpr uint16_t kNone = 0xFFFF;

// Offsets from the frame's first byte; kNone for a null pointer.
struct Headers {
    uint16_t arp = kNone, ip = kNone, tcp = kNone, udp = kNone, icmp = kNone, dhcp = kNone, dns = kNone;
    uint8_t protocol = 0;
    bool operator==(const Headers&) const = default;
};

void PrintTo(const Headers& headers, std::ostream* stream)
{
    *stream << "arp " << headers.arp << " ip " << headers.ip << " tcp " << headers.tcp << " udp "
            << headers.udp << " icmp " << headers.icmp << " dhcp " << headers.dhcp << " dns " << headers.dns
            << " protocol " << +headers.protocol;
}

Headers HeadersOf(const FilterPacket& packet)
{
    const auto offset = [&](const UCHAR* header) {
        return header == nullptr ? kNone : static_cast<uint16_t>(header - packet.m_pEthernet);
    };
    return {offset(packet.m_pArp),  offset(packet.m_pIp),   offset(packet.m_pTcp), offset(packet.m_pUdp),
            offset(packet.m_pIcmp), offset(packet.m_pDhcp), offset(packet.m_pDns), packet.m_nProtocol};
}

Bytes Ip(uint8_t protocol, const Bytes& payload = Counting(40), const Ipv4Options& options = {})
{
    return EthernetFrame(kEtherTypeIpv4, Ipv4Packet(protocol, payload, options));
}

Bytes Udp(uint16_t source, uint16_t destination, const Ipv4Options& options = {})
{
    return Ip(kProtocolUdp, UdpDatagram(source, destination, Counting(40)), options);
}

Bytes Tcp(const Ipv4Options& options = {}, uint16_t destination = 80)
{
    return Ip(kProtocolTcp, TcpSegment(4000, destination, 2, Counting(40)), options);
}

Bytes Arp()
{
    return EthernetFrame(kEtherTypeArp,
                         ArpPacket(ArpOperation::Request, kPeerMac, kPeerAddress, {}, kOwnAddress));
}

Bytes With(Bytes frame, size_t offset, uint8_t value)
{
    frame[offset] = value;
    return frame;
}

struct Case {
    const char* what;
    Bytes frame;
    Headers headers;
};

std::vector<Case> Cases()
{
    constexpr Headers tcp = {.ip = 14, .tcp = 34, .protocol = kProtocolTcp};
    constexpr Headers udp = {.ip = 14, .udp = 34, .protocol = kProtocolUdp};
    constexpr Headers dhcp = {.ip = 14, .udp = 34, .dhcp = 42, .protocol = kProtocolUdp};
    constexpr Headers dns = {.ip = 14, .udp = 34, .dns = 42, .protocol = kProtocolUdp};
    constexpr Headers fragment = {.ip = 14, .protocol = kProtocolTcp};
    constexpr Headers shifted = {.ip = 14, .tcp = 38, .protocol = kProtocolTcp};
    constexpr Headers farthest = {.ip = 14, .udp = 74, .dns = 82, .protocol = kProtocolUdp};
    constexpr Headers nowhere = {.ip = 14, .tcp = 14, .protocol = kProtocolTcp};
    return {
        {"ARP", Arp(), {.arp = 14}},
        {"RARP", EthernetFrame(0x8035, Counting(40)), {}},
        {"IPv6", EthernetFrame(0x86DD, Counting(40)), {}},
        {"no VLAN tag is looked through", VlanTagged(Tcp(), 7), {}},
        {"TCP", Tcp(), tcp},
        {"one word of options", Tcp({.options = Counting(4)}), shifted},
        {"the longest IP header", Udp(1, 53, {.options = Counting(40)}), farthest},
        {"a header length of 0", With(Tcp(), 14, 0x40), nowhere},
        {"the version is not examined", With(Tcp(), 14, 0x65), tcp},
        {"nor is the checksum", With(Tcp(), 24, 0x5A), tcp},
        {"TCP to port 53 is no DNS", Tcp({}, 53), tcp},
        {"ICMP", Ip(kProtocolIcmp), {.ip = 14, .icmp = 34, .protocol = kProtocolIcmp}},
        {"another protocol", Ip(50), {.ip = 14, .protocol = 50}},
        {"UDP", Udp(1000, 2000), udp},
        {"to a DHCP server", Udp(68, 67), dhcp},
        {"to a DHCP client", Udp(67, 68), dhcp},
        {"DHCP comes before DNS", Udp(53, 67), dhcp},
        {"a source port is no DHCP", Udp(67, 5353), udp},
        {"nor is the client's", Udp(68, 1000), udp},
        {"a DNS query", Udp(1000, 53), dns},
        {"a DNS answer", Udp(53, 1000), dns},
        {"only the low byte of a port fits", Udp(0x0135, 0x0244), udp},
        {"a first fragment", Udp(1000, 53, {.moreFragments = true}), dns},
        {"the second fragment", Tcp({.fragmentOffset = 1, .moreFragments = true}), fragment},
        {"offset bits of both bytes", Tcp({.fragmentOffset = 0x1000}), fragment},
        {"flags are no offset", With(Tcp(), 20, 0xE0), tcp},
    };
}

class ParseTest : public AdapterTest
{};

TEST_F(ParseTest, EachHeaderIsFoundInThePacketsOwnDataAndInTheCallersFrame)
{
    for (const Case& test : Cases()) {
        FilterPacket* packet = MakePacket(adapter, test.frame);
        EXPECT_EQ(packet->m_pEthernet, packet->m_Data) << test.what;
        EXPECT_EQ(HeadersOf(*packet), test.headers) << test.what;
        Bytes frame = test.frame;
        packet->m_nProtocol = 0;
        EXPECT_EQ(Filter_InitPacketHeader(packet, frame.data()), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(packet->m_pEthernet, frame.data()) << test.what;
        EXPECT_EQ(HeadersOf(*packet), test.headers) << test.what;
        Filter_ReleasePacket(packet);
    }
    EXPECT_EQ(Filter_InitPacketHeader(nullptr, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
}

TEST_F(ParseTest, TheProtocolStaysUntilAnotherIpPacketIsParsed)
{
    Bytes arp = Arp(), icmp = Ip(kProtocolIcmp);
    FilterPacket* packet = MakePacket(adapter, Udp(1000, 53));
    Filter_InitPacketHeader(packet, arp.data());
    EXPECT_EQ(HeadersOf(*packet), (Headers{.arp = 14, .protocol = kProtocolUdp}));
    Filter_InitPacketHeader(packet, icmp.data());
    EXPECT_EQ(HeadersOf(*packet), (Headers{.ip = 14, .icmp = 34, .protocol = kProtocolIcmp}));
    Filter_ReleasePacket(packet);
}

// What lies behind a short frame reads as zero: the parser goes as far as it goes on that.
TEST_F(ParseTest, AFrameThatEndsInsideAHeaderIsParsedAsIfZerosFollowed)
{
    struct Cut {
        Bytes frame;
        size_t size;
        Headers headers;
    };
    const Bytes query = Udp(1000, 53), segment = Tcp();
    constexpr Headers ip = {.ip = 14}, tcp = {.ip = 14, .tcp = 34, .protocol = kProtocolTcp};
    constexpr Headers udp = {.ip = 14, .udp = 34, .protocol = kProtocolUdp};
    const Cut cuts[] = {
        {segment, 0, {}},
        {segment, 12, {}},
        {segment, 13, ip}, // the EtherType's high byte 8 is enough
        {Arp(), 13, ip},
        {segment, 23, ip},
        {segment, 24, tcp},
        {query, 33, udp},
        {query, 37, udp},
        {query, 38, {.ip = 14, .udp = 34, .dns = 42, .protocol = kProtocolUdp}},
    };
    Headers seen;
    const EveryChain filters([&](FILTER_TYPE, FilterPacket* packet) { seen = HeadersOf(*packet); });
    for (const Cut& cut : cuts) {
        hook::DeliverReceived(adapter, std::span(cut.frame).first(cut.size));
        EXPECT_EQ(seen, cut.headers) << cut.size << " bytes";
    }
}

// With every trace and the dump on, so that all code that looks at headers sees each of them.
class EveryCutTest : public AdapterTest
{
  protected:
    EveryCutTest() : AdapterTest(WithTrace(kTraceEverything)) {}
};

TEST_F(EveryCutTest, FramesOfEverySizePassUnchangedInBothDirections)
{
    std::vector<Bytes> frames;
    for (const Case& test : Cases()) {
        for (size_t size = 0; size <= std::min<size_t>(test.frame.size(), 84); ++size) {
            frames.emplace_back(test.frame.begin(), test.frame.begin() + static_cast<ptrdiff_t>(size));
        }
        frames.push_back(test.frame);
        frames.back().resize(1514, 0xA5);
    }
    adapter->m_bPacketDump = TRUE;
    const Collector up(adapter, hook::Side::Protocols), down(adapter, hook::Side::Adapter);
    for (const Bytes& frame : frames) {
        ASSERT_EQ(hook::DeliverReceived(adapter, frame), hook::Accepted::Yes);
        ASSERT_EQ(hook::DeliverSent(adapter, frame), hook::Accepted::Yes);
        Debug().Take();
    }
    EXPECT_EQ(up.Frames(), frames);
    EXPECT_EQ(down.Frames(), frames);
}

} // namespace
