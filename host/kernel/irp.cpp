// The driver's side of requests: sending down, completing up.
#include "irp.h"

#include "file.h"
#include "pool.h"
#include "thread.h"
#include "verifier.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <unordered_set>
#include <utility>

namespace kernel
{
namespace
{

constexpr ULONG kIrpTag = 0x20707249;    // "Irp "
constexpr ULONG kBufferTag = 0x20426F49; // "IoB "

struct LiveIrps {
    std::mutex mutex;
    std::unordered_set<const IRP*> irps;
};

LiveIrps& AllIrps()
{
    static LiveIrps& irps = *new LiveIrps; // never destroyed: other threads may still run at exit
    return irps;
}

bool IsSuccessOrWarning(NTSTATUS status)
{
    return !NT_ERROR(status);
}

// The bytes that go back to the sender: what the driver reported, but never more than was asked for.
size_t BytesToReturn(const IRP* irp, const IO_STACK_LOCATION* top)
{
    if (top->MajorFunction != IRP_MJ_DEVICE_CONTROL && top->MajorFunction != IRP_MJ_INTERNAL_DEVICE_CONTROL) {
        return 0;
    }
    if (!IsSuccessOrWarning(irp->IoStatus.Status)) {
        return 0;
    }
    const auto& control = top->Parameters.DeviceIoControl;
    if (METHOD_FROM_CTL_CODE(control.IoControlCode) != METHOD_BUFFERED) {
        return std::min<size_t>(irp->IoStatus.Information, control.OutputBufferLength);
    }
    if (irp->IoStatus.Information > control.OutputBufferLength) {
        Report("irp-information-too-long", "IofCompleteRequest",
               "code 0x%08X: %zu bytes reported, the output has %u", control.IoControlCode,
               static_cast<size_t>(irp->IoStatus.Information), control.OutputBufferLength);
    }
    const size_t bytes = std::min<size_t>(irp->IoStatus.Information, control.OutputBufferLength);
    return irp->AssociatedIrp.SystemBuffer != nullptr ? bytes : 0;
}

// The last step of a completion, when no completion routine has kept the request.
void FinishIrp(IrpRecord* record, bool pending)
{
    IRP* irp = &record->irp;
    const IO_STACK_LOCATION* top = reinterpret_cast<IO_STACK_LOCATION*>(irp + 1) + irp->StackCount - 1;
    const IO_STATUS_BLOCK result = irp->IoStatus;
    const size_t bytes = BytesToReturn(irp, top);
    const bool buffered =
        METHOD_FROM_CTL_CODE(top->Parameters.DeviceIoControl.IoControlCode) == METHOD_BUFFERED;
    const auto* buffer = static_cast<const uint8_t*>(irp->AssociatedIrp.SystemBuffer);
    std::shared_ptr<Outcome> outcome = std::move(record->outcome);
    std::vector<uint8_t> output;
    IO_STATUS_BLOCK* userStatus = irp->UserIosb;
    KEVENT* event = irp->UserEvent;

    if (record->origin == IrpOrigin::Request && bytes != 0) {
        if (buffered) {
            output.assign(buffer, buffer + bytes);
        } else {
            output = std::move(record->directOutput);
            output.resize(bytes);
        }
    } else if (record->origin == IrpOrigin::Built && bytes != 0 && buffered && irp->UserBuffer != nullptr) {
        std::memcpy(irp->UserBuffer, buffer, bytes);
    }
    if (outcome != nullptr) {
        outcome->Ending();
    }
    FreeControlBuffers(irp);
    ReleaseIrp(record);

    // A request that fails within its dispatch routine tells so by the returned status alone.
    if (pending || IsSuccessOrWarning(result.Status)) {
        if (userStatus != nullptr) {
            *userStatus = result;
        }
        if (event != nullptr) {
            KeSetEvent(event, 0, FALSE);
        }
    }
    if (outcome != nullptr) {
        outcome->Completed(pending, result, std::move(output));
    }
}

bool WantsCall(const IO_STACK_LOCATION* location, const IRP* irp)
{
    const bool success = NT_SUCCESS(irp->IoStatus.Status);
    return (success && (location->Control & SL_INVOKE_ON_SUCCESS)) ||
           (!success && (location->Control & SL_INVOKE_ON_ERROR)) ||
           (irp->Cancel && (location->Control & SL_INVOKE_ON_CANCEL));
}

// A zeroed request with no stack location in use.
void InitializeIrp(IRP* irp, USHORT size, CHAR stackCount)
{
    irp->Type = IO_TYPE_IRP;
    irp->Size = size;
    irp->StackCount = stackCount;
    irp->CurrentLocation = static_cast<CHAR>(stackCount + 1);
    irp->Tail.Overlay.CurrentStackLocation = reinterpret_cast<IO_STACK_LOCATION*>(irp + 1) + stackCount;
    irp->Tail.Overlay.Thread = PsGetCurrentThread();
    InitializeListHead(&irp->ThreadListEntry);
}

// Some driver has it and has not completed it.
bool IsUnderWay(const IRP* irp)
{
    return irp->CurrentLocation <= irp->StackCount;
}

} // namespace

IrpRecord* NewIrp(IrpOrigin origin, CCHAR stackSize)
{
    const size_t irpSize = sizeof(IRP) + static_cast<size_t>(stackSize) * sizeof(IO_STACK_LOCATION);
    const size_t size = offsetof(IrpRecord, irp) + irpSize;
    void* block = AllocateBlock(size, kIrpTag, BlockKind::Irp, __builtin_return_address(0));
    std::memset(block, 0, size);
    auto* record = new (block) IrpRecord{.origin = origin, .outcome = {}, .directOutput = {}, .irp = {}};
    IRP* irp = &record->irp;
    InitializeIrp(irp, static_cast<USHORT>(irpSize), stackSize);
    LiveIrps& live = AllIrps();
    std::lock_guard lock(live.mutex);
    live.irps.insert(irp);
    ++Live().requests;
    return record;
}

IrpRecord* RecordOf(IRP* irp)
{
    return reinterpret_cast<IrpRecord*>(reinterpret_cast<uint8_t*>(irp) - offsetof(IrpRecord, irp));
}

bool IsLive(IRP* irp)
{
    LiveIrps& live = AllIrps();
    std::lock_guard lock(live.mutex);
    return live.irps.contains(irp);
}

void ReleaseIrp(IrpRecord* record)
{
    if (--record->references != 0) {
        return;
    }
    {
        LiveIrps& live = AllIrps();
        std::lock_guard lock(live.mutex);
        live.irps.erase(&record->irp);
        --Live().requests;
    }
    record->~IrpRecord();
    FreeBlock(record, BlockKind::Irp, "IofCompleteRequest");
}

void PrepareControl(IRP* irp, UCHAR major, ULONG code, const void* input, size_t inputBytes,
                    ULONG inputLength, void* output, ULONG outputLength)
{
    const ULONG method = METHOD_FROM_CTL_CODE(code);
    IO_STACK_LOCATION* next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = major;
    next->Parameters.DeviceIoControl.IoControlCode = code;
    next->Parameters.DeviceIoControl.InputBufferLength = inputLength;
    next->Parameters.DeviceIoControl.OutputBufferLength = outputLength;
    irp->UserBuffer = output;
    if (method == METHOD_NEITHER) {
        next->Parameters.DeviceIoControl.Type3InputBuffer = const_cast<void*>(input);
        return;
    }
    const ULONG buffer = method == METHOD_BUFFERED ? std::max(inputLength, outputLength) : inputLength;
    if (buffer != 0) {
        irp->AssociatedIrp.SystemBuffer =
            AllocateBlock(buffer, kBufferTag, BlockKind::SystemBuffer, __builtin_return_address(0));
        const size_t copied = std::min<size_t>(inputBytes, inputLength);
        if (copied != 0) {
            std::memcpy(irp->AssociatedIrp.SystemBuffer, input, copied);
        }
        irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER;
    }
    if (method != METHOD_BUFFERED && outputLength != 0) {
        irp->MdlAddress = IoAllocateMdl(output, outputLength, FALSE, FALSE, nullptr);
        if (irp->MdlAddress != nullptr) {
            MmProbeAndLockPages(irp->MdlAddress, KernelMode,
                                method == METHOD_IN_DIRECT ? IoReadAccess : IoWriteAccess);
        }
    }
}

void PrepareCreate(IRP* irp, const CreateParameters& parameters)
{
    IO_STACK_LOCATION* next = IoGetNextIrpStackLocation(irp);
    next->Parameters.Create.Options = parameters.disposition << 24 | parameters.options;
    next->Parameters.Create.FileAttributes = static_cast<USHORT>(parameters.attributes);
    next->Parameters.Create.ShareAccess = static_cast<USHORT>(parameters.share);
    next->Parameters.Create.EaLength = parameters.eaLength;
    if (parameters.eaLength != 0) {
        irp->AssociatedIrp.SystemBuffer =
            AllocateBlock(parameters.eaLength, kBufferTag, BlockKind::SystemBuffer, __builtin_return_address(0));
        std::memcpy(irp->AssociatedIrp.SystemBuffer, parameters.ea, parameters.eaLength);
        irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER;
    }
}

void FreeControlBuffers(IRP* irp)
{
    if (irp->Flags & IRP_DEALLOCATE_BUFFER) {
        FreeBlock(irp->AssociatedIrp.SystemBuffer, BlockKind::SystemBuffer, "IofCompleteRequest");
        irp->AssociatedIrp.SystemBuffer = nullptr;
        irp->Flags &= ~static_cast<ULONG>(IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER);
    }
    if (irp->MdlAddress != nullptr) {
        MmUnlockPages(irp->MdlAddress);
        IoFreeMdl(irp->MdlAddress);
        irp->MdlAddress = nullptr;
    }
}

NTSTATUS RejectRequest(DEVICE_OBJECT* device, IRP* irp)
{
    (void)device;
    irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    irp->IoStatus.Information = 0;
    IofCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_INVALID_DEVICE_REQUEST;
}

} // namespace kernel

