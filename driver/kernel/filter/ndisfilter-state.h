// The one global state record, which lies in the extension of the control device.
#pragma once

#include "ndisfilter-atomic.h"
#include "ndisfilter-lock.h"
#include "ndisfilter-records.h"

constexpr ULONG INJECT_QUEUE_COUNT = 2;

struct NdisFilterDeviceExtension {
    PDEVICE_OBJECT m_pDeviceObject;
    UNICODE_STRING m_DeviceSymbolicLink;
    BOOLEAN m_bSymbolicLinkCreated;

    NDIS_RW_LOCK m_HookAPILock; // taken for writing by bind and unbind; users of the hook functions take none
    NdisHookAPI m_NdisHookAPI;

    MappedMemory* m_pMappedMemory; // nullptr when its allocation failed
    PFILE_OBJECT m_FileObject;     // owner of the share; claimed by compare-exchange
    SharedMemory* m_pSharedMemory; // inside the mapped memory
    BOOLEAN m_bStopShare;          // tells every worker thread to leave; never cleared again
    NDIS_RW_LOCK m_MappedMemoryLock;
    HANDLE m_hShareMemoryThread[1];
    LONG m_nNdisHelperWorkThread; // worker threads running, interlocked
    PIRP m_pPendingReadIrp;       // the parked READ_SHARE request, exchanged atomically
    NDIS_RW_LOCK m_PendingReadLock;
    NDIS_RW_LOCK m_InputBlockLock;
    NDIS_RW_LOCK m_OutputBlockLock;
    NDIS_EVENT m_ShareMemoryEvent;
    NDIS_EVENT m_WorkThreadExitEvent;

    NDIS_RW_LOCK m_AdapterListLock;       // the hook driver rewrites the table without it
    alignas(8) AdapterList m_AdapterList; // packed inside

    NDIS_RW_LOCK m_pContextLock;
    FilterDriver* m_pContextDriver[FILTER_ADAPTER_CONTEXT_COUNT]; // owner of each adapter-context slot

    KSPIN_LOCK m_EventHandlerLock;
    RecordList<EventHandler> m_EventHandlerList;

    NDIS_RW_LOCK m_FilterDriverLock;
    RecordList<FilterDriver> m_FilterDriverList;

    NDIS_RW_LOCK m_PacketFilterLock[FILTER_TYPE_COUNT];
    RecordList<PacketFilter> m_PacketFilterList[FILTER_TYPE_COUNT];
    UCHAR m_Padding[64]; // each frame reads the lists, each injected packet writes what follows

    HANDLE m_hInjectPacketThread[INJECT_QUEUE_COUNT];
    NDIS_RW_LOCK m_InjectedPacketLock[INJECT_QUEUE_COUNT];
    RecordList<FilterPacket> m_InjectedPacketList[INJECT_QUEUE_COUNT];
    NDIS_EVENT m_InjectPacketEvent[INJECT_QUEUE_COUNT];
    LONG m_nInjectPacketCount; // packets on both queues and those that a worker has not come to, interlocked
    ULONG m_nInjectPacketMax;  // set by a control request, read by nobody

    NDIS_RW_LOCK m_InterfaceLock;
    RecordList<FilterInterface> m_InterfaceList;
    NDIS_RW_LOCK m_IfEventHandlerLock;
    RecordList<IfEventHandler> m_IfEventHandlerList;

    NPAGED_LOOKASIDE_LIST m_LogLookasideList;
    NDIS_RW_LOCK m_FilterLogLock;
    RecordList<FilterEventRecord> m_FilterLogList;
    LONG m_CurrentLogSize; // records taken from the lookaside list, interlocked

    NDIS_RW_LOCK m_FilterTimerLock;
    RecordList<FilterTimer> m_FilterTimerList;
    ULONG m_dwTickIncrement;

    NDIS_RW_LOCK m_IoCtrlHandlerLock;
    RecordList<IoCtrlHandler> m_IoCtrlHandlerList;
    LONG m_bDiagInProgress;

    PVOID m_pAppToDriverEthrLog;
    PVOID m_pDriverToAppEthrLog;

    RecordList<FilterInterface>
        m_DepartingInterfaceList; // whose deregistration is announced; m_InterfaceLock's, too
    BOOLEAN m_bTimersStopped;     // by the unload, also those that are still created; under m_FilterTimerLock
};

// The global state; set by the driver entry before anything else can run.
extern NdisFilterDeviceExtension* g_pDeviceExtension;

inline NdisFilterDeviceExtension& Global()
{
    return *g_pDeviceExtension;
}

// Adapter identifiers, issued in the order of asking; entries are never removed.
struct AdapterIdTable {
    NDIS_RW_LOCK m_AdapterIdLock;
    ULONG m_nCount;
    ULONG m_nNextId;
    struct {
        FilterAdapter* m_hAdapter;
        ULONG m_nId;
    } m_Entries[NDIS_FILTER_MAX_ADAPTERS];
};

extern AdapterIdTable g_AdapterIdTable;
extern ULONG g_nPendingPacketLimit;   // registry value PendingPacketLimit
extern UNICODE_STRING g_RegistryPath; // of the service key; Buffer is nullptr until saved
extern ULONG g_nMappedMemorySize;     // what PUT_SHAREDMEMORYSIZE reports
extern ULONG g_nStartShareValue;      // given by the last START_SHARE, for the hook driver's mapping

// A function of the hook driver while it is bound and has given it, else nullptr. Binding stores the functions before
// the flag, unbinding clears the flag first; a call under way is the hook driver's to expect. Client drivers may call
// before the framework has started.
template <class Function>
Function BoundHookFunction(Function NdisHookAPI::*field)
{
    if (__builtin_expect(g_pDeviceExtension == nullptr, 0)) {
        return nullptr;
    }
    const NdisHookAPI& api = Global().m_NdisHookAPI;
    return (LoadAcquire(api.m_Flags) & NDIS_HOOK_FLAG_BOUND) != 0 ? LoadAcquire(api.*field) : nullptr;
}
