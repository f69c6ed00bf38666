// ndisfilterctl as a person uses it, on a lab that serves.
#include "lab-server.h"

#include <support/captures.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <sstream>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;
using support::CapturedFrame;
using support::ProgramResult;
using testing::ContainsRegex;
using testing::HasSubstr;

const std::string kClassicCapture = NDISFILTER_TEST_DATA "/session.pcap";

std::vector<std::string> Words(const std::string& line)
{
    std::istringstream stream(line);
    return {std::istream_iterator<std::string>(stream), {}};
}

bool IsJson(const std::string& text)
{
    return nlohmann::json::accept(text);
}

// A command line, CAPTURE standing for the recorded one; the exit code, and regular expressions of what is printed.
struct Command {
    const char* line;
    int exitCode = 0;
    const char* output = "^$";
    const char* errors = "^$";
};

TEST(Ctl, EveryCommandSaysWhatItDid)
{
    const LabServer lab({"--adapter", "lan0=02:00:00:00:00:0a", "--filter", "indicator"});
    const char* const kNoAdapter = "no such adapter; .*`ndisfilterctl adapters`";
    const Command commands[] = {
        {"version", 0, "^ndisfilterctl [0-9.]+\nthe driver answers\nfilter - .*Build at .*\nindicator - "},
        {"version --json", 0, "\"driver_answered\": true"},
        {"--version", 0, "^ndisfilterctl [0-9.]+\n$"},
        {"--help", 0, "Examples:\n(.|\n)*Exit codes:\n  0 "},
        {"watch --help", 0, "watch --write - . tshark -r -\n"},
        {"adapters", 0, "id  current address .*\n   1  02:00:00:00:00:0a .* lan0\n$"},
        {"adapters --json", 0, "\"name\": \"lan0\""},
        {"ipconfig get lan0", 0, "^adapter 1\n  no addresses\n$"},
        {"ipconfig set 1 --address 192.0.2.10/24 --router 192.0.2.1 --dns 192.0.2.53 --dns 192.0.2.54 --dhcp "
         "192.0.2.2 --wins 192.0.2.3"},
        {"ipconfig get 02-00-00-00-00-0A", 0,
         "^adapter 1\n  address    192.0.2.10 netmask 255.255.255.0 broadcast 192.0.2.255\n  router     "
         "192.0.2.1\n"
         "  dhcp       192.0.2.2\n  dns        192.0.2.53\n  dns        192.0.2.54\n  wins       "
         "192.0.2.3\n$"},
        {"ipconfig get lan0 --json", 0, "\"dns_servers\": ..[^]]*192.0.2.54"},
        {"ipconfig get 99", 1, "^$",
         "cannot get the IP configuration of adapter 99: STATUS_INVALID_PARAMETER .0xC000000D"},
        {"ipconfig set lan0 --address 192.0.2.10/33", 2, "^$",
         "--address 192.0.2.10/33: not .* prefix length"},
        {"ipconfig get wlan0", 2, "^$", kNoAdapter},
        {"ipconfig get 02:00:00:00:00:99", 2, "^$", kNoAdapter},
        {"ipconfig", 2, "^$", "a command is missing; see `ndisfilterctl ipconfig --help`"},
        {"media set lan0 1"},
        {"media get 1", 0, "^1\n$"},
        {"media set 1 0"},
        {"media get lan0 --json", 0, "\"state\": 0"},
        {"media get 02:00:00:00:00:99", 1, "^$", "NDIS_STATUS_ADAPTER_NOT_FOUND .0xC0010006"},
        {"media set lan0 256", 2, "^$", "256 not in range 0 to 255"},
        {"dump on lan0"},
        {"dump show 1 --json", 0, "\"dump\": true"},
        {"dump off lan0"},
        {"dump show lan0", 0, "^off\n$"},
        {"congestion 77"},
        {"congestion 4294967296", 2, "^$", "see `ndisfilterctl congestion --help`"},
        {"debugflag reload"},
        {"state", 0, "^$", "has printed its state"},
        {"diag filter show adapter", 0, "m_szAdapterName = lan0"},
        {"diag indicator port 53 --json", 0, "\"text\": \"port 53..\""},
        {"diag nobody", 5, "^$", "`nobody` was answered with nothing"},
        {"diag", 2, "^$", "WORDS is required"},
        {"events --json", 0, "^.\"event1\":1,\"event2\":53,.*\"message\":\"port 53 is indicated\"}\n$"},
        {"events", 0, "^$"},
        {"diag indicator port 0", 0, "^port 0\n$"},
        {"events clear"},
        {"events", 0, "^$"},
        {"inject CAPTURE --adapter lan0 --direction in", 0, "^257 frames sent\n$"},
        {"inject CAPTURE --adapter 1 --direction out --json", 0, "\"sent\": 257"},
        {"inject CAPTURE --adapter 02:00:00:00:00:0a --direction loop --repeat 2", 0,
         "^514 frames sent, 514 came back unchanged\n$"},
        {"inject CAPTURE --adapter 99 --direction in", 1, "^$", "cannot send on adapter 99: .*0xC000000D"},
        {"inject missing.pcap --adapter 1 --direction in", 4, "^$", "missing.pcap: No such file"},
        {"inject CAPTURE --adapter 1 --direction up", 2, "^$", "--direction: up not in .in,out,loop"},
        {"inject --adapter 1 --direction in", 2, "^$", "CAPTURE is required"},
        {"watch --seconds 0.01", 0, "^$", "watching.*\n.* 0 frames, 0 signals\n$"},
        {"watch --seconds 0", 2, "^$", "--seconds: 0 is no time above 0"},
        {"watch --count 0", 2, "^$", "--count: .* not in range"},
        {"watch --write - --json", 2, "^$", "--write -: standard output is taken"},
        {"watch --write no/such/file", 4, "^$", "no/such/file: cannot be written: No such file"},
        {"capture stop", 0,
         "^C:.Adapter.02-00-00-00-00-0A.NdisUpper.eth\n[^\n]*NdisLower.eth\n[^\n]*NdisInject.eth\n"
         "C:.Application-to-Driver-Io.eth\nC:.Driver-to-Application-Io.eth\n$"},
        {"frobnicate", 2, "^$", "frobnicate: no such command; see `ndisfilterctl --help`"},
        {"version --bogus", 2, "^$", "--bogus"},
    };
    for (const Command& command : commands) {
        SCOPED_TRACE(command.line);
        std::vector<std::string> words = Words(command.line);
        std::ranges::replace(words, "CAPTURE", kClassicCapture);
        const bool wantsJson = std::ranges::count(words, "--json") > 0;
        const ProgramResult result = lab.Ctl(std::move(words));
        EXPECT_EQ(result.exitCode, command.exitCode);
        EXPECT_THAT(result.output, ContainsRegex(command.output));
        EXPECT_THAT(result.errors, ContainsRegex(command.errors));
        if (command.exitCode != 0) {
            EXPECT_THAT(result.errors, ContainsRegex("^ndisfilterctl: [^\n]*\n$"));
        } else if (wantsJson) {
            EXPECT_TRUE(IsJson(result.output)) << result.output;
        }
    }
    const ProgramResult nobody = lab.Shell(NDISFILTERCTL " --device no/such/socket version");
    EXPECT_EQ(nobody.exitCode, 3);
    EXPECT_THAT(nobody.errors,
                HasSubstr("no/such/socket: no lab is running there; start `ndisfilter-lab serve`"));
}

