// Blocks on their way through the two rings, as the program sees them.
#include "program.h"

using namespace sharing;
using namespace support;
using testing::Each;
using testing::ElementsAre;

namespace
{

constexpr size_t kData = offsetof(SharedBlock, m_Data);

// The bytes of the area from a block on, also behind its end.
Bytes Area(const SharedBlock& block, size_t offset, size_t size)
{
    const uint8_t* start = reinterpret_cast<const uint8_t*>(&block) + offset;
    return Bytes(start, start + size);
}

using RingTest = SharedTest;

TEST_F(RingTest, TheProgramFindsTheRingsLaidOut)
{
    const SharedRing& out = program.Out();
    const SharedRing& in = program.In();
    const auto figures = [](const SharedRing& ring) {
        EXPECT_EQ(uint64_t{ring.m_puBlockBase}, 0u);
        return std::array<int32_t, 6>{ring.m_iBlockSize, ring.m_iBlockCount, ring.m_iBaseOffset,
                                      ring.m_iRead,      ring.m_iWrite,      ring.m_nCount};
    };
    EXPECT_THAT(figures(out), ElementsAre(1684, 512, 0, 0, 0, 512));
    EXPECT_THAT(figures(in), ElementsAre(1684, 512, 862208, 0, 0, 512));
    EXPECT_EQ(in.m_pkBlockBase - out.m_pkBlockBase, 862208u);
    EXPECT_EQ(uint64_t{program.Mapping().m_pUserModeVirtualAddress},
              reinterpret_cast<uint64_t>(&program.Mapping()));
}

TEST_F(RingTest, AnOutputBlockCarriesThePacket)
{
    FilterPacket* packet = MakePacket(adapter, Counting(1520, 9));
    packet->m_nDirection = 2;
    packet->m_nCarried[0] = 0x01020304;
    packet->m_nCarried[1] = 0x05060708;
    std::fill(std::begin(packet->m_ApplicationData), std::end(packet->m_ApplicationData), UCHAR{0xAD});
    for (const uint32_t size : {0u, 60u, 1520u}) {
        packet->m_nPacketSize = size;
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
        EXPECT_EQ(Area(block, kData, size), Counting(size, 9));
        EXPECT_THAT(Area(block, kData + size, 1520 - size), Each(0x5A));
        program.TakeOutput();
    }
    EXPECT_EQ(program.Out().m_nCount, 512 + 3);
    EXPECT_EQ(Filter_ReleasePacket(packet), FILTER_STATUS_SUCCESS); // still its caller's
}

// Up to 1,648 bytes reach into the next block, behind the last output block into the first input block.
TEST_F(RingTest, ALongPacketSpillsIntoTheNextBlockAndNotFurther)
{
    StartRingsAt(510);
    for (const ULONG claimed : {1648u, 0xFFFFFFFFu}) {
        FilterPacket* packet = MakePacket(adapter, Counting(1648));
        packet->m_nPacketSize = claimed;
        SharedBlock& block = program.NextOutput();
        std::memset(&block, 0x5A, 2 * sizeof(block));
        Filter_IndicatePacketToApplication(packet, 0, 0);
        EXPECT_EQ(block.m_nPacketSize, claimed);
        EXPECT_EQ(Area(block, kData, 1648), Counting(1648));
        EXPECT_THAT(Area(block, kData + 1648, 1684 - 128), Each(0x5A));
        program.TakeOutput();
        Filter_ReleasePacket(packet);
    }
    EXPECT_EQ(Load(program.Out().m_iWrite), 0);
}

TEST_F(RingTest, ASignalIsCopiedRawAndReachesIntoTheNextBlock)
{
    for (const int index : {0, 511}) {
        StartRingsAt(index);
        Bytes signal = Counting(NDIS_FILTER_SIGNAL_SIZE, 1), expected = signal;
        std::fill_n(expected.begin() + 12, 4, uint8_t{0});
        SharedBlock& block = program.NextOutput();
        std::memset(&block, 0x5A, 2 * sizeof(block));
        EXPECT_EQ(Filter_IndicateSignalToApplication(signal.data()), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(signal, expected); // in the caller's record as well
        EXPECT_EQ(Area(block, 0, signal.size()), expected);
        EXPECT_THAT(Area(block, signal.size(), 2 * 1684 - signal.size()), Each(0x5A));
    }
}

TEST_F(RingTest, WhatEndsInUnreadableMemoryFaultsWithoutALock)
{
    auto* const pages = static_cast<uint8_t*>(
        mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_EQ(mprotect(pages + 4096, 4096, PROT_NONE), 0);
    auto* const packet = reinterpret_cast<FilterPacket*>(pages + 4096 - offsetof(FilterPacket, m_Data));
    packet->m_hAdapter = adapter;
    packet->m_nPacketSize = 60;
    EXPECT_EQ(Filter_IndicatePacketToApplication(packet, 0, 0), FILTER_ERROR_EXCEPTION);
    ExpectNoLockHeld("after a faulting packet");
    EXPECT_EQ(Filter_IndicateSignalToApplication(pages + 4096 - 64), FILTER_ERROR_EXCEPTION);
    ExpectNoLockHeld("after a faulting signal");
    EXPECT_TRUE(program.IsOutputEmpty());
    munmap(pages, 8192);
}

TEST_F(RingTest, ABlockOfTheProgramTakesTheRoadOfItsDirection)
{
    std::map<FILTER_TYPE, int> runs;
    uint32_t direction = 0;
    const Bytes frame = UdpFrame();
    const EveryChain filters([&](FILTER_TYPE type, FilterPacket* p) {
        ++runs[type];
        EXPECT_EQ(p->m_hAdapter, adapter);
        EXPECT_EQ(p->m_nDirection, direction);
        EXPECT_EQ(p->m_nPacketSize, frame.size());
        EXPECT_EQ(p->m_nCarried[0], 11u);
        EXPECT_EQ(p->m_nCarried[1], 12u);
        EXPECT_EQ(p->m_nIndicateCode, 13u);
        EXPECT_EQ(p->m_nIndicateValue, 0x1415161718191A1Bu);
        EXPECT_THAT(p->m_ApplicationData, Each(0xAD));
        EXPECT_EQ(p->m_pUdp, p->m_Data + 34); // parsed
    });
    const Collector up(adapter, hook::Side::Protocols), down(adapter, hook::Side::Adapter);
    for (const auto& [value, outcome] : std::vector<std::pair<uint32_t, Outcome>>{
             {1, kToProtocols}, {2, kToAdapter}, {0, kReleased}, {4, kReleased}, {0xFFFFFFFF, kReleased}}) {
        SharedBlock& block = program.NextInput();
        direction = value;
        Fill(block, direction, frame);
        block.m_nCarried[0] = 11;
        block.m_nCarried[1] = 12;
        block.m_nIndicateCode = 13;
        block.m_nIndicateValue = 0x1415161718191A1B;
        std::memset(block.m_ApplicationData, 0xAD, sizeof(block.m_ApplicationData));
        EXPECT_EQ(OutcomeOf([&] { program.Pass(); }), outcome) << direction;
    }
    EXPECT_THAT(runs, ElementsAre(std::pair(FILTER_TYPE_INJECT_TO_ADAPTER, 1),
                                  std::pair(FILTER_TYPE_INJECT_TO_PROTOCOL, 1)));
    EXPECT_THAT(down.Frames(), ElementsAre(frame));
    EXPECT_THAT(up.Frames(), ElementsAre(frame));
}

// Many times around both rings, each block announced at once: none is forgotten, none overtakes another.
TEST_F(RingTest, LoopedBackBlocksArriveWholeAndInOrder)
{
    constexpr uint32_t kBlocks = 1500;
    const auto frame = [](uint32_t n) { return Counting(n % 1521, static_cast<uint8_t>(n)); };
    for (uint32_t sent = 0, taken = 0; taken < kBlocks;) {
        for (const uint32_t end = std::min(sent + 1 + sent % 37, kBlocks); sent < end; ++sent) {
            Fill(program.NextInput(), NDIS_FILTER_DIRECTION_TO_APPLICATION, frame(sent));
            program.NextInput().m_nCarried[1] = sent;
            program.Announce();
        }
        for (; taken < sent; ++taken) {
            ASSERT_TRUE(program.WaitForOutput()) << taken;
            const SharedBlock& block = program.NextOutput();
            ASSERT_EQ(block.m_nCarried[1], taken);
            ASSERT_EQ(block.m_nDirection, 3u);
            ASSERT_EQ(Area(block, kData, block.m_nPacketSize), frame(taken));
            program.TakeOutput();
        }
    }
    Filter_InjectPacketFromApplication(adapter, AnyPacket(), 3); // the same through a queue
    ASSERT_TRUE(program.WaitForOutput());
    EXPECT_EQ(program.NextOutput().m_nPacketSize, UdpFrame().size());
}

TEST_F(RingTest, AFullRingTakesNoMoreUntilTheProgramReadsButWakesIt)
{
    for (const bool signal : {true, false}) {
        machine::Request read = program.Read();
        EXPECT_FALSE(read.IsComplete());
        Store(program.Out().m_iRead, 1); // full from here on
        if (signal) {
            EXPECT_EQ(SendSignal(), FILTER_ERROR_OUT_OF_MEMORY);
        } else {
            Indicate();
        }
        EXPECT_EQ(ResultOf(read).status, STATUS_SUCCESS);
        Store(program.Out().m_iRead, 0);
        EXPECT_TRUE(program.IsOutputEmpty());
    }
    for (int i = 0; i < 511; ++i) {
        ASSERT_EQ(SendSignal(), FILTER_STATUS_SUCCESS) << i;
    }
    EXPECT_EQ(SendSignal(), FILTER_ERROR_OUT_OF_MEMORY);
    Indicate(); // nobody looks at it
    EXPECT_EQ(program.Out().m_iWrite, 511);
    EXPECT_EQ(program.Out().m_nCount, 512 + 511);
    program.TakeOutput();
    Indicate();
    EXPECT_EQ(SendSignal(), FILTER_ERROR_OUT_OF_MEMORY);
    EXPECT_EQ(program.Out().m_iWrite, 0);
    EXPECT_EQ(program.Memory().m_OutputBlocks[511].m_nPacketSize, UdpFrame().size());
}

TEST_F(RingTest, ARefusedBlockStaysUntilTheNextAnnouncement)
{
    const std::pair<uint32_t, uint32_t> cases[] = {
        {0, 60},           {adapterId + 1, 60},     {0xFFFFFFFF, 60},
        {adapterId, 1649}, {adapterId, 0x80000000}, {adapterId, 0xFFFFFFFF},
        {adapterId, 60}, // refused for want of a packet
    };
    for (const auto& [id, size] : cases) {
        SharedBlock& block = program.NextInput();
        Fill(block, NDIS_FILTER_DIRECTION_TO_ADAPTER, UdpFrame());
        block.m_nAdapterId = id;
        block.m_nPacketSize = size;
        const int32_t before = Load(program.In().m_iRead);
        if (id == adapterId && size == 60) {
            ASSERT_EQ(hook::Unbind(), STATUS_SUCCESS);
        }
        program.Announce();
        ASSERT_TRUE(machine::WaitIdle());
        EXPECT_EQ(Load(program.In().m_iRead), before) << id << " " << size;
        ASSERT_EQ(hook::Bind(), STATUS_SUCCESS);
        Fill(block, NDIS_FILTER_DIRECTION_TO_ADAPTER, UdpFrame()); // mended
        program.AnnounceOnly();
        EXPECT_TRUE(program.IsInputTaken());
    }
    ASSERT_TRUE(machine::WaitIdle());
    EXPECT_EQ(hook::TakeBalance().deliveredToAdapter, std::size(cases));
    EXPECT_EQ(hook::TakeBalance().Born(), std::size(cases));
}

TEST_F(RingTest, AFrameLongerThanItsBlockContinuesInTheNextAndEndsWithTheArea)
{
    for (const int index : {3, 511}) {
        for (const uint32_t size : {1521u, 1648u}) {
            StartRingsAt(index);
            Bytes expected = Counting(size, 1);
            const bool isLast = index == 511; // behind it there is nothing
            Fill(program.NextInput(), NDIS_FILTER_DIRECTION_TO_ADAPTER, Counting(isLast ? 1520 : size, 1));
            program.NextInput().m_nPacketSize = size;
            std::fill(expected.begin() + (isLast ? 1520 : size), expected.end(), uint8_t{0});
            const Collector down(adapter, hook::Side::Adapter);
            program.Pass();
            EXPECT_THAT(down.Frames(), ElementsAre(expected)) << index << " " << size;
        }
    }
}

} // namespace
