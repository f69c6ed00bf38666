// Client drivers and packet filters for tests. Both deregister when they go.
#pragma once

#include "frames.h"

#include <ntddk.h>

#include <ndis.h>

#include <ndisfilter.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace support
{

// A counted string without a terminating zero.
class CountedString
{
  public:
    explicit CountedString(std::string text);
    CountedString(const CountedString&) = delete;
    CountedString& operator=(const CountedString&) = delete;
    const STRING* operator&() const { return &string_; } // as the exports take it

  private:
    std::vector<char> text_;
    STRING string_;
};

// Takes what a name getter handed out: frees it and answers the text, "(none)" for null.
std::string TakeName(STRING* name);

uint32_t IdOf(FilterAdapter* adapter);

class TestDriver
{
  public:
    // Fails the test when it cannot be registered.
    explicit TestDriver(const std::string& name = "client", void* context = nullptr);
    ~TestDriver();
    TestDriver(const TestDriver&) = delete;
    TestDriver& operator=(const TestDriver&) = delete;

    FilterDriver* Handle() const { return handle_; }
    FILTER_STATUS Deregister();
    void Forget() { handle_ = nullptr; } // it is left to the framework's unload

  private:
    FilterDriver* handle_ = nullptr;
};

class TestFilter
{
  public:
    using Procedure = std::function<FILTER_RESULT(FilterPacket* packet)>;

    struct Options {
        std::string name = ""; // "": one that no other filter has
        FILTER_TYPE type = FILTER_TYPE_INCOMING_PACKET;
        FILTER_ORDER order = FILTER_ORDER_LAST;
    };

    // What one call of the procedure got.
    struct Call {
        FilterDriver* driver;
        void* driverContext;
        PacketFilter* filter;
        FilterPacket* packet;
        Bytes frame; // the m_nBytesRead bytes of m_Data that were there
    };

    // Fails the test when it cannot be registered. Without a procedure every packet is bypassed.
    TestFilter(TestDriver& driver, const Options& options, Procedure procedure = {});
    ~TestFilter();
    TestFilter(const TestFilter&) = delete;
    TestFilter& operator=(const TestFilter&) = delete;

    PacketFilter* Handle() const { return handle_; }
    FILTER_STATUS Deregister();
    void Forget() { handle_ = nullptr; }  // it goes with its driver
    const void* ProcedureAddress() const; // as it was registered
    std::vector<Call> Calls() const;
    size_t CallCount() const { return Calls().size(); }

  private:
    static FILTER_RESULT Run(FilterDriver* driver, PVOID driverContext, PacketFilter* filter,
                             PVOID filterContext, FilterPacket* packet);

    TestDriver& driver_;
    PacketFilter* handle_ = nullptr;
    Procedure procedure_;
    mutable std::mutex mutex_;
    std::vector<Call> calls_;
};

// A client driver with a handler of control requests.
class HandlingDriver
{
  public:
    struct Request {
        PIRP irp;
        ULONG code;
        void* input;
        ULONG inputLength;
        void* output;
        ULONG outputLength;
        ULONG_PTR* returned;
    };
    using Answer = std::function<NTSTATUS(const Request& request)>;

    // Fails the test when it cannot be registered.
    HandlingDriver(const std::string& name, Answer answer);

    TestDriver driver;

  private:
    static NTSTATUS Handle(PVOID context, PIRP irp, ULONG code, PVOID input, ULONG inputLength, PVOID output,
                           ULONG outputLength, ULONG_PTR* returned);
    Answer answer_;
};

} // namespace support
