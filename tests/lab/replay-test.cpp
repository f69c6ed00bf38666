// What a person gets from `ndisfilter-lab replay`: numbers, captures, errors.
#include <support/captures.h>
#include <support/program.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

namespace fs = std::filesystem;
using namespace support;
using nlohmann::json;
using testing::HasSubstr;

const MacAddress kAdapterMac = {0x02, 0, 0, 0, 0, 0x0a};

Bytes Frame(bool sent, uint16_t etherType, const Bytes& payload)
{
    return sent ? EthernetFrame(etherType, payload, kPeerMac, kAdapterMac)
                : EthernetFrame(etherType, payload, kAdapterMac, kPeerMac);
}

// A datagram between adapter and peer of 10.0.0.x; ports stand where those of TCP do, too.
Bytes IpFrame(bool sent, uint8_t protocol, uint16_t peerPort, size_t payloadLength = 20, uint8_t peer = 2)
{
    const Ipv4Address own = {10, 0, 0, 1}, other = {10, 0, 0, peer};
    const Bytes datagram = sent ? UdpDatagram(40000, peerPort, Counting(payloadLength))
                                : UdpDatagram(peerPort, 40000, Counting(payloadLength));
    return Frame(
        sent, kEtherTypeIpv4,
        Ipv4Packet(protocol, datagram, {.source = sent ? own : other, .destination = sent ? other : own}));
}

class Replay : public testing::Test
{
  protected:
    std::string Path(const std::string& name) const { return directory_.File(name); }

    // Runs `replay`, or `live` when the arguments begin with it, in the temporary directory.
    ProgramResult Run(std::vector<std::string> arguments,
                      const std::function<bool()>& interruptWhen = nullptr) const
    {
        if (arguments.empty() || arguments.front() != "live") {
            arguments.insert(arguments.begin(), "replay");
        }
        return RunProgram(NDISFILTER_LAB, arguments, directory_.Path(), interruptWhen);
    }

    // The same with the JSON report, which must be a success.
    json RunJson(std::vector<std::string> arguments) const
    {
        arguments.push_back("--json");
        const ProgramResult result = Run(arguments);
        EXPECT_EQ(result.exitCode, 0) << result.errors;
        return result.Json();
    }

    const support::TemporaryDirectory directory_;
};

// Five frames sent, five received; two of port 53 each way and one of port 23.
std::vector<Bytes> SomeTraffic()
{
    return {Frame(true, kEtherTypeArp, Bytes(28)), // ARP
            Frame(false, kEtherTypeArp, Bytes(28)),
            IpFrame(true, 17, 53),
            IpFrame(false, 17, 53, 100),
            IpFrame(true, 6, 80, 1460),
            IpFrame(false, 6, 80, 1460),
            IpFrame(true, 17, 53, 0),
            IpFrame(false, 17, 53, 1),
            IpFrame(true, 6, 23),
            IpFrame(false, 6, 8023)};
}

size_t TotalBytes(const std::vector<Bytes>& frames, bool sent)
{
    size_t bytes = 0;
    for (const Bytes& frame : frames) {
        bytes +=
            std::equal(kAdapterMac.begin(), kAdapterMac.end(), frame.begin() + 6) == sent ? frame.size() : 0;
    }
    return bytes;
}

const json& FilterOf(const json& report, const std::string& chain)
{
    const json& filters = report["filters"];
    const auto found =
        std::ranges::find_if(filters, [&](const json& filter) { return filter["chain"] == chain; });
    EXPECT_NE(found, filters.end()) << filters;
    return *found;
}

