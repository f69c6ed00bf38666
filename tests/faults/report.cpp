#include "report.h"

#include <support/exports.h>

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <map>
#include <set>

#include <fnmatch.h>

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
    for (const auto& [title, lines] : {std::pair{"", &verdict.bad}, {"from ", &verdict.trace}}) {
        for (const std::string& line : *lines) {
            text += fmt::format("\n    {}{}", title, line);
        }
    }
    return text + "\n";
}

// Calls that are documented not to tell a failure by what they answer.
struct Silence {
    std::string calls; // patterns of the shell
    std::string kinds;
};

const Silence kSilences[] = {
    // What a registration or a name getter was to give stays null.
    {"Filter_Register*|Filter_GetAdapterName|Filter_GetDriverName|Filter_GetFilterName|"
     "Filter_InitializeTimer",
     "pool"},
    // The value stays what it is, a tick is lost.
    {"Filter_SafeGetGlobalDebugFlag|IOCTL_NDIS_FILTER_GET_DBGFLAG", "pool|registry"},
    {"a timer expires", "pool"},
    // It starts without settings, mapped memory and threads.
    {"DriverEntry", "pool|registry|mdl|thread"},
    {"HookDriverEntry", "registry"},
    // Asked for again.
    {"DriverUnload|IOCTL_NDIS_FILTER_STOP_ETHRLOG", "object"},
    // Told otherwise than by the status: a value of 20, an empty reply, the request's record, its completion.
    {"IOCTL_NDIS_FILTER_START_SHARE", "map-pages|hook-MmMapLockedPages*"},
    {"IOCTL_NDIS_FILTER_DIAG|a request of nobody", "hook-HandleIoControl*"},
    {"IOCTL_NDIS_FILTER_DIAG", "pool"},
    {"Filter_MakeNdisRequest", "hook-MakeNdisRequest"},
    {"KS_ReceiveDatagramOnAddress", "transport-ReceiveDatagram-later"},
    {"NdisAllocatePacket*", "pool|ndis-packet"},
    // A success in any case; logs are started and written behind it.
    {"IOCTL_NDIS_FILTER_START_ETHRLOG", "pool|thread|file"},
    // A capture log that misses the frame does not hold it up, nor does who injects or announces it hear what became
    // of it. A block that got no packet stays in the ring.
    {"a received frame*|a sent frame|a frame that a filter keeps|Filter_Invoke*|Filter_Inject*|"
     "Filter_Indicate*|IOCTL_NDIS_FILTER_WRITE_SHARE",
     "pool|file|map-pages|hook-AllocatePacket*|hook-FreePacket*|hook-InjectPacketTo*"},
    // Functions that answer nothing.
    {"*", "hook-FreePacket|hook-FreeRequest|hook-MmUnmapLockedPages|hook-GetTcpIpBoundAdapters"},
    {"Filter_EnumOpenedAdapter|IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK|a second adapter|an adapter closes",
     "hook-GetTcpIpBoundAdapters-raised"},
};

bool Matches(const std::string& patterns, const std::string& name)
{
    return fnmatch(("@(" + patterns + ")").c_str(), name.c_str(), FNM_EXTMATCH) == 0;
}

// Whether a call may answer as ever when a call of the kind fails in it.
bool MayStaySilent(const std::string& call, const std::string& kind)
{
    return std::any_of(std::begin(kSilences), std::end(kSilences), [&](const Silence& silence) {
        return Matches(silence.calls, call) && Matches(silence.kinds, kind);
    });
}

} // namespace

// The scenario has to use the exports of the drivers and the control requests of the public header.
std::vector<std::string> MissingFrom(const std::vector<Entry>& entries)
{
    const std::string driver = NDISFILTER_SOURCE "/driver/kernel/";
    std::set<std::string> names = support::NamesIn(driver + "filter/ndisfilter.exports");
    names.merge(support::NamesIn(driver + "tdi/tdi-client.exports"));
    for (const std::string& code :
         support::NamesIn(driver + "filter/include/ndisfilter-user.h", "#define IOCTL_")) {
        names.insert("IOCTL_" + code);
    }
    for (const Entry& entry : entries) {
        names.erase(entry.name);
    }
    return {names.begin(), names.end()};
}

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
        if (verdict.call == "DriverEntry" && verdict.outcome == Outcome::Said &&
            !Matches("pool:1|device:*|link:*", NameOf(verdict.points))) {
            verdict.bad.push_back("a start that can go without is refused");
            verdict.outcome = Outcome::Bad;
        }
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
