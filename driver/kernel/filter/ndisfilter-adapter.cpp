// The adapter table that the hook driver fills, adapter identifiers, the hook driver's adapter callbacks and lookups.
#include "ndisfilter-handle.h"
#include "ndisfilter-internal.h"

AdapterIdTable g_AdapterIdTable;

namespace
{

// The count leads the packed table, which the device extension keeps aligned.
volatile ULONG& AdapterCount()
{
    return *reinterpret_cast<volatile ULONG*>(&Global().m_AdapterList);
}

// The handle of an entry, read until two reads agree: packed entries cross cache lines, and half of an old and half
// of a new handle would be none. Acquires what RefreshAdapterTable released before the hook driver wrote the entry: the
// record behind the handle is there.
FilterAdapter* ReadAdapterHandle(ULONG index)
{
    const AdapterInfo* const entry = &Global().m_AdapterList.m_Adapters[index];
    FilterAdapter* first;
    FilterAdapter* second;
    do {
        CopyRelaxed(&first, entry, sizeof(first));
        CopyRelaxed(&second, entry, sizeof(second));
    } while (first != second);
    (VOID)LoadAcquire(AdapterCount());
    return first;
}

VOID RefreshAdapterTable()
{
    const auto getBoundAdapters = BoundHookFunction(&NdisHookAPI::Hook_GetTcpIpBoundAdapters);
    if (getBoundAdapters != nullptr) {
        InterlockedExchange(reinterpret_cast<volatile LONG*>(&AdapterCount()), 0);
        getBoundAdapters(&Global().m_AdapterList);
    }
}

// Under the handler list's lock, in a guard.
VOID CallEventHandlers(ULONG nEvent, FilterAdapter* hAdapter)
{
    for (const EventHandler& handler : Global().m_EventHandlerList) {
        handler.m_pfEventProc(handler.m_hFilterDriver, handler.m_pDriverContext, nEvent,
                              handler.m_pEventContext, hAdapter);
    }
}

VOID StampAdapter(FilterAdapter* adapter)
{
    StoreRelaxed(adapter->m_Tag, FILTER_ADAPTER_TAG); // handles are checked meanwhile
}

VOID TraceAdapterName(const FilterAdapter* adapter)
{
    const UNICODE_STRING& name = adapter->m_AdapterName;
    const USHORT bytes = name.Length > name.MaximumLength ? name.Length : name.MaximumLength;
    const LONG room = bytes / sizeof(WCHAR); // where the terminating zero is missing
    Trace(TRACE_HOOK, "AdapterName=%.*ws\n", room, name.Buffer);
}

// Runs the body of an adapter callback, which answers the code of an exception that it took under a lock, or 0.
template <class Body>
VOID GuardedCallback(PCSTR reportedName, const Body& body)
{
    NTSTATUS inner = 0;
    const NTSTATUS outer = Guarded([&] { inner = body(); });
    const NTSTATUS code = outer != 0 ? outer : inner;
    if (code != 0) {
        PrintException(reportedName, code);
    }
}

// The identifier of an adapter, 0 when it has none.
ULONG FindAdapterId(const FilterAdapter* hAdapter)
{
    // Acquires what the appender released with the count: the entries below it are written, and never change again.
    const ULONG count = LoadAcquire(g_AdapterIdTable.m_nCount);
    for (ULONG i = 0; i < count; i++) {
        if (g_AdapterIdTable.m_Entries[i].m_hAdapter == hAdapter) {
            return g_AdapterIdTable.m_Entries[i].m_nId;
        }
    }
    return 0;
}

// As above for an adapter not found without the lock; appends it. 0: the table is full.
ULONG FindOrAppendAdapterId(FilterAdapter* hAdapter)
{
    WriteLock lock(g_AdapterIdTable.m_AdapterIdLock);
    const ULONG known = FindAdapterId(hAdapter); // another caller may have come first
    const ULONG count = g_AdapterIdTable.m_nCount;
    if (known != 0 || count == NDIS_FILTER_MAX_ADAPTERS) {
        return known;
    }
    const ULONG id = g_AdapterIdTable.m_nNextId++;
    g_AdapterIdTable.m_Entries[count].m_hAdapter = hAdapter;
    g_AdapterIdTable.m_Entries[count].m_nId = id;
    StoreRelease(g_AdapterIdTable.m_nCount, count + 1); // for the search without the lock in FindAdapterId
    return id;
}

// Stores the handle of the first entry that `matches`; FALSE when there is none. Touches no caller memory.
template <class Matches>
BOOLEAN FindAdapter(const Matches& matches, FilterAdapter*& adapter)
{
    ReadLock lock(Global().m_AdapterListLock);
    const ULONG count = ReadAdapterCount();
    for (ULONG i = 0; i < count; i++) {
        const AdapterInfo info = ReadAdapterInfo(i);
        if (matches(info)) {
            adapter = info.m_hAdapter;
            return TRUE;
        }
    }
    return FALSE;
}

// For functions that run unguarded otherwise.
template <class Value>
FILTER_STATUS StoreResult(PCSTR functionName, Value* output, Value value)
{
    const NTSTATUS code = Guarded([&] { *output = value; });
    return code == 0 ? FILTER_STATUS_SUCCESS : ExceptionStatus(functionName, code);
}

} // namespace

