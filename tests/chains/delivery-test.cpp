// The end of the road: what a client is told about a delivery, and that a failing one loses no packet.
#include "chain-test.h"

using namespace chains;
using namespace support;
using testing::ElementsAre;

namespace
{

// The four operations that deliver at once, the first two without filters.
struct Operation {
    const char* name;
    FILTER_STATUS (*run)(FilterAdapter*, FilterPacket*);
    hook::Side side;
    bool reportsDelivery; // its status is the delivery's own
    const char* exceptionName;
};
const Operation kOperations[] = {
    {"to adapter, at once", Filter_InjectPacketToAdapterEx, hook::Side::Adapter, true,
     "Filter_InjectPacketToAdapterEx"},
    {"to protocols, at once", Filter_IndicatePacketToProtocolEx, hook::Side::Protocols, true,
     "Filter_InjectPacketToProtocolEx"},
    {"to adapter", Filter_InjectPacketToAdapter, hook::Side::Adapter, false,
     "Filter_InjectPacketToAdapterEx"},
    {"to protocols", Filter_IndicatePacketToProtocol, hook::Side::Protocols, false,
     "Filter_InjectPacketToProtocolEx"},
};

class DeliveryTest : public ChainTest
{};

TEST_F(DeliveryTest, EachOutcomeHasItsStatusAndPlaceInTheBalance)
{
    for (const Operation& operation : kOperations) {
        SCOPED_TRACE(operation.name);
        const auto run = [&](FilterAdapter* target) {
            return operation.run(target, MakePacket(nullptr, UdpFrame()));
        };
        const auto status = [&](FILTER_STATUS own) {
            return operation.reportsDelivery ? own : FILTER_STATUS_SUCCESS;
        };
        const hook::Balance before = hook::TakeBalance();
        EXPECT_EQ(operation.run(adapter, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
        EXPECT_EQ(run(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
        EXPECT_EQ(hook::TakeBalance().freed - before.freed, 1u);
        {
            const Collector out(adapter, operation.side);
            EXPECT_EQ(run(adapter), FILTER_STATUS_SUCCESS);
            EXPECT_THAT(out.Frames(), ElementsAre(UdpFrame()));
        }
        hook::SetBehaviour(adapter, operation.side, hook::Behaviour::Refuse);
        EXPECT_EQ(run(adapter), status(FILTER_ERROR_INTERNAL_ERROR));
        EXPECT_EQ(hook::TakeBalance().refused - before.refused, 1u);
        EXPECT_EQ(hook::TakeBalance().freed - before.freed,
                  1u); // the hook driver took it; it is not released again

        hook::SetBehaviour(adapter, operation.side, hook::Behaviour::Fault);
        Debug().Take();
        EXPECT_EQ(run(adapter), status(FILTER_ERROR_EXCEPTION));
        EXPECT_EQ(Debug().Take(), operation.exceptionName + std::string(": exception, code = -1073741819\n"));
        ExpectNoLockHeld("after a faulting delivery");
        EXPECT_EQ(hook::TakeBalance().outstanding, 0u);
        hook::SetBehaviour(adapter, operation.side, hook::Behaviour::Accept);
    }
}

TEST_F(DeliveryTest, WithoutAHookDriverThePacketIsReleased)
{
    const hook::Function functions[] = {hook::Function::InjectPacketToAdapter,
                                        hook::Function::InjectPacketToProtocol};
    ASSERT_EQ(hook::Unbind(), STATUS_SUCCESS);
    ASSERT_EQ(hook::Bind({.without = {functions[0], functions[1]}}), STATUS_SUCCESS);
    for (const Operation& operation : kOperations) {
        const hook::Balance before = hook::TakeBalance();
        const FILTER_STATUS status = operation.run(adapter, MakePacket(adapter, UdpFrame()));
        EXPECT_EQ(status,
                  operation.reportsDelivery ? FILTER_ERROR_INTERFACE_NOT_ACTIVE : FILTER_STATUS_SUCCESS);
        EXPECT_EQ(hook::TakeBalance().freed - before.freed, 1u);
    }
    FilterPacket* packet = MakePacket(adapter, UdpFrame());
    ASSERT_EQ(hook::Unbind(), STATUS_SUCCESS);
    EXPECT_EQ(Filter_InjectPacketToAdapterEx(adapter, packet), FILTER_ERROR_INTERFACE_NOT_ACTIVE);
    EXPECT_EQ(hook::TakeBalance().outstanding, 1u); // its release found nobody either
    ASSERT_EQ(hook::Bind(), STATUS_SUCCESS);
    EXPECT_EQ(Filter_ReleasePacket(packet), FILTER_STATUS_SUCCESS);
}

TEST_F(DeliveryTest, AFilterMayInjectFromItsProcedure)
{
    const Bytes outer = UdpFrame(1, 2), inner = UdpFrame(3, 4), back = UdpFrame(5, 6);
    TestDriver driver;
    const TestFilter echo(driver, {.type = FILTER_TYPE_INJECT_TO_ADAPTER});
    const TestFilter filter(driver, {}, [&](FilterPacket* packet) {
        if (packet->m_Data[35] == 1) {
            Filter_InvokeFilters(FILTER_TYPE_INCOMING_PACKET,
                                 MakePacket(adapter, inner)); // its own chain, nested
            Filter_InjectPacketToAdapter(adapter, MakePacket(adapter, back));
        }
        return FILTER_RESULT_BYPASS;
    });
    const Collector up(adapter, hook::Side::Protocols), down(adapter, hook::Side::Adapter);
    Enter(FILTER_TYPE_INCOMING_PACKET, outer);
    EXPECT_THAT(up.Frames(), ElementsAre(inner, outer));
    EXPECT_THAT(down.Frames(), ElementsAre(back));
    EXPECT_EQ(CountersOf(filter), (Counters{.process = 2, .bypass = 2}));
    EXPECT_EQ(CountersOf(echo), (Counters{.process = 1, .bypass = 1}));
}

} // namespace
