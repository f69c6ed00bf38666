// Chains under traffic from several processors: counts add up, and what is taken away is not in use any more.
#include "chain-test.h"

#include <atomic>
#include <thread>

using namespace chains;
using namespace support;

namespace
{

constexpr uint32_t kThreads = 4;

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

// All processors meet inside the filter, so that each round's verdicts are counted at the same time.
struct Meeting {
    std::atomic<uint32_t> arrivals{0};

    static FILTER_RESULT Procedure(FilterDriver*, PVOID, PacketFilter*, PVOID context, FilterPacket* packet)
    {
        const FILTER_RESULT verdict = packet->m_nCarried[0];
        std::atomic<uint32_t>& arrivals = static_cast<Meeting*>(context)->arrivals;
        const uint32_t all = arrivals++ / kThreads * kThreads + kThreads;
        if (verdict == FILTER_RESULT_CONSUME) {
            Filter_ReleasePacket(packet);
        }
        while (arrivals < all) {
            std::this_thread::yield();
        }
        return verdict;
    }
};

TEST_F(TrafficTest, CountersOfOneChainLoseNothing)
{
    constexpr uint32_t kRounds = 4000, kShare = kThreads * kRounds / 4;
    TestDriver driver;
    Meeting meeting;
    PacketFilter* filter = nullptr;
    const CountedString name("meeting");
    ASSERT_EQ(Filter_RegisterFilter(driver.Handle(), &name, Meeting::Procedure, &meeting,
                                    FILTER_TYPE_INCOMING_PACKET, FILTER_ORDER_FIRST, &filter),
              FILTER_STATUS_SUCCESS);
    std::vector<std::thread> threads;
    for (const int processor : {0, 1, 31, 63}) {
        threads.emplace_back([this, processor] {
            for (uint32_t round = 0; round < kRounds; ++round) {
                const machine::AtDispatch raised(processor);
                FilterPacket* packet = Filter_AllocatePacket(adapter);
                packet->m_nCarried[0] = round % 4; // the verdict
                Filter_InvokeFilters(FILTER_TYPE_INCOMING_PACKET, packet);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(CountersOf(filter), (Counters{4 * kShare, kShare, kShare, kShare, kShare}));
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
    EXPECT_EQ(balance.deliveredToAdapter + balance.deliveredToProtocols, traffic.Accepted());
}

// A writer that waits for the chain must not keep out the nested walk of a filter whose end it waits for.
TEST_F(TrafficTest, ANestedWalkPassesAWaitingRegistration)
{
    TestDriver driver;
    const TestFilter nesting(driver, {.order = FILTER_ORDER_FIRST}, [&](FilterPacket* packet) {
        FilterPacket* inner = packet->m_nCarried[0] == 0 ? Filter_AllocatePacket(adapter) : nullptr;
        if (inner != nullptr) {
            inner->m_nCarried[0] = 1;
            Filter_InvokeFilters(FILTER_TYPE_INCOMING_PACKET, inner);
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

TEST_F(TrafficTest, UnbindingLosesNoPacket)
{
    for (const hook::UnbindMode mode : {hook::UnbindMode::Drained, hook::UnbindMode::Abrupt}) {
        TestDriver driver;
        const TestFilter filter(driver, {}, [](FilterPacket* packet) {
            return packet->m_Data[packet->m_nPacketSize - 1] % 4 == 0 ? FILTER_RESULT_DISCARD
                                                                      : FILTER_RESULT_BYPASS;
        });
        Traffic traffic(adapter);
        for (int round = 0; round < 100; ++round) {
            const uint64_t before = traffic.Accepted();
            ASSERT_TRUE(Eventually([&] { return traffic.Accepted() > before; }));
            ASSERT_EQ(hook::Unbind(mode), STATUS_SUCCESS);
            EXPECT_EQ(Filter_AllocatePacket(adapter), nullptr);
            ASSERT_EQ(hook::Bind(), STATUS_SUCCESS);
        }
        traffic.Stop();
        // What was released while unbound is out until the hook driver unloads, and nothing else.
        EXPECT_TRUE(mode == hook::UnbindMode::Abrupt || hook::TakeBalance().outstanding == 0);
        mayStayOut = hook::TakeBalance().outstanding;
    }
}

} // namespace
