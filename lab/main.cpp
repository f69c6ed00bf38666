// The command line of the lab.
#include "arguments.h"
#include "debug-output.h"
#include "lab-error.h"
#include "live.h"
#include "replay.h"
#include "report.h"
#include "serve.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <limits>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <lab-protocol.h>
#include <unistd.h>

namespace
{

using namespace lab;

constexpr char kVersion[] = "ndisfilter-lab 0.1.0";

constexpr char kExitCodes[] = R"(Exit codes:
  0    everything was replayed, or serving or live traffic was ended; the packet balance holds
  1    a capture cannot be opened, read to its end or written
  2    a bad option
  3    the packet balance does not hold
  4    a filter cannot be loaded, or registers no packet filter
  5    a driver has broken a rule of the kernel, or lost packets
  6    gave up: no packet was free, and none came back
  7    the control socket cannot be made
  8    a network interface cannot be used
  130  a replay ended early by Ctrl-C)";

constexpr char kServeExamples[] = R"(Examples:
  ndisfilter-lab serve session.pcapng --loop --rate 1000 --filter indicator
  ndisfilter-lab serve --adapter wan0=02:00:00:00:00:0a --drive-c /tmp/c
  ndisfilterctl adapters

)";

constexpr char kLiveExamples[] = R"(Examples:
  ndisfilter-lab live eth1 eth2 --filter firewall
  ndisfilter-lab live veth-wire veth-host --filter blocker --set blocker.BlockPorts=23 --seconds 60
  ndisfilterctl watch

Both interfaces should have no address of their own. scripts/live shows a whole set-up in network namespaces.

)";

std::atomic<bool> stopRequested = false;
static_assert(std::atomic<bool>::is_always_lock_free, "set in a signal handler");

void HandleInterrupt(int)
{
    stopRequested = true;
}

void PrintError(const std::string& message)
{
    fmt::print(stderr, "ndisfilter-lab: {}\n", message);
}

// The command line as it is given; what needs more than one look is taken apart behind it.
struct Arguments {
    LabOptions options;
    std::vector<std::string> addresses;
    std::vector<std::string> adapters;
    std::vector<std::string> texts;
    std::vector<std::string> numbers;
    std::vector<std::string> filterPaths;
    std::string writeDirectory;
    std::string driveC;
    LiveOptions live;
    std::string socketPath = labprotocol::DefaultSocketPath();
    bool loop = false;
    uint32_t debugMask = 0;
    std::string debugOutput;
    bool json = false;
};

