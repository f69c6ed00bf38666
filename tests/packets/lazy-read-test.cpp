// A packet's life in a client's hands: reading the rest of a frame, changing it, and giving the packet back.
#include <support/framework.h>

#include <algorithm>
#include <cstring>

using namespace support;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

class PacketTest : public FrameworkTest
{
  protected:
    PacketTest() : FrameworkTest(WithTrace(0x200)) {}

    void SetUp() override
    {
        FrameworkTest::SetUp();
        adapter = AddAdapter();
    }

    void TearDown() override
    {
        const hook::Balance balance = hook::TakeBalance();
        EXPECT_TRUE(balance.IsEven());
        EXPECT_EQ(balance.outstanding, mayStayOut);
        FrameworkTest::TearDown();
    }

    // Runs `procedure` on a received packet and answers its verdict.
    void OnReceived(const Bytes& frame, const hook::FrameOptions& options,
                    const TestFilter::Procedure& procedure)
    {
        TestDriver driver;
        const TestFilter filter(driver, {}, procedure);
        ASSERT_EQ(hook::DeliverReceived(adapter, frame, options), hook::Accepted::Yes);
        EXPECT_EQ(filter.CallCount(), 1u);
    }

    static Bytes DataOf(const FilterPacket& packet, size_t size)
    {
        return Bytes(packet.m_Data, packet.m_Data + size);
    }

    FilterAdapter* adapter = nullptr;
    uint64_t mayStayOut = 0;
};

