// A lab that serves, started for a test and stopped behind it.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>
#include <sys/types.h>

#include <device.h>

class LabServer
{
  public:
    // `ndisfilter-lab serve <arguments> --json`, with its socket and all it says in a directory of its own.
    // It is reachable when this returns.
    explicit LabServer(std::vector<std::string> arguments);
    ~LabServer(); // Stop, if need be
    LabServer(const LabServer&) = delete;
    LabServer& operator=(const LabServer&) = delete;

    // Ends it as Ctrl-C does, or with another signal. Its report, which must be a success: the balance holds,
    // no rule is broken, nothing lost.
    nlohmann::json Stop(int signal = 2);
    std::string Errors() const; // standard error so far
    const std::string& Socket() const { return socket_; }
    const std::string& Directory() const { return directory_; }

    // The control device; fails the test when it cannot be opened.
    std::unique_ptr<ndisfilter::Device> Open() const;

  private:
    std::string directory_;
    std::string socket_;
    pid_t process_ = -1;
};

// Waits until a condition holds; false when it does not within half a minute.
bool Eventually(const std::function<bool()>& condition);
