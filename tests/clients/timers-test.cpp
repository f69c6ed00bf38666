// Timers of client drivers, on a clock that the tests step.
#include "support/framework.h"

#include <atomic>
#include <thread>

using namespace support;
using testing::HasSubstr;

namespace
{

constexpr uint32_t kTraceServices = 0x800;
constexpr int64_t kStart = 132'000'000'000'000'000;

struct TimersTest : Loaded<FrameworkOnly, kTraceServices> {
    void SetUp() override
    {
        machine::StopClock(kStart);
        FrameworkTest::SetUp();
        driver.emplace("timed", &context);
    }
    void TearDown() override
    {
        driver.reset();
        machine::StartClock(); // the framework's threads look at the clock before they leave
        FrameworkTest::TearDown();
    }

    FilterTimer* Make(bool repeats)
    {
        FilterTimer* timer = nullptr;
        EXPECT_EQ(Filter_InitializeTimer(driver->Handle(), OnTimer, this, repeats, &timer),
                  FILTER_STATUS_SUCCESS);
        EXPECT_NE(timer, nullptr);
        return timer;
    }
    FILTER_STATUS Free(FilterTimer* timer) { return Filter_FreeTimer(driver->Handle(), timer); }

    // How many callbacks ran while the clock went on.
    int CallsIn(uint64_t milliseconds)
    {
        const int before = calls;
        machine::AdvanceClock(milliseconds);
        EXPECT_TRUE(machine::WaitIdle());
        return calls - before;
    }

    static VOID OnTimer(FilterDriver* owner, PVOID driverContext, FilterTimer* timer, PVOID timerContext)
    {
        auto* self = static_cast<TimersTest*>(timerContext);
        EXPECT_EQ(owner, self->owner != nullptr ? self->owner : self->driver->Handle());
        EXPECT_EQ(driverContext, &self->context);
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
        self->calls++;
        if (self->action) {
            self->action(timer);
        }
    }

