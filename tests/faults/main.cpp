// Every call that may fail, failing once: counts the calls of a scenario that uses every export and control request,
// then runs it once for each of them with that call failing, and for every pair of those of the start-up.
#include "report.h"
#include "runs.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <chrono>

namespace
{

using namespace faults;

// The points of a run, by kind and number. `startUp`: the kernel's ones that the start-up reaches.
std::vector<Point> PointsOf(const Reference& reference, bool startUp)
{
    std::vector<uint64_t> calls;
    for (const Entry& entry : reference.entries) {
        if (entry.startsUp || !startUp) {
            calls = entry.calls;
        }
    }
    std::vector<Point> points;
    for (size_t kind = 0; kind < calls.size(); ++kind) {
        for (uint64_t n = 1; n <= calls[kind] && (IsKernelKind(kind) || !startUp); ++n) {
            points.push_back({kind, n});
        }
    }
    return points;
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app(
        "Fails each call that may fail, once, in a scenario that uses every export and control request.");
    bool scenarioOnly = false;
    std::string only;
    app.add_flag("--scenario", scenarioOnly,
                 "only the run without faults, and the check that nothing is missing");
    app.add_option("--point", only, "only one point, KIND:N as the report names it");
    CLI11_PARSE(app, argc, argv);

    const auto begin = std::chrono::steady_clock::now();
    std::string error;
    const Reference reference = Count(&error);
    if (reference.entries.empty()) {
        fmt::print(stderr, "faults: the scenario does not succeed even without a fault:\n{}\n", error);
        return 1;
    }
    Report report;
    report.missing = MissingFrom(reference.entries);
    report.calls = reference.entries.size();
    std::vector<std::vector<Point>> singles;
    std::vector<std::vector<Point>> pairs;
    if (!scenarioOnly) {
        for (const Point& point : PointsOf(reference, false)) {
            if (only.empty() || only == NameOf({point})) {
                singles.push_back({point});
            }
        }
        const std::vector<Point> points = PointsOf(reference, true);
        for (size_t i = 0; only.empty() && i < points.size(); ++i) {
            for (size_t j = i + 1; j < points.size(); ++j) {
                pairs.push_back({points[i], points[j]});
            }
        }
        if (singles.empty()) {
            fmt::print(stderr, "faults: there is no point {}\n", only);
            return 2;
        }
    }
    report.singles = RunAll(singles, false, reference);
    report.pairs = RunAll(pairs, true, reference);
    report.CheckOutcomes();
    report.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    fmt::print("{}", report.Text(!only.empty()));
    return report.IsGood() ? 0 : 1;
}
