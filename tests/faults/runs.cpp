#include "runs.h"

#include "child.h"
#include "scenario.h"

#include <support/loading.h>
#include <support/program.h>

#include <nlohmann/json.hpp>

#include <algorithm>

namespace faults
{

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Entry, name, answer, made, startsUp, calls)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Reference, entries, again)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Point, kind, n)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Verdict, points, outcome, call, answer, bad, trace)

namespace
{

// What may stay behind an entry that could not make its symbolic link: nobody undoes the rest.
bool MayStayBehindTheLink(const machine::Census& before, const machine::Census& after)
{
    machine::Census rest = after;
    rest.poolBlocks = before.poolBlocks; // the registry path and the mapped memory
    rest.poolBytes = before.poolBytes;
    rest.mdls = before.mdls;
    rest.lookasideLists = before.lookasideLists;
    return rest == before && after.poolBlocks <= before.poolBlocks + 2 && after.mdls <= before.mdls + 1 &&
           after.lookasideLists <= before.lookasideLists + 1;
}

// A call that succeeds by declining.
bool DeclinesBy(const Entry& entry)
{
    constexpr int64_t kNotSupported = static_cast<int32_t>(0xC00000BB);
    return entry.answer == kNotSupported &&
           (entry.name == "Filter_DefaultIoCtrlHandler" || entry.name == "a request of nobody");
}

class Run
{
  public:
    Run(const std::vector<Point>& points, const Reference& reference)
        : points_(points), reference_(reference), verdict_{.points = points}
    {
        machine::PrintViolations(false);
        DisarmAll();
    }

    Verdict WithFaults(bool startUpOnly)
    {
        const machine::Census before = machine::TakeCensus();
        Arm(points_);
        const bool started = Begin(points_[0], !startUpOnly);
        Check("behind the scenario");
        if (startUpOnly || Kinds()[points_[0].kind].isHit(points_[0].n)) {
            Disarm();
            if (started) {
                UseThisMachineAgain();
            }
        }
        End();
        Judge();
        Disarm();
        CompareCensus(before);
        UseAnotherMachine();
        return verdict_;
    }

    static Reference WithoutFaults()
    {
        const Reference none;
        Run run({{0, 0}}, none);
        Reference reference;
        run.Begin({}, true);
        run.Check("behind the scenario");
        run.End();
        reference.entries = g_journal.entries;
        if (run.Begin({}, false)) {
            UseAgain(run.world_);
        }
        run.Check("behind the short pass");
        reference.again = g_journal.entries;
        run.End();
        for (const std::vector<Entry>* entries : {&reference.entries, &reference.again}) {
            for (const Entry& entry : *entries) {
                if (!entry.made || (entry.answer < 0 && !DeclinesBy(entry))) {
                    run.Bad(entry.name + " does not succeed: " + std::to_string(entry.answer));
                }
            }
        }
        for (const std::string& text : run.verdict_.bad) {
            fprintf(stderr, "without a fault: %s\n", text.c_str());
            reference.entries.clear();
        }
        return reference;
    }

  private:
    // Starts a journal and the machine, and runs the scenario when it is asked for. False: the machine did not start.
    bool Begin(const Point& point, bool scenario)
    {
        g_journal = {.point = point};
        const bool started = StartUp(world_);
        if (started && scenario) {
            UseEverything(world_);
        }
        return started;
    }

    bool HitAtStartUp() const
    {
        const int hit = g_journal.hitEntry;
        return points_.size() > 1 || (hit >= 0 && g_journal.entries[static_cast<size_t>(hit)].startsUp);
    }

    bool Includes(machine::Fault kind) const
    {
        return std::any_of(points_.begin(), points_.end(),
                           [=](const Point& point) { return point.kind == static_cast<size_t>(kind); });
    }

    void Bad(const std::string& text) { verdict_.bad.push_back(text); }

    // No rule is broken, no level raised, no lock held; the threads rest.
    void Check(const char* where)
    {
        if (!machine::WaitIdle()) {
            Bad(std::string("threads do not come to rest ") + where);
        }
        machine::CheckReturnToUser(where);
        if (const size_t locks = machine::TakeCensus().locksHeld; locks != 0) {
            Bad(std::to_string(locks) + " locks held " + where);
        }
        for (const machine::Violation& violation : machine::TakeViolations()) {
            Bad(violation.rule + " in " + violation.function + " (" + violation.detail + ") " + where);
        }
        for (const std::string& misuse : hook::TakeMisuses()) {
            Bad("misuse of the hook driver: " + misuse + " " + where);
        }
    }

    // Every packet that was made has ended, and nothing is left in the hook driver's pool.
    void End()
    {
        // The queue of a worker that could not be started keeps its packets.
        const bool mayKeep = Includes(machine::Fault::Thread) && HitAtStartUp();
        for (const std::string& line : hook::Outstanding()) {
            if (!mayKeep) {
                Bad("not given back: " + line);
            }
        }
        const bool loaded = hook::IsLoaded();
        ShutDown(world_);
        if (const hook::Balance balance = hook::TakeBalance(); loaded && !balance.IsEven()) {
            Bad("of " + std::to_string(balance.Born()) + " packets " + std::to_string(balance.Ended()) +
                " have ended");
        }
        machine::DiscardDriver(support::kFrameworkService);
        Check("behind the unload");
    }

    void Disarm()
    {
        if (verdict_.trace.empty()) {
            verdict_.trace = TraceOf(points_[0]);
        }
        DisarmAll();
    }

