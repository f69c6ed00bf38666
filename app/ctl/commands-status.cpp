// Commands about the driver as a whole.
#include "session.h"
#include "version.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <thread>

#include <fmt/format.h>

namespace ctl
{

namespace
{

// Only one diagnostic runs at a time, so one that is refused is tried again for a while.
std::string Diagnose(Client& driver, const std::string& command)
{
    using namespace std::chrono_literals;
    const auto end = std::chrono::steady_clock::now() + 2s;
    for (;;) {
        if (const std::optional<std::string> text = driver.Diagnose(command)) {
            return *text;
        }
        if (std::chrono::steady_clock::now() > end) {
            throw CtlError(ExitCode::Refused, ExplainFailure("run the diagnostic", "", NDISFILTER_DIAG_BUSY));
        }
        std::this_thread::sleep_for(20ms);
    }
}

ExitCode PrintVersion(Session& session)
{
    Client& driver = session.Driver();
    driver.CheckVersion();
    const std::string drivers = Diagnose(driver, "driver");
    if (session.json) {
        fmt::print(
            "{}\n",
            FormatJson({{"ndisfilterctl", kVersion}, {"driver_answered", true}, {"drivers", drivers}}));
    } else {
        fmt::print("ndisfilterctl {}\nthe driver answers\n{}", kVersion, drivers);
    }
    return ExitCode::Success;
}

Json ToJson(const UserAdapterInfo& adapter)
{
    return {{"id", static_cast<uint32_t>(adapter.m_nAdapterId)},
            {"name", adapter.m_szAdapterName},
            {"medium", static_cast<uint32_t>(adapter.m_nAdapterMedium)},
            {"mtu", static_cast<uint16_t>(adapter.m_usMTU)},
            {"state", static_cast<uint32_t>(adapter.m_dwAdapterState)},
            {"current_address", FormatMac(adapter.m_CurrentAddress)},
            {"permanent_address", FormatMac(adapter.m_PermanentAddress)}};
}

ExitCode PrintAdapters(Session& session)
{
    const std::vector<UserAdapterInfo> adapters = session.Driver().Adapters();
    if (session.json) {
        Json list = Json::array();
        std::ranges::transform(adapters, std::back_inserter(list), ToJson);
        fmt::print("{}\n", FormatJson(list));
        return ExitCode::Success;
    }
    fmt::print("{:>4}  {:17}  {:17}  {:>5}  {:>6}  {:>5}  {}\n", "id", "current address", "permanent address",
               "mtu", "medium", "state", "name");
    for (const UserAdapterInfo& adapter : adapters) {
        fmt::print("{:>4}  {:17}  {:17}  {:>5}  {:>6}  {:>5}  {}\n", uint32_t{adapter.m_nAdapterId},
                   FormatMac(adapter.m_CurrentAddress), FormatMac(adapter.m_PermanentAddress),
                   uint16_t{adapter.m_usMTU}, uint32_t{adapter.m_nAdapterMedium},
                   uint32_t{adapter.m_dwAdapterState}, Printable(adapter.m_szAdapterName));
    }
    return ExitCode::Success;
}

ExitCode RunDiagnostic(Session& session, const std::vector<std::string>& words)
{
    const std::string command = fmt::format("{}", fmt::join(words, " "));
    if (command.size() > NDIS_FILTER_DIAG_COMMAND_SIZE) {
        throw CtlError(ExitCode::Usage, fmt::format("a diagnostic of {} bytes; {} are the most",
                                                    command.size(), NDIS_FILTER_DIAG_COMMAND_SIZE));
    }
    if (words.size() > 17) {
        PrintRemark(fmt::format("{} words behind the driver's name; the driver reads the first 16",
                                words.size() - 1));
    }
    const std::string text = Diagnose(session.Driver(), command);
    if (session.json) {
        fmt::print("{}\n", FormatJson({{"command", command}, {"text", text}}));
    } else {
        fmt::print("{}", text);
    }
    if (text.empty()) {
        PrintRemark(fmt::format(
            "`{}` was answered with nothing: no driver knows it, or there is nothing to show; "
            "`ndisfilterctl diag driver` shows who is there, `ndisfilterctl diag filter help` what "
            "the framework answers to",
            command));
        return ExitCode::Unanswered;
    }
    return ExitCode::Success;
}

ExitCode DumpState(Session& session)
{
    session.Driver().DumpState();
    PrintRemark("the driver has printed its state to the kernel debugger (of a lab: its debug output)");
    return ExitCode::Success;
}

} // namespace

void AddStatusCommands(CLI::App& app, Session& session)
{
    app.add_subcommand("version", "Print the versions of this program and of the drivers")
        ->callback([&session] { session.run = [&session] { return PrintVersion(session); }; });
    app.add_subcommand("adapters", "List the adapters that are bound to TCP/IP")->callback([&session] {
        session.run = [&session] { return PrintAdapters(session); };
    });
    app.add_subcommand("state", "Have the driver print its whole state to the kernel debugger")
        ->callback([&session] { session.run = [&session] { return DumpState(session); }; });

    CLI::App* const debugFlag = app.add_subcommand("debugflag", "The mask of what the driver traces");
    debugFlag->require_subcommand(1);
    debugFlag->add_subcommand("reload", "Have the driver read GlobalDebugFlag from the registry again")
        ->callback([&session] {
            session.run = [&session] {
                session.Driver().ReloadDebugFlag();
                return ExitCode::Success;
            };
        });

    CLI::App* const congestion = app.add_subcommand("congestion", "Set the limit of queued injected packets");
    const auto limit = std::make_shared<uint32_t>();
    congestion->add_option("N", *limit, "Packets; the driver keeps and shows the number")->required();
    congestion->callback([&session, limit] {
        session.run = [&session, limit] {
            session.Driver().SetCongestionLimit(*limit);
            return ExitCode::Success;
        };
    });

    CLI::App* const diag =
        app.add_subcommand("diag", "Ask a driver for a diagnostic and print what it answers");
    const auto words = std::make_shared<std::vector<std::string>>();
    diag->add_option("WORDS", *words,
                     "The driver's name (`filter`: the framework; `driver`: all), then its words")
        ->required();
    diag->footer("Examples:\n  ndisfilterctl diag driver\n  ndisfilterctl diag filter help\n"
                 "  ndisfilterctl diag filter show adapter");
    diag->callback(
        [&session, words] { session.run = [&session, words] { return RunDiagnostic(session, *words); }; });
}

} // namespace ctl
