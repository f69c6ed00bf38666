// The executive and kernel functions that drivers use: memory, IRQL and locks, waits, threads, timers, work
// items, time, exceptions, text. Names, signatures and meaning are those of the Windows driver kit.
#pragma once

#include <ntdef.h>
#include <ntstatus.h>

EXTERN_C_START

#define PAGE_SIZE 0x1000
#define PAGE_SHIFT 12
#define BYTE_OFFSET(Va) ((ULONG)((ULONG_PTR)(Va) & (PAGE_SIZE - 1)))
#define PAGE_ALIGN(Va) ((PVOID)((ULONG_PTR)(Va) & ~(ULONG_PTR)(PAGE_SIZE - 1)))
#define ADDRESS_AND_SIZE_TO_SPAN_PAGES(Va, Size)                                                             \
    ((ULONG)((BYTE_OFFSET(Va) + (SIZE_T)(Size) + (PAGE_SIZE - 1)) >> PAGE_SHIFT))
#define MAXIMUM_PROCESSORS 64

#define PASSIVE_LEVEL 0
#define APC_LEVEL 1
#define DISPATCH_LEVEL 2
#define HIGH_LEVEL 15

#define LOW_PRIORITY 0
#define LOW_REALTIME_PRIORITY 16
#define HIGH_PRIORITY 31
#define IO_NO_INCREMENT 0
#define EVENT_INCREMENT 1

#define DELETE 0x00010000
#define SYNCHRONIZE 0x00100000
#define STANDARD_RIGHTS_REQUIRED 0x000F0000
#define THREAD_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0xFFFF)
#define GENERIC_READ 0x80000000U
#define GENERIC_WRITE 0x40000000U

typedef enum _MODE { KernelMode, UserMode, MaximumMode } MODE;
typedef CCHAR KPROCESSOR_MODE;
typedef enum _KWAIT_REASON {
    Executive,
    FreePage,
    PageIn,
    PoolAllocation,
    DelayExecution,
    Suspended,
    UserRequest
} KWAIT_REASON;
typedef enum _EVENT_TYPE { NotificationEvent, SynchronizationEvent } EVENT_TYPE;
typedef enum _TIMER_TYPE { NotificationTimer, SynchronizationTimer } TIMER_TYPE;
typedef enum _POOL_TYPE { NonPagedPool, PagedPool } POOL_TYPE;
typedef enum _WORK_QUEUE_TYPE { CriticalWorkQueue, DelayedWorkQueue, HyperCriticalWorkQueue } WORK_QUEUE_TYPE;

typedef struct _EPROCESS *PEPROCESS, *PKPROCESS, *PRKPROCESS;
typedef struct _KTHREAD *PKTHREAD, *PRKTHREAD;
typedef struct _ETHREAD* PETHREAD;
typedef struct _OBJECT_TYPE* POBJECT_TYPE;
typedef struct _OBJECT_HANDLE_INFORMATION* POBJECT_HANDLE_INFORMATION;

// ------------------------------------------------------------------------------------------------
// interlocked

FORCEINLINE LONG InterlockedIncrement(LONG volatile* Addend)
{
    return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}

FORCEINLINE LONG InterlockedDecrement(LONG volatile* Addend)
{
    return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}

FORCEINLINE LONG InterlockedExchange(LONG volatile* Target, LONG Value)
{
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}

FORCEINLINE LONG InterlockedExchangeAdd(LONG volatile* Addend, LONG Value)
{
    return __atomic_fetch_add(Addend, Value, __ATOMIC_SEQ_CST);
}

