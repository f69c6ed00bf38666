// ndisfilterctl.exe on the real drivers: command lines, and what they print.
#include "suite.h"

#include <algorithm>
#include <ctime>
#include <filesystem>

using namespace suite;

namespace
{

// The framework, both adapters open and bound, and the sample driver that answers requests and reports events.
struct Scene {
    Scene()
    {
        room.Open();
        indicator.Start();
    }

    Room room;
    Service indicator{L"indicator"};
};

// Runs a command and expects its exit code, every text (separated by '|') in what it prints, and none but these when
// the texts are "".
void Expect(const char* command, int code, const std::string& texts)
{
    SCOPED_TRACE(command);
    const std::string narrow = command;
    const Ended ended = RunProgram(L"ndisfilterctl.exe", {narrow.begin(), narrow.end()});
    EXPECT_EQ(ended.code, code) << ended.output;
    if (texts.empty()) {
        EXPECT_EQ(ended.output, "");
    }
    for (size_t begin = 0; begin < texts.size();) {
        const size_t end = std::min(texts.find('|', begin), texts.size());
        const std::string text = texts.substr(begin, end - begin);
        EXPECT_NE(ended.output.find(text), std::string::npos) << "no '" << text << "' in:\n" << ended.output;
        begin = end + 1;
    }
}

TEST(ctl, WithoutTheDriverItSaysSo)
{
    Expect("version", 3,
           "cannot open the control device \\\\.\\NdisFilter|start it with 'sc start ndisfilter'");
}

TEST(ctl, CommandsAndWhatTheyPrint)
{
    Scene scene;
    const struct {
        const char* command;
        int code;
        const char* texts;
    } cases[] = {
        {"version", 0,
         "ndisfilterctl |the driver answers\n|filter - NDIS Packet Filter Driver, Build at |indicator - "},
        {"adapters", 0,
         "   1  02:00:00:00:00:01  02:00:00:00:00:01   1500  |   2  02:00:00:00:00:02  |LoopHook adapter"},
        {"ipconfig set 2 --address 192.0.2.10/24 --router 192.0.2.1", 0, ""},
        {"ipconfig get 02:00:00:00:00:02", 0,
         "address    192.0.2.10 netmask 255.255.255.0 broadcast 192.0.2.255\n|router     192.0.2.1\n"},
        {"media get 02:00:00:00:00:09", 1, "NDIS_STATUS_ADAPTER_NOT_FOUND (0xC0010006)"},
        {"diag indicator port 4711", 0, "port 4711\n"},
        {"events", 0, "port 4711 is indicated"},
        {"diag filter show info", 0, "- m_pDeviceObject = 0x|NdisFilter\n|- m_bSymbolicLinkCreated = TRUE\n"},
        {"diag nobody", 5, "was answered with nothing"},
    };
    for (const auto& test : cases) {
        Expect(test.command, test.code, test.texts);
    }
}

TEST(ctl, CommandsWhoseEffectTheDebugOutputShows)
{
    Scene scene;
    const DebugOutput output;
    Expect("state", 0, "the driver has printed its state");
    EXPECT_TRUE(output.Shows("====> Dump NdisFilter Device Extension ====\n"));
    scene.room.filter.SetNumber(L"GlobalDebugFlag", 0x500);
    Expect("debugflag reload", 0, "");
    EXPECT_TRUE(output.Shows("GlobalDebugFlag success, Value = 0x500"));
    Expect("dump on 1", 0, "");
    scene.room.Receive(UdpFrame(0, 80));
    EXPECT_TRUE(output.Shows(" - UDP SrcPort 12345, DstPort 80\n"));
}

TEST(ctl, CaptureFilesHoldWhatPassed)
{
    Scene scene;
    const std::wstring path = L"C:\\Adapter(02-00-00-00-00-01)NdisUpper.eth"; // what the protocols saw
    std::filesystem::remove(path);
    const auto size = [&] { return std::filesystem::file_size(path); };
    Expect("capture start", 0,
           "C:\\Adapter(02-00-00-00-00-01)NdisUpper.eth\n|C:\\Driver-to-Application-Io.eth\n");
    constexpr size_t kFile = 24, kRecord = 16; // headers of libpcap 2.4
    const LoopFrame frame = UdpFrame(0, 80);
    const time_t before = time(nullptr);
    EXPECT_TRUE(Eventually([&] { // the log takes frames some time behind the request
        scene.room.Receive(frame);
        return size() > kFile;
    }));
    Expect("capture stop", 0, "(02-00-00-00-00-01)NdisUpper.eth  ");

    std::string file;
    ASSERT_TRUE(
        Eventually([&] { return (file = ReadWhole(path)).size() == size(); })); // readable when it is closed
    const auto* header = reinterpret_cast<const uint32_t*>(file.data());
    EXPECT_EQ(header[0], 0xA1B2C3D4u);
    EXPECT_GE(header[6] + 1, before); // the clock of the kernel ticks
    EXPECT_LE(header[6], time(nullptr));
    EXPECT_EQ(header[8], frame.length);
    EXPECT_EQ(header[9], frame.length);
    EXPECT_EQ(memcmp(file.data() + kFile + kRecord, frame.bytes, frame.length), 0);
    EXPECT_EQ((file.size() - kFile) % (kRecord + frame.length), 0u);
}

} // namespace
