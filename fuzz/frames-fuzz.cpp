// Frames of the network: parsing, dump, clone and verification of packets, whose record ends with its last byte, and
// checksums of datagrams in buffers of exactly the bytes that the contract asks for, against RFC 1071 word by word.
#include "support/fuzz.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <vector>

using namespace fuzz;

namespace
{

constexpr uint32_t kReadableFrame = 78; // bytes that a parse may read
constexpr uint8_t kSelectors[] = {0, 1, 6, 17, 2};

uint16_t Be16(const uint8_t* at)
{
    return static_cast<uint16_t>(at[0] << 8 | at[1]);
}

// A buffer of exactly `size` bytes, so that the next one is the sanitizer's.
std::vector<uint8_t> Exactly(std::span<const uint8_t> bytes, size_t size)
{
    std::vector<uint8_t> buffer(size);
    std::copy_n(bytes.begin(), std::min(bytes.size(), size), buffer.begin());
    return buffer;
}

// -------------------------------------------------------------------------------------------------- checksums

uint32_t Sum(const std::vector<uint8_t>& bytes, size_t from, size_t size)
{
    uint32_t sum = 0;
    for (size_t i = 0; i < size; ++i) {
        sum += (i % 2 == 0) ? bytes[from + i] : bytes[from + i] << 8;
    }
    return sum;
}

uint16_t Fold(uint32_t sum)
{
    while (sum > 0xFFFF) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return static_cast<uint16_t>(~sum);
}

struct Layout {
    size_t begin, size, field; // of what is summed; the checksum's own two bytes
    bool pseudoHeader;
};

Layout LayoutOf(const uint8_t* datagram, uint8_t selector)
{
    const size_t header = 4u * (datagram[0] & 0x0F), total = Be16(datagram + 2);
    const size_t payload = total > header ? total - header : 0;
    switch (selector) {
    case 0:
        return {0, header, 10, false};
    case 1:
        return {header, payload, header + 2, false};
    case 6:
        return {header, payload, header + 16, true};
    default:
        return {header, payload, header + 6, true};
    }
}

void CheckChecksum(Input& input)
{
    const uint8_t selector = input.OneOf(kSelectors);
    const auto given = input.Take(input.Size());
    uint8_t head[20] = {};
    std::copy_n(given.begin(), std::min(given.size(), sizeof(head)), head);
    const size_t room = std::max<size_t>(given.size(), sizeof(head));
    if (Be16(head + 2) > room) { // the caller is to check this
        const size_t total = Be16(head + 2) % (room + 1);
        head[2] = static_cast<uint8_t>(total >> 8);
        head[3] = static_cast<uint8_t>(total);
    }
    const Layout layout = LayoutOf(head, selector);
    const size_t size = std::max({sizeof(head), layout.begin + layout.size, layout.field + 2});
    std::vector<uint8_t> datagram = Exactly(given, size);
    std::copy_n(head, sizeof(head), datagram.begin());

    std::vector<uint8_t> expected = datagram;
    const FILTER_STATUS status = Filter_CalculatePacketCheckSum(datagram.data(), selector);
    if (selector == 2) {
        RequireEqual(status, FILTER_ERROR_UNSUPPORTED_PROTOCOL, "the status of an unknown selector");
    } else {
        RequireEqual(status, FILTER_STATUS_SUCCESS, "the status of a checksum");
        expected[layout.field] = expected[layout.field + 1] = 0;
        uint32_t sum = Sum(expected, layout.begin, layout.size);
        if (layout.pseudoHeader) {
            const auto length = static_cast<uint16_t>(Be16(head + 2) - layout.begin + selector);
            sum += Sum(expected, 12, 8) + static_cast<uint16_t>(length << 8 | length >> 8);
        }
        const uint16_t checksum = Fold(sum);
        std::memcpy(&expected[layout.field], &checksum, sizeof(checksum));
    }
    Require(datagram == expected, "the datagram with the checksum of RFC 1071, and nothing else changed");
}

// --------------------------------------------------------------------------------------------------- packets

// Where headers are, as offsets in the frame; -1: none.
struct Headers {
    int arp = -1, ip = -1, tcp = -1, udp = -1, icmp = -1, dhcp = -1, dns = -1;
};

Headers Parse(const uint8_t* frame)
{
    Headers found;
    const uint16_t type = Be16(frame + 12);
    found.arp = type == 0x0806 ? 14 : -1;
    if (type != 0x0800) {
        return found;
    }
    found.ip = 14;
    if ((Be16(frame + 20) & 0x1FFF) != 0) {
        return found;
    }
    const int transport = 14 + 4 * (frame[14] & 0x0F);
    found.tcp = frame[23] == 6 ? transport : -1;
    found.icmp = frame[23] == 1 ? transport : -1;
    if (frame[23] == 17) {
        found.udp = transport;
        const uint16_t source = Be16(frame + transport), destination = Be16(frame + transport + 2);
        const bool dhcp = destination == 67 || destination == 68;
        found.dhcp = dhcp ? transport + 8 : -1;
        found.dns = !dhcp && (destination == 53 || source == 53) ? transport + 8 : -1;
    }
    return found;
}

void CheckHeaders(const FilterPacket& packet, const uint8_t* frame)
{
    const Headers headers = Parse(frame);
    const std::pair<const UCHAR*, int> places[] = {
        {packet.m_pArp, headers.arp}, {packet.m_pIp, headers.ip},     {packet.m_pTcp, headers.tcp},
        {packet.m_pUdp, headers.udp}, {packet.m_pIcmp, headers.icmp}, {packet.m_pDhcp, headers.dhcp},
        {packet.m_pDns, headers.dns},
    };
    Require(packet.m_pEthernet == frame, "the frame that was parsed");
    for (const auto& [pointer, offset] : places) {
        Require(pointer == (offset < 0 ? nullptr : frame + offset), "a header where it is, or none");
    }
}

// What clients do with any packet.
void Examine(FilterPacket* packet, Input& input)
{
    FilterPacket* clone = nullptr;
    Filter_DumpPacket("as it came", packet);
    RequireEqual(Filter_ClonePacket(packet, &clone), FILTER_STATUS_SUCCESS, "cloning");
    if (input.Flag()) {
        Filter_DumpPacket("clone", clone);
        Filter_VerifyPacketCheckSum(clone);
        Filter_TransferPacketData(clone);
    }
    Filter_ReleasePacket(clone);
    if (input.Flag()) {
        Filter_VerifyPacketCheckSum(packet);
        Filter_ModifyPacket(packet);
        Filter_DumpPacket("modified", packet);
    }
}

// A packet that is nobody's, with any size; its frame is in it, or lies in memory of the caller.
void CheckRecord(Input& input)
{
    const auto record = std::make_unique<FilterPacket>();
    record->m_hAdapter = hook::FindAdapter(kAddresses[0]);
    record->m_nPacketSize = input.Get<uint16_t>();
    record->m_nBytesRead = input.Get<uint16_t>();
    const bool elsewhere = input.Flag(), parsed = !input.Flag();
    const uint8_t choices[2] = {input.Byte(), input.Byte()};
    const auto frame = input.Take(sizeof(record->m_Data));
    std::vector<uint8_t> outside = Exactly(frame, kReadableFrame);
    // At the record's end there is room for the frame alone.
    std::copy(frame.begin(), frame.end(), record->m_Data);
    if (parsed) {
        Filter_InitPacketHeader(record.get(), elsewhere ? outside.data() : nullptr);
        CheckHeaders(*record, elsewhere ? outside.data() : record->m_Data);
    }
    if (!elsewhere || !parsed) {
        Input rest(choices, sizeof(choices));
        Examine(record.get(), rest);
    } else {
        Filter_DumpPacket("elsewhere", record.get());
    }
}

class Fixture : public Machine
{
  public:
    Fixture()
    {
        for (const auto& address : kAddresses) {
            Filter_SetAdapterPacketDump(address.data(), TRUE);
        }
        machine::SetDebugSink([this](std::string_view text) { printed_ += text.size(); });
        Accept();
    }

    void Run(Input input)
    {
        if (input.Flag()) {
            CheckChecksum(input);
        } else {
            CheckRecord(input);
        }
        CheckAtRest();
    }

  private:
    std::atomic<size_t> printed_ = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return RunOn<Fixture>(data, size);
}
