// Checksums in place, against recorded traffic and a sum by the letter of RFC 1071.
#include <support/captures.h>
#include <support/adapter-test.h>

using namespace support;

namespace
{

constexpr size_t kEthernet = 14;
constexpr size_t kIpChecksum = 10;

// Big-endian words, carries added at the end: the textbook's way.
uint16_t TextbookChecksum(const Bytes& bytes)
{
    uint64_t sum = 0;
    for (size_t i = 0; i < bytes.size(); ++i) {
        sum += i % 2 == 0 ? bytes[i] << 8 : bytes[i];
    }
    while (sum > 0xFFFF) {
        sum = (sum >> 16) + (sum & 0xFFFF);
    }
    return static_cast<uint16_t>(~sum);
}

uint16_t Big16(const uint8_t* bytes)
{
    return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
}

void Put(Bytes& bytes, size_t offset, uint16_t value)
{
    bytes[offset] = static_cast<uint8_t>(value >> 8);
    bytes[offset + 1] = static_cast<uint8_t>(value);
}

// The packet with its header's checksum (selector 0) or its transport's, by the textbook.
Bytes WithChecksum(Bytes packet, uint8_t selector)
{
    const size_t header = packet[0] % 16 * 4u;
    const size_t field = selector == 0              ? kIpChecksum
                         : selector == kProtocolTcp ? header + 16
                         : selector == kProtocolUdp ? header + 6
                                                    : header + 2;
    Put(packet, field, 0); // counts as zero
    const auto begin = packet.begin(), segment = begin + static_cast<ptrdiff_t>(header);
    Bytes covered;
    if (selector == 0) {
        covered.assign(begin, segment);
    } else {
        if (selector != kProtocolIcmp) { // the pseudo-header: addresses, length and protocol
            covered.assign(begin + 12, begin + 22);
            Put(covered, 8, static_cast<uint16_t>(packet.size() - header + selector));
        }
        covered.insert(covered.end(), segment, packet.end());
    }
    Put(packet, field, TextbookChecksum(covered));
    return packet;
}

using ChecksumTest = Loaded<WithTrace, 0x200>;

TEST_F(ChecksumTest, EveryLengthAndHeaderSizeAgreesWithTheTextbook)
{
    for (const auto& [protocol, minimum] :
         {std::pair<uint8_t, size_t>{kProtocolIcmp, 8}, {kProtocolTcp, 20}, {kProtocolUdp, 8}}) {
        for (size_t length = minimum; length < 1500; length += length < 140 ? 1 : 61) {
            const Bytes options = Counting(length % 11 * 4, 0xC0);
            const uint8_t first = static_cast<uint8_t>(0xF0 + 7 * length); // many carries
            Bytes packet = Ipv4Packet(protocol, Counting(length, first), {.options = options});
            Bytes expected = WithChecksum(WithChecksum(packet, protocol), 0);
            for (Bytes* misaligned : {&packet, &expected}) {
                misaligned->insert(misaligned->begin(), 0);
            }
            ASSERT_EQ(Filter_CalculatePacketCheckSum(&packet[1], protocol), FILTER_STATUS_SUCCESS);
            ASSERT_EQ(Filter_CalculatePacketCheckSum(&packet[1], 0), FILTER_STATUS_SUCCESS);
            ASSERT_EQ(packet, expected) << length;
        }
    }
}

TEST_F(ChecksumTest, TheLongestDatagramOverflowsNothing)
{
    for (const uint8_t byte : {0x00, 0x7F, 0x80, 0xFF}) {
        Bytes packet = Ipv4Packet(kProtocolTcp, Bytes(65535 - 20, byte));
        const Bytes expected = WithChecksum(packet, kProtocolTcp);
        ASSERT_EQ(Filter_CalculatePacketCheckSum(packet.data(), kProtocolTcp), FILTER_STATUS_SUCCESS);
        EXPECT_TRUE(packet == expected) << +byte;
    }
}

TEST_F(ChecksumTest, RecordedTrafficKeepsItsChecksums)
{
    size_t segments = 0;
    for (const CapturedFrame& captured : ReadCapture(NDISFILTER_TEST_DATA "/session.pcap")) {
        Bytes frame = captured.bytes;
        if (Big16(&frame[12]) != kEtherTypeIpv4) {
            continue;
        }
        uint8_t* const ip = &frame[kEthernet];
        ASSERT_EQ(Filter_CalculatePacketCheckSum(ip, 0), FILTER_STATUS_SUCCESS);
        const bool isFragment = (Big16(ip + 6) & 0x3FFF) != 0; // its segment is not all there
        const bool isSent = ip[9] != kProtocolUdp || Big16(ip + 20 + 6) != 0;
        if (!isFragment && isSent) { // a UDP checksum of zero says that there is none
            ASSERT_EQ(Filter_CalculatePacketCheckSum(ip, ip[9]), FILTER_STATUS_SUCCESS);
            ++segments;
        }
        ASSERT_EQ(frame, captured.bytes);
    }
    EXPECT_GT(segments, 10u);
}

TEST_F(ChecksumTest, TheSelectorDecidesAndUnknownOnesChangeNothing)
{
    const Bytes packet = Ipv4Packet(kProtocolTcp, TcpSegment(1, 2, 0x10, Counting(9)));
    for (const ULONG selector : {2u, 5u, 255u, 256u + 6u}) {
        Bytes copy = packet;
        EXPECT_EQ(Filter_CalculatePacketCheckSum(copy.data(), selector), FILTER_ERROR_UNSUPPORTED_PROTOCOL);
        EXPECT_EQ(copy, packet);
    }
    Bytes asUdp = packet;
    EXPECT_EQ(Filter_CalculatePacketCheckSum(asUdp.data(), kProtocolUdp), FILTER_STATUS_SUCCESS);
    EXPECT_NE(Big16(&asUdp[20 + 6]), Big16(&packet[20 + 6]));
    EXPECT_EQ(Filter_CalculatePacketCheckSum(Unwritable<uint8_t>(), 0), FILTER_ERROR_EXCEPTION);
    EXPECT_EQ(Filter_CalculatePacketCheckSum(reinterpret_cast<void*>(8), 5),
              FILTER_ERROR_EXCEPTION); // is read first
    EXPECT_TRUE(Debug().Contains("Filter_CalculatePacketCheckSum: exception, code = -1073741819\n"));
}

TEST_F(ChecksumTest, AUdpSumOfZeroStaysZero)
{
    Bytes packet = Ipv4Packet(kProtocolUdp, UdpDatagram(1, 2, {0, 0}));
    ASSERT_EQ(Filter_CalculatePacketCheckSum(packet.data(), kProtocolUdp), FILTER_STATUS_SUCCESS);
    const uint16_t checksum = Big16(&packet[26]);
    Put(packet, 28, checksum); // as payload it brings the sum to 0xFFFF
    ASSERT_EQ(Filter_CalculatePacketCheckSum(packet.data(), kProtocolUdp), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Big16(&packet[26]), 0u);
    // Nothing but zeros sums to zero in its other form, whatever stood in the field.
    Bytes zeros = Ipv4Packet(kProtocolIcmp, Bytes(48));
    Put(zeros, 22, 0x1234);
    ASSERT_EQ(Filter_CalculatePacketCheckSum(zeros.data(), kProtocolIcmp), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Big16(&zeros[22]), 0xFFFFu);
}

TEST_F(ChecksumTest, VerifyingRepairsTheHeader)
{
    FilterAdapter* adapter = AddAdapter();
    FilterPacket* packet = MakePacket(adapter, UdpFrame());
    const Bytes right(packet->m_pIp, packet->m_pIp + 20);
    EXPECT_TRUE(Filter_VerifyPacketCheckSum(packet));
    packet->m_pIp[kIpChecksum] ^= 0x40;
    EXPECT_FALSE(Filter_VerifyPacketCheckSum(packet));
    EXPECT_EQ(Bytes(packet->m_pIp, packet->m_pIp + 20), right);
    EXPECT_TRUE(Debug().Contains("Invalid IP checksum, pPacket=" + PointerText(packet) + "\n"));
    EXPECT_TRUE(Filter_VerifyPacketCheckSum(packet));
    packet->m_pIp = nullptr;
    EXPECT_TRUE(Filter_VerifyPacketCheckSum(packet));
    Filter_ReleasePacket(packet);
}

} // namespace
