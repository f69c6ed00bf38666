// Timers against the expiries and callbacks that they have under way.
#include "race.h"

#include <gtest/gtest.h>

namespace races
{
namespace
{

class TimerRace : public Race
{
  protected:
    void Begin() override
    {
        client_ = std::make_unique<Client>();
        RequireSuccess(Filter_InitializeTimer(client_->Handle(), Callback, this, TRUE, &timer_),
                       "Filter_InitializeTimer");
        Filter_StartTimer(timer_, 10);
    }
    void End() override
    {
        client_.reset();
        Require(running_ == 0, "every callback has ended");
    }

    static VOID Callback(FilterDriver*, PVOID, FilterTimer*, PVOID context)
    {
        auto& race = *static_cast<TimerRace*>(context);
        Require(!race.freed_, "no callback begins after Filter_FreeTimer has returned");
        ++race.running_;
        ++race.calls_;
        --race.running_;
        Require(!race.freed_, "no callback runs on behind Filter_FreeTimer");
    }

    std::unique_ptr<Client> client_;
    FilterTimer* timer_ = nullptr;
    bool freed_ = false;
    int calls_ = 0;
    std::atomic<int> running_{0};
};

class FreeTimer : public TimerRace
{
    Bodies Threads() override
    {
        return {[] { machine::AdvanceClock(20); },
                [this] {
                    RequireSuccess(Filter_FreeTimer(client_->Handle(), timer_), "Filter_FreeTimer");
                    freed_ = true;
                }};
    }
};

TEST(Races, FreeTimerAgainstCallback)
{
    Search<FreeTimer>({.shortly = 1, .fully = 2});
}

// What expired before the stop may still call; nothing expires behind it.
class StopTimer : public TimerRace
{
    Bodies Threads() override
    {
        return {[] { machine::AdvanceClock(10); },
                [this] { RequireSuccess(Filter_StopTimer(timer_), "Filter_StopTimer"); }};
    }
    void End() override
    {
        Require(calls_ <= 1, "one expiry makes one callback");
        calls_ = 0;
        machine::AdvanceClock(100);
        Require(machine::WaitIdle() && calls_ == 0, "a timer that was stopped does not expire");
        TimerRace::End();
    }
};

TEST(Races, StopTimerAgainstExpiry)
{
    Search<StopTimer>({.shortly = 2, .fully = 3});
}

// The deregistration does not wait for callbacks; it only sees to it that no more are queued.
class DeregisterWithTimer : public TimerRace
{
    Bodies Threads() override
    {
        return {[] { machine::AdvanceClock(20); }, [this] { client_.reset(); }};
    }
    void Settle() override
    {
        TimerRace::Settle();
        freed_ = true;
    }
    void End() override
    {
        machine::AdvanceClock(100);
        Require(machine::WaitIdle(), "the machine comes to rest");
        TimerRace::End();
    }
};

TEST(Races, DeregistrationAgainstCallback)
{
    Search<DeregisterWithTimer>({.shortly = 1, .fully = 2});
}

class FreeTwice : public TimerRace
{
    Bodies Threads() override
    {
        const auto free = [this] {
            const FILTER_STATUS status = Filter_FreeTimer(client_->Handle(), timer_);
            if (status == FILTER_STATUS_SUCCESS) {
                ++successes_;
            } else {
                Require(status == FILTER_ERROR_TIMER_HANDLER_NOT_FOUND ||
                            status == FILTER_ERROR_INVALID_TIMER_HANDLE,
                        "who comes second is told so");
            }
        };
        return {free, free, [] { machine::AdvanceClock(10); }};
    }
    void End() override
    {
        Require(successes_ == 1, "one of two frees succeeds");
        TimerRace::End();
    }
    std::atomic<int> successes_{0};
};

TEST(Races, FreeTimerAgainstFreeTimer)
{
    Search<FreeTwice>({.shortly = 1, .fully = 2});
}

} // namespace
} // namespace races
