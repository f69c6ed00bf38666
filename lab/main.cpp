// The command line of the lab.
#include "capture-reader.h"
#include "debug-output.h"
#include "lab-error.h"
#include "replay.h"
#include "report.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <unistd.h>

namespace
{

using namespace lab;

constexpr char kVersion[] = "ndisfilter-lab 0.1.0";

constexpr char kExitCodes[] = R"(Exit codes:
  0    everything was replayed, the packet balance holds
  1    a capture cannot be opened, read to its end or written
  2    a bad option
  3    the packet balance does not hold
  4    a filter cannot be loaded, or registers no packet filter
  5    a driver has broken a rule of the kernel, or lost packets
  6    gave up: no packet was free, and none came back
  130  ended early by Ctrl-C)";

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

MacAddress ParseMacAddress(const std::string& text)
{
    MacAddress address;
    const char* position = text.data();
    const char* const end = text.data() + text.size();
    for (size_t i = 0; i < address.size(); ++i) {
        if (i > 0 && position != end && (*position == ':' || *position == '-')) {
            ++position;
        } else if (i > 0) {
            position = end;
        }
        const auto result = std::from_chars(position, std::min(position + 2, end), address[i], 16);
        if (result.ec != std::errc() || result.ptr != position + 2) {
            throw LabError(ExitCode::Usage,
                           fmt::format("--mac {}: not a MAC address, for instance 02:00:00:00:00:0a", text));
        }
        position = result.ptr;
    }
    if (position != end || (address[0] & 1) != 0) {
        throw LabError(ExitCode::Usage, fmt::format("--mac {}: not the MAC address of one adapter", text));
    }
    return address;
}

// NAME.Value=TEXT
Setting ParseSetting(const std::string& option, const std::string& text)
{
    const size_t equals = text.find('=');
    const size_t dot = text.substr(0, equals).find('.');
    if (equals == std::string::npos || dot == std::string::npos || dot == 0 || dot + 1 == equals) {
        throw LabError(ExitCode::Usage, fmt::format("{} {}: give it as DRIVER.VALUE={}", option, text,
                                                    option == "--set" ? "TEXT" : "NUMBER"));
    }
    return {text.substr(0, dot), text.substr(dot + 1, equals - dot - 1), text.substr(equals + 1)};
}

Setting ParseNumberSetting(const std::string& text)
{
    Setting setting = ParseSetting("--set-dword", text);
    const bool hexadecimal = setting.text.starts_with("0x") || setting.text.starts_with("0X");
    const std::string_view digits = std::string_view(setting.text).substr(hexadecimal ? 2 : 0);
    const char* const end = digits.data() + digits.size();
    const auto result = std::from_chars(digits.data(), end, setting.number, hexadecimal ? 16 : 10);
    if (digits.empty() || result.ec != std::errc() || result.ptr != end) {
        throw LabError(ExitCode::Usage,
                       fmt::format("--set-dword {}: '{}' is not a number of 32 bits", text, setting.text));
    }
    setting.isNumber = true;
    return setting;
}

// The command line as it is given; what needs more than one look is taken apart behind it.
struct Arguments {
    ReplayOptions options;
    std::vector<std::string> addresses;
    std::vector<std::string> texts;
    std::vector<std::string> numbers;
    std::vector<std::string> filterPaths;
    std::string writeDirectory;
    uint32_t debugMask = 0;
    std::string debugOutput;
    bool json = false;
};

