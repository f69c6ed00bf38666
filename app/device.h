// The control device as the client library sees it: one implementation talks to Windows, one to a running lab.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace ndisfilter
{

// What a request came to. `status` is an NTSTATUS, that of the driver where it answered.
struct ControlResult {
    int32_t status = 0;
    size_t returned = 0; // bytes of output that were written
};

// A request that may still be pending.
class PendingControl
{
  public:
    virtual ~PendingControl() = default; // cancels and waits when it is still pending
    // Waits at most timeoutMs (forever when nothing is given); nothing when it is still pending.
    virtual std::optional<ControlResult> Wait(std::optional<uint32_t> timeoutMs) = 0;
    virtual void Cancel() = 0; // harmless when it is complete
};

// An open handle of the control device. Requests may be made from several threads at once.
class Device
{
  public:
    virtual ~Device() = default; // closes the handle
    virtual ControlResult Control(uint32_t code, std::span<const uint8_t> input, std::span<uint8_t> output) = 0;
    virtual std::unique_ptr<PendingControl> Send(uint32_t code) = 0; // no input and no output
    // START_SHARE: the address of SharedMemory in this process, null when it failed.
    virtual void* StartShare(uint32_t value, int32_t* status) = 0;
    virtual ControlResult StopShare() = 0;
};

// Opens the control device. `name` is empty for the default: \\.\NdisFilter on Windows, the socket of the running
// lab on Linux ($NDISFILTER_LAB_SOCKET, else $XDG_RUNTIME_DIR/ndisfilter-lab.sock, else
// /tmp/ndisfilter-lab-<uid>.sock). Null with a line in *error that says what failed and what to do.
std::unique_ptr<Device> OpenDevice(const std::string& name, std::string* error);

} // namespace ndisfilter
