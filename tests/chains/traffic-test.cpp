// Chains under traffic from several processors: counts add up, and what is taken away is not in use any more.
#include "chain-test.h"

#include <atomic>
#include <thread>

using namespace chains;
using namespace support;

namespace
{

constexpr uint32_t kThreads = 4;

// Threads that deliver frames, alternately received and sent, until stopped.
class Traffic
{
  public:
    explicit Traffic(FilterAdapter* adapter)
    {
        for (uint32_t i = 0; i < kThreads; ++i) {
            threads_.emplace_back([this, adapter, i](std::stop_token stop) {
                Bytes frame = UdpFrame();
                for (uint32_t n = i; !stop.stop_requested(); ++n) {
                    frame.back() = static_cast<uint8_t>(n / 2);
                    const auto deliver = n % 2 == 0 ? hook::DeliverReceived : hook::DeliverSent;
                    if (deliver(adapter, frame, {}) == hook::Accepted::Yes) {
                        ++accepted_;
                    } else {
                        std::this_thread::yield();
                    }
                }
            });
        }
    }
    void Stop()
    {
        for (std::jthread& thread : threads_) {
            thread.request_stop();
        }
        threads_.clear(); // joins
    }
    uint64_t Accepted() const { return accepted_; }
    bool GoesOn() const
    {
        return Eventually([this, before = Accepted()] { return Accepted() > before; });
    }

  private:
    std::atomic<uint64_t> accepted_{0};
    std::vector<std::jthread> threads_;
};

using TrafficTest = ChainTest;

// It takes no lock of its own, which would keep the processors apart.
FILTER_RESULT VerdictInPacket(FilterDriver*, PVOID, PacketFilter*, PVOID, FilterPacket* packet)
{
    const FILTER_RESULT verdict = packet->m_nCarried[0];
    if (verdict == FILTER_RESULT_CONSUME) {
        Filter_ReleasePacket(packet);
    }
    return verdict;
}

TEST_F(TrafficTest, CountersOfOneChainLoseNothing)
{
    constexpr uint32_t kRounds = 8000, kShare = kThreads * kRounds / 4;
    TestDriver driver;
    PacketFilter* filter = nullptr;
    const CountedString name("counting");
    ASSERT_EQ(Filter_RegisterFilter(driver.Handle(), &name, VerdictInPacket, nullptr,
                                    FILTER_TYPE_INCOMING_PACKET, FILTER_ORDER_FIRST, &filter),
              FILTER_STATUS_SUCCESS);
    std::vector<std::jthread> threads;
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
    threads.clear(); // joins
    EXPECT_EQ(CountersOf(filter), (Counters{4 * kShare, kShare, kShare, kShare, kShare}));
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
    Traffic traffic(adapter);
    for (int round = 0; round < 100; ++round) {
        const TestFilter passing(driver, {});
        ASSERT_TRUE(traffic.GoesOn());
    }
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
            ASSERT_TRUE(traffic.GoesOn());
            ASSERT_EQ(hook::Unbind(mode), STATUS_SUCCESS);
            EXPECT_EQ(Filter_AllocatePacket(adapter), nullptr);
            ASSERT_EQ(hook::Bind(), STATUS_SUCCESS);
        }
        traffic.Stop();
        // What was released while unbound is out until the hook driver unloads: one a thread and abrupt round.
        mayStayOut = hook::TakeBalance().outstanding;
        EXPECT_LE(mayStayOut, mode == hook::UnbindMode::Drained ? 0 : 100 * kThreads);
    }
}

} // namespace