using namespace kernel;

PIRP IoAllocateIrp(CCHAR stackSize, BOOLEAN chargeQuota)
{
    (void)chargeQuota;
    RequireIrqlAtMost(DISPATCH_LEVEL, "IoAllocateIrp");
    return Fails(machine::Fault::Request) ? nullptr : &NewIrp(IrpOrigin::Driver, stackSize)->irp;
}

VOID IoFreeIrp(PIRP irp)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "IoFreeIrp");
    if (!IsLive(irp)) {
        Report("irp-not-live", "IoFreeIrp", "%p is no request, or was freed before", static_cast<void*>(irp));
        return;
    }
    if (IsUnderWay(irp)) {
        Report("irp-freed-under-way", "IoFreeIrp", "request %p is with a driver", static_cast<void*>(irp));
    }
    ReleaseIrp(RecordOf(irp));
}

VOID IoReuseIrp(PIRP irp, NTSTATUS status)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "IoReuseIrp");
    if (!IsLive(irp) || RecordOf(irp)->origin != IrpOrigin::Driver || IsUnderWay(irp)) {
        Report("irp-reused-under-way", "IoReuseIrp", "request %p is with a driver, or none of IoAllocateIrp",
               static_cast<void*>(irp));
        return;
    }
    const CHAR stackCount = irp->StackCount;
    const USHORT size = irp->Size;
    std::memset(static_cast<void*>(irp), 0, size);
    InitializeIrp(irp, size, stackCount);
    irp->IoStatus.Status = status;
}

