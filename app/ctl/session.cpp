#include "session.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>

#include <fmt/format.h>

namespace ctl
{

std::atomic<bool> interrupted = false;

namespace
{

const char* Advice(int32_t status)
{
    switch (static_cast<uint32_t>(status)) {
    case 0xC000000D: // STATUS_INVALID_PARAMETER
    case 0xC0010006: // NDIS_STATUS_ADAPTER_NOT_FOUND
        return "list the adapters with `ndisfilterctl adapters`";
    case 0xC0000043: // STATUS_SHARING_VIOLATION
        return "end the other watch, inject or program that exchanges packets with the driver";
    case 0xC000003E: // STATUS_DATA_ERROR
        return "a program has written into them; end it and try again, a new start brings them in order";
    case 0xC0000022: // STATUS_ACCESS_DENIED
        return "run it as administrator";
    case 0xC0000004: // STATUS_INFO_LENGTH_MISMATCH
    case 0xC0000010: // STATUS_INVALID_DEVICE_REQUEST
    case 0xC0000023: // STATUS_BUFFER_TOO_SMALL
    case 0xC00000BB: // STATUS_NOT_SUPPORTED
        return "use the driver and ndisfilterctl of one release; `ndisfilterctl version` shows both";
    case 0xC0000017: // STATUS_NO_MEMORY
    case 0xC000009A: // STATUS_INSUFFICIENT_RESOURCES
        return "try again when memory is free";
    case 0xC000009D: // STATUS_DEVICE_NOT_CONNECTED
        return "start `ndisfilter-lab serve` again";
    case 0xC00000E5: // STATUS_INTERNAL_ERROR
        return "the driver's debug output says more; `ndisfilterctl state` prints its state there";
    default:
        return "see the driver's debug output";
    }
}

bool IsNumber(const std::string& text)
{
    return !text.empty() && std::ranges::all_of(text, [](char c) { return c >= '0' && c <= '9'; });
}

std::string NoSuchAdapter(const std::string& reference)
{
    return fmt::format(
        "{}: no such adapter; give an identifier, a MAC address or a name from `ndisfilterctl adapters`",
        reference);
}

uint32_t ParseId(const std::string& text)
{
    uint32_t id = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), id);
    if (result.ec != std::errc()) {
        throw CtlError(ExitCode::Usage, fmt::format("{}: identifiers of adapters have 32 bits", text));
    }
    return id;
}

} // namespace

std::string ExplainFailure(const std::string& request, const std::string& subject, int32_t status)
{
    const std::string meaning = ndisfilter_status_meaning(status);
    return fmt::format("cannot {}{}: {}{}; {}", request, subject.empty() ? "" : " of " + subject,
                       ndisfilter::StatusText(status), meaning.empty() ? "" : ": " + meaning, Advice(status));
}

Client& Session::Driver()
{
    if (!client_) {
        client_.emplace(device);
    }
    return *client_;
}

UserAdapterInfo Session::FindListed(const std::string& reference)
{
    const std::vector<UserAdapterInfo> adapters = Driver().Adapters();
    const bool isNumber = IsNumber(reference);
    const auto found = std::ranges::find_if(adapters, [&](const UserAdapterInfo& adapter) {
        return isNumber ? adapter.m_nAdapterId == ParseId(reference) : adapter.m_szAdapterName == reference;
    });
    if (found == adapters.end()) {
        throw CtlError(ExitCode::Usage, NoSuchAdapter(reference));
    }
    return *found;
}

std::optional<uint32_t> Session::FindByMac(const MacAddress& mac)
{
    try {
        return Driver().FindAdapter(mac);
    } catch (const ndisfilter::RequestError& error) {
        constexpr auto kInternalError =
            static_cast<int32_t>(0xC00000E5); // what the driver says of an unknown one
        if (error.Status() != kInternalError) {
            throw;
        }
        return std::nullopt;
    }
}

uint32_t Session::AdapterId(const std::string& reference)
{
    if (IsNumber(reference)) {
        return ParseId(reference);
    }
    if (const std::optional<MacAddress> mac = ParseMac(reference)) {
        const std::optional<uint32_t> id = FindByMac(*mac);
        return id ? *id : throw CtlError(ExitCode::Usage, NoSuchAdapter(reference));
    }
    return FindListed(reference).m_nAdapterId;
}

MacAddress Session::AdapterMac(const std::string& reference)
{
    if (const std::optional<MacAddress> mac = ParseMac(reference)) {
        return *mac;
    }
    const UserAdapterInfo adapter = FindListed(reference);
    MacAddress mac;
    std::ranges::copy(adapter.m_CurrentAddress, mac.begin());
    return mac;
}

std::optional<MacAddress> ParseMac(const std::string& text)
{
    MacAddress mac;
    if (text.size() != 17) {
        return std::nullopt;
    }
    for (size_t i = 0; i < mac.size(); ++i) {
        const char* const digits = text.data() + 3 * i;
        const auto result = std::from_chars(digits, digits + 2, mac[i], 16);
        if (result.ec != std::errc() || result.ptr != digits + 2 ||
            (i + 1 < mac.size() && digits[2] != ':' && digits[2] != '-')) {
            return std::nullopt;
        }
    }
    return mac;
}

std::string FormatMac(const uint8_t* mac, char separator)
{
    std::string text;
    for (size_t i = 0; i < 6; ++i) {
        text += fmt::format("{:02x}", mac[i]);
        if (i < 5) {
            text += separator;
        }
    }
    return text;
}

std::string FormatJson(const Json& json, int indent)
{
    return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}

std::string Printable(std::string_view text)
{
    std::string printable;
    for (const char c : text) {
        if (c >= 32 && c < 127) {
            printable += c;
        } else {
            printable += fmt::format("\\x{:02x}", static_cast<uint8_t>(c));
        }
    }
    return printable;
}

void PrintRemark(const std::string& message)
{
    fmt::print(stderr, "ndisfilterctl: {}\n", message);
    std::fflush(stderr);
}

bool IsReaderGone()
{
    return errno == EPIPE || errno == EINVAL; // EINVAL: what Windows says of a broken pipe
}

bool FlushOutput()
{
    if (std::fflush(stdout) == 0) {
        return true;
    }
    if (!IsReaderGone()) {
        throw CtlError(ExitCode::File,
                       fmt::format("standard output cannot be written: {}", std::strerror(errno)));
    }
    return false;
}

} // namespace ctl
