// The control device on Windows.
#include "device.h"

#include "ndisfilter-user.h"

#include <algorithm>
#include <array>

#include <windows.h>
#include <winternl.h>

namespace ndisfilter
{

namespace
{

constexpr int32_t kStatusPending = 0x00000103;
constexpr int32_t kStatusInfoLengthMismatch = static_cast<int32_t>(0xC0000004);
constexpr int32_t kStatusSharingViolation = static_cast<int32_t>(0xC0000043);
constexpr int32_t kStatusInsufficientResources = static_cast<int32_t>(0xC000009A);

std::string TextOfError(DWORD error)
{
    std::array<char, 256> text = {};
    DWORD length = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, error,
                                  0, text.data(), static_cast<DWORD>(text.size()), nullptr);
    while (length > 0 && (text[length - 1] == '\n' || text[length - 1] == '\r' || text[length - 1] == '.')) {
        --length;
    }
    return std::string(text.data(), length) + " (error " + std::to_string(error) + ")";
}

// One request. The system writes into it until the request is complete. It is given by the system's own call, which
// answers with the driver's status; the error codes that DeviceIoControl makes of them do not tell them all apart.
class Request final : public PendingControl
{
  public:
    explicit Request(HANDLE device) : device_(device), event_(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}
    ~Request() override
    {
        if (pending_) {
            Cancel();
            Finish();
        }
        if (event_ != nullptr) {
            CloseHandle(event_);
        }
    }
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    void Start(uint32_t code, std::span<const uint8_t> input, std::span<uint8_t> output)
    {
        if (event_ == nullptr) {
            result_ = {kStatusInsufficientResources, 0};
            return;
        }
        const NTSTATUS status = NtDeviceIoControlFile(
            device_, event_, nullptr, nullptr, &progress_, code, const_cast<uint8_t*>(input.data()),
            static_cast<ULONG>(input.size()), output.data(), static_cast<ULONG>(output.size()));
        pending_ = status == kStatusPending;
        if (!pending_) { // of an error the record is not written
            result_ = {static_cast<int32_t>(status),
                       NT_ERROR(status) ? 0 : static_cast<size_t>(progress_.Information)};
        }
    }

    std::optional<ControlResult> Wait(std::optional<uint32_t> timeoutMs) override
    {
        if (pending_) {
            // INFINITE is the largest number.
            const DWORD wait = timeoutMs ? std::min<DWORD>(*timeoutMs, INFINITE - 1) : INFINITE;
            if (WaitForSingleObject(event_, wait) == WAIT_TIMEOUT) {
                return std::nullopt;
            }
            Finish();
        }
        return result_;
    }

    // The record takes the place of an OVERLAPPED, whose first two fields it is.
    void Cancel() override { CancelIoEx(device_, reinterpret_cast<OVERLAPPED*>(&progress_)); }

  private:
    void Finish()
    {
        WaitForSingleObject(event_, INFINITE);
        pending_ = false;
        result_ = {static_cast<int32_t>(progress_.Status), static_cast<size_t>(progress_.Information)};
    }

    const HANDLE device_;
    const HANDLE event_;
    IO_STATUS_BLOCK progress_ = {};
    bool pending_ = false;
    ControlResult result_;
};

class WindowsDevice final : public Device
{
  public:
    explicit WindowsDevice(HANDLE handle) : handle_(handle) {}
    ~WindowsDevice() override { CloseHandle(handle_); }
    WindowsDevice(const WindowsDevice&) = delete;
    WindowsDevice& operator=(const WindowsDevice&) = delete;

    ControlResult Control(uint32_t code, std::span<const uint8_t> input, std::span<uint8_t> output) override
    {
        Request request(handle_);
        request.Start(code, input, output);
        return *request.Wait(std::nullopt);
    }

    std::unique_ptr<PendingControl> Send(uint32_t code) override
    {
        auto request = std::make_unique<Request>(handle_);
        request->Start(code, {}, {});
        return request;
    }

    void* StartShare(uint32_t value, int32_t* status) override
    {
        uint64_t address = 0;
        const ControlResult result =
            Control(IOCTL_NDIS_FILTER_START_SHARE, {reinterpret_cast<const uint8_t*>(&value), sizeof(value)},
                    {reinterpret_cast<uint8_t*>(&address), sizeof(address)});
        *status = result.status;
        if (result.status < 0) {
            return nullptr;
        }
        if (result.returned != sizeof(address) || address == 0) {
            *status = kStatusInfoLengthMismatch;
            return nullptr;
        }
        if (address == NDIS_FILTER_SHARE_FAILED) {
            *status = kStatusSharingViolation;
            return nullptr;
        }
        return reinterpret_cast<void*>(static_cast<uintptr_t>(address));
    }

    ControlResult StopShare() override { return Control(IOCTL_NDIS_FILTER_STOP_SHARE, {}, {}); }

  private:
    const HANDLE handle_;
};

std::wstring Widen(const std::string& text)
{
    const int length =
        MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring wide(static_cast<size_t>(length), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide.data(), length);
    return wide;
}

std::string Advice(DWORD error)
{
    switch (error) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
        return "; the driver is not running: start it with 'sc start ndisfilter'";
    case ERROR_ACCESS_DENIED:
        return "; run the program as administrator";
    default:
        return "";
    }
}

} // namespace

std::unique_ptr<Device> OpenDevice(const std::string& name, std::string* error)
{
    const std::string path = name.empty() ? NDIS_FILTER_DEVICE_WIN32_NAME : name;
    const HANDLE handle = CreateFileW(Widen(path).c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                      OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OVERLAPPED, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        const DWORD code = GetLastError();
        *error = "cannot open the control device " + path + ": " + TextOfError(code) + Advice(code);
        return nullptr;
    }
    return std::make_unique<WindowsDevice>(handle);
}

} // namespace ndisfilter
