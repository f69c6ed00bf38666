// Captures that the tests write, and the frames in them.
#pragma once

#include <support/captures.h>

#include <utility>

#include <pcap/pcap.h>

using support::Bytes;
using support::CapturedFrame;
using support::ReadCapture;

const Bytes kAdapterMac = {0x02, 0, 0, 0, 0, 0x0a};
const Bytes kPeerMac = {0x02, 0, 0, 0, 0, 0x0b};
constexpr uint32_t kAdapterIp = 0x0A000001; // 10.0.0.1
constexpr uint32_t kPeerIp = 0x0A000002;

Bytes EthernetFrame(bool sent, uint16_t etherType, const Bytes& payload);
// A TCP (6) or UDP (17) segment in IPv4 between adapter and peer; the peer's port is the one given.
Bytes IpFrame(bool sent, uint8_t protocol, uint16_t peerPort, size_t payloadLength = 20,
              uint32_t peerIp = kPeerIp);

// Writes frames one millisecond apart.
void WriteCapture(const std::string& path, const std::vector<Bytes>& frames, int linkType = DLT_EN10MB);
