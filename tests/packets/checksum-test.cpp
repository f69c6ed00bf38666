// Checksums in place, against published examples, recorded traffic and a sum by the letter of RFC 1071.
#include <support/captures.h>
#include <support/packet.h>

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

struct Transport {
    uint8_t protocol;
    size_t minimum;        // bytes of its header
    size_t checksumOffset; // in it
};
constexpr Transport kTransports[] = {{kProtocolIcmp, 8, 2}, {kProtocolTcp, 20, 16}, {kProtocolUdp, 8, 6}};

// What goes into the checksum of a segment.
Bytes Summed(const Transport& transport, const Bytes& packet, size_t headerSize)
{
    Bytes bytes;
    const size_t length = packet.size() - headerSize;
    if (transport.protocol != kProtocolIcmp) {
        bytes.assign(packet.begin() + 12, packet.begin() + 20);
        bytes.insert(bytes.end(), {0, transport.protocol, static_cast<uint8_t>(length >> 8),
                                   static_cast<uint8_t>(length)});
    }
    bytes.insert(bytes.end(), packet.begin() + static_cast<ptrdiff_t>(headerSize), packet.end());
    return bytes;
}

class ChecksumTest : public FrameworkTest
{
  protected:
    ChecksumTest() : FrameworkTest(WithTrace(0x200)) {}
};

TEST_F(ChecksumTest, EveryLengthAndHeaderSizeAgreesWithTheTextbook)
{
    for (const size_t optionWords : {0u, 1u, 10u}) {
        const size_t headerSize = 20 + 4 * optionWords;
        for (const Transport& transport : kTransports) {
            for (size_t length = transport.minimum; length < 140; ++length) {
                const uint8_t first = static_cast<uint8_t>(0xF0 + 7 * length); // many carries
                Bytes packet = Ipv4Packet(transport.protocol, Counting(length, first),
                                          {.options = Counting(4 * optionWords, 0xC0)});
                const size_t field = headerSize + transport.checksumOffset;
                Bytes expected = packet;
                Put(expected, kIpChecksum, 0);
                Put(expected, kIpChecksum,
                    TextbookChecksum(Bytes(expected.begin(), expected.begin() + headerSize)));
                Put(expected, field, 0);
                Put(expected, field, TextbookChecksum(Summed(transport, expected, headerSize)));

                Bytes misaligned(1 + packet.size());
                std::copy(packet.begin(), packet.end(), misaligned.begin() + 1);
                ASSERT_EQ(Filter_CalculatePacketCheckSum(&misaligned[1], transport.protocol),
                          FILTER_STATUS_SUCCESS);
                ASSERT_EQ(Filter_CalculatePacketCheckSum(&misaligned[1], 0), FILTER_STATUS_SUCCESS);
                ASSERT_EQ(Bytes(misaligned.begin() + 1, misaligned.end()), expected) << length;
            }
        }
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
    EXPECT_TRUE(Debug().Contains("Enter Filter_CalculatePacketCheckSum\n  Error: -43 - "
                                 "FILTER_ERROR_UNSUPPORTED_PROTOCOL\nLeave Filter_CalculatePacketCheckSum, "
                                 "-43-FILTER_ERROR_UNSUPPORTED_PROTOCOL\n"));
    Bytes asUdp = packet;
    EXPECT_EQ(Filter_CalculatePacketCheckSum(asUdp.data(), kProtocolUdp), FILTER_STATUS_SUCCESS);
    EXPECT_NE(Big16(&asUdp[20 + 6]), Big16(&packet[20 + 6]));
    EXPECT_EQ(Filter_CalculatePacketCheckSum(nullptr, 0), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Filter_CalculatePacketCheckSum(Unwritable<uint8_t>(), 0), FILTER_ERROR_EXCEPTION);
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
}

TEST_F(ChecksumTest, ATotalLengthBelowTheHeadersReachesNoFurther)
{
    // The block ends behind the TCP header, so that a sum over more bytes is caught by the address sanitizer.
    auto packet = std::make_unique<std::array<uint8_t, 40>>();
    (*packet)[0] = 0x45;
    for (const uint8_t total : {0, 1, 19, 20}) {
        (*packet)[3] = total;
        EXPECT_EQ(Filter_CalculatePacketCheckSum(packet->data(), kProtocolTcp), FILTER_STATUS_SUCCESS);
        // Addresses are zero: only the pseudo-header's length and protocol are left.
        const uint16_t word = static_cast<uint16_t>(total - 20 + kProtocolTcp);
        EXPECT_EQ(Big16(&(*packet)[36]), static_cast<uint16_t>(~word));
    }
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
