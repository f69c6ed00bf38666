// Clones: a packet of one's own with the whole frame of another.
#include <support/adapter-test.h>

#include <cstring>
#include <vector>

using namespace support;

namespace
{

using CloneTest = AdapterTest;

Bytes FrameOf(const FilterPacket& packet)
{
    return Bytes(packet.m_Data, packet.m_Data + packet.m_nPacketSize);
}

TEST_F(CloneTest, APartlyReadPacketGivesAWholeClone)
{
    const Bytes frame =
        EthernetFrame(kEtherTypeIpv4, Ipv4Packet(kProtocolUdp, UdpDatagram(53, 4000, Counting(900))));
    FilterPacket* clone = nullptr;
    TestDriver driver;
    for (const bool sent : {false, true}) {
        const FILTER_TYPE type = sent ? FILTER_TYPE_OUTGOING_PACKET : FILTER_TYPE_INCOMING_PACKET;
        const TestFilter filter(driver, {.type = type}, [&](FilterPacket* packet) {
            packet->m_nCarried[1] = 77;
            packet->m_nIndicateValue = 0x0102030405060708;
            std::memset(packet->m_ApplicationData, 0xAB, sizeof(packet->m_ApplicationData));
            Filter_SetPacketReleaseCallback(
                packet, [](FilterPacket*, PVOID) {}, &driver);
            packet->m_bDirty = TRUE;
            EXPECT_EQ(Filter_ClonePacket(packet, &clone), FILTER_STATUS_SUCCESS);
            packet->m_bDirty = FALSE;
            EXPECT_EQ(packet->m_nBytesRead, 60u); // the source is left as it was
            EXPECT_EQ(clone->m_ApplicationData[127], 0xAB);
            EXPECT_EQ(clone->m_nCarried[1], 77u);
            EXPECT_EQ(clone->m_nIndicateValue, 0x0102030405060708u);
            EXPECT_EQ(clone->m_nDirection, packet->m_nDirection);
            return FILTER_RESULT_BYPASS;
        });
        const hook::FrameOptions options{.presentBytes = 60, .pieces = {30, 100}};
        ASSERT_EQ(sent ? hook::DeliverSent(adapter, frame, options)
                       : hook::DeliverReceived(adapter, frame, options),
                  hook::Accepted::Yes);
        ASSERT_NE(clone, nullptr);
        EXPECT_EQ(FrameOf(*clone), frame); // the source is long gone
        EXPECT_EQ(clone->m_nBytesRead, frame.size());
        EXPECT_EQ(clone->m_hAdapter, adapter);
        EXPECT_FALSE(clone->m_bDirty);
        EXPECT_EQ(clone->m_pIncomingNdisPacket, nullptr);
        EXPECT_EQ(clone->m_pOutgoingNdisPacket, nullptr);
        EXPECT_EQ(clone->m_pfReleaseCallback, nullptr);
        EXPECT_EQ(clone->m_pReleaseContext, nullptr);
        EXPECT_EQ(clone->m_pEthernet, clone->m_Data);
        EXPECT_EQ(clone->m_pDns, clone->m_Data + 14 + 20 + 8);
        Collector out(adapter, hook::Side::Adapter);
        EXPECT_EQ(Filter_InjectPacketToAdapterEx(adapter, clone), FILTER_STATUS_SUCCESS);
        EXPECT_THAT(out.Frames(), testing::ElementsAre(frame));
        clone = nullptr;
    }
}

TEST_F(CloneTest, HeadersAreParsedAtTheSamePlaceOrNotAtAll)
{
    const Bytes frame = UdpFrame();
    Bytes external = frame;
    FilterPacket* source = MakePacket(adapter, frame);
    FilterPacket* clone = nullptr;
    const auto offsetIn = [](const FilterPacket* packet, const void* place) {
        return reinterpret_cast<uintptr_t>(place) - reinterpret_cast<uintptr_t>(packet);
    };

    // Inside the record, at another place than m_Data: the clone's headers lie there, too.
    std::copy(frame.begin(), frame.end(), source->m_ApplicationData);
    Filter_InitPacketHeader(source, source->m_ApplicationData);
    ASSERT_EQ(Filter_ClonePacket(source, &clone), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(clone->m_pUdp, clone->m_ApplicationData + 14 + 20);
    Filter_ReleasePacket(clone);

    // In a buffer outside of it, so near the end of the record that parsing would leave it, or nowhere: the pointer
    // alone is carried over, and nobody follows it, neither into a log nor into a dump.
    adapter->m_bPacketDump = TRUE;
    UCHAR* const nearEnd = source->m_Data + sizeof(source->m_Data) - 77;
    for (UCHAR* place : {external.data(), nearEnd, static_cast<UCHAR*>(nullptr)}) {
        source->m_pEthernet = place;
        source->m_pIp = external.data() + 14;
        ASSERT_EQ(Filter_ClonePacket(source, &clone), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(offsetIn(clone, clone->m_pEthernet), offsetIn(source, place));
        EXPECT_EQ(clone->m_pIp, nullptr);
        EXPECT_EQ(clone->m_pUdp, nullptr);
        EXPECT_EQ(FrameOf(*clone), frame);
        Debug().Take();
        EXPECT_EQ(Filter_InjectPacketToAdapterEx(adapter, clone), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(Debug().Contains(" - SrcMac 02-00-00-00-00-02, DstMAC 02-00-00-00-00-01, Proto 0x800/IP\n"),
                  place != nearEnd);
    }
    Filter_ReleasePacket(source);
}

TEST_F(CloneTest, RefusalsLeaveNothingBehind)
{
    FilterPacket* source = MakePacket(adapter, UdpFrame());
    FilterPacket* clone = nullptr;
    EXPECT_EQ(Filter_ClonePacket(Unreadable<FilterPacket>(), &clone), FILTER_ERROR_EXCEPTION);
    EXPECT_EQ(Filter_ClonePacket(source, Unwritable<FilterPacket*>()), FILTER_ERROR_EXCEPTION);
    EXPECT_EQ(hook::TakeBalance().outstanding, 1u);
    EXPECT_TRUE(Debug().Contains("Filter_ClonePacket: exception, code = -1073741819\n"));
    std::vector<FilterPacket*> all = {source};
    while (FilterPacket* packet = Filter_AllocatePacket(adapter)) {
        all.push_back(packet);
    }
    EXPECT_EQ(Filter_ClonePacket(source, &clone), FILTER_ERROR_OUT_OF_MEMORY);
    EXPECT_EQ(clone, nullptr);
    for (FilterPacket* packet : all) {
        Filter_ReleasePacket(packet);
    }
}

} // namespace
