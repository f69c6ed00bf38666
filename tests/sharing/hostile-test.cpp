// A program that writes what it likes into the shared memory, at any moment.
#include "program.h"

#include <limits>

using namespace sharing;
using namespace support;

namespace
{

struct HostileTest : SharedTest {
    // Both rings are empty from here on, and work.
    void Repair()
    {
        StartRingsAt(0);
        ExpectLoopBack(program);
        StartRingsAt(0);
    }
};

constexpr int32_t kSpoilt[] = {-1, 512, std::numeric_limits<int32_t>::min(),
                               std::numeric_limits<int32_t>::max()};

TEST_F(HostileTest, AnIndexOutsideTheInputRingMakesItReadAsEmpty)
{
    for (int32_t* index : {&program.In().m_iRead, &program.In().m_iWrite}) {
        for (const int32_t value : kSpoilt) {
            Fill(program.Memory().m_InputBlocks[0], NDIS_FILTER_DIRECTION_TO_ADAPTER, UdpFrame());
            Store(*index, value);
            const hook::Balance before = hook::TakeBalance();
            EXPECT_EQ(program.AnnounceOnly().status, STATUS_SUCCESS);
            ASSERT_TRUE(machine::WaitIdle());
            EXPECT_EQ(hook::TakeBalance(), before) << value;
            EXPECT_EQ(Load(*index), value);
            Repair();
        }
    }
}

TEST_F(HostileTest, AnIndexOutsideTheOutputRingMakesItReadAsFull)
{
    for (int32_t* index : {&program.Out().m_iRead, &program.Out().m_iWrite}) {
        for (const int32_t value : kSpoilt) {
            machine::Request read = program.Read();
            EXPECT_FALSE(read.IsComplete());
            Store(*index, value);
            const int32_t count = Load(program.Out().m_nCount);
            EXPECT_EQ(SendSignal(), FILTER_ERROR_OUT_OF_MEMORY) << value;
            Indicate();
            EXPECT_EQ(ResultOf(read).status, STATUS_SUCCESS) << value;
            EXPECT_EQ(program.ReadNow(), STATUS_SUCCESS);
            EXPECT_EQ(Load(*index), value);
            EXPECT_EQ(Load(program.Out().m_nCount), count);
            StartRingAt(program.Out(), value); // not empty either
            EXPECT_EQ(program.ReadNow(), STATUS_SUCCESS);
            Repair();
        }
    }
}

// The framework uses none of these once the memory is shared.
TEST_F(HostileTest, TheOtherFieldsOfTheMappingSteerNothing)
{
    MappedMemory& mapping = program.Mapping();
    mapping.m_pUserModeVirtualAddress = 0x1234;
    mapping.m_pMdl = 0x5678;
    mapping.m_nSize = 1;
    for (SharedRing* ring : {&program.In(), &program.Out()}) {
        ring->m_iBlockSize = 1 << 20;
        ring->m_iBlockCount = 0;
        ring->m_iBaseOffset = -1;
        ring->m_puBlockBase = 0x9ABC;
        ring->m_pkBlockBase = 0x10;
        ring->m_nCount = -5; // the framework counts for itself
    }
    ExpectLoopBack(program);
    EXPECT_EQ(Load(program.Out().m_nCount), NDIS_FILTER_BLOCK_COUNT + 1);
    EXPECT_EQ(program.Stop().status, STATUS_SUCCESS);
    ASSERT_NE(program.Start(), NDIS_FILTER_SHARE_FAILED);
    ExpectLoopBack(program);
}

// What the program finds at the very moment of the announcement.
TEST_F(HostileTest, ABlockIsWholeWhenItIsAnnounced)
{
    if (!machine::ChecksSharedAccess()) {
        GTEST_SKIP() << "NOT CHECKED: this build tells nobody of the driver's accesses";
    }
    static const SharedBlock* block;
    static Bytes found;
    block = &program.NextOutput();
    machine::ObserveSharedAccess([](machine::SharedAccess access, const volatile void*, size_t) {
        if (access == machine::SharedAccess::Announce) {
            found.assign(block->m_Data, block->m_Data + UdpFrame().size());
        }
    });
    Indicate();
    machine::ObserveSharedAccess(nullptr);
    EXPECT_EQ(found, UdpFrame());
}

} // namespace
