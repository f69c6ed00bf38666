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

// Eight words, which every x86-64 processor works on at once and the kernel lets drivers use.
typedef SHORT Words __attribute__((vector_size(16)));
typedef ULONG Lanes __attribute__((vector_size(16)));
constexpr ULONG ROUND_SIZE = 4 * sizeof(Words);

template <class Word>
Word Load(const UCHAR* p)
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

// Adds neighbouring words up in lanes of 32 bits. The instruction takes words as signed: each comes in less by 0x8000,
// which the caller adds again.
Lanes AddPairs(const UCHAR* p)
{
    constexpr SHORT LESS = -0x8000;
    constexpr Words less = {LESS, LESS, LESS, LESS, LESS, LESS, LESS, LESS};
    constexpr Words one = {1, 1, 1, 1, 1, 1, 1, 1};
    return reinterpret_cast<Lanes>(__builtin_ia32_pmaddwd128(Load<Words>(p) ^ less, one));
}

// The sum of whole rounds of words, without carries: a datagram has fewer than 32,768 of them.
__attribute__((always_inline)) inline ULONG AddRounds(const UCHAR* p, ULONG size)
{
    Lanes even = {};
    Lanes odd = {};
    const UCHAR* const end = p + size;
    do {
        even += AddPairs(p);
        odd += AddPairs(p + sizeof(Words));
        even += AddPairs(p + 2 * sizeof(Words));
        odd += AddPairs(p + 3 * sizeof(Words));
        p += ROUND_SIZE;
    } while (p != end);
    even += odd;
    even += __builtin_shufflevector(even, even, 2, 3, 0, 1);
    even += __builtin_shufflevector(even, even, 1, 0, 3, 2);
    return even[0] + size / static_cast<ULONG>(sizeof(USHORT)) * 0x8000;
}

// A one's-complement sum of 16-bit little-endian words (RFC 1071, which shows that neither their byte order nor the
// width they are added in matters). An odd last byte counts as a word whose other byte is zero. The sum is 0 only if
// all words are. Inlined, so that a constant size gives straight code.
__attribute__((always_inline)) inline ULONGLONG AddWords(ULONGLONG sum, const UCHAR* p, ULONG size)
{
    if (size >= ROUND_SIZE) {
        const ULONG rounds = size & ~(ROUND_SIZE - 1);
        sum = AddWithCarry(sum, AddRounds(p, rounds));
        p += rounds;
        size -= rounds;
    }
    for (; size >= WORD_SIZE; p += WORD_SIZE, size -= WORD_SIZE) {
        sum = AddWithCarry(sum, Load<ULONGLONG>(p));
    }
    if ((size & 7) == 0) {
        return sum;
    }
    ULONGLONG rest = 0; // cannot carry: at most 7 bytes
    if ((size & sizeof(ULONG)) != 0) {
        rest = Load<ULONG>(p);
        p += sizeof(ULONG);
    }
    if ((size & sizeof(USHORT)) != 0) {
        rest += Load<USHORT>(p);
        p += sizeof(USHORT);
    }
    if ((size & 1) != 0) {
        rest += *p;
    }
    return AddWithCarry(sum, rest);
}

// The checksum of a sum. A result of zero stays zero, for UDP, too. Adding a word to itself with the halves exchanged
// leaves in the upper half their sum with the carry in.
USHORT Fold(ULONGLONG sum)
{
    const ULONG half = static_cast<ULONG>((sum + (sum << 32 | sum >> 32)) >> 32);
    return static_cast<USHORT>(~((half + (half << 16 | half >> 16)) >> 16));
}

// The checksum of `size` bytes, in which the field counts as zero, and of `seed`. `field` is even. The field is left
// out instead of zeroed first: wide loads that overlap a store just made would wait for it.
__attribute__((noinline)) USHORT ChecksumInParts(const UCHAR* p, ULONG size, ULONG field, ULONGLONG seed)
{
    const ULONG behind = field + sizeof(USHORT);
    return Fold(size < behind ? AddWords(seed, p, size < field ? size : field)
                              : AddWords(AddWords(seed, p, field), p + behind, size - behind));
}

// The same in one piece where it can be: the field is added, too, and then its complement. Together they are 0xFFFF, the
// other form of zero in one's complement, which changes the sum only where all else is zero: that goes the other way.
__attribute__((always_inline)) inline USHORT Checksum(const UCHAR* p, ULONG size, ULONG field, ULONGLONG seed)
{
    if (__builtin_expect(size >= field + sizeof(USHORT), 1)) {
        const USHORT complement = static_cast<USHORT>(~Load<USHORT>(p + field));
        const USHORT checksum = Fold(AddWords(AddWithCarry(seed, complement), p, size));
        if (__builtin_expect(checksum != 0, 1)) {
            return checksum;
        }
    }
    return ChecksumInParts(p, size, field, seed);
}

VOID Store(UCHAR* field, USHORT checksum)
{
    RtlCopyMemory(field, &checksum, sizeof(checksum));
}

