// What the sample drivers share: names and registrations, words of a diagnostic command, and a look at IPv4 frames that
// believes none of their lengths.
#pragma once

#include <ntddk.h>

#include <ndis.h>

#include "ndisfilter.h"

namespace sample
{

template <size_t Size>
STRING CountedName(char (&text)[Size])
{
    return {static_cast<USHORT>(Size - 1), static_cast<USHORT>(Size), text};
}

// TRUE when a registration has given a handle. Success without one means that the framework had no memory.
inline BOOLEAN IsRegistered(PCSTR driver, PCSTR what, FILTER_STATUS status, const VOID* handle)
{
    if (status == FILTER_STATUS_SUCCESS && handle != nullptr) {
        return TRUE;
    }
    DbgPrint("%s: cannot register %s: %s\n", driver, what,
             status != FILTER_STATUS_SUCCESS ? Filter_StatusString(status) : "no memory");
    return FALSE;
}

// A counter that other processors change.
inline ULONG Read(const volatile LONG* counter)
{
    return static_cast<ULONG>(InterlockedCompareExchange(const_cast<volatile LONG*>(counter), 0, 0));
}

// ------------------------------------------------------------------------------------------------- diagnostics

// Compares a word of a command with a lower-case one.
inline BOOLEAN IsWord(PCSTR text, PCSTR word)
{
    for (; *text != 0 && *word != 0; ++text, ++word) {
        const CHAR lower = *text >= 'A' && *text <= 'Z' ? static_cast<CHAR>(*text - 'A' + 'a') : *text;
        if (lower != *word) {
            return FALSE;
        }
    }
    return *text == *word;
}

// A decimal number, from 0 to `maximum`, and nothing else.
inline BOOLEAN ParseNumber(PCSTR text, ULONG maximum, ULONG* number)
{
    ULONGLONG value = 0;
    PCSTR at = text;
    for (; *at >= '0' && *at <= '9' && value <= maximum; ++at) {
        value = 10 * value + static_cast<ULONG>(*at - '0');
    }
    *number = static_cast<ULONG>(value);
    return at != text && *at == 0 && value <= maximum;
}

// An answer to a diagnostic command for this driver. "driver" without words asks every driver who it is: the next one
// is asked, too.
template <class Answer>
NTSTATUS HandleDiag(PCSTR driver, PCSTR purpose, const VOID* pInput, ULONG nInputLength, PVOID pOutput,
                    ULONG nOutputLength, const Answer& answer)
{
    Diag* pDiag = nullptr;
    if (Filter_BeginDiag(pInput, nInputLength, pOutput, nOutputLength, &pDiag) != FILTER_STATUS_SUCCESS) {
        return STATUS_NOT_SUPPORTED;
    }
    if (IsWord(pDiag->m_pszDriverName, driver)) {
        answer(pDiag);
        return STATUS_SUCCESS;
    }
    if (IsWord(pDiag->m_pszDriverName, "driver") && pDiag->m_nArgumentCount == 0) {
        Filter_DiagPrint(pDiag, "%s - %s\n", driver, purpose);
    }
    return STATUS_NOT_SUPPORTED;
}

// ------------------------------------------------------------------------------------------------------ frames

constexpr ULONG kEthernetHeader = 14;
constexpr ULONG kIpHeader = 20; // shortest IPv4 header: RFC 791
constexpr ULONG kIpTotalLength = 2;
constexpr ULONG kIpFragment = 6;
constexpr ULONG kIpProtocol = 9;
constexpr ULONG kIpSource = 12;
constexpr ULONG kIpDestination = 16;
constexpr ULONG kUdpHeader = 8;  // RFC 768
constexpr ULONG kTcpHeader = 20; // shortest TCP header: RFC 9293
constexpr ULONG kTcpFlags = 13;
constexpr ULONG kAllHeaders = kEthernetHeader + 60 + kTcpHeader; // with the longest IPv4 header

constexpr UCHAR kProtocolTcp = 6;
constexpr UCHAR kProtocolUdp = 17;

constexpr UCHAR kTcpFin = 0x01;
constexpr UCHAR kTcpSyn = 0x02;
constexpr UCHAR kTcpRst = 0x04;
constexpr UCHAR kTcpAck = 0x10;

inline USHORT ReadUshort(const UCHAR* bytes)
{
    return static_cast<USHORT>(bytes[0] << 8 | bytes[1]);
}

inline VOID WriteUshort(UCHAR* bytes, USHORT value)
{
    bytes[0] = static_cast<UCHAR>(value >> 8);
    bytes[1] = static_cast<UCHAR>(value);
}

// Addresses stay in network order.
inline ULONG ReadAddress(const UCHAR* bytes)
{
    ULONG address;
    RtlCopyMemory(&address, bytes, sizeof(address));
    return address;
}

// An IPv4 frame whose lengths agree with one another: the datagram lies inside the frame, and the headers named here
// inside the datagram and in memory.
struct Ipv4Frame {
    UCHAR* Ip;
    ULONG HeaderLength; // 20 to 60
    ULONG TotalLength;  // of the datagram
    ULONG Source;       // network order
    ULONG Destination;
    UCHAR Protocol;
    BOOLEAN IsFragment; // a part of a datagram, be it the first
    UCHAR* Transport;   // TCP or UDP header; nullptr when there is none
    USHORT SourcePort;
    USHORT DestinationPort;
    UCHAR TcpFlags; // 0 for UDP
};

// How many bytes of the frame can be read behind m_pEthernet, having fetched the headers where the hook driver has put
// only the first bytes of the frame into the packet. The header pointers are those of the fetched bytes then.
inline ULONG FetchHeaders(FilterPacket* pPacket)
{
    const BOOLEAN lazy =
        pPacket->m_pEthernet == pPacket->m_Data && !pPacket->m_bDirty &&
        (pPacket->m_pIncomingNdisPacket != nullptr || pPacket->m_pOutgoingNdisPacket != nullptr);
    if (!lazy) {
        return pPacket->m_nPacketSize;
    }
    if (pPacket->m_nBytesRead < pPacket->m_nPacketSize && pPacket->m_nBytesRead < kAllHeaders) {
        Filter_TransferPacketData(pPacket);
        Filter_InitPacketHeader(pPacket, nullptr);
    }
    return pPacket->m_nBytesRead;
}

// Looks at the headers that the framework has found. FALSE: no IPv4 frame, or one whose lengths contradict each other.
inline BOOLEAN LookAt(FilterPacket* pPacket, Ipv4Frame* frame)
{
    const ULONG available = FetchHeaders(pPacket); // bytes that are in memory
    UCHAR* const pIp = pPacket->m_pIp;
    if (pIp == nullptr || available < kEthernetHeader + kIpHeader) {
        return FALSE;
    }
    const ULONG offset = static_cast<ULONG>(pIp - pPacket->m_pEthernet);
    frame->Ip = pIp;
    frame->HeaderLength = 4u * (pIp[0] & 0x0F);
    frame->TotalLength = ReadUshort(pIp + kIpTotalLength);
    if (pIp[0] >> 4 != 4 || frame->HeaderLength < kIpHeader || frame->HeaderLength > frame->TotalLength ||
        offset + frame->HeaderLength > available || offset + frame->TotalLength > pPacket->m_nPacketSize) {
        return FALSE;
    }
    frame->Source = ReadAddress(pIp + kIpSource);
    frame->Destination = ReadAddress(pIp + kIpDestination);
    frame->Protocol = pIp[kIpProtocol];
    frame->IsFragment = (ReadUshort(pIp + kIpFragment) & 0x3FFF) != 0; // more to come, or an offset
    UCHAR* const pTransport = pPacket->m_pTcp != nullptr ? pPacket->m_pTcp : pPacket->m_pUdp;
    const ULONG length = pPacket->m_pTcp != nullptr ? kTcpHeader : kUdpHeader;
    const BOOLEAN complete = frame->HeaderLength + length <= frame->TotalLength &&
                             offset + frame->HeaderLength + length <= available;
    frame->Transport = complete ? pTransport : nullptr;
    if (frame->Transport != nullptr) {
        frame->SourcePort = ReadUshort(pTransport);
        frame->DestinationPort = ReadUshort(pTransport + 2);
        frame->TcpFlags = frame->Protocol == kProtocolTcp ? pTransport[kTcpFlags] : UCHAR{0};
    }
    return TRUE;
}

} // namespace sample
