// The dump of the whole global state to the debugger, in the order of its fields.
#include "ndisfilter-diag.h"
#include "ndisfilter-hook-fields.h"

namespace
{

struct DebugPrinter {
    template <class... Arguments>
    VOID operator()(PCSTR format, Arguments... arguments) const
    {
        DbgPrint(format, arguments...);
    }
};

constexpr DebugPrinter print;

// A lock, an event or a list head shows where it lies.
VOID PrintPlace(PCSTR name, const VOID* place)
{
    print("- %s = 0x%p\n", name, place);
}

VOID PrintPlaces(PCSTR name, ULONG index, const VOID* place)
{
    print("- %s[%d] = 0x%p\n", name, index, place);
}

VOID PrintLinks(const LIST_ENTRY* head)
{
    print("  - Blink = 0x%p\n", head->Blink);
    print("  - Flink = 0x%p\n", head->Flink);
}

// A lock with the list that it guards, whose entries `show` prints. Lock is the guard's type.
template <class Lock, class LockStorage, class Record, class Show>
VOID DumpList(PCSTR lockName, LockStorage& storage, PCSTR listName, const RecordList<Record>& list,
              const Show& show)
{
    PrintPlace(lockName, &storage);
    PrintPlace(listName, list.Head());
    ForEachLocked<Lock>(storage, list, show);
}

VOID DumpHookInterface()
{
    PrintPlace("m_HookAPILock", &Global().m_HookAPILock);
    PrintPlace("m_NdisHookAPI", &Global().m_NdisHookAPI);
    ForEachHookField(Global().m_NdisHookAPI,
                     [](PCSTR name, PVOID value) { print("- m_NdisHookAPI.%s = 0x%p\n", name, value); });
}

VOID DumpSharedMemory()
{
    NdisFilterDeviceExtension& global = Global();
    print("- m_pMappedMemory = 0x%p\n", global.m_pMappedMemory);
    if (global.m_pMappedMemory != nullptr) { // as the program sees them, and may have spoilt them
        MappedMemoryHead seen;
        FetchBytes(&seen, global.m_pMappedMemory, offsetof(MappedMemory, m_SharedMemory));
        print("  - m_pUserModeVirtualAddress = 0x%p\n", reinterpret_cast<PVOID>(seen.m_pUserModeVirtualAddress));
        print("  - m_pMdl = 0x%p\n", reinterpret_cast<PVOID>(seen.m_pMdl));
        print("  - m_nSize = %d\n", seen.m_nSize);
    }
    print("- m_FileObject = 0x%p\n", LoadRelaxed(global.m_FileObject));
    print("- m_pSharedMemory = 0x%p\n", global.m_pSharedMemory);
    PrintRings(print);
    print("- m_bStopShare = %s\n", BooleanText(LoadRelaxed(global.m_bStopShare)));
    PrintPlace("m_MappedMemoryLock", &global.m_MappedMemoryLock);
    PrintShareThreads(print);
    print("- m_nNdisHelperWorkThread = %d\n", LoadRelaxed(global.m_nNdisHelperWorkThread));
    print("- m_pPendingReadIrp = 0x%p\n", LoadRelaxed(global.m_pPendingReadIrp));
    PrintPlace("m_PendingReadLock", &global.m_PendingReadLock);
    PrintPlace("m_InputBlockLock", &global.m_InputBlockLock);
    PrintPlace("m_OutputBlockLock", &global.m_OutputBlockLock);
    PrintPlace("m_ShareMemoryEvent", &global.m_ShareMemoryEvent);
    PrintPlace("m_WorkThreadExitEvent", &global.m_WorkThreadExitEvent);
}

VOID DumpAdapters()
{
    NdisFilterDeviceExtension& global = Global();
    PrintPlace("m_AdapterListLock", &global.m_AdapterListLock);
    PrintAdapterTable(print);
    PrintPlace("m_pContextLock", &global.m_pContextLock);
    {
        const ReadLock lock(global.m_pContextLock);
        for (ULONG i = 0; i < FILTER_ADAPTER_CONTEXT_COUNT; i++) {
            PrintPlaces("m_pContextDriver", i, global.m_pContextDriver[i]);
        }
    }
    DumpList<SpinLock>("m_EventHandlerLock", global.m_EventHandlerLock, "m_EventHandlerList",
                       global.m_EventHandlerList, [](const EventHandler& handler) {
                           print("- pEventHandler = 0x%p\n", &handler);
                           PrintOwner(print, handler);
                           print("- m_pfEventProc = 0x%p\n", AddressOf(handler.m_pfEventProc));
                           print("- m_pEventContext = 0x%p\n", handler.m_pEventContext);
                       });
}

VOID DumpFilters()
{
    NdisFilterDeviceExtension& global = Global();
    DumpList<ReadLock>("m_FilterDriverLock", global.m_FilterDriverLock, "m_FilterDriverList",
                       global.m_FilterDriverList,
                       [](const FilterDriver& driver) { PrintRecord(print, driver); });
    for (ULONG i = 0; i < FILTER_TYPE_COUNT; i++) {
        PrintPlaces("m_PacketFilterLock", i, &global.m_PacketFilterLock[i]);
    }
    for (ULONG i = 0; i < FILTER_TYPE_COUNT; i++) {
        PrintPlaces("m_PacketFilterList", i, global.m_PacketFilterList[i].Head());
        Filter_DumpFilter(static_cast<FILTER_TYPE>(i));
    }
}

VOID DumpInjection()
{
    NdisFilterDeviceExtension& global = Global();
    for (ULONG i = 0; i < INJECT_QUEUE_COUNT; i++) {
        PrintPlaces("m_hInjectPacketThread", i, LoadRelaxed(global.m_hInjectPacketThread[i]));
    }
    for (ULONG i = 0; i < INJECT_QUEUE_COUNT; i++) {
        PrintPlaces("m_InjectedPacketLock", i, &global.m_InjectedPacketLock[i]);
    }
    for (ULONG i = 0; i < INJECT_QUEUE_COUNT; i++) {
        PrintPlaces("m_InjectedPacketList", i, global.m_InjectedPacketList[i].Head());
        const ReadLock lock(global.m_InjectedPacketLock[i]);
        PrintLinks(global.m_InjectedPacketList[i].Head());
    }
    for (ULONG i = 0; i < INJECT_QUEUE_COUNT; i++) {
        PrintPlaces("m_InjectPacketEvent", i, &global.m_InjectPacketEvent[i]);
    }
    print("- m_nInjectPacketCount = %d\n", LoadRelaxed(global.m_nInjectPacketCount));
    print("- m_nInjectPacketMax = %d\n", LoadRelaxed(global.m_nInjectPacketMax));
}

VOID DumpInterfaces()
{
    NdisFilterDeviceExtension& global = Global();
    DumpList<ReadLock>("m_InterfaceLock", global.m_InterfaceLock, "m_InterfaceList", global.m_InterfaceList,
                       [](const FilterInterface& filterInterface) {
                           print("- pFilterInterface = 0x%p\n", &filterInterface);
                           PrintName(print, "- m_InterfaceName = %*.*s\n", filterInterface.m_InterfaceName);
                           print("- m_hFilterDriver = 0x%p\n", filterInterface.m_hFilterDriver);
                           print("- m_bActive = %s\n", BooleanText(LoadRelaxed(filterInterface.m_bActive)));
                       });
    DumpList<ReadLock>("m_IfEventHandlerLock", global.m_IfEventHandlerLock, "m_IfEventHandlerList",
                       global.m_IfEventHandlerList, [](const IfEventHandler& handler) {
                           print("- pIfEventHandler = 0x%p\n", &handler);
                           PrintOwner(print, handler);
                           print("- m_pfIfEventProc = 0x%p\n", AddressOf(handler.m_pfIfEventProc));
                           print("- m_pIfEventContext = 0x%p\n", handler.m_pIfEventContext);
                       });
}

// The counters change without a lock.
VOID DumpLookasideList()
{
    const GENERAL_LOOKASIDE& list = Global().m_LogLookasideList.L;
    PrintPlace("m_LogLookasideList", &Global().m_LogLookasideList);
    print("  - Depth = %d\n", ULONG{LoadRelaxed(list.Depth)});
    print("  - MaximumDepth = %d\n", ULONG{list.MaximumDepth});
    print("  - TotalAllocates = %d\n", LoadRelaxed(list.TotalAllocates));
    print("  - AllocateMisses = %d\n", LoadRelaxed(list.AllocateMisses));
    print("  - TotalFrees = %d\n", LoadRelaxed(list.TotalFrees));
    print("  - FreeMisses = %d\n", LoadRelaxed(list.FreeMisses));
    print("  - Type = %d\n", static_cast<LONG>(list.Type));
    print("  - Tag = 0x%x\n", list.Tag);
    print("  - Size = %d\n", list.Size);
    print("  - LastTotalAllocates = %d\n", LoadRelaxed(list.LastTotalAllocates));
    print("  - LastAllocateMisses = %d\n", LoadRelaxed(list.LastAllocateMisses));
}

// Two lines print a part of the field's address where others print a value; readers of the dump know them so.
VOID PrintLowAddress(PCSTR format, const VOID* field)
{
    print(format, static_cast<ULONG>(reinterpret_cast<ULONG_PTR>(field)));
}

VOID DumpEvents()
{
    NdisFilterDeviceExtension& global = Global();
    DumpLookasideList();
    DumpList<ReadLock>("m_FilterLogLock", global.m_FilterLogLock, "m_FilterLogList", global.m_FilterLogList,
                       [](const FilterEventRecord& record) {
                           print("- pFilterEventRecord = 0x%p\n", &record);
                           print("- m_nEvent1 = %d\n", ULONG{record.m_Event.m_nEvent1});
                           print("- m_nEvent2 = %d\n", ULONG{record.m_Event.m_nEvent2});
                           print("- m_nLength = %d\n", LONG{record.m_Event.m_nLength});
                       });
    PrintLowAddress("- m_CurrentLogSize = %d\n", &global.m_CurrentLogSize);
}

VOID DumpTimers()
{
    NdisFilterDeviceExtension& global = Global();
    DumpList<ReadLock>("m_FilterTimerLock", global.m_FilterTimerLock, "m_FilterTimerList",
                       global.m_FilterTimerList, [](const FilterTimer& timer) { PrintRecord(print, timer); });
    PrintLowAddress("- m_dwTickIncrement = %d\n", &global.m_dwTickIncrement);
}

VOID DumpIoCtrlHandlers()
{
    NdisFilterDeviceExtension& global = Global();
    DumpList<ReadLock>("m_IoCtrlHandlerLock", global.m_IoCtrlHandlerLock, "m_IoCtrlHandlerList",
                       global.m_IoCtrlHandlerList,
                       [](const IoCtrlHandler& handler) { PrintRecord(print, handler); });
    print("- m_bDiagInProgress = %s\n", BooleanText(LoadRelaxed(global.m_bDiagInProgress) != 0));
}

} // namespace

VOID NdisFilter_DumpDeviceExtension()
{
    NdisFilterDeviceExtension& global = Global();
    print("====> Dump NdisFilter Device Extension ====\n");
    print("- BuildTime = %s %s\n", g_szBuildDate, g_szBuildTime);
    print("- Type = NdisFilterDeviceExtension\n");
    print("- Size = %d\n", static_cast<ULONG>(sizeof(global)));
    print("- Address = 0x%p\n", &global);
    PrintDevice(print);
    DumpHookInterface();
    DumpSharedMemory();
    DumpAdapters();
    DumpFilters();
    DumpInjection();
    DumpInterfaces();
    DumpEvents();
    DumpTimers();
    DumpIoCtrlHandlers();
    print("- m_pAppToDriverEthrLog = 0x%p\n", LoadRelaxed(global.m_pAppToDriverEthrLog));
    print("- m_pDriverToAppEthrLog = 0x%p\n", LoadRelaxed(global.m_pDriverToAppEthrLog));
}
