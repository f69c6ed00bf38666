// What a person reads in the debugger when an adapter's packet dump is on.
#include <support/framework.h>

using namespace support;
using testing::ElementsAre;

namespace
{

class DumpTest : public FrameworkTest
{
  protected:
    void SetUp() override
    {
        FrameworkTest::SetUp();
        adapter = AddAdapter();
        adapter->m_bPacketDump = TRUE;
    }

    // The dump of a frame, without what the hex dump and the packet line repeat.
    std::string Dump(const Bytes& frame)
    {
        FilterPacket* packet = Filter_AllocatePacket(adapter);
        std::copy(frame.begin(), frame.end(), packet->m_Data);
        packet->m_nBytesRead = packet->m_nPacketSize = static_cast<ULONG>(frame.size());
        Filter_InitPacketHeader(packet, nullptr);
        Debug().Take();
        Filter_DumpPacket("Title", packet);
        std::string text = Debug().Take();
        packetLine = " - pPacket " + PointerText(packet) + ", hAdapter " + PointerText(adapter) + ", Size " +
                     std::to_string(frame.size()) + "\n";
        Filter_ReleasePacket(packet);
        return text;
    }

    // The lines behind the packet line.
    std::string Decoded(const Bytes& frame)
    {
        const std::string text = Dump(frame);
        const size_t place = text.find(packetLine);
        return place == std::string::npos ? "no packet line in " + text
                                          : text.substr(place + packetLine.size());
    }

