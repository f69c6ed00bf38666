// What a filter's verdict does to the packet, to the filters behind it and to its counters; and the end of the road: what
// a client is told about a delivery, and that a failing one loses no packet.
#include "chain-test.h"

#include <optional>

using namespace chains;
using namespace support;
using testing::ElementsAre;

namespace
{

using VerdictTest = ChainTest;
using MethodTest = ChainTest;

TEST_F(VerdictTest, DecidesThePacketsFateInEveryChain)
{
    struct Case {
        FILTER_RESULT verdict;
        Counters counters;
        std::optional<Outcome> end; // not given: the filters behind run, then it is delivered
        void (*raise)() = nullptr;
        int32_t code = 0;
    };
    constexpr int32_t raised = static_cast<int32_t>(0xC000009A);
    const Case cases[] = {
        {FILTER_RESULT_BYPASS, {1, 1, 0, 0, 0}, {}},
        {FILTER_RESULT_DISCARD, {1, 0, 1, 0, 0}, kReleased},
        {FILTER_RESULT_CONSUME, {1, 0, 0, 1, 0}, kNothing},
        {FILTER_RESULT_CAPTURE, {1, 0, 0, 0, 1}, kReleased},
        {4, {1}, {}},
        {0xFFFFFFFF, {1}, {}},
        // An exception costs only the filter that raised it.
        {FILTER_RESULT_DISCARD, {1}, {}, FaultOnRead, kAccessViolation},
        {FILTER_RESULT_DISCARD, {1}, {}, FaultOnDivision, kDivideByZero},
        {FILTER_RESULT_DISCARD, {1}, {}, [] { ExRaiseStatus(raised); }, raised},
    };
    for (FILTER_TYPE type = 0; type < FILTER_TYPE_COUNT; ++type) {
        for (const Case& test : cases) {
            SCOPED_TRACE(Filter_TypeString(type) + std::string(" answer ") + std::to_string(test.verdict) +
                         " code " + std::to_string(test.code));
            int context = 0;
            TestDriver driver("client", &context);
            const auto answer = [&](FilterPacket* packet) {
                EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
                EXPECT_EQ(packet->m_hAdapter, adapter);
                EXPECT_EQ(packet->m_nDirection, GoesToAdapter(type) ? 2u : 1u);
                EXPECT_NE(packet->m_pUdp, nullptr);
                if (test.raise != nullptr) {
                    test.raise();
                }
                return test.verdict;
            };
            const TestFilter last(driver, {.type = type, .order = FILTER_ORDER_LAST}, answer);
            const TestFilter middle(driver, {.type = type, .order = 2});
            const TestFilter first(driver, {.type = type, .order = FILTER_ORDER_FIRST}, answer);
            Debug().Take();
            EXPECT_EQ(OutcomeOf([&] { Enter(type); }), test.end.value_or(Delivered(type)));

            const std::string output = Debug().Take();
            ASSERT_EQ(first.CallCount(), 1u);
            const TestFilter::Call call = first.Calls()[0];
            const std::string line =
                "  Filter_InvokeFilters: exception, code = " + std::to_string(test.code) +
                ", pPacket=" + PointerText(call.packet) + "\n";
            EXPECT_EQ(output, test.raise != nullptr ? line + line : "");
            ExpectNoLockHeld("behind the chain");
            EXPECT_EQ(call.driver, driver.Handle());
            EXPECT_EQ(call.driverContext, &context);
            EXPECT_EQ(call.filter, first.Handle());
            EXPECT_EQ(CountersOf(first), test.counters);
            EXPECT_EQ(CountersOf(middle), (test.end ? Counters{} : Counters{1, 1}));
            EXPECT_EQ(CountersOf(last), test.end ? Counters{} : test.counters);
            if (test.end == kNothing) {
                EXPECT_EQ(Filter_ReleasePacket(call.packet), FILTER_STATUS_SUCCESS); // the filter's own now
            }
        }
    }
}

TEST_F(MethodTest, ChoosesThePartOfTheChainThatRuns)
{
    struct Case {
        FILTER_METHOD method;
        const char* runs[3]; // for the given filter a, b, c
    };
    const Case cases[] = {
        {FILTER_METHOD_START_FROM_FIRST_FILTER, {"abc", "abc", "abc"}},
        {FILTER_METHOD_START_UNTIL_THIS_FILTER, {"a", "ab", "abc"}},
        {FILTER_METHOD_STOP_AT_THIS_FILTER, {"", "a", "ab"}},
        {FILTER_METHOD_START_FROM_THIS_FILTER, {"abc", "bc", "c"}},
        {FILTER_METHOD_START_AFTER_THIS_FILTER, {"bc", "c", ""}},
        {5, {"abc", "bc", "c"}},
        {0xFFFFFFFF, {"abc", "bc", "c"}},
    };
    for (FILTER_TYPE type = 0; type < FILTER_TYPE_COUNT; ++type) {
        std::string runs;
        TestDriver driver;
        const TestFilter a(driver, {.type = type, .order = 1}, Noting(runs, 'a'));
        const TestFilter b(driver, {.type = type, .order = 2}, Noting(runs, 'b'));
        const TestFilter c(driver, {.type = type, .order = 3}, Noting(runs, 'c'));
        const TestFilter* const given[] = {&a, &b, &c};
        for (const Case& test : cases) {
            for (int i = 0; i < 3; ++i) {
                const auto run = [&] {
                    Filter_InvokeFiltersEx(test.method, given[i]->Handle(), AnyPacket());
                };
                EXPECT_EQ(OutcomeOf(run), Delivered(type));
                EXPECT_EQ(std::exchange(runs, ""), test.runs[i]) << "method " << test.method;
            }
        }
    }
    Filter_InvokeFiltersEx(FILTER_METHOD_START_FROM_FIRST_FILTER, nullptr, nullptr);
    Filter_InvokeFilters(FILTER_TYPE_INCOMING_PACKET, nullptr);
}

using ChainTraceTest = Loaded<WithTrace, 0x200, ChainTest>;

TEST_F(ChainTraceTest, TheWalkIsTracedFilterByFilter)
{
    TestDriver driver;
    const TestFilter second(driver, {.name = "second", .order = 2}, [](FilterPacket*) { return 7u; });
    const TestFilter first(driver, {.name = "first", .order = 1});
    FilterPacket* packet = AnyPacket();
    const std::string end = ", pPacket=" + PointerText(packet) + "\n";
    Debug().Take();
    Filter_InvokeFiltersEx(FILTER_METHOD_START_FROM_THIS_FILTER, first.Handle(), packet);
    const std::string text = Debug().Take();
    const std::string line = "  Filter_InvokeFiltersEx: ";
    EXPECT_THAT(text, testing::HasSubstr("Enter Filter_InvokeFiltersEx: Filter=FILTER_TYPE_INCOMING_PACKET, "
                                         "Method=FILTER_METHOD_START_FROM_THIS_FILTER\n" +
                                         line + "FILTER_TYPE_INCOMING_PACKET->Filter[0] - first" + end +
                                         line + "FILTER_RESULT_BYPASS" + end + line +
                                         "FILTER_TYPE_INCOMING_PACKET->Filter[1] - second" + end + line +
                                         "FILTER_RESULT_BYPASS" + end +
                                         "Enter Filter_IndicatePacketToProtocolEx\n"));
    EXPECT_THAT(text, testing::EndsWith("Leave Filter_InvokeFiltersEx\n"));
}

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
    EXPECT_EQ(Filter_ReleasePacket(packet), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(hook::TakeBalance().outstanding, 1u); // neither release found anybody
    ASSERT_EQ(hook::Bind(), STATUS_SUCCESS);
    EXPECT_EQ(Filter_ReleasePacket(packet), FILTER_STATUS_SUCCESS);
}

} // namespace
