// IPv4 addresses as the records have them: in network byte order, in a 32-bit word of this machine.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace ctl
{

struct AddressWithMask {
    uint32_t address;
    uint32_t mask;
};

std::optional<uint32_t> ParseIPv4(const std::string& text);
std::optional<AddressWithMask>
ParseIPv4Prefix(const std::string& text); // 192.0.2.1/24, or without a length: /32
std::string FormatIPv4(uint32_t address);

} // namespace ctl
