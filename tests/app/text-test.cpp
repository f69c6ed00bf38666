// The parts of ndisfilterctl that need no driver: texts, and capture files.
#include "block-text.h"
#include "capture-file.h"
#include "event-text.h"
#include "ipv4.h"
#include "session.h"

#include <support/program.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <pcap/pcap.h>

namespace
{

using namespace testing;
using namespace ctl;

class CaptureFileTest : public Test
{
  protected:
    void WriteBytes(std::string_view bytes) { std::ofstream(path, std::ios::binary) << bytes; }
    static std::string Word(uint32_t value, bool bigEndian)
    {
        std::string bytes;
        for (int i = 0; i < 4; ++i) {
            bytes += static_cast<char>(value >> 8 * (bigEndian ? 3 - i : i));
        }
        return bytes;
    }
    static std::string Header(uint32_t magic, uint32_t linkType, bool bigEndian)
    {
        return Word(magic, bigEndian) + std::string(12, '\0') + Word(65535, bigEndian) +
               Word(linkType, bigEndian);
    }
    static std::string Record(const std::string& frame, bool bigEndian)
    {
        const auto size = static_cast<uint32_t>(frame.size());
        return std::string(8, '\0') + Word(size, bigEndian) + Word(size, bigEndian) + frame;
    }
    std::vector<std::string> ReadClassic() const
    {
        const std::unique_ptr<CaptureReader> reader = OpenClassicCapture(path);
        std::vector<std::string> frames;
        std::span<const uint8_t> bytes;
        while (reader->Next(bytes)) {
            frames.emplace_back(bytes.begin(), bytes.end());
        }
        return frames;
    }

