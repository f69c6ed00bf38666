// Timers against the expiries and callbacks that they have under way.
#include "race.h"

#include <gtest/gtest.h>

namespace races
{
namespace
{

struct TimerRace : Race {
    void Begin() override
    {
        client = std::make_unique<Client>();
        RequireSuccess(Filter_InitializeTimer(client->Handle(), Callback, this, TRUE, &timer),
                       "Filter_InitializeTimer");
        Filter_StartTimer(timer, 10);
    }
    void End() override
    {
        client.reset();
        Require(running == 0, "every callback has ended");
    }
    FILTER_STATUS Free() { return Filter_FreeTimer(client->Handle(), timer); }

    static VOID Callback(FilterDriver*, PVOID, FilterTimer*, PVOID context)
    {
        auto& race = *static_cast<TimerRace*>(context);
        Require(!race.freed, "no callback begins after Filter_FreeTimer has returned");
        ++race.running;
        ++race.calls;
        --race.running;
        Require(!race.freed, "no callback runs on behind Filter_FreeTimer");
    }

    std::unique_ptr<Client> client;
    FilterTimer* timer = nullptr;
    bool freed = false;
    int calls = 0;
    std::atomic<int> running{0};
};

TEST(Races, FreeTimerAgainstCallback)
{
    Search<TimerRace>({.shortly = 1, .fully = 2}, [](TimerRace& race) {
        race.threads = {[] { machine::AdvanceClock(20); },
                        [&] {
                            RequireSuccess(race.Free(), "Filter_FreeTimer");
                            race.freed = true;
                        }};
    });
}

// What expired before the stop may still call; nothing expires behind it.
TEST(Races, StopTimerAgainstExpiry)
{
    Search<TimerRace>({.shortly = 2, .fully = 3}, [](TimerRace& race) {
        race.threads = {[] { machine::AdvanceClock(10); },
                        [&] { RequireSuccess(Filter_StopTimer(race.timer), "Filter_StopTimer"); }};
        race.end = [&] {
            Require(race.calls <= 1, "one expiry makes one callback");
            race.calls = 0;
            machine::AdvanceClock(100);
            Require(machine::WaitIdle() && race.calls == 0, "a timer that was stopped does not expire");
        };
    });
}

// The deregistration does not wait for callbacks; it only sees to it that no more are queued.
TEST(Races, DeregistrationAgainstCallback)
{
    Search<TimerRace>({.shortly = 1, .fully = 2}, [](TimerRace& race) {
        race.threads = {[] { machine::AdvanceClock(20); }, [&] { race.client.reset(); }};
        race.end = [&] {
            race.freed = true;
            machine::AdvanceClock(100);
            Require(machine::WaitIdle(), "the machine comes to rest");
        };
    });
}

TEST(Races, FreeTimerAgainstFreeTimer)
{
    std::atomic<int> successes;
    Search<TimerRace>({.shortly = 1, .fully = 2}, [&](TimerRace& race) {
        successes = 0;
        const auto free = [&] {
            const FILTER_STATUS status = race.Free();
            if (status == FILTER_STATUS_SUCCESS) {
                ++successes;
            } else {
                Require(status == FILTER_ERROR_TIMER_HANDLER_NOT_FOUND ||
                            status == FILTER_ERROR_INVALID_TIMER_HANDLE,
                        "who comes second is told so");
            }
        };
        race.threads = {free, free, [] { machine::AdvanceClock(10); }};
        race.end = [&] { Require(successes == 1, "one of two frees succeeds"); };
    });
}

} // namespace
} // namespace races
