// A program that writes what it likes into the shared memory, at any moment.
#include "program.h"

#include <algorithm>
#include <atomic>
#include <random>
#include <thread>

using namespace sharing;
using namespace support;

namespace
{

class HostileTest : public SharedTest
{
  protected:
    void Repair()
    {
        for (int32_t* index : {&program.In().m_iRead, &program.In().m_iWrite, &program.Out().m_iRead,
                               &program.Out().m_iWrite}) {
            Store(*index, 0);
        }
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
            ExpectLoopBack(program);
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
            Store(program.Out().m_iRead, value); // both alike: not empty either
            Store(program.Out().m_iWrite, value);
            EXPECT_EQ(program.ReadNow(), STATUS_SUCCESS);
            Repair();
            ExpectLoopBack(program);
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
    EXPECT_EQ(found, machine::ChecksSharedAccess() ? UdpFrame() : Bytes());
}

TEST_F(HostileTest, ScribblingDisturbsNoOtherTraffic)
{
    constexpr uint32_t kFrames = 4000;
    const Bytes frame = UdpFrame(1, 2, Counting(500));
    TestDriver driver;
    const TestFilter filter(driver, {}, [](FilterPacket* packet) {
        Filter_IndicatePacketToApplication(packet, 1, 2);
        return FILTER_RESULT_BYPASS;
    });
    std::atomic<uint32_t> whole{0};
    hook::SetSink(
        adapter, hook::Side::Protocols, [&](std::span<const uint8_t> out, const hook::Delivery& delivery) {
            whole += delivery.origin == hook::Origin::Received && std::ranges::equal(out, frame) ? 1 : 0;
        });
    std::jthread scribbler([&](std::stop_token stop) {
        std::mt19937 random(4711);
        const auto write = [](void* base, size_t word, uint32_t value) {
            __atomic_store_n(static_cast<uint32_t*>(base) + word, value, __ATOMIC_RELAXED);
        };
        while (!stop.stop_requested()) {
            write(&program.Mapping(), random() % (NDIS_FILTER_MAPPED_MEMORY_SIZE / 4), random());
            for (const int place : {7, 8, 17, 18}) { // the four indexes, mostly good
                write(&program.Memory(), place, random() % 520);
            }
            SharedBlock* const block = &program.Memory().m_InputBlocks[random() % 512];
            write(block, 0, adapterId);
            write(block, 2, random() % 5);
            write(block, 3, random() % 8 == 0 ? random() : random() % 1700);
        }
    });
    std::jthread requests([&](std::stop_token stop) {
        while (!stop.stop_requested()) {
            machine::Request read = program.Read();
            program.AnnounceOnly();
            read.Cancel();
            EXPECT_TRUE(read.Wait().has_value());
        }
    });
    for (uint32_t i = 0; i < kFrames; ++i) {
        EXPECT_EQ(hook::DeliverReceived(adapter, frame), hook::Accepted::Yes);
        SendSignal();
    }
    for (std::jthread* thread : {&scribbler, &requests}) {
        thread->request_stop();
        thread->join();
    }
    ASSERT_TRUE(machine::WaitIdle());
    Repair();
    EXPECT_EQ(whole, kFrames);
    hook::SetSink(adapter, hook::Side::Protocols, {});
    ExpectLoopBack(program);
}

} // namespace
