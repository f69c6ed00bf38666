#include "report.h"

#include "silence.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <map>

namespace faults
{
namespace
{

constexpr std::array kOutcomes = {"said", "unmade", "same", "missed", "bad"};
using Counts = std::array<size_t, kOutcomes.size()>;

const char* NameOf(Outcome outcome)
{
    return kOutcomes[static_cast<size_t>(outcome)];
}

std::string NameOf(const std::vector<Point>& points)
{
    std::string name;
    for (const Point& point : points) {
        name += fmt::format("{}{}:{}", name.empty() ? "" : " and ", faults::NameOf(point.kind), point.n);
    }
    return name;
}

Counts Sum(const std::vector<Verdict>& verdicts)
{
    Counts counts = {};
    for (const Verdict& verdict : verdicts) {
        ++counts[static_cast<size_t>(verdict.outcome)];
    }
    return counts;
}

std::string Row(const std::string& name, size_t points, const Counts& counts)
{
    return fmt::format("{:<32}{:>7}{:>7}{:>8}{:>7}{:>8}{:>6}\n", name, points, counts[0], counts[1],
                       counts[2], counts[3], counts[4]);
}

std::string Describe(const std::vector<Point>& points, const Verdict& verdict, bool withTrace)
{
    std::string text = fmt::format("{}: {} in {}", NameOf(points), NameOf(verdict.outcome),
                                   verdict.call.empty() ? "no call" : verdict.call);
    if (verdict.outcome == Outcome::Said) {
        text += fmt::format(", {}", verdict.answer);
    }
    for (const std::string& bad : verdict.bad) {
        text += "\n    " + bad;
    }
    for (const std::string& lasting : verdict.lasting) {
        text += "\n    since then otherwise: " + lasting;
    }
    for (size_t i = 0; withTrace && i < verdict.trace.size(); ++i) {
        text += "\n    from " + verdict.trace[i];
    }
    return text + "\n";
}

} // namespace

void Report::CheckOutcomes()
{
    for (size_t i = 0; i < sets.size(); ++i) {
        Verdict& verdict = verdicts[i];
        const std::string kind = faults::NameOf(sets[i][0].kind);
        if ((verdict.outcome == Outcome::Unmade || verdict.outcome == Outcome::Same) &&
            !MayStaySilent(verdict.call, kind)) {
            verdict.bad.push_back(
                fmt::format("{} keeps the failure to itself ({})", verdict.call, NameOf(verdict.outcome)));
            verdict.outcome = Outcome::Bad;
        }
    }
}

bool Report::IsGood() const
{
    const auto bad = [](const Verdict& verdict) { return verdict.outcome == Outcome::Bad; };
    return missing.empty() && std::none_of(verdicts.begin(), verdicts.end(), bad) &&
           std::none_of(pairVerdicts.begin(), pairVerdicts.end(), bad);
}

std::string Report::Text(bool verbose) const
{
    std::string text = fmt::format("{} calls, exports and control requests missing: {}\n", calls,
                                   missing.empty() ? "none" : fmt::format("{}", fmt::join(missing, " ")));
    if (!sets.empty()) {
        text += fmt::format("{:<32}{:>7}{:>7}{:>8}{:>7}{:>8}{:>6}\n", "calls that fail", "points", "said",
                            "unmade", "same", "missed", "bad");
        std::map<size_t, std::vector<Verdict>> kinds;
        for (size_t i = 0; i < sets.size(); ++i) {
            kinds[sets[i][0].kind].push_back(verdicts[i]);
        }
        for (const auto& [kind, ofKind] : kinds) {
            text += Row(faults::NameOf(kind), ofKind.size(), Sum(ofKind));
        }
        text += Row("together", verdicts.size(), Sum(verdicts));
    }
    if (!pairs.empty()) {
        text += Row("pairs in the start-up", pairVerdicts.size(), Sum(pairVerdicts));
    }
    const auto list = [&](const std::vector<std::vector<Point>>& points, const std::vector<Verdict>& all) {
        for (size_t i = 0; i < all.size(); ++i) {
            if (verbose || all[i].outcome == Outcome::Bad) {
                text += Describe(points[i], all[i], verbose || all[i].outcome == Outcome::Bad);
            }
        }
    };
    list(sets, verdicts);
    list(pairs, pairVerdicts);
    return text + fmt::format("{:.1f} s: {}\n", seconds, IsGood() ? "all good" : "NOT GOOD");
}

nlohmann::json Report::Json() const
{
    const auto list = [&](const std::vector<std::vector<Point>>& points, const std::vector<Verdict>& all) {
        nlohmann::json entries = nlohmann::json::array();
        for (size_t i = 0; i < all.size(); ++i) {
            entries.push_back({{"point", NameOf(points[i])},
                               {"outcome", NameOf(all[i].outcome)},
                               {"call", all[i].call},
                               {"answer", all[i].answer},
                               {"bad", all[i].bad},
                               {"lasting", all[i].lasting},
                               {"trace", all[i].trace}});
        }
        return entries;
    };
    return {{"good", IsGood()},
            {"calls", calls},
            {"missing", missing},
            {"seconds", seconds},
            {"points", list(sets, verdicts)},
            {"pairs", list(pairs, pairVerdicts)}};
}

} // namespace faults
