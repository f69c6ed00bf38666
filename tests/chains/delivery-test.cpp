// The end of the road: what a client is told about a delivery, and that a failing one loses no packet.
#include "chain-test.h"

using namespace chains;
using namespace support;
using testing::ElementsAre;

namespace
{

// The four operations that deliver at once, the first two without filters: their status is the delivery's own.
struct Operation {
    FILTER_STATUS (*run)(FilterAdapter*, FilterPacket*);
    hook::Side side;
    bool reports;
    const char* exceptionName;

    FILTER_STATUS Status(FILTER_STATUS own) const { return reports ? own : FILTER_STATUS_SUCCESS; }
};
constexpr char kToAdapter[] = "Filter_InjectPacketToAdapterEx";
constexpr char kToProtocol[] = "Filter_InjectPacketToProtocolEx";
const Operation kOperations[] = {
    {Filter_InjectPacketToAdapterEx, hook::Side::Adapter, true, kToAdapter},
    {Filter_IndicatePacketToProtocolEx, hook::Side::Protocols, true, kToProtocol},
    {Filter_InjectPacketToAdapter, hook::Side::Adapter, false, kToAdapter},
    {Filter_IndicatePacketToProtocol, hook::Side::Protocols, false, kToProtocol},
};

class DeliveryTest : public ChainTest
{};

TEST_F(DeliveryTest, EachOutcomeHasItsStatusAndPlaceInTheBalance)
{
    for (const Operation& operation : kOperations) {
        SCOPED_TRACE(testing::Message() << operation.exceptionName << operation.reports);
        const auto run = [&](FilterAdapter* target, FILTER_STATUS status) {
            return OutcomeOf(
                [&] { EXPECT_EQ(operation.run(target, MakePacket(nullptr, UdpFrame())), status); });
        };
        EXPECT_EQ(operation.run(adapter, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
        EXPECT_EQ(run(nullptr, FILTER_ERROR_INVALID_ARGUMENT), Outcome{.freed = 1});
        {
            const Collector out(adapter, operation.side);
            run(adapter, FILTER_STATUS_SUCCESS);
            EXPECT_THAT(out.Frames(), ElementsAre(UdpFrame()));
        }
        // The hook driver took it: it is not released again.
        hook::SetBehaviour(adapter, operation.side, hook::Behaviour::Refuse);
        EXPECT_EQ(run(adapter, operation.Status(FILTER_ERROR_INTERNAL_ERROR)), Outcome{.refused = 1});
        hook::SetBehaviour(adapter, operation.side, hook::Behaviour::Fault);
        Debug().Take();
        EXPECT_EQ(run(adapter, operation.Status(FILTER_ERROR_EXCEPTION)).freed, 0u);
        EXPECT_EQ(Debug().Take(), operation.exceptionName + std::string(": exception, code = -1073741819\n"));
        ExpectNoLockHeld("after a faulting delivery");
        hook::SetBehaviour(adapter, operation.side, hook::Behaviour::Accept);
    }
}

TEST_F(DeliveryTest, WithoutAHookDriverThePacketIsReleased)
{
    ASSERT_EQ(hook::Unbind(), STATUS_SUCCESS);
    ASSERT_EQ(hook::Bind({.without = {hook::Function::InjectPacketToAdapter,
                                      hook::Function::InjectPacketToProtocol}}),
              STATUS_SUCCESS);
    for (const Operation& operation : kOperations) {
        EXPECT_EQ(OutcomeOf([&] {
                      EXPECT_EQ(operation.run(adapter, AnyPacket()),
                                operation.Status(FILTER_ERROR_INTERFACE_NOT_ACTIVE));
                  }),
                  Outcome{.freed = 1});
    }
    FilterPacket* packet = AnyPacket();
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
    const TestFilter filter(driver, {}, [&](FilterPacket* packet) {
        if (packet->m_Data[35] == 1) { // its own chain, nested, and another one
            Filter_InvokeFilters(FILTER_TYPE_INCOMING_PACKET, MakePacket(adapter, inner));
            Filter_InjectPacketToAdapter(adapter, MakePacket(adapter, back));
        }
        return FILTER_RESULT_BYPASS;
    });
    const Collector up(adapter, hook::Side::Protocols), down(adapter, hook::Side::Adapter);
    Enter(FILTER_TYPE_INCOMING_PACKET, outer);
    EXPECT_THAT(up.Frames(), ElementsAre(inner, outer));
    EXPECT_THAT(down.Frames(), ElementsAre(back));
    EXPECT_EQ(filter.CallCount(), 2u);
}

} // namespace
