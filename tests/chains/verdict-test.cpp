// What a filter's verdict does to the packet, to the filters behind it and to its counters.
#include "chain-test.h"

using namespace chains;
using namespace support;

namespace
{

class VerdictTest : public ChainTest
{};

TEST_F(VerdictTest, DecidesThePacketsFateInEveryChain)
{
    enum Fate { Delivery, Release, Keeping };
    struct Case {
        FILTER_RESULT verdict;
        Counters counters;
        Fate fate; // only delivery runs the filters behind
        void (*raise)() = nullptr;
        int32_t code = 0;
    };
    constexpr int32_t raised = static_cast<int32_t>(0xC000009A);
    const Case cases[] = {
        {FILTER_RESULT_BYPASS, {.process = 1, .bypass = 1}, Delivery},
        {FILTER_RESULT_DISCARD, {.process = 1, .discard = 1}, Release},
        {FILTER_RESULT_CONSUME, {.process = 1, .consume = 1}, Keeping},
        {FILTER_RESULT_CAPTURE, {.process = 1, .capture = 1}, Release},
        {4, {.process = 1}, Delivery},
        {0xFFFFFFFF, {.process = 1}, Delivery},
        // An exception costs only the filter that raised it.
        {FILTER_RESULT_DISCARD, {.process = 1}, Delivery, FaultOnRead, kAccessViolation},
        {FILTER_RESULT_DISCARD, {.process = 1}, Delivery, FaultOnDivision, kDivideByZero},
        {FILTER_RESULT_DISCARD, {.process = 1}, Delivery, [] { ExRaiseStatus(raised); }, raised},
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
            const bool goesOn = test.fate == Delivery;
            Debug().Take();
            EXPECT_EQ(OutcomeOf([&] { Enter(type); }),
                      goesOn ? Delivered(type) : Outcome{.freed = test.fate == Release});

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
            EXPECT_EQ(CountersOf(middle), (goesOn ? Counters{.process = 1, .bypass = 1} : Counters{}));
            EXPECT_EQ(CountersOf(last), goesOn ? test.counters : Counters{});
            if (test.fate == Keeping) {
                EXPECT_EQ(Filter_ReleasePacket(call.packet), FILTER_STATUS_SUCCESS); // the filter's own now
            }
        }
    }
}

class MethodTest : public ChainTest
{};

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
        for (const bool faults : {false, true}) { // an exception does not move the end of the walk
            std::string runs;
            TestDriver driver;
            const TestFilter a(driver, {.type = type, .order = 1}, Noting(runs, 'a'));
            const TestFilter b(driver, {.type = type, .order = 2}, [&](FilterPacket*) {
                runs += 'b';
                if (faults) {
                    FaultOnRead();
                }
                return FILTER_RESULT_BYPASS;
            });
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
    }
    Filter_InvokeFiltersEx(FILTER_METHOD_START_FROM_FIRST_FILTER, nullptr, nullptr);
    Filter_InvokeFilters(FILTER_TYPE_INCOMING_PACKET, nullptr);
}

TEST_F(MethodTest, VerdictsEndAPartialWalkAsAWholeOne)
{
    const auto runBehind = [](const TestFilter& filter, FilterPacket* packet) {
        Filter_InvokeFiltersEx(FILTER_METHOD_START_AFTER_THIS_FILTER, filter.Handle(), packet);
    };
    TestDriver driver;
    const TestFilter c(driver, {.order = 3});
    FILTER_RESULT verdict = FILTER_RESULT_DISCARD;
    const TestFilter b(driver, {.order = 2}, [&](FilterPacket*) { return verdict; });
    const TestFilter a(driver, {.order = 1});
    for (; verdict <= FILTER_RESULT_CAPTURE; ++verdict) {
        EXPECT_EQ(OutcomeOf([&] { runBehind(a, AnyPacket()); }),
                  Outcome{.freed = verdict != FILTER_RESULT_CONSUME});
    }
    EXPECT_EQ(a.CallCount() + c.CallCount(), 0u);
    EXPECT_EQ(CountersOf(b), (Counters{3, 0, 1, 1, 1}));
    // The filter passes what it consumed back behind its own place.
    EXPECT_EQ(OutcomeOf([&] { runBehind(b, b.Calls()[1].packet); }), Outcome{.toProtocols = 1});
    EXPECT_EQ(c.CallCount(), 1u);
}

TEST_F(MethodTest, APacketThatCannotBePlacedIsReleased)
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
            EXPECT_EQ(OutcomeOf([&] { Filter_InvokeFiltersEx(method, handle, AnyPacket()); }),
                      Outcome{.freed = 1});
        }
    }
    for (const FILTER_TYPE type : {-1, 4, 0x7FFFFFFF}) {
        EXPECT_EQ(OutcomeOf([&] { Filter_InvokeFilters(type, AnyPacket()); }), Outcome{.freed = 1});
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
    FilterPacket* packet = AnyPacket();
    const std::string end = ", pPacket=" + PointerText(packet) + "\n";
    Debug().Take();
    Filter_InvokeFilters(FILTER_TYPE_INCOMING_PACKET, packet);
    EXPECT_THAT(Debug().Take(),
                testing::StartsWith(
                    "Enter Filter_InvokeFilters: Filter=FILTER_TYPE_INCOMING_PACKET" + end +
                    "  Filter_InvokeFilters: FILTER_TYPE_INCOMING_PACKET->Filter[0] - first" + end +
                    "  Filter_InvokeFilters: FILTER_RESULT_BYPASS" + end +
                    "  Filter_InvokeFilters: FILTER_TYPE_INCOMING_PACKET->Filter[1] - second" + end +
                    "  Filter_InvokeFilters: FILTER_RESULT_BYPASS" + end +
                    "Enter Filter_IndicatePacketToProtocolEx\n"));
    packet = AnyPacket();
    Debug().Take();
    Filter_InvokeFiltersEx(FILTER_METHOD_START_AFTER_THIS_FILTER, first.Handle(), packet);
    EXPECT_THAT(Debug().Take(),
                testing::AllOf(testing::StartsWith("Enter Filter_InvokeFiltersEx\n"
                                                   "Enter Filter_InvokeFiltersEx: pPacket=" +
                                                   PointerText(packet)),
                               testing::HasSubstr(
                                   "Enter Filter_InvokeFiltersEx: Filter=FILTER_TYPE_INCOMING_PACKET, "
                                   "Method=FILTER_METHOD_START_AFTER_THIS_FILTER\n"
                                   "  Filter_InvokeFiltersEx: FILTER_TYPE_INCOMING_PACKET->Filter[1]"),
                               testing::EndsWith("Leave Filter_InvokeFiltersEx\n")));
}

} // namespace
