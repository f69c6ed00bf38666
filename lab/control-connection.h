// One program's connection to the control device.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include <machine.h>

#include "socket.h"

namespace lab
{

// Serves a connection with threads of its own until the program ends it, dies, or sends what is no message;
// then closes the program's handle as the end of a process does.
//
// Its threads take turns in receiving. The one that has received a request lets the next one receive, carries
// the request out, waits for its completion and sends the reply.
class ControlConnection
{
  public:
    // `complain` gets a line when the program breaks the protocol, on a thread of the connection.
    ControlConnection(Socket socket, std::function<void(const std::string&)> complain);
    ~ControlConnection(); // ends the connection if need be
    ControlConnection(const ControlConnection&) = delete;
    ControlConnection& operator=(const ControlConnection&) = delete;

    void Stop();                          // begins to end it
    bool IsOver() const { return over_; } // the handle is closed

  private:
    // A request from its arrival to its completion.
    struct Underway {
        uint32_t code = 0;
        uint64_t id = 0;
        std::vector<uint8_t> input;
        uint32_t outputLength = 0;
        machine::Request* request = nullptr; // once it is sent
        bool cancelled = false;
    };
    enum class Turn { Done, Request, End };

    void Work();
    Turn ReceiveNext(Underway* underway); // under receiveMutex_
    Turn Handle(std::span<const uint8_t> message, Underway* underway);
    Turn HandleHello(std::span<const uint8_t> message);
    Turn HandleControl(std::span<const uint8_t> message, Underway* underway);
    Turn HandleCancel(std::span<const uint8_t> message);
    Turn HandleMapped(std::span<const uint8_t> message);
    Turn Reject(std::span<const uint8_t> message, const char* problem);
    void CarryOut(Underway& underway);
    void Reply(uint64_t id, int32_t status, std::span<const uint8_t> output);
    uint64_t MapPages(int file, uint64_t offset, size_t length);
    void StartThread(); // under mutex_
    void End();

    const Socket socket_;
    const std::function<void(const std::string&)> complain_;
    machine::Process process_;
    std::unique_ptr<machine::File> file_; // from the first message on

    std::mutex receiveMutex_; // held by the thread that receives, which alone uses:
    std::vector<uint8_t> buffer_;

    std::mutex mutex_; // of the rest; never held while something is sent or received
    std::condition_variable changed_;
    bool ending_ = false;
    std::map<uint64_t, Underway*> requests_;
    size_t busy_ = 0; // threads that carry out a request or send its reply
    size_t idle_ = 0; // threads that receive or wait for their turn
    uint64_t nextMap_ = 1;
    std::map<uint64_t, std::optional<uint64_t>> maps_; // asked for, and what was answered
    std::vector<std::thread> threads_;

    std::atomic<bool> over_ = false;
};

} // namespace lab
