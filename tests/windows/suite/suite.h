// The frame of the tests that drive the real drivers: services, devices, programs, and the debug output. What goes
// wrong in it is a Failure, which ends the test.
#pragma once

#include <windows.h>

#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "loophook.h"

#include <support/eventually.h>

#include <ndisfilter-user.h>

namespace suite
{

using support::Eventually;

struct Options {
    std::wstring drivers;     // directory of the .sys files
    std::wstring debugOutput; // file that the drivers' debug output goes to
    uint32_t seed = 1;
};
extern Options options;

struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

std::string Narrow(const std::wstring& text);
bool IsWine();
std::string ReadWhole(const std::wstring& path);

// What a program has printed, both outputs together, and its exit code.
struct Ended {
    int code;
    std::string output;
};

// Runs a program of the drivers' directory.
Ended RunProgram(const std::wstring& name, const std::wstring& arguments);

// A kernel service: NAME.sys in the drivers' directory. All are in one load order group, so that they share a
// process under Wine. Stopped and deleted at the end.
class Service
{
  public:
    explicit Service(const std::wstring& name);
    ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    void SetNumber(const wchar_t* name, uint32_t value);
    void SetText(const wchar_t* name, const std::wstring& value);
    void Start(); // throws a Failure when it does not start
    void Stop();  // throws a Failure when it does not stop
    bool IsRunning();

  private:
    std::wstring name_;
    SC_HANDLE handle_;
};

// Has cleanup requests sent to the framework, which must be loaded as long: Wine sends none.
class CleanupRequests
{
  public:
    CleanupRequests();

  private:
    std::optional<Service> shim_;
};

// What a control request came to: 0 or an error code of Windows, and the bytes returned.
struct Answer {
    DWORD error;
    std::vector<uint8_t> bytes;
};

class Device;

// A request that was given to a device. Its destructor cancels it and waits for its end.
class Request
{
  public:
    Request(Device& device, uint32_t code, std::span<const uint8_t> input, size_t outputLength);
    ~Request();
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    bool IsPending() const { return pending_; }
    void Cancel();
    Answer Wait(); // for its end, ten seconds; then throws a Failure

  private:
    HANDLE device_;
    std::vector<uint8_t> input_;
    std::vector<uint8_t> output_;
    OVERLAPPED overlapped_ = {};
    bool pending_ = false;
    DWORD error_ = 0;
};

class Device
{
  public:
    explicit Device(const wchar_t* name = L"\\\\.\\NdisFilter");
    ~Device();
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    // One request that is not parked.
    Answer Control(uint32_t code, std::span<const uint8_t> input = {}, size_t outputLength = 0);
    uint64_t StartShare(); // the address, or NDIS_FILTER_SHARE_FAILED when another program has it
    void Close();
    HANDLE Handle() const { return handle_; }

  private:
    HANDLE handle_;
};

template <class Record>
std::span<const uint8_t> Bytes(const Record& record)
{
    return {reinterpret_cast<const uint8_t*>(&record), sizeof(record)};
}

template <class Record>
Record As(const std::vector<uint8_t>& bytes)
{
    if (bytes.size() < sizeof(Record)) {
        throw Failure("an answer of " + std::to_string(bytes.size()) + " bytes, expected " +
                      std::to_string(sizeof(Record)));
    }
    Record record;
    memcpy(&record, bytes.data(), sizeof(record));
    return record;
}

// What the drivers have printed since the object was made.
class DebugOutput
{
  public:
    DebugOutput();
    size_t Count(const std::string& text) const;
    bool Shows(const std::string& text) const; // waits for it

  private:
    const size_t begin_;
};

// The framework and the hook driver with its two adapters, not bound and not open yet.
class Room
{
  public:
    Room();
    ~Room() { hook.reset(); }

    DWORD Ask(uint32_t code, std::span<const uint8_t> input)
    {
        return hook->Control(code, input, input.size()).error;
    }
    DWORD Bind(const LoopBinding& binding = {168, 168, 1, 0}) { return Ask(LOOPHOOK_BIND, Bytes(binding)); }
    DWORD Unbind() { return Ask(LOOPHOOK_UNBIND, Bytes(LoopBinding{168, 168, 1, 0})); }
    void Open(); // the adapters, and binds
    DWORD Receive(const LoopFrame& frame) { return Ask(LOOPHOOK_RECEIVE, Bytes(frame)); }
    DWORD Send(const LoopFrame& frame) { return Ask(LOOPHOOK_SEND, Bytes(frame)); }
    LoopReport Report();

    Service filter{L"ndisfilter"};
    Service loophook{L"loophook"};
    std::optional<Device> hook;
};

// A UDP frame over IPv4 of 60 bytes with the given destination port.
LoopFrame UdpFrame(uint32_t adapter, uint16_t port);

} // namespace suite
