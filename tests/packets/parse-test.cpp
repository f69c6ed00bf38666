// What a filter finds of a frame's headers, also when the frame ends in the middle of them.
#include <support/framework.h>

#include <ostream>

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

Bytes Udp(uint16_t source, uint16_t destination, const Ipv4Options& options = {})
{
    return EthernetFrame(kEtherTypeIpv4,
                         Ipv4Packet(kProtocolUdp, UdpDatagram(source, destination, Counting(40)), options));
}

Bytes Tcp(const Ipv4Options& options = {}, uint16_t destination = 80)
{
    return EthernetFrame(kEtherTypeIpv4,
                         Ipv4Packet(kProtocolTcp, TcpSegment(4000, destination, 2, Counting(40)), options));
}

Bytes Ip(uint8_t protocol, const Bytes& payload = Counting(40))
{
    return EthernetFrame(kEtherTypeIpv4, Ipv4Packet(protocol, payload));
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
    constexpr uint8_t tcp = kProtocolTcp, udp = kProtocolUdp, icmp = kProtocolIcmp;
    return {
        {"ARP", Arp(), {.arp = 14}},
        {"RARP", EthernetFrame(0x8035, Counting(40)), {}},
        {"IPv6", EthernetFrame(0x86DD, Counting(40)), {}},
        {"no VLAN tag is looked through", VlanTagged(Tcp(), 7), {}},
        {"TCP", Tcp(), {.ip = 14, .tcp = 34, .protocol = tcp}},
        {"one word of options", Tcp({.options = Counting(4)}), {.ip = 14, .tcp = 38, .protocol = tcp}},
        {"the longest IP header",
         Udp(1, 53, {.options = Counting(40)}),
         {.ip = 14, .udp = 74, .dns = 82, .protocol = udp}},
        {"a header length of 0", With(Tcp(), 14, 0x40), {.ip = 14, .tcp = 14, .protocol = tcp}},
        {"the version is not examined", With(Tcp(), 14, 0x65), {.ip = 14, .tcp = 34, .protocol = tcp}},
        {"nor is the checksum", With(Tcp(), 24, 0x5A), {.ip = 14, .tcp = 34, .protocol = tcp}},
        {"TCP to port 53 is no DNS", Tcp({}, 53), {.ip = 14, .tcp = 34, .protocol = tcp}},
        {"ICMP", Ip(icmp), {.ip = 14, .icmp = 34, .protocol = icmp}},
        {"another protocol", Ip(50), {.ip = 14, .protocol = 50}},
        {"UDP", Udp(1000, 2000), {.ip = 14, .udp = 34, .protocol = udp}},
        {"to a DHCP server", Udp(68, 67), {.ip = 14, .udp = 34, .dhcp = 42, .protocol = udp}},
        {"to a DHCP client", Udp(67, 68), {.ip = 14, .udp = 34, .dhcp = 42, .protocol = udp}},
        {"DHCP comes before DNS", Udp(53, 67), {.ip = 14, .udp = 34, .dhcp = 42, .protocol = udp}},
        {"a source port is no DHCP", Udp(67, 5353), {.ip = 14, .udp = 34, .protocol = udp}},
        {"nor is the client's", Udp(68, 1000), {.ip = 14, .udp = 34, .protocol = udp}},
        {"a DNS query", Udp(1000, 53), {.ip = 14, .udp = 34, .dns = 42, .protocol = udp}},
        {"a DNS answer", Udp(53, 1000), {.ip = 14, .udp = 34, .dns = 42, .protocol = udp}},
        {"only the low byte of a port fits", Udp(0x0135, 0x0244), {.ip = 14, .udp = 34, .protocol = udp}},
        {"a first fragment",
         Udp(1000, 53, {.moreFragments = true}),
         {.ip = 14, .udp = 34, .dns = 42, .protocol = udp}},
        {"the second fragment",
         Tcp({.fragmentOffset = 1, .moreFragments = true}),
         {.ip = 14, .protocol = tcp}},
        {"offset bits of both bytes", Tcp({.fragmentOffset = 0x1000}), {.ip = 14, .protocol = tcp}},
        {"the last fragment", Tcp({.fragmentOffset = 0x1FFF}), {.ip = 14, .protocol = tcp}},
        {"flags are no offset", With(Tcp(), 20, 0xE0), {.ip = 14, .tcp = 34, .protocol = tcp}},
    };
}

class ParseTest : public FrameworkTest
{
  protected:
    void SetUp() override
    {
        FrameworkTest::SetUp();
        adapter = AddAdapter();
    }

    FilterAdapter* adapter = nullptr;
};

