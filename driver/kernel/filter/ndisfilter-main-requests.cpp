// Control requests of the user program, and the way of those that the framework does not know: to the hook driver,
// then to the handlers that client drivers registered.
#include "ndisfilter-internal.h"

namespace
{

struct ControlRequest {
    PIRP Irp;
    ULONG Code;
    PVOID Buffer; // input and output
    ULONG InputLength;
    ULONG OutputLength;
    ULONG_PTR Information; // bytes returned
};

struct ControlOperation {
    ULONG Code;
    PCSTR Name; // as traced
    ULONG MinimumInput;
    ULONG MinimumOutput;
    NTSTATUS (*Routine)(ControlRequest& request);
};

NTSTATUS GetVersion(ControlRequest& request)
{
    PUCHAR version = static_cast<PUCHAR>(request.Buffer);
    version[0] = NDIS_FILTER_MAJOR_VERSION;
    version[1] = NDIS_FILTER_MINOR_VERSION;
    return STATUS_SUCCESS; // the length stays 0, though the bytes are written
}

NTSTATUS StartShare(ControlRequest& request)
{
    ULONG value;
    RtlCopyMemory(&value, request.Buffer, sizeof(value));
    StoreRelaxed(g_nStartShareValue, value);
    if (value == 0) {
        Trace(TRACE_CORE, "    User Virtual Address is error\n");
        return STATUS_INVALID_PARAMETER_2;
    }
    const ULONGLONG address = NdisFilter_StartShare(request.Irp);
    RtlCopyMemory(request.Buffer, &address, sizeof(address));
    request.Information = sizeof(address);
    if (address == 0) {
        Trace(TRACE_CORE, "    NdisFilter_StartShare() fails\n");
        return STATUS_INTERNAL_ERROR;
    }
    Trace(TRACE_CORE, "    NdisFilter_StartShare() success\n");
    return STATUS_SUCCESS;
}

NTSTATUS StopShare(ControlRequest& request)
{
    NdisFilter_StopShare(request.Irp);
    return STATUS_SUCCESS;
}

NTSTATUS ReadShare(ControlRequest& request)
{
    return NdisFilter_IOCtrlReadShare(request.Irp);
}

NTSTATUS WriteShare(ControlRequest& request)
{
    NdisFilter_IOCtrlWriteShare(request.Irp);
    return STATUS_SUCCESS; // also when it was refused
}

NTSTATUS PutSharedMemorySize(ControlRequest& request)
{
    RtlCopyMemory(request.Buffer, &g_nMappedMemorySize, sizeof(g_nMappedMemorySize));
    request.Information = sizeof(g_nMappedMemorySize);
    return STATUS_SUCCESS;
}

constexpr ControlOperation OPERATIONS[] = {
    {IOCTL_NDIS_FILTER_GET_VERSION, "IOCTL_NDIS_FILTER_GET_VERSION", 0, 2, GetVersion},
    {IOCTL_NDIS_FILTER_START_SHARE, "IOCTL_NDIS_FILTER_START_SHARE", 4, 8, StartShare},
    {IOCTL_NDIS_FILTER_STOP_SHARE, "IOCTL_NDIS_FILTER_STOP_SHARE", 0, 0, StopShare},
    {IOCTL_NDIS_FILTER_READ_SHARE, "IOCTL_NDIS_FILTER_READ_SHARE", 0, 0, ReadShare},
    {IOCTL_NDIS_FILTER_WRITE_SHARE, "IOCTL_NDIS_FILTER_WRITE_SHARE", 0, 0, WriteShare},
    {IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE, "IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE", 0, 4, PutSharedMemorySize},
};

const ControlOperation* FindOperation(ULONG code)
{
    for (const ControlOperation& operation : OPERATIONS) {
        if (operation.Code == code) {
            return &operation;
        }
    }
    return nullptr;
}

NTSTATUS Perform(const ControlOperation& operation, ControlRequest& request)
{
    Trace(TRACE_CORE, "  %s\n", operation.Name);
    if (request.OutputLength < operation.MinimumOutput) {
        Trace(TRACE_CORE, "    Output Buffer Length are too small\n");
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (request.InputLength < operation.MinimumInput) {
        Trace(TRACE_CORE, "    Input Buffer Length are too small\n");
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (request.Buffer == nullptr && (operation.MinimumOutput != 0 || operation.MinimumInput != 0)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    return operation.Routine(request);
}

// Asks the hook driver, whether it is bound or not. STATUS_NOT_SUPPORTED: it declines.
NTSTATUS OfferToHook(ControlRequest& request)
{
    const HOOK_HANDLE_IO_CONTROL handler = LoadAcquire(Global().m_NdisHookAPI.Hook_HandleIoControl);
    NTSTATUS status = STATUS_NOT_SUPPORTED;
    if (handler == nullptr) {
        return status;
    }
    ULONG_PTR returned = 0; // the hook driver writes its low 32 bits
    const NTSTATUS code = Guarded([&] {
        status = handler(request.Code, request.Buffer, request.InputLength, request.Buffer, request.OutputLength,
                         reinterpret_cast<PULONG>(&returned));
    });
    if (code != 0) {
        DbgPrint("NdisFilterIoControl: exception in hook, code = %d\n", code);
        return STATUS_NOT_SUPPORTED;
    }
    if (status != STATUS_NOT_SUPPORTED) {
        request.Information = returned;
    }
    return status;
}

// Asks the client drivers' handlers in the order of their registration until one does not decline.
NTSTATUS OfferToHandlers(ControlRequest& request)
{
    const ReadLock lock(Global().m_IoCtrlHandlerLock);
    for (const IoCtrlHandler& handler : Global().m_IoCtrlHandlerList) {
        NTSTATUS status = STATUS_NOT_SUPPORTED;
        ULONG_PTR returned = 0;
        const NTSTATUS code = Guarded([&] {
            status = handler.m_pfIoCtrlProc(handler.m_pIoCtrlContext, request.Irp, request.Code, request.Buffer,
                                            request.InputLength, request.Buffer, request.OutputLength, &returned);
        });
        if (code != 0) {
            DbgPrint("NdisFilterIoControl: exception in filter, code = %d\n", code);
            break;
        }
        if (status != STATUS_NOT_SUPPORTED) {
            request.Information = returned;
            return status;
        }
    }
    return STATUS_NOT_SUPPORTED;
}

NTSTATUS Offer(ControlRequest& request)
{
    const NTSTATUS status = OfferToHook(request);
    return status != STATUS_NOT_SUPPORTED ? status : OfferToHandlers(request);
}

} // namespace

NTSTATUS NdisFilterIoControl(PDEVICE_OBJECT, PIRP pIrp)
{
    const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(pIrp);
    ControlRequest request = {};
    request.Irp = pIrp;
    request.Code = stack->Parameters.DeviceIoControl.IoControlCode;
    request.Buffer = pIrp->AssociatedIrp.SystemBuffer;
    request.InputLength = stack->Parameters.DeviceIoControl.InputBufferLength;
    request.OutputLength = stack->Parameters.DeviceIoControl.OutputBufferLength;

    Trace(TRACE_CORE, "Enter NdisFilterIoControl\n");
    Trace(TRACE_CORE, "  - ControlCode - 0x%x\n", request.Code);
    Trace(TRACE_CORE, "  - InputBufferLength - 0x%x\n", request.InputLength);
    Trace(TRACE_CORE, "  - OutputBufferLength - 0x%x\n", request.OutputLength);
    pIrp->IoStatus.Status = STATUS_SUCCESS;
    pIrp->IoStatus.Information = 0;

    const ControlOperation* const operation = FindOperation(request.Code);
    const NTSTATUS status = operation != nullptr ? Perform(*operation, request) : Offer(request);
    if (status != STATUS_PENDING) { // a pending request may be complete and gone by now
        const BOOLEAN fits = request.Information <= request.OutputLength; // a handler may claim more than there is
        CompleteRequest(pIrp, status, fits ? request.Information : request.OutputLength);
    }
    Trace(TRACE_CORE, "Leave NdisFilterIoControl\n");
    return status;
}
