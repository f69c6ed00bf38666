// Control requests about adapters. User mode names an adapter by its identifier or by its MAC address, never by handle.
#include "ndisfilter-main-requests.h"

namespace
{

// The records that lead with an adapter's handle inside the driver lead with its identifier for user mode; what follows
// is the same.
constexpr ULONG HandleSize = sizeof(FilterAdapter*);
constexpr ULONG IdSize = sizeof(ULONG);
static_assert(sizeof(UserAdapterInfo) - IdSize == sizeof(AdapterInfo) - HandleSize);
static_assert(sizeof(UserIPConfig) - IdSize == sizeof(IPConfig) - HandleSize);

// Of the functions that find an adapter by its MAC address.
NTSTATUS FromFilterStatus(FILTER_STATUS status)
{
    return status == FILTER_STATUS_SUCCESS ? STATUS_SUCCESS
                                           : static_cast<NTSTATUS>(NDIS_STATUS_ADAPTER_NOT_FOUND);
}

const UCHAR* MacAddressOf(const ControlRequest& request)
{
    return static_cast<const UCHAR*>(request.Buffer);
}

NTSTATUS ReplyMacValue(ControlRequest& request, FILTER_STATUS status, UCHAR value)
{
    if (status == FILTER_STATUS_SUCCESS) {
        WriteField(request, offsetof(UserMacValue, m_nValue), value);
        request.Information = sizeof(UserMacValue);
    }
    return FromFilterStatus(status);
}

NTSTATUS CopyAdapters(const AdapterList& list, UserAdapterList& output)
{
    const ULONG given = list.m_nAdapterCount;
    const ULONG count = given < NDIS_FILTER_MAX_ADAPTERS ? given : NDIS_FILTER_MAX_ADAPTERS;
    output.m_nAdapterCount = count;
    for (ULONG i = 0; i < count; i++) {
        ULONG id;
        const NTSTATUS status = TranslateToId(list.m_Adapters[i].m_hAdapter, &id);
        if (!NT_SUCCESS(status)) {
            return status; // the entries before it stay
        }
        output.m_Adapters[i].m_nAdapterId = id;
        RtlCopyMemory(&output.m_Adapters[i].m_nAdapterMedium, &list.m_Adapters[i].m_nAdapterMedium,
                      sizeof(AdapterInfo) - HandleSize);
    }
    return STATUS_SUCCESS;
}

// The adapter that the request's record names, in an IPConfig of its own, which the caller frees. Identifiers outlive
// adapters, and events make some for what is no adapter: only one of the table is there for certain.
NTSTATUS AllocateIpConfig(const ControlRequest& request, IPConfig*& config)
{
    config = static_cast<IPConfig*>(AllocateScratch(sizeof(IPConfig)));
    if (config == nullptr) {
        return STATUS_NO_MEMORY;
    }
    FilterAdapter* adapter = nullptr;
    const ULONG id = ReadField<ULONG>(request, offsetof(UserIPConfig, m_nAdapterId));
    if (Filter_IdToAdapter(id, &adapter) != FILTER_STATUS_SUCCESS) {
        Trace(TRACE_CORE, "    Input Buffer adapter argument error\n");
        ExFreePool(config);
        return STATUS_INVALID_PARAMETER;
    }
    if (!IsAdapterListed(adapter)) {
        ExFreePool(config);
        return static_cast<NTSTATUS>(NDIS_STATUS_ADAPTER_NOT_FOUND);
    }
    config->hAdapter = adapter;
    return STATUS_SUCCESS;
}

PUCHAR BehindId(const ControlRequest& request)
{
    return static_cast<PUCHAR>(request.Buffer) + IdSize;
}

} // namespace