PIRP IoBuildDeviceIoControlRequest(ULONG code, PDEVICE_OBJECT device, PVOID input, ULONG inputLength,
                                   PVOID output, ULONG outputLength, BOOLEAN internal, PKEVENT event,
                                   PIO_STATUS_BLOCK status)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "IoBuildDeviceIoControlRequest");
    if (Fails(machine::Fault::Request)) {
        return nullptr;
    }
    IRP* irp = &NewIrp(IrpOrigin::Built, device->StackSize)->irp;
    PrepareControl(irp, internal ? IRP_MJ_INTERNAL_DEVICE_CONTROL : IRP_MJ_DEVICE_CONTROL, code, input,
                   input != nullptr ? inputLength : 0, inputLength, output, outputLength);
    irp->UserEvent = event;
    irp->UserIosb = status;
    return irp;
}

NTSTATUS IofCallDriver(PDEVICE_OBJECT device, PIRP irp)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "IofCallDriver");
    if (!IsLive(irp)) {
        Report("irp-not-live", "IofCallDriver", "%p is no request, or was completed before",
               static_cast<void*>(irp));
        return STATUS_INVALID_PARAMETER;
    }
    if (irp->CurrentLocation <= 1) {
        Report("irp-no-stack-location", "IofCallDriver", "request %p has %d locations, all are in use",
               static_cast<void*>(irp), irp->StackCount);
        return STATUS_INVALID_PARAMETER;
    }
    IrpRecord* record = RecordOf(irp);
    const bool first = irp->CurrentLocation == irp->StackCount + 1;
    const IrpOrigin origin = record->origin;
    if (first && record->outcome == nullptr) {
        record->outcome = std::make_shared<Outcome>("request of a driver");
    }
    const std::shared_ptr<Outcome> outcome = first ? record->outcome : nullptr;

    --irp->CurrentLocation;
    IO_STACK_LOCATION* location = --irp->Tail.Overlay.CurrentStackLocation;
    location->DeviceObject = device;
    const UCHAR major = location->MajorFunction;
    const KIRQL before = KeGetCurrentIrql();
    BeginOperation(t_thread);
    const NTSTATUS status = device->DriverObject->MajorFunction[major](device, irp);
    if (KeGetCurrentIrql() != before) {
        Report("irql-changed", "IofCallDriver",
               "the dispatch routine of function 0x%02X was called at IRQL %u and "
               "returned at %u",
               major, before, KeGetCurrentIrql());
        KeLowerIrql(before);
    }
    if (outcome != nullptr && !outcome->Dispatched(status) && origin != IrpOrigin::Driver) {
        irp->IoStatus.Status = status; // completed for the driver, or its sender would wait for ever
        irp->IoStatus.Information = 0;
        IofCompleteRequest(irp, IO_NO_INCREMENT);
    }
    return status;
}

