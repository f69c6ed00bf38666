// The driver's skeleton: entry, the dispatch routines that only complete, and the life of the global state.
#include "ndisfilter-internal.h"

#include "../tdi/tdi-unload.h"

NdisFilterDeviceExtension* g_pDeviceExtension;
ULONG g_nMappedMemorySize;
ULONG g_nStartShareValue;

namespace
{

constexpr PCWSTR DEVICE_NAME = NDIS_FILTER_DEVICE_NAME;
constexpr PCWSTR SYMBOLIC_LINK_NAME = L"\\DosDevices\\NdisFilter";
constexpr PCSTR DEVICE_NAME_TEXT = "\\Device\\NdisFilter";
constexpr PCSTR SYMBOLIC_LINK_TEXT = "\\DosDevices\\NdisFilter";

constexpr ULONG DEFAULT_PENDING_PACKET_LIMIT = 2048;
constexpr ULONG DEFAULT_INJECT_PACKET_MAX = 512;
constexpr KPRIORITY WORKER_THREAD_PRIORITY = 16;    // the lowest real-time priority
constexpr LONGLONG OBJECT_RETRY_INTERVAL = -100000; // 10 ms from now, in units of 100 ns

template <class Record> VOID FreeRecords(RecordList<Record>& list)
{
    while (Record* record = list.TakeFirst()) {
        Filter_FreeMemory(record);
    }
}

// No worker runs this driver's code any more when this returns, with or without mapped memory.
VOID StopWorkerThreads()
{
    NdisFilterDeviceExtension& global = Global();
    StoreRelease(global.m_bStopShare, TRUE);
    NdisSetEvent(&global.m_ShareMemoryEvent);
    for (HANDLE& thread : global.m_hShareMemoryThread) {
        WaitForWorkerThread(thread);
    }
    for (HANDLE& thread : global.m_hInjectPacketThread) {
        WaitForWorkerThread(thread);
    }
}

VOID InitializeSharedMemoryState()
{
    NdisFilterDeviceExtension& global = Global();
    global.m_FileObject = nullptr;
    global.m_pSharedMemory = nullptr;
    global.m_bStopShare = FALSE;
    NdisInitializeReadWriteLock(&global.m_MappedMemoryLock);
    global.m_hShareMemoryThread[0] = nullptr;
    global.m_nNdisHelperWorkThread = 0;
    global.m_pPendingReadIrp = nullptr;
    NdisInitializeReadWriteLock(&global.m_PendingReadLock);
    NdisInitializeReadWriteLock(&global.m_InputBlockLock);
    NdisInitializeReadWriteLock(&global.m_OutputBlockLock);
    NdisInitializeEvent(&global.m_ShareMemoryEvent);
    NdisInitializeEvent(&global.m_WorkThreadExitEvent);
    Trace(TRACE_CORE, "  Mapped Memory Initialized\n");
}

VOID StartSharedMemory()
{
    NdisFilterDeviceExtension& global = Global();
    if (global.m_pMappedMemory == nullptr) {
        return;
    }
    InitializeSharedMemory(global.m_pMappedMemory);
    Trace(TRACE_CORE, "  Shared Memory Initialized\n");
    global.m_hShareMemoryThread[0] = StartWorkerThread(ShareMemoryThread, nullptr);
    Trace(TRACE_CORE, global.m_hShareMemoryThread[0] != nullptr
                          ? "  PsCreateSystemThread(ShareMemoryThread) success\n"
                          : "PsCreateSystemThread(ShareMemoryThread) fails\n");
}

VOID InitializeInjection()
{
    NdisFilterDeviceExtension& global = Global();
    global.m_nInjectPacketMax = DEFAULT_INJECT_PACKET_MAX;
    global.m_nInjectPacketCount = 0;
    for (ULONG queue = 0; queue < INJECT_QUEUE_COUNT; queue++) {
        NdisInitializeReadWriteLock(&global.m_InjectedPacketLock[queue]);
        global.m_InjectedPacketList[queue].Initialize();
        NdisInitializeEvent(&global.m_InjectPacketEvent[queue]);
        global.m_hInjectPacketThread[queue] = nullptr;
    }
    for (ULONG queue = 0; queue < INJECT_QUEUE_COUNT; queue++) {
        const PVOID context = reinterpret_cast<PVOID>(static_cast<ULONG_PTR>(queue));
        global.m_hInjectPacketThread[queue] = StartWorkerThread(InjectedPacketThread, context);
        Trace(TRACE_CORE, global.m_hInjectPacketThread[queue] != nullptr
                              ? "  PsCreateSystemThread(InjectedPacketThread) success\n"
                              : "PsCreateSystemThread(InjectedPacketThread) fails\n");
    }
    Trace(TRACE_CORE, "  Injected packet list Initialized\n");
}

VOID ReleaseQueuedPackets()
{
    NdisFilterDeviceExtension& global = Global();
    for (RecordList<FilterPacket>& queue : global.m_InjectedPacketList) {
        while (FilterPacket* packet = queue.TakeFirst()) {
            InterlockedDecrement(&global.m_nInjectPacketCount);
            Filter_ReleasePacket(packet);
        }
    }
}

VOID FreeInterfaces()
{
    RecordList<FilterInterface>* const lists[] = {&Global().m_InterfaceList, &Global().m_DepartingInterfaceList};
    for (RecordList<FilterInterface>* list : lists) {
        while (FilterInterface* filterInterface = list->TakeFirst()) {
            FreeRecords(filterInterface->m_ReferenceList);
            Filter_FreeMemory(filterInterface);
        }
    }
}

VOID FreeEventRecords()
{
    NdisFilterDeviceExtension& global = Global();
    ExDeleteNPagedLookasideList(&global.m_LogLookasideList);
    while (FilterEventRecord* record = global.m_FilterLogList.TakeFirst()) {
        ExFreePoolWithTag(record, POOL_TAG_EVENT);
    }
    global.m_CurrentLogSize = 0;
}

VOID InstallDispatchRoutines(PDRIVER_OBJECT driver)
{
    driver->MajorFunction[IRP_MJ_CREATE] = NdisFilterOpen;
    driver->MajorFunction[IRP_MJ_CLOSE] = NdisFilterClose;
    driver->MajorFunction[IRP_MJ_CLEANUP] = NdisFilterCleanup;
    driver->MajorFunction[IRP_MJ_SHUTDOWN] = NdisFilterShutdown;
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = NdisFilterIoControl;
    driver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = NdisFilterInternalIoControl;
    driver->DriverUnload = NdisFilterUnload;
}

} // namespace

