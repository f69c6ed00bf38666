// Runs a scene under many schedules: exhaustively up to a number of deviations from the plain order, and by seeds.
//
// The plain order lets a thread run until it waits, then the next one in line. A deviation lets another thread that can
// run go on instead, at a switch point (a preemption) or where the running thread waits; the one it was preferred to then
// comes last. A depth of d covers every
// schedule with at most d deviations at switch points whose operation meets another thread's on the same object with a
// change; which ones do is found out on the way, and the search begins anew until none is added.
//
// Each search runs in processes of its own, forked before the machine is loaded, so a crash is a result like others.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace scheduler
{

class Scene
{
  public:
    virtual ~Scene() = default;
    virtual void Prepare() {}                                 // in the plain order, as Check
    virtual std::vector<std::function<void()>> Threads() = 0; // that meet
    virtual void Settle() {} // after their end, still in the order of the schedule
    virtual void Check() {}  // calls Fail when the contract is broken
};

struct SceneMaker {
    std::function<void()> load; // once in a process, before the first scene
    std::function<std::unique_ptr<Scene>()> make;
    bool divideLocks = false; // the locks of the kernel are part of what is searched
};

struct SearchPlan {
    uint32_t depth = 1;
    uint64_t seeds = 0; // schedules by chance
    uint64_t firstSeed = 1;
    uint32_t jobs = 1; // processes at a time
};

struct SearchResult {
    bool failed = false;
    std::string reason;
    std::string schedule; // "step:thread ...", for Replay
    std::string story;    // who gave way to whom and where, when the schedule was replayed
    bool failedAgain = false;
    uint64_t schedules = 0; // of the exhaustive part, without repetitions
    uint64_t seeds = 0;
    uint64_t steps = 0;   // switch points of all runs
    uint64_t longest = 0; // switch points of one run
    uint64_t choices = 0; // places in the plain run where the search may deviate
    uint32_t passes = 0;
};

SearchResult Search(const SceneMaker& maker, const SearchPlan& plan);
// Runs one schedule, and tells what happened.
SearchResult Replay(const SceneMaker& maker, const std::string& schedule);

} // namespace scheduler
