// What all commands of ndisfilterctl share: the connection, the way results are printed, and how the program ends.
#pragma once

#include "ndisfilter-client.hpp"

#include <atomic>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

namespace ctl
{

using ndisfilter::Client;
using ndisfilter::MacAddress;
using Json = nlohmann::ordered_json;

enum class ExitCode {
    Success = 0,
    Refused = 1,      // the driver has refused a request
    Usage = 2,        // a bad option or argument
    Device = 3,       // the control device cannot be opened
    File = 4,         // a file cannot be read or written
    Unanswered = 5,   // nobody answered, frames were not taken or did not come back, files were not made
    Interrupted = 130 // Ctrl-C before the work was done
};

class CtlError : public std::runtime_error
{
  public:
    CtlError(ExitCode code, const std::string& message) : std::runtime_error(message), code_(code) {}
    ExitCode Code() const { return code_; }

  private:
    ExitCode code_;
};

// "cannot REQUEST of SUBJECT: NAME (VALUE): MEANING; ADVICE"; the subject may be empty.
std::string ExplainFailure(const std::string& request, const std::string& subject, int32_t status);

// Set by Ctrl-C.
extern std::atomic<bool> interrupted;

class Session
{
  public:
    std::string device;            // of --device
    bool json = false;             // of --json
    std::function<ExitCode()> run; // the command of the command line

    Client& Driver(); // opened at the first use; throws OpenError

    // An adapter as a person names it: identifier, MAC address or name.
    uint32_t AdapterId(const std::string& reference);
    MacAddress AdapterMac(const std::string& reference);

    // A request about one adapter; a failure is reported with its name.
    template <typename Function>
    auto About(const std::string& reference, Function function)
    {
        try {
            return function();
        } catch (const ndisfilter::RequestError& error) {
            throw CtlError(ExitCode::Refused,
                           ExplainFailure(error.Request(), "adapter " + reference, error.Status()));
        }
    }

  private:
    UserAdapterInfo FindListed(const std::string& reference);
    std::optional<uint32_t> FindByMac(const MacAddress& mac);

    std::optional<Client> client_;
};

std::optional<MacAddress> ParseMac(const std::string& text);
std::string FormatMac(const uint8_t* mac, char separator = ':');
std::string FormatJson(const Json& json, int indent = 2); // bytes that are not UTF-8 are replaced
std::string Printable(std::string_view text);             // control characters and bytes above 126 as \x..
void PrintRemark(const std::string& message);             // on standard error

// Whether errno says that the reader of a pipe has gone.
bool IsReaderGone();
// Flushes standard output; false when its reader has gone. Throws CtlError when it cannot be written.
bool FlushOutput();

// Each makes its subcommands. The options live in `app`.
void AddStatusCommands(CLI::App& app,
                       Session& session); // version, adapters, state, debugflag, congestion, diag
void AddAdapterCommands(CLI::App& app, Session& session); // ipconfig, media, dump
void AddEventCommands(CLI::App& app, Session& session);
void AddCaptureCommands(CLI::App& app, Session& session);
void AddWatchCommand(CLI::App& app, Session& session);
void AddInjectCommand(CLI::App& app, Session& session);

} // namespace ctl
