#include "search.h"

#include "memory.h"
#include "threads.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <new>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <dlfcn.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace scheduler
{

namespace
{

struct Deviation {
    uint32_t step;
    uint32_t thread;
    bool operator==(const Deviation&) const = default;
};
using Schedule = std::vector<Deviation>;

struct Switch {
    uint32_t step;
    uint32_t from;
    uint32_t to;
    Operation operation;
    const void* site;
};

constexpr size_t kMaxSites = 1 << 13;
constexpr size_t kMaxDeviations = 1 << 14;
constexpr size_t kMaxSwitches = 4096;
constexpr uint32_t kSwitchesTold = 40;
constexpr unsigned kSecondsPerRun = 600; // of a machine that may have much else to do
constexpr int kFailed = 3;

// Written by the processes of a search, read by the one that waits for them.
struct Board {
    std::atomic<const void*> sites[kMaxSites]; // those whose operations meet others'; a hash table
    std::atomic<uint32_t> siteCount;
    std::atomic<uint64_t> schedules, seeds, steps, longest, choices;
};

// One for each process: what it does at present.
struct Slate {
    uint32_t deviationCount;
    Deviation deviations[kMaxDeviations];
    uint32_t switchCount;
    Switch switches[kMaxSwitches];
    char reason[2048];
};

template <class Record>
class Shared
{
  public:
    explicit Shared(size_t count = 1)
        : size_(count * sizeof(Record)),
          records_(static_cast<Record*>(
              mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)))
    {
        if (records_ == MAP_FAILED) {
            throw std::bad_alloc();
        }
    }
    ~Shared() { munmap(records_, size_); }
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;
    Record& operator[](size_t i) const { return records_[i]; }

  private:
    size_t size_;
    Record* records_;
};

bool Insert(Board& board, const void* site)
{
    size_t at = (reinterpret_cast<uintptr_t>(site) * 0x9E3779B97F4A7C15ull) % kMaxSites;
    for (size_t tries = 0; tries < kMaxSites; ++tries, at = (at + 1) % kMaxSites) {
        const void* seen = board.sites[at].load();
        if (seen == nullptr && board.sites[at].compare_exchange_strong(seen, site)) {
            ++board.siteCount;
            return true;
        }
        if (seen == site) {
            return false;
        }
    }
    return false;
}

bool Contains(const Board& board, const void* site)
{
    size_t at = (reinterpret_cast<uintptr_t>(site) * 0x9E3779B97F4A7C15ull) % kMaxSites;
    for (size_t tries = 0; tries < kMaxSites; ++tries, at = (at + 1) % kMaxSites) {
        const void* seen = board.sites[at].load(std::memory_order_relaxed);
        if (seen == site) {
            return true;
        }
        if (seen == nullptr) {
            return false;
        }
    }
    return true; // full: every site counts
}

// The side of a search that runs scenes, in a process of its own.
class Runner
{
  public:
    Runner(const SceneMaker& maker, Board& board, Slate& slate) : maker_(maker), board_(board), slate_(slate)
    {
        Activate();
        if (!WatchFreedMemory()) {
            throw std::bad_alloc();
        }
        DivideLocks(maker.divideLocks);
        Director director;
        director.choose = [this](const ChoicePoint& point) { return Choose(point); };
        director.matters = [this](const void* site) { return everywhere_ || Contains(board_, site); };
        director.shared = [this](const void* site) { Insert(board_, site); };
        director.switched = [this](const ChoicePoint& point, uint32_t from, uint32_t to) {
            if (slate_.switchCount < kMaxSwitches) {
                slate_.switches[slate_.switchCount++] = {point.step, from, to, point.operation, point.site};
            }
        };
        director.failed = [this](const char* reason) {
            snprintf(slate_.reason, sizeof(slate_.reason), "%s", reason);
            _exit(kFailed);
        };
        SetDirector(std::move(director));
        maker_.load();
        RunOnce({}); // starts what starts at the first use
    }

    void ExploreAll(uint32_t depth, uint32_t job, uint32_t jobs)
    {
        job_ = job;
        jobs_ = jobs;
        Explore({}, depth);
    }

    void TrySeeds(uint64_t first, uint64_t count, uint32_t job, uint32_t jobs)
    {
        for (uint64_t seed = first + job; seed < first + count; seed += jobs) {
            random_ = everywhere_ = true;
            generator_.seed(seed);
            rarity_ = 2u << (seed % 6);
            RunOnce({});
            random_ = everywhere_ = false;
            ++board_.seeds;
        }
    }

    void Follow(const Schedule& plan)
    {
        everywhere_ = true; // each step of the schedule is a choice
        RunOnce(plan);
    }

  private:
    void RunOnce(const Schedule& plan)
    {
        alarm(kSecondsPerRun);
        plan_ = plan;
        next_ = 0;
        trace_.clear();
        slate_.deviationCount = 0;
        slate_.switchCount = 0;
        const std::unique_ptr<Scene> scene = maker_.make();
        scene->Prepare();
        {
            std::vector<std::thread> threads;
            for (auto& body : scene->Threads()) {
                threads.emplace_back(std::move(body));
            }
            BeginRun();
            for (std::thread& thread : threads) {
                thread.join();
            }
            scene->Settle();
            EndRun();
        }
        scene->Check();
        const uint64_t steps = StepsOfRun();
        board_.steps += steps;
        for (uint64_t longest = board_.longest;
             steps > longest && !board_.longest.compare_exchange_weak(longest, steps);) {
        }
        if (!random_ && next_ != plan_.size()) {
            Fail("the run does not come to step %u of the schedule", plan_[next_].step);
        }
    }

    uint32_t Choose(const ChoicePoint& point)
    {
        uint32_t chosen = point.usual;
        if (random_) {
            if (generator_() % rarity_ == 0) {
                const auto count = static_cast<uint32_t>(std::popcount(point.candidates));
                ThreadMask mask = point.candidates;
                for (uint32_t skip = generator_() % count; skip != 0; --skip) {
                    mask &= mask - 1;
                }
                chosen = static_cast<uint32_t>(std::countr_zero(mask));
            }
        } else {
            trace_.push_back(point);
            if (next_ < plan_.size() && plan_[next_].step == point.step) {
                chosen = plan_[next_++].thread;
                if ((point.candidates >> chosen & 1) == 0) {
                    Fail("thread %u of the schedule cannot run at step %u", chosen, point.step);
                }
            }
        }
        if (chosen != point.usual && slate_.deviationCount < kMaxDeviations) {
            slate_.deviations[slate_.deviationCount++] = {point.step, chosen};
        }
        return chosen;
    }

    void Explore(const Schedule& prefix, uint32_t left)
    {
        RunOnce(prefix);
        if (!prefix.empty() || job_ == 0) {
            ++board_.schedules;
        }
        if (prefix.empty()) {
            board_.choices = trace_.size();
        }
        if (left == 0) {
            return;
        }
        const std::vector<ChoicePoint> trace = trace_;
        for (const ChoicePoint& point : trace) {
            if (!prefix.empty() && point.step <= prefix.back().step) {
                continue;
            }
            for (ThreadMask mask = point.candidates & ~(ThreadMask{1} << point.usual); mask != 0;
                 mask &= mask - 1) {
                const Deviation deviation = {point.step, static_cast<uint32_t>(std::countr_zero(mask))};
                // The first deviation decides which of the processes does the rest.
                if (prefix.empty() && (deviation.step * 31 + deviation.thread) % jobs_ != job_) {
                    continue;
                }
                Schedule longer = prefix;
                longer.push_back(deviation);
                Explore(longer, left - 1);
            }
        }
    }

    const SceneMaker& maker_;
    Board& board_;
    Slate& slate_;
    Schedule plan_;
    size_t next_ = 0;
    std::vector<ChoicePoint> trace_;
    bool random_ = false;
    bool everywhere_ = false; // all sites matter
    std::minstd_rand generator_;
    uint32_t rarity_ = 2;
    uint32_t job_ = 0;
    uint32_t jobs_ = 1;
};

void StayOnProcessor(uint32_t job)
{
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof(allowed), &allowed) != 0) {
        return;
    }
    uint32_t skip = job % static_cast<uint32_t>(CPU_COUNT(&allowed));
    for (int processor = 0; processor < CPU_SETSIZE; ++processor) {
        if (CPU_ISSET(processor, &allowed) && skip-- == 0) {
            cpu_set_t one;
            CPU_ZERO(&one);
            CPU_SET(processor, &one);
            sched_setaffinity(0, sizeof(one), &one);
            return;
        }
    }
}

