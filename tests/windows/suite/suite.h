// The frame of the tests that drive the real drivers: checks, services, the control device, and the debug
// output.
#pragma once

#include <windows.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace suite
{

// ---------------------------------------------------------------------------------------------------- tests

struct Options {
    std::wstring drivers;     // directory of the .sys files
    std::wstring debugOutput; // file that the drivers' debug output goes to
    uint32_t seed = 1;
};
extern Options options;

using Test = void (*)();

// A test of a group. One run of the program runs one group.
struct Registration {
    Registration(const char* group, const char* name, Test test);
};

#define TEST(Group, Name)                                                                                    \
    static void Name();                                                                                      \
    static const suite::Registration Name##Registration(#Group, #Name, Name);                                \
    static void Name()

struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};
struct Skipped : std::runtime_error {
    using std::runtime_error::runtime_error;
};

std::string Place(const char* file, int line);
std::string Text(uint64_t value);
std::string Text(const std::string& value);
std::string Narrow(const std::wstring& text);

#define CHECK(Condition)                                                                                     \
    do {                                                                                                     \
        if (!(Condition)) {                                                                                  \
            throw suite::Failure(suite::Place(__FILE__, __LINE__) + #Condition);                             \
        }                                                                                                    \
    } while (false)

#define CHECK_EQUAL(Actual, Expected)                                                                        \
    do {                                                                                                     \
        const auto actual = (Actual);                                                                        \
        if (!(actual == (Expected))) {                                                                       \
            throw suite::Failure(suite::Place(__FILE__, __LINE__) + #Actual " is " + suite::Text(actual) +   \
                                 ", expected " + suite::Text(Expected));                                     \
        }                                                                                                    \
    } while (false)

// Looks at a condition until it holds, for ten seconds.
bool WaitFor(const std::function<bool()>& condition);

// Runs the tests of a group in another process and answers its exit code.
DWORD RunGroup(const std::wstring& group);

// -------------------------------------------------------------------------------------------------- services

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

bool IsWine();
bool Exists(const std::wstring& path);

// Has cleanup requests sent to the framework, which must be loaded as long: Wine sends none.
class CleanupRequests
{
  public:
    CleanupRequests();

  private:
    std::optional<Service> shim_;
};

// --------------------------------------------------------------------------------------------------- devices

constexpr DWORD kPending = ERROR_IO_PENDING;

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

    static DWORD OpenError(const wchar_t* name); // 0 when it can be opened

    // One request that is not parked.
    Answer Control(uint32_t code, std::span<const uint8_t> input = {}, size_t outputLength = 0);
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
        throw Failure("an answer of " + Text(bytes.size()) + " bytes, expected " + Text(sizeof(Record)));
    }
    Record record;
    memcpy(&record, bytes.data(), sizeof(record));
    return record;
}

// ---------------------------------------------------------------------------------------------- debug output

// What the drivers have printed since the object was made.
class DebugOutput
{
  public:
    DebugOutput();
    std::vector<std::string> Lines() const;
    size_t Count(const std::string& text) const;      // lines that hold it
    bool Shows(const std::string& text) const;        // waits for it
    bool ShowsExactly(const std::string& line) const; // waits for it

  private:
    size_t begin_;
};

} // namespace suite
