// Blocks on their way through the two rings, as the program sees them.
#include "program.h"

using namespace sharing;
using namespace support;
using testing::Each;
using testing::ElementsAre;

namespace
{

class RingTest : public SharedTest
{
  protected:
    // Signals until the output ring has `blocks` more, all read by the program at once.
    void PassOutput(int blocks)
    {
        for (int i = 0; i < blocks; ++i) {
            ASSERT_EQ(SendSignal(), FILTER_STATUS_SUCCESS);
            program.TakeOutput();
        }
    }

    // The bytes of the area from a block on, also behind its end.
    static Bytes Area(const SharedBlock& block, size_t offset, size_t size)
    {
        const uint8_t* start = reinterpret_cast<const uint8_t*>(&block) + offset;
        return Bytes(start, start + size);
    }
};

TEST_F(RingTest, TheProgramFindsTheRingsLaidOutInMemoryThatIsReallyShared)
{
    const SharedRing& out = program.Out();
    const SharedRing& in = program.In();
    for (const SharedRing* ring : {&out, &in}) {
        EXPECT_EQ(ring->m_iBlockSize, 1684);
        EXPECT_EQ(ring->m_iBlockCount, 512);
        EXPECT_EQ(uint64_t{ring->m_puBlockBase}, 0u);
        EXPECT_EQ(ring->m_iRead, 0);
        EXPECT_EQ(ring->m_iWrite, 0);
        EXPECT_EQ(ring->m_nCount, 512);
    }
    EXPECT_EQ(out.m_iBaseOffset, 0);
    EXPECT_EQ(in.m_iBaseOffset, 862208);
    EXPECT_EQ(reinterpret_cast<uint8_t*>(program.Memory().m_InputBlocks) -
                  reinterpret_cast<uint8_t*>(program.Memory().m_OutputBlocks),
              in.m_iBaseOffset);
    EXPECT_EQ(program.Mapping().m_nSize, 1724496u);
    EXPECT_EQ(uint64_t{program.Mapping().m_pUserModeVirtualAddress},
              reinterpret_cast<uint64_t>(&program.Mapping()));

    // The framework's own view is elsewhere, and shows the same bytes.
    auto* const kernelBlocks = reinterpret_cast<SharedBlock*>(uint64_t{in.m_pkBlockBase});
    EXPECT_EQ(in.m_pkBlockBase - out.m_pkBlockBase, 862208u);
    ASSERT_NE(kernelBlocks, program.Memory().m_InputBlocks);
    program.Memory().m_InputBlocks[511].m_Data[1519] = 0x5C;
    EXPECT_EQ(kernelBlocks[511].m_Data[1519], 0x5C);
    kernelBlocks[0].m_nAdapterId = 99;
    EXPECT_EQ(program.Memory().m_InputBlocks[0].m_nAdapterId, 99u);
}

TEST_F(RingTest, AnOutputBlockCarriesThePacket)
{
    for (const size_t size : {0u, 60u, 1514u, 1520u}) {
        const Bytes frame = Counting(size, 9);
        FilterPacket* packet = MakePacket(adapter, frame);
        packet->m_nDirection = 2;
        packet->m_nCarried[0] = 0x01020304;
        packet->m_nCarried[1] = 0x05060708;
        std::fill(std::begin(packet->m_ApplicationData), std::end(packet->m_ApplicationData), UCHAR{0xAD});
        SharedBlock& block = program.NextOutput();
        std::memset(&block, 0x5A, sizeof(block));
        EXPECT_EQ(Filter_IndicatePacketToApplication(packet, 0x1234, 0x1122334455667788),
                  FILTER_STATUS_SUCCESS);

        ASSERT_FALSE(program.IsOutputEmpty());
        EXPECT_EQ(block.m_nAdapterId, adapterId);
        EXPECT_EQ(block.m_nReserved, 0x5A5A5A5Au);
        EXPECT_EQ(block.m_nDirection, 2u);
        EXPECT_EQ(block.m_nPacketSize, size);
        EXPECT_EQ(block.m_nCarried[0], 0x01020304u);
        EXPECT_EQ(block.m_nCarried[1], 0x05060708u);
        EXPECT_EQ(block.m_nIndicateCode, 0x1234u);
        EXPECT_EQ(uint64_t{block.m_nIndicateValue}, 0x1122334455667788u);
        EXPECT_THAT(block.m_ApplicationData, Each(0xAD));
        EXPECT_EQ(Area(block, 164, size), frame);
        EXPECT_THAT(Area(block, 164 + size, 1520 - size), Each(0x5A));
        program.TakeOutput();
        EXPECT_EQ(Filter_ReleasePacket(packet), FILTER_STATUS_SUCCESS); // still its caller's
    }
    EXPECT_EQ(program.Out().m_nCount, 512 + 4);
}

// Frames of up to 1,648 bytes reach into the next block, behind the last one into the first input block.
TEST_F(RingTest, ALongPacketSpillsIntoTheNextBlockAndNotFurther)
{
    PassOutput(510);
    for (const ULONG claimed : {1648u, 5000u, 0xFFFFFFFFu}) {
        FilterPacket* packet = MakePacket(adapter, Counting(1648));
        packet->m_nPacketSize = claimed;
        SharedBlock& block = program.NextOutput();
        std::memset(&block, 0x5A, 2 * sizeof(block));
        Filter_IndicatePacketToApplication(packet, 0, 0);
        EXPECT_EQ(block.m_nPacketSize, claimed);
        EXPECT_EQ(Area(block, 164, 1648), Counting(1648));
        EXPECT_THAT(Area(block, 164 + 1648, 1684 - 128), Each(0x5A));
        program.TakeOutput();
        Filter_ReleasePacket(packet);
    }
    EXPECT_EQ(Load(program.Out().m_iWrite), 1);
}

TEST_F(RingTest, ABlockOfTheProgramTakesTheRoadOfItsDirection)
{
    struct Case {
        uint32_t direction;
        FILTER_TYPE type; // of the chain that runs, or invalid
        uint64_t toAdapter, toProtocols;
    };
    const Case cases[] = {{1, FILTER_TYPE_INJECT_TO_PROTOCOL, 0, 1},
                          {2, FILTER_TYPE_INJECT_TO_ADAPTER, 1, 0},
                          {0, FILTER_TYPE_INVALID, 0, 0},
                          {4, FILTER_TYPE_INVALID, 0, 0},
                          {0xFFFFFFFF, FILTER_TYPE_INVALID, 0, 0}};
    const Bytes frame = UdpFrame();
    for (const Case& test : cases) {
        SCOPED_TRACE(test.direction);
        TestDriver driver;
        int runs = 0;
        std::vector<std::unique_ptr<TestFilter>> filters;
        for (FILTER_TYPE type = 0; type < FILTER_TYPE_COUNT; ++type) {
            filters.push_back(
                std::make_unique<TestFilter>(driver, TestFilter::Options{.type = type}, [&, type](auto* p) {
                    ++runs;
                    EXPECT_EQ(type, test.type);
                    EXPECT_EQ(p->m_hAdapter, adapter);
                    EXPECT_EQ(p->m_nDirection, test.direction);
                    EXPECT_EQ(p->m_nPacketSize, frame.size());
                    EXPECT_EQ(p->m_nCarried[0], 11u);
                    EXPECT_EQ(p->m_nCarried[1], 12u);
                    EXPECT_EQ(p->m_nIndicateCode, 13u);
                    EXPECT_EQ(p->m_nIndicateValue, 0x1415161718191A1Bu);
                    EXPECT_THAT(p->m_ApplicationData, Each(0xAD));
                    EXPECT_EQ(p->m_pUdp, p->m_Data + 34); // parsed
                    return FILTER_RESULT_BYPASS;
                }));
        }
        const hook::Balance before = hook::TakeBalance();
        SharedBlock& block = program.NextInput();
        Fill(block, test.direction, frame);
        block.m_nCarried[0] = 11;
        block.m_nCarried[1] = 12;
        block.m_nIndicateCode = 13;
        block.m_nIndicateValue = 0x1415161718191A1B;
        std::memset(block.m_ApplicationData, 0xAD, sizeof(block.m_ApplicationData));
        const Collector up(adapter, hook::Side::Protocols), down(adapter, hook::Side::Adapter);
        program.Announce();
        ASSERT_TRUE(program.IsInputTaken());
        ASSERT_TRUE(machine::WaitIdle());
        EXPECT_EQ(runs, test.type == FILTER_TYPE_INVALID ? 0 : 1);
        EXPECT_EQ(down.Frames(), std::vector<Bytes>(test.toAdapter, frame));
        EXPECT_EQ(up.Frames(), std::vector<Bytes>(test.toProtocols, frame));
        EXPECT_EQ(hook::TakeBalance().freed - before.freed, test.type == FILTER_TYPE_INVALID ? 1u : 0u);
    }
}

// Many times around both rings, each block announced at once: none is forgotten, none overtakes another.
TEST_F(RingTest, LoopedBackBlocksArriveWholeAndInOrder)
{
    constexpr uint32_t kBlocks = 1500;
    uint32_t sent = 0, taken = 0;
    while (taken < kBlocks) {
        const uint32_t burst = std::min<uint32_t>(1 + sent % 37, kBlocks - sent);
        for (uint32_t i = 0; i < burst; ++i, ++sent) {
            Fill(program.NextInput(), NDIS_FILTER_DIRECTION_TO_APPLICATION,
                 Counting(sent % 1521, static_cast<uint8_t>(sent)));
            program.NextInput().m_nCarried[1] = sent;
            program.Announce();
        }
        for (; taken < sent; ++taken) {
            ASSERT_TRUE(program.WaitForOutput()) << taken;
            const SharedBlock& block = program.NextOutput();
            ASSERT_EQ(block.m_nCarried[1], taken);
            ASSERT_EQ(block.m_nDirection, 3u);
            ASSERT_EQ(Area(block, 164, block.m_nPacketSize),
                      Counting(taken % 1521, static_cast<uint8_t>(taken)));
            program.TakeOutput();
        }
    }
    Filter_InjectPacketFromApplication(adapter, MakePacket(adapter, UdpFrame()),
                                       3); // the same through a queue
    ASSERT_TRUE(program.WaitForOutput());
    EXPECT_EQ(program.NextOutput().m_nPacketSize, UdpFrame().size());
}

TEST_F(RingTest, AFullRingTakesNoMoreUntilTheProgramReads)
{
    for (int i = 0; i < 511; ++i) {
        ASSERT_EQ(SendSignal(), FILTER_STATUS_SUCCESS) << i;
    }
    FilterPacket* packet = MakePacket(adapter, UdpFrame());
    EXPECT_EQ(SendSignal(), FILTER_ERROR_OUT_OF_MEMORY);
    EXPECT_EQ(Filter_IndicatePacketToApplication(packet, 0, 0), FILTER_STATUS_SUCCESS); // nobody looks at it
    EXPECT_EQ(program.Out().m_iWrite, 511);
    EXPECT_EQ(program.Out().m_nCount, 512 + 511);
    program.TakeOutput();
    EXPECT_EQ(Filter_IndicatePacketToApplication(packet, 0, 0), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(SendSignal(), FILTER_ERROR_OUT_OF_MEMORY);
    EXPECT_EQ(program.Out().m_iWrite, 0);
    EXPECT_EQ(program.Memory().m_OutputBlocks[511].m_nPacketSize, UdpFrame().size());
    Filter_ReleasePacket(packet);
}

TEST_F(RingTest, AWriteToAFullRingWakesTheParkedReadToo)
{
    FilterPacket* packet = MakePacket(adapter, UdpFrame());
    for (const bool signal : {true, false}) {
        machine::Request read = program.Read();
        EXPECT_FALSE(read.IsComplete());
        Store(program.Out().m_iRead, 1); // full from here on
        if (signal) {
            EXPECT_EQ(SendSignal(), FILTER_ERROR_OUT_OF_MEMORY);
        } else {
            EXPECT_EQ(Filter_IndicatePacketToApplication(packet, 0, 0), FILTER_STATUS_SUCCESS);
        }
        EXPECT_EQ(ResultOf(read).status, STATUS_SUCCESS);
        Store(program.Out().m_iRead, 0);
        EXPECT_TRUE(program.IsOutputEmpty());
    }
    Filter_ReleasePacket(packet);
}

TEST_F(RingTest, ASignalIsCopiedRawAndReachesIntoTheNextBlock)
{
    Signal signal;
    for (const int index : {0, 511}) {
        PassOutput(index);
        std::generate(signal.begin(), signal.end(), [n = uint8_t{1}]() mutable { return n++; });
        SharedBlock& block = program.NextOutput();
        std::memset(&block, 0x5A, 2 * sizeof(block)); // behind the last output block: the first input block
        EXPECT_EQ(Filter_IndicateSignalToApplication(signal.data()), FILTER_STATUS_SUCCESS);
        EXPECT_THAT(Bytes(signal.begin() + 12, signal.begin() + 16),
                    Each(0)); // in the caller's record as well
        EXPECT_EQ(Area(block, 0, signal.size()), Bytes(signal.begin(), signal.end()));
        EXPECT_EQ(signal[11], 12);
        EXPECT_EQ(signal[16], 17);
        EXPECT_THAT(Area(block, signal.size(), 2 * 1684 - signal.size()), Each(0x5A));
        program.TakeOutput();
    }
    EXPECT_EQ(Filter_IndicateSignalToApplication(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Filter_IndicateSignalToApplication(Unreadable<void>()), FILTER_ERROR_EXCEPTION);
    ExpectNoLockHeld("after a faulting signal");
}

TEST_F(RingTest, ARefusedBlockStaysUntilTheProgramMendsIt)
{
    struct Case {
        uint32_t adapterId, size;
    };
    const Case cases[] = {{0, 60},           {adapterId + 1, 60},     {0xFFFFFFFF, 60},
                          {adapterId, 1649}, {adapterId, 0x80000000}, {adapterId, 0xFFFFFFFF}};
    for (const Case& test : cases) {
        SharedBlock& block = program.NextInput();
        Fill(block, NDIS_FILTER_DIRECTION_TO_ADAPTER, UdpFrame());
        block.m_nAdapterId = test.adapterId;
        block.m_nPacketSize = test.size;
        const int32_t before = Load(program.In().m_iRead);
        const hook::Balance balance = hook::TakeBalance();
        program.Announce();
        ASSERT_TRUE(machine::WaitIdle());
        EXPECT_EQ(Load(program.In().m_iRead), before) << test.adapterId << " " << test.size;
        EXPECT_EQ(hook::TakeBalance(), balance);

        Fill(block, NDIS_FILTER_DIRECTION_TO_ADAPTER, UdpFrame());
        program.AnnounceOnly();
        EXPECT_TRUE(program.IsInputTaken());
        ASSERT_TRUE(machine::WaitIdle());
    }
}

TEST_F(RingTest, AFrameLongerThanItsBlockContinuesInTheNextAndEndsWithTheArea)
{
    for (const int index : {3, 511}) {
        for (const size_t size : {1521u, 1600u, 1648u}) {
            Store(program.In().m_iRead, index);
            Store(program.In().m_iWrite, index);
            Bytes expected = Counting(size, 1);
            if (index == 511) { // behind the last block of the area there is nothing
                Fill(program.NextInput(), NDIS_FILTER_DIRECTION_TO_ADAPTER, Counting(1520, 1));
                program.NextInput().m_nPacketSize = static_cast<uint32_t>(size);
                std::fill(expected.begin() + 1520, expected.end(), uint8_t{0});
            } else {
                Fill(program.NextInput(), NDIS_FILTER_DIRECTION_TO_ADAPTER, expected);
            }
            const Collector down(adapter, hook::Side::Adapter);
            program.Announce();
            ASSERT_TRUE(down.WaitFor(1));
            ASSERT_TRUE(machine::WaitIdle());
            EXPECT_THAT(down.Frames(), ElementsAre(expected)) << index << " " << size;
        }
    }
}

TEST_F(RingTest, WithoutAPacketTheBlockWaitsForTheNextAnnouncement)
{
    ASSERT_EQ(hook::Unbind(), STATUS_SUCCESS);
    Fill(program.NextInput(), NDIS_FILTER_DIRECTION_TO_ADAPTER, UdpFrame());
    program.Announce();
    ASSERT_TRUE(machine::WaitIdle());
    EXPECT_EQ(Load(program.In().m_iRead), 0);
    ASSERT_EQ(hook::Bind(), STATUS_SUCCESS);
    program.AnnounceOnly();
    EXPECT_TRUE(program.IsInputTaken());
    ASSERT_TRUE(machine::WaitIdle());
    EXPECT_EQ(hook::TakeBalance().deliveredToAdapter, 1u);
}

} // namespace
