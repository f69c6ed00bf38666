// The stress program: see rounds.cpp and frames.cpp for what it does, scripts/stress for how it is run.
#include "stress.h"

#include <support/exports.h>
#include <support/program.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <chrono>
#include <cmath>
#include <optional>
#include <random>
#include <set>

using namespace stress;

namespace
{

constexpr uint64_t kEnough = 100;  // attempts, from which on a share of successes says something
constexpr uint64_t kEveryPlan = 3; // rounds, in which each plan has had its turn
constexpr double kDeviations = 4;  // standard ones, of what is left to chance

bool IsEnough(uint32_t floor, uint64_t attempts, uint64_t successes)
{
    const double share = floor / 100.0;
    const double expected = share * static_cast<double>(attempts);
    return attempts < kEnough ||
           static_cast<double>(successes) >= expected - kDeviations * std::sqrt(expected * (1 - share));
}

// The names that the drivers export stand in the table, each once.
void CheckExports()
{
    std::set<std::string> known;
    for (const Call& call : AllCalls()) {
        Require(known.insert(call.name).second, fmt::format("{} stands in the table twice", call.name));
    }
    for (const char* path : {NDISFILTER_EXPORTS, TDI_EXPORTS}) {
        for (const std::string& name : support::NamesIn(path)) {
            Require(known.contains(name), fmt::format("the table has no {}", name));
        }
    }
}

struct Options {
    double seconds = 60;
    uint32_t threads = 4;
    uint64_t steps = 2500;
    uint64_t seed = std::random_device{}();
    std::optional<uint64_t> round;
    double frames = 0; // so that it may be written 1e9
};

int RunStress(const Options& options)
{
    fmt::print(stderr, "stress: seed {}; a round of it again: --seed {} --round N\n", options.seed,
               options.seed);
    CheckExports();
    const support::TemporaryDirectory scratch;
    const auto begin = std::chrono::steady_clock::now();
    double seconds = 0;
    double told = 0;
    uint64_t rounds = 0;
    uint64_t packets = 0;
    uint64_t stranded = 0;
    std::vector<Tally> totals(AllCalls().size());
    do {
        const hook::Balance balance = RunRound(options.seed, options.round.value_or(0) + rounds++,
                                               options.threads, options.steps, scratch.File("c"), totals);
        packets += balance.Born();
        stranded += balance.stranded;
        seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        if (seconds - told > 10) {
            told = seconds;
            fmt::print(stderr, "stress: {:.0f} s, {} rounds, {} packets, {} failures\n", seconds, rounds,
                       packets, g_failures.load());
        }
    } while (!options.round && seconds < options.seconds && g_failures.load() == 0);

    uint64_t calls = 0;
    fmt::print("{:38} {:>10} {:>10} {:>10} {:>10} {:>10} {:>6}\n", "call", "attempts", "successes",
               "refusals", "illegal", "dispatch", "floor");
    for (size_t i = 0; i < totals.size(); ++i) {
        const auto& [name, actor, level, floor, legal, illegal, planned] = AllCalls()[i];
        const Tally& tally = totals[i];
        calls += tally[kAttempts] + tally[kIllegal];
        fmt::print("{:38} {:>10} {:>10} {:>10} {:>10} {:>10} {:>5}%\n", name, tally[kAttempts],
                   tally[kSuccesses], tally[kRefusals], tally[kIllegal], tally[kRaised], floor);
        Require(rounds < kEveryPlan || !legal || tally[kSuccesses] + tally[kRefusals] != 0,
                fmt::format("{} was never called", name));
        Require(rounds < kEveryPlan || !illegal || tally[kIllegal] != 0,
                fmt::format("{} was never called wrongly", name));
        Require(IsEnough(floor, tally[kAttempts], tally[kSuccesses]),
                fmt::format("{} succeeded {} times of {}", name, tally[kSuccesses], tally[kAttempts]));
    }
    fmt::print("{} calls in {} rounds in {:.0f} s, seed {}: {} packets, {} of them stranded while unbound or "
               "by a closing log; {} failures\n",
               calls, rounds, seconds, options.seed, packets, stranded, g_failures.load());
    return g_failures.load() == 0 ? 0 : 1;
}

} // namespace

int main(int count, char** arguments)
{
    CLI::App app(
        "Random legal and illegal calls of every export, from several threads, with everything going on.");
    Options options;
    app.add_option("--seconds", options.seconds, "new rounds begin until so much time has passed (60)");
    app.add_option("--threads", options.threads, "threads that call exports (4)")->check(CLI::Range(1, 32));
    app.add_option("--steps", options.steps, "calls of each in a round (2500)");
    app.add_option("--seed", options.seed, "of the random streams; by chance otherwise");
    app.add_option("--round", options.round, "this round alone");
    app.add_option("--frames", options.frames, "instead: so many frames through filters, counted exactly");
    CLI11_PARSE(app, count, arguments);
    return options.frames > 0 ? RunFrames(static_cast<uint64_t>(options.frames), options.seed)
                              : RunStress(options);
}
