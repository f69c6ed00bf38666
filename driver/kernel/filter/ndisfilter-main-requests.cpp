// Control requests of the user program, and the way of those that the framework does not know: to the hook driver,
// then to the handlers that client drivers registered.
#include "ndisfilter-main-requests.h"

namespace
{

NTSTATUS GetVersion(ControlRequest& request)
{
    WriteField<UCHAR>(request, 0, NDIS_FILTER_MAJOR_VERSION);
    WriteField<UCHAR>(request, 1, NDIS_FILTER_MINOR_VERSION);
    return STATUS_SUCCESS; // the length stays 0, though the bytes are written
}

NTSTATUS StartShare(ControlRequest& request)
{
    const ULONG value = ReadField<ULONG>(request, 0);
    StoreRelaxed(g_nStartShareValue, value);
    if (value == 0) {
        Trace(TRACE_CORE, "    User Virtual Address is error\n");
        return STATUS_INVALID_PARAMETER_2;
    }
    const ULONGLONG address = NdisFilter_StartShare(request.Irp);
    WriteField(request, 0, address);
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
    WriteField(request, 0, g_nMappedMemorySize);
    request.Information = sizeof(g_nMappedMemorySize);
    return STATUS_SUCCESS;
}

NTSTATUS StartEthrLog(ControlRequest&)
{
    NdisFilter_StartEthrLog();
    return STATUS_SUCCESS;
}

NTSTATUS StopEthrLog(ControlRequest&)
{
    NdisFilter_StopEthrLog();
    return STATUS_SUCCESS; // also when the adapter table is empty
}

// Reads the mask anew in a worker thread; nothing is returned.
NTSTATUS ReloadDebugFlag(ControlRequest&)
{
    if (g_RegistryPath.Buffer != nullptr) {
        Filter_SafeGetGlobalDebugFlag(&g_RegistryPath, 0, const_cast<PULONG>(&GlobalDebugFlag));
    }
    return STATUS_SUCCESS;
}

NTSTATUS DumpDeviceExtension(ControlRequest&)
{
    NdisFilter_DumpDeviceExtension();
    return STATUS_SUCCESS;
}

NTSTATUS SetCongestionControl(ControlRequest& request)
{
    const ULONG maximum = ReadField<ULONG>(request, 0);
    DbgPrint("  - InjectPacketMax = %d\n", maximum);
    StoreRelaxed(Global().m_nInjectPacketMax, maximum);
    return STATUS_SUCCESS;
}

constexpr ControlOperation OPERATIONS[] = {
    {IOCTL_NDIS_FILTER_GET_VERSION, "IOCTL_NDIS_FILTER_GET_VERSION", 0, 2, GetVersion},
    {IOCTL_NDIS_FILTER_START_SHARE, "IOCTL_NDIS_FILTER_START_SHARE", 4, 8, StartShare},
    {IOCTL_NDIS_FILTER_STOP_SHARE, "IOCTL_NDIS_FILTER_STOP_SHARE", 0, 0, StopShare},
    {IOCTL_NDIS_FILTER_READ_SHARE, "IOCTL_NDIS_FILTER_READ_SHARE", 0, 0, ReadShare},
    {IOCTL_NDIS_FILTER_WRITE_SHARE, "IOCTL_NDIS_FILTER_WRITE_SHARE", 0, 0, WriteShare},
    {.Code = IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES,
     .Name = "IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES",
     .MinimumInput = 0,
     .MinimumOutput = sizeof(UserAdapterList),
     .Routine = GetTcpIpInterfaces,
     .IsAlwaysNamed = TRUE},
    {IOCTL_NDIS_FILTER_GET_EVENT, "IOCTL_NDIS_FILTER_GET_EVENT", 0, sizeof(UserEvent), GetEvent},
    // The next and SET_MEDIA_STATUS go by another's name in the trace.
    {IOCTL_NDIS_FILTER_CLEAR_EVENT, "IOCTL_NDIS_FILTER_GET_EVENT", 0, 0, ClearEvents},
    {IOCTL_NDIS_FILTER_START_ETHRLOG, "IOCTL_NDIS_FILTER_START_ETHRLOG", 0, 0, StartEthrLog},
    {IOCTL_NDIS_FILTER_STOP_ETHRLOG, "IOCTL_NDIS_FILTER_STOP_ETHRLOG", 0, 0, StopEthrLog},
    {IOCTL_NDIS_FILTER_SET_IPCONFIG, "IOCTL_NDIS_FILTER_SET_IPCONFIG", sizeof(UserIPConfig), 0, SetIpConfig},
    {IOCTL_NDIS_FILTER_GET_IPCONFIG, "IOCTL_NDIS_FILTER_GET_IPCONFIG", 0, sizeof(UserIPConfig), GetIpConfig},
    {IOCTL_NDIS_FILTER_SET_MEDIA_STATUS, "IOCTL_NDIS_FILTER_SET_IPCONFIG", sizeof(UserMacValue), 0,
     SetMediaStatus},
    {.Code = IOCTL_NDIS_FILTER_GET_MEDIA_STATUS,
     .Name = "IOCTL_NDIS_FILTER_GET_MEDIA_STATUS",
     .MinimumInput = sizeof(UserMacValue),
     .MinimumOutput = sizeof(UserMacValue),
     .Routine = GetMediaStatus,
     .IsInputCheckedFirst = TRUE},
    {IOCTL_NDIS_FILTER_GET_DBGFLAG, "IOCTL_NDIS_FILTER_GET_DBGFLAG", 0, 0, ReloadDebugFlag},
    {IOCTL_NDIS_FILTER_SET_PACKET_DUMP, "IOCTL_NDIS_FILTER_SET_PACKET_DUMP", sizeof(UserMacValue), 0,
     SetPacketDump},
    {.Code = IOCTL_NDIS_FILTER_GET_PACKET_DUMP,
     .Name = "IOCTL_NDIS_FILTER_GET_PACKET_DUMP",
     .MinimumInput = sizeof(UserMacValue),
     .MinimumOutput = sizeof(UserMacValue),
     .Routine = GetPacketDump,
     .IsInputCheckedFirst = TRUE},
    {IOCTL_NDIS_FILTER_GET_ADAPTER, "IOCTL_NDIS_FILTER_GET_ADAPTER", 0, sizeof(UserMacAdapter), GetAdapter},
    {IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE, "IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE", 0, 4,
     PutSharedMemorySize},
    {IOCTL_NDIS_FILTER_DUMP_DEVICE_EXTENSION, "IOCTL_NDIS_FILTER_DUMP_DEVICE_EXTENSION", 0, 0,
     DumpDeviceExtension},
    {.Code = IOCTL_NDIS_FILTER_SET_CONGESTION_CONTROL,
     .Name = "IOCTL_NDIS_FILTER_SET_CONGESTION_CONTROL",
     .MinimumInput = 0,
     .MinimumOutput = 0,
     .Routine = SetCongestionControl,
     .MinimumBuffer = sizeof(ULONG),
     .IsAlwaysNamed = TRUE},
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

constexpr ULONG Greater(ULONG a, ULONG b)
{
    return a > b ? a : b;
}

// nullptr when the lengths suffice, else the name of the side that is too small.
PCSTR FindShortSide(const ControlOperation& operation, const ControlRequest& request)
{
    const BOOLEAN isInputShort = request.InputLength < operation.MinimumInput;
    const BOOLEAN isOutputShort = request.OutputLength < operation.MinimumOutput;
    if (isOutputShort && !(isInputShort && operation.IsInputCheckedFirst)) {
        return "Output";
    }
    const ULONG size = request.Buffer != nullptr ? Greater(request.InputLength, request.OutputLength) : 0;
    const ULONG needed =
        Greater(operation.MinimumBuffer, Greater(operation.MinimumInput, operation.MinimumOutput));
    return isInputShort || size < needed ? "Input" : nullptr;
}

NTSTATUS Perform(const ControlOperation& operation, ControlRequest& request)
{
    if (operation.IsAlwaysNamed) {
        DbgPrint("  %s\n", operation.Name);
    } else {
        Trace(TRACE_CORE, "  %s\n", operation.Name);
    }
    const PCSTR shortSide = FindShortSide(operation, request);
    if (shortSide != nullptr) {
        Trace(TRACE_CORE, "    %s Buffer Length are too small\n", shortSide);
        return STATUS_BUFFER_TOO_SMALL;
    }
    const ULONG touched = Greater(operation.MinimumBuffer, operation.MinimumOutput);
    if (touched > request.InputLength) { // what is left there is of the pool, and none of the program's
        RtlZeroMemory(static_cast<PUCHAR>(request.Buffer) + request.InputLength,
                      touched - request.InputLength);
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
    const NTSTATUS code = Guarded([&] {
        // The hook driver knows a count of 32 bits: the low ones.
        status = handler(request.Code, request.Buffer, request.InputLength, request.Buffer,
                         request.OutputLength, reinterpret_cast<PULONG>(&request.Information));
    });
    if (code != 0) {
        DbgPrint("NdisFilterIoControl: exception in hook, code = %d\n", code);
        request.Information = 0;
        return STATUS_NOT_SUPPORTED;
    }
    return status;
}

// Asks the client drivers' handlers in the order of their registration until one does not decline.
NTSTATUS OfferToHandlers(ControlRequest& request)
{
    const ReadLock lock(Global().m_IoCtrlHandlerLock);
    for (const IoCtrlHandler& handler : Global().m_IoCtrlHandlerList) {
        NTSTATUS status = STATUS_NOT_SUPPORTED;
        const NTSTATUS code = Guarded([&] {
            status = handler.m_pfIoCtrlProc(handler.m_pIoCtrlContext, request.Irp, request.Code, request.Buffer,
                                            request.InputLength, request.Buffer, request.OutputLength,
                                            &request.Information);
        });
        if (code != 0) {
            DbgPrint("NdisFilterIoControl: exception in filter, code = %d\n", code);
            break;
        }
        if (status != STATUS_NOT_SUPPORTED) {
            return status;
        }
    }
    return STATUS_NOT_SUPPORTED;
}

// All of them share one count of bytes returned: what one that declines has written the next one finds.
NTSTATUS Offer(ControlRequest& request)
{
    NTSTATUS status = OfferToHook(request);
    if (status == STATUS_NOT_SUPPORTED) {
        status = OfferToHandlers(request);
    }
    if (status == STATUS_NOT_SUPPORTED) {
        request.Information = 0;
    }
    return status;
}

// The framework answers what is addressed to it, others the rest; the program gets the text that they have written and
// a success in any case.
NTSTATUS Diagnose(ControlRequest& request)
{
    Trace(TRACE_CORE, "  IOCTL_NDIS_FILTER_DIAG\n");
    if (Filter_PrepareDiag(request.Buffer, request.InputLength, request.Buffer, request.OutputLength) !=
        FILTER_STATUS_SUCCESS) {
        return STATUS_SUCCESS;
    }
    if (NdisFilter_DiagHandler(request.Buffer, request.InputLength, request.Buffer, request.OutputLength) !=
        STATUS_SUCCESS) {
        Offer(request);
    }
    // 32 bits wide, as the count is: one text that did not fit takes one from it.
    request.Information =
        static_cast<ULONG>(sizeof(Diag)) + static_cast<const Diag*>(request.Buffer)->m_BufferUsed;
    Filter_EndDiag();
    return STATUS_SUCCESS;
}

NTSTATUS Dispatch(ControlRequest& request)
{
    if (request.Code == IOCTL_NDIS_FILTER_DIAG) {
        return Diagnose(request);
    }
    const ControlOperation* const operation = FindOperation(request.Code);
    return operation != nullptr ? Perform(*operation, request) : Offer(request);
}

} // namespace

PVOID AllocateScratch(SIZE_T size)
{
    const PVOID memory = ExAllocatePool(NonPagedPool, size);
    if (memory == nullptr) {
        Trace(TRACE_CORE, "    call ExAllocatePool func failure.\n");
    }
    return memory;
}

NTSTATUS TranslateToId(FilterAdapter* hAdapter, PULONG id)
{
    if (Filter_AdapterToId(hAdapter, id) != FILTER_STATUS_SUCCESS) {
        Trace(TRACE_CORE, "    call Filter_AdapterToId func failure.\n");
        return STATUS_INTERNAL_ERROR;
    }
    return STATUS_SUCCESS;
}

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

    const NTSTATUS status = Dispatch(request);
    if (status != STATUS_PENDING) { // a pending request may be complete and gone by now
        const BOOLEAN fits =
            request.Information <= request.OutputLength; // a handler may claim more than there is
        CompleteRequest(pIrp, status, fits ? request.Information : request.OutputLength);
    }
    Trace(TRACE_CORE, "Leave NdisFilterIoControl\n");
    return status;
}
