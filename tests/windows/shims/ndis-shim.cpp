// ndis.sys for the tests under Wine: stands in for Wine's own, whose functions are stubs. Never meant for
// Windows.
//
// It has the NDIS functions that our drivers import, on top of Wine's kernel. And because Wine loads it in
// front of the driver that imports it, it also mends what Wine's ntoskrnl.exe leaves as stubs: when it is
// loaded, it writes a jump to its own version over each of them. So the drivers run as they are shipped.
//
// What it does not do: locks and deferred calls leave the IRQL at 0, as all of Wine does, and "mapped" pages
// are seen by the drivers only, not by programs.
#include <ntddk.h>

#include <ndis.h>

extern "C" {
PVOID __stdcall GetModuleHandleA(const char* name);
PVOID __stdcall GetProcAddress(PVOID module, const char* name);
void __stdcall GetSystemTimeAsFileTime(PLARGE_INTEGER time);
int __stdcall VirtualProtect(PVOID address, SIZE_T size, ULONG protection, ULONG* before);
NTSTATUS NTAPI ZwYieldExecution();
NTSTATUS NTAPI ObReferenceObjectByName(PUNICODE_STRING name, ULONG attributes, PVOID state,
                                       ACCESS_MASK access, POBJECT_TYPE type, KPROCESSOR_MODE mode,
                                       PVOID context, PVOID* object);
extern __declspec(dllimport) POBJECT_TYPE IoDriverObjectType;
}

