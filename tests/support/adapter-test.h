// Tests with one open adapter: what they ask of the balance of packets, and filters that report who ran.
#pragma once

#include "framework.h"

#include <array>

namespace support
{

// A new packet that holds the frame, with its headers parsed; null, and a failed test, without one.
inline FilterPacket* MakePacket(FilterAdapter* adapter, const Bytes& frame)
{
    FilterPacket* packet = Filter_AllocatePacket(adapter);
    EXPECT_NE(packet, nullptr);
    if (packet != nullptr) {
        std::copy(frame.begin(), frame.end(), packet->m_Data);
        packet->m_nBytesRead = packet->m_nPacketSize = static_cast<ULONG>(frame.size());
        Filter_InitPacketHeader(packet, nullptr);
    }
    return packet;
}

// How many packets were delivered to the adapter, to the protocols, released, and refused by the hook driver.
using Outcome = std::array<uint64_t, 4>;
inline constexpr Outcome kNothing = {}, kToAdapter = {1, 0, 0, 0}, kToProtocols = {0, 1, 0, 0};
inline constexpr Outcome kReleased = {0, 0, 1, 0}, kRefused = {0, 0, 0, 1};

// All packets must have ended when the test does.
class AdapterTest : public FrameworkTest
{
  protected:
    void SetUp() override
    {
        FrameworkTest::SetUp();
        adapter = AddAdapter();
    }

    void TearDown() override
    {
        EXPECT_TRUE(machine::WaitIdle());
        EXPECT_TRUE(hook::TakeBalance().IsEven());
        EXPECT_EQ(hook::TakeBalance().outstanding, mayStayOut);
        FrameworkTest::TearDown();
    }

    // Of the packets that ended while `action` ran.
    template <class Action>
    static Outcome OutcomeOf(const Action& action)
    {
        const hook::Balance before = hook::TakeBalance();
        action();
        const hook::Balance after = hook::TakeBalance();
        return {after.deliveredToAdapter - before.deliveredToAdapter,
                after.deliveredToProtocols - before.deliveredToProtocols, after.freed - before.freed,
                after.refused - before.refused};
    }

    FilterPacket* AnyPacket() const { return MakePacket(adapter, UdpFrame()); }

    FilterAdapter* adapter = nullptr;
    uint64_t mayStayOut = 0;
};

// Bypasses, and adds its name to what has run.
inline TestFilter::Procedure Noting(std::string& runs, char name)
{
    return [&runs, name](FilterPacket*) {
        runs += name;
        return FILTER_RESULT_BYPASS;
    };
}

// A filter in each of the four chains, which tells its type.
class EveryChain
{
  public:
    explicit EveryChain(const std::function<void(FILTER_TYPE, FilterPacket*)>& note)
    {
        for (FILTER_TYPE type = 0; type < FILTER_TYPE_COUNT; ++type) {
            filters_.push_back(
                std::make_unique<TestFilter>(driver_, TestFilter::Options{.type = type}, [=](auto* packet) {
                    note(type, packet);
                    return FILTER_RESULT_BYPASS;
                }));
        }
    }
    PacketFilter* operator[](FILTER_TYPE type) const { return filters_[static_cast<size_t>(type)]->Handle(); }

  private:
    TestDriver driver_;
    std::vector<std::unique_ptr<TestFilter>> filters_;
};

} // namespace support
