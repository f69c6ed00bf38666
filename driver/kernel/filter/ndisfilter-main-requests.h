// What the rooms of the control requests share.
#pragma once

#include "ndisfilter-internal.h"

struct ControlRequest {
    PIRP Irp;
    ULONG Code;
    PVOID Buffer; // input and output
    ULONG InputLength;
    ULONG OutputLength;
    ULONG_PTR Information; // bytes returned
};

// One request of the framework's own. Its routine runs when the lengths are as great as these and the buffer holds as
// many bytes as the greatest of them; those of the buffer that the program has not sent are zero then.
struct ControlOperation {
    ULONG Code;
    PCSTR Name; // as traced
    ULONG MinimumInput;
    ULONG MinimumOutput;
    NTSTATUS (*Routine)(ControlRequest& request);
    ULONG MinimumBuffer = 0; // bytes that it reads without an input length that would say so
    BOOLEAN IsInputCheckedFirst = FALSE;
    BOOLEAN IsAlwaysNamed = FALSE; // whatever the debug mask
};

// Part of a record in the buffer, which need not be aligned.
template <class Value>
Value ReadField(const ControlRequest& request, ULONG offset)
{
    Value value;
    RtlCopyMemory(&value, static_cast<const UCHAR*>(request.Buffer) + offset, sizeof(value));
    return value;
}

template <class Value>
VOID WriteField(const ControlRequest& request, ULONG offset, const Value& value)
{
    RtlCopyMemory(static_cast<PUCHAR>(request.Buffer) + offset, &value, sizeof(value));
}

// The routines' scratch memory. nullptr when none is left, and says so; the request then ends with STATUS_NO_MEMORY.
PVOID AllocateScratch(SIZE_T size);

// The identifier of an adapter for user mode; says so when there is none.
NTSTATUS TranslateToId(FilterAdapter* hAdapter, PULONG id);

// ---- ndisfilter-main-requests-adapters
NTSTATUS GetTcpIpInterfaces(ControlRequest& request);
NTSTATUS SetIpConfig(ControlRequest& request);
NTSTATUS GetIpConfig(ControlRequest& request);
NTSTATUS SetMediaStatus(ControlRequest& request);
NTSTATUS GetMediaStatus(ControlRequest& request);
NTSTATUS SetPacketDump(ControlRequest& request);
NTSTATUS GetPacketDump(ControlRequest& request);
NTSTATUS GetAdapter(ControlRequest& request);

// ---- ndisfilter-main-requests-events
NTSTATUS GetEvent(ControlRequest& request);
NTSTATUS ClearEvents(ControlRequest& request);