TEST(Ctl, WhatGoesOnEndsByItselfOrWithCtrlC)
{
    const LabServer lab(kTraffic);
    const auto hasPrinted = [&] { return fs::file_size(lab.CtlDirectory() + "/stdout") > 0; };

    ProgramResult result = lab.Ctl({"watch", "--quiet"}, hasPrinted);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.output,
                ContainsRegex("adapter 1 (in|out) [0-9]+ bytes 02:00:00:00:00:0[ab] > .* code 0x"));
    EXPECT_EQ(result.errors, "");

    result = lab.Ctl({"watch", "--json", "--count", "3", "--adapter", "session", "--quiet"});
    EXPECT_EQ(result.exitCode, 0);
    std::istringstream lines(result.output);
    int objects = 0;
    for (std::string line; std::getline(lines, line); ++objects) {
        EXPECT_TRUE(IsJson(line)) << line;
    }
    EXPECT_EQ(objects, 3);

    EXPECT_EQ(lab.Ctl({"diag", "indicator", "port", "53"}).exitCode, 0);
    result = lab.Ctl({"events", "--follow"}, hasPrinted);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.output, HasSubstr("port 53 is indicated\n"));

    // The reader of a pipe has gone: nothing to complain of.
    EXPECT_EQ(lab.Ctl({"diag", "indicator", "port", "0"}).exitCode, 0);
    result = lab.Shell("$ctl watch --quiet | head -n 1");
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.errors, "");

    // Only one program has the share.
    const auto device = lab.Open();
    int32_t status = 0;
    ASSERT_NE(device->StartShare(1, &status), nullptr);
    result = lab.Ctl({"watch"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.errors,
                HasSubstr("STATUS_SHARING_VIOLATION (0xC0000043): another program has the share"));
}

