// The parser that a program would write for itself: the same pointers, nothing else.
#pragma once

#include <ndisfilter.h>

#include <cstdint>

namespace bench
{

inline void ParseByHand(FilterPacket& packet)
{
    const auto big16 = [](const uint8_t* p) { return static_cast<uint32_t>(p[0] << 8 | p[1]); };
    uint8_t* const frame = packet.m_Data;
    uint8_t *arp = nullptr, *ip = nullptr, *tcp = nullptr, *udp = nullptr, *icmp = nullptr;
    uint8_t *dhcp = nullptr, *dns = nullptr;
    switch (big16(frame + 12)) {
    case 0x0806:
        arp = frame + 14;
        break;
    case 0x0800:
        ip = frame + 14;
        packet.m_nProtocol = ip[9];
        if ((big16(ip + 6) & 0x1FFF) == 0) {
            uint8_t* const transport = ip + 4 * (ip[0] & 0xF);
            if (ip[9] == 6) {
                tcp = transport;
            } else if (ip[9] == 17) {
                udp = transport;
                const uint32_t port = big16(udp + 2);
                if (port == 67 || port == 68) {
                    dhcp = udp + 8;
                } else if (port == 53 || big16(udp) == 53) {
                    dns = udp + 8;
                }
            } else if (ip[9] == 1) {
                icmp = transport;
            }
        }
        break;
    default:
        break;
    }
    packet.m_pEthernet = frame;
    packet.m_pArp = arp;
    packet.m_pIp = ip;
    packet.m_pTcp = tcp;
    packet.m_pUdp = udp;
    packet.m_pIcmp = icmp;
    packet.m_pDhcp = dhcp;
    packet.m_pDns = dns;
}

} // namespace bench
