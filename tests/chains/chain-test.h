// A chain of filters with packets entering each of the four chains as they do in life.
#pragma once

#include <support/adapter-test.h>

namespace chains
{

using Counters = std::array<uint32_t, 5>; // processed, then bypass, discard, consume, capture

struct ChainTest : support::AdapterTest {
    // A filter's counters as its dump shows them.
    Counters CountersOf(const support::TestFilter& filter) { return CountersOf(filter.Handle()); }
    Counters CountersOf(PacketFilter* filter)
    {
        Debug().Take();
        Filter_ShowFilter(filter, 0);
        const std::string text = Debug().Take();
        const auto value = [&](const char* name) {
            const size_t number = text.find("= ", text.find(name));
            return number == std::string::npos ? ~0u
                                               : static_cast<uint32_t>(std::stoul(text.substr(number + 2)));
        };
        return {value("m_PacketProcess"), value("m_PacketBypass"), value("m_PacketDiscard"),
                value("m_PacketConsume"), value("m_PacketCapture")};
    }

    // A packet enters the chain of a type from where such packets come.
    void Enter(FILTER_TYPE type, const support::Bytes& frame = support::UdpFrame())
    {
        if (type == FILTER_TYPE_INCOMING_PACKET || type == FILTER_TYPE_OUTGOING_PACKET) {
            const auto deliver = GoesToAdapter(type) ? hook::DeliverSent : hook::DeliverReceived;
            EXPECT_EQ(deliver(adapter, frame, {}), hook::Accepted::Yes);
        } else {
            const auto inject =
                GoesToAdapter(type) ? Filter_InjectPacketToAdapter : Filter_IndicatePacketToProtocol;
            EXPECT_EQ(inject(adapter, support::MakePacket(adapter, frame)), FILTER_STATUS_SUCCESS);
        }
    }

    static bool GoesToAdapter(FILTER_TYPE type)
    {
        return type == FILTER_TYPE_OUTGOING_PACKET || type == FILTER_TYPE_INJECT_TO_ADAPTER;
    }

    static support::Outcome Delivered(FILTER_TYPE type)
    {
        return GoesToAdapter(type) ? support::kToAdapter : support::kToProtocols;
    }
};

} // namespace chains
