// The trace lines of exported functions.
#include "ndisfilter-trace.h"

VOID PrintError(FILTER_STATUS status)
{
    DbgPrint("  Error: %d - %s\n", status, Filter_StatusString(status));
}

VOID PrintEnter(const CallTrace& trace)
{
    if (trace.Enter != nullptr) {
        DbgPrint(trace.Enter, trace.Subject);
    } else {
        DbgPrint("Enter %s\n", trace.Name);
    }
}

VOID PrintLeave(const CallTrace& trace, FILTER_STATUS status)
{
    const BOOLEAN succeeded = status == FILTER_STATUS_SUCCESS;
    if (!succeeded || trace.Success != SuccessTrace::Leave) {
        PrintError(status);
    }
    if (trace.Leave != nullptr) {
        trace.Leave(status, trace.Subject);
    } else if (!succeeded || trace.Success != SuccessTrace::ErrorOnly) {
        DbgPrint("Leave %s, %d-%s\n", trace.Name, status, Filter_StatusString(status));
    }
}
