// What a filter's verdict does to the packet, to the filters behind it and to its counters.
#include "chain-test.h"

using namespace chains;
using namespace support;
using testing::ElementsAre;

namespace
{

class VerdictTest : public ChainTest
{};

TEST_F(VerdictTest, DecidesThePacketsFateInEveryChain)
{
    struct Case {
        FILTER_RESULT verdict;
        Counters counters;
        bool nextRuns;
        uint64_t delivered, freed, kept;
    };
    const Case cases[] = {
        {FILTER_RESULT_BYPASS, {.process = 1, .bypass = 1}, true, 1, 0, 0},
        {FILTER_RESULT_DISCARD, {.process = 1, .discard = 1}, false, 0, 1, 0},
        {FILTER_RESULT_CONSUME, {.process = 1, .consume = 1}, false, 0, 0, 1},
        {FILTER_RESULT_CAPTURE, {.process = 1, .capture = 1}, false, 0, 1, 0},
        {4, {.process = 1}, true, 1, 0, 0},
        {7, {.process = 1}, true, 1, 0, 0},
        {0xFFFFFFFF, {.process = 1}, true, 1, 0, 0},
    };
    for (const FILTER_TYPE type : kTypes) {
        for (const Case& test : cases) {
            SCOPED_TRACE(Filter_TypeString(type) + std::string(" answer ") + std::to_string(test.verdict));
            int context = 0;
            TestDriver driver("client", &context);
            const TestFilter next(driver, {.type = type});
            const TestFilter first(driver, {.type = type, .order = FILTER_ORDER_FIRST},
                                   [&](FilterPacket* packet) {
                                       EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
                                       EXPECT_EQ(packet->m_hAdapter, adapter);
                                       EXPECT_EQ(packet->m_nDirection, GoesToAdapter(type) ? 2u : 1u);
                                       EXPECT_NE(packet->m_pUdp, nullptr);
                                       return test.verdict;
                                   });
            const hook::Balance before = hook::TakeBalance();
            const uint64_t deliveredBefore = Delivered(type);
            Enter(type, UdpFrame());

            const hook::Balance after = hook::TakeBalance();
            ASSERT_EQ(first.CallCount(), 1u);
            const TestFilter::Call call = first.Calls()[0];
            EXPECT_EQ(call.driver, driver.Handle());
            EXPECT_EQ(call.driverContext, &context);
            EXPECT_EQ(call.filter, first.Handle());
            EXPECT_EQ(CountersOf(first), test.counters);
            EXPECT_EQ(next.CallCount(), test.nextRuns ? 1u : 0u);
            EXPECT_EQ(CountersOf(next), (test.nextRuns ? Counters{.process = 1, .bypass = 1} : Counters{}));
            EXPECT_EQ(Delivered(type) - deliveredBefore, test.delivered);
            EXPECT_EQ(after.freed - before.freed, test.freed);
            EXPECT_EQ(after.outstanding, test.kept);
            if (test.kept != 0) {
                Filter_ReleasePacket(call.packet); // the filter's own since it consumed it
            }
        }
    }
}

TEST_F(VerdictTest, AnEmptyChainDelivers)
{
    for (const FILTER_TYPE type : kTypes) {
        const Collector side(adapter, GoesToAdapter(type) ? hook::Side::Adapter : hook::Side::Protocols);
        Enter(type, UdpFrame());
        EXPECT_THAT(side.Frames(), ElementsAre(UdpFrame())) << Filter_TypeString(type);
    }
}

TEST_F(VerdictTest, FiltersRunInTheOrderOfTheirChain)
{
    std::string runs;
    TestDriver driver;
    const auto note = [&](char name) {
        return [&runs, name](FilterPacket*) {
            runs += name;
            return FILTER_RESULT_BYPASS;
        };
    };
    const TestFilter a(driver, {.order = FILTER_ORDER_LAST}, note('a'));
    const TestFilter b(driver, {.order = 5}, note('b'));
    const TestFilter c(driver, {.order = FILTER_ORDER_FIRST}, note('c'));
    const TestFilter d(driver, {.order = FILTER_ORDER_NEXT}, note('d'));
    const TestFilter e(driver, {.order = 5}, note('e'));
    const TestFilter f(driver, {.order = FILTER_ORDER_FIRST}, note('f'));
    const TestFilter g(driver, {.order = FILTER_ORDER_LAST}, note('g'));
    const TestFilter other(driver, {.type = FILTER_TYPE_OUTGOING_PACKET}, note('x'));
    Enter(FILTER_TYPE_INCOMING_PACKET, UdpFrame());
    EXPECT_EQ(runs, "fcebdga");
}

TEST_F(VerdictTest, APacketThatCannotBePlacedIsReleased)
{
    const hook::Balance before = hook::TakeBalance();
    for (const FILTER_TYPE type : {-1, 4, 0x7FFFFFFF}) {
        Filter_InvokeFilters(type, MakePacket(adapter, UdpFrame()));
    }
    Filter_InvokeFilters(FILTER_TYPE_INCOMING_PACKET, nullptr);
    EXPECT_EQ(hook::TakeBalance().freed - before.freed, 3u);
}

TEST_F(VerdictTest, AnExceptionCostsOnlyTheFilterThatRaisedIt)
{
    struct Case {
        void (*raise)();
        int32_t code;
    };
    constexpr int32_t raised = static_cast<int32_t>(0xC000009A);
    const Case cases[] = {{FaultOnRead, kAccessViolation},
                          {FaultOnDivision, kDivideByZero},
                          {[] { ExRaiseStatus(raised); }, raised}};
    for (const FILTER_TYPE type : kTypes) {
        for (const Case& test : cases) {
            const auto raise = [&](FilterPacket*) {
                test.raise();
                return FILTER_RESULT_DISCARD;
            };
            TestDriver driver;
            const TestFilter last(driver, {.type = type}, raise);
            const TestFilter middle(driver, {.type = type, .order = 2});
            const TestFilter first(driver, {.type = type, .order = 1}, raise);
            const uint64_t before = Delivered(type);
            Debug().Take();
            Enter(type, UdpFrame());
            const std::string line =
                ExceptionLine("Filter_InvokeFilters", test.code, first.Calls()[0].packet);
            EXPECT_EQ(Debug().Take(), line + line);
            EXPECT_EQ(Delivered(type) - before, 1u);
            EXPECT_EQ(CountersOf(first), Counters{.process = 1});
            EXPECT_EQ(CountersOf(middle), (Counters{.process = 1, .bypass = 1}));
            EXPECT_EQ(CountersOf(last), Counters{.process = 1});
            ExpectNoLockHeld("after an exception in a filter");
        }
    }
}

class MethodTest : public ChainTest
{
  protected:
    // Filters a, b and c; `fault` names one that raises an exception.
    struct Chain {
        Chain(FILTER_TYPE type, char fault)
            : a(driver, {.type = type, .order = 1}, Note('a', fault)),
              b(driver, {.type = type, .order = 2}, Note('b', fault)),
              c(driver, {.type = type, .order = 3}, Note('c', fault))
        {}

