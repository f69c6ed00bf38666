// Timers of several drivers against a model, on a clock that only the input moves: every callback that is due has run
// once, and none other, whatever is started, stopped, freed and deregistered in between.
#include "support/fuzz.h"

#include <atomic>
#include <list>
#include <memory>

using namespace fuzz;

namespace
{

constexpr size_t kSteps = 32, kDrivers = 2, kMostTimers = 8;
constexpr uint8_t kDelays[] = {0, 1, 2, 3, 5, 7, 9, 10, 11, 15, 20, 255};
constexpr uint8_t kAdvances[] = {0, 1, 2, 3, 7, 10, 16, 23};

struct Timer {
    FilterTimer* handle = nullptr;
    size_t driver = 0;
    bool repeats = false, isSet = false;
    uint64_t due = 0, delay = 0; // milliseconds
    uint32_t expected = 0;       // callbacks
    std::atomic<uint32_t> calls = 0;
    FilterDriver* owner = nullptr;
    void* driverContext = nullptr;
};

VOID OnTimer(FilterDriver* driver, PVOID driverContext, FilterTimer* handle, PVOID context)
{
    auto* timer = static_cast<Timer*>(context);
    Require(driver == timer->owner && driverContext == timer->driverContext && handle == timer->handle &&
                KeGetCurrentIrql() == PASSIVE_LEVEL,
            "a callback gets what was registered, at passive level");
    ++timer->calls;
}

class Fixture : public DriversMachine<kDrivers>
{
  public:
    Fixture()
    {
        Timer timer; // the first callback starts threads
        MakeHandle(timer);
        Filter_StartTimer(timer.handle, 1);
        machine::AdvanceClock(1);
        AwaitRest();
        Filter_FreeTimer(drivers_[0], timer.handle);
        Accept();
    }

    void Run(Input input)
    {
        for (size_t step = 0; step < kSteps && !input.IsEmpty(); ++step) {
            Step(input);
        }
        while (!timers_.empty()) {
            Free(timers_.front().get());
        }
        CheckAtRest();
    }

  private:
    void MakeHandle(Timer& timer)
    {
        timer.owner = drivers_[timer.driver];
        timer.driverContext = static_cast<Machine*>(this);
        RequireEqual(Filter_InitializeTimer(timer.owner, OnTimer, &timer, timer.repeats, &timer.handle),
                     FILTER_STATUS_SUCCESS, "creating a timer");
    }

    void Step(Input& input)
    {
        Timer* timer = timers_.empty() ? nullptr : input.At(timers_)->get();
        switch (input.Below(8)) {
        case 0:
        case 1:
            Create(input);
            break;
        case 2:
        case 3:
            if (timer != nullptr) {
                Start(*timer, input.OneOf(kDelays));
            }
            break;
        case 4:
            if (timer != nullptr) {
                RequireEqual(Filter_StopTimer(timer->handle), FILTER_STATUS_SUCCESS, "stopping");
                timer->isSet = false;
            }
            break;
        case 5:
            if (timer != nullptr) {
                Free(timer);
            }
            break;
        case 6:
            Depart(input.Below(8) % kDrivers);
            break;
        default:
            Advance(input.OneOf(kAdvances));
            break;
        }
    }

    void Create(Input& input)
    {
        if (timers_.size() < kMostTimers) {
            auto timer = std::make_unique<Timer>();
            timer->driver = input.Below(kDrivers);
            timer->repeats = input.Flag();
            MakeHandle(*timer);
            timers_.push_back(std::move(timer));
        }
    }

    // Without a delay it is due when the clock ticks, which is every millisecond.
    static uint64_t Ticks(uint64_t delay) { return delay == 0 ? 1 : delay; }

    void Start(Timer& timer, uint8_t delay)
    {
        RequireEqual(Filter_StartTimer(timer.handle, delay), FILTER_STATUS_SUCCESS, "starting");
        timer.isSet = true;
        timer.delay = Ticks(delay);
        timer.due = now_ + timer.delay;
    }

    // Its callbacks have ended when it returns.
    void Free(Timer* timer)
    {
        const size_t other = (timer->driver + 1) % kDrivers;
        RequireEqual(Filter_FreeTimer(drivers_[other], timer->handle),
                     FILTER_ERROR_INVALID_TIMER_HANDLER_OWNER, "freeing the timer of another driver");
        RequireEqual(Filter_FreeTimer(drivers_[timer->driver], timer->handle), FILTER_STATUS_SUCCESS,
                     "freeing");
        RequireEqual(timer->calls.load(), timer->expected, "callbacks of a timer that is freed");
        timers_.remove_if([timer](const auto& one) { return one.get() == timer; });
    }

    // Takes the timers along; callbacks that are queued are not waited for.
    void Depart(size_t driver)
    {
        RequireEqual(Filter_DeregisterDriver(drivers_[driver]), FILTER_STATUS_SUCCESS, "deregistering");
        AwaitRest();
        timers_.remove_if([driver](const auto& timer) {
            if (timer->driver == driver) {
                RequireEqual(timer->calls.load(), timer->expected,
                             "callbacks of a timer that goes with its driver");
            }
            return timer->driver == driver;
        });
        Register(driver);
    }

    void Advance(uint8_t milliseconds)
    {
        const uint64_t end = now_ + milliseconds;
        for (const auto& timer : timers_) {
            while (timer->isSet && timer->due <= end) {
                ++timer->expected;
                timer->isSet = timer->repeats;
                timer->due += timer->delay;
            }
        }
        machine::AdvanceClock(milliseconds);
        now_ = end;
        // What is freed or deregistered next meets callbacks that are still queued, every other time.
        if (milliseconds % 2 == 0) {
            AwaitRest();
            for (const auto& timer : timers_) {
                RequireEqual(timer->calls.load(), timer->expected, "callbacks");
            }
        }
    }

    std::list<std::unique_ptr<Timer>> timers_;
    uint64_t now_ = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return RunOn<Fixture>(data, size);
}