std::string Text(const Slate& slate)
{
    std::string text;
    for (uint32_t i = 0; i < slate.deviationCount; ++i) {
        const Deviation& deviation = slate.deviations[i];
        text += (text.empty() ? "" : " ") + std::to_string(deviation.step) + ":" +
                std::to_string(deviation.thread);
    }
    return text.empty() ? "plain" : text;
}

Schedule ScheduleOf(const std::string& text)
{
    Schedule schedule;
    std::istringstream stream(text);
    for (std::string part; stream >> part && part != "plain";) {
        Deviation deviation = {};
        if (sscanf(part.c_str(), "%u:%u", &deviation.step, &deviation.thread) != 2) {
            throw std::invalid_argument("a schedule is \"plain\" or STEP:THREAD ..., not " + part);
        }
        schedule.push_back(deviation);
    }
    return schedule;
}

// Names addresses of code, as addr2line does; without that tool they stay numbers.
std::vector<std::string> NamesOf(const std::vector<const void*>& sites)
{
    std::vector<std::string> names;
    Dl_info info = {};
    dladdr(reinterpret_cast<const void*>(&NamesOf), &info);
    std::string command = "addr2line -Cfpse /proc/" + std::to_string(getpid()) + "/exe";
    for (const void* site : sites) {
        char offset[32];
        snprintf(
            offset, sizeof(offset), " 0x%zx",
            static_cast<size_t>(static_cast<const char*>(site) - static_cast<const char*>(info.dli_fbase)));
        command += offset;
    }
    FILE* const output = popen((command + " 2>/dev/null").c_str(), "r");
    char line[512];
    while (output != nullptr && fgets(line, sizeof(line), output) != nullptr) {
        line[strcspn(line, "\n")] = 0;
        names.emplace_back(line);
    }
    if (output != nullptr) {
        pclose(output);
    }
    for (size_t i = names.size(); i < sites.size(); ++i) {
        char number[32];
        snprintf(number, sizeof(number), "%p", sites[i]);
        names.emplace_back(number);
    }
    return names;
}