    FilterAdapter* adapter = nullptr;
    std::string packetLine; // of the packet dumped last
};

Bytes Ip(uint8_t protocol, const Bytes& payload, const Ipv4Options& options = {})
{
    return EthernetFrame(kEtherTypeIpv4, Ipv4Packet(protocol, payload, options));
}

constexpr char kMacLine[] = " - SrcMac 02-00-00-00-00-02, DstMAC 02-00-00-00-00-01, Proto 0x";

TEST_F(DumpTest, TheHexDumpHasSixteenBytesALine)
{
    Bytes frame = EthernetFrame(0x88B5, {'A', '~', 0x7F, ' ', 0xFF, 0x1F});
    const std::string shortest = Dump(frame);
    EXPECT_EQ(shortest, "Title, Size = 20 - 0x14\n"
                        "  \t0000  02 00 00 00 00 01 02 00 00 00 00 02 88 B5 41 7E   ..............A~\n"
                        "  \t0010  7F 20 FF 1F                                       . ..\n" +
                            packetLine + kMacLine + "88b5\n");
    frame.resize(1514, 0);
    const std::string longest = Dump(frame);
    EXPECT_THAT(longest, testing::HasSubstr("Title, Size = 1514 - 0x5ea\n"));
    EXPECT_THAT(longest, testing::HasSubstr("  \t05E0  00 00 00 00 00 00 00 00 00 00"));
    const std::string empty = Dump({});
    EXPECT_EQ(empty, "Title, Size = 0 - 0x0\n" + packetLine);
}

TEST_F(DumpTest, ArpFieldsAreDecodedAndRarpIsOnlyNamed)
{
    const auto arp = [](uint16_t operation) {
        return EthernetFrame(kEtherTypeArp, ArpPacket(static_cast<ArpOperation>(operation), kPeerMac,
                                                      kPeerAddress, kOwnMac, kOwnAddress));
    };
    const auto expected = [](const std::string& operation) {
        return kMacLine + std::string("806/ARP\n") +
               " - arp_hrd = 1\n - arp_pro = 2048\n - arp_hln = 6\n - arp_pln = 4\n - arp_op  = " +
               operation +
               "\n - arp_sha = 02-00-00-00-00-02\n - arp_spa = 192.168.0.2\n"
               " - arp_tha = 02-00-00-00-00-01\n - arp_tpa = 192.168.0.1\n";
    };
    EXPECT_EQ(Decoded(arp(1)), expected("ARPOP_REQUEST"));
    EXPECT_EQ(Decoded(arp(2)), expected("ARPOP_REPLY"));
    EXPECT_EQ(Decoded(arp(9)), expected("ARPOP_REPLY"));
    EXPECT_EQ(Decoded(EthernetFrame(0x8035, Counting(28))), kMacLine + std::string("8035/RARP\n"));
    EXPECT_EQ(Decoded(VlanTagged(arp(1), 7)), kMacLine + std::string("8100\n"));
}

TEST_F(DumpTest, IpLinesNameFlagsFragmentAndTransport)
{
    const std::string start =
        kMacLine + std::string("800/IP\n - SrcIP 192.168.0.2, DstIP 192.168.0.1, PacketId ");
    const Bytes udp = UdpDatagram(1000, 53), tcp = TcpSegment(65535, 80, 2), echo = IcmpEcho(8, 513);
    EXPECT_EQ(Decoded(Ip(kProtocolTcp, tcp, {.id = 0x0102})),
              start + "0x102, Proto: TCP DF:F MF:F FO:0 \n - TCP SrcPort 65535, DstPort 80\n");
    EXPECT_EQ(
        Decoded(Ip(kProtocolUdp, udp, {.moreFragments = true})), // a first fragment is not marked as one
        start + "0x0, Proto: UDP DF:F MF:T FO:0 \n - UDP SrcPort 1000, DstPort 53\n");
    EXPECT_EQ(Decoded(Ip(kProtocolIcmp, echo, {.options = Counting(40)})),
              start + "0x0, Proto: ICMP DF:F MF:F FO:0 \n - ICMP ID 1, Sequence 513\n");
    EXPECT_EQ(Decoded(Ip(47, udp)), start + "0x0, Proto: Other DF:F MF:F FO:0 \n - Other protocl 47\n");
    EXPECT_EQ(Decoded(Ip(kProtocolUdp, udp, {.fragmentOffset = 185})),
              start + "0x0, Proto: UDP DF:F MF:F FO:1480 IP Fragment\n");
    Bytes reserved = Ip(kProtocolTcp, tcp, {.fragmentOffset = 0x1FFF, .moreFragments = true});
    reserved[20] |= 0xC0;
    EXPECT_EQ(Decoded(reserved), start + "0x0, Proto: TCP DF:T MF:T FO:65528 IP Fragment\n");
}

TEST_F(DumpTest, EachStageOfAPacketsWayHasItsTitle)
{
    TestDriver driver;
    FILTER_RESULT verdict = FILTER_RESULT_BYPASS;
    const TestFilter filter(driver, {}, [&](FilterPacket* packet) {
        Filter_IndicatePacketToApplication(packet, 1, 2);
        return verdict;
    });
    const auto titles = [&] {
        std::vector<std::string> found;
        const std::string text = Debug().Take();
        const std::string end = ", Size = 74 - 0x4a\n";
        for (size_t place = text.find(end); place != std::string::npos; place = text.find(end, place + 1)) {
            const size_t start = text.rfind('\n', place);
            found.push_back(text.substr(start == std::string::npos ? 0 : start + 1, place - start - 1));
        }
        return found;
    };
    const Bytes frame = UdpFrame();
    Debug().Take();
    hook::DeliverReceived(adapter, frame);
    EXPECT_THAT(titles(),
                ElementsAre("/\\ Incoming Packet", "<< Indicate to Application", "AA Indicate To Protocol"));
    verdict = FILTER_RESULT_DISCARD;
    hook::DeliverReceived(adapter, frame);
    EXPECT_THAT(titles(),
                ElementsAre("/\\ Incoming Packet", "<< Indicate to Application", "DD Filter Discard"));
    verdict = FILTER_RESULT_CAPTURE;
    hook::DeliverReceived(adapter, frame);
    EXPECT_THAT(titles(), ElementsAre("/\\ Incoming Packet", "<< Indicate to Application"));
    hook::DeliverSent(adapter, frame);
    EXPECT_THAT(titles(), ElementsAre("\\/ Outgoing Packet", "VV Inject To Adapter"));
}

class DumpOffTest : public FrameworkTest
{
  protected:
    DumpOffTest() : FrameworkTest(WithTrace(kTraceEverything)) {}
};

TEST_F(DumpOffTest, OnlyTheAdaptersFlagTurnsItOn)
{
    FilterAdapter* adapter = AddAdapter();
    FilterPacket* packet = Filter_AllocatePacket(adapter);
    ASSERT_NE(packet, nullptr);
    packet->m_nPacketSize = 60;
    Filter_InitPacketHeader(packet, nullptr);
    Debug().Take();
    Filter_DumpPacket("Title", packet);
    adapter->m_bPacketDump = TRUE;
    Filter_DumpPacket(nullptr, packet);
    Filter_DumpPacket("Title", nullptr);
    packet->m_hAdapter = nullptr;
    Filter_DumpPacket("Title", packet);
    EXPECT_EQ(Debug().Take(), "");
    Filter_ReleasePacket(packet);
}

} // namespace