        TestFilter::Procedure Note(char name, char fault)
        {
            return [this, name, fault](FilterPacket*) {
                runs += name;
                if (name == fault) {
                    FaultOnRead();
                }
                return FILTER_RESULT_BYPASS;
            };
        }

        std::string runs;
        TestDriver driver;
        TestFilter a, b, c;
    };
};

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
    for (const FILTER_TYPE type : kTypes) {
        for (const char fault : {'-', 'b'}) { // an exception does not move the end of the walk
            Chain chain(type, fault);
            for (const Case& test : cases) {
                const TestFilter* given[] = {&chain.a, &chain.b, &chain.c};
                for (int i = 0; i < 3; ++i) {
                    const uint64_t before = Delivered(type);
                    Filter_InvokeFiltersEx(test.method, given[i]->Handle(), MakePacket(adapter, UdpFrame()));
                    EXPECT_EQ(std::exchange(chain.runs, ""), test.runs[i]) << "method " << test.method;
                    EXPECT_EQ(Delivered(type) - before, 1u);
                }
            }
        }
    }
    Filter_InvokeFiltersEx(FILTER_METHOD_START_FROM_FIRST_FILTER, nullptr, nullptr);
}

TEST_F(MethodTest, VerdictsEndAPartialWalkAsAWholeOne)
{
    for (const FILTER_RESULT verdict :
         {FILTER_RESULT_DISCARD, FILTER_RESULT_CONSUME, FILTER_RESULT_CAPTURE}) {
        TestDriver driver;
        const TestFilter c(driver, {.order = 3});
        const TestFilter b(driver, {.order = 2}, [&](FilterPacket*) { return verdict; });
        const TestFilter a(driver, {.order = 1});
        const hook::Balance before = hook::TakeBalance();
        Filter_InvokeFiltersEx(FILTER_METHOD_START_AFTER_THIS_FILTER, a.Handle(),
                               MakePacket(adapter, UdpFrame()));
        EXPECT_EQ(a.CallCount() + c.CallCount(), 0u);
        EXPECT_EQ(CountersOf(b), (Counters{.process = 1,
                                           .discard = verdict == FILTER_RESULT_DISCARD,
                                           .consume = verdict == FILTER_RESULT_CONSUME,
                                           .capture = verdict == FILTER_RESULT_CAPTURE}));
        EXPECT_EQ(hook::TakeBalance().freed - before.freed, verdict == FILTER_RESULT_CONSUME ? 0u : 1u);
        if (verdict == FILTER_RESULT_CONSUME) { // and the filter passes it back behind its own place
            Filter_InvokeFiltersEx(FILTER_METHOD_START_AFTER_THIS_FILTER, b.Handle(), b.Calls()[0].packet);
            EXPECT_EQ(c.CallCount(), 1u);
            EXPECT_EQ(Delivered(FILTER_TYPE_INCOMING_PACKET), 1u);
        }
    }
}

