// The NDIS 5 library functions that drivers use: read-write locks, events, timers, memory, packets and
// buffers.
#pragma once

#include <ntddk.h>

EXTERN_C_START

typedef int NDIS_STATUS, *PNDIS_STATUS;
typedef PVOID NDIS_HANDLE, *PNDIS_HANDLE;
typedef UNICODE_STRING NDIS_STRING, *PNDIS_STRING;
typedef ULONG NDIS_OID, *PNDIS_OID;

#define NDIS_STATUS_SUCCESS ((NDIS_STATUS)STATUS_SUCCESS)
#define NDIS_STATUS_PENDING ((NDIS_STATUS)STATUS_PENDING)
#define NDIS_STATUS_MEDIA_CONNECT ((NDIS_STATUS)0x4001000B)
#define NDIS_STATUS_MEDIA_DISCONNECT ((NDIS_STATUS)0x4001000C)
#define NDIS_STATUS_FAILURE ((NDIS_STATUS)STATUS_UNSUCCESSFUL)
#define NDIS_STATUS_RESOURCES ((NDIS_STATUS)STATUS_INSUFFICIENT_RESOURCES)
#define NDIS_STATUS_NOT_SUPPORTED ((NDIS_STATUS)STATUS_NOT_SUPPORTED)
#define NDIS_STATUS_ADAPTER_NOT_FOUND ((NDIS_STATUS)0xC0010006)

typedef enum _NDIS_MEDIUM {
    NdisMedium802_3,
    NdisMedium802_5,
    NdisMediumFddi,
    NdisMediumWan,
    NdisMediumLocalTalk,
    NdisMediumDix,
    NdisMediumArcnetRaw,
    NdisMediumArcnet878_2,
    NdisMediumAtm,
    NdisMediumWirelessWan,
    NdisMediumIrda,
    NdisMediumMax
} NDIS_MEDIUM,
    *PNDIS_MEDIUM;

// ------------------------------------------------------------------------------------------- read-write
// locks

// One reader slot per processor, each on cache lines of its own: slots are 64 bytes apart, as the blocks that
// hold locks are not aligned to lines.
typedef struct _NDIS_RW_LOCK {
    ULONG Writer; // 1 while a writer holds the lock or waits for readers to leave
    ULONG Signature;
    PVOID WriterThread;
    UCHAR Padding[48];
    struct {
        ULONG Count; // written by the thread that owns the processor only
        UCHAR Padding[60];
    } Reader[MAXIMUM_PROCESSORS];
} NDIS_RW_LOCK, *PNDIS_RW_LOCK;

typedef struct _LOCK_STATE {
    USHORT LockState;
    KIRQL OldIrql;
} LOCK_STATE, *PLOCK_STATE;

// From acquisition to release the thread runs at DISPATCH_LEVEL.
VOID NdisInitializeReadWriteLock(PNDIS_RW_LOCK Lock);
VOID NdisAcquireReadWriteLock(PNDIS_RW_LOCK Lock, BOOLEAN fWrite, PLOCK_STATE LockState);
VOID NdisReleaseReadWriteLock(PNDIS_RW_LOCK Lock, PLOCK_STATE LockState);

// ------------------------------------------------------------------------------------------ events and
// timers

typedef struct _NDIS_EVENT {
    KEVENT Event;
} NDIS_EVENT, *PNDIS_EVENT;

VOID NdisInitializeEvent(PNDIS_EVENT Event);
VOID NdisSetEvent(PNDIS_EVENT Event);
VOID NdisResetEvent(PNDIS_EVENT Event);
// Waits for ever when MsToWait is 0. False: the time is over and the event was not set.
BOOLEAN NdisWaitEvent(PNDIS_EVENT Event, UINT MsToWait);

typedef VOID (*PNDIS_TIMER_FUNCTION)(PVOID SystemSpecific1, PVOID FunctionContext, PVOID SystemSpecific2,
                                     PVOID SystemSpecific3);

typedef struct _NDIS_TIMER {
    KTIMER Timer;
    KDPC Dpc;
} NDIS_TIMER, *PNDIS_TIMER;

VOID NdisInitializeTimer(PNDIS_TIMER Timer, PNDIS_TIMER_FUNCTION TimerFunction, PVOID FunctionContext);
VOID NdisSetTimer(PNDIS_TIMER Timer, UINT MillisecondsToDelay);
VOID NdisCancelTimer(PNDIS_TIMER Timer, PBOOLEAN TimerCancelled);

// -----------------------------------------------------------------------------------------------------
// memory

NDIS_STATUS NdisAllocateMemoryWithTag(PVOID* VirtualAddress, UINT Length, ULONG Tag);
VOID NdisFreeMemory(PVOID VirtualAddress, UINT Length, UINT MemoryFlags);
#define NdisMoveMemory(Destination, Source, Length) RtlCopyMemory(Destination, Source, Length)
#define NdisZeroMemory(Destination, Length) RtlZeroMemory(Destination, Length)

// ---------------------------------------------------------------------------------------- packets and
// buffers

typedef MDL NDIS_BUFFER, *PNDIS_BUFFER;

typedef struct _NDIS_PACKET_PRIVATE {
    UINT PhysicalCount;
    UINT TotalLength;
    PNDIS_BUFFER Head;
    PNDIS_BUFFER Tail;
    NDIS_HANDLE Pool;
    UINT Count;
    ULONG Flags;
    BOOLEAN ValidCounts;
    UCHAR NdisPacketFlags;
    USHORT NdisPacketOobOffset;
} NDIS_PACKET_PRIVATE, *PNDIS_PACKET_PRIVATE;