TEST_F(ParseTest, EachHeaderIsFoundInThePacketsOwnDataAndInTheCallersFrame)
{
    for (const Case& test : Cases()) {
        FilterPacket* packet = Filter_AllocatePacket(adapter);
        ASSERT_NE(packet, nullptr);
        std::copy(test.frame.begin(), test.frame.end(), packet->m_Data);
        EXPECT_EQ(Filter_InitPacketHeader(packet, nullptr), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(packet->m_pEthernet, packet->m_Data) << test.what;
        EXPECT_EQ(HeadersOf(*packet), test.headers) << test.what;

        Bytes frame = test.frame;
        packet->m_nProtocol = 0;
        EXPECT_EQ(Filter_InitPacketHeader(packet, frame.data()), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(packet->m_pEthernet, frame.data()) << test.what;
        EXPECT_EQ(HeadersOf(*packet), test.headers) << test.what;
        EXPECT_EQ(Filter_ReleasePacket(packet), FILTER_STATUS_SUCCESS);
    }
    EXPECT_EQ(Filter_InitPacketHeader(nullptr, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
}

TEST_F(ParseTest, TheProtocolStaysUntilAnotherIpPacketIsParsed)
{
    FilterPacket* packet = Filter_AllocatePacket(adapter);
    ASSERT_NE(packet, nullptr);
    Bytes dns = Udp(1000, 53), arp = Arp(), icmp = Ip(kProtocolIcmp);
    Filter_InitPacketHeader(packet, dns.data());
    Filter_InitPacketHeader(packet, arp.data());
    EXPECT_EQ(HeadersOf(*packet), (Headers{.arp = 14, .protocol = kProtocolUdp}));
    Filter_InitPacketHeader(packet, icmp.data());
    EXPECT_EQ(HeadersOf(*packet), (Headers{.ip = 14, .icmp = 34, .protocol = kProtocolIcmp}));
    Filter_ReleasePacket(packet);
}

// What lies behind a short frame reads as zero: the parser goes as far as it goes on that.
TEST_F(ParseTest, AFrameThatEndsInsideAHeaderIsParsedAsIfZerosFollowed)
{
    constexpr uint8_t tcp = kProtocolTcp, udp = kProtocolUdp;
    struct Cut {
        Bytes frame;
        size_t size;
        Headers headers;
    };
    const Bytes query = Udp(1000, 53), segment = Tcp();
    const Cut cuts[] = {
        {segment, 0, {}},
        {segment, 1, {}},
        {segment, 12, {}},
        {segment, 13, {.ip = 14}}, // the EtherType's high byte 8 is enough
        {Arp(), 13, {.ip = 14}},
        {segment, 14, {.ip = 14}},
        {segment, 23, {.ip = 14}},
        {segment, 24, {.ip = 14, .tcp = 34, .protocol = tcp}},
        {segment, 33, {.ip = 14, .tcp = 34, .protocol = tcp}},
        {query, 33, {.ip = 14, .udp = 34, .protocol = udp}},
        {query, 37, {.ip = 14, .udp = 34, .protocol = udp}},
        {query, 38, {.ip = 14, .udp = 34, .dns = 42, .protocol = udp}},
    };
    for (const Cut& cut : cuts) {
        TestDriver driver;
        Headers seen;
        const TestFilter filter(driver, {}, [&](FilterPacket* packet) {
            seen = HeadersOf(*packet);
            return FILTER_RESULT_BYPASS;
        });
        EXPECT_EQ(hook::DeliverReceived(adapter, std::span(cut.frame).first(cut.size)), hook::Accepted::Yes);
        EXPECT_EQ(seen, cut.headers) << cut.size << " bytes";
    }
}

// With every trace and the dump on, so that all code that looks at headers sees each of them.
class EveryCutTest : public ParseTest
{
  protected:
    EveryCutTest() { plan_.registry["GlobalDebugFlag"] = kTraceEverything; }
};

TEST_F(EveryCutTest, FramesOfEverySizePassUnchangedInBothDirections)
{
    std::vector<Bytes> frames;
    for (const Case& test : Cases()) {
        for (size_t size = 0; size <= std::min<size_t>(test.frame.size(), 84); ++size) {
            frames.emplace_back(test.frame.begin(), test.frame.begin() + static_cast<ptrdiff_t>(size));
        }
        Bytes longest = test.frame;
        longest.resize(1514, 0xA5);
        frames.push_back(longest);
    }
    adapter->m_bPacketDump = TRUE;
    {
        const Collector up(adapter, hook::Side::Protocols), down(adapter, hook::Side::Adapter);
        for (const Bytes& frame : frames) {
            ASSERT_EQ(hook::DeliverReceived(adapter, frame), hook::Accepted::Yes);
            ASSERT_EQ(hook::DeliverSent(adapter, frame), hook::Accepted::Yes);
            Debug().Take();
        }
        EXPECT_EQ(up.Frames(), frames);
        EXPECT_EQ(down.Frames(), frames);
    }
    const hook::Balance balance = hook::TakeBalance();
    EXPECT_EQ(balance.deliveredToProtocols, frames.size());
    EXPECT_EQ(balance.deliveredToAdapter, frames.size());
    EXPECT_EQ(balance.outstanding, 0u);
    EXPECT_TRUE(balance.IsEven());
}

} // namespace
