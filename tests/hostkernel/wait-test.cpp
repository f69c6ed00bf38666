// Events, threads, timers and work items, with the clock stopped wherever time matters.
#include "rules.h"

#include <ndis.h>

#include <atomic>
#include <thread>

namespace
{

constexpr int64_t kStart = 132'000'000'000'000'000;

class Waits : public KernelTest
{
  protected:
    void SetUp() override
    {
        KernelTest::SetUp();
        machine::StopClock(kStart);
        before_ = machine::TakeCensus();
    }
    void TearDown() override
    {
        machine::StartClock();
        EXPECT_TRUE(machine::WaitIdle());
        EXPECT_EQ(machine::TakeCensus(), before_);
        KernelTest::TearDown();
    }

    // Starts a system thread and waits on its object when asked to.
    static PVOID StartThread(PKSTART_ROUTINE routine, void* context)
    {
        HANDLE handle = nullptr;
        PVOID thread = nullptr;
        EXPECT_EQ(
            PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, routine, context), 0);
        EXPECT_EQ(
            ObReferenceObjectByHandle(handle, THREAD_ALL_ACCESS, *PsThreadType, KernelMode, &thread, nullptr),
            0);
        EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
        return thread;
    }
    static void Join(PVOID thread)
    {
        EXPECT_EQ(KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
        ObDereferenceObject(thread);
    }

  private:
    machine::Census before_;
};

TEST_F(Waits, EventsLetGoAsTheirTypeSays)
{
    LARGE_INTEGER now{};
    KEVENT event;
    for (EVENT_TYPE type : {NotificationEvent, SynchronizationEvent}) {
        KeInitializeEvent(&event, type, FALSE);
        EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &now), STATUS_TIMEOUT);
        EXPECT_EQ(KeSetEvent(&event, IO_NO_INCREMENT, FALSE), 0);
        EXPECT_NE(KeSetEvent(&event, IO_NO_INCREMENT, FALSE), 0);
        EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &now), STATUS_SUCCESS);
        EXPECT_EQ(KeReadStateEvent(&event) != 0, type == NotificationEvent);
        KeResetEvent(&event);
        EXPECT_EQ(KeReadStateEvent(&event), 0);
    }
    // A notification wakes all its waiters, also when it is reset at once; a synchronization wakes one at a time.
    PKSTART_ROUTINE wait = [](PVOID e) { KeWaitForSingleObject(e, Executive, KernelMode, FALSE, nullptr); };
    for (EVENT_TYPE type : {NotificationEvent, SynchronizationEvent}) {
        KeInitializeEvent(&event, type, FALSE);
        PVOID threads[3];
        for (PVOID& thread : threads) {
            thread = StartThread(wait, &event);
        }
        for (size_t left = 3; left > 0; left -= type == NotificationEvent ? 3 : 1) {
            ASSERT_TRUE(machine::WaitIdle());
            EXPECT_EQ(machine::TakeCensus().threads, left);
            KeSetEvent(&event, 0, FALSE);
            if (type == NotificationEvent) {
                KeClearEvent(&event);
            }
        }
        for (PVOID thread : threads) {
            Join(thread);
        }
    }
}

struct Poller {
    NDIS_EVENT event;
    std::atomic<bool> stop{false};
    std::atomic<int> timeouts{0}, woken{0};
    static void Run(PVOID context)
    {
        auto* self = static_cast<Poller*>(context);
        while (!self->stop) {
            if (NdisWaitEvent(&self->event, 10))
                self->woken++;
            else
                self->timeouts++;
            NdisResetEvent(&self->event);
        }
        PsTerminateSystemThread(STATUS_SUCCESS);
        ADD_FAILURE() << "a terminated thread went on";
    }
};

