// The control device on a Unix socket, for programs of other processes.
#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "control-connection.h"
#include "socket.h"

namespace lab
{

class ControlServer
{
  public:
    // Makes the socket, which only this user can connect to; programs that connect wait until Serve. Throws
    // LabError when another lab serves there, or the socket cannot be made.
    explicit ControlServer(const std::string& path);
    ~ControlServer(); // removes the socket
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    // Serves programs until `stop` is set; then closes what they have open. `complain` gets a line about a
    // program that was disconnected, on any thread.
    void Serve(const std::atomic<bool>& stop, const std::function<void(const std::string&)>& complain);
    uint64_t Programs() const { return programs_; } // that have connected

  private:
    const std::string path_;
    Socket socket_;
    uint64_t programs_ = 0;
};

} // namespace lab
