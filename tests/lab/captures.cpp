#include "captures.h"

#include <gtest/gtest.h>

namespace
{

constexpr int64_t kFirstTime = 1'700'000'000'123'456; // microseconds

void Append(Bytes& target, const Bytes& bytes)
{
    target.insert(target.end(), bytes.begin(), bytes.end());
}

Bytes BigEndian(uint32_t value, int size)
{
    Bytes bytes;
    while (size-- > 0) {
        bytes.push_back(static_cast<uint8_t>(value >> (8 * size)));
    }
    return bytes;
}

} // namespace

Bytes EthernetFrame(bool sent, uint16_t etherType, const Bytes& payload)
{
    Bytes frame = sent ? kPeerMac : kAdapterMac;
    Append(frame, sent ? kAdapterMac : kPeerMac);
    Append(frame, BigEndian(etherType, 2));
    Append(frame, payload);
    return frame;
}

Bytes IpFrame(bool sent, uint8_t protocol, uint16_t peerPort, size_t payloadLength, uint32_t peerIp)
{
    constexpr uint16_t kOwnPort = 40000;
    Bytes packet = {0x45, 0};
    Append(packet, BigEndian(static_cast<uint32_t>(24 + payloadLength), 2));
    Append(packet, {0, 1, 0, 0, 64, protocol, 0, 0});
    Append(packet, BigEndian(sent ? kAdapterIp : peerIp, 4));
    Append(packet, BigEndian(sent ? peerIp : kAdapterIp, 4));
    Append(packet, BigEndian(sent ? kOwnPort : peerPort, 2));
    Append(packet, BigEndian(sent ? peerPort : kOwnPort, 2));
    for (size_t i = 0; i < payloadLength; ++i) {
        packet.push_back(static_cast<uint8_t>(i));
    }
    return EthernetFrame(sent, 0x0800, packet);
}

void WriteCapture(const std::string& path, const std::vector<Bytes>& frames, int linkType)
{
    pcap_t* format = pcap_open_dead(linkType, 65535);
    pcap_dumper_t* file = pcap_dump_open(format, path.c_str());
    ASSERT_NE(file, nullptr) << pcap_geterr(format);
    int64_t time = kFirstTime;
    for (const Bytes& frame : frames) {
        pcap_pkthdr header = {};
        header.ts = {time / 1'000'000, time % 1'000'000};
        header.caplen = header.len = static_cast<bpf_u_int32>(frame.size());
        pcap_dump(reinterpret_cast<u_char*>(file), &header, frame.data());
        time += 1000;
    }
    pcap_dump_close(file);
    pcap_close(format);
}
