#include "race.h"

#include <scheduler/memory.h>

#include <CLI/CLI.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <thread>

#include <unistd.h>

// The entry routine of the framework, which is linked in.
extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath);

namespace races
{

namespace
{

struct Options {
    bool fully = false;
    std::optional<uint32_t> depth; // else that of each race
    std::optional<uint64_t> seeds;
    uint64_t firstSeed = 1;
    std::string only;
    std::string replay;
    std::string directory; // for the drives C of the processes
    uint32_t jobs = std::max(1u, std::thread::hardware_concurrency());
};
Options g_options;

FilterAdapter* g_adapter = nullptr;

constexpr uint32_t kPackets = 64; // more than a run needs on all its processors
constexpr int kProcessors = 16;
constexpr uint64_t kShortSeeds = 300;
constexpr uint64_t kAllSeeds = 20'000;

VOID Nothing(PVOID) {}

// All worker threads and the one of the timers: from now on each run has the same threads.
void StartKernelThreads()
{
    WORK_QUEUE_ITEM items[8];
    {
        const machine::WorkItemHold hold;
        for (WORK_QUEUE_ITEM& item : items) {
            ExInitializeWorkItem(&item, Nothing, nullptr);
            ExQueueWorkItem(&item, DelayedWorkQueue);
        }
    }
    NDIS_TIMER timer;
    NdisInitializeTimer(
        &timer, [](PVOID, PVOID, PVOID, PVOID) {}, nullptr);
    NdisSetTimer(&timer, 1);
    machine::AdvanceClock(1);
    Require(machine::WaitIdle(), "the machine comes to rest");
}

// Lets the pool of packets grow to its limit.
void FillPacketPool()
{
    std::vector<FilterPacket*> packets;
    while (FilterPacket* const packet = Filter_AllocatePacket(g_adapter)) {
        packets.push_back(packet);
    }
    for (FilterPacket* packet : packets) {
        Filter_ReleasePacket(packet);
    }
}

void LoadHook()
{
    RequireSuccess(hook::Load({.packetLimit = kPackets}), "loading the hook driver");
    RequireSuccess(hook::Bind(), "binding");
    g_adapter = hook::AddAdapter({.name = "{RACES}", .address = support::kOwnMac});
    hook::OpenAdapter(g_adapter);
    FillPacketPool();
}

std::string Problems()
{
    std::string text;
    for (const machine::Violation& violation : machine::TakeViolations()) {
        text += violation.rule + " in " + violation.function + ": " + violation.detail + "; ";
    }
    for (const std::string& misuse : hook::TakeMisuses()) {
        text += "misuse of the hook driver: " + misuse + "; ";
    }
    return text;
}

} // namespace

void Require(bool holds, const char* contract)
{
    if (!holds) {
        scheduler::Fail("broken: %s", contract);
    }
}

void RequireSuccess(int32_t status, const char* of)
{
    if (status != 0) {
        scheduler::Fail("broken: %s gives 0x%08x", of, static_cast<unsigned>(status));
    }
}

Client::Client(std::string name)
{
    const auto length = static_cast<USHORT>(name.size());
    const STRING counted = {length, length, name.data()};
    RequireSuccess(Filter_RegisterDriver(&counted, this, 1, 0, &handle_), "the registration");
}

Client::~Client()
{
    if (handle_ != nullptr) {
        Deregister();
    }
}

void Client::Deregister()
{
    RequireSuccess(Filter_DeregisterDriver(handle_), "the deregistration");
    handle_ = nullptr;
}

void LoadKernel()
{
    machine::PrintViolations(false);
    machine::StopClock(0);
    std::filesystem::create_directory(DriveC());
    machine::SetDriveC(DriveC());
    machine::SetRegistryDword("NdisFilter", "Start", 3);
    StartKernelThreads();
    for (int processor = 0; processor < kProcessors; ++processor) {
        const machine::AtDispatch used(processor); // from now on each run finds as many
    }
}

void LoadDrivers()
{
    RequireSuccess(machine::LoadDriver("NdisFilter", DriverEntry), "loading the framework");
    LoadHook();
}

void LoadMachine()
{
    LoadKernel();
    LoadDrivers();
    Require(machine::WaitIdle(), "the machine comes to rest");
}

void ReloadHook()
{
    RequireSuccess(hook::Unload(), "unloading the hook driver");
    LoadHook();
}

std::string DriveC()
{
    return g_options.directory + "/" + std::to_string(getpid());
}

FilterAdapter* Adapter()
{
    return g_adapter;
}

void Race::Prepare()
{
    // All time-outs of the machine's own threads begin now, whatever the run before did.
    machine::AdvanceClock(1000);
    Require(machine::WaitIdle(), "the machine comes to rest");
    census_ = machine::TakeCensus();
    Begin();
    Require(machine::WaitIdle(), "the machine comes to rest before the race");
}

void Race::Settle()
{
    Require(machine::WaitIdle(), "the machine comes to rest behind the race");
}

void Race::Check()
{
    end();
    End();
    Require(machine::WaitIdle(), "the machine comes to rest at the end");
    machine::CheckReturnToUser("the end of a run");
    if (const std::string problems = Problems(); !problems.empty()) {
        scheduler::Fail("rule: %s", problems.c_str());
    }
    const machine::Census after = machine::TakeCensus();
    if (!(after == census_)) {
        scheduler::Fail("left over: %s\nbefore: %s", machine::DescribeCensus(after).c_str(),
                        machine::DescribeCensus(census_).c_str());
    }
}

void Search(const scheduler::SceneMaker& maker, const Depths& depths)
{
    const std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
    if (!g_options.replay.empty()) {
        const scheduler::SearchResult result = scheduler::Replay(maker, g_options.replay);
        printf("%s", result.story.c_str());
        EXPECT_FALSE(result.failed) << result.reason;
        return;
    }
    const auto begin = std::chrono::steady_clock::now();
    const scheduler::SearchPlan plan = {
        .depth = g_options.depth.value_or(g_options.fully ? depths.fully : depths.shortly),
        .seeds = g_options.seeds.value_or(g_options.fully ? kAllSeeds : kShortSeeds),
        .firstSeed = g_options.firstSeed,
        .jobs = g_options.jobs};
    const scheduler::SearchResult result = scheduler::Search(maker, plan);
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
    printf("%-34s depth %u: %7" PRIu64 " schedules, %6" PRIu64 " by chance; %4" PRIu64
           " choices in the plain one, up to %5" PRIu64 " of %9" PRIu64 " switch points; %u passes, %.1f s\n",
           name.c_str(), plan.depth, result.schedules, result.seeds, result.choices, result.longest,
           result.steps, result.passes, time.count());
    EXPECT_FALSE(result.failed) << result.reason << "\nschedule: " << result.schedule
                                << (result.failedAgain ? "\nfails again" : "\nDOES NOT FAIL AGAIN")
                                << " in a new process\n"
                                << result.story << "Once more: test-races --only " << name << " --replay '"
                                << result.schedule << "'";
}

} // namespace races

int main(int argc, char** argv)
{
    using races::g_options;
    testing::InitGoogleTest(&argc, argv);
    CLI::App app("Lays out races: runs each under many schedules.");
    app.add_flag("--fully", g_options.fully, "to the full depth of each race, with many seeds");
    app.add_option("--depth", g_options.depth, "at most so many deviations from the plain order");
    app.add_option("--seeds", g_options.seeds, "so many schedules by chance");
    app.add_option("--first-seed", g_options.firstSeed, "the first of them");
    app.add_option("--only", g_options.only, "only races of this name; * and ? are allowed");
    app.add_option("--replay", g_options.replay, "one schedule of the one race that --only names");
    app.add_option("--jobs", g_options.jobs, "processes at a time")->check(CLI::Range(1, 64));
    CLI11_PARSE(app, argc, argv);
    if (!g_options.only.empty()) {
        GTEST_FLAG_SET(filter, "*." + g_options.only);
    }
    std::string directory = (std::filesystem::temp_directory_path() / "ndisfilter-races-XXXXXX").string();
    g_options.directory = mkdtemp(directory.data());
    const int result = RUN_ALL_TESTS();
    std::filesystem::remove_all(directory);
    return result;
}