TEST_F(PacketTest, TransferGathersAChainOfBuffers)
{
    const std::vector<std::vector<uint32_t>> shapes = {
        {}, {14, 20}, {0, 1, 0, 13, 0, 0, 7, 0}, std::vector<uint32_t>(64, 1), {1513, 1, 0}, {0, 0, 0},
    };
    for (const size_t size : {1u, 60u, 1514u, 1648u}) {
        const Bytes frame = Counting(size, 3);
        for (const std::vector<uint32_t>& pieces : shapes) {
            for (const uint32_t present : {0u, 14u, 59u}) {
                for (const bool unmapped : {false, true}) {
                    const auto check = [&](FilterPacket* packet) -> FILTER_RESULT {
                        EXPECT_EQ(packet->m_nBytesRead, std::min<size_t>(present, size));
                        EXPECT_EQ(Filter_TransferPacketData(packet), FILTER_STATUS_SUCCESS);
                        EXPECT_EQ(packet->m_nBytesRead, size);
                        EXPECT_EQ(packet->m_nPacketSize, size);
                        EXPECT_EQ(DataOf(*packet, size), frame);
                        return FILTER_RESULT_BYPASS;
                    };
                    const hook::FrameOptions options{
                        .presentBytes = present, .pieces = pieces, .unmappedBuffers = unmapped};
                    TestDriver driver;
                    const TestFilter in(driver, {.type = FILTER_TYPE_INCOMING_PACKET}, check);
                    const TestFilter out(driver, {.type = FILTER_TYPE_OUTGOING_PACKET}, check);
                    EXPECT_EQ(hook::DeliverReceived(adapter, frame, options), hook::Accepted::Yes);
                    EXPECT_EQ(hook::DeliverSent(adapter, frame, options), hook::Accepted::Yes);
                    EXPECT_EQ(in.CallCount() + out.CallCount(), 2u);
                    EXPECT_TRUE(size <= present || Debug().Contains("Filter_TransferPacketData, lazy read " +
                                                                    std::to_string(size) + ", total " +
                                                                    std::to_string(size) + "\n"));
                    Debug().Take();
                }
            }
        }
    }
    EXPECT_EQ(Filter_TransferPacketData(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
}

TEST_F(PacketTest, AFullPacketIsNotReadAgain)
{
    OnReceived(Counting(60), {.presentBytes = 60}, [&](FilterPacket* packet) {
        packet->m_Data[5] = 0xEE;
        packet->m_nPacketSize = 9; // the NDIS packet knows better
        EXPECT_EQ(Filter_TransferPacketData(packet), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(packet->m_Data[5], 0xEE);
        EXPECT_EQ(packet->m_nPacketSize, 60u);
        return FILTER_RESULT_BYPASS;
    });
    EXPECT_TRUE(Debug().Contains("Read packet data from incoming packet\nFull packet, no data to read\n"));
}

TEST_F(PacketTest, APacketWithoutAnNdisPacketStaysAsItIs)
{
    OnReceived(Counting(60), {}, [&](FilterPacket* packet) {
        packet->m_nBytesRead = 3;
        EXPECT_EQ(Filter_TransferPacketData(packet), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(packet->m_nBytesRead, 3u);
        EXPECT_EQ(packet->m_nPacketSize, 60u);
        EXPECT_EQ(DataOf(*packet, 60), Counting(60));
        return FILTER_RESULT_BYPASS;
    });
    EXPECT_TRUE(Debug().Contains("Empty packet, no data to read\n"));
}

TEST_F(PacketTest, TheCachedLengthDecidesHowMuchIsRead)
{
    // A chain shorter than that: what there is gets copied, but the packet does not count as read.
    OnReceived(Counting(60), {.presentBytes = 14, .pieces = {20, 20}}, [&](FilterPacket* packet) {
        NDIS_PACKET_PRIVATE& counts = packet->m_pIncomingNdisPacket->Private;
        NdisQueryPacket(packet->m_pIncomingNdisPacket, nullptr, nullptr, nullptr, &counts.TotalLength);
        counts.TotalLength = 70;
        EXPECT_EQ(Filter_TransferPacketData(packet), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(packet->m_nBytesRead, 14u);
        EXPECT_EQ(packet->m_nPacketSize, 70u);
        EXPECT_EQ(DataOf(*packet, 60), Counting(60));

        counts.TotalLength = 30; // in the middle of the second buffer
        std::fill_n(packet->m_Data, 60, UCHAR{0xEE});
        EXPECT_EQ(Filter_TransferPacketData(packet), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(packet->m_nBytesRead, 30u);
        EXPECT_EQ(packet->m_nPacketSize, 30u);
        EXPECT_EQ(DataOf(*packet, 30), Counting(30));
        EXPECT_EQ(packet->m_Data[30], 0xEE);
        counts.TotalLength = 60;
        return FILTER_RESULT_DISCARD;
    });
    EXPECT_FALSE(Debug().Contains("lazy read 70"));
}

TEST_F(PacketTest, TheOutgoingPacketIsReadBeforeTheIncomingOne)
{
    const Bytes mine = Counting(50, 100), other = Counting(60);
    TestDriver driver;
    FilterPacket* kept = nullptr;
    const TestFilter keep(driver, {}, [&](FilterPacket* packet) {
        kept = packet;
        return FILTER_RESULT_CONSUME;
    });
    const TestFilter swap(driver, {.type = FILTER_TYPE_OUTGOING_PACKET}, [&](FilterPacket* packet) {
        packet->m_pIncomingNdisPacket = kept->m_pIncomingNdisPacket;
        EXPECT_EQ(Filter_TransferPacketData(packet), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(DataOf(*packet, 50), mine);
        packet->m_pIncomingNdisPacket = nullptr;
        return FILTER_RESULT_BYPASS;
    });
    hook::DeliverReceived(adapter, other, {.presentBytes = 0});
    ASSERT_NE(kept, nullptr);
    hook::DeliverSent(adapter, mine, {.presentBytes = 0});
    EXPECT_EQ(swap.CallCount(), 1u);
    Filter_ReleasePacket(kept);
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
    std::fill(std::begin(place->behind), std::end(place->behind), UCHAR{0xEE});
    void* frame = ExAllocatePoolWithTag(NonPagedPool, size, 0x74736554);
    ASSERT_NE(frame, nullptr);
    std::memset(frame, 0x11, size);
    PMDL mdl = IoAllocateMdl(frame, size, FALSE, FALSE, nullptr);
    ASSERT_NE(mdl, nullptr);
    MmBuildMdlForNonPagedPool(mdl);
    NDIS_PACKET ndisPacket = {};
    NdisChainBufferAtBack(&ndisPacket, mdl);
    place->packet.m_pIncomingNdisPacket = &ndisPacket;

    EXPECT_EQ(Filter_TransferPacketData(&place->packet), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(place->packet.m_nPacketSize, size);
    EXPECT_EQ(DataOf(place->packet, FILTER_PACKET_DATA_SIZE), Bytes(FILTER_PACKET_DATA_SIZE, 0x11));
    EXPECT_THAT(place->behind, testing::Each(0xEE));
    IoFreeMdl(mdl);
    ExFreePoolWithTag(frame, 0x74736554);
}

TEST_F(PacketTest, ModifyCompletesTheFrameOnceAndMarksItForDelivery)
{
    Bytes changed = Counting(60);
    changed[50] = 0xC3;
    const Collector up(adapter, hook::Side::Protocols);
    OnReceived(Counting(60), {.presentBytes = 14, .pieces = {14, 6}}, [&](FilterPacket* packet) {
        EXPECT_FALSE(packet->m_bDirty);
        EXPECT_EQ(Filter_ModifyPacket(packet), FILTER_STATUS_SUCCESS);
        EXPECT_TRUE(packet->m_bDirty);
        EXPECT_EQ(packet->m_nBytesRead, 60u);
        packet->m_Data[50] = 0xC3;
        packet->m_nBytesRead = 14;
        EXPECT_EQ(Filter_ModifyPacket(packet),
                  FILTER_STATUS_SUCCESS); // would undo the change if it read again
        return FILTER_RESULT_BYPASS;
    });
    EXPECT_TRUE(Debug().Contains("Dirty packet, no data to read\n"));
    EXPECT_THAT(up.Frames(), ElementsAre(changed));
    EXPECT_EQ(Filter_ModifyPacket(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
}

struct Released {
    std::vector<FilterPacket*> packets;
    static VOID Note(FilterPacket* packet, PVOID context)
    {
        static_cast<Released*>(context)->packets.push_back(packet);
    }
};

TEST_F(PacketTest, TheReleaseCallbackRunsWhenTheHookDriverFreesThePacket)
{
    Released first, second;
    FilterPacket* seen = nullptr;
    for (const FILTER_RESULT verdict : {FILTER_RESULT_BYPASS, FILTER_RESULT_DISCARD, FILTER_RESULT_CAPTURE}) {
        OnReceived(Counting(60), {}, [&](FilterPacket* packet) {
            seen = packet;
            Filter_SetPacketReleaseCallback(packet, Released::Note, &first);
            Filter_SetPacketReleaseCallback(packet, Released::Note, &second); // replaces the first
            return verdict;
        });
        EXPECT_THAT(first.packets, IsEmpty());
        EXPECT_THAT(std::exchange(second.packets, {}), ElementsAre(seen)) << verdict;
    }
    OnReceived(Counting(60), {}, [&](FilterPacket* packet) {
        Filter_SetPacketReleaseCallback(packet, Released::Note, &first);
        Filter_ClearPacketReleaseCallback(packet);
        EXPECT_EQ(packet->m_pReleaseContext, nullptr);
        return FILTER_RESULT_BYPASS;
    });
    EXPECT_THAT(first.packets, IsEmpty());
    Filter_SetPacketReleaseCallback(nullptr, Released::Note, &first);
    Filter_ClearPacketReleaseCallback(nullptr);
}

TEST_F(PacketTest, AllocationAndReleaseNeedABoundHookDriver)
{
    EXPECT_EQ(Filter_ReleasePacket(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    FilterPacket* packet = Filter_AllocatePacket(adapter);
    ASSERT_NE(packet, nullptr);
    EXPECT_EQ(packet->m_hAdapter, adapter);
    Released released;
    Filter_SetPacketReleaseCallback(packet, Released::Note, &released);

    ASSERT_EQ(hook::Unbind(), STATUS_SUCCESS);
    EXPECT_EQ(Filter_AllocatePacket(adapter), nullptr);
    EXPECT_EQ(Filter_ReleasePacket(packet), FILTER_STATUS_SUCCESS); // and nobody takes it
    EXPECT_THAT(released.packets, IsEmpty());
    EXPECT_EQ(hook::TakeBalance().outstanding, 1u);

    ASSERT_EQ(hook::Bind(), STATUS_SUCCESS);
    EXPECT_EQ(Filter_ReleasePacket(packet), FILTER_STATUS_SUCCESS);
    EXPECT_THAT(released.packets, ElementsAre(packet));

    ASSERT_EQ(hook::Unbind(), STATUS_SUCCESS);
    ASSERT_EQ(hook::Bind({.without = {hook::Function::AllocatePacket, hook::Function::FreePacket}}),
              STATUS_SUCCESS);
    EXPECT_EQ(Filter_AllocatePacket(adapter), nullptr);
    OnReceived(Counting(60), {}, [](FilterPacket*) { return FILTER_RESULT_DISCARD; });
    mayStayOut = 1; // stranded until the hook driver unloads
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

} // namespace
