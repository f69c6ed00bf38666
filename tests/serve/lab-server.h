// A lab that serves, started for a test and stopped behind it, and the programs that use it.
#pragma once

#include <support/eventually.h>
#include <support/program.h>

#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include <device.h>

using support::Eventually;

inline const std::string kCapture = NDISFILTER_TEST_DATA "/session.pcapng";
inline const std::vector<std::string> kOneAdapter = {"--adapter", "lan0=02:00:00:00:00:0a"};

inline const std::vector<std::string> kTraffic = {kCapture, "--loop",   "--rate",
                                                  "2000",   "--filter", "indicator"};

class LabServer
{
  public:
    // `ndisfilter-lab serve <arguments> --json`, in a directory of its own with its socket and all it says. It is
    // reachable when this returns.
    explicit LabServer(std::vector<std::string> arguments);
    ~LabServer(); // Stop, if need be

    // Ends it as Ctrl-C does, or with another signal. Its report, which must be a success: the balance holds,
    // no rule is broken, nothing lost.
    nlohmann::json Stop(int signal = SIGINT);
    bool HasSaid(const std::string& text) const; // on standard error, so far
    std::string Errors() const { return program_->Errors(); }
    std::string Socket() const { return directory_.File("lab.sock"); }
    const support::TemporaryDirectory& Directory() const { return directory_; }

    // The control device; fails the test when it cannot be opened.
    std::unique_ptr<ndisfilter::Device> Open() const;

    // Runs ndisfilterctl on it, in a directory beside the lab's.
    support::ProgramResult Ctl(std::vector<std::string> arguments,
                               const std::function<bool()>& interruptWhen = nullptr) const;
    // Runs a line of bash where $ctl is that.
    support::ProgramResult Shell(const std::string& line) const;
    std::string CtlDirectory() const { return ctlDirectory_.Path(); }

  private:
    const support::TemporaryDirectory directory_;
    const support::TemporaryDirectory ctlDirectory_;
    std::unique_ptr<support::Program> program_;
};