VOID IofCompleteRequest(PIRP irp, CCHAR priorityBoost)
{
    (void)priorityBoost;
    RequireIrqlAtMost(DISPATCH_LEVEL, "IofCompleteRequest");
    if (!IsLive(irp) || !IsUnderWay(irp)) {
        Report("irp-completed-twice", "IofCompleteRequest", "request %p is complete already",
               static_cast<void*>(irp));
        return;
    }
    if (irp->IoStatus.Status == STATUS_PENDING) {
        Report("irp-completed-pending", "IofCompleteRequest", "request %p has the status STATUS_PENDING",
               static_cast<void*>(irp));
    }
    if (IoSetCancelRoutine(irp, nullptr) != nullptr) {
        Report("irp-cancel-routine-set", "IofCompleteRequest", "request %p still has a cancel routine",
               static_cast<void*>(irp));
    }
    IrpRecord* record = RecordOf(irp);
    bool pending = false;
    while (irp->CurrentLocation <= irp->StackCount) {
        IO_STACK_LOCATION* location = irp->Tail.Overlay.CurrentStackLocation;
        ++irp->CurrentLocation;
        ++irp->Tail.Overlay.CurrentStackLocation;
        const bool top = irp->CurrentLocation == irp->StackCount + 1;
        pending = (location->Control & SL_PENDING_RETURNED) != 0;
        irp->PendingReturned = pending;
        if (WantsCall(location, irp)) {
            if (top && record->outcome != nullptr) { // the routine may free the request
                std::exchange(record->outcome, nullptr)->Completed(pending, irp->IoStatus, {});
            }
            DEVICE_OBJECT* owner = top ? nullptr : irp->Tail.Overlay.CurrentStackLocation->DeviceObject;
            if (location->CompletionRoutine(owner, irp, location->Context) ==
                STATUS_MORE_PROCESSING_REQUIRED) {
                return;
            }
        } else if (pending && !top) {
            IoMarkIrpPending(irp);
        }
    }
    irp->CurrentLocation = static_cast<CHAR>(irp->StackCount + 2);
    FinishIrp(record, pending);
}
