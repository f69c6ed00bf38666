// Byte order, the texts of addresses, and the comparison of counted strings.
#include "ndisfilter-kernel.h"

namespace
{

PCHAR AppendDecimal(PCHAR text, UCHAR value)
{
    if (value >= 100) {
        *text++ = static_cast<CHAR>('0' + value / 100);
    }
    if (value >= 10) {
        *text++ = static_cast<CHAR>('0' + value / 10 % 10);
    }
    *text++ = static_cast<CHAR>('0' + value % 10);
    return text;
}

CHAR HexDigit(UCHAR value)
{
    return static_cast<CHAR>(value < 10 ? '0' + value : 'A' + value - 10);
}

} // namespace

// ntohs and ntohl are second names of these two.
USHORT htons(USHORT nValue)
{
    return __builtin_bswap16(nValue);
}

ULONG htonl(ULONG nValue)
{
    return __builtin_bswap32(nValue);
}

PCSTR inet_ntoa(ULONG nAddress, PCHAR pBuffer, ULONG nSize)
{
    if (pBuffer == nullptr || nSize < sizeof("255.255.255.255")) {
        return "";
    }
    PCHAR text = pBuffer;
    for (ULONG octet = 0; octet < 4; octet++) {
        if (octet != 0) {
            *text++ = '.';
        }
        text = AppendDecimal(text, static_cast<UCHAR>(nAddress >> (8 * octet)));
    }
    *text = 0;
    return pBuffer;
}

PCHAR inet_mtoa(const UCHAR* pMacAddress, PCHAR pBuffer, ULONG)
{
    PCHAR text = pBuffer;
    for (ULONG i = 0; i < 6; i++) {
        if (i != 0) {
            *text++ = '-';
        }
        *text++ = HexDigit(pMacAddress[i] >> 4);
        *text++ = HexDigit(pMacAddress[i] & 0xF);
    }
    *text = 0;
    return pBuffer;
}

ULONG SubnetBroadcastAddress(ULONG nAddress, ULONG nMask)
{
    return (nAddress & nMask) | ~nMask;
}

BOOLEAN IsBroadcastAddress(ULONG nAddress)
{
    return nAddress >> 24 == 255;
}

LONG Filter_CompareString(const STRING* pA, const STRING* pB)
{
    if (pA == nullptr || pB == nullptr) {
        return -1;
    }
    const USHORT length = pA->Length;
    const USHORT otherLength = pB->Length;
    if (length != otherLength) {
        return length > otherLength ? 1 : -1;
    }
    return length == 0 || RtlEqualMemory(pA->Buffer, pB->Buffer, length) ? 0 : 1;
}