TEST_F(Replay, CountsAndWritesFramesOfEachDirection)
{
    const std::vector<Bytes> frames = SomeTraffic();
    WriteCapture(Path("a.pcap"), frames);
    const json report = RunJson({"a.pcap", "--write", "out"}); // makes the directory
    std::vector<CapturedFrame> expected[2];
    for (const CapturedFrame& frame : ReadCapture(Path("a.pcap"))) {
        const bool sent = std::equal(kAdapterMac.begin(), kAdapterMac.end(), frame.bytes.begin() + 6);
        expected[sent].push_back(frame);
    }
    EXPECT_EQ(ReadCapture(Path("out/a-to-protocols.pcap")), expected[false]);
    EXPECT_EQ(ReadCapture(Path("out/a-to-adapter.pcap")), expected[true]);

    const json& adapter = report["adapters"][0];
    EXPECT_EQ(adapter["capture"], "a.pcap");
    EXPECT_EQ(adapter["mac"], "02:00:00:00:00:0a");
    for (const bool sent : {true, false}) {
        const json& flow = adapter[sent ? "sent" : "received"];
        EXPECT_EQ(flow["framesIn"], 5);
        EXPECT_EQ(flow["framesOut"], 5);
        EXPECT_EQ(flow["bytesIn"], TotalBytes(frames, sent));
        EXPECT_EQ(flow["bytesOut"], TotalBytes(frames, sent));
    }
    const json& balance = report["balance"];
    EXPECT_EQ(balance["received"], 5);
    EXPECT_EQ(balance["sent"], 5);
    EXPECT_EQ(balance["delivered"], 10);
    EXPECT_EQ(balance["stillOut"], 0);
    EXPECT_EQ(balance["holds"], true);
}

TEST_F(Replay, DirectionAndAddressAreAsTold)
{
    WriteCapture(Path("a.pcap"), SomeTraffic());
    EXPECT_EQ(RunJson({"a.pcap", "--direction", "received"})["balance"]["received"], 10);
    EXPECT_EQ(RunJson({"a.pcap", "--direction", "sent"})["balance"]["sent"], 10);
    const json report = RunJson({"a.pcap", "--mac", "02-00-00-00-00-cc"});
    EXPECT_EQ(report["adapters"][0]["mac"], "02:00:00:00:00:cc");
    EXPECT_EQ(report["balance"]["received"], 10);
}

TEST_F(Replay, BlockerBlocksPortsAndAddresses)
{
    std::vector<Bytes> frames = SomeTraffic();
    frames.push_back(IpFrame(false, 6, 80, 20, 7));
    frames.push_back(IpFrame(true, 1, 0, 20, 7));
    WriteCapture(Path("a.pcap"), frames);
    // With few bytes present the filter must fetch the headers that it looks at.
    for (const std::string present : {"1518", "40", "20", "0"}) {
        const json report =
            RunJson({"a.pcap", "--filter", "blocker", "--set", "blocker.BlockPorts=53, 23", "--set",
                     "blocker.BlockAddresses=10.0.0.7", "--present", present, "--mac", "02:00:00:00:00:0a"});
        const json& incoming = FilterOf(report, "FILTER_TYPE_INCOMING_PACKET");
        EXPECT_EQ(incoming["driver"], "blocker");
        EXPECT_EQ(incoming["name"], "blocker-incoming");
        EXPECT_EQ(incoming["process"], 6) << present;
        EXPECT_EQ(incoming["discard"], 3) << present;
        EXPECT_EQ(incoming["bypass"], 3) << present;
        const json& outgoing = FilterOf(report, "FILTER_TYPE_OUTGOING_PACKET");
        EXPECT_EQ(outgoing["process"], 6);
        EXPECT_EQ(outgoing["discard"], 4) << present;
        EXPECT_EQ(report["adapters"][0]["received"]["framesOut"], 3);
        EXPECT_EQ(report["adapters"][0]["sent"]["framesOut"], 2);
        EXPECT_EQ(report["balance"]["released"], 7);
        EXPECT_EQ(report["balance"]["delivered"], 5);
    }
}