ULONG ReadAdapterCount()
{
    if (g_pDeviceExtension == nullptr) {
        return 0; // client drivers may ask before the framework has started
    }
    const ULONG count = LoadRelaxed(AdapterCount());
    return count < NDIS_FILTER_MAX_ADAPTERS ? count : NDIS_FILTER_MAX_ADAPTERS;
}

AdapterInfo ReadAdapterInfo(ULONG index)
{
    AdapterInfo info;
    CopyRelaxed(&info, &Global().m_AdapterList.m_Adapters[index], sizeof(info));
    info.m_hAdapter = ReadAdapterHandle(index);
    return info;
}

BOOLEAN IsAdapterListed(const FilterAdapter* hAdapter)
{
    const ULONG count = ReadAdapterCount();
    for (ULONG i = 0; i < count; i++) {
        if (ReadAdapterHandle(i) == hAdapter) {
            return TRUE;
        }
    }
    return FALSE;
}

NTSTATUS DeliverAdapterEvent(ULONG nEvent, FilterAdapter* hAdapter)
{
    SpinLock lock(Global().m_EventHandlerLock);
    return Guarded([&] { CallEventHandlers(nEvent, hAdapter); });
}

ULONG NdisFilter_AdapterOpened(FilterAdapter* pAdapter)
{
    Trace(TRACE_HOOK, "Enter NdisFilter_AdapterOpened\n");
    if (pAdapter == nullptr) {
        return 0;
    }
    GuardedCallback("NdisFilter_AdapterOpened", [&] {
        TraceAdapterName(pAdapter);
        StampAdapter(pAdapter);
        RefreshAdapterTable();
        return DeliverAdapterEvent(FILTER_EVENT_ADAPTER_OPENED, pAdapter);
    });
    Trace(TRACE_HOOK, "Leave NdisFilter_AdapterOpened\n");
    return 0;
}

ULONG NdisFilter_AdapterStatusChanged(FilterAdapter* pAdapter, NDIS_STATUS nStatus)
{
    Trace(TRACE_HOOK, "Enter NdisFilter_AdapterStatusChanged\n");
    if (pAdapter != nullptr) {
        GuardedCallback("NdisFilter_AdapterStatusChanged", [&]() -> NTSTATUS {
            TraceAdapterName(pAdapter);
            switch (nStatus) {
            case NDIS_STATUS_MEDIA_CONNECT:
                return DeliverAdapterEvent(FILTER_EVENT_MEDIA_CONNECT, pAdapter);
            case NDIS_STATUS_MEDIA_DISCONNECT:
                return DeliverAdapterEvent(FILTER_EVENT_MEDIA_DISCONNECT, pAdapter);
            default:
                DbgPrint("Unknown adapter status 0x%x\n", nStatus);
                return 0;
            }
        });
    }
    Trace(TRACE_HOOK, "Leave NdisFilter_AdapterStatusChanged\n");
    return 0;
}

ULONG NdisFilter_AdapterClosed(FilterAdapter* pAdapter)
{
    Trace(TRACE_HOOK, "Enter NdisFilter_AdapterClosed\n");
    if (pAdapter != nullptr) {
        GuardedCallback("NdisFilter_AdapterClosed", [&] {
            TraceAdapterName(pAdapter);
            NTSTATUS code = CloseAdapterEthrLogs(pAdapter);
            if (code == 0) {
                RefreshAdapterTable();
                code = CloseAdapterEthrLogs(pAdapter); // of a start that still found it in the table meanwhile
            }
            return code == 0 ? DeliverAdapterEvent(FILTER_EVENT_ADAPTER_CLOSED, pAdapter) : code;
        });
    }
    Trace(TRACE_HOOK, "Leave NdisFilter_AdapterClosed\n");
    return 0;
}

VOID NdisFilter_EnumOpenedAdapter()
{
    Trace(TRACE_HOOK, "Enter NdisFilter_EnumOpenedAdapter\n");
    GuardedCallback("NdisFilter_AdapterOpened", []() -> NTSTATUS {
        RefreshAdapterTable();
        const ULONG count = ReadAdapterCount();
        if (count == 0) {
            return 0;
        }
        SpinLock lock(Global().m_EventHandlerLock);
        return Guarded([&] {
            for (ULONG i = 0; i < count; i++) {
                FilterAdapter* adapter = ReadAdapterHandle(i);
                StampAdapter(adapter);
                CallEventHandlers(FILTER_EVENT_ADAPTER_OPENED, adapter);
            }
        });
    });
    Trace(TRACE_HOOK, "Leave NdisFilter_EnumOpenedAdapter\n");
}