namespace
{

LONGLONG MillisecondsFromNow(UINT milliseconds)
{
    return -10000LL * milliseconds;
}

// In the first 16 bytes of an NDIS_RW_LOCK.
struct RwLock {
    volatile LONG state; // readers, or -1 for a writer
    LONG unused;
    PVOID owner; // the writing thread
};

constexpr USHORT LOCK_READ = 2, LOCK_WRITE = 1, LOCK_RECURSIVE = 4;

bool TryEnter(RwLock* lock, bool write)
{
    const LONG state = lock->state;
    return write ? InterlockedCompareExchange(&lock->state, -1, 0) == 0
                 : state >= 0 && InterlockedCompareExchange(&lock->state, state + 1, state) == state;
}

VOID NTAPI RunWorkItem(PVOID context)
{
    auto* item = static_cast<PWORK_QUEUE_ITEM>(context);
    item->WorkerRoutine(item->Parameter);
    PsTerminateSystemThread(STATUS_SUCCESS);
}

VOID NTAPI QueueWorkItem(PWORK_QUEUE_ITEM item, WORK_QUEUE_TYPE)
{
    HANDLE thread;
    if (NT_SUCCESS(
            PsCreateSystemThread(&thread, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, RunWorkItem, item))) {
        ZwClose(thread);
    }
}

PVOID AddressOf(PMDL mdl)
{
    return static_cast<PCHAR>(mdl->StartVa) + mdl->ByteOffset;
}

VOID NTAPI BuildMdlForNonPagedPool(PMDL mdl)
{
    mdl->MdlFlags |= MDL_SOURCE_IS_NONPAGED_POOL;
    mdl->MappedSystemVa = AddressOf(mdl);
}

PVOID NTAPI MapLockedPages(PMDL mdl, KPROCESSOR_MODE)
{
    return AddressOf(mdl);
}

PVOID NTAPI MapLockedPagesSpecifyCache(PMDL mdl, KPROCESSOR_MODE, MEMORY_CACHING_TYPE, PVOID, ULONG, ULONG)
{
    return AddressOf(mdl);
}

VOID NTAPI UnmapLockedPages(PVOID, PMDL) {}

// \Device\NAME is the first device of the driver \Driver\NAME: right for drivers whose device has the
// service's name. The file object is the driver object, good for nothing but being dereferenced.
NTSTATUS NTAPI GetDeviceObjectPointer(PUNICODE_STRING name, ACCESS_MASK, PFILE_OBJECT* file,
                                      PDEVICE_OBJECT* device)
{
    constexpr WCHAR drivers[] = L"\\Driver"; // as long as "\Device"
    WCHAR path[64] = {};
    RtlCopyMemory(path, name->Buffer,
                  name->Length < sizeof(path) ? name->Length : sizeof(path) - sizeof(WCHAR));
    RtlCopyMemory(path, drivers, sizeof(drivers) - sizeof(WCHAR));
    UNICODE_STRING driverName;
    RtlInitUnicodeString(&driverName, path);
    PVOID object = nullptr;
    const NTSTATUS status = ObReferenceObjectByName(&driverName, OBJ_CASE_INSENSITIVE, nullptr, 0,
                                                    IoDriverObjectType, KernelMode, nullptr, &object);
    if (!NT_SUCCESS(status)) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    *device = static_cast<PDRIVER_OBJECT>(object)->DeviceObject;
    if (*device == nullptr) {
        ObDereferenceObject(object);
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    *file = static_cast<PFILE_OBJECT>(object);
    return STATUS_SUCCESS;
}

// Wine's KeSetTimer waits for the timer's deferred call, also inside of it, and its KeCancelTimer does; a real kernel's
// never wait. So timers are ours: one thread, there while any timer is set, runs the calls one after the other.
struct Timers {
    volatile LONG taken; // a lock around the rest
    LIST_ENTRY set;
    bool threadRuns;
    volatile LONG callRuns;
} timers;

void LockTimers()
{
    while (InterlockedExchange(&timers.taken, 1) != 0) {
        ZwYieldExecution();
    }
}

void UnlockTimers()
{
    InterlockedExchange(&timers.taken, 0);
}

// KeQuerySystemTime is a read of a page that Wine has not; it mends only some instructions.
LONGLONG Now()
{
    LARGE_INTEGER now;
    GetSystemTimeAsFileTime(&now);
    return now.QuadPart;
}

void Sleep(UINT milliseconds)
{
    LARGE_INTEGER interval;
    interval.QuadPart = MillisecondsFromNow(milliseconds);
    KeDelayExecutionThread(KernelMode, FALSE, &interval);
}

// Under the lock.
bool Unset(PNDIS_TIMER timer)
{
    const bool wasSet = timer->Timer.Header.Inserted != 0;
    if (wasSet) {
        RemoveEntryList(&timer->Timer.TimerListEntry);
        timer->Timer.Header.Inserted = 0;
    }
    return wasSet;
}

PNDIS_TIMER FindDue()
{
    for (PLIST_ENTRY link = timers.set.Flink; link != &timers.set; link = link->Flink) {
        const auto timer = CONTAINING_RECORD(link, NDIS_TIMER, Timer.TimerListEntry);
        if (static_cast<LONGLONG>(timer->Timer.DueTime.QuadPart) <= Now()) {
            return timer;
        }
    }
    return nullptr;
}

VOID NTAPI RunTimers(PVOID)
{
    LockTimers();
    while (!IsListEmpty(&timers.set)) {
        const PNDIS_TIMER due = FindDue();
        if (due == nullptr) {
            UnlockTimers();
            Sleep(1);
        } else {
            Unset(due);
            const KDPC call = due->Dpc; // the timer may be gone once it has been called
            timers.callRuns = 1;
            UnlockTimers();
            call.DeferredRoutine(&due->Dpc, call.DeferredContext, nullptr, nullptr);
            timers.callRuns = 0;
        }
        LockTimers();
    }
    timers.threadRuns = false;
    UnlockTimers();
    PsTerminateSystemThread(STATUS_SUCCESS);
}

VOID NTAPI FlushQueuedDpcs()
{
    LockTimers(); // a call that has been taken from the list runs, for whoever sees it
    UnlockTimers();
    while (timers.callRuns != 0) {
        Sleep(1);
    }
}

struct Replacement {
    const char* name;
    PVOID routine;
};

template <class Routine>
PVOID Address(Routine routine)
{
    return reinterpret_cast<PVOID>(routine);
}

// Writes "jmp [rip+0]" and the address behind it over the beginning of an export.
bool Replace(PVOID module, const Replacement& replacement)
{
    auto* code = static_cast<UCHAR*>(GetProcAddress(module, replacement.name));
    ULONG protection;
    if (code == nullptr || !VirtualProtect(code, 14, 0x40, &protection)) {
        return false;
    }
    const UCHAR jump[6] = {0xFF, 0x25, 0, 0, 0, 0};
    RtlCopyMemory(code, jump, sizeof(jump));
    RtlCopyMemory(code + sizeof(jump), &replacement.routine, sizeof(PVOID));
    VirtualProtect(code, 14, protection, &protection);
    return true;
}

void MendKernel()
{
    const Replacement replacements[] = {
        {"ExQueueWorkItem", Address(QueueWorkItem)},
        {"MmBuildMdlForNonPagedPool", Address(BuildMdlForNonPagedPool)},
        {"MmMapLockedPages", Address(MapLockedPages)},
        {"MmMapLockedPagesSpecifyCache", Address(MapLockedPagesSpecifyCache)},
        {"MmUnmapLockedPages", Address(UnmapLockedPages)},
        {"IoGetDeviceObjectPointer", Address(GetDeviceObjectPointer)},
        {"KeFlushQueuedDpcs", Address(FlushQueuedDpcs)},
    };
    const PVOID kernel = GetModuleHandleA("ntoskrnl.exe");
    for (const Replacement& replacement : replacements) {
        if (!Replace(kernel, replacement)) {
            DbgPrint("ndis-shim: %s cannot be replaced\n", replacement.name);
        }
    }
}

} // namespace

extern "C" {

VOID NTAPI NdisInitializeReadWriteLock(PNDIS_RW_LOCK lock)
{
    RtlZeroMemory(lock, sizeof(*lock));
}

VOID NTAPI NdisAcquireReadWriteLock(PNDIS_RW_LOCK ndisLock, BOOLEAN write, PLOCK_STATE lockState)
{
    const auto lock = reinterpret_cast<RwLock*>(ndisLock);
    if (lock->owner == KeGetCurrentThread()) {
        lockState->LockState = LOCK_RECURSIVE;
        return;
    }
    while (!TryEnter(lock, write)) {
        ZwYieldExecution();
    }
    if (write) {
        lock->owner = KeGetCurrentThread();
    }
    lockState->LockState = write ? LOCK_WRITE : LOCK_READ;
}

VOID NTAPI NdisReleaseReadWriteLock(PNDIS_RW_LOCK ndisLock, PLOCK_STATE lockState)
{
    const auto lock = reinterpret_cast<RwLock*>(ndisLock);
    if (lockState->LockState == LOCK_WRITE) {
        lock->owner = nullptr;
        InterlockedExchange(&lock->state, 0);
    } else if (lockState->LockState == LOCK_READ) {
        InterlockedDecrement(&lock->state);
    }
}

VOID NTAPI NdisInitializeEvent(PNDIS_EVENT event)
{
    KeInitializeEvent(&event->Event, NotificationEvent, FALSE);
}

VOID NTAPI NdisSetEvent(PNDIS_EVENT event)
{
    KeSetEvent(&event->Event, IO_NO_INCREMENT, FALSE);
}

VOID NTAPI NdisResetEvent(PNDIS_EVENT event)
{
    KeResetEvent(&event->Event);
}

BOOLEAN NTAPI NdisWaitEvent(PNDIS_EVENT event, UINT milliseconds)
{
    LARGE_INTEGER timeout;
    timeout.QuadPart = MillisecondsFromNow(milliseconds);
    return KeWaitForSingleObject(&event->Event, Executive, KernelMode, FALSE,
                                 milliseconds != 0 ? &timeout : nullptr) == STATUS_SUCCESS;
}

VOID NTAPI NdisInitializeTimer(PNDIS_TIMER timer, PNDIS_TIMER_FUNCTION function, PVOID context)
{
    KeInitializeTimer(&timer->Timer);
    KeInitializeDpc(&timer->Dpc, reinterpret_cast<PKDEFERRED_ROUTINE>(function), context);
}

VOID NTAPI NdisSetTimer(PNDIS_TIMER timer, UINT milliseconds)
{
    HANDLE thread;
    LockTimers();
    Unset(timer);
    timer->Timer.DueTime.QuadPart = static_cast<ULONGLONG>(Now() - MillisecondsFromNow(milliseconds));
    timer->Timer.Header.Inserted = 1;
    InsertTailList(&timers.set, &timer->Timer.TimerListEntry);
    if (!timers.threadRuns && NT_SUCCESS(PsCreateSystemThread(&thread, THREAD_ALL_ACCESS, nullptr, nullptr,
                                                              nullptr, RunTimers, nullptr))) {
        timers.threadRuns = true;
        ZwClose(thread);
    }
    UnlockTimers();
}

VOID NTAPI NdisCancelTimer(PNDIS_TIMER timer, PBOOLEAN cancelled)
{
    LockTimers();
    *cancelled = Unset(timer);
    UnlockTimers();
}

NDIS_STATUS NTAPI NdisAllocateMemoryWithTag(PVOID* address, UINT length, ULONG tag)
{
    *address = ExAllocatePoolWithTag(NonPagedPool, length, tag);
    return *address != nullptr ? NDIS_STATUS_SUCCESS : NDIS_STATUS_FAILURE;
}

VOID NTAPI NdisFreeMemory(PVOID address, UINT, UINT)
{
    ExFreePool(address);
}

// Wine calls the entry of a module that imports from kernel32.dll as that of a DLL first: module, reason
// (below 16), reserved. As a driver's entry it gets a driver object and a registry path.
NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT, PUNICODE_STRING registryPath)
{
    const auto reason = reinterpret_cast<ULONG_PTR>(registryPath);
    constexpr ULONG_PTR PROCESS_ATTACH = 1, REASONS_END = 16;
    if (reason >= REASONS_END) {
        return STATUS_SUCCESS;
    }
    if (reason == PROCESS_ATTACH) {
        InitializeListHead(&timers.set);
        MendKernel();
    }
    return TRUE;
}

} // extern "C"
