// The registry of packet filters: four chains, each sorted by order, with their queries and dumps.
#include "ndisfilter-handle.h"
#include "ndisfilter-internal.h"

namespace
{

constexpr SIZE_T CountersSize = FILTER_COUNTER_SLOTS * sizeof(PacketFilterCounters);

BOOLEAN IsChain(FILTER_TYPE nType)
{
    return static_cast<ULONG>(nType) < FILTER_TYPE_COUNT;
}

// In front of the first filter of the same or a greater order, so the newest of equal order comes first.
VOID Place(RecordList<PacketFilter>& chain, PacketFilter& filter)
{
    for (PacketFilter& entry : chain) {
        if (entry.m_FilterOrder >= filter.m_FilterOrder) {
            RecordList<PacketFilter>::InsertBefore(entry, filter);
            return;
        }
    }
    chain.Append(filter);
}

BOOLEAN HoldsChainType(const VOID* handle)
{
    return IsChain(
        static_cast<FILTER_TYPE>(ReadUntrustedWord(&static_cast<const PacketFilter*>(handle)->m_FilterType)));
}

// What the getters of a filter share: `get` runs when both pointers are given and the handle is valid.
template <class Output, class Get>
FILTER_STATUS GetOfFilter(PCSTR functionName, PacketFilter* hPacketFilter, Output* output, const Get& get)
{
    return TracedCall({functionName, TRACE_FILTER}, [&]() -> FILTER_STATUS {
        if (hPacketFilter == nullptr || output == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (!Filter_IsValidFilter(hPacketFilter)) {
            return FILTER_ERROR_INVALID_PACKET_FILTER;
        }
        return get();
    });
}

// A neighbour in the chain may come or go while a filter is shown by itself, without the chain's lock.
FILTER_NOT_INSTRUMENTED PVOID ReadLink(LIST_ENTRY* const volatile& link)
{
    return link;
}

VOID PrintFilter(const PacketFilter& filter, ULONG position)
{
    const PacketFilterCounters counters = SumFilterCounters(filter);
    const STRING& name = filter.m_FilterName;
    DbgPrint("Filter[%d] ----------- 0x%p\n", position, &filter);
    DbgPrint("- &m_ListEntry      = 0x%p\n", &filter.m_ListEntry);
    DbgPrint("-      +-Blink      = 0x%p\n", ReadLink(filter.m_ListEntry.Blink));
    DbgPrint("-      +-Flink      = 0x%p\n", ReadLink(filter.m_ListEntry.Flink));
    DbgPrint("- m_Tag             = 0x%x\n", filter.m_Tag);
    DbgPrint("- m_FilterName      = %*.*s\n", name.Length, name.Length, name.Buffer);
    DbgPrint("- m_hFilterDriver   = 0x%p\n", filter.m_hFilterDriver);
    DbgPrint("- m_pDriverContext  = 0x%p\n", filter.m_pDriverContext);
    DbgPrint("- m_pfFilterProc    = 0x%p\n", filter.m_pfFilterProc);
    DbgPrint("- m_pFilterContext  = 0x%p\n", filter.m_pFilterContext);
    DbgPrint("- m_FilterType      = %ld - %s\n", filter.m_FilterType, Filter_TypeString(filter.m_FilterType));
    DbgPrint("- m_FilterOrder     = %lu - %s\n", filter.m_FilterOrder,
             Filter_OrderString(static_cast<FILTER_ORDER>(filter.m_FilterOrder)));
    DbgPrint("- m_PacketProcess   = %ld\n", counters.m_PacketProcess);
    DbgPrint("- m_PacketBypass    = %ld\n", counters.m_PacketBypass);
    DbgPrint("- m_PacketDiscard   = %ld\n", counters.m_PacketDiscard);
    DbgPrint("- m_PacketConsume   = %ld\n", counters.m_PacketConsume);
    DbgPrint("- m_PacketCapture   = %ld\n", counters.m_PacketCapture);
}

} // namespace

FILTER_STATUS Filter_RegisterFilter(FilterDriver* hFilterDriver, const STRING* pFilterName,
                                    FILTER_PROC pfFilterProc, PVOID pFilterContext, FILTER_TYPE nType,
                                    FILTER_ORDER nOrder, PacketFilter** phPacketFilter)
{
    constexpr CallTrace trace{"Filter_RegisterFilter", TRACE_FILTER};
    return TracedCall(trace, [&]() -> FILTER_STATUS {
        if (hFilterDriver == nullptr || pFilterName == nullptr || pfFilterProc == nullptr ||
            phPacketFilter == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (!Filter_IsValidDriver(hFilterDriver)) {
            return FILTER_ERROR_INVALID_DRIVER_HANDLE;
        }
        if (!IsChain(nType)) {
            return FILTER_ERROR_INVALID_FILTER_TYPE;
        }
        const PVOID driverContext = hFilterDriver->m_pDriverContext;
        const NamedRegistration<PacketFilter> registration{
            .FunctionName = trace.Name,
            .Name = pFilterName,
            .Handle = phPacketFilter,
            .Lock = Global().m_PacketFilterLock[nType],
            .List = Global().m_PacketFilterList[nType],
            .NameField = &PacketFilter::m_FilterName,
            .KnownStatus = FILTER_ERROR_FILTER_ALREADY_REGISTERED,
            .PoolTag = POOL_TAG_FILTER,
            .ExtraSize = CountersSize,
        };
        const FILTER_STATUS status = RegisterNamed(registration, [&](PacketFilter& filter) {
            filter.m_Tag = PACKET_FILTER_TAG;
            filter.m_hFilterDriver = hFilterDriver;
            filter.m_pDriverContext = driverContext;
            filter.m_pfFilterProc = pfFilterProc;
            filter.m_pFilterContext = pFilterContext;
            filter.m_FilterType = nType;
            filter.m_FilterOrder = static_cast<ULONG>(nOrder);
            filter.m_pCounters =
                reinterpret_cast<PacketFilterCounters*>(filter.m_FilterName.Buffer - CountersSize);
            Place(registration.List, filter);
        });
        if (status == FILTER_STATUS_SUCCESS) {
            Filter_DumpFilter(nType);
        }
        return status;
    });
}

BOOLEAN Filter_IsValidFilter(PacketFilter* hPacketFilter)
{
    return CheckRecord("Filter_IsValidFilter", hPacketFilter, PACKET_FILTER_TAG, HoldsChainType);
}

FILTER_STATUS Filter_DeregisterFilter(FilterDriver* hFilterDriver, PacketFilter* hPacketFilter)
{
    constexpr CallTrace trace{
        .Name = "Filter_DeregisterFilter", .Area = TRACE_FILTER, .Success = SuccessTrace::ErrorOnly};
    return TracedCall(trace, [&]() -> FILTER_STATUS {
        if (hFilterDriver == nullptr || hPacketFilter == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (!Filter_IsValidDriver(hFilterDriver)) {
            return FILTER_ERROR_INVALID_DRIVER_HANDLE;
        }
        if (!Filter_IsValidFilter(hPacketFilter)) {
            return FILTER_ERROR_INVALID_PACKET_FILTER;
        }
        const FILTER_TYPE type = LoadRelaxed(hPacketFilter->m_FilterType);
        if (!IsChain(type)) { // a stale handle, whose memory has been used again since the check
            return FILTER_ERROR_INVALID_PACKET_FILTER;
        }
        const FILTER_STATUS status =
            UnlinkOwned<WriteLock>(Global().m_PacketFilterLock[type], Global().m_PacketFilterList[type],
                                   hPacketFilter, hFilterDriver, FILTER_ERROR_FILTER_NOT_FOUND,
                                   FILTER_ERROR_INVALID_FILTER_OWNER);
        if (status == FILTER_STATUS_SUCCESS) {
            Filter_FreeMemory(hPacketFilter);
            Filter_DumpFilter(type);
        }
        return status;
    });
}

FILTER_STATUS Filter_GetFilterName(PacketFilter* hPacketFilter, STRING** ppName)
{
    constexpr PCSTR name = "Filter_GetFilterName";
    return GetOfFilter(name, hPacketFilter, ppName, [&]() -> FILTER_STATUS {
        return CopyNameOut(name, hPacketFilter->m_FilterName, POOL_TAG_FILTER, ppName);
    });
}

FILTER_STATUS Filter_GetFilterContext(PacketFilter* hPacketFilter, PVOID* ppFilterContext)
{
    return GetOfFilter("Filter_GetFilterContext", hPacketFilter, ppFilterContext, [&]() -> FILTER_STATUS {
        *ppFilterContext = hPacketFilter->m_pFilterContext;
        return FILTER_STATUS_SUCCESS;
    });
}

FILTER_STATUS Filter_GetFilterType(PacketFilter* hPacketFilter, FILTER_TYPE* pnType)
{
    return GetOfFilter("Filter_GetFilterType", hPacketFilter, pnType, [&]() -> FILTER_STATUS {
        *pnType = hPacketFilter->m_FilterType;
        return FILTER_STATUS_SUCCESS;
    });
}

FILTER_STATUS Filter_GetFilterOrder(PacketFilter* hPacketFilter, FILTER_ORDER* pnOrder)
{
    return GetOfFilter("Filter_GetFilterOrder", hPacketFilter, pnOrder, [&]() -> FILTER_STATUS {
        *pnOrder = static_cast<FILTER_ORDER>(hPacketFilter->m_FilterOrder);
        return FILTER_STATUS_SUCCESS;
    });
}

FILTER_STATUS Filter_EnumFilter(FilterDriver* hFilterDriver, FILTER_ENUM_FILTER pfEnumProc, PVOID pContext,
                                FILTER_TYPE nType)
{
    constexpr CallTrace trace{"Filter_EnumFilter", TRACE_FILTER};
    return TracedCall(trace, [&]() -> FILTER_STATUS {
        if (hFilterDriver == nullptr || pfEnumProc == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (!Filter_IsValidDriver(hFilterDriver)) {
            return FILTER_ERROR_INVALID_DRIVER_HANDLE;
        }
        if (!IsChain(nType)) {
            return FILTER_ERROR_INVALID_FILTER_TYPE;
        }
        NTSTATUS code;
        {
            ReadLock lock(Global().m_PacketFilterLock[nType]);
            code = Guarded([&] {
                for (PacketFilter& filter : Global().m_PacketFilterList[nType]) {
                    if (filter.m_hFilterDriver == hFilterDriver && (filter.m_FilterType & nType) != 0) {
                        pfEnumProc(pContext, &filter);
                    }
                }
            });
        }
        return code == 0 ? FILTER_STATUS_SUCCESS : ExceptionStatus(trace.Name, code);
    });
}

FILTER_STATUS Filter_DumpFilter(FILTER_TYPE nType)
{
    return TracedCall({"Filter_DumpFilter", TRACE_FILTER}, [&]() -> FILTER_STATUS {
        if (!IsChain(nType)) {
            return FILTER_ERROR_INVALID_FILTER_TYPE;
        }
        const RecordList<PacketFilter>& chain = Global().m_PacketFilterList[nType];
        ReadLock lock(Global().m_PacketFilterLock[nType]);
        DbgPrint("Dumping Packet Filter(Type = %d - %s)\n", nType, Filter_TypeString(nType));
        DbgPrint("- PacketFilterList  = 0x%p\n", chain.Head());
        DbgPrint("-          +- Blink = 0x%p\n", chain.Head()->Blink);
        DbgPrint("-          +- Flink = 0x%p\n", chain.Head()->Flink);
        ULONG position = 0;
        for (PacketFilter& filter : chain) {
            Filter_ShowFilter(&filter, position++);
        }
        return FILTER_STATUS_SUCCESS;
    });
}

VOID Filter_ShowFilter(PacketFilter* hPacketFilter, ULONG nPosition)
{
    if (hPacketFilter == nullptr) {
        return;
    }
    const NTSTATUS code = Guarded([&] { PrintFilter(*hPacketFilter, nPosition); });
    if (code != 0) {
        PrintException("Filter_ShowFilter", code);
    }
}

PacketFilterCounters SumFilterCounters(const PacketFilter& filter)
{
    PacketFilterCounters sum = {};
    for (ULONG i = 0; i < FILTER_COUNTER_SLOTS; i++) {
        // Each processor stores its own slot relaxed; the sum is a moment's view, never less than an earlier one.
        const PacketFilterCounters& slot = filter.m_pCounters[i];
        sum.m_PacketProcess += LoadRelaxed(slot.m_PacketProcess);
        sum.m_PacketBypass += LoadRelaxed(slot.m_PacketBypass);
        sum.m_PacketDiscard += LoadRelaxed(slot.m_PacketDiscard);
        sum.m_PacketConsume += LoadRelaxed(slot.m_PacketConsume);
        sum.m_PacketCapture += LoadRelaxed(slot.m_PacketCapture);
    }
    return sum;
}