TEST(Ctl, CompletionOffersCommandsThatThereAre)
{
    const LabServer lab(kOneAdapter);
    const ProgramResult result =
        lab.Shell("source " NDISFILTER_TEST_DATA "/../../app/ctl/completion/ndisfilterctl.bash\n"
                  "COMP_WORDS=(ndisfilterctl '') COMP_CWORD=1 && _ndisfilterctl\n"
                  "for word in \"${COMPREPLY[@]}\"; do\n"
                  "    [[ $word == -* ]] || $ctl \"$word\" --help | grep Usage\n"
                  "done");
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_EQ(std::ranges::count(result.output, '\n'), 13) << result.output;
}

TEST(Ctl, ABrokenCaptureIsSentAsFarAsItGoes)
{
    const LabServer lab(kOneAdapter);
    const ProgramResult result =
        lab.Shell("head -c 5000 " + kClassicCapture + " | $ctl inject - --adapter lan0 --direction out");
    EXPECT_EQ(result.exitCode, 4);
    EXPECT_THAT(result.output, ContainsRegex("^[1-9][0-9]* frames sent\n$"));
    EXPECT_THAT(result.errors, HasSubstr("only the frames before that were sent\n"));
}

// --------------------------------------------------------------------------------------------------- the driver's logs

int64_t NowInMicroseconds()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::vector<support::Bytes> FramesOf(const std::vector<CapturedFrame>& captured)
{
    std::vector<support::Bytes> frames;
    std::ranges::transform(captured, std::back_inserter(frames), &CapturedFrame::bytes);
    return frames;
}

