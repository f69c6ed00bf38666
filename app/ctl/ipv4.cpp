#include "ipv4.h"

#include <array>
#include <bit>
#include <charconv>

#include <fmt/format.h>

namespace ctl
{

std::optional<uint32_t> ParseIPv4(const std::string& text)
{
    std::array<uint8_t, 4> bytes;
    const char* position = text.data();
    const char* const end = position + text.size();
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i > 0 && (position == end || *position++ != '.')) {
            return std::nullopt;
        }
        const auto result = std::from_chars(position, end, bytes[i]);
        if (result.ec != std::errc()) {
            return std::nullopt;
        }
        position = result.ptr;
    }
    return position == end ? std::optional(std::bit_cast<uint32_t>(bytes)) : std::nullopt;
}

std::optional<AddressWithMask> ParseIPv4Prefix(const std::string& text)
{
    const size_t slash = text.find('/');
    const std::optional<uint32_t> address = ParseIPv4(text.substr(0, slash));
    unsigned length = 32;
    if (slash != std::string::npos) {
        const char* const end = text.data() + text.size();
        const auto result = std::from_chars(text.data() + slash + 1, end, length);
        if (result.ec != std::errc() || result.ptr != end || length > 32) {
            return std::nullopt;
        }
    }
    if (!address) {
        return std::nullopt;
    }
    const uint32_t mask = length == 0 ? 0 : UINT32_MAX << (32 - length);
    const std::array<uint8_t, 4> bytes = {static_cast<uint8_t>(mask >> 24), static_cast<uint8_t>(mask >> 16),
                                          static_cast<uint8_t>(mask >> 8), static_cast<uint8_t>(mask)};
    return AddressWithMask{*address, std::bit_cast<uint32_t>(bytes)};
}

std::string FormatIPv4(uint32_t address)
{
    const auto bytes = std::bit_cast<std::array<uint8_t, 4>>(address);
    return fmt::format("{}.{}.{}.{}", bytes[0], bytes[1], bytes[2], bytes[3]);
}

} // namespace ctl
