// Synchronous requests: event handlers, connecting, information of connections and providers.
#include "tdi-internal.h"

#include "../filter/ndisfilter-guard.h"

using namespace tdi;

namespace
{

// A request for the file over one buffer. `fill` writes the parameters. Memory that cannot be locked is a failure
// here, as an exception would leave open what the callers have opened.
template <class Parameters, class Fill>
NTSTATUS RequestOverBuffer(PFILE_OBJECT file, UCHAR minor, PVOID buffer, ULONG length, const Fill& fill)
{
    const PIRP irp = AllocateRequest(file);
    if (irp == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS status = STATUS_INSUFFICIENT_RESOURCES;
    PMDL mdl = nullptr;
    const NTSTATUS code =
        Guarded([&] { mdl = KS_AllocateAndProbeMdl(buffer, length, FALSE, FALSE, nullptr); });
    if (!NT_SUCCESS(code)) {
        status = code;
    } else if (mdl != nullptr) {
        fill(PrepareRequest<Parameters>(irp, file, minor));
        irp->MdlAddress = mdl;
        status = KS_MakeSimpleTdiRequest(DeviceOf(file), irp);
        KS_UnlockAndFreeMdl(mdl);
    }
    IoFreeIrp(irp);
    return status;
}

NTSTATUS QueryProvider(PCWSTR deviceName, LONG type, PVOID buffer, ULONG length)
{
    KS_CONTROL_CHANNEL channel;
    NTSTATUS status = KS_OpenControlChannel(deviceName, &channel);
    if (!NT_SUCCESS(status)) {
        DbgPrint("Unable To Open TDI Control Channel\n");
        return status;
    }
    status = RequestOverBuffer<TDI_REQUEST_KERNEL_QUERY_INFORMATION>(
        channel.FileObject, TDI_QUERY_INFORMATION, buffer, length,
        [&](PTDI_REQUEST_KERNEL_QUERY_INFORMATION parameters) { parameters->QueryType = type; });
    KS_CloseControlChannel(&channel);
    return status;
}

} // namespace

NTSTATUS KS_SetEventHandlers(PKS_TRANSPORT_ADDRESS Record, PVOID EventContext, PTDI_IND_CONNECT Connect,
                             PTDI_IND_DISCONNECT Disconnect, PTDI_IND_ERROR Error, PTDI_IND_RECEIVE Receive,
                             PTDI_IND_RECEIVE_DATAGRAM ReceiveDatagram,
                             PTDI_IND_RECEIVE_EXPEDITED ReceiveExpedited)
{
    // In the order of the event types, which are numbered from 0.
    const PVOID handlers[] = {
        reinterpret_cast<PVOID>(Connect),         reinterpret_cast<PVOID>(Disconnect),
        reinterpret_cast<PVOID>(Error),           reinterpret_cast<PVOID>(Receive),
        reinterpret_cast<PVOID>(ReceiveDatagram), reinterpret_cast<PVOID>(ReceiveExpedited),
    };
    const AddressRequest request(Record);
    if (request.Irp() == nullptr) {
        return request.Refusal();
    }
    NTSTATUS status = STATUS_SUCCESS;
    LONG type = TDI_EVENT_CONNECT;
    for (const PVOID handler : handlers) {
        IoReuseIrp(request.Irp(), STATUS_SUCCESS);
        PTDI_REQUEST_KERNEL_SET_EVENT parameters = PrepareRequest<TDI_REQUEST_KERNEL_SET_EVENT>(
            request.Irp(), Record->FileObject, TDI_SET_EVENT_HANDLER);
        parameters->EventType = type++;
        parameters->EventHandler = handler;
        parameters->EventContext = EventContext;
        status = KS_MakeSimpleTdiRequest(DeviceOf(Record->FileObject), request.Irp());
        if (!NT_SUCCESS(status)) {
            break;
        }
    }
    return status;
}

NTSTATUS KS_Connect(PKS_CONNECTION_ENDPOINT Record, PTA_IP_ADDRESS Peer)
{
    const Held<KS_CONNECTION_ENDPOINT> held(Record);
    if (held.Get() == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    const AddressRequest request(Record->Address);
    if (request.Irp() == nullptr) {
        return request.Refusal();
    }
    TDI_CONNECTION_INFORMATION peer = {};
    peer.RemoteAddressLength = sizeof(*Peer);
    peer.RemoteAddress = Peer;
    PrepareRequest<TDI_REQUEST_KERNEL_CONNECT>(request.Irp(), Record->FileObject, TDI_CONNECT)
        ->RequestConnectionInformation = &peer;
    return KS_MakeSimpleTdiRequest(DeviceOf(Record->FileObject), request.Irp());
}

NTSTATUS KS_SetConnectionInfo(PKS_CONNECTION_ENDPOINT Record, PVOID Buffer)
{
    RtlZeroMemory(Buffer, KS_CONNECTION_INFO_SIZE);
    const Held<KS_CONNECTION_ENDPOINT> held(Record);
    if (held.Get() == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    return RequestOverBuffer<TDI_REQUEST_KERNEL_SET_INFORMATION>(
        Record->FileObject, TDI_SET_INFORMATION, Buffer, KS_CONNECTION_INFO_SIZE,
        [](PTDI_REQUEST_KERNEL_SET_INFORMATION parameters) {
            parameters->SetType = TDI_QUERY_CONNECTION_INFO;
        });
}

NTSTATUS KS_QueryProviderInfo(PCWSTR DeviceName, PVOID Buffer)
{
    return QueryProvider(DeviceName, TDI_QUERY_PROVIDER_INFO, Buffer, KS_PROVIDER_INFO_SIZE);
}

NTSTATUS KS_QueryProviderStatistics(PCWSTR DeviceName, PVOID Buffer)
{
    return QueryProvider(DeviceName, TDI_QUERY_PROVIDER_STATISTICS, Buffer, KS_PROVIDER_STATISTICS_SIZE);
}
