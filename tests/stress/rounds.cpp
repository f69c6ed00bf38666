// A round: the drivers are loaded, threads make calls, the drivers are unloaded, and nothing may be left.
#include "rounds.h"

#include "neighbours.h"

#include <fmt/format.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>

extern "C" int32_t DriverEntry(_DRIVER_OBJECT* driver, _UNICODE_STRING* registryPath);

namespace stress
{

namespace
{

using Clock = std::chrono::steady_clock;

constexpr char kService[] = "NdisFilter";
constexpr std::chrono::minutes kPatience(2); // with a thread that makes no call
constexpr uint32_t kPacketLimit = 2048;

// What the main thread is at, for the watchdog.
std::atomic<const char*> g_phase{"nothing yet"};
std::atomic<uint64_t> g_phases{0};

void Phase(const char* name)
{
    g_phase.store(name, std::memory_order_relaxed);
    g_phases.fetch_add(1, std::memory_order_relaxed);
}

bool IsCaller(size_t number, uint32_t threads)
{
    return number < threads;
}

// Aborts when a thread makes no call, or the main thread does not come to the next phase.
class Watchdog
{
  public:
    explicit Watchdog(const std::vector<std::unique_ptr<Caller>>& callers)
        : callers_(callers), seen_(callers.size() + 1), since_(callers.size() + 1, Clock::now()),
          thread_([this](std::stop_token stop) { Watch(stop); })
    {}
    void CallersAreDone() { callersDone_ = true; }

  private:
    void Watch(const std::stop_token& stop)
    {
        while (!stop.stop_requested()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            bool stuck =
                HasStopped(callers_.size(), g_phases.load(std::memory_order_relaxed)) && callersDone_;
            for (size_t i = 0; i < callers_.size() && !callersDone_; ++i) {
                const bool finished = callers_[i]->Doing() == nullptr;
                stuck = (HasStopped(i, callers_[i]->Steps()) && !finished) || stuck;
            }
            if (stuck) {
                Tell();
                std::abort();
            }
        }
    }
    bool HasStopped(size_t index, uint64_t steps)
    {
        if (steps != seen_[index]) {
            seen_[index] = steps;
            since_[index] = Clock::now();
        }
        return Clock::now() - since_[index] > kPatience;
    }
    void Tell() const
    {
        fmt::print(stderr, "stress: no progress for two minutes. What each thread is doing:\n");
        fmt::print(stderr, "  main: {}\n", g_phase.load());
        for (size_t i = 0; i < callers_.size(); ++i) {
            const auto idle = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - since_[i]);
            const char* const doing = callers_[i]->Doing();
            fmt::print(stderr, "  {}: {}, {} calls behind it, the last {} s ago\n", callers_[i]->Name(),
                       doing != nullptr ? doing : "has finished", callers_[i]->Steps(), idle.count());
        }
    }