VOID Filter_EnumOpenedAdapter()
{
    NdisFilter_EnumOpenedAdapter();
}

BOOLEAN Filter_IsValidAdapter(FilterAdapter* hAdapter)
{
    return CheckRecord("Filter_IsValidAdapter", hAdapter, FILTER_ADAPTER_TAG);
}

FILTER_STATUS Filter_AdapterToId(FilterAdapter* hAdapter, PULONG pId)
{
    ULONG id = FindAdapterId(hAdapter);
    if (id == 0) {
        id = FindOrAppendAdapterId(hAdapter);
    }
    if (id == 0) {
        return FILTER_ERROR_INTERNAL_ERROR;
    }
    return StoreResult("Filter_AdapterToId", pId, id);
}

FILTER_STATUS Filter_IdToAdapter(ULONG nId, FilterAdapter** phAdapter)
{
    FilterAdapter* hAdapter = nullptr;
    BOOLEAN found = FALSE;
    {
        ReadLock lock(g_AdapterIdTable.m_AdapterIdLock);
        for (ULONG i = 0; i < g_AdapterIdTable.m_nCount && !found; i++) {
            hAdapter = g_AdapterIdTable.m_Entries[i].m_hAdapter;
            found = g_AdapterIdTable.m_Entries[i].m_nId == nId;
        }
    }
    if (!found) {
        return FILTER_ERROR_INVALID_ARGUMENT;
    }
    return StoreResult("Filter_IdToAdapter", phAdapter, hAdapter);
}

FilterAdapter* Filter_GetFirstAdapter()
{
    return ReadAdapterCount() != 0 ? ReadAdapterHandle(0) : nullptr;
}

FILTER_STATUS Filter_EnumAdapter(FilterDriver* hFilterDriver, FILTER_ENUM_ADAPTER pfEnumProc, PVOID pContext)
{
    constexpr CallTrace trace{"Filter_EnumAdapter", TRACE_ADAPTER};
    return TracedCall(trace, [&]() -> FILTER_STATUS {
        if (hFilterDriver == nullptr || pfEnumProc == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (!Filter_IsValidDriver(hFilterDriver)) {
            return FILTER_ERROR_INVALID_DRIVER_HANDLE;
        }
        NTSTATUS code;
        {
            ReadLock lock(Global().m_AdapterListLock);
            code = Guarded([&] {
                const ULONG count = ReadAdapterCount();
                for (ULONG i = 0; i < count; i++) {
                    if (!pfEnumProc(pContext, ReadAdapterHandle(i))) {
                        return;
                    }
                }
            });
        }
        return code == 0 ? FILTER_STATUS_SUCCESS : ExceptionStatus(trace.Name, code);
    });
}

FILTER_STATUS Filter_FindAdapterByMacAddress(const UCHAR* pMacAddress, FilterAdapter** phAdapter)
{
    return TracedCall({"Filter_FindAdapterByMacAddress", TRACE_ADAPTER}, [&]() -> FILTER_STATUS {
        if (pMacAddress == nullptr || phAdapter == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        UCHAR address[sizeof(AdapterInfo::m_CurrentAddress)];
        RtlCopyMemory(address, pMacAddress, sizeof(address));
        const auto matches = [&](const AdapterInfo& info) {
            return RtlEqualMemory(info.m_CurrentAddress, address, sizeof(address));
        };
        FilterAdapter* adapter;
        if (!FindAdapter(matches, adapter)) {
            return FILTER_ERROR_ADAPTER_NOT_FOUND;
        }
        *phAdapter = adapter;
        return FILTER_STATUS_SUCCESS;
    });
}

FILTER_STATUS Filter_FindAdapterByNetCfgInstanceId(PCSTR pszInstanceId, FilterAdapter** phAdapter)
{
    return TracedCall({"Filter_FindAdapterByNetCfgInstanceId", TRACE_ADAPTER}, [&]() -> FILTER_STATUS {
        if (pszInstanceId == nullptr || phAdapter == nullptr || *pszInstanceId == 0) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        // Copied before the lock is taken. A longer id is the beginning of no name.
        CHAR id[sizeof(AdapterInfo::m_szAdapterName)];
        SIZE_T length = 0;
        while (pszInstanceId[length] != 0) {
            if (length == sizeof(id)) {
                return FILTER_ERROR_ADAPTER_NOT_FOUND;
            }
            id[length] = pszInstanceId[length];
            length++;
        }
        const auto matches = [&](const AdapterInfo& info) {
            return RtlEqualMemory(info.m_szAdapterName, id, length);
        };
        FilterAdapter* adapter;
        if (!FindAdapter(matches, adapter)) {
            return FILTER_ERROR_ADAPTER_NOT_FOUND;
        }
        Trace(TRACE_ADAPTER, "Find Filter_FindAdapterByNetCfgInstanceId\n");
        *phAdapter = adapter;
        return FILTER_STATUS_SUCCESS;
    });
}
