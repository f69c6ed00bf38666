// Chains under traffic from several processors: counts add up, and what is taken away is not in use any more.
#include "chain-test.h"

#include <atomic>
#include <thread>

using namespace chains;
using namespace support;

namespace
{

constexpr uint64_t kThreads = 4;

// Threads that deliver frames, alternately received and sent, until stopped or until they have delivered enough.
class Traffic
{
  public:
    explicit Traffic(FilterAdapter* adapter, uint64_t framesOfEach = UINT64_MAX)
    {
        for (uint64_t i = 0; i < kThreads; ++i) {
            threads_.emplace_back([this, adapter, framesOfEach, i] {
                for (uint64_t n = 0; n < framesOfEach && !stop_; ++n) {
                    Bytes frame = UdpFrame();
                    frame.back() = static_cast<uint8_t>(n);
                    const auto deliver = (n + i) % 2 == 0 ? hook::DeliverReceived : hook::DeliverSent;
                    accepted_ += deliver(adapter, frame, {}) == hook::Accepted::Yes ? 1 : 0;
                }
            });
        }
    }
    ~Traffic() { Stop(); }
    void Join()
    {
        for (std::thread& thread : std::exchange(threads_, {})) {
            thread.join();
        }
    }
    void Stop()
    {
        stop_ = true;
        Join();
    }
    uint64_t Accepted() const { return accepted_; }

