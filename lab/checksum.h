// Checksums that a network stack has left to its adapter.
#pragma once

#include <cstdint>
#include <span>

namespace lab
{

// Computes the TCP or UDP checksum (RFC 1071, RFC 8200) of a frame with IPv4 or IPv6, in place. Other frames, later
// fragments and frames that are shorter than their headers say stay as they are.
void CompleteChecksum(std::span<uint8_t> frame);

} // namespace lab