// The value before, whether or not it was exchanged.
FORCEINLINE LONG InterlockedCompareExchange(LONG volatile* Destination, LONG Exchange, LONG Comparand)
{
    __atomic_compare_exchange_n(Destination, &Comparand, Exchange, 0, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return Comparand;
}

FORCEINLINE LONG InterlockedAnd(LONG volatile* Destination, LONG Value)
{
    return __atomic_fetch_and(Destination, Value, __ATOMIC_SEQ_CST);
}

FORCEINLINE LONG InterlockedOr(LONG volatile* Destination, LONG Value)
{
    return __atomic_fetch_or(Destination, Value, __ATOMIC_SEQ_CST);
}

FORCEINLINE LONG64 InterlockedIncrement64(LONG64 volatile* Addend)
{
    return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}

FORCEINLINE LONG64 InterlockedDecrement64(LONG64 volatile* Addend)
{
    return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}

FORCEINLINE LONG64 InterlockedExchange64(LONG64 volatile* Target, LONG64 Value)
{
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}

FORCEINLINE LONG64 InterlockedExchangeAdd64(LONG64 volatile* Addend, LONG64 Value)
{
    return __atomic_fetch_add(Addend, Value, __ATOMIC_SEQ_CST);
}

FORCEINLINE LONG64 InterlockedCompareExchange64(LONG64 volatile* Destination, LONG64 Exchange,
                                                LONG64 Comparand)
{
    __atomic_compare_exchange_n(Destination, &Comparand, Exchange, 0, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return Comparand;
}

FORCEINLINE PVOID InterlockedExchangePointer(PVOID volatile* Target, PVOID Value)
{
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}

FORCEINLINE PVOID InterlockedCompareExchangePointer(PVOID volatile* Destination, PVOID Exchange,
                                                    PVOID Comparand)
{
    __atomic_compare_exchange_n(Destination, &Comparand, Exchange, 0, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return Comparand;
}

// Of memory that a program may change at any moment. Builds with NDEBUG have them in line;
// in all others the kernel checks that no operation reads the same memory twice.
#ifdef NDEBUG
FORCEINLINE ULONG ReadULongAcquire(ULONG const volatile* Source)
{
    return __atomic_load_n(Source, __ATOMIC_ACQUIRE);
}

FORCEINLINE VOID WriteULongRelease(ULONG volatile* Destination, ULONG Value)
{
    __atomic_store_n(Destination, Value, __ATOMIC_RELEASE);
}

// The fence is the compiler's alone: it makes no second copy out of the source later on.
FORCEINLINE VOID RtlCopyVolatileMemory(VOID volatile* Destination, VOID const volatile* Source, SIZE_T Length)
{
    memcpy((PVOID)Destination, (const VOID*)Source, Length);
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
}
#else
ULONG ReadULongAcquire(ULONG const volatile* Source);
VOID WriteULongRelease(ULONG volatile* Destination, ULONG Value);
VOID RtlCopyVolatileMemory(VOID volatile* Destination, VOID const volatile* Source, SIZE_T Length);
#endif

#define KeMemoryBarrier() __atomic_thread_fence(__ATOMIC_SEQ_CST)
#define YieldProcessor() __builtin_ia32_pause()

// ------------------------------------------------------------------------------------------------ memory,
// text

#define RtlCopyMemory(Destination, Source, Length) memcpy((Destination), (Source), (Length))
#define RtlMoveMemory(Destination, Source, Length) memmove((Destination), (Source), (Length))
#define RtlFillMemory(Destination, Length, Fill) memset((Destination), (Fill), (Length))
#define RtlZeroMemory(Destination, Length) memset((Destination), 0, (Length))
#define RtlEqualMemory(Destination, Source, Length) (memcmp((Destination), (Source), (Length)) == 0)

SIZE_T RtlCompareMemory(const VOID* Source1, const VOID* Source2, SIZE_T Length);
VOID RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString);
VOID RtlInitString(PSTRING DestinationString, PCSTR SourceString);
VOID RtlInitAnsiString(PANSI_STRING DestinationString, PCSTR SourceString);

// Texts follow the Windows rules: %ld and %lu are 32 bits, %p is sixteen upper-case digits, %ws and %S wide
// text, %wZ and %Z counted strings; floating point is not available in the kernel. -1 when the text did not
// fit: the buffer is then full and has no terminator. A text that just fits has no terminator either.
int _vsnprintf(char* Buffer, size_t Count, const char* Format, va_list Arguments);
int _snprintf(char* Buffer, size_t Count, const char* Format, ...);
ULONG DbgPrint(PCSTR Format, ...);
ULONG DbgPrintEx(ULONG ComponentId, ULONG Level, PCSTR Format, ...);

PVOID ExAllocatePool(POOL_TYPE PoolType, SIZE_T NumberOfBytes);
PVOID ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
VOID ExFreePool(PVOID P);
VOID ExFreePoolWithTag(PVOID P, ULONG Tag);

typedef PVOID (*PALLOCATE_FUNCTION)(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
typedef VOID (*PFREE_FUNCTION)(PVOID Buffer);

typedef struct _SLIST_HEADER {
    SINGLE_LIST_ENTRY Next;
    USHORT Depth;
    USHORT Lock; // 1 while the list is being changed
    ULONG Sequence;
} SLIST_HEADER, *PSLIST_HEADER;

typedef struct _GENERAL_LOOKASIDE {
    SLIST_HEADER ListHead;
    USHORT Depth;
    USHORT MaximumDepth;
    ULONG TotalAllocates;
    union {
        ULONG AllocateMisses;
        ULONG AllocateHits;
    };
    ULONG TotalFrees;
    union {
        ULONG FreeMisses;
        ULONG FreeHits;
    };
    POOL_TYPE Type;
    ULONG Tag;
    ULONG Size;
    PALLOCATE_FUNCTION Allocate;
    PFREE_FUNCTION Free;
    LIST_ENTRY ListEntry;
    ULONG LastTotalAllocates;
    union {
        ULONG LastAllocateMisses;
        ULONG LastAllocateHits;
    };
    ULONG Future[2];
} GENERAL_LOOKASIDE, *PGENERAL_LOOKASIDE;

typedef struct _NPAGED_LOOKASIDE_LIST {
    GENERAL_LOOKASIDE L;
} NPAGED_LOOKASIDE_LIST, *PNPAGED_LOOKASIDE_LIST;

VOID ExInitializeNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PALLOCATE_FUNCTION Allocate,
                                     PFREE_FUNCTION Free, ULONG Flags, SIZE_T Size, ULONG Tag, USHORT Depth);
PVOID ExAllocateFromNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside);
VOID ExFreeToNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PVOID Entry);
VOID ExDeleteNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside);