    const support::TemporaryDirectory directory;
    const std::string path = directory.File("frames.pcap");
};

// What is written can be read by libpcap at any time, without closing.
TEST_F(CaptureFileTest, AStreamIsReadableWhileItGrows)
{
    using namespace std::chrono;
    CaptureStream stream(path);
    const system_clock::time_point time(seconds(1'700'000'000) + microseconds(123'456));
    const std::vector<uint8_t> frame(60, 0x5A);
    for (int count = 1; count <= 3; ++count) {
        EXPECT_TRUE(stream.Write(time, frame, 1600));
        char error[PCAP_ERRBUF_SIZE];
        pcap_t* const pcap = pcap_open_offline(path.c_str(), error);
        ASSERT_NE(pcap, nullptr) << error;
        EXPECT_EQ(pcap_datalink(pcap), DLT_EN10MB);
        pcap_pkthdr* header;
        const u_char* data;
        for (int i = 0; i < count; ++i) {
            ASSERT_EQ(pcap_next_ex(pcap, &header, &data), 1);
            EXPECT_EQ(header->caplen, 60u);
            EXPECT_EQ(header->len, 1600u);
            EXPECT_EQ(header->ts.tv_sec, 1'700'000'000);
            EXPECT_EQ(header->ts.tv_usec, 123'456);
            EXPECT_EQ(std::memcmp(data, frame.data(), frame.size()), 0);
        }
        EXPECT_EQ(pcap_next_ex(pcap, &header, &data), PCAP_ERROR_BREAK);
        pcap_close(pcap);
    }
    EXPECT_EQ(ReadClassic().size(), 3u);
    EXPECT_THROW(CaptureStream(directory.File("missing/file")), CtlError);
}

TEST_F(CaptureFileTest, TheClassicReaderTakesBothByteOrdersAndResolutions)
{
    const std::string first(60, 'a');
    const std::string second(1514, 'b');
    for (const bool bigEndian : {false, true}) {
        for (const uint32_t magic : {0xA1B2C3D4u, 0xA1B23C4Du}) {
            WriteBytes(Header(magic, 1, bigEndian) + Record(first, bigEndian) + Record(second, bigEndian));
            EXPECT_THAT(ReadClassic(), ElementsAre(first, second));
        }
    }
}

TEST_F(CaptureFileTest, TheClassicReaderRefusesWhatIsNoCaptureOfEthernetFrames)
{
    const std::string whole = Header(0xA1B2C3D4, 1, false) + Record(std::string(60, 'a'), false);
    for (const std::string& bytes :
         {std::string(), whole.substr(0, 23), Header(0x0A0D0D0A, 1, false), Header(0xA1B2C3D4, 113, false),
          whole.substr(0, 24) + std::string(8, '\0') + Word(0xFFFFFFFF, false) + Word(0, false)}) {
        WriteBytes(bytes);
        EXPECT_THROW(ReadClassic(), CtlError);
    }
    for (size_t size = 24; size <= whole.size(); ++size) {
        WriteBytes(whole.substr(0, size));
        if (size == 24 || size == whole.size()) {
            EXPECT_EQ(ReadClassic().size(), size == 24 ? 0u : 1u);
        } else {
            EXPECT_THROW(ReadClassic(), CtlError) << size;
        }
    }
    std::filesystem::remove(path);
    EXPECT_THROW(ReadClassic(), CtlError);
}

TEST(CtlTextTest, AFailureNamesTheRequestTheStatusAndWhatToDo)
{
    const std::string text =
        ExplainFailure("get the media state", "adapter 7", static_cast<int32_t>(0xC0010006));
    EXPECT_EQ(text,
              "cannot get the media state of adapter 7: NDIS_STATUS_ADAPTER_NOT_FOUND (0xC0010006): no such "
              "adapter is open; list the adapters with `ndisfilterctl adapters`");
    EXPECT_EQ(ExplainFailure("start the share", "", static_cast<int32_t>(0xDEAD0001)),
              "cannot start the share: unknown status (0xDEAD0001); see the driver's debug output");
}

TEST(CtlTextTest, EventsShowTheirHeadAndNoControlCharacters)
{
    UserEvent event = {};
    event.m_nEvent1 = 1;
    event.m_nEvent2 = 2;
    event.m_nLength = 38 + 6;
    const UserEventHead head = {0x10, 3, 0x20, 0x30, 0x40, 0x50, 0x60};
    std::memcpy(event.m_Text, &head, sizeof(head));
    std::memcpy(event.m_Text + 38, "a\x1b[\xff\nz", 6);
    EXPECT_EQ(FormatEvent(event, false),
              "event 1 2 adapter 3 values 0x10 0x20 0x30 0x40 0x50 0x60: a\\x1b[\\xff\\x0az");
    EXPECT_EQ(EventToJson(event, false)["adapter"], 3);
    EXPECT_EQ(EventToJson(event, true)["message"].get<std::string>().substr(0, 12), "\\x10\\x00\\x00");

    event.m_nLength = 5;
    std::memcpy(event.m_Text, "plain", 5);
    EXPECT_EQ(FormatEvent(event, false), "event 1 2: plain");
}

TEST(CtlTextTest, BlocksShowWhatTheyCarry)
{
    ndisfilter_block block = {};
    block.size = 1520;
    block.full_size = 1600;
    SharedBlock& frame = block.content.frame;
    frame.m_nAdapterId = 4;
    frame.m_nDirection = NDIS_FILTER_DIRECTION_TO_ADAPTER;
    frame.m_nIndicateCode = 0x1F;
    frame.m_nIndicateValue = 0x100000000;
    frame.m_Data[12] = 0x86;
    frame.m_Data[13] = 0xDD;
    frame.m_Data[6] = 0xAA;
    EXPECT_EQ(FormatBlock(block),
              "adapter 4 out 1600 bytes aa:00:00:00:00:00 > 00:00:00:00:00:00 type 0x86dd code 0x1f "
              "value 0x100000000 (cut to 1520)");
    EXPECT_EQ(BlockToJson(block)["data"].get<std::string>().size(), 3040u);
    block.size = block.full_size = 5;
    EXPECT_THAT(FormatBlock(block), HasSubstr("shorter than an Ethernet header"));
}

TEST(CtlTextTest, AddressesAreReadStrictly)
{
    EXPECT_EQ(FormatIPv4(*ParseIPv4("192.0.2.255")), "192.0.2.255");
    EXPECT_EQ(FormatIPv4(ParseIPv4Prefix("10.1.2.3/20")->mask), "255.255.240.0");
    EXPECT_EQ(FormatIPv4(ParseIPv4Prefix("10.1.2.3/0")->mask), "0.0.0.0");
    EXPECT_EQ(FormatIPv4(ParseIPv4Prefix("10.1.2.3")->mask), "255.255.255.255");
    for (const char* text : {"", "1.2.3", "1.2.3.4.5", "1.2.3.256", "1.2.3.-1", "1..2.3", "1.2.3.4 "}) {
        EXPECT_FALSE(ParseIPv4(text)) << text;
    }
    for (const char* text : {"1.2.3.4/", "1.2.3.4/33", "1.2.3.4/-1", "1.2.3/8", "1.2.3.4/8x"}) {
        EXPECT_FALSE(ParseIPv4Prefix(text)) << text;
    }
    EXPECT_EQ(FormatMac(ParseMac("02-aB:00:00:00:0f")->data()), "02:ab:00:00:00:0f");
    for (const char* text :
         {"", "02:00:00:00:00", "02:00:00:00:00:0g", "02:00:00:00:00:0f:", "020:0:00:00:00:0f"}) {
        EXPECT_FALSE(ParseMac(text)) << text;
    }
}

} // namespace
