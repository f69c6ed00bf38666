// A packet's life in a client's hands: reading the rest of a frame, changing it, giving the packet back; and clones, with
// the whole frame of another.
#include <support/adapter-test.h>

#include <algorithm>
#include <cstring>

using namespace support;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

Bytes DataOf(const FilterPacket& packet, size_t size)
{
    return Bytes(packet.m_Data, packet.m_Data + size);
}

// What the last Filter_TransferPacketData left of the packet's figures.
void ExpectTransferred(FilterPacket* packet, ULONG bytesRead, ULONG size)
{
    EXPECT_EQ(Filter_TransferPacketData(packet), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(packet->m_nBytesRead, bytesRead);
    EXPECT_EQ(packet->m_nPacketSize, size);
}

struct PacketTest : Loaded<WithTrace, 0x200, AdapterTest> {
    // Runs `procedure` on a received packet of 60 bytes and answers its verdict.
    void OnReceived(const hook::FrameOptions& options, const TestFilter::Procedure& procedure)
    {
        TestDriver driver;
        const TestFilter filter(driver, {}, procedure);
        ASSERT_EQ(hook::DeliverReceived(adapter, Counting(60), options), hook::Accepted::Yes);
        EXPECT_EQ(filter.CallCount(), 1u);
    }
};

TEST_F(PacketTest, TransferGathersAChainOfBuffers)
{
    const std::vector<std::vector<uint32_t>> shapes = {
        {}, {14, 20}, {0, 1, 0, 13, 0, 0, 7, 0}, std::vector<uint32_t>(64, 1), {1513, 1, 0},
    };
    int runs = 0;
    for (const uint32_t size : {1u, 60u, 1514u, 1648u}) {
        const Bytes frame = Counting(size, 3);
        for (const std::vector<uint32_t>& pieces : shapes) {
            for (const uint32_t present : {0u, 14u, 59u}) {
                const hook::FrameOptions options{
                    .presentBytes = present, .pieces = pieces, .unmappedBuffers = present == 14};
                const EveryChain filters([&](FILTER_TYPE, FilterPacket* packet) {
                    ++runs;
                    EXPECT_EQ(packet->m_nBytesRead, std::min(present, size));
                    ExpectTransferred(packet, size, size);
                    EXPECT_EQ(DataOf(*packet, size), frame);
                });
                Debug().Take();
                EXPECT_EQ(hook::DeliverReceived(adapter, frame, options), hook::Accepted::Yes);
                EXPECT_TRUE(size <= present ||
                            Debug().Contains("Filter_TransferPacketData, lazy read " + std::to_string(size) +
                                             ", total " + std::to_string(size) + "\n"));
                EXPECT_EQ(hook::DeliverSent(adapter, frame, options), hook::Accepted::Yes);
            }
        }
    }
    EXPECT_EQ(runs, 4 * 5 * 3 * 2);
}

TEST_F(PacketTest, TransferReadsOnlyWhatIsMissing)
{
    OnReceived({.presentBytes = 60}, [&](FilterPacket* packet) {
        packet->m_Data[5] = 0xEE;
        packet->m_nPacketSize = 9; // the NDIS packet knows better
        ExpectTransferred(packet, 60, 60);
        EXPECT_EQ(packet->m_Data[5], 0xEE);
        return FILTER_RESULT_BYPASS;
    });
    OnReceived({}, [&](FilterPacket* packet) { // without an NDIS packet
        packet->m_nBytesRead = 3;
        ExpectTransferred(packet, 3, 60);
        EXPECT_EQ(DataOf(*packet, 60), Counting(60));
        return FILTER_RESULT_BYPASS;
    });
}

TEST_F(PacketTest, TheCachedLengthDecidesHowMuchIsRead)
{
    // A chain shorter than that: what there is gets copied, but the packet does not count as read.
    OnReceived({.presentBytes = 14, .pieces = {20, 20}}, [&](FilterPacket* packet) {
        NDIS_PACKET_PRIVATE& counts = packet->m_pIncomingNdisPacket->Private;
        NdisQueryPacket(packet->m_pIncomingNdisPacket, nullptr, nullptr, nullptr, &counts.TotalLength);
        counts.TotalLength = 70;
        ExpectTransferred(packet, 14, 70);
        EXPECT_EQ(DataOf(*packet, 60), Counting(60));
        counts.TotalLength = 30; // in the middle of the second buffer
        std::fill_n(packet->m_Data, 60, UCHAR{0xEE});
        ExpectTransferred(packet, 30, 30);
        EXPECT_EQ(DataOf(*packet, 30), Counting(30));
        EXPECT_EQ(packet->m_Data[30], 0xEE);
        counts.TotalLength = 60;
        return FILTER_RESULT_DISCARD;
    });
    EXPECT_FALSE(Debug().Contains("lazy read 70"));
}

// The hook driver promises that frames fit; when one does not, the packet's neighbour in memory is spared.
TEST_F(PacketTest, AChainLongerThanThePacketEndsAtItsBuffer)
{
    struct Place {
        FilterPacket packet = {};
        UCHAR behind[1024] = {};
    };
    constexpr ULONG size = FILTER_PACKET_DATA_SIZE + 500;
    const auto place = std::make_unique<Place>();
    void* frame = ExAllocatePoolWithTag(NonPagedPool, size, 0x74736554);
    ASSERT_NE(frame, nullptr);
    std::memset(frame, 0x11, size);
    PMDL mdl = IoAllocateMdl(frame, size, FALSE, FALSE, nullptr);
    ASSERT_NE(mdl, nullptr);
    MmBuildMdlForNonPagedPool(mdl);
    NDIS_PACKET ndisPacket = {};
    NdisChainBufferAtBack(&ndisPacket, mdl);
    place->packet.m_pOutgoingNdisPacket = &ndisPacket; // read before the incoming one
    place->packet.m_pIncomingNdisPacket = Unreadable<NDIS_PACKET>();
    ExpectTransferred(&place->packet, size, size);
    EXPECT_EQ(DataOf(place->packet, FILTER_PACKET_DATA_SIZE), Bytes(FILTER_PACKET_DATA_SIZE, 0x11));
    EXPECT_THAT(place->behind, testing::Each(0));
    IoFreeMdl(mdl);
    ExFreePoolWithTag(frame, 0x74736554);
}

TEST_F(PacketTest, ModifyCompletesTheFrameOnceAndMarksItForDelivery)
{
    Bytes changed = Counting(60);
    changed[50] = 0xC3;
    const Collector up(adapter, hook::Side::Protocols);
    OnReceived({.presentBytes = 14, .pieces = {14, 6}}, [&](FilterPacket* packet) {
        EXPECT_FALSE(packet->m_bDirty);
        EXPECT_EQ(Filter_ModifyPacket(packet), FILTER_STATUS_SUCCESS);
        EXPECT_TRUE(packet->m_bDirty);
        EXPECT_EQ(packet->m_nBytesRead, 60u);
        packet->m_Data[50] = 0xC3;
        packet->m_nBytesRead = 14; // if it read again, that would undo the change
        EXPECT_EQ(Filter_ModifyPacket(packet), FILTER_STATUS_SUCCESS);
        return FILTER_RESULT_BYPASS;
    });
    EXPECT_THAT(up.Frames(), ElementsAre(changed));
}

VOID NoteRelease(FilterPacket* packet, PVOID released)
{
    static_cast<std::vector<FilterPacket*>*>(released)->push_back(packet);
}

TEST_F(PacketTest, TheReleaseCallbackRunsWhenTheHookDriverFreesThePacket)
{
    std::vector<FilterPacket*> first, second;
    FilterPacket* seen = nullptr;
    const auto receive = [&](FILTER_RESULT verdict, bool clear) {
        OnReceived({}, [&](FilterPacket* packet) {
            seen = packet;
            Filter_SetPacketReleaseCallback(packet, NoteRelease, &first);
            Filter_SetPacketReleaseCallback(packet, NoteRelease, &second); // replaces the first
            if (clear) {
                Filter_ClearPacketReleaseCallback(packet);
                EXPECT_EQ(packet->m_pReleaseContext, nullptr);
            }
            return verdict;
        });
        return std::exchange(second, {});
    };
    for (const FILTER_RESULT verdict : {FILTER_RESULT_BYPASS, FILTER_RESULT_DISCARD, FILTER_RESULT_CAPTURE}) {
        const auto released = receive(verdict, false);
        EXPECT_THAT(released, ElementsAre(seen)) << verdict;
        EXPECT_THAT(receive(verdict, true), IsEmpty());
    }
    EXPECT_THAT(first, IsEmpty());
    Filter_SetPacketReleaseCallback(nullptr, NoteRelease, &first);
    Filter_ClearPacketReleaseCallback(nullptr);
}

TEST_F(PacketTest, AFaultOfTheHookDriverInAReleaseIsContained)
{
    FilterPacket* packet = Filter_AllocatePacket(adapter);
    ASSERT_NE(packet, nullptr);
    Filter_SetPacketReleaseCallback(
        packet, [](FilterPacket*, PVOID) { FaultOnRead(); }, nullptr);
    Debug().Take();
    EXPECT_EQ(Filter_ReleasePacket(packet), FILTER_ERROR_EXCEPTION);
    EXPECT_TRUE(Debug().Contains("Filter_ReleasePacket: exception, code = -1073741819\n"));
    ExpectNoLockHeld("after a faulting release callback");
}

using CloneTest = AdapterTest;

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
        EXPECT_EQ(DataOf(*clone, clone->m_nPacketSize), frame); // the source is long gone
        EXPECT_EQ(clone->m_nBytesRead, frame.size());
        EXPECT_EQ(clone->m_hAdapter, adapter);
        EXPECT_FALSE(clone->m_bDirty);
        EXPECT_EQ(clone->m_pIncomingNdisPacket, nullptr);
        EXPECT_EQ(clone->m_pOutgoingNdisPacket, nullptr);
        EXPECT_EQ(clone->m_pfReleaseCallback, nullptr);
        EXPECT_EQ(clone->m_pReleaseContext, nullptr);
        EXPECT_EQ(clone->m_pEthernet, clone->m_Data);
        EXPECT_EQ(clone->m_pDns, clone->m_Data + 14 + 20 + 8);
        const Collector out(adapter, hook::Side::Adapter);
        Filter_InjectPacketToAdapterEx(adapter, std::exchange(clone, nullptr));
        EXPECT_THAT(out.Frames(), ElementsAre(frame));
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
        EXPECT_EQ(DataOf(*clone, clone->m_nPacketSize), frame);
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
