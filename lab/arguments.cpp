#include "arguments.h"

#include "lab-error.h"

#include <algorithm>
#include <charconv>
#include <string_view>

#include <fmt/format.h>

namespace lab
{

MacAddress ParseMacAddress(const std::string& option, const std::string& text)
{
    MacAddress address;
    const char* position = text.data();
    const char* const end = text.data() + text.size();
    for (size_t i = 0; i < address.size(); ++i) {
        if (i > 0 && position != end && (*position == ':' || *position == '-')) {
            ++position;
        } else if (i > 0) {
            position = end;
        }
        const auto result = std::from_chars(position, std::min(position + 2, end), address[i], 16);
        if (result.ec != std::errc() || result.ptr != position + 2) {
            throw LabError(
                ExitCode::Usage,
                fmt::format("{} {}: not a MAC address, for instance 02:00:00:00:00:0a", option, text));
        }
        position = result.ptr;
    }
    if (position != end || (address[0] & 1) != 0) {
        throw LabError(ExitCode::Usage,
                       fmt::format("{} {}: not the MAC address of one adapter", option, text));
    }
    return address;
}

NamedAdapter ParseAdapter(const std::string& text)
{
    const size_t equals = text.rfind('=');
    if (equals == std::string::npos || equals == 0 || text.find('/') < equals) {
        throw LabError(ExitCode::Usage,
                       fmt::format("--adapter {}: give it as NAME=MAC, without a slash", text));
    }
    return {text.substr(0, equals), ParseMacAddress("--adapter", text.substr(equals + 1))};
}

Setting ParseSetting(const std::string& option, const std::string& text)
{
    const size_t equals = text.find('=');
    const size_t dot = text.substr(0, equals).find('.');
    if (equals == std::string::npos || dot == std::string::npos || dot == 0 || dot + 1 == equals) {
        throw LabError(ExitCode::Usage, fmt::format("{} {}: give it as DRIVER.VALUE={}", option, text,
                                                    option == "--set" ? "TEXT" : "NUMBER"));
    }
    return {text.substr(0, dot), text.substr(dot + 1, equals - dot - 1), text.substr(equals + 1)};
}

Setting ParseNumberSetting(const std::string& text)
{
    Setting setting = ParseSetting("--set-dword", text);
    const bool hexadecimal = setting.text.starts_with("0x") || setting.text.starts_with("0X");
    const std::string_view digits = std::string_view(setting.text).substr(hexadecimal ? 2 : 0);
    const char* const end = digits.data() + digits.size();
    const auto result = std::from_chars(digits.data(), end, setting.number, hexadecimal ? 16 : 10);
    if (digits.empty() || result.ec != std::errc() || result.ptr != end) {
        throw LabError(ExitCode::Usage,
                       fmt::format("--set-dword {}: '{}' is not a number of 32 bits", text, setting.text));
    }
    setting.isNumber = true;
    return setting;
}

} // namespace lab