// The lengths of a datagram, as its header has them.
struct Extent {
    explicit Extent(const UCHAR* ip)
        : HeaderSize(IpHeaderSize(ip)), Length(ReadBe16(ip + IP_TOTAL_LENGTH_OFFSET) - HeaderSize)
    {}
    ULONG Size() const { return static_cast<LONG>(Length) < 0 ? 0 : Length; }
    ULONG HeaderSize;
    ULONG Length; // of what follows the header; the pseudo-header has it also when it is negative
};

// With the pseudo-header of TCP and UDP: both addresses, and one word with length and protocol.
template <ULONG FIELD, ULONG PROTOCOL>
VOID StoreTransportChecksum(PVOID datagram)
{
    UCHAR* const ip = static_cast<UCHAR*>(datagram);
    const Extent extent(ip);
    UCHAR* const transport = ip + extent.HeaderSize;
    if (__builtin_expect(extent.HeaderSize < IP_HEADER_SIZE, 0)) {
        // The field may lie in the addresses, and counts as zero there, too.
        RtlZeroMemory(transport + FIELD, sizeof(USHORT));
    }
    static_assert(IP_ADDRESSES_SIZE == WORD_SIZE);
    const USHORT word = __builtin_bswap16(static_cast<USHORT>(extent.Length + PROTOCOL));
    const ULONGLONG pseudo = AddWithCarry(Load<ULONGLONG>(ip + IP_SOURCE_OFFSET), word);
    Store(transport + FIELD, Checksum(transport, extent.Size(), FIELD, pseudo));
}

VOID StoreIcmpChecksum(PVOID datagram)
{
    const Extent extent(static_cast<UCHAR*>(datagram));
    UCHAR* const icmp = static_cast<UCHAR*>(datagram) + extent.HeaderSize;
    Store(icmp + ICMP_CHECKSUM_OFFSET, Checksum(icmp, extent.Size(), ICMP_CHECKSUM_OFFSET, 0));
}

VOID StoreHeaderChecksum(PVOID datagram)
{
    UCHAR* const ip = static_cast<UCHAR*>(datagram);
    const ULONG size = IpHeaderSize(ip);
    if (__builtin_expect(size == IP_HEADER_SIZE, 1)) {
        static_assert(IP_CHECKSUM_OFFSET == WORD_SIZE + sizeof(USHORT));
        const ULONGLONG around = AddWithCarry(Load<ULONGLONG>(ip), Load<ULONGLONG>(ip + IP_SOURCE_OFFSET));
        Store(ip + IP_CHECKSUM_OFFSET, Fold(AddWithCarry(around, Load<USHORT>(ip + WORD_SIZE))));
    } else {
        Store(ip + IP_CHECKSUM_OFFSET, Checksum(ip, size, IP_CHECKSUM_OFFSET, 0));
    }
}

// What a call with an unknown selector does: a datagram that cannot be read is told first.
VOID ReadExtent(PVOID datagram)
{
    const volatile UCHAR* const ip = static_cast<UCHAR*>(datagram);
    static_cast<VOID>(ip[0]);
    static_cast<VOID>(ip[IP_TOTAL_LENGTH_OFFSET]);
    static_cast<VOID>(ip[IP_TOTAL_LENGTH_OFFSET + 1]);
}

VOID (*RoutineFor(ULONG selector))(PVOID)
{
    switch (selector) {
    case IP_HEADER_SELECTOR:
        return StoreHeaderChecksum;
    case IP_PROTOCOL_ICMP:
        return StoreIcmpChecksum;
    case IP_PROTOCOL_TCP:
        return StoreTransportChecksum<TCP_CHECKSUM_OFFSET, IP_PROTOCOL_TCP>;
    case IP_PROTOCOL_UDP:
        return StoreTransportChecksum<UDP_CHECKSUM_OFFSET, IP_PROTOCOL_UDP>;
    default:
        return ReadExtent;
    }
}

// In a guard that needs nothing but the datagram: the routines are short enough for anything else to show.
FILTER_STATUS CalculateChecksum(PVOID ip, ULONG selector)
{
    if (__builtin_expect(ip == nullptr, 0)) {
        return FILTER_ERROR_INVALID_ARGUMENT;
    }
    const auto routine = RoutineFor(selector);
    const NTSTATUS code = CallGuarded(routine, ip);
    if (__builtin_expect(code != 0, 0)) {
        return ExceptionStatus("Filter_CalculatePacketCheckSum", code);
    }
    return routine != ReadExtent ? FILTER_STATUS_SUCCESS : FILTER_ERROR_UNSUPPORTED_PROTOCOL;
}

} // namespace

FILTER_STATUS Filter_CalculatePacketCheckSum(PVOID pIpHeader, ULONG nProtocol)
{
    static constexpr CallTrace trace{.Name = "Filter_CalculatePacketCheckSum", .Area = TRACE_PACKET};
    if (TraceEnabled(TRACE_PACKET)) {
        PrintEnter(trace);
    }
    const FILTER_STATUS status = CalculateChecksum(pIpHeader, nProtocol);
    if (TraceEnabled(TRACE_PACKET)) {
        PrintLeave(trace, status);
    }
    return status;
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
