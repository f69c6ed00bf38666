// How the lab ends: its exit codes, and the error that ends it early.
#pragma once

#include <stdexcept>
#include <string>

namespace lab
{

enum class ExitCode {
    Success = 0,
    Capture = 1,      // a capture cannot be opened, read to its end or written
    Usage = 2,        // a bad option
    Balance = 3,      // the packet balance does not add up
    Filter = 4,       // a filter cannot be loaded
    BrokenRule = 5,   // a driver has broken a rule of the kernel, or lost packets
    Stalled = 6,      // no packet was free, and none came back
    Socket = 7,       // the control socket cannot be made
    Interface = 8,    // a network interface cannot be used
    Interrupted = 130 // Ctrl-C
};

class LabError : public std::runtime_error
{
  public:
    LabError(ExitCode code, const std::string& message) : std::runtime_error(message), code_(code) {}
    ExitCode Code() const { return code_; }

  private:
    ExitCode code_;
};

} // namespace lab
