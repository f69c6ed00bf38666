// The sample drivers, loaded as the lab loads them.
#include "support/adapter-test.h"
#include "support/records.h"

#include "../../samples/firewall/firewall.h"

#include <ndisfilter-user.h>

#include <cstring>

using namespace support;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace
{

constexpr int64_t kStart = 132'000'000'000'000'000;
constexpr uint8_t kFin = 0x01, kSyn = 0x02, kRst = 0x04, kAck = 0x10;
constexpr size_t kIp = 14, kTransport = 34;

Bytes Tcp(uint16_t from, uint16_t to, uint8_t flags, const Ipv4Options& options = {})
{
    return EthernetFrame(kEtherTypeIpv4,
                         Ipv4Packet(kProtocolTcp, TcpSegment(from, to, flags, Counting(11)), options));
}

// From this machine to the other one.
Bytes TcpOut(uint16_t from, uint16_t to, uint8_t flags, const Ipv4Address& destination = kPeerAddress)
{
    return Tcp(from, to, flags, {.source = kOwnAddress, .destination = destination});
}

uint32_t Number(const Bytes& frame, size_t at, size_t size)
{
    uint32_t value = 0;
    for (size_t i = 0; i < size; i++) {
        value = value << 8 | frame[at + i];
    }
    return value;
}

void ExpectChecksums(const Bytes& frame, uint8_t protocol)
{
    Bytes right = frame;
    Filter_CalculatePacketCheckSum(&right[kIp], 0);
    Filter_CalculatePacketCheckSum(&right[kIp], protocol);
    EXPECT_EQ(right, frame);
}

class SampleTest : public AdapterTest
{
  protected:
    void SetUp() override
    {
        AdapterTest::SetUp();
        toAdapter.emplace(adapter, hook::Side::Adapter);
        toProtocols.emplace(adapter, hook::Side::Protocols);
        device = OpenDevice();
        machine::StopClock(kStart);
    }
    void TearDown() override
    {
        machine::StartClock();
        for (; !loaded.empty(); loaded.pop_back()) {
            EXPECT_EQ(machine::UnloadDriver(loaded.back()), STATUS_SUCCESS);
            machine::DeleteRegistryKey(loaded.back());
        }
        device.reset();
        toAdapter.reset();
        toProtocols.reset();
        AdapterTest::TearDown();
    }

    void Load(const std::string& name)
    {
        std::string error;
        ASSERT_EQ(machine::LoadDriverModule(NDISFILTER_FILTERS_DIR "/" + name + ".so", &error),
                  STATUS_SUCCESS)
            << error << Debug().Text();
        loaded.push_back(name);
    }
    void Unload(const std::string& name)
    {
        EXPECT_EQ(machine::UnloadDriver(name), STATUS_SUCCESS);
        std::erase(loaded, name);
    }

    void Send(const Bytes& frame, const hook::FrameOptions& options = {})
    {
        EXPECT_EQ(hook::DeliverSent(adapter, frame, options), hook::Accepted::Yes);
    }
    void Receive(const Bytes& frame, const hook::FrameOptions& options = {})
    {
        EXPECT_EQ(hook::DeliverReceived(adapter, frame, options), hook::Accepted::Yes);
    }
    // Steps the clock one second at a time.
    void Pass(int seconds)
    {
        for (int i = 0; i < seconds; i++) {
            machine::AdvanceClock(1000);
            ASSERT_TRUE(machine::WaitIdle());
        }
    }

    // The answer to a diagnostic command.
    std::string Ask(const std::string& command)
    {
        Bytes output(8192);
        const auto result =
            device->Control(IOCTL_NDIS_FILTER_DIAG,
                            {reinterpret_cast<const uint8_t*>(command.data()), command.size()}, output);
        EXPECT_EQ(result.status, STATUS_SUCCESS);
        EXPECT_GE(result.information, 40u);
        return std::string(reinterpret_cast<const char*>(output.data()) + 33, result.information - 40);
    }

    std::optional<Collector> toAdapter, toProtocols;
    std::unique_ptr<machine::File> device;
    std::vector<std::string> loaded;
};

TEST_F(SampleTest, TheFirewallBlocksNewConnectionsAndForgetsOldOnes)
{
    const auto counted = [&] {
        FirewallCounters counters = {};
        device->Control(IOCTL_FIREWALL_GET_COUNTERS, {}, Out(counters));
        return counters;
    };
    machine::SetRegistryDword("firewall", "IdleSeconds", 30);
    Load("firewall");
    Send(TcpOut(1000, 80, kSyn));
    Receive(Tcp(80, 1000, kSyn | kAck));
    const FirewallRule rule = {
        .m_nProtocol = 6, .m_nAction = FIREWALL_DROP, .m_nPort = 80, .m_nAddress = 0, .m_nMask = 0};
    EXPECT_EQ(device->Control(IOCTL_FIREWALL_ADD_RULE, In(rule), {}).status, STATUS_SUCCESS);
    Send(TcpOut(1000, 80, kAck)); // an established connection goes on, however little of a frame there is
    Receive(Tcp(80, 1000, kAck), {.presentBytes = 20, .pieces = {30, 0}});
    EXPECT_EQ(toAdapter->Frames().size(), 2u);
    EXPECT_EQ(toProtocols->Frames().size(), 2u);
    Send(TcpOut(1001, 80, kSyn));
    Receive(Tcp(2000, 80, kSyn));
    Receive(Tcp(80, 1002, kAck)); // of a connection that nobody knows
    EXPECT_EQ(toAdapter->Frames().size(), 2u);
    EXPECT_EQ(toProtocols->Frames().size(), 2u);
    UserEvent event = {};
    EXPECT_EQ(device->Control(IOCTL_NDIS_FILTER_GET_EVENT, {}, Out(event)).status, STATUS_SUCCESS);
    EXPECT_EQ(event.m_nEvent1, FIREWALL_EVENT_BLOCKED);
    EXPECT_THAT(std::string(reinterpret_cast<const char*>(&event) + 12 + sizeof(FilterEventHead)),
                "blocked: protocol 6, 192.168.0.1:1001 to 192.168.0.2:80");

    EXPECT_EQ(Ask("firewall rules"), "drop protocol 6, port 80, address 0.0.0.0/0.0.0.0\n");
    EXPECT_EQ(Ask("firewall connections"), "protocol 6, 192.168.0.1:1000 - 192.168.0.2:80, 4 frames\n");
    Pass(20);
    Send(TcpOut(1000, 80, kAck));
    Pass(20);
    EXPECT_EQ(counted().m_nConnections, 1u); // not idle long enough
    Send(TcpOut(1000, 80, kFin | kAck));
    Pass(7);
    EXPECT_EQ(counted().m_nConnections, 0u); // closed ones go sooner
    EXPECT_EQ(counted().m_nBlocked, 3u);
    Send(EthernetFrame(kEtherTypeIpv4, Ipv4Packet(kProtocolUdp, UdpDatagram(5, 6))));
    EXPECT_EQ(counted().m_nConnections, 1u);
    Pass(31);
    EXPECT_EQ(counted().m_nConnections, 0u);
    EXPECT_EQ(Ask("firewall clear"), "no rules\n");
    Send(TcpOut(1001, 80, kSyn));
    EXPECT_EQ(counted().m_nOpened, 3u);
}

TEST_F(SampleTest, TheFirewallRejectsWithAResetOnTheWayBack)
{
    Load("firewall");
    EXPECT_EQ(Ask("firewall reject tcp 80"), "rule added\n");
    Send(TcpOut(1001, 80, kSyn));
    Receive(Tcp(2000, 80, kSyn));
    Receive(Tcp(80, 2000, kAck));
    Receive(Tcp(80, 2000, kRst)); // is not answered
    ASSERT_EQ(toProtocols->Frames().size(), 1u);
    ASSERT_EQ(toAdapter->Frames().size(), 2u);
    const Bytes reset = toProtocols->Frames()[0];
    EXPECT_EQ(Number(reset, kTransport, 2), 80u);
    EXPECT_EQ(Number(reset, kTransport + 2, 2), 1001u);
    EXPECT_EQ(Number(reset, kTransport + 8, 4), 12u); // the SYN and 11 bytes
    EXPECT_EQ(reset[kTransport + 13], kRst | kAck);
    ExpectChecksums(reset, kProtocolTcp);
    EXPECT_TRUE(std::equal(kPeerMac.begin(), kPeerMac.end(), toAdapter->Frames()[0].begin()));
    EXPECT_EQ(toAdapter->Frames()[1][kTransport + 13], kRst);
    ExpectChecksums(toAdapter->Frames()[1], kProtocolTcp);
}

TEST_F(SampleTest, TheFlowMeterTellsItsReaderWhatHappens)
{
    Load("meterreader");
    EXPECT_EQ(Ask("meterreader"), "no flow meter is there\n");
    Load("flowmeter");
    IPConfig config = {};
    config.hAdapter = adapter;
    config.m_nIP = 1;
    std::memcpy(&config.m_Address[0].IpAddress, kOwnAddress.data(), 4);
    EXPECT_EQ(Filter_SetIPConfig(&config), FILTER_STATUS_SUCCESS);
    Receive(UdpFrame());
    Receive(UdpFrame());
    Send(TcpOut(1, 2, kSyn));
    hook::IndicateStatus(adapter, 0x4001000C);
    hook::SetAnswering(hook::Answering::Never);
    Pass(3); // one question is asked, and no other before its answer
    EXPECT_THAT(Ask("meterreader"), HasSubstr("asked 0 times"));
    hook::SetAnswering(hook::Answering::Later);
    EXPECT_TRUE(Eventually([&] { return Ask("meterreader").find("asked 1 times") != std::string::npos; }));
    const std::string counts = "  received 2 frames, 148 bytes; sent 1 frames, 65 bytes\n";
    EXPECT_EQ(Ask("meterreader"), "02:00:00:00:00:01 192.168.0.1 open, no link\n" + counts +
                                      "  the adapter itself: received 2 frames, sent 1, asked 1 times\n");
    hook::CloseAdapter(adapter);
    EXPECT_THAT(Ask("meterreader"), StartsWith("02:00:00:00:00:01 192.168.0.1 closed, no link\n" + counts));
    Unload("flowmeter"); // the reader gives its reference back
    EXPECT_EQ(Ask("meterreader"), "no flow meter is there\n");
    Load("flowmeter");
    hook::OpenAdapter(adapter);
    EXPECT_THAT(Ask("meterreader"), StartsWith("02:00:00:00:00:01 192.168.0.1 open"));
}

TEST_F(SampleTest, TheRewriterTranslatesBothWaysAndLeavesTheRestAlone)
{
    machine::SetRegistryString("rewriter", "Translate",
                               "192.168.0.80:80=192.168.0.2:8080, 1.2.3.4:5=nonsense");
    Load("rewriter");
    EXPECT_TRUE(Debug().Contains("rewriter: '1.2.3.4:5=nonsense' is no translation"));
    const Ipv4Address asked = {192, 168, 0, 80};
    const hook::FrameOptions inPieces = {.presentBytes = 40, .pieces = {14, 20, 7}};
    Send(TcpOut(1000, 80, kSyn, asked), inPieces);
    Receive(Tcp(8080, 1000, kSyn | kAck), inPieces);
    const Bytes sent = toAdapter->Frames().at(0);
    EXPECT_EQ(Number(sent, kIp + 16, 4), 0xC0A80002u);
    EXPECT_EQ(Number(sent, kTransport + 2, 2), 8080u);
    ExpectChecksums(sent, kProtocolTcp);
    const Bytes received = toProtocols->Frames().at(0);
    EXPECT_EQ(Number(received, kIp + 12, 4), 0xC0A80050u);
    EXPECT_EQ(Number(received, kTransport, 2), 80u);
    ExpectChecksums(received, kProtocolTcp);
    EXPECT_EQ(Bytes(received.begin() + kTransport + 20, received.end()), Counting(11));

    // A UDP checksum of zero is none, and stays so.
    const auto udp = [&](const Bytes& payload) {
        return EthernetFrame(kEtherTypeIpv4, Ipv4Packet(kProtocolUdp, UdpDatagram(9, 80, payload),
                                                        {.source = kOwnAddress, .destination = asked}));
    };
    Send(udp(Counting(20)));
    EXPECT_EQ(Number(toAdapter->Frames().at(1), kTransport + 2, 2), 8080u);
    EXPECT_EQ(Number(toAdapter->Frames().at(1), kTransport + 6, 2), 0u);

    // Fragments, other ports, and datagrams longer than their frame.
    Bytes fragment =
        Tcp(1000, 80, kAck, {.source = kOwnAddress, .destination = asked, .moreFragments = true});
    Bytes overlong = TcpOut(1000, 80, kAck, asked);
    overlong[kIp + 2] = 0xFF;
    Bytes tiny = TcpOut(1000, 80, kAck, asked);
    tiny.resize(kTransport + 3);
    for (const Bytes& frame : {fragment, overlong, tiny, TcpOut(1000, 81, kAck, asked)}) {
        Send(frame);
        EXPECT_EQ(toAdapter->Frames().back(), frame);
    }
}

TEST_F(SampleTest, TheWanHoldsFramesAndLosesSome)
{
    machine::SetRegistryDword("wan", "DelayMs", 50);
    Load("wan");
    std::vector<Bytes> frames;
    for (uint16_t i = 0; i < 5; i++) {
        frames.push_back(UdpFrame(1000, 2000 + i));
        Send(frames.back());
        Receive(frames.back());
        machine::AdvanceClock(9);
    }
    machine::AdvanceClock(4);
    EXPECT_TRUE(machine::WaitIdle());
    EXPECT_TRUE(toAdapter->Frames().empty()); // 49 ms since the first
    machine::AdvanceClock(1);
    for (size_t i = 1; i <= frames.size(); ++i, machine::AdvanceClock(9)) {
        EXPECT_TRUE(machine::WaitIdle()); // a timer that is started counts from the clock's time at that moment
        EXPECT_EQ(toAdapter->Frames().size(), i);
        EXPECT_EQ(toProtocols->Frames().size(), i);
    }
    EXPECT_EQ(toAdapter->Frames(), frames);
    EXPECT_EQ(toProtocols->Frames(), frames);
    EXPECT_EQ(machine::TakeCensus().timers, 0u); // nothing ticks while nothing is held

    Send(frames[0]);
    machine::StartClock();
    Unload("wan"); // lets go what it holds
    EXPECT_TRUE(toAdapter->WaitFor(6));
    machine::SetRegistryDword("wan", "LossPerMille", 1000);
    Load("wan");
    Send(frames[0]);
    Unload("wan");
    EXPECT_EQ(toAdapter->Frames().size(), 6u);
    EXPECT_TRUE(Debug().Contains("wan: wan-outgoing: 0 frames delayed, 1 lost, 0 too many\n"));
}

TEST_F(SampleTest, QuietDropsPingsAlone)
{
    Load("quiet");
    for (const uint8_t type : {8, 0}) { // echo request and reply
        Receive(EthernetFrame(kEtherTypeIpv4, Ipv4Packet(kProtocolIcmp, {type, 0, 0, 0, 0, 0, 0, 0})));
    }
    ASSERT_EQ(toProtocols->Frames().size(), 1u);
    EXPECT_EQ(toProtocols->Frames()[0][kTransport], 0);
}

TEST_F(SampleTest, FramescopeSendsAFrameAlongEachRoadAndSeesItComeBack)
{
    machine::SetRegistryDword("NdisFilter", "GlobalDebugFlag", 0x40000000);
    Load("framescope");
    EXPECT_THAT(Ask("framescope send adapter"), StartsWith("no frame is kept"));
    Ask("framescope keep");
    Bytes frame = Tcp(80, 1000, kAck);
    const Bytes right = frame;
    frame[kIp + 10] ^= 0x55; // the checksum
    Receive(frame);
    EXPECT_THAT(toProtocols->Frames(), ElementsAre(right));
    uint32_t sent = 0;
    for (const char* road :
         {"adapter", "protocol", "from-adapter", "from-protocol", "from-program", "chain", "nowhere"}) {
        EXPECT_THAT(Ask(std::string("framescope send ") + road), HasSubstr("FILTER_STATUS_SUCCESS")) << road;
        ++sent;
    }
    EXPECT_TRUE(machine::WaitIdle());
    EXPECT_TRUE(Eventually([&] {
        return Ask("framescope send nowhere-silently").find(std::to_string(sent) + " came back") !=
               std::string::npos;
    }));
    EXPECT_EQ(toAdapter->Frames(), (std::vector<Bytes>{right, right}));
    EXPECT_EQ(toProtocols->Frames(), std::vector<Bytes>(5, right));
    EXPECT_THAT(Ask("framescope counts"),
                StartsWith("3 frames received, 0 of IPv6, 1 with a wrong IPv4 checksum"));
    Bytes stranger = right;
    stranger[11] ^= 0x40;
    Receive(stranger);
    EXPECT_THAT(Ask("framescope stations"), HasSubstr("the busiest: 02-00-00-00-00-02 3 frames\n2 stations"));
    EXPECT_THAT(Ask("framescope stations prune"), StartsWith("1 stations"));
    EXPECT_THAT(Ask("framescope stations forget"), StartsWith("0 stations"));
    EXPECT_THAT(Ask("framescope handles"), testing::Not(HasSubstr("not valid")));
    EXPECT_THAT(Ask("framescope system"), HasSubstr("debug mask 0x40000000"));

    EXPECT_EQ(Ask("framescope adapter {ADAPTER-1} media 1"), "media: FILTER_STATUS_SUCCESS\n");
    Pass(1);
    EXPECT_TRUE(Eventually([&] { return hook::MediaState(adapter) == 1; }));
    EXPECT_THAT(Ask("framescope adapters"), HasSubstr("media state 1"));
}

} // namespace
