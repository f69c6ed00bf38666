// A round: the drivers are loaded, threads make calls, the drivers are unloaded, and nothing may be left.
#include "world.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <thread>

#include <unistd.h>

extern "C" int32_t DriverEntry(_DRIVER_OBJECT* driver, _UNICODE_STRING* registryPath);

namespace stress
{

namespace
{

constexpr size_t kMostFailures = 50; // that are printed
constexpr uint32_t kPatience = 120;  // seconds, with callers that make no call, or until the next phase
constexpr char kService[] = "NdisFilter";

// A thread of the stress.
struct Caller {
    explicit Caller(const Random& stream) : random(stream) {}
    Random random;
    std::vector<size_t> calls; // that it makes
    std::vector<Tally> tallies = std::vector<Tally>(AllCalls().size());
    std::atomic<const char*> doing{"nothing yet"};
    std::atomic<uint64_t> steps{0};
};
thread_local Caller* t_caller = nullptr;
thread_local std::optional<Random> t_random; // of a thread of the kernel, in a callback

std::vector<std::unique_ptr<Caller>> g_callers; // those that call exports first
std::atomic<uint64_t> g_foreignThreads{0};
const char* g_phase = "nothing yet";

// A call holds the gate shared, which orders calls in no way; alone is who has it exclusively.
std::shared_mutex g_gate;
std::mutex g_turn; // of those that want to be alone
std::atomic<bool> g_gateWanted{false};

void PassGate()
{
    while (g_gateWanted.load(std::memory_order_relaxed)) {
        std::this_thread::yield();
    }
    g_gate.lock_shared();
}

// The watchdog is an alarm that is put off as long as something happens.
void Phase(const char* name)
{
    g_phase = name;
    alarm(kPatience);
}

void TellWhatIsStuck(int)
{
    fmt::print(stderr, "stress: no progress for two minutes in phase {}. What each thread is doing:\n",
               g_phase);
    for (const auto& caller : g_callers) {
        fmt::print(stderr, "  {}, {} calls behind it\n", caller->doing.load(), caller->steps.load());
    }
    std::abort();
}

void Step(Caller& caller)
{
    Random& random = caller.random;
    const size_t index = caller.calls[random.Below(static_cast<uint32_t>(caller.calls.size()))];
    const Call& call = AllCalls()[index];
    Tally& tally = caller.tallies[index];
    const bool illegal = call.illegal && random.Chance(25);
    t_isRaised = call.level == Level::Dispatch && random.Chance(25);
    caller.doing.store("waits for its turn", std::memory_order_relaxed);
    {
        std::optional<machine::AtDispatch> dispatch;
        if (t_isRaised) {
            dispatch.emplace(random.Chance(20) ? static_cast<int>(random.Below(64)) : -1);
            tally[kRaised]++;
        }
        PassGate();
        caller.doing.store(call.name, std::memory_order_relaxed);
        if (illegal) {
            tally[kIllegal] += call.illegal();
        } else {
            const Outcome outcome = call.legal();
            tally[kAttempts]++;
            tally[kSuccesses] += outcome == Outcome::Success ? 1 : 0;
            tally[kRefusals] += outcome == Outcome::Refused ? 1 : 0;
        }
        g_gate.unlock_shared();
    }
    machine::CheckReturnToUser(call.name);
    caller.steps.fetch_add(1, std::memory_order_relaxed);
}

// Until all that is planned was called. The others go on until then.
void MakeCalls(uint32_t threads, uint64_t steps)
{
    Phase("calls");
    std::atomic<uint32_t> running{threads};
    std::vector<std::jthread> started;
    for (uint32_t i = 0; i < g_callers.size(); ++i) {
        started.emplace_back([&, i] {
            Caller& caller = *g_callers[i];
            t_caller = &caller;
            while (i < threads ? caller.steps < steps : running.load(std::memory_order_relaxed) != 0) {
                Step(caller);
                if (i >= threads && caller.random.Chance(20)) { // callers want their share of processors
                    std::this_thread::sleep_for(std::chrono::microseconds(caller.random.Below(300)));
                }
            }
            caller.doing = "has finished";
            running.fetch_sub(i < threads ? 1 : 0, std::memory_order_relaxed);
        });
    }
    for (uint64_t seen = 0, now = 1; running.load(std::memory_order_relaxed) != 0; seen = now) {
        if (now != seen) {
            alarm(kPatience);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        now = 0;
        for (uint32_t i = 0; i < threads; ++i) {
            now += g_callers[i]->steps.load(std::memory_order_relaxed);
        }
    }
}

void Settle()
{
    while (Filter_GetInjectPacketCount() != 0 || !machine::WaitIdle()) {
        std::this_thread::yield(); // the watchdog bounds it
    }
}

hook::Balance GiveBack()
{
    Phase("give back");
    Device().Control(IOCTL_NDIS_FILTER_STOP_ETHRLOG, {}, {});
    if (!g_plan.leavesAll) {
        CloseProgram();
    }
    Settle();
    CloseWorld();
    CloseSockets();
    Settle();
    if (!g_plan.unbinds && !g_plan.captures) { // or some are stranded
        const hook::Balance before = hook::TakeBalance();
        Require(before.IsEven() && before.outstanding == 0,
                fmt::format("{} packets are out when all were given back", before.outstanding));
        for (const std::string& line : hook::Outstanding()) {
            fmt::print(stderr, "  {}\n", line);
        }
    }
    Unload();
    const hook::Balance balance = hook::TakeBalance();
    Require(balance.IsEven(), fmt::format("{} packets were born, {} ended", balance.Born(), balance.Ended()));
    return balance;
}

} // namespace

const std::vector<Call>& AllCalls()
{
    static const std::vector<Call> calls = [] {
        std::vector<Call> all;
        for (const auto& part : {ClientCalls(), AdapterCalls(), PacketCalls(), ServiceCalls(), SocketCalls(),
                                 NeighbourCalls()}) {
            all.insert(all.end(), part.begin(), part.end());
        }
        return all;
    }();
    return calls;
}

Random& Dice()
{
    if (t_caller == nullptr && !t_random) {
        t_random.emplace(g_plan.seed, g_plan.round, 1000 + g_foreignThreads.fetch_add(1));
    }
    return t_caller != nullptr ? t_caller->random : *t_random;
}

Outcome Judge(int64_t status, const std::vector<int64_t>& refusals)
{
    const bool refused = std::find(refusals.begin(), refusals.end(), status) != refusals.end();
    RequireSuccess(refused ? 0 : status, "a legal call");
    return status == 0 ? Outcome::Success : Outcome::Refused;
}

void Require(bool holds, const std::string& what)
{
    if (!holds && g_failures.fetch_add(1) < kMostFailures) {
        fmt::print(stderr, "stress: FAILED: {} ({}, seed {}, round {})\n", what,
                   t_caller != nullptr ? t_caller->doing.load() : "no caller", g_plan.seed, g_plan.round);
    }
}

void RequireSuccess(int64_t status, const std::string& what)
{
    if (status != 0) {
        Require(false, fmt::format("{} answered {} (0x{:08X})", what, status, static_cast<uint32_t>(status)));
    }
}

void Alone(const std::function<void()>& body)
{
    g_gate.unlock_shared();
    {
        const std::lock_guard turn(g_turn);
        g_gateWanted.store(true, std::memory_order_relaxed);
        g_gate.lock();
        body();
        g_gate.unlock();
        g_gateWanted.store(false, std::memory_order_relaxed);
    }
    PassGate();
}

void Load()
{
    RequireSuccess(machine::LoadTransport(), "load of the transport");
    RequireSuccess(machine::LoadDriver(kService, DriverEntry), "load of the framework");
    RequireSuccess(hook::Load({.packetLimit = 2048}), "load of the hook driver");
    RequireSuccess(hook::Bind(), "binding");
}

void Unload()
{
    Phase("unload");
    RequireSuccess(hook::Unload(), "unload of the hook driver");
    const machine::Status status = machine::UnloadDriver(kService);
    Require(status == (g_plan.leavesAll ? STATUS_PENDING : STATUS_SUCCESS), "unload of the framework");
    CloseProgram();
    Require(!machine::IsDriverLoaded(kService), "the framework is still loaded");
    CheckSockets();
    RequireSuccess(machine::UnloadTransport(), "unload of the transport");
    alarm(0);
}

void CheckNothingIsLeft(const machine::Census& before)
{
    for (const machine::Violation& violation : machine::TakeViolations()) {
        Require(false, violation.rule + " in " + violation.function + ": " + violation.detail);
    }
    for (const std::string& misuse : hook::TakeMisuses()) {
        Require(false, "misuse of the hook driver: " + misuse);
    }
    const machine::Census after = machine::TakeCensus();
    Require(after == before, "left behind: " + machine::DescribeCensus(after));
}

hook::Balance RunRound(uint64_t seed, uint64_t round, uint32_t threads, uint64_t steps,
                       const std::string& drive, std::vector<Tally>& totals)
{
    Random random(seed, round, 999);
    g_plan = {.seed = seed,
              .round = round,
              .unbinds = round % 3 == 1,
              .captures = round % 3 == 2,
              .leavesAll = round % 4 == 3};
    const machine::Census before = machine::TakeCensus();
    std::signal(SIGALRM, TellWhatIsStuck);
    g_callers.clear();
    for (uint32_t i = 0; i < threads + kActors - 1; ++i) {
        g_callers.push_back(std::make_unique<Caller>(Random(seed, round, i)));
        for (size_t call = 0; call < AllCalls().size(); ++call) {
            const auto& [name, actor, level, floor, legal, illegal, planned] = AllCalls()[call];
            if (actor == (i < threads ? kExportCaller : i - threads + 1) && legal &&
                (planned == nullptr || g_plan.*planned)) {
                g_callers.back()->calls.push_back(call);
            }
        }
    }
    std::filesystem::create_directories(drive);
    machine::SetDriveC(drive);
    machine::DeleteRegistryKey(kService);
    machine::SetRegistryDword(kService, "Start", 3);
    machine::SetRegistryDword(kService, "GlobalDebugFlag", random.Chance(15) ? 0xFFFFFFFF : 0); // every line
    machine::SetRegistryString(kService, "Text", "text");
    Phase("load");
    Load();
    OpenWorld();
    OpenSockets();
    MakeCalls(threads, steps);
    const hook::Balance balance = GiveBack();
    std::filesystem::remove_all(drive);
    CheckNothingIsLeft(before);
    for (const auto& caller : g_callers) {
        for (size_t i = 0; i < totals.size(); ++i) {
            for (size_t count = 0; count < kCounts; ++count) {
                totals[i][count] += caller->tallies[i][count];
            }
        }
    }
    return balance;
}

} // namespace stress
