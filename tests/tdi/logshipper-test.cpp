// The log shipper in the lab, with a log server of an ordinary program.
#include "tdi-test.h"

#include "support/program.h"

#include <algorithm>
#include <thread>

namespace
{

std::string RunLab(uint16_t port, bool stream, const std::string& more = "")
{
    const support::TemporaryDirectory directory;
    const std::string command =
        NDISFILTER_LAB " replay " NDISFILTER_TEST_DATA "/session.pcapng --sockets --quiet --debug-output - "
                       "--filter logshipper --set-dword logshipper.LogPort=" +
        std::to_string(port) + " --set-dword logshipper.LogStream=" + std::to_string(stream) + more + " 2>&1";
    const support::ProgramResult result = support::RunProgram("bash", {"-c", command}, directory.Path());
    return result.output + "exit code " + std::to_string(result.exitCode);
}

TEST(LogShipperTest, ShipsALineForEachEventBothWays)
{
    std::ptrdiff_t lines[2] = {};
    for (const bool stream : {false, true}) {
        const HostSocket server(stream ? SOCK_STREAM : SOCK_DGRAM);
        std::string output;
        std::thread lab([&] { output = RunLab(server.Port(), stream); });
        std::string log;
        if (stream) {
            const HostSocket connection(server);
            for (std::string part; (part = connection.Receive()) != "<end>" && part != "<reset>";) {
                log += part;
            }
        }
        lab.join();
        // The datagrams wait in the socket.
        while (!stream && server.HasMore()) {
            log += server.Receive() + "\n";
        }
        EXPECT_THAT(output, testing::HasSubstr("exit code 0"));
        lines[stream] = std::ranges::count(log, '\n');
        EXPECT_THAT(output, testing::HasSubstr("logshipper: " + std::to_string(lines[stream]) +
                                               " lines handed to the transport, 0 lost, 0 dropped"));
        EXPECT_THAT(log, testing::StartsWith("<134>logshipper: 1 adapter 1 opened\n"));
        EXPECT_THAT(log, testing::EndsWith(" adapter 1 connection 10.77.0.1:57388 > 10.77.0.2:80\n"));
    }
    EXPECT_EQ(lines[0], lines[1]);
}

TEST(LogShipperTest, AServerThatIsNotThereCostsLinesAndNothingElse)
{
    const HostSocket nobody(SOCK_STREAM, HostSocket::kRefuses);
    const std::string output = RunLab(nobody.Port(), true);
    EXPECT_THAT(output, testing::HasSubstr("logshipper: cannot reach the log server, status 0xC0000236"));
    EXPECT_THAT(output, testing::HasSubstr("logshipper: 0 lines handed to the transport"));
    EXPECT_THAT(output, testing::HasSubstr("exit code 0"));
}

TEST(LogShipperTest, AServerThatReadsNothingHoldsUpNoUnload)
{
    const HostSocket server(SOCK_STREAM);
    server.TakeLittle(); // a tenth of a megabyte fills the connection
    const std::string output =
        RunLab(server.Port(), true, " --repeat 600 --rate 100000 --set-dword logshipper.LogPatience=200");
    EXPECT_THAT(output, testing::HasSubstr("logshipper: cannot reach the log server, status 0xC0000241"));
    EXPECT_THAT(output, testing::Not(testing::HasSubstr(" 0 lines handed to the transport")));
    EXPECT_THAT(output, testing::HasSubstr("exit code 0"));
}

} // namespace
