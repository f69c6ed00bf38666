// The control device on Windows.
#include "device.h"

#include "ndisfilter-user.h"

#include <algorithm>
#include <array>
#include <iterator>

#include <windows.h>

namespace ndisfilter
{

namespace
{

constexpr int32_t kStatusSuccess = 0;
constexpr int32_t kStatusPending = 0x00000103;
constexpr int32_t kStatusUnsuccessful = static_cast<int32_t>(0xC0000001);
constexpr int32_t kStatusInfoLengthMismatch = static_cast<int32_t>(0xC0000004);
constexpr int32_t kStatusSharingViolation = static_cast<int32_t>(0xC0000043);
constexpr int32_t kStatusInsufficientResources = static_cast<int32_t>(0xC000009A);

struct ErrorStatus {
    DWORD error;
    uint32_t status;
};

// The status that stands behind an error of a request. Where several become one error, the one of this driver.
constexpr ErrorStatus kErrorStatuses[] = {
    {ERROR_INVALID_FUNCTION, 0xC0000010},    // STATUS_INVALID_DEVICE_REQUEST
    {ERROR_FILE_NOT_FOUND, 0xC0000034},      // STATUS_OBJECT_NAME_NOT_FOUND
    {ERROR_ACCESS_DENIED, 0xC0000022},       // STATUS_ACCESS_DENIED
    {ERROR_INVALID_HANDLE, 0xC0000008},      // STATUS_INVALID_HANDLE
    {ERROR_NOT_ENOUGH_MEMORY, 0xC000009A},   // STATUS_INSUFFICIENT_RESOURCES
    {ERROR_NOT_READY, 0xC00000A3},           // STATUS_DEVICE_NOT_READY
    {ERROR_GEN_FAILURE, 0xC0000001},         // STATUS_UNSUCCESSFUL
    {ERROR_NOT_SUPPORTED, 0xC00000BB},       // STATUS_NOT_SUPPORTED
    {ERROR_INVALID_PARAMETER, 0xC000000D},   // STATUS_INVALID_PARAMETER
    {ERROR_INSUFFICIENT_BUFFER, 0xC0000023}, // STATUS_BUFFER_TOO_SMALL
    {ERROR_BUSY, 0x80000011},                // STATUS_DEVICE_BUSY
    {ERROR_MORE_DATA, 0x80000005},           // STATUS_BUFFER_OVERFLOW
    {ERROR_MR_MID_NOT_FOUND, 0xC0010006},  // NDIS_STATUS_ADAPTER_NOT_FOUND: the system knows no error for it
    {ERROR_NOACCESS, 0xC0000005},          // STATUS_ACCESS_VIOLATION
    {ERROR_OPERATION_ABORTED, 0xC0000120}, // STATUS_CANCELLED
    {ERROR_INTERNAL_ERROR, 0xC00000E5},    // STATUS_INTERNAL_ERROR
    {ERROR_NO_SYSTEM_RESOURCES, 0xC000009A}, // STATUS_INSUFFICIENT_RESOURCES
};

int32_t StatusOfError(DWORD error)
{
    const auto found = std::ranges::find(kErrorStatuses, error, &ErrorStatus::error);
    return found == std::end(kErrorStatuses) ? kStatusUnsuccessful : static_cast<int32_t>(found->status);
}

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

// One request of an overlapped handle. The system writes into it until the request is complete.
class Request final : public PendingControl
{
  public:
    explicit Request(HANDLE device) : device_(device)
    {
        overlapped_.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    }
    ~Request() override
    {
        if (pending_) {
            Cancel();
            Finish();
        }
        if (overlapped_.hEvent != nullptr) {
            CloseHandle(overlapped_.hEvent);
        }
    }
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    void Start(uint32_t code, std::span<const uint8_t> input, std::span<uint8_t> output)
    {
        if (overlapped_.hEvent == nullptr) {
            result_ = {kStatusInsufficientResources, 0};
            return;
        }
        overlapped_.Internal = kStatusPending;
        const BOOL done = DeviceIoControl(device_, code, const_cast<uint8_t*>(input.data()),
                                          static_cast<DWORD>(input.size()), output.data(),
                                          static_cast<DWORD>(output.size()), nullptr, &overlapped_);
        pending_ = done || GetLastError() == ERROR_IO_PENDING;
        if (!pending_) {
            result_ = {FailureStatus(GetLastError()), 0};
        }
    }

    std::optional<ControlResult> Wait(std::optional<uint32_t> timeoutMs) override
    {
        if (pending_) {
            // INFINITE is the largest number.
            const DWORD wait = timeoutMs ? std::min<DWORD>(*timeoutMs, INFINITE - 1) : INFINITE;
            if (WaitForSingleObject(overlapped_.hEvent, wait) == WAIT_TIMEOUT) {
                return std::nullopt;
            }
            Finish();
        }
        return result_;
    }

    void Cancel() override { CancelIoEx(device_, &overlapped_); }

  private:
    void Finish()
    {
        DWORD returned = 0;
        const BOOL succeeded = GetOverlappedResult(device_, &overlapped_, &returned, TRUE);
        pending_ = false;
        result_ = {succeeded ? kStatusSuccess : FailureStatus(GetLastError()), returned};
    }

    // The system leaves the request's own status in the record; it is exact where errors stand for several.
    int32_t FailureStatus(DWORD error) const
    {
        const auto status = static_cast<int32_t>(overlapped_.Internal);
        return status < 0 ? status : StatusOfError(error);
    }

    const HANDLE device_;
    OVERLAPPED overlapped_ = {};
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
