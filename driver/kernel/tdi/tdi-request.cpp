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
AddressRequest::AddressRequest(PKS_TRANSPORT_ADDRESS address) : address_(address), irp_(nullptr)
{
    if (address_.Get() != nullptr) {
        irp_ = static_cast<PIRP>(
            InterlockedExchangePointer(reinterpret_cast<PVOID volatile*>(&address->Irp), nullptr));
    }
    if (irp_ != nullptr) {
        IoReuseIrp(irp_, STATUS_SUCCESS);
    }
}

AddressRequest::~AddressRequest()
{
    if (irp_ != nullptr) {
        InterlockedExchangePointer(reinterpret_cast<PVOID volatile*>(&address_.Get()->Irp), irp_);
    }
}

NTSTATUS AddressRequest::Refusal() const
{
    return address_.Get() == nullptr ? STATUS_INVALID_HANDLE : STATUS_DEVICE_BUSY;
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
