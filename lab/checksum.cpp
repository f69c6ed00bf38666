#include "checksum.h"

#include <optional>

#include <net/ethernet.h>
#include <netinet/in.h>

namespace lab
{
namespace
{

constexpr size_t kEthernetBytes = 14;
constexpr size_t kIpv4Bytes = 20;
constexpr size_t kIpv6Bytes = 40;

uint32_t ReadBe16(std::span<const uint8_t> bytes, size_t offset)
{
    return static_cast<uint32_t>(bytes[offset] << 8 | bytes[offset + 1]);
}

uint64_t Sum(std::span<const uint8_t> bytes)
{
    uint64_t sum = 0;
    size_t i = 0;
    for (; i + 1 < bytes.size(); i += 2) {
        sum += ReadBe16(bytes, i);
    }
    return i < bytes.size() ? sum + (static_cast<uint32_t>(bytes[i]) << 8) : sum;
}

struct Segment {
    uint8_t protocol;
    std::span<const uint8_t> addresses; // both
    std::span<uint8_t> bytes;
};

std::optional<Segment> FindSegment(std::span<uint8_t> frame)
{
    if (frame.size() < kEthernetBytes + kIpv4Bytes) {
        return std::nullopt;
    }
    const uint32_t type = ReadBe16(frame, kEthernetBytes - 2);
    const std::span<uint8_t> ip = frame.subspan(kEthernetBytes);
    if (type == ETHERTYPE_IP) {
        const size_t header = 4 * static_cast<size_t>(ip[0] & 0x0F);
        const size_t total = ReadBe16(ip, 2);
        const bool isLaterFragment = (ReadBe16(ip, 6) & 0x1FFF) != 0;
        if (header < kIpv4Bytes || total < header || total > ip.size() || isLaterFragment) {
            return std::nullopt;
        }
        return Segment{ip[9], ip.subspan(12, 8), ip.subspan(header, total - header)};
    }
    if (type == ETHERTYPE_IPV6 && ip.size() >= kIpv6Bytes) {
        const size_t payload = ReadBe16(ip, 4);
        if (payload > ip.size() - kIpv6Bytes) {
            return std::nullopt;
        }
        return Segment{ip[6], ip.subspan(8, 32), ip.subspan(kIpv6Bytes, payload)};
    }
    return std::nullopt;
}

} // namespace

void CompleteChecksum(std::span<uint8_t> frame)
{
    const std::optional<Segment> segment = FindSegment(frame);
    if (!segment.has_value() || (segment->protocol != IPPROTO_TCP && segment->protocol != IPPROTO_UDP)) {
        return;
    }
    const size_t place = segment->protocol == IPPROTO_TCP ? 16 : 6;
    if (segment->bytes.size() < place + 2) {
        return;
    }
    uint8_t* const checksum = segment->bytes.data() + place;
    checksum[0] = checksum[1] = 0;
    uint64_t sum = Sum(segment->addresses) + Sum(segment->bytes) + segment->protocol + segment->bytes.size();
    while (sum > 0xFFFF) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    auto result = static_cast<uint16_t>(~sum);
    if (result == 0 && segment->protocol == IPPROTO_UDP) {
        result = 0xFFFF; // 0 would say that there is none
    }
    checksum[0] = static_cast<uint8_t>(result >> 8);
    checksum[1] = static_cast<uint8_t>(result);
}

} // namespace lab
