// The driver's own capture logs, which it writes to drive C.
#include "capture-names.h"
#include "session.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <thread>

#include <fmt/format.h>

namespace ctl
{

namespace
{

using namespace std::chrono_literals;
namespace fs = std::filesystem;

struct LogFile {
    std::string path; // as it is printed
    bool reachable;   // `path` is one of this system
    bool exists = false;
    uint64_t size = 0;
};

std::vector<LogFile> LookAtLogs(Session& session, const std::string& driveC)
{
    std::vector<LogFile> logs;
    for (const std::string& name : CaptureLogNames(session.Driver().Adapters())) {
#ifdef _WIN32
        LogFile log{(driveC.empty() ? "C:\\" : driveC + "\\") + name, true};
#else
        LogFile log{driveC.empty() ? "C:\\" + name : (fs::path(driveC) / name).string(), !driveC.empty()};
#endif
        std::error_code error;
        if (log.reachable) {
            log.size = fs::file_size(log.path, error);
            log.exists = !error;
        }
        logs.push_back(log);
    }
    return logs;
}

size_t CountMissing(const std::vector<LogFile>& logs)
{
    return static_cast<size_t>(
        std::ranges::count_if(logs, [](const LogFile& log) { return log.reachable && !log.exists; }));
}

void PrintLogs(const Session& session, const std::vector<LogFile>& logs, bool withSizes)
{
    if (session.json) {
        Json list = Json::array();
        for (const LogFile& log : logs) {
            Json entry = {{"path", log.path}};
            if (log.reachable) {
                entry["exists"] = log.exists;
                entry["size"] = log.size;
            }
            list.push_back(entry);
        }
        fmt::print("{}\n", FormatJson(list));
        return;
    }
    for (const LogFile& log : logs) {
        withSizes&& log.exists ? fmt::print("{}  {} bytes\n", log.path, log.size)
                               : fmt::print("{}\n", log.path);
    }
}

ExitCode StartCapture(Session& session, const std::string& driveC)
{
    session.Driver().StartCapture();
    std::vector<LogFile> logs = LookAtLogs(session, driveC);
    if (logs.empty()) {
        PrintRemark("no adapter is open, so nothing is recorded; start again when one is");
        return ExitCode::Unanswered;
    }
    // The driver opens the files behind the request, and says nothing when it cannot.
    const auto end = std::chrono::steady_clock::now() + 3s;
    while (CountMissing(logs) > 0 && std::chrono::steady_clock::now() < end && !interrupted) {
        std::this_thread::sleep_for(10ms);
        logs = LookAtLogs(session, driveC);
    }
    PrintLogs(session, logs, false);
    if (const size_t missing = CountMissing(logs); missing > 0) {
        PrintRemark(fmt::format(
            "{} of {} files were not made; is there room and leave to write on drive C?{}", missing,
            logs.size(), driveC.empty() ? "" : " Is --drive-c the directory that the lab was given?"));
        return ExitCode::Unanswered;
    }
    return ExitCode::Success;
}

ExitCode StopCapture(Session& session, const std::string& driveC)
{
    session.Driver().StopCapture();
    // The driver closes the files behind the request: they are done when they have stopped growing.
    std::vector<LogFile> logs = LookAtLogs(session, driveC);
    const auto end = std::chrono::steady_clock::now() + 3s;
    for (bool grows = std::ranges::any_of(logs, &LogFile::reachable);
         grows && std::chrono::steady_clock::now() < end && !interrupted;) {
        std::this_thread::sleep_for(30ms);
        std::vector<LogFile> next = LookAtLogs(session, driveC);
        grows = !std::ranges::equal(logs, next, {}, &LogFile::size, &LogFile::size);
        logs = std::move(next);
    }
    PrintLogs(session, logs, true);
    return ExitCode::Success;
}

} // namespace

void AddCaptureCommands(CLI::App& app, Session& session)
{
    CLI::App* const capture =
        app.add_subcommand("capture", "Recording of frames by the driver, to files on drive C");
    capture->require_subcommand(1);
    const auto driveC = std::make_shared<std::string>();
    const auto add = [&](const char* name, const char* help,
                         ExitCode (*command)(Session&, const std::string&)) {
        CLI::App* const subcommand = capture->add_subcommand(name, help);
        subcommand->footer(fmt::format("Example:\n  ndisfilterctl capture {} --drive-c /var/tmp/c", name));
        subcommand
            ->add_option(
                "--drive-c", *driveC,
                "Where drive C lies: the directory that the lab was given (else names on C: are printed)")
            ->envname("NDISFILTER_DRIVE_C")
            ->option_text("DIR");
        subcommand->callback([&session, driveC, command] {
            session.run = [&session, driveC, command] { return command(session, *driveC); };
        });
    };
    add("start", "Start recording, and print the files that are made; they replace earlier ones",
        StartCapture);
    add("stop", "Stop recording, and print the files", StopCapture);
    capture->footer("Example:\n  ndisfilterctl capture start --drive-c /var/tmp/c");
}

} // namespace ctl