    // The point was reached in the call in which it was counted. Of a pair the other one may have changed the way.
    void Judge()
    {
        const int at = g_journal.hitEntry;
        const std::vector<Entry>& entries = g_journal.entries;
        verdict_.outcome = Outcome::Missed;
        const auto index = static_cast<size_t>(at);
        if (at < 0 || index >= reference_.entries.size() ||
            reference_.entries[index].name != entries[index].name ||
            reference_.entries[index].calls[points_[0].kind] < points_[0].n) {
            if (points_.size() == 1) {
                Bad(at < 0 ? "the point was not reached again"
                           : "reached in " + entries[index].name + ", but counted in another call");
            }
            return;
        }
        const Entry& entry = entries[index];
        const Entry& expected = reference_.entries[index];
        verdict_.call = entry.name;
        verdict_.answer = std::to_string(entry.answer) + " instead of " + std::to_string(expected.answer);
        const int64_t told = Kinds()[points_[0].kind].told;
        if (points_.size() == 1 && entry.name.starts_with("KS_") && entry.answer < 0 && told != 0 &&
            entry.answer != told) {
            Bad(verdict_.answer + ", but not the failure's own status");
        }
        verdict_.outcome = entry.answer != expected.answer ? Outcome::Said
                           : entry.made != expected.made   ? Outcome::Unmade
                                                           : Outcome::Same;
    }

    void CompareCensus(const machine::Census& before)
    {
        const machine::Census after = machine::TakeCensus();
        if (!(after == before) &&
            !(Includes(machine::Fault::SymbolicLink) && MayStayBehindTheLink(before, after))) {
            Bad("left behind: " + machine::DescribeCensus(after));
        }
    }

    // Answers of the short pass that differ from those without a fault.
    std::vector<std::string> UseAgainAndCompare()
    {
        const std::vector<Entry>& entries = g_journal.entries;
        size_t i = entries.size();
        UseAgain(world_);
        std::vector<std::string> names;
        for (const Entry& expected : reference_.again) {
            if (expected.startsUp) {
                continue;
            }
            if (i == entries.size() || entries[i].name != expected.name) {
                names.push_back(expected.name + ": not got to");
                break;
            }
            if (entries[i].answer != expected.answer || entries[i].made != expected.made) {
                names.push_back(expected.name);
            }
            ++i;
        }
        return names;
    }

    // Whatever a start goes without, frames pass.
    void PassFrames()
    {
        const hook::Balance before = hook::TakeBalance();
        hook::DeliverReceived(world_.adapter, support::UdpFrame());
        hook::DeliverSent(world_.adapter, support::UdpFrame());
        const hook::Balance after = hook::TakeBalance();
        if (after.deliveredToProtocols != before.deliveredToProtocols + 1 ||
            after.deliveredToAdapter != before.deliveredToAdapter + 1) {
            Bad("frames do not pass");
        }
    }

    // A fault of the start-up may last; any other must be over.
    void UseThisMachineAgain()
    {
        const bool mayLast = HitAtStartUp();
        if (points_.size() == 1 && g_journal.hitEntry == 0) { // the framework's own start
            PassFrames();
        }
        for (const std::string& name : UseAgainAndCompare()) {
            if (!mayLast) {
                Bad("still not as ever: " + name);
            }
        }
        Check("behind the short pass");
    }

    void UseAnotherMachine()
    {
        const machine::Census before = machine::TakeCensus();
        if (!Begin({}, false)) {
            Bad("the framework cannot be loaded again");
        } else {
            for (const std::string& name : UseAgainAndCompare()) {
                Bad("not as ever in a framework loaded anew: " + name);
            }
        }
        End();
        if (!(machine::TakeCensus() == before)) {
            Bad("left behind by a framework loaded anew: " + machine::DescribeCensus(machine::TakeCensus()));
        }
    }

    support::TemporaryDirectory directory_;
    World world_{.directory = directory_.Path()};
    const std::vector<Point> points_;
    const Reference& reference_;
    Verdict verdict_;
};

} // namespace

Reference Count(std::string* error)
{
    const ChildResult result =
        RunChildren(1, [](size_t) { return nlohmann::json(Run::WithoutFaults()).dump(); })[0];
    Reference reference;
    if (!result.end.empty()) {
        *error = result.end + "\n" + result.errors;
        return reference;
    }
    nlohmann::json::parse(result.output).get_to(reference);
    if (reference.entries.empty()) {
        *error = result.errors;
    }
    return reference;
}

std::vector<Verdict> RunAll(const std::vector<std::vector<Point>>& sets, bool startUpOnly,
                            const Reference& reference)
{
    const auto work = [&](size_t number) {
        return nlohmann::json(Run(sets[number], reference).WithFaults(startUpOnly)).dump();
    };
    const std::vector<ChildResult> results = RunChildren(sets.size(), work);
    std::vector<Verdict> verdicts;
    for (size_t i = 0; i < sets.size(); ++i) {
        Verdict verdict{.points = sets[i]};
        if (results[i].end.empty()) {
            nlohmann::json::parse(results[i].output).get_to(verdict);
        } else {
            verdict.bad.push_back(results[i].end + ": " + results[i].errors);
        }
        if (!verdict.bad.empty()) {
            verdict.outcome = Outcome::Bad;
        }
        verdicts.push_back(std::move(verdict));
    }
    return verdicts;
}

} // namespace faults