// ------------------------------------------------------------------------------------------- IRQL, spin
// locks

typedef ULONG_PTR KSPIN_LOCK, *PKSPIN_LOCK;

KIRQL KeGetCurrentIrql(VOID);
KIRQL KfRaiseIrql(KIRQL NewIrql);
KIRQL KeRaiseIrqlToDpcLevel(VOID);
VOID KeLowerIrql(KIRQL NewIrql);
// Of the calling thread: the processor that it owns at DISPATCH_LEVEL, else the last one it owned. The kernel writes it.
extern __thread ULONG HostProcessorNumber __attribute__((tls_model("initial-exec")));
FORCEINLINE ULONG KeGetCurrentProcessorNumber(VOID)
{
    return HostProcessorNumber;
}
#define KeRaiseIrql(NewIrql, OldIrql) *(OldIrql) = KfRaiseIrql(NewIrql)

VOID KeInitializeSpinLock(PKSPIN_LOCK SpinLock);
KIRQL KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock);
VOID KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql);
VOID KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock);
VOID KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock);
#define KeAcquireSpinLock(SpinLock, OldIrql) *(OldIrql) = KeAcquireSpinLockRaiseToDpc(SpinLock)

// ------------------------------------------------------------------------------------ objects, waits,
// threads

typedef struct _DISPATCHER_HEADER {
    UCHAR Type;
    UCHAR Absolute;
    UCHAR Size;
    UCHAR Inserted;
    LONG SignalState;
    LIST_ENTRY WaitListHead;
} DISPATCHER_HEADER, *PDISPATCHER_HEADER;

typedef struct _KEVENT {
    DISPATCHER_HEADER Header;
} KEVENT, *PKEVENT, *PRKEVENT;

VOID KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State);
LONG KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait);
LONG KeResetEvent(PRKEVENT Event);
VOID KeClearEvent(PRKEVENT Event);
LONG KeReadStateEvent(PRKEVENT Event);

// Timeout: null waits for ever, negative is relative and positive absolute, in units of 100 ns.
NTSTATUS KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                               BOOLEAN Alertable, PLARGE_INTEGER Timeout);
NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Interval);

typedef VOID (*PKSTART_ROUTINE)(PVOID StartContext);

extern POBJECT_TYPE* PsThreadType;
extern POBJECT_TYPE* IoFileObjectType;

NTSTATUS PsCreateSystemThread(PHANDLE ThreadHandle, ULONG DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                              HANDLE ProcessHandle, PCLIENT_ID ClientId, PKSTART_ROUTINE StartRoutine,
                              PVOID StartContext);
// Ends the calling system thread; does not return there. Fails on any other thread.
NTSTATUS PsTerminateSystemThread(NTSTATUS ExitStatus);
KPRIORITY KeSetPriorityThread(PKTHREAD Thread, KPRIORITY Priority);
KPRIORITY KeQueryPriorityThread(PKTHREAD Thread);
PKTHREAD KeGetCurrentThread(VOID);
HANDLE PsGetCurrentProcessId(VOID);
HANDLE PsGetCurrentThreadId(VOID);

// Between the two the thread cannot be suspended. They nest.
VOID KeEnterCriticalRegion(VOID);
VOID KeLeaveCriticalRegion(VOID);
PEPROCESS IoGetCurrentProcess(VOID);

