#include "suite.h"

#include <winsvc.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>

namespace suite
{

namespace
{

constexpr wchar_t kGroup[] = L"NdisFilterTest";
constexpr DWORD kPatienceMs = 10000;

Failure SystemFailure(const std::string& what)
{
    return Failure(what + ": error " + std::to_string(GetLastError()));
}

SC_HANDLE ServiceManager()
{
    static const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS);
    return manager;
}

} // namespace

Options options;

std::string Narrow(const std::wstring& text)
{
    std::string narrow;
    std::transform(text.begin(), text.end(), std::back_inserter(narrow),
                   [](wchar_t character) { return static_cast<char>(character); });
    return narrow;
}

bool IsWine()
{
    return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

std::string ReadWhole(const std::wstring& path)
{
    std::ifstream file(path.c_str(), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

Ended RunProgram(const std::wstring& name, const std::wstring& arguments)
{
    // In quotes as a whole, which the shell takes off.
    const std::wstring command = L"\"\"" + options.drivers + L"\\" + name + L"\" " + arguments + L" 2>&1\"";
    FILE* const pipe = _wpopen(command.c_str(), L"rt");
    if (pipe == nullptr) {
        throw Failure(Narrow(name) + " cannot be run");
    }
    std::string output;
    for (int character; (character = fgetc(pipe)) != EOF;) {
        output.push_back(static_cast<char>(character));
    }
    return {_pclose(pipe), output};
}

static SC_HANDLE Create(const std::wstring& name)
{
    const std::wstring path = options.drivers + L"\\" + name + L".sys";
    return CreateServiceW(ServiceManager(), name.c_str(), name.c_str(), SERVICE_ALL_ACCESS,
                          SERVICE_KERNEL_DRIVER, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL, path.c_str(),
                          kGroup, nullptr, nullptr, nullptr, nullptr);
}

Service::Service(const std::wstring& name) : name_(name), handle_(Create(name))
{
    if (handle_ == nullptr && GetLastError() == ERROR_SERVICE_EXISTS) {
        // What a run that was cut off has left behind.
        const SC_HANDLE leftover = OpenServiceW(ServiceManager(), name.c_str(), SERVICE_ALL_ACCESS);
        DeleteService(leftover);
        CloseServiceHandle(leftover);
        handle_ = Create(name);
    }
    if (handle_ == nullptr) {
        throw SystemFailure("service " + Narrow(name) + " cannot be created");
    }
}

Service::~Service()
{
    SERVICE_STATUS status;
    ControlService(handle_, SERVICE_CONTROL_STOP, &status);
    DeleteService(handle_);
    CloseServiceHandle(handle_);
}

static void SetValue(const std::wstring& service, const wchar_t* name, DWORD type, const void* data,
                     size_t size)
{
    const std::wstring key = L"System\\CurrentControlSet\\Services\\" + service;
    const LSTATUS status =
        RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), name, type, data, static_cast<DWORD>(size));
    if (status != ERROR_SUCCESS) {
        throw Failure("registry value of " + Narrow(service) + " cannot be set: error " +
                      std::to_string(status));
    }
}

void Service::SetNumber(const wchar_t* name, uint32_t value)
{
    SetValue(name_, name, REG_DWORD, &value, sizeof(value));
}

void Service::SetText(const wchar_t* name, const std::wstring& value)
{
    SetValue(name_, name, REG_SZ, value.c_str(), (value.size() + 1) * sizeof(wchar_t));
}

bool Service::IsRunning()
{
    SERVICE_STATUS status = {};
    QueryServiceStatus(handle_, &status);
    return status.dwCurrentState == SERVICE_RUNNING;
}

void Service::Start()
{
    if (!StartServiceW(handle_, 0, nullptr)) {
        throw SystemFailure("service " + Narrow(name_) + " cannot be started");
    }
    if (!Eventually([this] { return IsRunning(); })) {
        throw Failure("service " + Narrow(name_) + " does not run");
    }
}

void Service::Stop()
{
    SERVICE_STATUS status = {};
    if (!ControlService(handle_, SERVICE_CONTROL_STOP, &status)) {
        throw SystemFailure("service " + Narrow(name_) + " cannot be stopped");
    }
    if (!Eventually([&] {
            return QueryServiceStatus(handle_, &status) && status.dwCurrentState == SERVICE_STOPPED;
        })) {
        throw Failure("service " + Narrow(name_) + " does not stop");
    }
}

CleanupRequests::CleanupRequests()
{
    if (IsWine()) {
        shim_.emplace(L"cleanup-shim");
        shim_->Start();
    }
}

Device::Device(const wchar_t* name)
    : handle_(CreateFileW(name, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_FLAG_OVERLAPPED,
                          nullptr))
{
    if (handle_ == INVALID_HANDLE_VALUE) {
        throw SystemFailure("device " + Narrow(name) + " cannot be opened");
    }
}

Device::~Device()
{
    Close();
}

void Device::Close()
{
    if (handle_ != INVALID_HANDLE_VALUE) {
        CloseHandle(handle_);
        handle_ = INVALID_HANDLE_VALUE;
    }
}

Answer Device::Control(uint32_t code, std::span<const uint8_t> input, size_t outputLength)
{
    return Request(*this, code, input, outputLength).Wait();
}

uint64_t Device::StartShare()
{
    return As<uint64_t>(Control(IOCTL_NDIS_FILTER_START_SHARE, Bytes(uint32_t{1}), 8).bytes);
}

Request::Request(Device& device, uint32_t code, std::span<const uint8_t> input, size_t outputLength)
    : device_(device.Handle()), input_(input.begin(), input.end()), output_(outputLength)
{
    overlapped_.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (!DeviceIoControl(device_, code, input_.data(), static_cast<DWORD>(input_.size()), output_.data(),
                         static_cast<DWORD>(output_.size()), nullptr, &overlapped_)) {
        error_ = GetLastError();
        pending_ = error_ == ERROR_IO_PENDING;
    }
}

Request::~Request()
{
    if (pending_) {
        Cancel();
        // Buffers and record must outlive the request, so there is no going on without its end.
        if (WaitForSingleObject(overlapped_.hEvent, kPatienceMs) != WAIT_OBJECT_0) {
            printf("FAILED   a cancelled request does not end\n");
            TerminateProcess(GetCurrentProcess(), 3);
        }
    }
    CloseHandle(overlapped_.hEvent);
}

void Request::Cancel()
{
    CancelIoEx(device_, &overlapped_);
}

Answer Request::Wait()
{
    if (pending_) {
        if (WaitForSingleObject(overlapped_.hEvent, kPatienceMs) != WAIT_OBJECT_0) {
            throw Failure("a request does not end");
        }
        pending_ = false;
        DWORD returned;
        error_ =
            GetOverlappedResult(device_, &overlapped_, &returned, FALSE) ? ERROR_SUCCESS : GetLastError();
    }
    const size_t returned = error_ == ERROR_SUCCESS ? overlapped_.InternalHigh : 0;
    if (returned > output_.size()) {
        throw Failure("a request returns more bytes than its buffer has: " + std::to_string(returned));
    }
    return {error_, {output_.begin(), output_.begin() + static_cast<ptrdiff_t>(returned)}};
}

DebugOutput::DebugOutput() : begin_(ReadWhole(options.debugOutput).size()) {}

size_t DebugOutput::Count(const std::string& text) const
{
    const std::string output = ReadWhole(options.debugOutput);
    size_t count = 0;
    for (size_t at = begin_; (at = output.find(text, at)) != std::string::npos; at += text.size()) {
        ++count;
    }
    return count;
}

bool DebugOutput::Shows(const std::string& text) const
{
    return Eventually([&] { return Count(text) > 0; });
}

Room::Room()
{
    filter.Start();
    loophook.Start();
    hook.emplace(L"\\\\.\\LoopHook");
}

void Room::Open()
{
    for (uint32_t adapter = 0; adapter < LOOPHOOK_ADAPTERS; ++adapter) {
        EXPECT_EQ(Ask(LOOPHOOK_OPEN, Bytes(adapter)), DWORD{ERROR_SUCCESS});
    }
    EXPECT_EQ(Bind(), DWORD{ERROR_SUCCESS}); // reports those that are open
}

LoopReport Room::Report()
{
    return As<LoopReport>(hook->Control(LOOPHOOK_REPORT, {}, sizeof(LoopReport)).bytes);
}

LoopFrame UdpFrame(uint32_t adapter, uint16_t port)
{
    // Ethernet, IPv4 (RFC 791), UDP (RFC 768); checksums are nobody's business here.
    constexpr char headers[] = "\x02\0\0\0\0\x01\x02\0\0\0\0\x02\x08\0"
                               "\x45\0\0\x2e\0\0\0\0\x40\x11\0\0\x0a\0\0\x01\x0a\0\0\x02"
                               "\x30\x39\0\0\0\x1a\0";
    static_assert(sizeof(headers) == 42);
    LoopFrame frame = {adapter, 60, {}};
    memcpy(frame.bytes, headers, sizeof(headers));
    frame.bytes[36] = static_cast<uint8_t>(port >> 8);
    frame.bytes[37] = static_cast<uint8_t>(port);
    for (size_t i = sizeof(headers); i < frame.length; ++i) {
        frame.bytes[i] = static_cast<uint8_t>(i);
    }
    return frame;
}

} // namespace suite
