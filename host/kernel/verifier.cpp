#include "verifier.h"

#include "pool.h"
#include "thread.h"

#include <array>
#include <cstdio>
#include <mutex>
#include <utility>

#include <execinfo.h>

namespace
{

struct Violations {
    std::mutex mutex;
    std::vector<machine::Violation> list;
    bool print = true;
};

Violations& TheViolations()
{
    static Violations& violations = *new Violations; // never destroyed: other threads may still run at exit
    return violations;
}

struct FaultPlan {
    std::atomic<uint64_t> calls{0}; // since ClearFaults
    std::atomic<uint64_t> first{0}; // the call that fails, counted like `calls`; 0: none
    std::atomic<uint64_t> second{0};
    std::atomic<bool> onwards{false};
    std::atomic<bool> hit{false};
    std::array<void*, 24> trace{}; // of the first call that failed; written before `hit`
    int traceDepth = 0;
};

std::array<FaultPlan, static_cast<size_t>(machine::Fault::Count)> g_faults;

FaultPlan& PlanOf(machine::Fault kind)
{
    return g_faults[static_cast<size_t>(kind)];
}

void Arm(machine::Fault kind, uint64_t n, uint64_t second, bool onwards)
{
    FaultPlan& plan = PlanOf(kind);
    plan.first = 0;
    plan.hit = false;
    plan.onwards = onwards;
    plan.second = second == 0 ? 0 : plan.calls + second;
    plan.first = n == 0 ? 0 : plan.calls + n;
}

} // namespace

namespace kernel
{

void Report(const char* rule, const char* function, const char* format, ...)
{
    char detail[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(detail, sizeof(detail), format, arguments);
    va_end(arguments);
    Violations& violations = TheViolations();
    std::lock_guard lock(violations.mutex);
    violations.list.push_back({rule, function, detail});
    if (violations.print)
        fprintf(stderr, "kernel: %s in %s: %s\n", rule, function, detail);
}

bool Fails(machine::Fault kind)
{
    FaultPlan& plan = PlanOf(kind);
    uint64_t call = plan.calls.fetch_add(1, std::memory_order_relaxed) + 1;
    uint64_t first = plan.first.load(std::memory_order_relaxed);
    if (first == 0 || call < first ||
        (call != first && !plan.onwards && call != plan.second.load(std::memory_order_relaxed)))
        return false;
    if (call == first) {
        plan.traceDepth = backtrace(plan.trace.data(), static_cast<int>(plan.trace.size()));
        plan.hit = true;
    }
    return true;
}

LiveCounters& Live()
{
    static LiveCounters counters;
    return counters;
}

} // namespace kernel

using namespace kernel;

namespace machine
{

std::vector<Violation> TakeViolations()
{
    Violations& violations = TheViolations();
    std::lock_guard lock(violations.mutex);
    return std::exchange(violations.list, {});
}

void PrintViolations(bool on)
{
    Violations& violations = TheViolations();
    std::lock_guard lock(violations.mutex);
    violations.print = on;
}

Census TakeCensus()
{
    const LiveCounters& live = Live();
    Census census;
    census.threads = live.threads;
    census.threadHandles = live.threadHandles;
    census.poolBlocks = live.poolBlocks;
    census.poolBytes = live.poolBytes;
    census.lookasideLists = live.lookasideLists;
    census.mdls = live.mdls;
    census.views = live.views;
    census.processReferences = live.processReferences;
    census.devices = live.devices;
    census.links = live.links;
    census.drivers = live.drivers;
    census.files = live.files;
    census.requests = live.requests;
    census.timers = live.timers;
    census.workItems = live.workItems;
    census.locksHeld = LocksHeldByAll();
    return census;
}

std::string DescribeCensus(const Census& census)
{
    std::string text;
    auto add = [&](size_t count, const char* one, const char* many) {
        if (count != 0)
            text += (text.empty() ? "" : ", ") + std::to_string(count) + " " + (count == 1 ? one : many);
    };
    add(census.threads, "thread", "threads");
    add(census.threadHandles, "thread handle", "thread handles");
    add(census.poolBlocks, "pool block", "pool blocks");
    if (census.poolBlocks != 0) {
        constexpr size_t kGroups = 8;
        std::string blocks = DescribeBlocks(kGroups);
        text += blocks.empty() ? "" : " (" + blocks + ")";
    }
    add(census.lookasideLists, "lookaside list", "lookaside lists");
    add(census.mdls, "MDL", "MDLs");
    add(census.views, "user view", "user views");
    add(census.processReferences, "reference of a process", "references of processes");
    add(census.devices, "device", "devices");
    add(census.links, "symbolic link", "symbolic links");
    add(census.drivers, "driver", "drivers");
    add(census.files, "open file", "open files");
    add(census.requests, "request", "requests");
    add(census.timers, "set timer", "set timers");
    add(census.workItems, "work item", "work items");
    add(census.locksHeld, "held lock", "held locks");
    return text.empty() ? "nothing" : text;
}

void CheckReturnToUser(const char* where)
{
    CheckReturn(PASSIVE_LEVEL, where, nullptr);
}

void FailCall(Fault kind, uint64_t n)
{
    Arm(kind, n, 0, false);
}

void FailCalls(Fault kind, uint64_t n, uint64_t second)
{
    Arm(kind, n, second, false);
}

void FailAllFrom(Fault kind, uint64_t n)
{
    Arm(kind, n, 0, true);
}

void ClearFaults()
{
    for (FaultPlan& plan : g_faults) {
        plan.first = 0;
        plan.second = 0;
        plan.onwards = false;
        plan.hit = false;
        plan.calls = 0;
    }
}

uint64_t FaultCalls(Fault kind)
{
    return PlanOf(kind).calls;
}

bool FaultHit(Fault kind)
{
    return PlanOf(kind).hit;
}

std::vector<std::string> FaultTrace(Fault kind)
{
    const FaultPlan& plan = PlanOf(kind);
    std::vector<std::string> names;
    if (plan.hit)
        for (int i = 2; i < plan.traceDepth; i++) // behind kernel::Fails and the kernel function itself
            names.emplace_back(DescribeSite(plan.trace[static_cast<size_t>(i)]).text);
    return names;
}

} // namespace machine
