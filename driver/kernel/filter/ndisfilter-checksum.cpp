// IPv4, ICMP, TCP and UDP checksums, computed in place.
#include "ndisfilter-packetapi.h"

namespace
{

constexpr ULONG IP_ADDRESSES_SIZE = 8; // source and destination, one behind the other
constexpr ULONG ICMP_CHECKSUM_OFFSET = 2;
constexpr ULONG TCP_CHECKSUM_OFFSET = 16;
constexpr ULONG UDP_CHECKSUM_OFFSET = 6;
constexpr ULONG IP_HEADER_SELECTOR = 0; // the other selectors are protocol numbers

constexpr ULONG WORD_SIZE = sizeof(ULONGLONG);
constexpr ULONG ROUND_SIZE = 4 * WORD_SIZE;

template <class Word>
ULONGLONG Load(const UCHAR* p)
{
    Word word;
    __builtin_memcpy(&word, p, sizeof(word)); // headers are not aligned
    return word;
}

// One's-complement addition of 64-bit words: the carry comes back in at the bottom.
ULONGLONG AddWithCarry(ULONGLONG a, ULONGLONG b)
{
    const ULONGLONG sum = a + b;
    return sum + (sum < b);
}

// A one's-complement sum of 16-bit little-endian words (RFC 1071, which shows that neither their byte order nor the
// width they are added in matters). An odd last byte counts as a word whose other byte is zero. The sum is 0 only if
// all words are. Inlined, so that a constant size gives straight code.
__attribute__((always_inline)) inline ULONGLONG AddWords(ULONGLONG sum, const UCHAR* p, ULONG size)
{
    // Independent sums, because each addition waits for the carry of the one before.
    if (size >= ROUND_SIZE) {
        ULONGLONG second = 0;
        ULONGLONG third = 0;
        ULONGLONG fourth = 0;
        for (; size >= ROUND_SIZE; p += ROUND_SIZE, size -= ROUND_SIZE) {
            sum = AddWithCarry(sum, Load<ULONGLONG>(p));
            second = AddWithCarry(second, Load<ULONGLONG>(p + WORD_SIZE));
            third = AddWithCarry(third, Load<ULONGLONG>(p + 2 * WORD_SIZE));
            fourth = AddWithCarry(fourth, Load<ULONGLONG>(p + 3 * WORD_SIZE));
        }
        sum = AddWithCarry(AddWithCarry(sum, second), AddWithCarry(third, fourth));
    }
    for (; size >= WORD_SIZE; p += WORD_SIZE, size -= WORD_SIZE) {
        sum = AddWithCarry(sum, Load<ULONGLONG>(p));
    }
    if ((size & sizeof(ULONG)) != 0) {
        sum = AddWithCarry(sum, Load<ULONG>(p));
        p += sizeof(ULONG);
    }
    if ((size & sizeof(USHORT)) != 0) {
        sum = AddWithCarry(sum, Load<USHORT>(p));
        p += sizeof(USHORT);
    }
    return (size & 1) != 0 ? AddWithCarry(sum, *p) : sum;
}

// The checksum of a sum. A result of zero stays zero, for UDP, too.
USHORT Fold(ULONGLONG sum)
{
    sum = (sum >> 32) + (sum & 0xFFFFFFFF);
    sum = (sum >> 32) + (sum & 0xFFFFFFFF);
    sum = (sum >> 16) + (sum & 0xFFFF);
    return static_cast<USHORT>(~(sum + (sum >> 16)));
}

// Stores at `field` the checksum of `size` bytes, in which the field counts as zero, and of `seed`. It is left out
// instead of zeroed first: wide loads that overlap a store just made would wait for it. `field` is even.
__attribute__((always_inline)) inline VOID StoreChecksum(UCHAR* p, ULONG size, ULONG field, ULONGLONG seed)
{
    const ULONG behind = field + sizeof(USHORT);
    const ULONGLONG sum = size < behind ? AddWords(seed, p, size < field ? size : field)
                                        : AddWords(AddWords(seed, p, field), p + behind, size - behind);
    const USHORT checksum = Fold(sum);
    RtlCopyMemory(p + field, &checksum, sizeof(checksum));
}

VOID StoreHeaderChecksum(UCHAR* ip, ULONG size)
{
    if (size == IP_HEADER_SIZE) {
        StoreChecksum(ip, IP_HEADER_SIZE, IP_CHECKSUM_OFFSET, 0);
    } else {
        StoreChecksum(ip, size, IP_CHECKSUM_OFFSET, 0);
    }
}

// The pseudo-header of TCP and UDP: both addresses, and one word with length and protocol.
ULONGLONG PseudoHeaderSum(const UCHAR* ip, ULONG lengthAndProtocol)
{
    const USHORT word = static_cast<USHORT>(lengthAndProtocol);
    return AddWords(__builtin_bswap16(word), ip + IP_SOURCE_OFFSET, IP_ADDRESSES_SIZE);
}

// `length` is that of the segment, also when it is negative; `size` is 0 then.
VOID StoreTransportChecksum(UCHAR* ip, ULONG length, ULONG size, ULONG field, ULONG protocol)
{
    const ULONG headerSize = IpHeaderSize(ip);
    UCHAR* const transport = ip + headerSize;
    if (headerSize < IP_HEADER_SIZE) { // the field may lie in the addresses, and counts as zero there, too
        RtlZeroMemory(transport + field, sizeof(USHORT));
    }
    StoreChecksum(transport, size, field, PseudoHeaderSum(ip, length + protocol));
}

FILTER_STATUS CalculateChecksum(UCHAR* ip, ULONG selector)
{
    const ULONG headerSize = IpHeaderSize(ip);
    const ULONG total = ReadBe16(ip + IP_TOTAL_LENGTH_OFFSET);
    const ULONG length = total - headerSize; // as the pseudo-header has it, also when it is negative
    const ULONG size = total > headerSize ? length : 0;
    switch (selector) {
    case IP_HEADER_SELECTOR:
        StoreHeaderChecksum(ip, headerSize);
        return FILTER_STATUS_SUCCESS;
    case IP_PROTOCOL_ICMP:
        StoreChecksum(ip + headerSize, size, ICMP_CHECKSUM_OFFSET, 0);
        return FILTER_STATUS_SUCCESS;
    case IP_PROTOCOL_TCP:
        StoreTransportChecksum(ip, length, size, TCP_CHECKSUM_OFFSET, IP_PROTOCOL_TCP);
        return FILTER_STATUS_SUCCESS;
    case IP_PROTOCOL_UDP:
        StoreTransportChecksum(ip, length, size, UDP_CHECKSUM_OFFSET, IP_PROTOCOL_UDP);
        return FILTER_STATUS_SUCCESS;
    default:
        return FILTER_ERROR_UNSUPPORTED_PROTOCOL;
    }
}

} // namespace

FILTER_STATUS Filter_CalculatePacketCheckSum(PVOID pIpHeader, ULONG nProtocol)
{
    return TracedCall(
        {.Name = "Filter_CalculatePacketCheckSum", .Area = TRACE_PACKET}, [&]() -> FILTER_STATUS {
            return pIpHeader == nullptr ? FILTER_ERROR_INVALID_ARGUMENT
                                        : CalculateChecksum(static_cast<UCHAR*>(pIpHeader), nProtocol);
        });
}

BOOLEAN Filter_VerifyPacketCheckSum(FilterPacket* pPacket)
{
    UCHAR* const ip = pPacket->m_pIp;
    if (ip == nullptr) {
        return TRUE;
    }
    const ULONG stored = ReadBe16(ip + IP_CHECKSUM_OFFSET);
    Filter_CalculatePacketCheckSum(ip, IP_HEADER_SELECTOR);
    if (ReadBe16(ip + IP_CHECKSUM_OFFSET) == stored) {
        return TRUE;
    }
    Trace(TRACE_PACKET, "Invalid IP checksum, pPacket=0x%p\n", pPacket);
    return FALSE;
}