typedef struct _NDIS_PACKET {
    NDIS_PACKET_PRIVATE Private;
    union {
        struct {
            UCHAR MiniportReserved[2 * sizeof(PVOID)];
            UCHAR WrapperReserved[2 * sizeof(PVOID)];
        };
        struct {
            UCHAR MiniportReservedEx[3 * sizeof(PVOID)];
            UCHAR WrapperReservedEx[sizeof(PVOID)];
        };
        UCHAR MacReserved[4 * sizeof(PVOID)];
    };
    ULONG_PTR Reserved[2];
    UCHAR ProtocolReserved[1];
} NDIS_PACKET, *PNDIS_PACKET, **PPNDIS_PACKET;

VOID NdisAllocatePacketPool(PNDIS_STATUS Status, PNDIS_HANDLE PoolHandle, UINT NumberOfDescriptors,
                            UINT ProtocolReservedLength);
VOID NdisAllocatePacketPoolEx(PNDIS_STATUS Status, PNDIS_HANDLE PoolHandle, UINT NumberOfDescriptors,
                              UINT NumberOfOverflowDescriptors, UINT ProtocolReservedLength);
VOID NdisFreePacketPool(NDIS_HANDLE PoolHandle);
VOID NdisAllocatePacket(PNDIS_STATUS Status, PNDIS_PACKET* Packet, NDIS_HANDLE PoolHandle);
VOID NdisFreePacket(PNDIS_PACKET Packet);
VOID NdisAllocateBufferPool(PNDIS_STATUS Status, PNDIS_HANDLE PoolHandle, UINT NumberOfDescriptors);
VOID NdisFreeBufferPool(NDIS_HANDLE PoolHandle);
VOID NdisAllocateBuffer(PNDIS_STATUS Status, PNDIS_BUFFER* Buffer, NDIS_HANDLE PoolHandle,
                        PVOID VirtualAddress, UINT Length);
VOID NdisFreeBuffer(PNDIS_BUFFER Buffer);
VOID NdisUnchainBufferAtFront(PNDIS_PACKET Packet, PNDIS_BUFFER* Buffer);
VOID NdisUnchainBufferAtBack(PNDIS_PACKET Packet, PNDIS_BUFFER* Buffer);

#define NdisGetNextBuffer(CurrentBuffer, NextBuffer) (*(NextBuffer) = (CurrentBuffer)->Next)
#define NdisGetPacketFlags(Packet) ((Packet)->Private.Flags)

FORCEINLINE VOID NdisQueryBufferSafe(PNDIS_BUFFER Buffer, PVOID* VirtualAddress, PUINT Length, ULONG Priority)
{
    if (VirtualAddress != NULL)
        *VirtualAddress = MmGetSystemAddressForMdlSafe(Buffer, Priority);
    *Length = MmGetMdlByteCount(Buffer);
}

FORCEINLINE VOID NdisReinitializePacket(PNDIS_PACKET Packet)
{
    Packet->Private.Head = NULL;
    Packet->Private.ValidCounts = FALSE;
}

// Both take a chain of buffers. The counts of the packet are computed anew by the next query.
FORCEINLINE VOID NdisChainBufferAtFront(PNDIS_PACKET Packet, PNDIS_BUFFER Buffer)
{
    PNDIS_BUFFER last = Buffer;
    while (last->Next != NULL)
        last = last->Next;
    if (Packet->Private.Head == NULL)
        Packet->Private.Tail = last;
    last->Next = Packet->Private.Head;
    Packet->Private.Head = Buffer;
    Packet->Private.ValidCounts = FALSE;
}

FORCEINLINE VOID NdisChainBufferAtBack(PNDIS_PACKET Packet, PNDIS_BUFFER Buffer)
{
    PNDIS_BUFFER last = Buffer;
    while (last->Next != NULL)
        last = last->Next;
    if (Packet->Private.Head != NULL)
        Packet->Private.Tail->Next = Buffer;
    else
        Packet->Private.Head = Buffer;
    Packet->Private.Tail = last;
    Packet->Private.ValidCounts = FALSE;
}

// Each result pointer may be null. The counts are computed once and kept in the packet.
FORCEINLINE VOID NdisQueryPacket(PNDIS_PACKET Packet, PUINT PhysicalBufferCount, PUINT BufferCount,
                                 PNDIS_BUFFER* FirstBuffer, PUINT TotalPacketLength)
{
    if (FirstBuffer != NULL)
        *FirstBuffer = Packet->Private.Head;
    if (TotalPacketLength == NULL && BufferCount == NULL && PhysicalBufferCount == NULL)
        return;
    if (!Packet->Private.ValidCounts) {
        UINT pages = 0, buffers = 0, length = 0;
        for (PNDIS_BUFFER buffer = Packet->Private.Head; buffer != NULL; buffer = buffer->Next) {
            pages +=
                ADDRESS_AND_SIZE_TO_SPAN_PAGES(MmGetMdlVirtualAddress(buffer), MmGetMdlByteCount(buffer));
            length += MmGetMdlByteCount(buffer);
            buffers++;
        }
        Packet->Private.PhysicalCount = pages;
        Packet->Private.Count = buffers;
        Packet->Private.TotalLength = length;
        Packet->Private.ValidCounts = TRUE;
    }
    if (PhysicalBufferCount != NULL)
        *PhysicalBufferCount = Packet->Private.PhysicalCount;
    if (BufferCount != NULL)
        *BufferCount = Packet->Private.Count;
    if (TotalPacketLength != NULL)
        *TotalPacketLength = Packet->Private.TotalLength;
}

EXTERN_C_END
