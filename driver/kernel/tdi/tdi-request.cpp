// Synchronous requests: sent, waited for, and the request used again.
#include "tdi-internal.h"

namespace tdi
{
namespace
{

// The request stays with its sender.
NTSTATUS NTAPI SignalCompletion(PDEVICE_OBJECT, PIRP, PVOID event)
{
    KeSetEvent(static_cast<PKEVENT>(event), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

} // namespace

// The exchange acquires what the thread before did with the request; that of the destructor releases it.
AddressRequest::AddressRequest(PKS_TRANSPORT_ADDRESS address, PFILE_OBJECT file)
    : address_(address), file_(file)
{
    if (address_.Get() == nullptr) {
        status_ = STATUS_INVALID_HANDLE;
        return;
    }
    device_ = DeviceOf(file);
    irp_ =
        static_cast<PIRP>(InterlockedExchangePointer(reinterpret_cast<PVOID volatile*>(&Place()), nullptr));
    if (irp_ == nullptr) {
        status_ = STATUS_DEVICE_BUSY;
    } else if (irp_->StackCount < device_->StackSize) {
        if (const PIRP deeper = AllocateRequest(device_); deeper != nullptr) {
            IoFreeIrp(irp_);
            irp_ = deeper;
        } else {
            status_ = STATUS_INSUFFICIENT_RESOURCES;
        }
    }
}

AddressRequest::~AddressRequest()
{
    if (irp_ != nullptr) {
        InterlockedExchangePointer(reinterpret_cast<PVOID volatile*>(&Place()), irp_);
    }
}

} // namespace tdi

NTSTATUS KS_MakeSimpleTdiRequest(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IoSetCompletionRoutine(Irp, tdi::SignalCompletion, &done, TRUE, TRUE, TRUE);
    const NTSTATUS status = IoCallDriver(DeviceObject, Irp);
    if (status != STATUS_PENDING && !NT_SUCCESS(status)) {
        return status;
    }
    KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    return Irp->IoStatus.Status;
}