  private:
    std::atomic<bool> stop_{false};
    std::atomic<uint64_t> accepted_{0};
    std::vector<std::thread> threads_;
};

class TrafficTest : public ChainTest
{};

// The verdict stands in the frame. It takes no lock of its own, which would keep the processors apart.
FILTER_RESULT VerdictInFrame(FilterDriver*, PVOID, PacketFilter*, PVOID, FilterPacket* packet)
{
    const FILTER_RESULT verdict = packet->m_Data[60];
    if (verdict == FILTER_RESULT_CONSUME) {
        Filter_ReleasePacket(packet);
    }
    return verdict;
}

TEST_F(TrafficTest, CountersOfOneChainLoseNothing)
{
    constexpr uint32_t kBatches = 400, kBatch = 50;
    TestDriver driver;
    const CountedString names[] = {CountedString("first"), CountedString("second")};
    PacketFilter* filters[2] = {};
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(Filter_RegisterFilter(driver.Handle(), &names[i], VerdictInFrame, nullptr,
                                        FILTER_TYPE_INCOMING_PACKET, i + 1, &filters[i]),
                  FILTER_STATUS_SUCCESS);
    }
    std::vector<Bytes> frames(kBatch, UdpFrame());
    for (uint32_t i = 0; i < kBatch; ++i) {
        frames[i][60] = static_cast<uint8_t>(i % 5); // the four verdicts and an unknown one
    }
    const std::vector<std::span<const uint8_t>> batch(frames.begin(), frames.end());
    std::vector<std::thread> threads;
    for (uint64_t i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (uint32_t n = 0; n < kBatches; ++n) {
                EXPECT_EQ(hook::DeliverReceivedBatch(adapter, batch).accepted, kBatch);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    constexpr uint32_t fifth = kThreads * kBatches * kBatch / 5;
    EXPECT_EQ(CountersOf(filters[0]), (Counters{5 * fifth, fifth, fifth, fifth, fifth}));
    EXPECT_EQ(CountersOf(filters[1]), (Counters{.process = 2 * fifth, .bypass = fifth}));
    const hook::Balance balance = hook::TakeBalance();
    EXPECT_EQ(balance.received, 5 * fifth);
    EXPECT_EQ(balance.freed, 3 * fifth);
    EXPECT_EQ(balance.deliveredToProtocols, 2 * fifth);
}

TEST_F(TrafficTest, ADeregisteredFilterIsNotRunningAnyMore)
{
    Traffic traffic(adapter);
    for (int round = 0; round < 60; ++round) {
        auto gone = std::make_shared<std::atomic<bool>>(false);
        TestDriver driver;
        const auto check = [gone](FilterPacket*) {
            EXPECT_FALSE(*gone);
            return FILTER_RESULT_BYPASS;
        };
        auto in = std::make_unique<TestFilter>(driver, TestFilter::Options{}, check);
        auto out = std::make_unique<TestFilter>(
            driver, TestFilter::Options{.type = FILTER_TYPE_OUTGOING_PACKET}, check);
        EXPECT_TRUE(Eventually([&] { return in->CallCount() > 0 && out->CallCount() > 0; }));
        if (round % 2 == 0) {
            EXPECT_EQ(in->Deregister(), FILTER_STATUS_SUCCESS);
            EXPECT_EQ(out->Deregister(), FILTER_STATUS_SUCCESS);
        } else {
            EXPECT_EQ(driver.Deregister(), FILTER_STATUS_SUCCESS); // takes its filters with it
        }
        *gone = true;
    }
    traffic.Stop();
    const hook::Balance balance = hook::TakeBalance();
    EXPECT_EQ(balance.received + balance.sent, traffic.Accepted());
    EXPECT_EQ(balance.deliveredToAdapter + balance.deliveredToProtocols, traffic.Accepted());
}

// A writer that waits for the chain must not keep out the nested walk of a filter whose end it waits for.
TEST_F(TrafficTest, ANestedWalkPassesAWaitingRegistration)
{
    TestDriver driver;
    const TestFilter nesting(driver, {.order = FILTER_ORDER_FIRST}, [&](FilterPacket* packet) {
        if (packet->m_nCarried[0] == 0) {
            if (FilterPacket* inner = Filter_AllocatePacket(adapter)) {
                inner->m_nCarried[0] = 1;
                Filter_InvokeFilters(FILTER_TYPE_INCOMING_PACKET, inner);
            }
        }
        return FILTER_RESULT_BYPASS;
    });
    Traffic traffic(adapter, 1500);
    for (int round = 0; round < 100; ++round) {
        const TestFilter passing(driver, {});
    }
    traffic.Join();
    EXPECT_EQ(traffic.Accepted(), kThreads * 1500);
}

class UnbindTest : public ChainTest, public testing::WithParamInterface<hook::UnbindMode>
{};

TEST_P(UnbindTest, LosesNoPacketInTheMiddleOfTraffic)
{
    {
        TestDriver driver;
        const TestFilter filter(driver, {}, [](FilterPacket* packet) {
            return packet->m_Data[packet->m_nPacketSize - 1] % 4 == 0 ? FILTER_RESULT_DISCARD
                                                                      : FILTER_RESULT_BYPASS;
        });
        Traffic traffic(adapter);
        for (int round = 0; round < 100; ++round) {
            const uint64_t before = traffic.Accepted();
            ASSERT_TRUE(Eventually([&] { return traffic.Accepted() > before; }));
            ASSERT_EQ(hook::Unbind(GetParam()), STATUS_SUCCESS);
            EXPECT_EQ(Filter_AllocatePacket(adapter), nullptr);
            ASSERT_EQ(hook::Bind(), STATUS_SUCCESS);
        }
        traffic.Stop();
        const hook::Balance balance = hook::TakeBalance();
        EXPECT_TRUE(balance.IsEven());
        EXPECT_EQ(balance.received + balance.sent, traffic.Accepted());
        if (GetParam() == hook::UnbindMode::Drained) {
            EXPECT_EQ(balance.outstanding, 0u);
        }
        // What was released while unbound is out until the hook driver unloads, and nothing else.
        const uint64_t stranded = balance.outstanding;
        StopHook();
        EXPECT_EQ(hook::TakeBalance().stranded, stranded);
    }
}

INSTANTIATE_TEST_SUITE_P(Modes, UnbindTest,
                         testing::Values(hook::UnbindMode::Drained, hook::UnbindMode::Abrupt),
                         [](const auto& suite) {
                             return suite.param == hook::UnbindMode::Drained ? "Drained" : "Abrupt";
                         });

} // namespace
