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
        RequireStatus(Filter_InitializeTimer(client_->Handle(), Callback, this, TRUE, &timer_), FILTER_STATUS_SUCCESS,
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
                    RequireStatus(Filter_FreeTimer(client_->Handle(), timer_), FILTER_STATUS_SUCCESS,
                                  "Filter_FreeTimer");
                    freed_ = true;
                }};
    }
};

TEST(Races, FreeTimerAgainstCallback)
{
    Search<FreeTimer>({.shortly = 1, .fully = 2});
}

} // namespace
} // namespace races
