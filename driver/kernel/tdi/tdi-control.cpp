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
    const PDEVICE_OBJECT device = DeviceOf(file);
    const PIRP irp = AllocateRequest(device);
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
        status = KS_MakeSimpleTdiRequest(device, irp);
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
    const AddressRequest request(Record, Record->FileObject);
    if (!NT_SUCCESS(request.Status())) {
        return request.Status();
    }
    NTSTATUS status = STATUS_SUCCESS;
    LONG type = TDI_EVENT_CONNECT;
    for (const PVOID handler : handlers) {
        const auto parameters = request.Prepare<TDI_REQUEST_KERNEL_SET_EVENT>(TDI_SET_EVENT_HANDLER);
        parameters->EventType = type++;
        parameters->EventHandler = handler;
        parameters->EventContext = EventContext;
        status = request.Send();
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
    const AddressRequest request(Record->Address, Record->FileObject);
    if (!NT_SUCCESS(request.Status())) {
        return request.Status();
    }
    TDI_CONNECTION_INFORMATION peer = {};
    peer.RemoteAddressLength = sizeof(*Peer);
    peer.RemoteAddress = Peer;
    request.Prepare<TDI_REQUEST_KERNEL_CONNECT>(TDI_CONNECT)->RequestConnectionInformation = &peer;
    return request.Send();
}

NTSTATUS KS_SetConnectionInfo(PKS_CONNECTION_ENDPOINT Record, PVOID Buffer)
{
    const Held<KS_CONNECTION_ENDPOINT> held(Record);
    if (held.Get() == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    const NTSTATUS code = Guarded([&] { RtlZeroMemory(Buffer, KS_CONNECTION_INFO_SIZE); });
    if (!NT_SUCCESS(code)) {
        return code;
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
