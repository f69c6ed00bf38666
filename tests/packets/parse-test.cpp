// What a filter finds of a frame's headers, also when the frame ends in the middle of them.
#include <support/adapter-test.h>

using namespace support;

namespace
{

// The headers found, with their offsets from the frame's first byte.
std::string HeadersOf(const FilterPacket& packet)
{
    std::string text;
    const auto add = [&](const char* name, const UCHAR* header) {
        text += header == nullptr ? "" : name + std::to_string(header - packet.m_pEthernet);
    };
    add("arp ", packet.m_pArp);
    add("ip ", packet.m_pIp);
    add(" tcp ", packet.m_pTcp);
    add(" udp ", packet.m_pUdp);
    add(" icmp ", packet.m_pIcmp);
    add(" dhcp ", packet.m_pDhcp);
    add(" dns ", packet.m_pDns);
    return text;
}

constexpr char kArp[] = "arp 14", kIp[] = "ip 14", kTcp[] = "ip 14 tcp 34", kUdp[] = "ip 14 udp 34";
constexpr char kDhcp[] = "ip 14 udp 34 dhcp 42", kDns[] = "ip 14 udp 34 dns 42";

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

Bytes Cut(Bytes frame, size_t size)
{
    frame.resize(size);
    return frame;
}

struct Case {
    const char* what;
    Bytes frame;
    std::string headers;
};

std::vector<Case> Cases()
{
    return {
        {"TCP", Tcp(), kTcp},
        {"RARP", EthernetFrame(0x8035, Counting(40)), ""},
        {"IPv6", EthernetFrame(0x86DD, Counting(40)), ""},
        {"no VLAN tag is looked through", VlanTagged(Tcp(), 7), ""},
        {"one word of options", Tcp({.options = Counting(4)}), "ip 14 tcp 38"},
        {"the longest IP header", Udp(1, 53, {.options = Counting(40)}), "ip 14 udp 74 dns 82"},
        {"a header length of 0", With(Tcp(), 14, 0x40), "ip 14 tcp 14"},
        {"the version is not examined", With(Tcp(), 14, 0x65), kTcp},
        {"nor is the checksum", With(Tcp(), 24, 0x5A), kTcp},
        {"TCP to port 53 is no DNS", Tcp({}, 53), kTcp},
        {"ICMP", Ip(kProtocolIcmp), "ip 14 icmp 34"},
        {"another protocol", Ip(50), kIp},
        {"UDP", Udp(1000, 2000), kUdp},
        {"to a DHCP server", Udp(68, 67), kDhcp},
        {"to a DHCP client", Udp(67, 68), kDhcp},
        {"DHCP comes before DNS", Udp(53, 67), kDhcp},
        {"a source port is no DHCP", Udp(67, 5353), kUdp},
        {"nor is the client's", Udp(68, 1000), kUdp},
        {"a DNS query", Udp(1000, 53), kDns},
        {"ARP", Arp(), kArp},
        {"a DNS answer", Udp(53, 1000), kDns},
        {"only the low byte of a port fits", Udp(0x0135, 0x0244), kUdp},
        {"a first fragment", Udp(1000, 53, {.moreFragments = true}), kDns},
        {"the second fragment", Tcp({.fragmentOffset = 1, .moreFragments = true}), kIp},
        {"offset bits of both bytes", Tcp({.fragmentOffset = 0x1000}), kIp},
        {"flags are no offset", With(Tcp(), 20, 0xE0), kTcp},
        // Cut frames are parsed as if zeros followed, which they do in a packet: as far as that goes.
        {"nothing", {}, ""},
        {"no EtherType", Cut(Tcp(), 12), ""},
        {"the EtherType's high byte 8 is enough", Cut(Arp(), 13), kIp},
        {"no protocol", Cut(Tcp(), 23), kIp},
        {"nothing behind the protocol", Cut(Tcp(), 24), kTcp},
        {"half a port", Cut(Udp(1000, 53), 37), kUdp},
        {"ports", Cut(Udp(1000, 53), 38), kDns},
    };
}

using ParseTest = AdapterTest;

TEST_F(ParseTest, EachHeaderIsFoundInThePacketsOwnDataAndInTheCallersFrame)
{
    FilterPacket* const used = AnyPacket(); // parses each frame behind the one before
    uint8_t protocol = kProtocolUdp;        // stays until another IP packet is parsed
    for (const Case& test : Cases()) {
        SCOPED_TRACE(test.what);
        FilterPacket* packet = MakePacket(adapter, test.frame);
        EXPECT_EQ(packet->m_pEthernet, packet->m_Data);
        EXPECT_EQ(HeadersOf(*packet), test.headers);
        Filter_ReleasePacket(packet);
        Bytes frame = Cut(test.frame, 200);
        EXPECT_EQ(Filter_InitPacketHeader(used, frame.data()), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(used->m_pEthernet, frame.data());
        EXPECT_EQ(HeadersOf(*used), test.headers);
        protocol = used->m_pIp != nullptr ? frame[23] : protocol;
        EXPECT_EQ(used->m_nProtocol, protocol);
    }
    Filter_ReleasePacket(used);
    EXPECT_EQ(Filter_InitPacketHeader(nullptr, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
}

// With every trace and the dump on, so that all code that looks at headers sees each of them.
using EveryCutTest = Loaded<WithTrace, kTraceEverything, AdapterTest>;

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