// Starts the logs of a lab before its replay begins: the lab reads a pipe.
TEST(CaptureLogs, HoldAReplayWholeAndInOrderForAnyViewer)
{
    const support::TemporaryDirectory directory;
    const std::string driveC = directory.File("c");
    const support::Bytes capture = support::ReadFile(kClassicCapture);
    constexpr size_t kHeader = 24; // of a capture file
    const std::string pipeName = directory.File("pipe.pcap");
    ASSERT_EQ(mkfifo(pipeName.c_str(), 0600), 0);
    const int pipe = open(pipeName.c_str(), O_RDWR | O_CLOEXEC); // opens without the lab
    ASSERT_EQ(write(pipe, capture.data(), kHeader), static_cast<ssize_t>(kHeader));
    LabServer lab({pipeName, "--mac", "02:00:00:00:00:0a", "--filter", "indicator", "--set-dword",
                   "indicator.SignalEvery=0", "--drive-c", driveC});
    EXPECT_EQ(lab.Ctl({"capture", "start", "--drive-c", driveC}).exitCode, 0);

    // That a log is live shows when a frame is in it, which is sent from here.
    struct Log {
        std::string file;
        const char* direction;
    };
    const Log logs[] = {{driveC + "/Adapter(02-00-00-00-00-0A)NdisUpper.eth", "in"},
                        {driveC + "/Adapter(02-00-00-00-00-0A)NdisLower.eth", "out"},
                        {driveC + "/Driver-to-Application-Io.eth", "loop"}};
    const support::Bytes marker(60, 0xEE);
    support::WriteCapture(directory.File("marker.pcap"), {marker});
    const auto framesSoFar = [&](const std::string& log) {
        std::string error;
        return support::ParseCapture(support::ReadFile(log), &error);
    };
    for (const Log& log : logs) {
        EXPECT_TRUE(Eventually([&] {
            const auto result = lab.Ctl(
                {"inject", directory.File("marker.pcap"), "--adapter", "1", "--direction", log.direction});
            EXPECT_EQ(result.exitCode, 0) << result.errors;
            return !framesSoFar(log.file).empty();
        }));
    }

    const int64_t start = NowInMicroseconds();
    ASSERT_EQ(write(pipe, capture.data() + kHeader, capture.size() - kHeader),
              static_cast<ssize_t>(capture.size() - kHeader));
    close(pipe);
    EXPECT_TRUE(Eventually([&] { return lab.HasSaid("the captures are through"); }));
    const std::vector<support::Bytes> passed = FramesOf(support::ReadCapture(kClassicCapture));
    for (const Log& log : logs) { // until the last clone has come back
        EXPECT_TRUE(Eventually([&] {
            auto frames = FramesOf(framesSoFar(log.file));
            std::erase(frames, marker);
            return frames.size() >= passed.size();
        }));
    }
    EXPECT_EQ(lab.Ctl({"capture", "stop", "--drive-c", driveC}).exitCode, 0);
    EXPECT_EQ(lab.Stop()["balance"]["stranded"], 0);

    for (const auto& [file, direction] : logs) {
        SCOPED_TRACE(file);
        std::vector<CapturedFrame> captured = support::ReadCapture(file);
        const std::string count = std::to_string(captured.size());
        std::erase_if(captured, [&](const CapturedFrame& frame) { return frame.bytes == marker; });
        EXPECT_EQ(FramesOf(captured), passed);
        EXPECT_TRUE(std::ranges::is_sorted(captured, {}, &CapturedFrame::microseconds));
        EXPECT_GE(captured.front().microseconds, start - 1'000'000);
        EXPECT_LE(captured.back().microseconds, NowInMicroseconds());
        ProgramResult result = support::RunProgram("tcpdump", {"-nqr", file}, directory.Path());
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_THAT(result.errors, ContainsRegex("^reading from file [^\n]*\n$"));
        result = support::RunProgram("capinfos", {"-Mco", file}, directory.Path());
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.errors, "");
        EXPECT_THAT(result.output, ContainsRegex("Number of packets: +" + count + "\n.*order: +True"));
        result = support::RunProgram("tshark", {"-nr", file, "-T", "fields", "-e", "frame.number"},
                                     directory.Path());
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_THAT(result.errors, ContainsRegex("^(Running as user[^\n]*\n)?$"));
        EXPECT_TRUE(result.output.ends_with("\n" + count + "\n")) << result.output;
    }
}

TEST(Ctl, AViewerReadsWhatIsWatchedFromAPipe)
{
    const LabServer lab(kTraffic);
    const ProgramResult result =
        lab.Shell("$ctl watch --write - --quiet | tshark -nr - -c 50 -T fields -e frame.number");
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_EQ(std::ranges::count(result.output, '\n'), 50);
}

} // namespace
