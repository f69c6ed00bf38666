// The queue of events.
#include "event-text.h"
#include "session.h"

#include <chrono>
#include <memory>
#include <thread>

#include <fmt/format.h>

namespace ctl
{

namespace
{

constexpr auto kPollPause =
    std::chrono::milliseconds(50); // the driver has no request that waits for an event

struct EventArguments {
    bool follow = false;
    bool raw = false;
};

ExitCode PrintEvents(Session& session, const EventArguments& arguments)
{
    while (!interrupted) {
        const std::optional<UserEvent> event = session.Driver().NextEvent();
        if (event) {
            fmt::print("{}\n", session.json ? FormatJson(EventToJson(*event, arguments.raw), -1)
                                            : FormatEvent(*event, arguments.raw));
            continue;
        }
        if (!arguments.follow) {
            break;
        }
        if (!FlushOutput()) {
            break;
        }
        std::this_thread::sleep_for(kPollPause);
    }
    return ExitCode::Success;
}

} // namespace

void AddEventCommands(CLI::App& app, Session& session)
{
    CLI::App* const events =
        app.add_subcommand("events", "Take the events that drivers have reported, and print them");
    const auto arguments = std::make_shared<EventArguments>();
    events->add_flag("--follow", arguments->follow, "Go on until Ctrl-C");
    events->add_flag(
        "--raw", arguments->raw,
        "Print the whole text; the driver writes over part of it also when an event has no head");
    events->footer("Each event is taken from the queue: no other program gets it.\n\n"
                   "Example:\n  ndisfilterctl events --follow --json");
    CLI::App* const clear = events->add_subcommand("clear", "Drop all events that wait");
    clear->callback([&session] {
        session.run = [&session] {
            session.Driver().ClearEvents();
            return ExitCode::Success;
        };
    });
    // The callback of a command runs behind those of its subcommands.
    events->callback([&session, arguments] {
        if (!session.run) {
            session.run = [&session, arguments] { return PrintEvents(session, *arguments); };
        }
    });
}

} // namespace ctl