TEST_F(MethodTest, WithoutAValidFilterThePacketIsReleased)
{
    TestDriver driver;
    TestFilter filter(driver, {});
    PacketFilter* const stale = filter.Handle();
    ASSERT_EQ(filter.Deregister(), FILTER_STATUS_SUCCESS);
    const TestFilter other(driver, {});
    for (PacketFilter* handle :
         {static_cast<PacketFilter*>(nullptr), stale, reinterpret_cast<PacketFilter*>(driver.Handle()),
          Unreadable<PacketFilter>()}) {
        for (FILTER_METHOD method = 0; method <= 5; ++method) {
            const hook::Balance before = hook::TakeBalance();
            Filter_InvokeFiltersEx(method, handle, MakePacket(adapter, UdpFrame()));
            EXPECT_EQ(hook::TakeBalance().freed - before.freed, 1u) << "method " << method;
        }
    }
    EXPECT_EQ(other.CallCount(), 0u);
}

class ChainTraceTest : public ChainTest
{
  protected:
    ChainTraceTest() : ChainTest(WithTrace(0x200)) {}
};

TEST_F(ChainTraceTest, TheWalkIsTracedFilterByFilter)
{
    TestDriver driver;
    const TestFilter second(driver, {.name = "second", .order = 2}, [](FilterPacket*) { return 7u; });
    const TestFilter first(driver, {.name = "first", .order = 1});
    FilterPacket* packet = MakePacket(adapter, UdpFrame());
    std::string p = PointerText(packet);
    Debug().Take();
    Filter_InvokeFilters(FILTER_TYPE_INCOMING_PACKET, packet);
    EXPECT_THAT(Debug().Take(),
                testing::StartsWith(
                    "Enter Filter_InvokeFilters: Filter=FILTER_TYPE_INCOMING_PACKET, pPacket=" + p + "\n" +
                    "  Filter_InvokeFilters: FILTER_TYPE_INCOMING_PACKET->Filter[0] - first, pPacket=" + p +
                    "\n" + "  Filter_InvokeFilters: FILTER_RESULT_BYPASS, pPacket=" + p + "\n" +
                    "  Filter_InvokeFilters: FILTER_TYPE_INCOMING_PACKET->Filter[1] - second, pPacket=" + p +
                    "\n" + "  Filter_InvokeFilters: FILTER_RESULT_BYPASS, pPacket=" + p + "\n" +
                    "Enter Filter_IndicatePacketToProtocolEx\n"));
    packet = MakePacket(adapter, UdpFrame());
    p = PointerText(packet);
    Debug().Take();
    Filter_InvokeFiltersEx(FILTER_METHOD_START_AFTER_THIS_FILTER, first.Handle(), packet);
    const std::string text = Debug().Take();
    EXPECT_THAT(text, testing::StartsWith(
                          "Enter Filter_InvokeFiltersEx\nEnter Filter_InvokeFiltersEx: pPacket=" + p));
    EXPECT_THAT(text, testing::HasSubstr(
                          "Enter Filter_InvokeFiltersEx: Filter=FILTER_TYPE_INCOMING_PACKET, "
                          "Method=FILTER_METHOD_START_AFTER_THIS_FILTER\n"
                          "  Filter_InvokeFiltersEx: FILTER_TYPE_INCOMING_PACKET->Filter[1] - second"));
    EXPECT_THAT(text, testing::EndsWith("Leave Filter_InvokeFiltersEx\n"));
}

} // namespace
