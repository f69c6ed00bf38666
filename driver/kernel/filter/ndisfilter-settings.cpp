// Settings from the registry, the version numbers of the hook driver, the clock, and work for the system's threads.
#include "ndisfilter-internal.h"

volatile ULONG GlobalDebugFlag;
ULONG g_nPendingPacketLimit;
UNICODE_STRING g_RegistryPath;

namespace
{

// ------------------------------------------------------------------------------------------------- work items

struct DebugFlagItem {
    WORK_QUEUE_ITEM m_QueueItem;
    PUNICODE_STRING m_pRegistryPath;
    ULONG m_nDefault;
    PULONG m_pResult;
};

// Items queued and not finished, plus one that WaitForQueuedWork takes away: so the event, which only the step to 0
// sets, exists by then.
LONG g_nQueuedWork = 1;
KEVENT g_QueuedWorkDone;

VOID ReadDebugFlag(PVOID parameter)
{
    DebugFlagItem* const item = static_cast<DebugFlagItem*>(parameter);
    const ULONG value = Filter_GetGlobalDebugFlag(item->m_pRegistryPath, item->m_nDefault);
    StoreRelaxed(*item->m_pResult, value); // read by whoever traces
    ExFreePool(item);
    LeaveQueuedWork();
}

// --------------------------------------------------------------------------------------------------- registry

// The room for a copy of a path of the service key: pDestination gets its buffer and lengths.
NTSTATUS AllocatePath(PUNICODE_STRING pSource, PUNICODE_STRING pDestination)
{
    const USHORT length = pSource->Length;
    const USHORT maximum = pSource->MaximumLength;
    const SIZE_T size = static_cast<SIZE_T>(length > maximum ? length : maximum) + sizeof(WCHAR);
    PWSTR buffer = static_cast<PWSTR>(ExAllocatePool(NonPagedPool, size));
    if (buffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(buffer, size);
    pDestination->Length = length;
    pDestination->MaximumLength =
        static_cast<USHORT>(maximum + sizeof(WCHAR)); // may wrap; the block does not
    pDestination->Buffer = buffer;
    return STATUS_SUCCESS;
}

VOID CopyBytes(PWSTR destination, SIZE_T offset, const WCHAR* source, SIZE_T sourceOffset, SIZE_T length)
{
    if (length != 0) {
        RtlCopyMemory(reinterpret_cast<PUCHAR>(destination) + offset,
                      reinterpret_cast<const UCHAR*>(source) + sourceOffset, length);
    }
}

// Reads one value, of `type` and no other, into `destination`. FALSE: no memory was left, or the query failed, which
// is printed.
BOOLEAN QueryRegistry(PUNICODE_STRING pRegistryPath, PCWSTR pszName, ULONG type, PVOID defaultData,
                      ULONG defaultLength, PVOID destination)
{
    constexpr SIZE_T TableSize = 2 * sizeof(RTL_QUERY_REGISTRY_TABLE); // the second, all zero, ends the table
    auto* table = static_cast<PRTL_QUERY_REGISTRY_TABLE>(ExAllocatePool(NonPagedPool, TableSize));
    if (table == nullptr) {
        return FALSE;
    }
    RtlZeroMemory(table, TableSize);
    // Without the type check a text would be written over what lies behind a number.
    table->Flags = RTL_QUERY_REGISTRY_DIRECT | RTL_QUERY_REGISTRY_TYPECHECK;
    table->Name = const_cast<PWSTR>(pszName);
    table->EntryContext = destination;
    table->DefaultType = type | type << RTL_QUERY_REGISTRY_TYPECHECK_SHIFT;
    table->DefaultData = defaultData;
    table->DefaultLength = defaultLength;
    const NTSTATUS status =
        RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, pRegistryPath->Buffer, table, nullptr, nullptr);
    ExFreePool(table);
    if (!NT_SUCCESS(status)) {
        DbgPrint("RtlQueryRegistryValues %S\\%S fail, error = 0x%X\n", pRegistryPath->Buffer, pszName,
                 status);
        return FALSE;
    }
    return TRUE;
}

} // namespace

VOID QueueWork(PWORK_QUEUE_ITEM item, PWORKER_THREAD_ROUTINE routine, PVOID parameter)
{
    ExInitializeWorkItem(item, routine, parameter);
    InterlockedIncrement(&g_nQueuedWork);
    ExQueueWorkItem(item, DelayedWorkQueue);
}

VOID LeaveQueuedWork()
{
    if (InterlockedDecrement(&g_nQueuedWork) == 0) {
        KeSetEvent(&g_QueuedWorkDone, IO_NO_INCREMENT, FALSE);
    }
}