    const std::vector<std::unique_ptr<Caller>>& callers_;
    std::vector<uint64_t> seen_;
    std::vector<Clock::time_point> since_;
    std::atomic<bool> callersDone_{false};
    std::jthread thread_; // last: it uses the others
};

void Require(bool holds, const std::string& what)
{
    if (!holds) {
        Fail(what);
    }
}

void RequireSuccess(machine::Status status, const char* what)
{
    Require(status == STATUS_SUCCESS,
            fmt::format("{}: status 0x{:08X}", what, static_cast<uint32_t>(status)));
}

void Load(const RoundPlan& plan, const std::string& drive)
{
    Phase("load");
    machine::SetDriveC(drive);
    machine::DeleteRegistryKey(kService);
    machine::SetRegistryDword(kService, "Start", 3);
    machine::SetRegistryDword(kService, "GlobalDebugFlag", plan.traces ? 0xFFFFFFFF : 0);
    machine::SetRegistryString(kService, "Text", "text");
    RequireSuccess(machine::LoadTransport(), "load of the transport");
    RequireSuccess(machine::LoadDriver(kService, DriverEntry), "load of the framework");
    RequireSuccess(hook::Load({.packetLimit = kPacketLimit}), "load of the hook driver");
    RequireSuccess(hook::Bind(), "binding");
}

void Settle()
{
    Phase("settle");
    while (Filter_GetInjectPacketCount() != 0 || !machine::WaitIdle()) {
        std::this_thread::yield(); // the watchdog bounds it
    }
}

// `program` may keep its handle: the framework then unloads when it is closed.
hook::Balance Unload(const RoundPlan& plan, Caller& program)
{
    Phase("give back");
    if (plan.captures) {
        program.Device()->Control(IOCTL_NDIS_FILTER_STOP_ETHRLOG, {}, {});
    }
    if (!plan.leavesAll) {
        CloseProgram(program);
    } else {
        Require(program.Device() != nullptr, "the device cannot be opened");
    }
    Settle();
    CloseWorld(plan);
    CloseSockets();
    Settle();
    const bool exact = !plan.unbinds && !plan.captures;
    if (exact) {
        const hook::Balance before = hook::TakeBalance();
        Require(before.IsEven() && before.outstanding == 0,
                fmt::format("{} packets are out when all were given back", before.outstanding));
        for (const std::string& line : hook::Outstanding()) {
            fmt::print(stderr, "  {}\n", line);
        }
    }
    Phase("unload of the hook driver");
    RequireSuccess(hook::Unload(), "unload of the hook driver");
    Phase("unload of the framework");
    const machine::Status status = machine::UnloadDriver(kService);
    Require(status == (plan.leavesAll ? STATUS_PENDING : STATUS_SUCCESS), "unload of the framework");
    CloseProgram(program);
    Require(!machine::IsDriverLoaded(kService), "the framework is still loaded");
    CheckSockets();
    Phase("unload of the transport");
    RequireSuccess(machine::UnloadTransport(), "unload of the transport");
    const hook::Balance balance = hook::TakeBalance();
    Require(balance.IsEven(), fmt::format("the balance of packets is not even: {} born, {} ended",
                                          balance.Born(), balance.Ended()));
    return balance;
}

// The thread's calls of a round: as many as planned of one that calls, else as long as those last.
void RunThread(Caller& caller, bool calls, uint64_t steps, const std::atomic<uint32_t>& running)
{
    while (calls ? caller.Steps() < steps : running.load(std::memory_order_relaxed) != 0) {
        caller.Step();
        if (!calls && caller.Stream().Chance(20)) { // the callers are to have their share of the processors
            std::this_thread::sleep_for(std::chrono::microseconds(caller.Stream().Below(300)));
        }
    }
    caller.Finish();
}

} // namespace

RoundPlan PlanRound(uint64_t seed, uint64_t round)
{
    Random random(seed, round, 999);
    RoundPlan plan{.seed = seed, .round = round};
    plan.unbinds = random.Chance(40);
    plan.captures = random.Chance(40);
    plan.leavesAll = random.Chance(30);
    plan.traces = random.Chance(15);
    return plan;
}

RoundResult RunRound(const RoundPlan& plan, uint32_t threads, uint64_t steps, const std::string& scratch)
{
    const machine::Census before = machine::TakeCensus();
    std::vector<std::unique_ptr<Caller>> callers;
    const auto add = [&](Actor actor) {
        callers.push_back(
            std::make_unique<Caller>(actor, plan.seed, plan.round, static_cast<uint32_t>(callers.size())));
    };
    for (uint32_t i = 0; i < threads; ++i) {
        add(Actor::Caller);
    }
    add(Actor::Program);
    Caller& program = *callers.back();
    add(Actor::Administrator);
    add(Actor::Traffic);

    RoundResult result;
    {
        Watchdog watchdog(callers);
        const std::string drive = scratch + "/c";
        std::filesystem::create_directories(drive);
        Load(plan, drive);
        PlanNeighbours(plan);
        OpenWorld(plan);
        OpenSockets();
        Phase("calls");
        std::atomic<uint32_t> running{threads};
        {
            std::vector<std::jthread> running_threads;
            for (size_t i = 0; i < callers.size(); ++i) {
                running_threads.emplace_back([&, i] {
                    const bool calls = IsCaller(i, threads);
                    RunThread(*callers[i], calls, steps, running);
                    running.fetch_sub(calls ? 1 : 0, std::memory_order_relaxed);
                });
            }
        }
        watchdog.CallersAreDone();
        for (const auto& caller : callers) {
            if (caller.get() != &program) {
                caller->CloseDevice();
            }
        }
        result.balance = Unload(plan, program);
        std::filesystem::remove_all(drive);
    }
    for (const machine::Violation& violation : machine::TakeViolations()) {
        Fail(violation.rule + " in " + violation.function + ": " + violation.detail);
    }
    for (const std::string& misuse : hook::TakeMisuses()) {
        Fail("misuse of the hook driver: " + misuse);
    }
    const machine::Census after = machine::TakeCensus();
    Require(after == before, "left behind: " + machine::DescribeCensus(after));
    result.tallies.resize(AllCalls().size());
    for (const auto& caller : callers) {
        for (size_t i = 0; i < result.tallies.size(); ++i) {
            result.tallies[i].Add(caller->Tallies()[i]);
        }
    }
    return result;
}

} // namespace stress
