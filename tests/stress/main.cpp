// The stress program: see rounds.cpp and frames.cpp for what it does, scripts/stress for how it is run.
#include "rounds.h"

#include <support/program.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <fstream>
#include <random>
#include <set>

using namespace stress;

namespace
{

constexpr uint64_t kEnough = 400; // attempts, from which on a share of successes says something

struct Totals {
    std::vector<Tally> tallies = std::vector<Tally>(AllCalls().size());
    uint64_t rounds = 0;
    uint64_t packets = 0;
    uint64_t stranded = 0;
};

uint64_t CallsOf(const Tally& tally)
{
    return tally.attempts + tally.illegal;
}

bool IsEnough(const Call& call, const Tally& tally)
{
    if (tally.attempts < kEnough) {
        return true;
    }
    return tally.successes * 100 >= call.floor * tally.attempts && (call.floor == 0 || tally.successes != 0);
}

// The names that the drivers export stand in the table, each once.
void CheckExports()
{
    std::set<std::string> known;
    for (const Call& call : AllCalls()) {
        if (!known.insert(call.name).second) {
            Fail(fmt::format("{} stands in the table twice", call.name));
        }
    }
    size_t exports = 0;
    for (const char* path : {NDISFILTER_EXPORTS, TDI_EXPORTS}) {
        std::ifstream file(path);
        for (std::string line; std::getline(file, line);) {
            const std::string name = line.substr(0, line.find_first_of("= #"));
            if (!name.empty()) {
                ++exports;
                if (!known.contains(name)) {
                    Fail(fmt::format("the table has no {}, which {} lists", name, path));
                }
            }
        }
    }
    if (exports < 100) {
        Fail("the lists of exports cannot be read");
    }
}

nlohmann::json ToJson(const Totals& totals, uint64_t seed, double seconds)
{
    nlohmann::json rows = nlohmann::json::array();
    for (size_t i = 0; i < totals.tallies.size(); ++i) {
        const Tally& tally = totals.tallies[i];
        const Call& call = AllCalls()[i];
        rows.push_back({{"name", call.name},
                        {"attempts", tally.attempts},
                        {"successes", tally.successes},
                        {"refusals", tally.refusals},
                        {"illegal", tally.illegal},
                        {"atDispatch", tally.raised},
                        {"floor", call.floor},
                        {"enough", IsEnough(call, tally)}});
    }
    return {{"seed", seed},           {"seconds", seconds},        {"rounds", totals.rounds},
            {"failures", Failures()}, {"packets", totals.packets}, {"stranded", totals.stranded},
            {"calls", rows}};
}

void PrintTable(const Totals& totals)
{
    fmt::print("{:38} {:>10} {:>10} {:>10} {:>10} {:>10} {:>6}\n", "call", "attempts", "successes",
               "refusals", "illegal", "dispatch", "floor");
    for (size_t i = 0; i < totals.tallies.size(); ++i) {
        const Tally& tally = totals.tallies[i];
        const Call& call = AllCalls()[i];
        fmt::print("{:38} {:>10} {:>10} {:>10} {:>10} {:>10} {:>5}%{}\n", call.name, tally.attempts,
                   tally.successes, tally.refusals, tally.illegal, tally.raised, call.floor,
                   IsEnough(call, tally) ? "" : "  TOO FEW SUCCESSES");
    }
}

struct Options {
    double seconds = 60;
    uint32_t threads = 4;
    uint64_t steps = 2500;
    uint64_t seed = 0;
    std::optional<uint64_t> round;
    double frames = 0; // so that it may be written 1e9
    bool json = false;
};

Totals RunRounds(const Options& options, double& seconds)
{
    const support::TemporaryDirectory scratch;
    const auto begin = std::chrono::steady_clock::now();
    const auto elapsed = [&] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    };
    Totals totals;
    double told = 0;
    StartSockets();
    uint64_t round = options.round.value_or(0);
    do {
        const RoundPlan plan = PlanRound(options.seed, round);
        const RoundResult result = RunRound(plan, options.threads, options.steps, scratch.Path());
        for (size_t i = 0; i < totals.tallies.size(); ++i) {
            totals.tallies[i].Add(result.tallies[i]);
        }
        totals.rounds++;
        totals.packets += result.balance.Born();
        totals.stranded += result.balance.stranded;
        if (elapsed() - told > 10) {
            told = elapsed();
            uint64_t calls = 0;
            for (const Tally& tally : totals.tallies) {
                calls += CallsOf(tally);
            }
            fmt::print(stderr, "stress: {:.0f} s, {} rounds, {} calls, {} packets, {} failures\n", told,
                       totals.rounds, calls, totals.packets, Failures());
        }
        ++round;
    } while (!options.round && elapsed() < options.seconds && Failures() == 0);
    EndSockets();
    seconds = elapsed();
    return totals;
}

int RunStress(const Options& options)
{
    fmt::print(stderr, "stress: seed {}; a round of it again: --seed {} --round N\n", options.seed,
               options.seed);
    CheckExports();
    double seconds = 0;
    const Totals totals = RunRounds(options, seconds);
    for (size_t i = 0; i < totals.tallies.size(); ++i) {
        if (totals.rounds >= 5 && CallsOf(totals.tallies[i]) == 0) {
            Fail(fmt::format("{} was never called", AllCalls()[i].name));
        }
        if (!IsEnough(AllCalls()[i], totals.tallies[i])) {
            Fail(fmt::format("{} succeeded {} times of {}", AllCalls()[i].name, totals.tallies[i].successes,
                             totals.tallies[i].attempts));
        }
    }
    if (options.json) {
        fmt::print("{}\n", ToJson(totals, options.seed, seconds).dump(2));
    } else {
        PrintTable(totals);
        fmt::print("{} rounds in {:.0f} s, seed {}: {} packets, {} of them stranded while unbound or by a "
                   "closing log; "
                   "{} failures\n",
                   totals.rounds, seconds, options.seed, totals.packets, totals.stranded, Failures());
    }
    return Failures() == 0 ? 0 : 1;
}

} // namespace

int main(int count, char** arguments)
{
    CLI::App app(
        "Random legal and illegal calls of every export, from several threads, with everything going on.");
    Options options;
    options.seed = std::random_device{}();
    app.add_option("--seconds", options.seconds, "new rounds begin until so much time has passed (60)");
    app.add_option("--threads", options.threads, "threads that call exports (4)")->check(CLI::Range(1, 32));
    app.add_option("--steps", options.steps, "calls of each in a round (2500)");
    app.add_option("--seed", options.seed, "of the random streams; by chance otherwise");
    app.add_option("--round", options.round, "this round alone");
    app.add_option("--frames", options.frames, "instead: so many frames through filters, counted exactly");
    app.add_flag("--json", options.json, "the result as JSON");
    CLI11_PARSE(app, count, arguments);
    return options.frames > 0 ? RunFrames(static_cast<uint64_t>(options.frames), options.seed, options.json)
                              : RunStress(options);
}