// Where a thread was before it attached to a process; the caller's memory until the detach.
typedef struct _KAPC_STATE {
    LIST_ENTRY ApcListHead[2]; // the first one's Flink: the state of the attachment around this one, or null
    PKPROCESS Process;
    BOOLEAN KernelApcInProgress;
    BOOLEAN KernelApcPending;
    BOOLEAN UserApcPending;
} KAPC_STATE, *PKAPC_STATE, *PRKAPC_STATE;

// From the one to the other the calling thread runs in the address space of the process. They nest.
VOID KeStackAttachProcess(PRKPROCESS Process, PRKAPC_STATE ApcState);
VOID KeUnstackDetachProcess(PRKAPC_STATE ApcState);

#define PsGetCurrentProcess IoGetCurrentProcess
#define PsGetCurrentThread() ((PETHREAD)KeGetCurrentThread())

NTSTATUS ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                   KPROCESSOR_MODE AccessMode, PVOID* Object,
                                   POBJECT_HANDLE_INFORMATION HandleInformation);
// Both answer the count of references after the call.
LONG_PTR ObfReferenceObject(PVOID Object);
LONG_PTR ObfDereferenceObject(PVOID Object);
#define ObReferenceObject(Object) ObfReferenceObject(Object)
#define ObDereferenceObject(Object) ObfDereferenceObject(Object)
NTSTATUS ZwClose(HANDLE Handle);

// ----------------------------------------------------------------------------------- timers, DPCs, work
// items

typedef struct _KDPC KDPC, *PKDPC, *PRKDPC;
typedef VOID (*PKDEFERRED_ROUTINE)(PKDPC Dpc, PVOID DeferredContext, PVOID SystemArgument1,
                                   PVOID SystemArgument2);

struct _KDPC {
    UCHAR Type;
    UCHAR Importance;
    USHORT Number;
    LIST_ENTRY DpcListEntry;
    PKDEFERRED_ROUTINE DeferredRoutine;
    PVOID DeferredContext;
    PVOID SystemArgument1;
    PVOID SystemArgument2;
    PVOID DpcData; // the queue while the DPC is queued
};

typedef struct _KTIMER {
    DISPATCHER_HEADER Header;
    ULARGE_INTEGER DueTime;
    LIST_ENTRY TimerListEntry; // the kernel's own note of its place among the set timers
    PKDPC Dpc;
    LONG Period; // milliseconds; 0: fires once
} KTIMER, *PKTIMER, *PRKTIMER;

VOID KeInitializeDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext);
BOOLEAN KeInsertQueueDpc(PRKDPC Dpc, PVOID SystemArgument1, PVOID SystemArgument2);
VOID KeFlushQueuedDpcs(VOID); // returns when the deferred calls queued before have ended; PASSIVE_LEVEL
VOID KeInitializeTimer(PKTIMER Timer);
VOID KeInitializeTimerEx(PKTIMER Timer, TIMER_TYPE Type);
BOOLEAN KeSetTimer(PKTIMER Timer, LARGE_INTEGER DueTime, PKDPC Dpc);
BOOLEAN KeSetTimerEx(PKTIMER Timer, LARGE_INTEGER DueTime, LONG Period, PKDPC Dpc);
BOOLEAN KeCancelTimer(PKTIMER Timer);

typedef VOID (*PWORKER_THREAD_ROUTINE)(PVOID Parameter);

typedef struct _WORK_QUEUE_ITEM {
    LIST_ENTRY List;
    PWORKER_THREAD_ROUTINE WorkerRoutine;
    PVOID Parameter;
} WORK_QUEUE_ITEM, *PWORK_QUEUE_ITEM;

#define ExInitializeWorkItem(Item, Routine, Context)                                                         \
    do {                                                                                                     \
        (Item)->WorkerRoutine = (Routine);                                                                   \
        (Item)->Parameter = (Context);                                                                       \
        (Item)->List.Flink = NULL;                                                                           \
    } while (0)
VOID ExQueueWorkItem(PWORK_QUEUE_ITEM WorkItem, WORK_QUEUE_TYPE QueueType);

// ---------------------------------------------------------------------------------------- time and
// exceptions

ULONG KeQueryTimeIncrement(VOID);                   // 100-ns units in a clock tick
VOID KeQuerySystemTime(PLARGE_INTEGER CurrentTime); // 100-ns units since 1 January 1601 (UTC)
VOID KeQueryTickCount(PLARGE_INTEGER TickCount);
LARGE_INTEGER KeQueryPerformanceCounter(PLARGE_INTEGER PerformanceFrequency);

DECLSPEC_NORETURN VOID ExRaiseStatus(NTSTATUS Status);
DECLSPEC_NORETURN VOID ExRaiseAccessViolation(VOID);

EXTERN_C_END
