#include "report.h"

#include <algorithm>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace lab
{
namespace
{

double PerSecond(uint64_t count, double seconds)
{
    return seconds > 0 ? static_cast<double>(count) / seconds : 0;
}

double Megabits(uint64_t bytes, double seconds)
{
    return PerSecond(bytes * 8, seconds) / 1e6;
}

// Rows of cells, all columns as wide as their widest cell; the first `textColumns` are set to the left.
std::string FormatColumns(const std::vector<std::vector<std::string>>& rows, size_t textColumns)
{
    std::vector<size_t> widths(rows.front().size());
    for (const auto& row : rows) {
        for (size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    std::string text;
    for (const auto& row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i) {
            line += i < textColumns ? fmt::format("{:<{}}  ", row[i], widths[i])
                                    : fmt::format("{:>{}}  ", row[i], widths[i]);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + '\n';
    }
    return text;
}

std::vector<std::string> FlowRow(const std::string& adapter, const char* direction, const Flow& flow,
                                 double seconds)
{
    return {adapter,
            direction,
            fmt::to_string(flow.framesIn),
            fmt::to_string(flow.bytesIn),
            fmt::to_string(flow.framesOut),
            fmt::to_string(flow.bytesOut),
            fmt::format("{:.0f}", PerSecond(flow.framesIn, seconds)),
            fmt::format("{:.1f}", Megabits(flow.bytesIn, seconds))};
}

std::string FormatAdapters(const Report& report)
{
    std::vector<std::vector<std::string>> rows = {
        {"adapter", "direction", "frames in", "bytes in", "frames out", "bytes out", "frames/s", "Mbit/s"}};
    for (const AdapterReport& adapter : report.adapters) {
        rows.push_back(FlowRow(adapter.name, "received", adapter.received, report.seconds));
        rows.push_back(FlowRow("", "sent", adapter.sent, report.seconds));
    }
    return FormatColumns(rows, 2);
}

std::string FormatFilters(const std::vector<FilterReport>& filters)
{
    std::vector<std::vector<std::string>> rows = {
        {"driver", "filter", "chain", "process", "bypass", "discard", "consume", "capture"}};
    for (const FilterReport& filter : filters) {
        const FilterCounters& counters = filter.counters;
        rows.push_back({filter.driver, counters.name, counters.chain, fmt::to_string(counters.process),
                        fmt::to_string(counters.bypass), fmt::to_string(counters.discard),
                        fmt::to_string(counters.consume), fmt::to_string(counters.capture)});
    }
    return FormatColumns(rows, 3);
}

std::string FormatBalance(const PacketBalance& balance)
{
    return fmt::format(
        "packets in   {:>12} = {} received + {} sent + {} allocated\n"
        "packets out  {:>12} = {} delivered + {} refused + {} released + {} stranded + {} still out\n"
        "balance      {:>12}\n",
        balance.In(), balance.received, balance.sent, balance.allocated, balance.Out(), balance.delivered,
        balance.refused, balance.released, balance.stranded, balance.stillOut,
        balance.Holds() ? "holds" : "BROKEN");
}

nlohmann::ordered_json FlowJson(const Flow& flow, double seconds)
{
    return {{"framesIn", flow.framesIn},
            {"bytesIn", flow.bytesIn},
            {"framesOut", flow.framesOut},
            {"bytesOut", flow.bytesOut},
            {"framesPerSecond", PerSecond(flow.framesIn, seconds)},
            {"megabitsPerSecond", Megabits(flow.bytesIn, seconds)}};
}

} // namespace

ExitCode Report::Code() const
{
    for (const ExitCode code : {ExitCode::Balance, ExitCode::BrokenRule, ExitCode::Stalled, ExitCode::Filter,
                                ExitCode::Usage, ExitCode::Capture, ExitCode::Interrupted}) {
        if (std::ranges::any_of(failures, [&](const Failure& failure) { return failure.code == code; })) {
            return code;
        }
    }
    return ExitCode::Success;
}

std::string FormatTable(const Report& report)
{
    std::string text = FormatAdapters(report);
    if (!report.filters.empty()) {
        text += '\n' + FormatFilters(report.filters);
    }
    text += '\n' + FormatBalance(report.balance);
    text += fmt::format("time         {:>10.3f} s\n", report.seconds);
    for (const std::string& note : report.notes) {
        text += "note: " + note + '\n';
    }
    return text;
}

std::string FormatJson(const Report& report)
{
    using nlohmann::ordered_json;
    ordered_json adapters = ordered_json::array();
    for (const AdapterReport& adapter : report.adapters) {
        adapters.push_back({{"name", adapter.name},
                            {"capture", adapter.capture},
                            {"mac", adapter.mac},
                            {"received", FlowJson(adapter.received, report.seconds)},
                            {"sent", FlowJson(adapter.sent, report.seconds)},
                            {"tooLong", adapter.tooLong},
                            {"cutShort", adapter.cutShort}});
    }
    ordered_json filters = ordered_json::array();
    for (const FilterReport& filter : report.filters) {
        const FilterCounters& counters = filter.counters;
        filters.push_back({{"driver", filter.driver},
                           {"name", counters.name},
                           {"chain", counters.chain},
                           {"process", counters.process},
                           {"bypass", counters.bypass},
                           {"discard", counters.discard},
                           {"consume", counters.consume},
                           {"capture", counters.capture}});
    }
    ordered_json errors = ordered_json::array();
    for (const Failure& failure : report.failures) {
        errors.push_back(failure.message);
    }
    const PacketBalance& balance = report.balance;
    const ordered_json object = {{"seconds", report.seconds},
                                 {"adapters", adapters},
                                 {"filters", filters},
                                 {"balance",
                                  {{"received", balance.received},
                                   {"sent", balance.sent},
                                   {"allocated", balance.allocated},
                                   {"delivered", balance.delivered},
                                   {"refused", balance.refused},
                                   {"released", balance.released},
                                   {"stranded", balance.stranded},
                                   {"stillOut", balance.stillOut},
                                   {"holds", balance.Holds()}}},
                                 {"notes", report.notes},
                                 {"errors", errors},
                                 {"exitCode", static_cast<int>(report.Code())}};
    // Names may hold bytes that are no UTF-8.
    return object.dump(2, ' ', false, ordered_json::error_handler_t::replace) + '\n';
}

} // namespace lab