NTSTATUS GetTcpIpInterfaces(ControlRequest& request)
{
    AdapterList* const list = static_cast<AdapterList*>(AllocateScratch(sizeof(AdapterList)));
    if (list == nullptr) {
        return STATUS_NO_MEMORY;
    }
    RtlZeroMemory(list, sizeof(*list)); // a hook driver may leave parts unwritten
    RtlZeroMemory(request.Buffer, sizeof(UserAdapterList));
    NTSTATUS status = STATUS_INTERNAL_ERROR;
    if (Filter_GetTcpIpBoundAdapters(list) == FILTER_STATUS_SUCCESS) {
        status = CopyAdapters(*list, *static_cast<UserAdapterList*>(request.Buffer));
        request.Information = sizeof(UserAdapterList); // also when an entry has failed
    }
    ExFreePool(list);
    return status;
}

NTSTATUS SetIpConfig(ControlRequest& request)
{
    IPConfig* config;
    NTSTATUS status = AllocateIpConfig(request, config);
    if (NT_SUCCESS(status)) {
        RtlCopyMemory(&config->m_nReserved, BehindId(request), sizeof(IPConfig) - HandleSize);
        status = FromFilterStatus(Filter_SetIPConfig(config));
        ExFreePool(config);
    }
    return status;
}

NTSTATUS GetIpConfig(ControlRequest& request)
{
    IPConfig* config;
    NTSTATUS status = AllocateIpConfig(request, config);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    FilterAdapter* const adapter = config->hAdapter; // of an adapter never configured the record says none
    if (Filter_GetIPConfig(adapter, config) == nullptr) {
        status = static_cast<NTSTATUS>(NDIS_STATUS_ADAPTER_NOT_FOUND);
    } else {
        ULONG id;
        status = TranslateToId(adapter, &id);
        if (NT_SUCCESS(status)) {
            WriteField(request, offsetof(UserIPConfig, m_nAdapterId), id);
            RtlCopyMemory(BehindId(request), &config->m_nReserved, sizeof(IPConfig) - HandleSize);
            request.Information = sizeof(UserIPConfig);
        }
    }
    ExFreePool(config);
    return status;
}

NTSTATUS SetMediaStatus(ControlRequest& request)
{
    const UCHAR state = ReadField<UCHAR>(request, offsetof(UserMacValue, m_nValue));
    return FromFilterStatus(Filter_SetAdapterMediaStateByMac(MacAddressOf(request), state));
}

NTSTATUS GetMediaStatus(ControlRequest& request)
{
    // Hook drivers write up to eight bytes, or none: the byte is then what the program has sent.
    ULONGLONG state = ReadField<UCHAR>(request, offsetof(UserMacValue, m_nValue));
    const FILTER_STATUS status = Filter_GetAdapterMediaStateByMac(MacAddressOf(request), &state);
    return ReplyMacValue(request, status, static_cast<UCHAR>(state));
}

NTSTATUS SetPacketDump(ControlRequest& request)
{
    const UCHAR enable = ReadField<UCHAR>(request, offsetof(UserMacValue, m_nValue));
    return FromFilterStatus(Filter_SetAdapterPacketDump(MacAddressOf(request), enable));
}

NTSTATUS GetPacketDump(ControlRequest& request)
{
    BOOLEAN enabled = FALSE;
    const FILTER_STATUS status = Filter_GetAdapterPacketDump(MacAddressOf(request), &enabled);
    return ReplyMacValue(request, status, enabled);
}

NTSTATUS GetAdapter(ControlRequest& request)
{
    FilterAdapter* adapter = nullptr;
    if (Filter_FindAdapterByMacAddress(MacAddressOf(request), &adapter) != FILTER_STATUS_SUCCESS) {
        return STATUS_INTERNAL_ERROR;
    }
    ULONG id;
    const NTSTATUS status = TranslateToId(adapter, &id);
    if (NT_SUCCESS(status)) {
        WriteField(request, offsetof(UserMacAdapter, m_nAdapterId), id);
        request.Information = sizeof(UserMacAdapter);
    }
    return status;
}