TEST_F(Waits, TimeOutsFollowTheSteppedClock)
{
    Poller poller;
    NdisInitializeEvent(&poller.event);
    PVOID thread = StartThread(Poller::Run, &poller);
    for (const auto& [step, timeouts] : {std::pair{0, 0}, {9, 0}, {1, 1}}) {
        machine::AdvanceClock(step);
        ASSERT_TRUE(machine::WaitIdle());
        EXPECT_EQ(poller.timeouts, timeouts);
    }
    {
        machine::ThreadHold hold;
        NdisSetEvent(&poller.event);
        machine::AdvanceClock(100);
        EXPECT_EQ(poller.woken, 0); // it finds the event when the hold ends
    }
    ASSERT_TRUE(machine::WaitIdle());
    EXPECT_EQ(poller.woken, 1);
    EXPECT_EQ(poller.timeouts, 1);
    poller.stop = true;
    machine::AdvanceClock(10);
    Join(thread);

    LARGE_INTEGER time, passed;
    KeQuerySystemTime(&time);
    EXPECT_EQ(time.QuadPart, kStart + 120 * 10000);
    passed.QuadPart = kStart;
    KEVENT never;
    KeInitializeEvent(&never, NotificationEvent, FALSE);
    EXPECT_EQ(KeWaitForSingleObject(&never, Executive, KernelMode, FALSE, &passed), STATUS_TIMEOUT);
    machine::StartClock();
    EXPECT_FALSE(NdisWaitEvent(reinterpret_cast<NDIS_EVENT*>(&never), 1)); // real time
    machine::StopClock(kStart);
}

struct Ticker {
    NDIS_TIMER timer;
    std::vector<int64_t> fired; // milliseconds since the start
    int repeats = 0;
    static void Fire(PVOID, PVOID context, PVOID, PVOID)
    {
        auto* self = static_cast<Ticker*>(context);
        EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
        LARGE_INTEGER now;
        KeQuerySystemTime(&now);
        self->fired.push_back((now.QuadPart - kStart) / 10000);
        if (self->repeats-- > 0)
            NdisSetTimer(&self->timer, 30);
    }
};

TEST_F(Waits, TimersFireAtTheirOwnTimeAndCanBeCancelled)
{
    Ticker ticker;
    ticker.repeats = 2;
    NdisInitializeTimer(&ticker.timer, Ticker::Fire, &ticker);
    NdisSetTimer(&ticker.timer, 50);
    EXPECT_EQ(machine::TakeCensus().timers, 1u);
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

TEST_F(Waits, WorkItemsRunOnceAtPassiveLevelAndMayFreeThemselves)
{
    static std::atomic<int> runs;
    runs = 0;
    PWORKER_THREAD_ROUTINE routine = [](PVOID item) {
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
        runs++;
        ExFreePool(item);
    };
    auto* item = static_cast<WORK_QUEUE_ITEM*>(ExAllocatePool(NonPagedPool, sizeof(WORK_QUEUE_ITEM)));
    ExInitializeWorkItem(item, routine, item);
    {
        machine::WorkItemHold hold;
        ExQueueWorkItem(item, DelayedWorkQueue);
        ExQueueWorkItem(item, DelayedWorkQueue);
        ExpectRule("work-item-queued-twice");
        EXPECT_EQ(runs, 0);
        EXPECT_EQ(machine::TakeCensus().workItems, 1u);
        EXPECT_FALSE(machine::WaitIdle(0));
    }
    ASSERT_TRUE(machine::WaitIdle());
    EXPECT_EQ(runs, 1);
}

TEST_F(Waits, BrokenRulesAreNamed)
{
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    {
        machine::AtDispatch level;
        EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr), STATUS_TIMEOUT);
        ExpectRule("wait-at-dispatch");
        LARGE_INTEGER past{};
        KeDelayExecutionThread(KernelMode, FALSE, &past);
        ExpectRule("irql-too-high");
    }
    KEVENT blank{};
    KeWaitForSingleObject(&blank, Executive, KernelMode, FALSE, nullptr);
    ExpectRule("object-not-initialized");
    EXPECT_EQ(ZwClose(reinterpret_cast<HANDLE>(0x7000)), STATUS_INVALID_HANDLE);
    ExpectRule("invalid-handle");
    ObDereferenceObject(&event);
    ExpectRule("not-an-object");
    EXPECT_EQ(PsTerminateSystemThread(0), STATUS_INVALID_PARAMETER);

    static KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    Join(StartThread([](PVOID) { KeAcquireSpinLockRaiseToDpc(&lock); }, nullptr));
    EXPECT_THAT(BrokenRules(), testing::ElementsAre("lock-left-held", "irql-changed"));
}

} // namespace