VOID WaitForQueuedWork()
{
    KeInitializeEvent(&g_QueuedWorkDone, NotificationEvent, FALSE);
    LeaveQueuedWork();
    KeWaitForSingleObject(&g_QueuedWorkDone, Executive, KernelMode, FALSE, nullptr);
    g_nQueuedWork = 1;
}

FILTER_STATUS Filter_GetOsVersion(PULONG p1, PULONG p2, PULONG p3, PULONG p4)
{
    return TracedCall({"Filter_GetOsVersion", TRACE_SERVICE}, [&]() -> FILTER_STATUS {
        if (p1 == nullptr && p2 == nullptr && p3 == nullptr && p4 == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        const auto getOsVersion = BoundHookFunction(&NdisHookAPI::Hook_GetOsVersion);
        if (getOsVersion == nullptr) {
            return FILTER_ERROR_INTERFACE_NOT_ACTIVE;
        }
        return getOsVersion(p1, p2, p3, p4) == 0 ? FILTER_STATUS_SUCCESS : FILTER_ERROR_INTERNAL_ERROR;
    });
}

NTSTATUS Filter_SaveDriverRegistryPath(PUNICODE_STRING pSource, PUNICODE_STRING pDestination)
{
    if (pSource == nullptr || pDestination == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    const NTSTATUS status = AllocatePath(pSource, pDestination);
    if (NT_SUCCESS(status)) {
        CopyBytes(pDestination->Buffer, 0, pSource->Buffer, 0, pDestination->Length);
    }
    return status;
}

NTSTATUS Filter_ReplaceDriverRegistryPath(PUNICODE_STRING pSource, PUNICODE_STRING pTail,
                                          PUNICODE_STRING pDestination)
{
    if (pSource == nullptr || pTail == nullptr || pDestination == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    const NTSTATUS status = AllocatePath(pSource, pDestination);
    if (NT_SUCCESS(status)) {
        // Of a tail longer than the path only the end has a place.
        const SIZE_T length = pDestination->Length;
        const SIZE_T tail = pTail->Length < length ? pTail->Length : length;
        CopyBytes(pDestination->Buffer, 0, pSource->Buffer, 0, length - tail);
        CopyBytes(pDestination->Buffer, length - tail, pTail->Buffer, pTail->Length - tail, tail);
    }
    return status;
}

ULONG Filter_RegGetDwordValue(PUNICODE_STRING pRegistryPath, PCWSTR pszName, ULONG nDefault)
{
    ULONG value = nDefault;
    if (!QueryRegistry(pRegistryPath, pszName, REG_DWORD, &nDefault, sizeof(nDefault), &value)) {
        return nDefault;
    }
    DbgPrint("RtlQueryRegistryValues %S\\%S success, Value = 0x%X\n", pRegistryPath->Buffer, pszName, value);
    return value;
}

BOOLEAN Filter_RegGetStringValue(PUNICODE_STRING pRegistryPath, PCWSTR pszName, PUNICODE_STRING pValue)
{
    WCHAR empty[1] = {};
    if (!QueryRegistry(pRegistryPath, pszName, REG_SZ, empty, 0, pValue)) {
        return FALSE;
    }
    const LONG length = pValue->Length / sizeof(WCHAR); // the registry's text need not end with a zero
    DbgPrint("RtlQueryRegistryValues %S\\%S success, Value = %.*ws\n", pRegistryPath->Buffer, pszName, length,
             pValue->Buffer);
    return TRUE;
}

ULONG Filter_GetGlobalDebugFlag(PUNICODE_STRING pRegistryPath, ULONG nDefault)
{
    return Filter_RegGetDwordValue(pRegistryPath, L"GlobalDebugFlag", nDefault);
}

ULONG Filter_GetPendingPacketLimit(PUNICODE_STRING pRegistryPath, ULONG nDefault)
{
    return Filter_RegGetDwordValue(pRegistryPath, L"PendingPacketLimit", nDefault);
}

VOID Filter_SafeGetGlobalDebugFlag(PUNICODE_STRING pRegistryPath, ULONG nDefault, PULONG pResult)
{
    DebugFlagItem* item = static_cast<DebugFlagItem*>(ExAllocatePool(NonPagedPool, sizeof(DebugFlagItem)));
    if (item == nullptr) {
        return;
    }
    item->m_pRegistryPath = pRegistryPath;
    item->m_nDefault = nDefault;
    item->m_pResult = pResult;
    QueueWork(&item->m_QueueItem, ReadDebugFlag, item);
}

LONGLONG Filter_GetSystemTime()
{
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    return now.QuadPart / 10000000;
}

LONGLONG Filter_GetSystemTimeMs()
{
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    return now.QuadPart / 10000;
}
