// The event queue: records that client drivers report and the user program collects, first in, first out.
#include "ndisfilter-internal.h"

namespace
{

constexpr LONG MAX_LOG_SIZE = 1023;

VOID AppendEvent(FilterEventRecord* record)
{
    WriteLock lock(Global().m_FilterLogLock);
    Global().m_FilterLogList.Append(*record);
}

// Reports an event whose text `fill` writes; it reads the caller's memory, so a fault gives the record back.
template <class Fill>
FILTER_STATUS Report(PCSTR functionName, ULONG nEvent1, ULONG nEvent2, const Fill& fill)
{
    FilterEventRecord* record = TakeEventRecord();
    if (record == nullptr) {
        return FILTER_ERROR_OUT_OF_MEMORY;
    }
    record->m_Event.m_nEvent1 = nEvent1;
    record->m_Event.m_nEvent2 = nEvent2;
    const NTSTATUS code = Guarded([&] { fill(record->m_Event); });
    if (code != 0) {
        GiveBackEventRecord(record);
        return ExceptionStatus(functionName, code);
    }
    AppendEvent(record);
    return FILTER_STATUS_SUCCESS;
}

} // namespace

FilterEventRecord* TakeEventRecord()
{
    NdisFilterDeviceExtension& global = Global();
    // The place is taken before the memory, so that no two reporters take the last one.
    LONG size = LoadRelaxed(global.m_CurrentLogSize);
    for (;;) {
        if (size >= MAX_LOG_SIZE) {
            Trace(TRACE_EVENT, "pGlobal->m_CurrentLogSize = %d, >= MAX_LOG_SIZE\n", size);
            return nullptr;
        }
        const LONG seen = InterlockedCompareExchange(&global.m_CurrentLogSize, size + 1, size);
        if (seen == size) {
            break;
        }
        size = seen;
    }
    auto* record =
        static_cast<FilterEventRecord*>(ExAllocateFromNPagedLookasideList(&global.m_LogLookasideList));
    if (record == nullptr) {
        InterlockedDecrement(&global.m_CurrentLogSize);
        return nullptr;
    }
    RtlZeroMemory(record, sizeof(*record)); // user mode gets the whole text
    return record;
}

VOID GiveBackEventRecord(FilterEventRecord* record)
{
    ExFreeToNPagedLookasideList(&Global().m_LogLookasideList, record);
    InterlockedDecrement(&Global().m_CurrentLogSize);
}

FILTER_STATUS Filter_ReportEvent(ULONG nEvent1, ULONG nEvent2, PCSTR pszFormat, ...)
{
    constexpr CallTrace trace{"Filter_ReportEvent", TRACE_SERVICE};
    va_list arguments;
    va_start(arguments, pszFormat);
    const FILTER_STATUS status = TracedCall(trace, [&] {
        return Report(trace.Name, nEvent1, nEvent2, [&](UserEvent& event) {
            if (pszFormat == nullptr) {
                return;
            }
            constexpr LONG TextSize = NDIS_FILTER_EVENT_TEXT_SIZE;
            PCHAR text = reinterpret_cast<PCHAR>(event.m_Text);
            const LONG length = _vsnprintf(text, TextSize, pszFormat, arguments);
            event.m_nLength = length < TextSize ? length : -1; // no room for the zero counts as cut
            Trace(TRACE_SERVICE, "Filter_ReportEvent: %.*s\n", TextSize, text);
        });
    });
    va_end(arguments);
    return status;
}

FILTER_STATUS Filter_ReportEventEx(ULONG nEvent1, ULONG nEvent2, ULONG nLength, const VOID* pData)
{
    constexpr CallTrace trace{"Filter_ReportEventEx", TRACE_SERVICE};
    return TracedCall(trace, [&] {
        return Report(trace.Name, nEvent1, nEvent2, [&](UserEvent& event) {
            if (pData == nullptr) {
                return;
            }
            const ULONG length =
                nLength < NDIS_FILTER_EVENT_TEXT_SIZE ? nLength : NDIS_FILTER_EVENT_TEXT_SIZE;
            RtlCopyMemory(event.m_Text, pData, length);
            event.m_nLength = static_cast<LONG>(length);
        });
    });
}
