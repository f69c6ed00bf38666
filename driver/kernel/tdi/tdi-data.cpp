// Data requests, which may be asynchronous: each has a request (IRP) and a context of its own.
#include "tdi-internal.h"

using namespace tdi;

namespace
{

// From the sending to the completion of one data request.
struct DataRequest {
    PVOID Owner; // the address or endpoint; the request holds a reference on it
    PKEVENT Event;
    KS_COMPLETION Completion;
    PVOID CompletionContext;
    PIO_STATUS_BLOCK IoStatus; // the client's, the waiting function's, or OwnStatus
    IO_STATUS_BLOCK OwnStatus;
    ULONG CallerWaits; // the function that sent it waits for Event
    ULONG Extra;
};
static_assert(sizeof(DataRequest) == RequestSize);

// How the client wants to learn of the completion.
struct Notification {
    PKEVENT Event;
    KS_COMPLETION Completion;
    PVOID Context;
    PIO_STATUS_BLOCK IoStatus;
};

// A waiting sender of an endpoint's request frees it itself.
BOOLEAN SenderFrees(PKS_TRANSPORT_ADDRESS)
{
    return FALSE;
}

BOOLEAN SenderFrees(PKS_CONNECTION_ENDPOINT)
{
    return TRUE;
}

// With the last reference the context becomes the work item that closes the owner.
template <class Owner>
VOID ReleaseAndFree(Owner* owner, DataRequest* request)
{
    Closings closings = {};
    Release(owner, &closings);
    if (closings.IsEmpty()) {
        NdisFreeMemory(request, RequestSize, 0);
    } else {
        CloseLater(&closings, request);
    }
}

// The callback runs before the reference is dropped, so that it may close the owner. Who waits for the event
// instead may close the owner, free the record and unload its driver as soon as the event is set: that is the
// last thing done with the request.
template <class Owner>
NTSTATUS NTAPI FinishRequest(PDEVICE_OBJECT, PIRP irp, PVOID context)
{
    SentRequest* sent = SentRequestOf(irp);
    DataRequest* request = static_cast<DataRequest*>(context);
    const PKEVENT event = request->Event;
    const KS_COMPLETION completion = request->Completion;
    Owner* owner = static_cast<Owner*>(request->Owner);
    const BOOLEAN callerWaits = request->CallerWaits != 0;

    CompleteRequest(sent);
    *request->IoStatus = irp->IoStatus;
    if (completion != nullptr) {
        if (event != nullptr) {
            KeSetEvent(event, IO_NO_INCREMENT, FALSE);
        }
        completion(request->CompletionContext, request->IoStatus, request->Extra);
    }
    ReleaseAndFree(owner, request);
    if (!callerWaits || !SenderFrees(owner)) {
        Free(sent);
    }
    if (completion == nullptr) {
        KeSetEvent(event, IO_NO_INCREMENT, FALSE);
    }
    if (!callerWaits) {
        EndRequest();
    }
    return STATUS_MORE_PROCESSING_REQUIRED;
}

ULONG ChainLength(PMDL mdl)
{
    ULONG length = 0;
    for (; mdl != nullptr; mdl = mdl->Next) {
        length += MmGetMdlByteCount(mdl);
    }
    return length;
}

// `fill` writes the request's parameters.
template <class Parameters, class Owner, class Fill>
NTSTATUS SendDataRequest(Owner* owner, UCHAR minor, const Notification& notification, PMDL mdl,
                         const Fill& fill)
{
    PVOID block = nullptr;
    if (NdisAllocateMemoryWithTag(&block, RequestSize, PoolTag) != NDIS_STATUS_SUCCESS) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    DataRequest* request = static_cast<DataRequest*>(block);
    RtlZeroMemory(request, sizeof(*request));
    KEVENT done;
    IO_STATUS_BLOCK result; // outlives the context, which is gone when the wait is over
    const BOOLEAN waits = notification.Completion == nullptr && notification.Event == nullptr;
    request->Owner = owner;
    request->Event = notification.Event;
    request->Completion = notification.Completion;
    request->CompletionContext = notification.Context;
    request->IoStatus = notification.IoStatus;
    request->CallerWaits = waits;
    if (waits) {
        KeInitializeEvent(&done, NotificationEvent, FALSE);
        request->Event = &done;
        if (request->IoStatus == nullptr) {
            request->IoStatus = &result;
        }
    } else if (request->IoStatus == nullptr) {
        request->IoStatus = &request->OwnStatus;
    }
    const PIO_STATUS_BLOCK ioStatus = request->IoStatus;

    if (!Reference(owner)) {
        NdisFreeMemory(request, RequestSize, 0);
        return STATUS_INVALID_HANDLE;
    }
    if (notification.Completion == nullptr && notification.Event != nullptr) {
        KeResetEvent(notification.Event);
    }
    const PFILE_OBJECT file = owner->FileObject;
    const PDEVICE_OBJECT device = DeviceOf(file);
    SentRequest* sent = AllocateSentRequest(device);
    if (sent == nullptr) {
        ReleaseAndFree(owner, request);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const PIRP irp = sent->Irp;
    irp->MdlAddress = mdl;
    fill(PrepareRequest<Parameters>(irp, file, minor), ChainLength(mdl));
    IoSetCompletionRoutine(irp, FinishRequest<Owner>, request, TRUE, TRUE, TRUE);
    if (!BeginRequest(sent)) {
        ReleaseAndFree(owner, request);
        IoSkipCurrentIrpStackLocation(irp); // the library's own: it was sent to nobody
        Free(sent);
        return STATUS_DELETE_PENDING;
    }
    ioStatus->Status = STATUS_UNSUCCESSFUL;
    ioStatus->Information = 0;
    NTSTATUS status = IoCallDriver(device, irp);
    if (!waits) {
        return status;
    }
    if (status == STATUS_PENDING || NT_SUCCESS(status)) {
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    }
    // A transport that failed the request at once has completed it as well; the completion tells why.
    if (KeReadStateEvent(&done) != 0) {
        status = ioStatus->Status;
        if (SenderFrees(owner)) {
            Free(sent);
        }
        EndRequest();
    }
    return status;
}

} // namespace

NTSTATUS KS_SendDatagramOnAddress(PKS_TRANSPORT_ADDRESS Record, PKEVENT Event, KS_COMPLETION Completion,
                                  PVOID CompletionContext, PIO_STATUS_BLOCK IoStatus, PMDL Mdl,
                                  PTDI_CONNECTION_INFORMATION SendInformation)
{
    return SendDataRequest<TDI_REQUEST_KERNEL_SENDDG>(
        Record, TDI_SEND_DATAGRAM, {Event, Completion, CompletionContext, IoStatus}, Mdl,
        [&](PTDI_REQUEST_KERNEL_SENDDG parameters, ULONG length) {
            parameters->SendLength = length;
            parameters->SendDatagramInformation = SendInformation;
        });
}

NTSTATUS KS_ReceiveDatagramOnAddress(PKS_TRANSPORT_ADDRESS Record, PKEVENT Event, KS_COMPLETION Completion,
                                     PVOID CompletionContext, PIO_STATUS_BLOCK IoStatus, PMDL Mdl,
                                     PTDI_CONNECTION_INFORMATION ReceiveInformation,
                                     PTDI_CONNECTION_INFORMATION ReturnInformation, ULONG Flags)
{
    return SendDataRequest<TDI_REQUEST_KERNEL_RECEIVEDG>(
        Record, TDI_RECEIVE_DATAGRAM, {Event, Completion, CompletionContext, IoStatus}, Mdl,
        [&](PTDI_REQUEST_KERNEL_RECEIVEDG parameters, ULONG length) {
            parameters->ReceiveLength = length;
            parameters->ReceiveDatagramInformation = ReceiveInformation;
            parameters->ReturnDatagramInformation = ReturnInformation;
            parameters->ReceiveFlags = Flags;
        });
}

NTSTATUS KS_Disconnect(PKS_CONNECTION_ENDPOINT Record, PKEVENT Event, KS_COMPLETION Completion,
                       PVOID CompletionContext, PIO_STATUS_BLOCK IoStatus, ULONG Flags)
{
    return SendDataRequest<TDI_REQUEST_KERNEL_DISCONNECT>(
        Record, TDI_DISCONNECT, {Event, Completion, CompletionContext, IoStatus}, nullptr,
        [&](PTDI_REQUEST_KERNEL_DISCONNECT parameters, ULONG) { parameters->RequestFlags = Flags; });
}

NTSTATUS KS_SendOnEndpoint(PKS_CONNECTION_ENDPOINT Record, PKEVENT Event, KS_COMPLETION Completion,
                           PVOID CompletionContext, PIO_STATUS_BLOCK IoStatus, PMDL Mdl, ULONG Flags)
{
    return SendDataRequest<TDI_REQUEST_KERNEL_SEND>(Record, TDI_SEND,
                                                    {Event, Completion, CompletionContext, IoStatus}, Mdl,
                                                    [&](PTDI_REQUEST_KERNEL_SEND parameters, ULONG length) {
                                                        parameters->SendLength = length;
                                                        parameters->SendFlags = Flags;
                                                    });
}

NTSTATUS KS_ReceiveOnEndpoint(PKS_CONNECTION_ENDPOINT Record, PKEVENT Event, KS_COMPLETION Completion,
                              PVOID CompletionContext, PIO_STATUS_BLOCK IoStatus, PMDL Mdl, ULONG Flags)
{
    return SendDataRequest<TDI_REQUEST_KERNEL_RECEIVE>(
        Record, TDI_RECEIVE, {Event, Completion, CompletionContext, IoStatus}, Mdl,
        [&](PTDI_REQUEST_KERNEL_RECEIVE parameters, ULONG length) {
            parameters->ReceiveLength = length;
            parameters->ReceiveFlags = Flags;
        });
}
