// Requests (IRPs): what the I/O manager keeps about each, and how their sender sees them.
#pragma once

#include <ntddk.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kernel
{

// What became of one request. It outlives the request, which is freed on its completion.
class Outcome
{
  public:
    explicit Outcome(std::string what) : what_(std::move(what)) {}

    bool IsComplete() const;
    // Waits for the completion; false after `limit`.
    bool Wait(std::optional<std::chrono::milliseconds> limit) const;
    // Cancels the request; false when it is complete already or nothing there can be cancelled.
    bool Cancel();

    // Valid once complete.
    IO_STATUS_BLOCK Result() const;
    const std::vector<uint8_t>& Output() const { return output_; }
    NTSTATUS DispatchStatus() const;

    // For the I/O manager. The request is under way; it can be cancelled from now on.
    void Started(IRP* irp);
    // The dispatch routine has returned. False: it left a request behind that is neither complete nor pending.
    bool Dispatched(NTSTATUS status);
    // The request is about to be freed: no cancel may begin to use it any more.
    void Ending();
    // The request is complete. `pending`: its dispatch routine had marked it pending.
    void Completed(bool pending, const IO_STATUS_BLOCK& result, std::vector<uint8_t> output);

  private:
    void CheckPendingMark() const;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    const std::string what_;
    IRP* irp_ = nullptr;
    bool complete_ = false;
    bool dispatched_ = false;
    bool markedPending_ = false;
    NTSTATUS dispatchStatus_ = STATUS_PENDING;
    IO_STATUS_BLOCK result_ = {};
    std::vector<uint8_t> output_;
};

enum class IrpOrigin : uint8_t {
    Request, // of a program or of the I/O manager itself
    Built,   // of a driver, freed by the I/O manager (IoBuildDeviceIoControlRequest)
    Driver,  // of a driver, freed by that driver (IoAllocateIrp)
};

// The I/O manager's own part of a request lies in front of it, the stack locations behind.
struct IrpRecord {
    IrpOrigin origin;
    std::atomic<uint32_t> references{1}; // being under way, and each cancel that is at work on it
    std::shared_ptr<Outcome> outcome;    // from its start to the completion of the first location
    std::vector<uint8_t> directOutput; // what the MDL or the user pointer of an unbuffered Request describes
    IRP irp;
};

// Zeroed, with the given number of stack locations. Never fails; injected faults are the caller's.
IrpRecord* NewIrp(IrpOrigin origin, CCHAR stackSize);
IrpRecord* RecordOf(IRP* irp);
void ReleaseIrp(IrpRecord* record);
bool IsLive(IRP* irp); // allocated and not freed; the pointer may be wild

// Fills the next stack location and the buffers of a device control. `input` holds inputBytes bytes, at most
// inputLength of them are copied; `output` is used by the methods that do not go through the system buffer.
void PrepareControl(IRP* irp, UCHAR major, ULONG code, const void* input, size_t inputBytes,
                    ULONG inputLength, void* output, ULONG outputLength);
struct CreateParameters;
// Fills the next stack location and the buffer of a create request.
void PrepareCreate(IRP* irp, const CreateParameters& parameters);
// Frees the system buffer and the MDL of these.
void FreeControlBuffers(IRP* irp);

// The dispatch routine of every major function that a driver does not set.
NTSTATUS RejectRequest(DEVICE_OBJECT* device, IRP* irp);

// A request of a program or of the I/O manager.
struct RequestParameters {
    UCHAR major = IRP_MJ_DEVICE_CONTROL;
    FILE_OBJECT* file = nullptr;
    KPROCESSOR_MODE mode = UserMode;
    const CreateParameters* create = nullptr; // create only
    // Device control only.
    ULONG code = 0;
    const void* input = nullptr;
    size_t inputBytes = 0;
    ULONG inputLength = 0;
    ULONG outputLength = 0;
    bool noBuffer = false; // the lengths stay, the system buffer is null
};

// Sends the request and returns once the dispatch routine has returned; it may be pending then. The dispatch runs
// on the calling thread, in the context of the process that the thread is in.
std::shared_ptr<Outcome> SendRequest(DEVICE_OBJECT* device, const RequestParameters& parameters);

} // namespace kernel