NTSTATUS DriverEntry(PDRIVER_OBJECT pDriverObject, PUNICODE_STRING pRegistryPath)
{
    // A driver that is loaded again while clients keep its image finds its statics as it left them.
    GlobalDebugFlag = 0;
    g_pDeviceExtension = nullptr;

    Trace(TRACE_CORE, "Enter DriverEntry\n");
    if (!NT_SUCCESS(Filter_SaveDriverRegistryPath(pRegistryPath, &g_RegistryPath))) {
        Trace(TRACE_CORE, "NdisFilter: Couldn't allocate pool for registry path.\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    StoreRelaxed(GlobalDebugFlag, Filter_GetGlobalDebugFlag(&g_RegistryPath, 0));
    DbgPrint("NdisFilter: GlobalDebugFlag = 0x%8.8X\n", LoadRelaxed(GlobalDebugFlag));
    g_nPendingPacketLimit = Filter_GetPendingPacketLimit(&g_RegistryPath, DEFAULT_PENDING_PACKET_LIMIT);

    UNICODE_STRING deviceName;
    RtlInitUnicodeString(&deviceName, DEVICE_NAME);
    PDEVICE_OBJECT device = nullptr;
    NTSTATUS status = IoCreateDevice(pDriverObject, sizeof(NdisFilterDeviceExtension), &deviceName,
                                     FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
    if (!NT_SUCCESS(status)) {
        Trace(TRACE_CORE, "  IoCreateDevice(%s) fails, status = 0x%x\n", DEVICE_NAME_TEXT, status);
        ExFreePool(g_RegistryPath.Buffer);
        g_RegistryPath = {};
        return status;
    }
    Trace(TRACE_CORE, "  IoCreateDevice(%s) success\n", DEVICE_NAME_TEXT);
    g_pDeviceExtension = static_cast<NdisFilterDeviceExtension*>(device->DeviceExtension);
    Global().m_pDeviceObject = device;
    RtlInitUnicodeString(&Global().m_DeviceSymbolicLink, SYMBOLIC_LINK_NAME);
    Global().m_bSymbolicLinkCreated = FALSE;

    NdisFilterInitialize();

    status = IoCreateSymbolicLink(&Global().m_DeviceSymbolicLink, &deviceName);
    if (!NT_SUCCESS(status)) {
        Trace(TRACE_CORE, "  IoCreateSymbolicLink(%s -> %s) fails, status = 0x%x\n", SYMBOLIC_LINK_TEXT,
              DEVICE_NAME_TEXT, status);
        // Device and state stay as they are, but no thread may run in an image that is about to go.
        StopWorkerThreads();
        return status;
    }
    Trace(TRACE_CORE, "  IoCreateSymbolicLink(%s -> %s) success\n", SYMBOLIC_LINK_TEXT, DEVICE_NAME_TEXT);
    Global().m_bSymbolicLinkCreated = TRUE;
    InstallDispatchRoutines(pDriverObject);
    Trace(TRACE_CORE, "Leave DriverEntry\n");
    return STATUS_SUCCESS;
}

NTSTATUS CompleteRequest(PIRP pIrp, NTSTATUS status, ULONG_PTR information)
{
    pIrp->IoStatus.Status = status;
    pIrp->IoStatus.Information = information;
    IoCompleteRequest(pIrp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS NdisFilterOpen(PDEVICE_OBJECT, PIRP pIrp)
{
    Trace(TRACE_CORE, "Enter NdisFilterOpen\n");
    const NTSTATUS status = CompleteRequest(pIrp, STATUS_SUCCESS, 0);
    Trace(TRACE_CORE, "Leave NdisFilterOpen\n");
    return status;
}

NTSTATUS NdisFilterClose(PDEVICE_OBJECT, PIRP pIrp)
{
    Trace(TRACE_CORE, "Enter NdisFilterClose\n");
    if (IsShareOwner(FileObjectOf(pIrp))) {
        NdisFilter_StopShare(pIrp); // it was started while the handle was being closed
    }
    const NTSTATUS status = CompleteRequest(pIrp, STATUS_SUCCESS, 0);
    Trace(TRACE_CORE, "Leave NdisFilterClose\n");
    return status;
}

NTSTATUS NdisFilterCleanup(PDEVICE_OBJECT, PIRP pIrp)
{
    Trace(TRACE_CORE, "Enter NdisFilterCleanup\n");
    NdisFilter_StopShare(pIrp);
    const NTSTATUS status = CompleteRequest(pIrp, STATUS_SUCCESS, 0);
    Trace(TRACE_CORE, "Leave NdisFilterCleanup\n");
    return status;
}

NTSTATUS NdisFilterShutdown(PDEVICE_OBJECT, PIRP pIrp)
{
    Trace(TRACE_CORE, "Enter NdisFilterShutdown\n");
    const NTSTATUS status = CompleteRequest(pIrp, STATUS_SUCCESS, 0);
    Trace(TRACE_CORE, "Leave NdisFilterShutdown\n");
    return status;
}

HANDLE StartWorkerThread(PKSTART_ROUTINE routine, PVOID context)
{
    HANDLE thread = nullptr;
    const NTSTATUS status = PsCreateSystemThread(&thread, 0, nullptr, nullptr, nullptr, routine, context);
    return NT_SUCCESS(status) ? thread : nullptr;
}

VOID WaitForWorkerThread(HANDLE& handle)
{
    PVOID thread = nullptr;
    if (handle == nullptr) {
        return;
    }
    // What the thread uses goes next: without its object now, ask again.
    while (ObReferenceObjectByHandle(handle, SYNCHRONIZE, nullptr, KernelMode, &thread, nullptr) !=
           STATUS_SUCCESS) {
        LARGE_INTEGER interval;
        interval.QuadPart = OBJECT_RETRY_INTERVAL;
        KeDelayExecutionThread(KernelMode, FALSE, &interval);
    }
    KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr);
    ObDereferenceObject(thread);
    ZwClose(handle);
    handle = nullptr;
}

VOID EnterWorkerThread()
{
    InterlockedIncrement(&Global().m_nNdisHelperWorkThread);
    KeSetPriorityThread(KeGetCurrentThread(), WORKER_THREAD_PRIORITY);
}

VOID LeaveWorkerThread()
{
    if (InterlockedDecrement(&Global().m_nNdisHelperWorkThread) == 0) {
        NdisSetEvent(&Global().m_WorkThreadExitEvent);
    }
    PsTerminateSystemThread(STATUS_SUCCESS);
}

VOID NdisFilterInitialize()
{
    NdisFilterDeviceExtension& global = Global();

    Trace(TRACE_CORE, "Enter NdisFilterInitialize\n");

    NdisInitializeReadWriteLock(&global.m_HookAPILock);
    InitializeHookInterface();
    Trace(TRACE_CORE, "  NDIS Hook APi Initialized\n");

    global.m_pMappedMemory = NdisFilter_AllocateMappedMemory();
    g_nMappedMemorySize = NDIS_FILTER_MAPPED_MEMORY_SIZE;
    g_nStartShareValue = 0;

    NdisInitializeReadWriteLock(&g_AdapterIdTable.m_AdapterIdLock);
    g_AdapterIdTable.m_nCount = 0;
    g_AdapterIdTable.m_nNextId = 1;

    InitializeSharedMemoryState();
    StartSharedMemory();

    NdisInitializeReadWriteLock(&global.m_AdapterListLock);
    global.m_AdapterList.m_nAdapterCount = 0;
    Trace(TRACE_CORE, "  Adapter list Initialized\n");

    NdisInitializeReadWriteLock(&global.m_pContextLock);
    for (FilterDriver*& owner : global.m_pContextDriver) {
        owner = nullptr;
    }
    Trace(TRACE_CORE, "  Adapter context owner buffer Initialized\n");

    KeInitializeSpinLock(&global.m_EventHandlerLock);
    global.m_EventHandlerList.Initialize();
    Trace(TRACE_CORE, "  Adapter Event handler list Initialized\n");

    NdisInitializeReadWriteLock(&global.m_FilterDriverLock);
    global.m_FilterDriverList.Initialize();
    Trace(TRACE_CORE, "  Filter Driver list Initialized\n");

    for (ULONG type = 0; type < FILTER_TYPE_COUNT; type++) {
        NdisInitializeReadWriteLock(&global.m_PacketFilterLock[type]);
        global.m_PacketFilterList[type].Initialize();
    }
    Trace(TRACE_CORE, "  Packet Filter list Initialized\n");

    InitializeInjection();

    NdisInitializeReadWriteLock(&global.m_InterfaceLock);
    global.m_InterfaceList.Initialize();
    global.m_DepartingInterfaceList.Initialize();
    Trace(TRACE_CORE, "  Interface list Initialized\n");

    NdisInitializeReadWriteLock(&global.m_IfEventHandlerLock);
    global.m_IfEventHandlerList.Initialize();
    Trace(TRACE_CORE, "  Interface Event handler list Initialized\n");

    ExInitializeNPagedLookasideList(&global.m_LogLookasideList, nullptr, nullptr, 0, sizeof(FilterEventRecord),
                                    POOL_TAG_EVENT, 0);
    NdisInitializeReadWriteLock(&global.m_FilterLogLock);
    global.m_FilterLogList.Initialize();
    global.m_CurrentLogSize = 0;
    Trace(TRACE_CORE, "  Filter Log lookaside list Initialized\n");

    NdisInitializeReadWriteLock(&global.m_FilterTimerLock);
    global.m_FilterTimerList.Initialize();
    global.m_bTimersStopped = FALSE;
    global.m_dwTickIncrement = KeQueryTimeIncrement();
    Trace(TRACE_CORE, "  Filter Timer list Initialized\n");

    NdisInitializeReadWriteLock(&global.m_IoCtrlHandlerLock);
    global.m_IoCtrlHandlerList.Initialize();
    Trace(TRACE_CORE, "  IOCTL handler list Initialized\n");
    global.m_bDiagInProgress = 0;

    InitializeEthrLogs();
    global.m_pAppToDriverEthrLog = nullptr;
    global.m_pDriverToAppEthrLog = nullptr;

    Trace(TRACE_CORE, "Leave NdisFilterInitialize\n");
}

VOID NdisFilterDeInitialize()
{
    NdisFilterDeviceExtension& global = Global();

    Trace(TRACE_CORE, "Enter NdisFilterDeInitialize\n");
    NdisFilter_TerminateShare();
    StopWorkerThreads();
    CloseAllEthrLogs();
    StopTimers();
    WaitForQueuedWork(); // also for the callbacks of timers
    NdisFilter_FreeMappedMemory(global.m_pMappedMemory);
    FreeRecords(global.m_EventHandlerList);
    FreeRecords(global.m_FilterDriverList);
    for (RecordList<PacketFilter>& chain : global.m_PacketFilterList) {
        FreeRecords(chain);
    }
    ReleaseQueuedPackets();
    FreeInterfaces();
    FreeRecords(global.m_IfEventHandlerList);
    FreeEventRecords();
    FreeRecords(global.m_FilterTimerList);
    FreeRecords(global.m_IoCtrlHandlerList);
    if (g_RegistryPath.Buffer != nullptr) {
        ExFreePool(g_RegistryPath.Buffer);
        g_RegistryPath = {};
    }
    Trace(TRACE_CORE, "Leave NdisFilterDeInitialize\n");
}

VOID NdisFilterUnload(PDRIVER_OBJECT)
{
    NdisFilterDeviceExtension& global = Global();

    Trace(TRACE_CORE, "Enter NdisFilterUnload\n");
    NdisFilterDeInitialize();
    if (global.m_bSymbolicLinkCreated) {
        const NTSTATUS status = IoDeleteSymbolicLink(&global.m_DeviceSymbolicLink);
        Trace(TRACE_CORE, "  IoDeleteSymbolicLink(%s), status = 0x%x\n", SYMBOLIC_LINK_TEXT, status);
    }
    if (global.m_pDeviceObject != nullptr) {
        IoDeleteDevice(global.m_pDeviceObject); // the global state goes with it
        g_pDeviceExtension = nullptr;
        Trace(TRACE_CORE, "  IoDeleteDevice(%s)\n", DEVICE_NAME_TEXT);
    }
    tdi::EndEverything();
    Trace(TRACE_CORE, "Leave NdisFilterUnload\n");
}