// Frames cut at every length: none may disturb the blocker, and only those that still hold their ports are
// blocked.
TEST_F(Replay, BlockerLetsShortFramesPass)
{
    const Bytes whole = IpFrame(false, 17, 53);
    std::vector<Bytes> frames;
    for (size_t length = 0; length <= whole.size(); ++length) {
        frames.emplace_back(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
    }
    WriteCapture(Path("short.pcap"), frames);
    const size_t blocked = whole.size() + 1 - (14 + 20 + 4);
    for (const std::string present : {"1518", "16"}) {
        const json report = RunJson({"short.pcap", "--direction", "received", "--filter", "blocker", "--set",
                                     "blocker.BlockPorts=53", "--present", present});
        EXPECT_EQ(FilterOf(report, "FILTER_TYPE_INCOMING_PACKET")["discard"], blocked) << present;
        EXPECT_EQ(report["balance"]["delivered"], frames.size() - blocked) << present;
    }
}

TEST_F(Replay, BlockerRefusesNonsenseAndTellsItsCounts)
{
    WriteCapture(Path("a.pcap"), SomeTraffic());
    const ProgramResult result = Run(
        {"a.pcap", "--filter", "blocker", "--set", "blocker.BlockPorts=53,,0,65536,080,x, 53,99999999999999",
         "--set", "blocker.BlockAddresses=10.0.0,10.0.0.256,1.2.3.4.5,10.0.0.2 ", "--debug-output", "-"});
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_THAT(result.output, HasSubstr("blocker: 1 ports and 1 addresses to block"));
    for (const char* item : {"0", "65536", "080", "x", "99999999999999"}) {
        EXPECT_THAT(result.output,
                    HasSubstr("blocker: port '" + std::string(item) + "' is not valid, ignored"));
    }
    EXPECT_THAT(result.output, HasSubstr("blocker: port '53' is there already, ignored"));
    for (const char* item : {"10.0.0", "10.0.0.256", "1.2.3.4.5"}) {
        EXPECT_THAT(result.output,
                    HasSubstr("blocker: address '" + std::string(item) + "' is not valid, ignored"));
    }
    EXPECT_THAT(result.output, HasSubstr("blocker: port 53: 0 frames blocked"));
    EXPECT_THAT(result.output, HasSubstr("blocker: address 10.0.0.2: 8 frames blocked"));
}

TEST_F(Replay, SeveralWorkersCapturesAndRounds)
{
    std::vector<Bytes> frames;
    for (int i = 0; i < 1000; ++i) {
        frames.push_back(IpFrame(i % 3 == 0, 17, static_cast<uint16_t>(1000 + i % 5)));
    }
    WriteCapture(Path("a.pcap"), frames);
    WriteCapture(Path("b.pcap"), SomeTraffic());
    const json report = RunJson({"a.pcap", "b.pcap", "--threads", "2", "--repeat", "3", "--packets", "7",
                                 "--filter", "blocker", "--set", "blocker.BlockPorts=1002"});
    EXPECT_EQ(report["adapters"][0]["sent"]["framesIn"], 3 * 334);
    EXPECT_EQ(report["adapters"][0]["received"]["framesIn"], 3 * 666);
    EXPECT_EQ(report["adapters"][1]["received"]["framesOut"], 3 * 5);
    EXPECT_EQ(FilterOf(report, "FILTER_TYPE_INCOMING_PACKET")["discard"].get<int>() +
                  FilterOf(report, "FILTER_TYPE_OUTGOING_PACKET")["discard"].get<int>(),
              3 * 200);
    EXPECT_EQ(report["balance"]["released"], 3 * 200);
    EXPECT_EQ(report["balance"]["holds"], true);
}

TEST_F(Replay, TooLongFramesAreSkippedAndSaid)
{
    WriteCapture(Path("long.pcap"),
                 {IpFrame(true, 6, 80, 1518 - 42), IpFrame(true, 6, 80, 1519 - 42), IpFrame(true, 6, 80)});
    const ProgramResult result = Run({"long.pcap"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.output, HasSubstr("1 frames too long"));
    EXPECT_EQ(RunJson({"long.pcap"})["adapters"][0]["tooLong"], 1);
    EXPECT_EQ(RunJson({"long.pcap"})["balance"]["sent"], 2);
}

TEST_F(Replay, PrintsTheTableForARecordedSession)
{
    const ProgramResult result =
        Run({std::string(NDISFILTER_TEST_DATA) + "/session.pcapng", "--filter", "blocker"});
    EXPECT_EQ(result.exitCode, 0);
    for (const char* text : {"adapter", "frames/s", "blocker-incoming", "FILTER_TYPE_OUTGOING_PACKET",
                             "200 delivered", "balance", "holds"}) {
        EXPECT_THAT(result.output, HasSubstr(text));
    }
    EXPECT_THAT(result.errors, HasSubstr("02:00:00:00:00:0a"));
    EXPECT_EQ(Run({std::string(NDISFILTER_TEST_DATA) + "/session.pcap", "--quiet"}).errors, "");
}

TEST_F(Replay, TruncatedCaptureStillReportsWhatWasRead)
{
    WriteCapture(Path("a.pcap"), SomeTraffic());
    fs::resize_file(Path("a.pcap"), fs::file_size(Path("a.pcap")) - 5);
    const ProgramResult result = Run({"a.pcap", "--json", "--repeat", "2", "--quiet"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors.find("ndisfilter-lab: a.pcap: broken behind 9 frames"), 0u) << result.errors;
    EXPECT_EQ(std::ranges::count(result.errors, '\n'), 1);
    EXPECT_EQ(result.Json()["balance"]["delivered"], 9);
    EXPECT_EQ(result.Json()["exitCode"], 1);
}

TEST_F(Replay, InterruptEndsInGoodOrder)
{
    WriteCapture(Path("a.pcap"), SomeTraffic());
    const std::string written = Path("out/a-to-adapter.pcap");
    const ProgramResult result =
        Run({"a.pcap", "--repeat", "1000000000", "--write", "out", "--filter", "blocker"},
            [&] { return fs::exists(written) && fs::file_size(written) > 100'000; });
    EXPECT_EQ(result.exitCode, 130);
    EXPECT_THAT(result.errors, HasSubstr("interrupted"));
    EXPECT_THAT(result.output, HasSubstr("holds"));
    EXPECT_THAT(result.output, HasSubstr("blocker-outgoing"));
}

struct BadCall {
    std::vector<std::string> arguments; // of replay, unless they name another command
    int exitCode;
    std::string line; // what the line must hold
};

TEST_F(Replay, ErrorsAreOneLineWithNameAndValue)
{
    WriteCapture(Path("a.pcap"), SomeTraffic());
    WriteCapture(Path("raw.pcap"), {Bytes(40)}, kLinkTypeRaw);
    std::ofstream(Path("text.pcap")) << "this is no capture, it is a text";
    std::ofstream(Path("empty.pcap"));
    std::ofstream(Path("junk.so")) << "no module";
    const std::vector<BadCall> calls = {
        {{"missing.pcap"}, 1, "missing.pcap: cannot open it: No such file or directory"},
        {{"a.pcap", "missing.pcap"}, 1, "missing.pcap"},
        {{"text.pcap"}, 1, "text.pcap: not a capture"},
        {{"empty.pcap"}, 1, "empty.pcap: not a capture"},
        {{"."}, 1, "directory"},
        {{"raw.pcap"}, 1, "(RAW) is not Ethernet"},
        {{"a.pcap", "--filter", "blokcer"}, 4, "filter blokcer: no blokcer.so in "},
        {{"a.pcap", "--filter", "./junk.so"}, 4, "filter junk: cannot load the driver "},
        {{"a.pcap", "--filter", "blocker", "--filter", "blocker"}, 2, "blocker: given twice"},
        {{"a.pcap", "--set", "blocker.BlockPorts=53"}, 2, "blocker"},
        {{"a.pcap", "--set", "BlockPorts"}, 2, "--set BlockPorts: give it as DRIVER.VALUE=TEXT"},
        {{"a.pcap", "--set-dword", "NdisFilter.GlobalDebugFlag=1x"}, 2, "'1x' is not a number"},
        {{"a.pcap", "--mac", "02:00:00:00:00"}, 2, "--mac 02:00:00:00:00: not a MAC address"},
        {{"a.pcap", "--threads", "0"}, 2, "--threads"},
        {{"a.pcap", "--direction", "up"}, 2, "--direction"},
        {{"a.pcap", "--bogus"}, 2, "--bogus"},
        {{"a.pcap", "--json", "--debug-output", "-"}, 2, "--debug-output -"},
        {{"a.pcap", "--write", "a.pcap"}, 1, "a.pcap"},
        {{}, 2, "CAPTURE"},
        {{"live", "lo", "lo"}, 2, "lo: give two interfaces"},
        {{"live", "lo", "no-such-link"}, 8, "lo: not an Ethernet interface"},
        {{"live", "no-such-link", "lo"}, 8, "no-such-link: cannot look up its index: No such device"},
    };
    for (const BadCall& call : calls) {
        std::vector<std::string> arguments = call.arguments;
        arguments.push_back("--quiet");
        const ProgramResult result = Run(arguments);
        EXPECT_EQ(result.exitCode, call.exitCode) << testing::PrintToString(call.arguments);
        EXPECT_THAT(result.errors, testing::StartsWith("ndisfilter-lab: "));
        EXPECT_THAT(result.errors, HasSubstr(call.line));
        EXPECT_EQ(std::ranges::count(result.errors, '\n'), 1) << result.errors;
    }
}

} // namespace
