// Frames for tests, built from the inside out: EthernetFrame(kEtherTypeIpv4, Ipv4Packet(..., UdpDatagram(...))).
// Lengths and the IPv4 header checksum are right; transport checksums are left 0.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

namespace support
{

using Bytes = std::vector<uint8_t>;
using MacAddress = std::array<uint8_t, 6>;
using Ipv4Address = std::array<uint8_t, 4>;

inline constexpr uint16_t kEtherTypeIpv4 = 0x0800;
inline constexpr uint16_t kEtherTypeArp = 0x0806;
inline constexpr uint16_t kEtherTypeVlan = 0x8100;
inline constexpr uint8_t kProtocolIcmp = 1;
inline constexpr uint8_t kProtocolTcp = 6;
inline constexpr uint8_t kProtocolUdp = 17;

inline constexpr MacAddress kOwnMac = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
inline constexpr MacAddress kPeerMac = {0x02, 0x00, 0x00, 0x00, 0x00, 0x02};
inline constexpr Ipv4Address kOwnAddress = {192, 168, 0, 1};
inline constexpr Ipv4Address kPeerAddress = {192, 168, 0, 2};

// size bytes 0, 1, 2, ... from `first` on.
Bytes Counting(size_t size, uint8_t first = 0);

Bytes UdpDatagram(uint16_t sourcePort, uint16_t destinationPort, const Bytes& payload = {});
Bytes TcpSegment(uint16_t sourcePort, uint16_t destinationPort, uint8_t flags, const Bytes& payload = {});
Bytes IcmpEcho(uint8_t type, uint16_t sequence, const Bytes& payload = {});

struct Ipv4Options {
    Ipv4Address source = kPeerAddress;
    Ipv4Address destination = kOwnAddress;
    uint16_t id = 0;
    uint16_t fragmentOffset = 0; // in units of 8 bytes
    bool moreFragments = false;
    Bytes options = {}; // a multiple of 4 bytes
};
Bytes Ipv4Packet(uint8_t protocol, const Bytes& payload, const Ipv4Options& options = {});

enum class ArpOperation : uint16_t { Request = 1, Reply = 2 };
Bytes ArpPacket(ArpOperation operation, const MacAddress& sender, const Ipv4Address& senderAddress,
                const MacAddress& target, const Ipv4Address& targetAddress);

Bytes EthernetFrame(uint16_t etherType, const Bytes& payload, const MacAddress& destination = kOwnMac,
                    const MacAddress& source = kPeerMac);
// The frame with an 802.1Q tag behind its addresses.
Bytes VlanTagged(const Bytes& frame, uint16_t tag);

// A UDP frame, for tests that need just any.
Bytes UdpFrame(uint16_t sourcePort = 1000, uint16_t destinationPort = 2000,
               const Bytes& payload = Counting(32));

} // namespace support
