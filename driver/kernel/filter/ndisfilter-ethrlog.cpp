// Capture logs: libpcap files of the frames that pass certain points, started and stopped for every adapter of the
// table, and two for the shared memory. The packet paths clone a frame and queue it (-record), each log has a thread
// that writes its file (-writer), and logs are opened and closed by queued work (-life).
#include "ndisfilter-ethrlog.h"

namespace
{

constexpr PVOID FilterAdapter::*ADAPTER_SLOTS[] = {
    &FilterAdapter::m_pUpperEthrLog, &FilterAdapter::m_pLowerEthrLog, &FilterAdapter::m_pInjectEthrLog};

VOID FreeUnplaced(EthrLog* log)
{
    if (log != nullptr) {
        Filter_FreeMemory(log);
    }
}

VOID StartGlobalLog(PVOID& slot, PCSTR fileName)
{
    if (LoadRelaxed(slot) == nullptr) {
        EthrLog* log = AllocateLog(fileName, "", "");
        {
            const WriteLock lock(g_EthrLogLock);
            log = PlaceLog(slot, log);
        }
        FreeUnplaced(log);
    }
}

// Under the lock.
BOOLEAN HasLog(FilterAdapter* adapter)
{
    for (PVOID FilterAdapter::*slot : ADAPTER_SLOTS) {
        if (FindLog(adapter->*slot) != nullptr) {
            return TRUE;
        }
    }
    return FALSE;
}

enum class AdapterStart { Started, AlreadyOpen, Gone };

AdapterStart StartAdapterLogs(FilterAdapter* adapter, PCSTR macText)
{
    constexpr PCSTR NameStart = "\\??\\C:\\Adapter(";
    EthrLog* upper = AllocateLog(NameStart, macText, ")NdisUpper.eth");
    EthrLog* lower = AllocateLog(NameStart, macText, ")NdisLower.eth");
    EthrLog* inject = AllocateLog(NameStart, macText, ")NdisInject.eth");
    AdapterStart outcome = AdapterStart::Started;
    {
        const WriteLock lock(g_EthrLogLock);
        if (!IsAdapterListed(adapter)) {
            outcome = AdapterStart::Gone; // closed since the entry was read: its record is not to be touched
        } else if (HasLog(adapter)) {
            outcome = AdapterStart::AlreadyOpen;
        } else {
            upper = PlaceLog(adapter->m_pUpperEthrLog, upper);
            lower = PlaceLog(adapter->m_pLowerEthrLog, lower);
            inject = PlaceLog(adapter->m_pInjectEthrLog, inject);
        }
    }
    FreeUnplaced(upper);
    FreeUnplaced(lower);
    FreeUnplaced(inject);
    return outcome;
}

// Under the lock for writing.
VOID CloseLogOf(const PVOID& slot)
{
    EthrLog* const log = FindLog(slot);
    if (log != nullptr) {
        QueueClosing(*log);
    }
}

VOID CloseGlobalLog(PVOID& slot)
{
    const WriteLock lock(g_EthrLogLock);
    CloseLogOf(slot);
    StoreRelaxed(slot, nullptr);
}

// Closes the logs of an adapter that may have left the table, and clears its slots when it has not: then its record may
// be gone. Answers 0, or the code of the exception that the record raised.
NTSTATUS CloseLogsOf(FilterAdapter* adapter, BOOLEAN isThere)
{
    const WriteLock lock(g_EthrLogLock);
    for (PVOID FilterAdapter::*slot : ADAPTER_SLOTS) {
        CloseLogOf(adapter->*slot);
    }
    if (!isThere && !IsAdapterListed(adapter)) {
        return 0;
    }
    return Guarded([&] {
        for (PVOID FilterAdapter::*slot : ADAPTER_SLOTS) {
            StoreRelaxed(adapter->*slot, nullptr);
        }
    });
}

BOOLEAN StartLogsOf(const AdapterInfo& info)
{
    if (info.m_hAdapter == nullptr) {
        Trace(TRACE_HOOK, "Invalid adapter handle\n");
        return FALSE;
    }
    Trace(TRACE_HOOK, "AdapterName=%.256s\n", info.m_szAdapterName);
    CHAR macText[18];
    inet_mtoa(info.m_CurrentAddress, macText, sizeof(macText));
    switch (StartAdapterLogs(info.m_hAdapter, macText)) {
    case AdapterStart::Gone:
        Trace(TRACE_HOOK, "Invalid adapter handle\n");
        return FALSE;
    case AdapterStart::AlreadyOpen:
        Trace(TRACE_HOOK, "Ethrlog is opened already!");
        return FALSE;
    case AdapterStart::Started:
        break;
    }
    StartGlobalLog(Global().m_pAppToDriverEthrLog, "\\??\\C:\\Application-to-Driver-Io.eth");
    StartGlobalLog(Global().m_pDriverToAppEthrLog, "\\??\\C:\\Driver-to-Application-Io.eth");
    return TRUE;
}

BOOLEAN StopLogsOf(const AdapterInfo& info)
{
    if (info.m_hAdapter == nullptr) {
        Trace(TRACE_HOOK, "Invalid adapter handle\n");
        return FALSE;
    }
    Trace(TRACE_HOOK, "AdapterName=%.256s\n", info.m_szAdapterName);
    const NTSTATUS code = CloseLogsOf(info.m_hAdapter, FALSE);
    if (code != 0) {
        PrintException("NdisFilter_StopAdapterEthrLog", code);
    }
    CloseGlobalLog(Global().m_pAppToDriverEthrLog);
    CloseGlobalLog(Global().m_pDriverToAppEthrLog);
    return TRUE;
}

} // namespace

VOID NdisFilter_StartEthrLog()
{
    Trace(TRACE_HOOK, "Enter NdisFilter_StartEthrLog\n");
    const ULONG count = ReadAdapterCount();
    for (ULONG i = 0; i < count; i++) {
        NdisFilter_StartAdapterEthrLog(ReadAdapterInfo(i));
    }
    Trace(TRACE_HOOK, "Leave NdisFilter_StartEthrLog\n");
}

BOOLEAN NdisFilter_StopEthrLog()
{
    Trace(TRACE_HOOK, "Enter NdisFilter_StopEthrLog\n");
    const ULONG count = ReadAdapterCount();
    for (ULONG i = 0; i < count; i++) {
        NdisFilter_StopAdapterEthrLog(ReadAdapterInfo(i));
    }
    Trace(TRACE_HOOK, "Leave NdisFilter_StopEthrLog\n");
    return count != 0;
}

BOOLEAN NdisFilter_StartAdapterEthrLog(const AdapterInfo& info)
{
    Trace(TRACE_HOOK, "Enter NdisFilter_StartAdapterEthrLog\n");
    const BOOLEAN started = StartLogsOf(info);
    Trace(TRACE_HOOK, "Leave NdisFilter_StartAdapterEthrLog, %s\n", BooleanText(started));
    return started;
}

BOOLEAN NdisFilter_StopAdapterEthrLog(const AdapterInfo& info)
{
    Trace(TRACE_HOOK, "Enter NdisFilter_StopAdapterEthrLog\n");
    const BOOLEAN stopped = StopLogsOf(info);
    Trace(TRACE_HOOK, "Leave NdisFilter_StopAdapterEthrLog, %s\n", BooleanText(stopped));
    return stopped;
}

NTSTATUS CloseAdapterEthrLogs(FilterAdapter* pAdapter)
{
    return CloseLogsOf(pAdapter, TRUE);
}
