// Processors, events, time-outs and timers, with the clock stopped wherever time matters.
#include "probe-driver.h"

#include <ndis.h>

#include <atomic>
#include <thread>

using namespace probe;

namespace
{

constexpr int64_t kStart = 132'000'000'000'000'000;

class WaitTest : public DriverTest
{
  protected:
    void SetUp() override
    {
        DriverTest::SetUp();
        machine::StopClock(kStart);
        before_ = machine::TakeCensus();
    }
    void TearDown() override
    {
        machine::StartClock();
        EXPECT_TRUE(machine::WaitIdle());
        EXPECT_EQ(machine::TakeCensus(), before_);
        DriverTest::TearDown();
    }

  private:
    machine::Census before_;
};

TEST_F(WaitTest, AThreadAtDispatchLevelOwnsItsProcessor)
{
    constexpr int kThreads = MAXIMUM_PROCESSORS + 8; // more than there are: some wait
    std::atomic<int> owners[MAXIMUM_PROCESSORS] = {};
    std::atomic<int> shared{0};
    const auto work = [&] {
        for (int round = 0; round < 20; round++) {
            machine::AtDispatch level;
            auto& owner = owners[KeGetCurrentProcessorNumber()];
            shared += owner.fetch_add(1) != 0;
            std::this_thread::yield();
            owner--;
        }
    };
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < kThreads; i++) {
            threads.emplace_back(work);
        }
    }
    EXPECT_EQ(shared, 0);
}

// A notification wakes all its waiters, also when it is reset at once; a synchronization wakes one at a time.
TEST_F(WaitTest, EventsLetGoAsTheirTypeSays)
{
    for (const EVENT_TYPE type : {NotificationEvent, SynchronizationEvent}) {
        KEVENT event;
        KeInitializeEvent(&event, type, FALSE);
        for (int i = 0; i < 3; i++) {
            StartThread([](PVOID e) { KeWaitForSingleObject(e, Executive, KernelMode, FALSE, nullptr); },
                        &event);
        }
        for (size_t left = 3; left > 0; left -= type == NotificationEvent ? 3 : 1) {
            ASSERT_TRUE(machine::WaitIdle());
            EXPECT_EQ(machine::TakeCensus().threads, left);
            KeSetEvent(&event, 0, FALSE);
            if (type == NotificationEvent) {
                KeClearEvent(&event);
            }
        }
        ASSERT_TRUE(machine::WaitIdle());
        KeSetEvent(&event, 0, FALSE);
        LARGE_INTEGER now{};
        EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &now), STATUS_SUCCESS);
        EXPECT_EQ(KeReadStateEvent(&event) != 0, type == NotificationEvent);
    }
}

struct Poller {
    NDIS_EVENT event;
    std::atomic<int> timeouts{0};
    static void Run(PVOID context)
    {
        auto* self = static_cast<Poller*>(context);
        while (!NdisWaitEvent(&self->event, 10)) {
            self->timeouts++;
        }
        PsTerminateSystemThread(STATUS_SUCCESS);
        ADD_FAILURE() << "a terminated thread went on";
    }
};

TEST_F(WaitTest, TimeOutsFollowTheSteppedClock)
{
    Poller poller;
    NdisInitializeEvent(&poller.event);
    StartThread(Poller::Run, &poller);
    for (const auto& [step, timeouts] : {std::pair{0, 0}, {9, 0}, {1, 1}, {25, 2}}) {
        machine::AdvanceClock(step);
        ASSERT_TRUE(machine::WaitIdle());
        EXPECT_EQ(poller.timeouts, timeouts);
    }
    LARGE_INTEGER time;
    KeQuerySystemTime(&time);
    EXPECT_EQ(time.QuadPart, kStart + 35 * 10000);
    NdisSetEvent(&poller.event);
    ASSERT_TRUE(machine::WaitIdle());
    EXPECT_EQ(poller.timeouts, 2);
    EXPECT_EQ(machine::TakeCensus().threads, 0u);
}

struct Ticker {
    NDIS_TIMER timer;
    std::vector<int64_t> fired; // milliseconds since the start
    int repeats = 2;
    static void Fire(PVOID, PVOID context, PVOID, PVOID)
    {
        auto* self = static_cast<Ticker*>(context);
        EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
        LARGE_INTEGER now;
        KeQuerySystemTime(&now);
        self->fired.push_back((now.QuadPart - kStart) / 10000);
        if (self->repeats-- > 0) {
            NdisSetTimer(&self->timer, 30);
        }
    }
};

TEST_F(WaitTest, TimersFireAtTheirOwnTimeAndCanBeCancelled)
{
    Ticker ticker;
    NdisInitializeTimer(&ticker.timer, Ticker::Fire, &ticker);
    NdisSetTimer(&ticker.timer, 50);
    machine::AdvanceClock(49);
    EXPECT_TRUE(ticker.fired.empty());
    machine::AdvanceClock(1000);
    EXPECT_EQ(ticker.fired, (std::vector<int64_t>{50, 80, 110}));
    NdisSetTimer(&ticker.timer, 5);
    NdisSetTimer(&ticker.timer, 500); // replaces the first
    BOOLEAN cancelled = FALSE;
    machine::AdvanceClock(100);
    NdisCancelTimer(&ticker.timer, &cancelled);
    EXPECT_TRUE(cancelled);
    machine::AdvanceClock(1000);
    EXPECT_EQ(ticker.fired.size(), 3u);
}

} // namespace
