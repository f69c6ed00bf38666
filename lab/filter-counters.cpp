#include "filter-counters.h"

#include <algorithm>
#include <charconv>

#include <machine.h>

// The framework is linked into the lab; its header needs a kernel's headers around it.
extern "C" int32_t Filter_DumpFilter(int32_t nType);

namespace lab
{
namespace
{

constexpr int32_t kChains = 4;

template <class Number>
Number ParseNumber(std::string_view text, int base)
{
    Number number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number, base);
    return number;
}

void SetField(FilterCounters& filter, std::string_view field, std::string_view value)
{
    // Counters are printed with a sign.
    const auto counter = [&] { return static_cast<uint32_t>(ParseNumber<int32_t>(value, 10)); };
    if (field == "m_FilterName") {
        filter.name = value;
    } else if (field == "m_pfFilterProc") {
        filter.procedure = ParseNumber<uint64_t>(value.substr(value.starts_with("0x") ? 2 : 0), 16);
    } else if (field == "m_FilterType") { // "0 - FILTER_TYPE_INCOMING_PACKET"
        const size_t dash = value.find(" - ");
        filter.chain = dash == std::string_view::npos ? value : value.substr(dash + 3);
    } else if (field == "m_PacketProcess") {
        filter.process = counter();
    } else if (field == "m_PacketBypass") {
        filter.bypass = counter();
    } else if (field == "m_PacketDiscard") {
        filter.discard = counter();
    } else if (field == "m_PacketConsume") {
        filter.consume = counter();
    } else if (field == "m_PacketCapture") {
        filter.capture = counter();
    }
}

} // namespace

std::vector<FilterCounters> ParseFilterDump(std::string_view dump)
{
    std::vector<FilterCounters> filters;
    while (!dump.empty()) {
        const size_t end = std::min(dump.find('\n'), dump.size());
        const std::string_view line = dump.substr(0, end);
        dump.remove_prefix(std::min(end + 1, dump.size()));
        if (line.starts_with("Filter[")) {
            filters.emplace_back();
            continue;
        }
        const size_t equals = line.find(" = ");
        if (filters.empty() || !line.starts_with("- ") || equals == std::string_view::npos) {
            continue;
        }
        const std::string_view padded = line.substr(2, equals - 2);
        SetField(filters.back(), padded.substr(0, padded.find(' ')), line.substr(equals + 3));
    }
    return filters;
}

std::vector<FilterCounters> ReadFilterCounters()
{
    // What other drivers print meanwhile stays in the debug output.
    machine::DebugCapture capture(machine::DebugCapture::Threads::Own);
    for (int32_t type = 0; type < kChains; ++type) {
        Filter_DumpFilter(type);
    }
    return ParseFilterDump(capture.Text());
}

} // namespace lab
