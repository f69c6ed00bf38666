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
constexpr char kAdapterName[] = "Filter_InjectPacketToAdapterEx";
constexpr char kProtocolName[] = "Filter_InjectPacketToProtocolEx";
const Operation kOperations[] = {
    {Filter_InjectPacketToAdapterEx, hook::Side::Adapter, true, kAdapterName},
    {Filter_IndicatePacketToProtocolEx, hook::Side::Protocols, true, kProtocolName},
    {Filter_InjectPacketToAdapter, hook::Side::Adapter, false, kAdapterName},
    {Filter_IndicatePacketToProtocol, hook::Side::Protocols, false, kProtocolName},
};

using DeliveryTest = ChainTest;

TEST_F(DeliveryTest, EachOutcomeHasItsStatusAndPlaceInTheBalance)
{
    for (const Operation& operation : kOperations) {
        SCOPED_TRACE(testing::Message() << operation.exceptionName << operation.reports);
        const auto run = [&](FilterAdapter* target, FILTER_STATUS status) {
            return OutcomeOf(
                [&] { EXPECT_EQ(operation.run(target, MakePacket(nullptr, UdpFrame())), status); });
        };
        EXPECT_EQ(operation.run(adapter, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
        EXPECT_EQ(run(nullptr, FILTER_ERROR_INVALID_ARGUMENT), kReleased);
        {
            const Collector out(adapter, operation.side);
            run(adapter, FILTER_STATUS_SUCCESS);
            EXPECT_THAT(out.Frames(), ElementsAre(UdpFrame()));
        }
        // The hook driver took it: it is not released again.
        hook::SetBehaviour(adapter, operation.side, hook::Behaviour::Refuse);
        EXPECT_EQ(run(adapter, operation.Status(FILTER_ERROR_INTERNAL_ERROR)), kRefused);
        hook::SetBehaviour(adapter, operation.side, hook::Behaviour::Fault);
        Debug().Take();
        EXPECT_EQ(run(adapter, operation.Status(FILTER_ERROR_EXCEPTION)), kRefused);
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
        const auto run = [&] { return operation.run(adapter, AnyPacket()); };
        const FILTER_STATUS status = operation.Status(FILTER_ERROR_INTERFACE_NOT_ACTIVE);
        EXPECT_EQ(OutcomeOf([&] { EXPECT_EQ(run(), status); }), kReleased);
    }
    FilterPacket* packet = AnyPacket();
    ASSERT_EQ(hook::Unbind(), STATUS_SUCCESS);
    EXPECT_EQ(Filter_InjectPacketToAdapterEx(adapter, packet), FILTER_ERROR_INTERFACE_NOT_ACTIVE);
    EXPECT_EQ(hook::TakeBalance().outstanding, 1u); // its release found nobody either
    ASSERT_EQ(hook::Bind(), STATUS_SUCCESS);
    EXPECT_EQ(Filter_ReleasePacket(packet), FILTER_STATUS_SUCCESS);
}

} // namespace
