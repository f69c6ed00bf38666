// The sender's side of requests.
#include "irp.h"

#include "device.h"
#include "machine.h"
#include "verifier.h"

namespace kernel
{
namespace
{

const char* MajorName(UCHAR major)
{
    switch (major) {
    case IRP_MJ_CREATE:
        return "IRP_MJ_CREATE";
    case IRP_MJ_CLOSE:
        return "IRP_MJ_CLOSE";
    case IRP_MJ_CLEANUP:
        return "IRP_MJ_CLEANUP";
    case IRP_MJ_DEVICE_CONTROL:
        return "IRP_MJ_DEVICE_CONTROL";
    case IRP_MJ_INTERNAL_DEVICE_CONTROL:
        return "IRP_MJ_INTERNAL_DEVICE_CONTROL";
    case IRP_MJ_SHUTDOWN:
        return "IRP_MJ_SHUTDOWN";
    default:
        return "request";
    }
}

std::string Describe(DEVICE_OBJECT* device, const RequestParameters& parameters)
{
    std::string text = std::string(MajorName(parameters.major)) + " to " + DeviceName(device);
    if (parameters.major == IRP_MJ_DEVICE_CONTROL || parameters.major == IRP_MJ_INTERNAL_DEVICE_CONTROL) {
        char code[32];
        snprintf(code, sizeof(code), ", code 0x%08X", parameters.code);
        text += code;
    }
    return text;
}

} // namespace

bool Outcome::IsComplete() const
{
    std::lock_guard lock(mutex_);
    return complete_;
}

bool Outcome::Wait(std::optional<std::chrono::milliseconds> limit) const
{
    std::unique_lock lock(mutex_);
    if (limit) {
        return changed_.wait_for(lock, *limit, [this] { return complete_; });
    }
    changed_.wait(lock, [this] { return complete_; });
    return true;
}

bool Outcome::Cancel()
{
    IrpRecord* record = nullptr;
    {
        std::lock_guard lock(mutex_);
        if (complete_ || irp_ == nullptr) {
            return false;
        }
        record = RecordOf(irp_);
        ++record->references; // keeps the memory while a completion on another thread frees the request
    }
    const bool cancelled = IoCancelIrp(&record->irp) != FALSE;
    ReleaseIrp(record);
    return cancelled;
}

IO_STATUS_BLOCK Outcome::Result() const
{
    std::lock_guard lock(mutex_);
    return result_;
}

NTSTATUS Outcome::DispatchStatus() const
{
    std::lock_guard lock(mutex_);
    return dispatchStatus_;
}

void Outcome::Started(IRP* irp)
{
    std::lock_guard lock(mutex_);
    irp_ = irp;
}

bool Outcome::Dispatched(NTSTATUS status)
{
    std::lock_guard lock(mutex_);
    dispatched_ = true;
    dispatchStatus_ = status;
    if (complete_) {
        CheckPendingMark();
    } else if (status != STATUS_PENDING) {
        Report("irp-not-completed", "IofCallDriver",
               "%s: the dispatch routine returned 0x%08X, which is not STATUS_PENDING, and completed nothing",
               what_.c_str(), static_cast<unsigned>(status));
        return false;
    }
    return true;
}

void Outcome::Ending()
{
    std::lock_guard lock(mutex_);
    irp_ = nullptr;
}

void Outcome::Completed(bool pending, const IO_STATUS_BLOCK& result, std::vector<uint8_t> output)
{
    std::lock_guard lock(mutex_);
    markedPending_ = pending;
    result_ = result;
    output_ = std::move(output);
    if (dispatched_) {
        CheckPendingMark();
    }
    complete_ = true;
    changed_.notify_all(); // under the lock: the waiter may destroy this object as soon as it is released
}

// Whichever of dispatch and completion ends last compares what the dispatch routine returned with its mark.
void Outcome::CheckPendingMark() const
{
    const bool returnedPending = dispatchStatus_ == STATUS_PENDING;
    if (returnedPending && !markedPending_) {
        Report("irp-pending-not-marked", "IofCallDriver",
               "%s: STATUS_PENDING returned without a call of IoMarkIrpPending", what_.c_str());
    } else if (!returnedPending && markedPending_) {
        Report("irp-marked-not-pending", "IofCallDriver",
               "%s: marked pending, but the dispatch routine returned 0x%08X", what_.c_str(),
               static_cast<unsigned>(dispatchStatus_));
    }
}

std::shared_ptr<Outcome> SendRequest(DEVICE_OBJECT* device, const RequestParameters& parameters)
{
    const std::string what = Describe(device, parameters);
    auto outcome = std::make_shared<Outcome>(what);
    IrpRecord* record = NewIrp(IrpOrigin::Request, device->StackSize);
    IRP* irp = &record->irp;
    record->outcome = outcome;
    irp->RequestorMode = parameters.mode;
    irp->Tail.Overlay.OriginalFileObject = parameters.file;
    IO_STACK_LOCATION* next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = parameters.major;
    next->FileObject = parameters.file;
    if (parameters.major == IRP_MJ_DEVICE_CONTROL || parameters.major == IRP_MJ_INTERNAL_DEVICE_CONTROL) {
        record->directOutput.resize(
            METHOD_FROM_CTL_CODE(parameters.code) != METHOD_BUFFERED ? parameters.outputLength : 0);
        PrepareControl(irp, parameters.major, parameters.code, parameters.input, parameters.inputBytes,
                       parameters.inputLength, record->directOutput.data(), parameters.outputLength);
        if (parameters.noBuffer) {
            FreeControlBuffers(irp);
        }
    }
    if (parameters.create != nullptr) {
        PrepareCreate(irp, *parameters.create);
    }
    outcome->Started(irp);
    IofCallDriver(device, irp);
    machine::CheckReturnToUser(what.c_str());
    return outcome;
}

} // namespace kernel
