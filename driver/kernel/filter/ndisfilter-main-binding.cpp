// Binding with the NDIS hook driver: one internal request exchanges callbacks and hook functions, another undoes it.
#include "ndisfilter-hook-fields.h"
#include "ndisfilter-internal.h"

namespace
{

// STATUS_SUCCESS when the record may be exchanged.
NTSTATUS CheckHookInterface(const NdisHookAPI* api, ULONG inputLength, ULONG outputLength)
{
    if (inputLength < sizeof(NdisHookAPI) || outputLength < sizeof(NdisHookAPI) || api == nullptr) {
        Trace(TRACE_CORE, "  Input or Output Buffer Length are too small\n");
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (api->m_Size != sizeof(NdisHookAPI)) {
        Trace(TRACE_CORE, "  pNdisHookAPI->m_Size (%d) != sizeof(NdisHookAPI)\n", api->m_Size);
        return STATUS_INVALID_PARAMETER;
    }
    if (api->m_MajorVersion != NDIS_HOOK_MAJOR_VERSION) {
        Trace(TRACE_CORE, "  pNdisHookAPI->m_MajorVersion (%d) != NDIS_HOOK_MAJOR_VERSION\n", api->m_MajorVersion);
        return STATUS_INVALID_PARAMETER;
    }
    if (api->m_MinorVersion != NDIS_HOOK_MINOR_VERSION) {
        Trace(TRACE_CORE, "  pNdisHookAPI->m_MinorVersion (%d) != NDIS_HOOK_MINOR_VERSION\n", api->m_MinorVersion);
        return STATUS_INVALID_PARAMETER;
    }
    return STATUS_SUCCESS;
}

VOID NdisFilterBindHookInterface(NdisHookAPI* pHookApi)
{
    Trace(TRACE_CORE, "\nEnter NdisFilterBindHookInterface\n");
    {
        NdisHookAPI& own = Global().m_NdisHookAPI;
        const WriteLock lock(Global().m_HookAPILock);
        ForEachCallback([&](PCSTR, auto field) { pHookApi->*field = own.*field; });
        ForEachHookFunction([&](PCSTR, auto field) { StoreRelease(own.*field, pHookApi->*field); });
        // Behind the functions: a user that sees the flag sees them.
        StoreRelease(own.m_Flags, own.m_Flags | NDIS_HOOK_FLAG_BOUND);
        pHookApi->m_Flags |= NDIS_HOOK_FLAG_BOUND;
    }
    NdisFilter_EnumOpenedAdapter();
    Trace(TRACE_CORE, "Leave NdisFilterBindHookInterface\n");
}

VOID NdisFilterUnBindHookInterface(NdisHookAPI* pHookApi)
{
    Trace(TRACE_CORE, "Enter NdisFilterUnBindHookInterface\n");
    {
        NdisHookAPI& own = Global().m_NdisHookAPI;
        const WriteLock lock(Global().m_HookAPILock);
        StoreRelease(own.m_Flags, own.m_Flags & ~NDIS_HOOK_FLAG_BOUND);
        pHookApi->m_Flags &= ~NDIS_HOOK_FLAG_BOUND;
        ForEachCallback([&](PCSTR, auto field) { pHookApi->*field = nullptr; });
        ForEachHookFunction([&](PCSTR, auto field) { StoreRelease(own.*field, nullptr); });
    }
    Trace(TRACE_CORE, "Leave NdisFilterUnBindHookInterface\n");
}

VOID PrintHookValue(PCSTR name, PVOID value)
{
    DbgPrint("  m_NdisHookAPI.%s = 0x%p\n", name, value);
}

VOID NdisFilterTestHookInterface()
{
    const NdisHookAPI& api = Global().m_NdisHookAPI;
    Trace(TRACE_CORE, "Enter NdisFilterTestHookInterface\n");
    ForEachHookField(api, PrintHookValue);
    Trace(TRACE_CORE, "Leave NdisFilterTestHookInterface\n");
}

} // namespace

VOID InitializeHookInterface()
{
    NdisHookAPI& api = Global().m_NdisHookAPI;
    api = {};
    api.m_Size = sizeof(NdisHookAPI);
    api.m_MajorVersion = NDIS_HOOK_MAJOR_VERSION;
    api.m_MinorVersion = NDIS_HOOK_MINOR_VERSION;
    api.Filter_AdapterOpened = NdisFilter_AdapterOpened;
    api.Filter_AdapterStatusChanged = NdisFilter_AdapterStatusChanged;
    api.Filter_AdapterClosed = NdisFilter_AdapterClosed;
    api.Filter_FilterReceivedPacket = NdisFilter_FilterReceivedPacket;
    api.Filter_FilterSendPacket = NdisFilter_FilterSendPacket;
}

NTSTATUS NdisFilterInternalIoControl(PDEVICE_OBJECT, PIRP pIrp)
{
    const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(pIrp);
    const ULONG code = stack->Parameters.DeviceIoControl.IoControlCode;
    const ULONG inputLength = stack->Parameters.DeviceIoControl.InputBufferLength;
    const ULONG outputLength = stack->Parameters.DeviceIoControl.OutputBufferLength;
    NdisHookAPI* const hookApi = static_cast<NdisHookAPI*>(pIrp->AssociatedIrp.SystemBuffer);

    Trace(TRACE_CORE, "Enter NdisFilterInternalIoControl\n");
    Trace(TRACE_CORE, "  - ControlCode - 0x%x\n", code);
    Trace(TRACE_CORE, "  - InputBufferLength - 0x%x\n", inputLength);
    Trace(TRACE_CORE, "  - OutputBufferLength - 0x%x\n", outputLength);
    Trace(TRACE_CORE, "  - sizeof(NdisHookAPI) - 0x%x\n", static_cast<ULONG>(sizeof(NdisHookAPI)));

    NTSTATUS status;
    switch (code) {
    case IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK:
        Trace(TRACE_CORE, "  IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK\n");
        status = CheckHookInterface(hookApi, inputLength, outputLength);
        if (NT_SUCCESS(status)) {
            NdisFilterBindHookInterface(hookApi);
            NdisFilterTestHookInterface();
        }
        break;
    case IOCTL_NDIS_FILTER_INTERNAL_UNBIND_NDIS_HOOK:
        Trace(TRACE_CORE, "  IOCTL_NDIS_FILTER_INTERNAL_UNBIND_NDIS_HOOK\n");
        status = CheckHookInterface(hookApi, inputLength, outputLength);
        if (NT_SUCCESS(status)) {
            NdisFilterUnBindHookInterface(hookApi);
        }
        break;
    default:
        DbgPrint("  Unknown IOCTL = 0x%x\n", code);
        status = STATUS_INVALID_PARAMETER;
        break;
    }
    CompleteRequest(pIrp, status, NT_SUCCESS(status) ? sizeof(NdisHookAPI) : 0);
    Trace(TRACE_CORE, "Leave NdisFilterInternalIoControl\n");
    return status;
}
