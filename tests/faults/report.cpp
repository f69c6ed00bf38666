#include "report.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <map>

namespace faults
{
namespace
{

constexpr std::array kOutcomes = {"said", "unmade", "same", "missed", "bad"};

const char* NameOf(Outcome outcome)
{
    return kOutcomes[static_cast<size_t>(outcome)];
}

std::string Row(const std::string& name, const std::vector<Verdict>& verdicts)
{
    std::array<size_t, kOutcomes.size()> counts = {};
    for (const Verdict& verdict : verdicts) {
        ++counts[static_cast<size_t>(verdict.outcome)];
    }
    return fmt::format("{:<32}{:>7}{:>7}{:>8}{:>7}{:>8}{:>6}\n", name, verdicts.size(), counts[0], counts[1],
                       counts[2], counts[3], counts[4]);
}

std::string Describe(const Verdict& verdict)
{
    std::string text = fmt::format("{}: {} in {}", NameOf(verdict.points), NameOf(verdict.outcome),
                                   verdict.call.empty() ? "no call" : verdict.call);
    if (verdict.outcome == Outcome::Said) {
        text += fmt::format(", {}", verdict.answer);
    }
    for (const auto& [title, lines] : {std::pair{"", &verdict.bad},
                                       {"since then otherwise: ", &verdict.lasting},
                                       {"from ", &verdict.trace}}) {
        for (const std::string& line : *lines) {
            text += fmt::format("\n    {}{}", title, line);
        }
    }
    return text + "\n";
}

} // namespace

std::string NameOf(const std::vector<Point>& points)
{
    std::string name;
    for (const auto& [kind, n] : points) {
        name += fmt::format("{}{}:{}", name.empty() ? "" : " and ", Kinds()[kind].name, n);
    }
    return name;
}

void Report::CheckOutcomes()
{
    for (Verdict& verdict : singles) {
        if ((verdict.outcome == Outcome::Unmade || verdict.outcome == Outcome::Same) &&
            !MayStaySilent(verdict.call, Kinds()[verdict.points[0].kind].name)) {
            verdict.bad.push_back(
                fmt::format("{} keeps the failure to itself ({})", verdict.call, NameOf(verdict.outcome)));
            verdict.outcome = Outcome::Bad;
        }
    }
}

bool Report::IsGood() const
{
    const auto bad = [](const Verdict& verdict) { return verdict.outcome == Outcome::Bad; };
    return missing.empty() && std::none_of(singles.begin(), singles.end(), bad) &&
           std::none_of(pairs.begin(), pairs.end(), bad);
}

std::string Report::Text(bool verbose) const
{
    std::string text = fmt::format("{} calls, exports and control requests missing: {}\n", calls,
                                   missing.empty() ? "none" : fmt::format("{}", fmt::join(missing, " ")));
    if (!singles.empty()) {
        text += fmt::format("{:<32}{:>7}{:>7}{:>8}{:>7}{:>8}{:>6}\n", "calls that fail", "points", "said",
                            "unmade", "same", "missed", "bad");
        std::map<size_t, std::vector<Verdict>> kinds;
        for (const Verdict& verdict : singles) {
            kinds[verdict.points[0].kind].push_back(verdict);
        }
        for (const auto& [kind, verdicts] : kinds) {
            text += Row(Kinds()[kind].name, verdicts);
        }
        text += Row("together", singles);
    }
    if (!pairs.empty()) {
        text += Row("pairs in the start-up", pairs);
    }
    for (const std::vector<Verdict>* verdicts : {&singles, &pairs}) {
        for (const Verdict& verdict : *verdicts) {
            if (verbose || verdict.outcome == Outcome::Bad) {
                text += Describe(verdict);
            }
        }
    }
    return text + fmt::format("{:.1f} s: {}\n", seconds, IsGood() ? "all good" : "NOT GOOD");
}

} // namespace faults