// What commands that replay captures have in common.
void AddCaptureOptions(CLI::App& command, Arguments& arguments)
{
    LabOptions& options = arguments.options;
    command
        .add_option(
            "--mac", arguments.addresses,
            "MAC address of the adapter; several for several captures, in their order (default: the one that "
            "occurs most often in the first frames)")
        ->allow_extra_args(false);
    command
        .add_option("--direction", options.direction,
                    "auto: frames from the adapter's address are sent, all others received; received; sent")
        ->transform(
            CLI::CheckedTransformer(std::map<std::string, Direction>{{"auto", Direction::Auto},
                                                                     {"received", Direction::Received},
                                                                     {"sent", Direction::Sent}})
                .description("{auto,received,sent}"))
        ->option_text("auto|received|sent");
    command
        .add_option("--threads", options.threads, "Workers; with one, frames keep the order of their capture")
        ->check(CLI::Range(1, 32))
        ->option_text("N");
    command
        .add_option("--rate", options.rate,
                    "Frames a second, all captures together (default: as fast as they go)")
        ->check(CLI::Range(uint64_t{1}, uint64_t{1'000'000'000}))
        ->option_text("N");
    command
        .add_option("--present", options.present, "Give filters only the first N bytes of a frame at first")
        ->check(CLI::Range(0u, kLongestFrame))
        ->option_text("N");
}

// What all commands have in common.
void AddSessionOptions(CLI::App& command, Arguments& arguments)
{
    LabOptions& options = arguments.options;
    command
        .add_option(
            "--filter", options.filters,
            "Client filter driver to load: NAME for NAME.so in the filter directories, or a path. Repeatable")
        ->allow_extra_args(false)
        ->option_text("NAME");
    command
        .add_option("--filter-path", arguments.filterPaths,
                    "Directory to look for filters in, before the lab's own")
        ->allow_extra_args(false)
        ->option_text("DIR");
    command
        .add_option("--set", arguments.texts,
                    "Text in the registry key of a driver, for instance blocker.BlockPorts=53")
        ->allow_extra_args(false)
        ->option_text("DRIVER.VALUE=TEXT");
    command
        .add_option("--set-dword", arguments.numbers,
                    "Number in the registry key of a driver, decimal or 0x...")
        ->allow_extra_args(false)
        ->option_text("DRIVER.VALUE=NUMBER");
    command.add_option("--packets", options.packets, "Packets that exist at a time, at most (default 4096)")
        ->check(CLI::Range(1u, 1'000'000u))
        ->option_text("N");
    command
        .add_option("--write", arguments.writeDirectory,
                    "Write what comes out of each side to captures in DIR")
        ->option_text("DIR");
    command
        .add_option("--drive-c", arguments.driveC,
                    "The directory that drivers see as drive C (default: no such drive)")
        ->option_text("DIR");
    command
        .add_option("--debug-mask", arguments.debugMask, "What the framework traces (its GlobalDebugFlag)")
        ->option_text("MASK");
    command
        .add_option(
            "--debug-output", arguments.debugOutput,
            "Where the drivers' debug output goes; - is standard output (default: standard error with "
            "--debug-mask, else nowhere)")
        ->option_text("FILE");
    command.add_flag(
        "--sockets", options.sockets,
        "Drivers find \\Device\\Tcp and \\Device\\Udp: sockets on this computer's loopback addresses");
    command.add_flag("--quiet", options.quiet, "Neither progress nor remarks on standard error; errors only");
    command.add_flag("--json", arguments.json, "Print one JSON object instead of the table");
}

void AddSocketOption(CLI::App& command, Arguments& arguments)
{
    command
        .add_option("--socket", arguments.socketPath,
                    "Where programs connect (default: " + arguments.socketPath + ")")
        ->option_text("PATH");
}

void AddReplayOptions(CLI::App& replay, Arguments& arguments)
{
    LabOptions& options = arguments.options;
    replay
        .add_option("CAPTURE", options.captures,
                    "Capture files, pcap or pcapng; each gets an adapter of its own")
        ->required();
    AddCaptureOptions(replay, arguments);
    AddSessionOptions(replay, arguments);
    replay.add_option("--repeat", options.repeat, "Replay each capture so often")
        ->check(CLI::Range(uint64_t{1}, uint64_t{1'000'000'000}))
        ->option_text("N");
    replay.footer(kExitCodes);
}

void AddServeOptions(CLI::App& serve, Arguments& arguments)
{
    serve.add_option("CAPTURE", arguments.options.captures,
                     "Capture files, pcap or pcapng; each gets an adapter of its own");
    AddCaptureOptions(serve, arguments);
    AddSessionOptions(serve, arguments);
    serve.add_option("--adapter", arguments.adapters, "An adapter without a capture. Repeatable")
        ->allow_extra_args(false)
        ->option_text("NAME=MAC");
    serve.add_flag("--loop", arguments.loop, "Replay the captures again and again (default: once)");
    AddSocketOption(serve, arguments);
    serve.footer(std::string(kServeExamples) + kExitCodes);
}

void AddLiveOptions(CLI::App& live, Arguments& arguments)
{
    live.add_option("WIRE", arguments.live.wire, "The interface that stands for the adapter's cable")
        ->required();
    live.add_option("PROTOCOLS", arguments.live.protocols,
                    "The interface whose stations are the protocols above the adapter")
        ->required();
    AddSessionOptions(live, arguments);
    live.add_option("--seconds", arguments.live.seconds, "End after so long (default: with Ctrl-C)")
        ->check(CLI::Range(1u, 1'000'000'000u))
        ->option_text("N");
    AddSocketOption(live, arguments);
    live.footer(std::string(kLiveExamples) + kExitCodes);
}

void CompleteOptions(Arguments& arguments)
{
    LabOptions& options = arguments.options;
    if (arguments.addresses.size() > options.captures.size()) {
        throw LabError(ExitCode::Usage,
                       fmt::format("--mac {}: more addresses than captures", arguments.addresses.back()));
    }
    if (arguments.json && arguments.debugOutput == "-") {
        throw LabError(ExitCode::Usage, "--debug-output -: standard output is taken by --json; give a file");
    }
    for (const std::string& text : arguments.addresses) {
        options.addresses.push_back(ParseMacAddress("--mac", text));
    }
    std::ranges::transform(arguments.adapters, std::back_inserter(options.adapters), ParseAdapter);
    for (const std::string& text : arguments.texts) {
        options.settings.push_back(ParseSetting("--set", text));
    }
    std::ranges::transform(arguments.numbers, std::back_inserter(options.settings), ParseNumberSetting);
    if (arguments.debugMask != 0) {
        options.settings.push_back({kFrameworkService, "GlobalDebugFlag", "", true, arguments.debugMask});
    }
    options.filterDirectories.assign(arguments.filterPaths.begin(), arguments.filterPaths.end());
    std::error_code error;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
    options.filterDirectories.push_back(program.parent_path() / "filters");
    options.writeDirectory = arguments.writeDirectory;
    options.driveC = arguments.driveC;
    if (arguments.loop) {
        options.repeat = std::numeric_limits<uint64_t>::max();
    }
}

// A second signal ends the program at once.
void StopOn(int signal)
{
    struct sigaction action = {};
    action.sa_handler = HandleInterrupt;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(signal, &action, nullptr);
}

enum class Command { Replay, Serve, Live };

int Run(Arguments& arguments, Command command)
{
    CompleteOptions(arguments);
    LabOptions& options = arguments.options;
    const DebugOutput debugOutput(arguments.debugOutput.empty() && arguments.debugMask != 0
                                      ? DebugOutput::kStandardError
                                      : arguments.debugOutput);
    StopOn(SIGINT);
    Report report;
    switch (command) {
    case Command::Replay:
        options.progress = !options.quiet && isatty(STDERR_FILENO) != 0;
        report = Replay(options, stopRequested);
        break;
    case Command::Serve:
        StopOn(SIGTERM);
        report = Serve(options, arguments.socketPath, stopRequested);
        break;
    case Command::Live:
        StopOn(SIGTERM);
        arguments.live.socketPath = arguments.socketPath;
        report = Live(options, arguments.live, stopRequested);
        break;
    }
    if (arguments.json || report.started) {
        fmt::print("{}", arguments.json ? FormatJson(report) : FormatTable(report));
        std::fflush(stdout);
    }
    for (const Failure& failure : report.failures) {
        PrintError(failure.message);
    }
    return static_cast<int>(report.Code());
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app("Runs network traffic through the packet filter framework and its client filters.",
                 "ndisfilter-lab");
    app.set_version_flag("--version", kVersion);
    app.require_subcommand(1);
    Arguments arguments;
    CLI::App* replay = app.add_subcommand("replay", "Replay captures through the framework");
    AddReplayOptions(*replay, arguments);
    CLI::App* serve =
        app.add_subcommand("serve", "Keep the framework running for programs such as ndisfilterctl");
    AddServeOptions(*serve, arguments);
    CLI::App* live = app.add_subcommand("live", "Put the framework between two network interfaces");
    AddLiveOptions(*live, arguments);
    try {
        app.parse(argc, argv);
        return Run(arguments, replay->parsed()  ? Command::Replay
                              : serve->parsed() ? Command::Serve
                                                : Command::Live);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            return app.exit(error); // --help and --version
        }
        PrintError(fmt::format("{}; --help lists the options", error.what()));
        return static_cast<int>(ExitCode::Usage);
    } catch (const LabError& error) {
        PrintError(error.what());
        return static_cast<int>(error.Code());
    }
}
