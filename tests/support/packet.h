// A packet as a client driver makes it.
#pragma once

#include "framework.h"

namespace support
{

// A new packet that holds the frame, with its headers parsed; null, and a failed test, without one.
inline FilterPacket* MakePacket(FilterAdapter* adapter, const Bytes& frame)
{
    FilterPacket* packet = Filter_AllocatePacket(adapter);
    EXPECT_NE(packet, nullptr);
    if (packet != nullptr) {
        std::copy(frame.begin(), frame.end(), packet->m_Data);
        packet->m_nBytesRead = packet->m_nPacketSize = static_cast<ULONG>(frame.size());
        Filter_InitPacketHeader(packet, nullptr);
    }
    return packet;
}

} // namespace support
