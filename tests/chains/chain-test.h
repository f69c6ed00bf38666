// A chain of filters with packets entering each of the four chains as they do in life.
#pragma once

#include <support/packet.h>

namespace chains
{

struct Counters {
    uint32_t process = 0, bypass = 0, discard = 0, consume = 0, capture = 0;
    bool operator==(const Counters&) const = default;
};

inline void PrintTo(const Counters& counters, std::ostream* stream)
{
    *stream << counters.process << " processed: " << counters.bypass << " bypass, " << counters.discard
            << " discard, " << counters.consume << " consume, " << counters.capture << " capture";
}

inline constexpr FILTER_TYPE kTypes[] = {FILTER_TYPE_INCOMING_PACKET, FILTER_TYPE_OUTGOING_PACKET,
                                         FILTER_TYPE_INJECT_TO_ADAPTER, FILTER_TYPE_INJECT_TO_PROTOCOL};

class ChainTest : public support::FrameworkTest
{
  protected:
    using FrameworkTest::FrameworkTest;

    void SetUp() override
    {
        FrameworkTest::SetUp();
        adapter = AddAdapter();
    }

    void TearDown() override
    {
        EXPECT_TRUE(hook::TakeBalance().IsEven());
        EXPECT_EQ(hook::TakeBalance().outstanding, 0u);
        FrameworkTest::TearDown();
    }

    // A filter's counters as its dump shows them.
    Counters CountersOf(const support::TestFilter& filter) { return CountersOf(filter.Handle()); }
    Counters CountersOf(PacketFilter* filter)
    {
        Debug().Take();
        Filter_ShowFilter(filter, 0);
        const std::string text = Debug().Take();
        const auto value = [&](const char* name) {
            const size_t place = text.find(name);
            EXPECT_NE(place, std::string::npos) << name << " in " << text;
            const size_t number = text.find("= ", place);
            return number == std::string::npos ? ~0u
                                               : static_cast<uint32_t>(std::stoul(text.substr(number + 2)));
        };
        return {value("m_PacketProcess"), value("m_PacketBypass"), value("m_PacketDiscard"),
                value("m_PacketConsume"), value("m_PacketCapture")};
    }

    // A packet enters the chain of a type from where such packets come.
    void Enter(FILTER_TYPE type, const support::Bytes& frame)
    {
        switch (type) {
        case FILTER_TYPE_INCOMING_PACKET:
            EXPECT_EQ(hook::DeliverReceived(adapter, frame), hook::Accepted::Yes);
            break;
        case FILTER_TYPE_OUTGOING_PACKET:
            EXPECT_EQ(hook::DeliverSent(adapter, frame), hook::Accepted::Yes);
            break;
        case FILTER_TYPE_INJECT_TO_ADAPTER:
            EXPECT_EQ(Filter_InjectPacketToAdapter(adapter, support::MakePacket(adapter, frame)), 0);
            break;
        default:
            EXPECT_EQ(Filter_IndicatePacketToProtocol(adapter, support::MakePacket(adapter, frame)), 0);
            break;
        }
    }

    static bool GoesToAdapter(FILTER_TYPE type)
    {
        return type == FILTER_TYPE_OUTGOING_PACKET || type == FILTER_TYPE_INJECT_TO_ADAPTER;
    }

    // How many packets have gone out on the side that a type's packets go to.
    static uint64_t Delivered(FILTER_TYPE type)
    {
        const hook::Balance balance = hook::TakeBalance();
        return GoesToAdapter(type) ? balance.deliveredToAdapter : balance.deliveredToProtocols;
    }

    FilterAdapter* adapter = nullptr;
};

inline std::string ExceptionLine(const char* function, int32_t code, const FilterPacket* packet)
{
    return std::string("  ") + function + ": exception, code = " + std::to_string(code) +
           ", pPacket=" + support::PointerText(packet) + "\n";
}

} // namespace chains
