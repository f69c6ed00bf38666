#include "frames.h"

#include <algorithm>

namespace support
{
namespace
{

void Put16(Bytes& bytes, uint16_t value)
{
    bytes.push_back(static_cast<uint8_t>(value >> 8));
    bytes.push_back(static_cast<uint8_t>(value));
}

void PutZeros(Bytes& bytes, size_t count)
{
    bytes.resize(bytes.size() + count);
}

void Put(Bytes& bytes, std::span<const uint8_t> more)
{
    bytes.insert(bytes.end(), more.begin(), more.end());
}

uint16_t InternetChecksum(std::span<const uint8_t> header) // RFC 1071; an even number of bytes
{
    uint32_t sum = 0;
    for (size_t i = 0; i < header.size(); i += 2) {
        sum += static_cast<uint32_t>(header[i] << 8 | header[i + 1]);
    }
    sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~(sum + (sum >> 16)));
}

} // namespace

Bytes Counting(size_t size, uint8_t first)
{
    Bytes bytes(size);
    std::generate(bytes.begin(), bytes.end(), [&] { return first++; });
    return bytes;
}

Bytes UdpDatagram(uint16_t sourcePort, uint16_t destinationPort, const Bytes& payload)
{
    Bytes bytes;
    Put16(bytes, sourcePort);
    Put16(bytes, destinationPort);
    Put16(bytes, static_cast<uint16_t>(8 + payload.size()));
    PutZeros(bytes, 2);
    Put(bytes, payload);
    return bytes;
}

Bytes TcpSegment(uint16_t sourcePort, uint16_t destinationPort, uint8_t flags, const Bytes& payload)
{
    Bytes bytes;
    Put16(bytes, sourcePort);
    Put16(bytes, destinationPort);
    PutZeros(bytes, 8);    // sequence and acknowledgement numbers
    bytes.push_back(0x50); // header of five words
    bytes.push_back(flags);
    Put16(bytes, 0x1000); // window
    PutZeros(bytes, 4);   // checksum, urgent pointer
    Put(bytes, payload);
    return bytes;
}

Bytes IcmpEcho(uint8_t type, uint16_t sequence, const Bytes& payload)
{
    Bytes bytes = {type, 0, 0, 0, 0, 1};
    Put16(bytes, sequence);
    Put(bytes, payload);
    return bytes;
}

Bytes Ipv4Packet(uint8_t protocol, const Bytes& payload, const Ipv4Options& options)
{
    const size_t headerSize = 20 + options.options.size();
    Bytes bytes = {static_cast<uint8_t>(0x40 | headerSize / 4), 0};
    Put16(bytes, static_cast<uint16_t>(headerSize + payload.size()));
    Put16(bytes, options.id);
    Put16(bytes, static_cast<uint16_t>((options.moreFragments ? 0x2000 : 0) | options.fragmentOffset));
    bytes.push_back(64); // time to live
    bytes.push_back(protocol);
    PutZeros(bytes, 2);
    Put(bytes, options.source);
    Put(bytes, options.destination);
    Put(bytes, options.options);
    const uint16_t checksum = InternetChecksum(bytes);
    bytes[10] = static_cast<uint8_t>(checksum >> 8);
    bytes[11] = static_cast<uint8_t>(checksum);
    Put(bytes, payload);
    return bytes;
}

Bytes ArpPacket(ArpOperation operation, const MacAddress& sender, const Ipv4Address& senderAddress,
                const MacAddress& target, const Ipv4Address& targetAddress)
{
    Bytes bytes = {0, 1, 8, 0, 6, 4}; // Ethernet, IPv4, address lengths
    Put16(bytes, static_cast<uint16_t>(operation));
    Put(bytes, sender);
    Put(bytes, senderAddress);
    Put(bytes, target);
    Put(bytes, targetAddress);
    return bytes;
}

Bytes EthernetFrame(uint16_t etherType, const Bytes& payload, const MacAddress& destination,
                    const MacAddress& source)
{
    Bytes bytes;
    Put(bytes, destination);
    Put(bytes, source);
    Put16(bytes, etherType);
    Put(bytes, payload);
    return bytes;
}

Bytes VlanTagged(const Bytes& frame, uint16_t tag)
{
    Bytes bytes(frame.begin(), frame.begin() + 12);
    Put16(bytes, kEtherTypeVlan);
    Put16(bytes, tag);
    bytes.insert(bytes.end(), frame.begin() + 12, frame.end());
    return bytes;
}

Bytes UdpFrame(uint16_t sourcePort, uint16_t destinationPort, const Bytes& payload)
{
    return EthernetFrame(kEtherTypeIpv4,
                         Ipv4Packet(kProtocolUdp, UdpDatagram(sourcePort, destinationPort, payload)));
}

} // namespace support