std::string StoryOf(const Slate& slate)
{
    std::vector<const void*> sites;
    for (uint32_t i = slate.switchCount - std::min(slate.switchCount, kSwitchesTold); i < slate.switchCount;
         ++i) {
        sites.push_back(slate.switches[i].site);
    }
    const std::vector<std::string> names = NamesOf(sites);
    const uint32_t first = slate.switchCount - static_cast<uint32_t>(sites.size());
    std::string story = first == 0 ? "" : "  ...\n";
    for (uint32_t i = 0; i < sites.size(); ++i) {
        const Switch& at = slate.switches[first + i];
        story += "  step " + std::to_string(at.step) + ": thread " + std::to_string(at.from) + " " +
                 NameOf(at.operation) + (at.site != nullptr ? " in " + names[i] : "") + "; on with thread " +
                 std::to_string(at.to) + "\n";
    }
    return story;
}

// Runs `work` in `jobs` processes. False, with the result filled in, when one of them failed.
bool InProcesses(uint32_t jobs, const SceneMaker& maker, Board& board, Shared<Slate>& slates,
                 SearchResult& result, const std::function<void(Runner&, uint32_t job)>& work)
{
    fflush(nullptr);
    std::vector<pid_t> children;
    for (uint32_t job = 0; job < jobs; ++job) {
        const pid_t child = fork();
        if (child == 0) {
            StayOnProcessor(job);
            Runner runner(maker, board, slates[job]);
            work(runner, job);
            _exit(0);
        }
        children.push_back(child);
    }
    for (uint32_t left = jobs; left != 0; --left) {
        int status = 0;
        const pid_t ended = wait(&status);
        const auto found = std::find(children.begin(), children.end(), ended);
        if (found == children.end()) {
            continue;
        }
        *found = 0;
        const auto job = static_cast<size_t>(found - children.begin());
        if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
            continue;
        }
        if (!result.failed) {
            result.failed = true;
            const Slate& slate = slates[job];
            if (WIFEXITED(status) && WEXITSTATUS(status) == kFailed) {
                result.reason = slate.reason;
            } else if (WIFSIGNALED(status)) {
                result.reason = WTERMSIG(status) == SIGALRM
                                    ? "no end: somebody waits past the scheduler"
                                    : std::string("crash: ") + strsignal(WTERMSIG(status));
            } else {
                result.reason = "the process ended";
            }
            result.schedule = Text(slate);
            result.story = StoryOf(slate);
            for (const pid_t other : children) {
                if (other != 0) {
                    kill(other, SIGKILL);
                }
            }
        }
    }
    return !result.failed;
}

} // namespace

SearchResult Replay(const SceneMaker& maker, const std::string& schedule)
{
    const Schedule plan = ScheduleOf(schedule);
    Shared<Board> board;
    Shared<Slate> slates;
    SearchResult result;
    InProcesses(1, maker, board[0], slates, result, [&](Runner& runner, uint32_t) { runner.Follow(plan); });
    if (!result.failed) {
        result.story = StoryOf(slates[0]);
    }
    result.steps = board[0].steps;
    return result;
}

SearchResult Search(const SceneMaker& maker, const SearchPlan& plan)
{
    Shared<Board> board;
    Shared<Slate> slates(plan.jobs);
    SearchResult result;
    SearchResult byChance;
    InProcesses(plan.jobs, maker, board[0], slates, byChance, [&](Runner& runner, uint32_t job) {
        runner.TrySeeds(plan.firstSeed, plan.seeds, job, plan.jobs);
    });
    bool going = true;
    for (uint32_t sites = ~0u; going && sites != board[0].siteCount;) {
        sites = board[0].siteCount;
        board[0].schedules = 0;
        ++result.passes;
        going = InProcesses(plan.jobs, maker, board[0], slates, result, [&](Runner& runner, uint32_t job) {
            runner.ExploreAll(plan.depth, job, plan.jobs);
        });
        going = going && !byChance.failed;
    }
    if (byChance.failed &&
        !result.failed) { // the exhaustive search gives the shorter schedule when it finds one
        result = byChance;
    }
    result.schedules = board[0].schedules;
    result.seeds = board[0].seeds;
    result.steps = board[0].steps;
    result.longest = board[0].longest;
    result.choices = board[0].choices;
    if (result.failed) {
        const SearchResult again = Replay(maker, result.schedule);
        result.failedAgain = again.failed && again.reason.substr(0, 12) == result.reason.substr(0, 12);
    }
    return result;
}

} // namespace scheduler