    std::optional<TestDriver> driver;
    FilterDriver* owner = nullptr; // once `driver` has gone
    int context = 0;
    std::atomic<int> calls = 0;
    std::function<void(FilterTimer*)> action;
};

TEST_F(TimersTest, TenThousandRun)
{
    constexpr int kTimers = 10'000;
    for (int i = 0; i < kTimers; i++) {
        Filter_StartTimer(Make(true), 10);
    }
    EXPECT_EQ(CallsIn(50), 5 * kTimers);
    driver->Deregister(); // takes them along
    EXPECT_EQ(CallsIn(50), 0);
    EXPECT_EQ(machine::TakeCensus().timers, 0u);
}

TEST_F(TimersTest, FreeingWaitsForTheCallbacksThatAreQueued)
{
    FilterTimer* const timer = Make(true);
    auto hold = std::make_unique<machine::WorkItemHold>();
    Filter_StartTimer(timer, 10);
    machine::AdvanceClock(30);
    std::atomic<bool> freed = false;
    Debug().Take();
    std::thread freeing([&] {
        EXPECT_EQ(Free(timer), FILTER_STATUS_SUCCESS);
        freed = true;
    });
    EXPECT_TRUE(Eventually(
        [&] { return Debug().Contains("Filter_FreeTimer: wait 3 pending timer callback to completed\n"); }));
    machine::AdvanceClock(100); // it expires no more
    EXPECT_FALSE(freed);
    EXPECT_EQ(calls, 0);
    hold.reset();
    freeing.join();
    EXPECT_EQ(calls, 3);
    EXPECT_TRUE(Debug().Contains("Filter_FreeTimer: pending timer callback has completed\n"));
}

TEST_F(TimersTest, HandlesAreCheckedBeforeOwnersAndOwnersBeforeAnythingIsFreed)
{
    const TestDriver other("other");
    FilterDriver* const own = driver->Handle();
    FilterTimer* const timer = Make(true);
    auto* const noTimer = reinterpret_cast<FilterTimer*>(own);
    auto* const noDriver = reinterpret_cast<FilterDriver*>(timer);
    EXPECT_FALSE(Filter_IsValidTimer(nullptr));
    EXPECT_TRUE(
        Debug().Contains("Filter_IsValidTimer: Invalid Handle 0x0000000000000000, bad tag 0xffffffff\n"));
    EXPECT_EQ(Filter_FreeTimer(noDriver, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Filter_FreeTimer(noDriver, noTimer), FILTER_ERROR_INVALID_DRIVER_HANDLE);
    EXPECT_EQ(Filter_FreeTimer(own, noTimer), FILTER_ERROR_INVALID_TIMER_HANDLE);
    Filter_StartTimer(timer, 10);
    EXPECT_EQ(Filter_FreeTimer(other.Handle(), timer), FILTER_ERROR_INVALID_TIMER_HANDLER_OWNER);
    EXPECT_EQ(CallsIn(20), 2); // it runs on
    Debug().Take();
    EXPECT_EQ(Free(timer), FILTER_STATUS_SUCCESS);
    EXPECT_THAT(Debug().Take(), HasSubstr("Leave Filter_FreeMemory, 0-FILTER_STATUS_SUCCESS\n"
                                          "  Error: 0 - FILTER_STATUS_SUCCESS\n"
                                          "Leave Filter_FreeTimer, 0-FILTER_STATUS_SUCCESS\n"));
    EXPECT_EQ(Free(timer), FILTER_ERROR_INVALID_TIMER_HANDLE);
}

TEST_F(TimersTest, ACallbackThatFaultsAndATickWithoutMemoryAreAllThatIsLost)
{
    FilterTimer* const timer = Make(true);
    action = [](FilterTimer*) { FaultOnRead(); };
    Filter_StartTimer(timer, 10);
    EXPECT_EQ(CallsIn(10), 1);
    EXPECT_TRUE(Debug().Contains("Filter_TimerWorkRoutine: exception, code = -1073741819\n"));
    action = nullptr;
    machine::FailCall(machine::Fault::Pool, 1);
    EXPECT_EQ(CallsIn(30), 2);
    EXPECT_EQ(Free(timer), FILTER_STATUS_SUCCESS);
    EXPECT_FALSE(Debug().Contains("Filter_FreeTimer: wait"));
}

// A departing driver's callbacks are not waited for, and find a record that is there and a timer that is gone.
TEST_F(TimersTest, QueuedCallbacksOutliveTheirDriversRegistration)
{
    FilterTimer* const timer = Make(true);
    const TestDriver other("other");
    action = [&](FilterTimer* called) {
        EXPECT_EQ(called, timer);
        EXPECT_TRUE(Filter_IsValidTimer(called));
        EXPECT_EQ(Filter_StartTimer(called, 10), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(Filter_StopTimer(called), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(Filter_StartTimer(called, 10), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(Filter_FreeTimer(other.Handle(), called), FILTER_ERROR_TIMER_HANDLER_NOT_FOUND);
    };
    auto hold = std::make_unique<machine::WorkItemHold>();
    Filter_StartTimer(timer, 10);
    machine::AdvanceClock(10);
    owner = driver->Handle();
    EXPECT_EQ(driver->Deregister(), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(calls, 0);
    hold.reset();
    ASSERT_TRUE(machine::WaitIdle());
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(CallsIn(100), 0);
    EXPECT_FALSE(Filter_IsValidTimer(timer)); // freed by now
}

TEST_F(TimersTest, AnUnloadStopsThoseThatRunAndWaitsForTheirCallbacks)
{
    FilterTimer* const timer = Make(true);
    Filter_StartTimer(timer, 10);
    auto hold = std::make_unique<machine::WorkItemHold>();
    machine::AdvanceClock(20);
    Filter_StartTimer(timer, 3'600'000);
    machine::StartClock();
    owner = driver->Handle();
    driver->Forget();
    FilterTimer* late = nullptr; // stopped, though made behind the stop
    std::once_flag made;         // both callbacks may run at once
    action = [&](FilterTimer*) {
        std::call_once(made, [&] {
            EXPECT_EQ(Filter_InitializeTimer(owner, OnTimer, this, true, &late), FILTER_STATUS_SUCCESS);
            EXPECT_EQ(Filter_StartTimer(late, 1), FILTER_STATUS_SUCCESS);
        });
    };
    std::thread unloading([&] { StopFramework(); });
    EXPECT_TRUE(Eventually([&] { return machine::TakeCensus().timers == 0; }));
    hold.reset();
    unloading.join();
    EXPECT_EQ(calls, 2);
    EXPECT_NE(late, nullptr);
    EXPECT_EQ(machine::TakeCensus().timers, 0u);
}

} // namespace
