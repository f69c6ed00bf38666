// ndisfilterctl: the driver's control device from a terminal.
#include "session.h"
#include "version.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <string>
#include <system_error>
#include <vector>

#include <fmt/format.h>

namespace
{

using namespace ctl;

constexpr char kFooter[] = R"(Examples:
  ndisfilterctl adapters
  ndisfilterctl ipconfig set 1 --address 192.0.2.10/24 --router 192.0.2.1
  ndisfilterctl events --follow
  ndisfilterctl watch --write - | tshark -r -
  ndisfilterctl inject session.pcap --adapter 1 --direction in
  ndisfilterctl diag filter show adapter

Exit codes:
  0    done
  1    the driver has refused a request
  2    a bad option or argument
  3    the control device cannot be opened
  4    a file cannot be read or written
  5    a diagnostic was answered with nothing, frames were not taken or did not come back, or capture files were not made
  130  ended by Ctrl-C before the work was done)";

void HandleInterrupt(int)
{
    interrupted = true;
}

// What is wrong with the command line, and which help has the answer.
std::string ExplainParseError(const CLI::App& app, const CLI::ParseError& error)
{
    const CLI::App* command = &app;
    std::string name = app.get_name();
    while (!command->get_subcommands().empty()) {
        command = command->get_subcommands().front();
        name += " " + command->get_name();
    }
    std::string problem = error.what();
    if (dynamic_cast<const CLI::RequiredError*>(&error) != nullptr &&
        command->get_require_subcommand_min() > 0) {
        const std::vector<std::string> unknown = command->remaining();
        problem =
            unknown.empty() ? "a command is missing" : fmt::format("{}: no such command", unknown.front());
    }
    return fmt::format("{}; see `{} --help`", problem, name);
}

int Run(int argc, char** argv)
{
    CLI::App app("Looks into the NdisFilter driver and steers it.", "ndisfilterctl");
    Session session;
    app.set_version_flag("--version", std::string("ndisfilterctl ") + kVersion);
    app.add_option(
           "--device", session.device,
           "Control device (default: \\\\.\\NdisFilter on Windows; elsewhere the socket of the running lab, "
           "$NDISFILTER_LAB_SOCKET, or its usual place)")
        ->option_text("NAME");
    app.add_flag("--json", session.json, "Print JSON; commands that go on print one object a line");
    app.require_subcommand(1);
    app.fallthrough();
    AddStatusCommands(app, session);
    AddAdapterCommands(app, session);
    AddEventCommands(app, session);
    AddCaptureCommands(app, session);
    AddWatchCommand(app, session);
    AddInjectCommand(app, session);
    app.footer(kFooter); // behind the commands, which would inherit it
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            return app.exit(error); // --help and --version
        }
        PrintRemark(ExplainParseError(app, error));
        return static_cast<int>(ExitCode::Usage);
    }
    const ExitCode code = session.run();
    FlushOutput();
    return static_cast<int>(code);
}

} // namespace

int main(int argc, char** argv)
{
    std::signal(SIGINT, HandleInterrupt);
    std::signal(SIGTERM, HandleInterrupt);
#ifdef SIGPIPE
    std::signal(SIGPIPE, SIG_IGN); // a reader that has gone is an error of the write
#endif
    try {
        return Run(argc, argv);
    } catch (const CtlError& error) {
        PrintRemark(error.what());
        return static_cast<int>(error.Code());
    } catch (const ndisfilter::OpenError& error) {
        PrintRemark(error.what());
        return static_cast<int>(ExitCode::Device);
    } catch (const ndisfilter::RequestError& error) {
        PrintRemark(ExplainFailure(error.Request(), "", error.Status()));
        return static_cast<int>(ExitCode::Refused);
    } catch (const std::system_error& error) { // of a print
        errno = error.code().value();
        if (IsReaderGone()) {
            return static_cast<int>(ExitCode::Success);
        }
        PrintRemark(error.what());
        return static_cast<int>(ExitCode::File);
    } catch (const std::exception& error) {
        PrintRemark(error.what());
        return static_cast<int>(ExitCode::Refused);
    }
}