void AddReplayOptions(CLI::App& replay, Arguments& arguments)
{
    ReplayOptions& options = arguments.options;
    replay
        .add_option("CAPTURE", options.captures,
                    "Capture files, pcap or pcapng; each gets an adapter of its own")
        ->required();
    replay
        .add_option(
            "--mac", arguments.addresses,
            "MAC address of the adapter; several for several captures, in their order (default: the one that "
            "occurs most often in the first frames)")
        ->allow_extra_args(false);
    replay
        .add_option("--direction", options.direction,
                    "auto: frames from the adapter's address are sent, all others received; received; sent")
        ->transform(
            CLI::CheckedTransformer(std::map<std::string, Direction>{{"auto", Direction::Auto},
                                                                     {"received", Direction::Received},
                                                                     {"sent", Direction::Sent}})
                .description("{auto,received,sent}"))
        ->option_text("auto|received|sent");
    replay
        .add_option(
            "--filter", options.filters,
            "Client filter driver to load: NAME for NAME.so in the filter directories, or a path. Repeatable")
        ->allow_extra_args(false)
        ->option_text("NAME");
    replay
        .add_option("--filter-path", arguments.filterPaths,
                    "Directory to look for filters in, before the lab's own")
        ->allow_extra_args(false)
        ->option_text("DIR");
    replay
        .add_option("--set", arguments.texts,
                    "Text in the registry key of a driver, for instance blocker.BlockPorts=53")
        ->allow_extra_args(false)
        ->option_text("DRIVER.VALUE=TEXT");
    replay
        .add_option("--set-dword", arguments.numbers,
                    "Number in the registry key of a driver, decimal or 0x...")
        ->allow_extra_args(false)
        ->option_text("DRIVER.VALUE=NUMBER");
    replay
        .add_option("--threads", options.threads, "Workers; with one, frames keep the order of their capture")
        ->check(CLI::Range(1, 32))
        ->option_text("N");
    replay.add_option("--repeat", options.repeat, "Replay each capture so often")
        ->check(CLI::Range(uint64_t{1}, uint64_t{1'000'000'000}))
        ->option_text("N");
    replay
        .add_option("--present", options.present, "Give filters only the first N bytes of a frame at first")
        ->check(CLI::Range(0u, kLongestFrame))
        ->option_text("N");
    replay.add_option("--packets", options.packets, "Packets that exist at a time, at most (default 4096)")
        ->check(CLI::Range(1u, 1'000'000u))
        ->option_text("N");
    replay
        .add_option("--write", arguments.writeDirectory,
                    "Write what comes out of each side to captures in DIR")
        ->option_text("DIR");
    replay.add_option("--debug-mask", arguments.debugMask, "What the framework traces (its GlobalDebugFlag)")
        ->option_text("MASK");
    replay
        .add_option(
            "--debug-output", arguments.debugOutput,
            "Where the drivers' debug output goes; - is standard output (default: standard error with "
            "--debug-mask, else nowhere)")
        ->option_text("FILE");
    replay.add_flag("--quiet", options.quiet, "Neither progress nor remarks on standard error; errors only");
    replay.add_flag("--json", arguments.json, "Print one JSON object instead of the table");
    replay.footer(kExitCodes);
}

void CompleteOptions(Arguments& arguments)
{
    ReplayOptions& options = arguments.options;
    if (arguments.addresses.size() > options.captures.size()) {
        throw LabError(ExitCode::Usage,
                       fmt::format("--mac {}: more addresses than captures", arguments.addresses.back()));
    }
    if (arguments.json && arguments.debugOutput == "-") {
        throw LabError(ExitCode::Usage, "--debug-output -: standard output is taken by --json; give a file");
    }
    std::ranges::transform(arguments.addresses, std::back_inserter(options.addresses), ParseMacAddress);
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
    options.progress = !options.quiet && isatty(STDERR_FILENO) != 0;
}

int RunReplay(Arguments& arguments)
{
    CompleteOptions(arguments);
    const DebugOutput debugOutput(arguments.debugOutput.empty() && arguments.debugMask != 0
                                      ? DebugOutput::kStandardError
                                      : arguments.debugOutput);
    // A second Ctrl-C ends the program at once.
    struct sigaction action = {};
    action.sa_handler = HandleInterrupt;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGINT, &action, nullptr);

    const Report report = Replay(arguments.options, stopRequested);
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
    try {
        app.parse(argc, argv);
        return RunReplay(arguments);
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
