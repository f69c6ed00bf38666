// What the files of the framework call of one another and nobody else does, by the file that holds it.
#pragma once

#include "ndisfilter-state.h"
#include "ndisfilter-trace.h"

inline PFILE_OBJECT FileObjectOf(PIRP irp)
{
    return IoGetCurrentIrpStackLocation(irp)->FileObject;
}

// How long the unload waits for the workers' exit event, and the share thread for new blocks.
constexpr UINT SHARE_WAIT_MS = 0x0FFFFFFF;

extern "C" {

// ---- ndisfilter-main: dispatch routines and the life of the global state
NTSTATUS DriverEntry(PDRIVER_OBJECT pDriverObject, PUNICODE_STRING pRegistryPath);
NTSTATUS NdisFilterOpen(PDEVICE_OBJECT pDeviceObject, PIRP pIrp);
NTSTATUS NdisFilterClose(PDEVICE_OBJECT pDeviceObject, PIRP pIrp);
NTSTATUS NdisFilterCleanup(PDEVICE_OBJECT pDeviceObject, PIRP pIrp);
NTSTATUS NdisFilterShutdown(PDEVICE_OBJECT pDeviceObject, PIRP pIrp);
VOID NdisFilterUnload(PDRIVER_OBJECT pDriverObject);
VOID NdisFilterInitialize();
VOID NdisFilterDeInitialize();

// Stores status and length in the request and completes it.
NTSTATUS CompleteRequest(PIRP pIrp, NTSTATUS status, ULONG_PTR information);

HANDLE StartWorkerThread(PKSTART_ROUTINE routine, PVOID context); // nullptr when it cannot be had
VOID WaitForWorkerThread(HANDLE& handle); // until it has ended; closes the handle, which may be nullptr

// What every worker thread does first and last: counts itself and runs at the lowest real-time priority.
VOID EnterWorkerThread();
VOID LeaveWorkerThread(); // ends the thread

// ---- ndisfilter-main-binding
NTSTATUS NdisFilterInternalIoControl(PDEVICE_OBJECT pDeviceObject, PIRP pIrp);
VOID InitializeHookInterface(); // the framework's own copy: unbound, callbacks filled in

// ---- ndisfilter-main-requests
NTSTATUS NdisFilterIoControl(PDEVICE_OBJECT pDeviceObject, PIRP pIrp);

// ---- ndisfilter-memory
// A zero-filled block for a record. nullptr when no memory is left.
PVOID AllocateZeroed(SIZE_T size, ULONG tag);

// ---- ndisfilter-settings
// Queues a work item that the unload waits for. Its routine calls LeaveQueuedWork last. IRQL <= DISPATCH.
VOID QueueWork(PWORK_QUEUE_ITEM item, PWORKER_THREAD_ROUTINE routine, PVOID parameter);
VOID LeaveQueuedWork();
// Until all work items of the framework are done, for the unload. Workers that have counted themselves out, the last
// or any before it, still return from their routines into the system's worker: a few instructions each, but a worker
// that is preempted there may come to them at any time later, and none can say when it has got there.
VOID WaitForQueuedWork();

// ---- ndisfilter-event
FilterEventRecord* TakeEventRecord(); // nullptr when 1,023 are out or no memory is left
VOID GiveBackEventRecord(FilterEventRecord* record);

// ---- ndisfilter-adapter: callbacks for the hook driver
ULONG NdisFilter_AdapterOpened(FilterAdapter* pAdapter);
ULONG NdisFilter_AdapterStatusChanged(FilterAdapter* pAdapter, NDIS_STATUS nStatus);
ULONG NdisFilter_AdapterClosed(FilterAdapter* pAdapter);
VOID NdisFilter_EnumOpenedAdapter();
// Calls every adapter event handler, at DISPATCH_LEVEL under the handler list's lock. Answers 0, or the code of the
// exception that ended the walk, which the raiser reports under its own name.
NTSTATUS DeliverAdapterEvent(ULONG nEvent, FilterAdapter* hAdapter);
ULONG ReadAdapterCount();                 // read once, at most 32
AdapterInfo ReadAdapterInfo(ULONG index); // a copy, taken without the lock
BOOLEAN IsAdapterListed(const FilterAdapter* hAdapter);

// ---- ndisfilter-timer
// Unlinks a driver's timers, stops them for good, and has their records freed once nothing uses them.
// IRQL <= DISPATCH.
VOID RetireTimers(const FilterDriver* owner);
// Stops all timers for good, for the unload, and those that are created from then on; they stay listed. PASSIVE_LEVEL.
VOID StopTimers();

// ---- ndisfilter-packetfilter
PacketFilterCounters SumFilterCounters(const PacketFilter& filter);

// ---- ndisfilter-packetapi-invoke: callbacks for the hook driver
VOID NdisFilter_FilterReceivedPacket(FilterPacket* pPacket);
VOID NdisFilter_FilterSendPacket(FilterPacket* pPacket);
// As Filter_InvokeFiltersEx, for a filter handle that may be stale: the packet is released when no chain holds it.
VOID InvokeQueuedFilter(FILTER_METHOD nMethod, PacketFilter* hPacketFilter, FilterPacket* pPacket);

// ---- ndisfilter-packetapi-inject
VOID InjectedPacketThread(PVOID pContext); // pContext: the queue's index

// ---- ndisfilter-ethrlog
VOID NdisFilter_StartEthrLog();   // for every adapter of the table
BOOLEAN NdisFilter_StopEthrLog(); // FALSE when the table is empty, and then nothing is stopped
BOOLEAN NdisFilter_StartAdapterEthrLog(const AdapterInfo& info);
BOOLEAN NdisFilter_StopAdapterEthrLog(const AdapterInfo& info);
// The logs stop to take frames at once; their files are closed by queued work. IRQL <= DISPATCH. Answers 0, or the code
// of the exception that the adapter's memory raised.
NTSTATUS CloseAdapterEthrLogs(FilterAdapter* pAdapter);

// ---- ndisfilter-ethrlog-life
VOID InitializeEthrLogs();
VOID CloseAllEthrLogs(); // as above

// ---- ndisfilter-ethrlog-record
// Copies a packet into the log of a slot when it is open. IRQL <= DISPATCH.
VOID RecordToLog(const PVOID& slot, FilterPacket* pPacket);

inline VOID RecordFrame(const PVOID& slot, FilterPacket* pPacket)
{
    if (__builtin_expect(LoadRelaxed(slot) != nullptr, 0)) {
        RecordToLog(slot, pPacket);
    }
}

// The same for a slot of the packet's adapter.
inline VOID RecordAdapterFrame(PVOID FilterAdapter::*slot, FilterPacket* pPacket)
{
    const FilterAdapter* const adapter = pPacket->m_hAdapter;
    if (adapter != nullptr) {
        RecordFrame(adapter->*slot, pPacket);
    }
}

// ---- ndisfilter-diag: one diagnostic runs at a time, from a successful Prepare to End
FILTER_STATUS Filter_PrepareDiag(const VOID* pInput, ULONG nInputLength, PVOID pOutput, ULONG nOutputLength);
VOID Filter_EndDiag();

// ---- ndisfilter-diag-commands
extern const CHAR g_szBuildDate[];
extern const CHAR g_szBuildTime[];
// STATUS_SUCCESS: answered. STATUS_NOT_SUPPORTED: meant for other drivers, too, or only for them.
NTSTATUS NdisFilter_DiagHandler(const VOID* pInput, ULONG nInputLength, PVOID pOutput, ULONG nOutputLength);

// ---- ndisfilter-diag-dump
VOID NdisFilter_DumpDeviceExtension(); // to the debugger, whatever the debug mask; PASSIVE_LEVEL

// ---- ndisfilter-sharedmem
// The fields of MappedMemory in front of the shared memory.
struct MappedMemoryHead {
    ULONGLONG m_pUserModeVirtualAddress;
    ULONGLONG m_pMdl;
    ULONG m_nSize;
};
static_assert(offsetof(MappedMemoryHead, m_nSize) == offsetof(MappedMemory, m_nSize));

MappedMemory* NdisFilter_AllocateMappedMemory();
VOID NdisFilter_FreeMappedMemory(MappedMemory* pMappedMemory);
VOID InitializeSharedMemory(MappedMemory* pMappedMemory);
PVOID NdisFilter_MapMemoryToUserSpace(MappedMemory* pMappedMemory);
VOID NdisFilter_UnmapMemoryToUserSpace(MappedMemory* pMappedMemory);
ULONG_PTR NdisFilter_StartShare(PIRP pIrp);
VOID NdisFilter_StopShare(PIRP pIrp);
VOID NdisFilter_TerminateShare();
BOOLEAN IsShareOwner(PFILE_OBJECT file);
FilterPacket* NdisFilter_ReadShareMemory();
BOOLEAN NdisFilter_WriteShareMemory(FilterPacket* pPacket);
BOOLEAN NdisFilter_WriteSignalPacket(PVOID pSignal);
BOOLEAN IsOutputRingEmpty(); // FALSE, too, when the program has spoilt an index

// ---- ndisfilter-sharedmem-requests
VOID ShareMemoryThread(PVOID pContext);
NTSTATUS NdisFilter_IOCtrlReadShare(PIRP pIrp);
NTSTATUS NdisFilter_IOCtrlWriteShare(PIRP pIrp);
VOID NdisFilter_CompleteRead();
VOID CompleteParkedRead(); // the same without its trace lines
VOID CancelPendingReadShare(PDEVICE_OBJECT pDeviceObject, PIRP pIrp);
}
