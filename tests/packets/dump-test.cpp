// What a person reads in the debugger when an adapter's packet dump is on.
#include <support/adapter-test.h>

using namespace support;
using testing::ElementsAre;

namespace
{

struct DumpTest : AdapterTest {
    void SetUp() override
    {
        AdapterTest::SetUp();
        adapter->m_bPacketDump = TRUE;
    }

    // The dump of a frame: its hex dump, and what stands behind the packet's own line.
    using Text = std::pair<std::string, std::string>;
    Text Dump(const Bytes& frame)
    {
        FilterPacket* packet = MakePacket(adapter, frame);
        Debug().Take();
        Filter_DumpPacket("Title", packet);
        const std::string text = Debug().Take();
        const std::string line = " - pPacket " + PointerText(packet) + ", hAdapter " + PointerText(adapter) +
                                 ", Size " + std::to_string(frame.size()) + "\n";
        Filter_ReleasePacket(packet);
        const size_t place = text.find(line);
        EXPECT_NE(place, std::string::npos) << text;
        return {text.substr(0, place), text.substr(std::min(text.size(), place + line.size()))};
    }
    std::string Decoded(const Bytes& frame) { return Dump(frame).second; }
};

const std::string kMacLine = " - SrcMac 02-00-00-00-00-02, DstMAC 02-00-00-00-00-01, Proto 0x";

TEST_F(DumpTest, TheHexDumpHasSixteenBytesALine)
{
    Bytes frame = EthernetFrame(0x88B5, {'A', '~', 0x7F, ' ', 0xFF, 0x1F});
    EXPECT_EQ(Dump(frame),
              Text("Title, Size = 20 - 0x14\n"
                   "  \t0000  02 00 00 00 00 01 02 00 00 00 00 02 88 B5 41 7E   ..............A~\n"
                   "  \t0010  7F 20 FF 1F                                       . ..\n",
                   kMacLine + "88b5\n"));
    frame.resize(1514, 0);
    EXPECT_THAT(Dump(frame).first, testing::HasSubstr("\n  \t05E0  00 00 00 00 00 00 00 00 00 00  "));
    EXPECT_EQ(Dump({}), Text("Title, Size = 0 - 0x0\n", ""));

    FilterPacket* packet = MakePacket(adapter, frame);
    packet->m_nPacketSize = 0x10000; // the lines end with the packet's data
    Debug().Take();
    Filter_DumpPacket("Title", packet);
    const std::string text = Debug().Take();
    EXPECT_THAT(text, testing::HasSubstr("Title, Size = 65536 - 0x10000\n"));
    EXPECT_THAT(text, testing::HasSubstr("\n  \t0660  "));
    EXPECT_THAT(text, testing::Not(testing::HasSubstr("\n  \t0670  ")));
    Filter_ReleasePacket(packet);
}

TEST_F(DumpTest, ArpFieldsAreDecodedAndRarpIsOnlyNamed)
{
    const auto arp = [](uint16_t operation) {
        return EthernetFrame(kEtherTypeArp, ArpPacket(static_cast<ArpOperation>(operation), kPeerMac,
                                                      kPeerAddress, kOwnMac, kOwnAddress));
    };
    for (const uint16_t operation : {1, 2, 9}) {
        EXPECT_EQ(Decoded(arp(operation)),
                  kMacLine +
                      "806/ARP\n - arp_hrd = 1\n - arp_pro = 2048\n - arp_hln = 6\n - arp_pln = 4\n"
                      " - arp_op  = " +
                      (operation == 1 ? "ARPOP_REQUEST" : "ARPOP_REPLY") +
                      "\n - arp_sha = 02-00-00-00-00-02\n - arp_spa = 192.168.0.2\n"
                      " - arp_tha = 02-00-00-00-00-01\n - arp_tpa = 192.168.0.1\n");
    }
    EXPECT_EQ(Decoded(EthernetFrame(0x8035, Counting(28))), kMacLine + "8035/RARP\n");
    EXPECT_EQ(Decoded(VlanTagged(arp(1), 7)), kMacLine + "8100\n");
}

TEST_F(DumpTest, IpLinesNameFlagsFragmentAndTransport)
{
    const Bytes udp = UdpDatagram(1000, 53), tcp = TcpSegment(65535, 80, 2), echo = IcmpEcho(8, 513);
    struct Case {
        uint8_t protocol;
        Bytes payload;
        Ipv4Options options;
        const char* text;
        uint8_t flags = 0;
    };
    constexpr char tcpLine[] = "102, Proto: TCP DF:F MF:F FO:0 \n - TCP SrcPort 65535, DstPort 80";
    constexpr char udpLine[] = "0, Proto: UDP DF:F MF:T FO:0 \n - UDP SrcPort 1000, DstPort 53";
    constexpr char icmpLine[] = "0, Proto: ICMP DF:F MF:F FO:0 \n - ICMP ID 1, Sequence 513";
    constexpr char otherLine[] = "0, Proto: Other DF:F MF:F FO:0 \n - Other protocl 47";
    constexpr char fragment[] = "0, Proto: UDP DF:F MF:F FO:1480 IP Fragment";
    constexpr char lastFragment[] = "0, Proto: TCP DF:T MF:F FO:65528 IP Fragment";
    const Case cases[] = {
        {kProtocolTcp, tcp, {.id = 0x0102}, tcpLine},
        {kProtocolUdp, udp, {.moreFragments = true}, udpLine}, // a first fragment is not marked as one
        {kProtocolIcmp, echo, {.options = Counting(40)}, icmpLine},
        {47, udp, {}, otherLine},
        {kProtocolUdp, udp, {.fragmentOffset = 185}, fragment},
        {kProtocolTcp, tcp, {.fragmentOffset = 0x1FFF}, lastFragment, 0xC0},
    };
    for (const Case& test : cases) {
        Bytes frame = EthernetFrame(kEtherTypeIpv4, Ipv4Packet(test.protocol, test.payload, test.options));
        frame[20] |= test.flags;
        EXPECT_EQ(Decoded(frame), kMacLine + "800/IP\n - SrcIP 192.168.0.2, DstIP 192.168.0.1, PacketId 0x" +
                                      test.text + "\n");
    }
}

TEST_F(DumpTest, EachStageOfAPacketsWayHasItsTitle)
{
    TestDriver driver;
    FILTER_RESULT verdict = FILTER_RESULT_BYPASS;
    const TestFilter filter(driver, {}, [&](FilterPacket* packet) {
        Filter_IndicatePacketToApplication(packet, 1, 2);
        return verdict;
    });
    const auto titles = [&](auto deliver) {
        Debug().Take();
        deliver(adapter, UdpFrame(), {});
        std::vector<std::string> found;
        const std::string text = "\n" + Debug().Take();
        for (size_t place = text.find(", Size = "); place != std::string::npos;
             place = text.find(", Size = ", place + 1)) {
            const size_t start = text.rfind('\n', place) + 1;
            found.push_back(text.substr(start, place - start));
        }
        return found;
    };
    constexpr char in[] = "/\\ Incoming Packet", toProgram[] = "<< Indicate to Application";
    EXPECT_THAT(titles(hook::DeliverReceived), ElementsAre(in, toProgram, "AA Indicate To Protocol"));
    verdict = FILTER_RESULT_DISCARD;
    EXPECT_THAT(titles(hook::DeliverReceived), ElementsAre(in, toProgram, "DD Filter Discard"));
    verdict = FILTER_RESULT_CAPTURE;
    EXPECT_THAT(titles(hook::DeliverReceived), ElementsAre(in, toProgram));
    EXPECT_THAT(titles(hook::DeliverSent), ElementsAre("\\/ Outgoing Packet", "VV Inject To Adapter"));
}

TEST_F(DumpTest, OnlyTheAdaptersFlagTurnsItOn)
{
    FilterPacket* packet = AnyPacket();
    Debug().Take();
    Filter_DumpPacket(nullptr, packet);
    Filter_DumpPacket("Title", nullptr);
    adapter->m_bPacketDump = FALSE;
    Filter_DumpPacket("Title", packet);
    packet->m_hAdapter = nullptr;
    Filter_DumpPacket("Title", packet);
    EXPECT_EQ(Debug().Take(), "");
    Filter_ReleasePacket(packet);
}

} // namespace
