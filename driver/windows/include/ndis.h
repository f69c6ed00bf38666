/*
 * The few NDIS 5 declarations that the driver and its clients need, for x64. mingw-w64's own <ndis.h> does not compile
 * as C++. Layouts as the Windows 2000 to Windows 7 driver kits have them.
 */
#ifndef NDISFILTER_WINDOWS_NDIS_H
#define NDISFILTER_WINDOWS_NDIS_H

#include <ntddk.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int NDIS_STATUS, *PNDIS_STATUS;
typedef PVOID NDIS_HANDLE, *PNDIS_HANDLE;
typedef unsigned int UINT, *PUINT;

#define NDIS_STATUS_SUCCESS ((NDIS_STATUS)STATUS_SUCCESS)
#define NDIS_STATUS_FAILURE ((NDIS_STATUS)STATUS_UNSUCCESSFUL)
#define NDIS_STATUS_MEDIA_CONNECT ((NDIS_STATUS)0x4001000BL)
#define NDIS_STATUS_MEDIA_DISCONNECT ((NDIS_STATUS)0x4001000CL)
#define NDIS_STATUS_ADAPTER_NOT_FOUND ((NDIS_STATUS)0xC0010006L)

/* ------------------------------------------------------------------------------------------- read-write locks */

typedef union _NDIS_RW_LOCK_REFCOUNT {
    UINT RefCount;
    UCHAR cacheLine[16];
} NDIS_RW_LOCK_REFCOUNT;

typedef struct _NDIS_RW_LOCK {
    union {
        struct {
            KSPIN_LOCK SpinLock;
            PVOID Context;
        };
        UCHAR Reserved[16];
    };
    NDIS_RW_LOCK_REFCOUNT RefCount[64];
} NDIS_RW_LOCK, *PNDIS_RW_LOCK;

typedef struct _LOCK_STATE {
    USHORT LockState;
    KIRQL OldIrql;
} LOCK_STATE, *PLOCK_STATE;

VOID NTAPI NdisInitializeReadWriteLock(PNDIS_RW_LOCK Lock);
VOID NTAPI NdisAcquireReadWriteLock(PNDIS_RW_LOCK Lock, BOOLEAN fWrite, PLOCK_STATE LockState);
VOID NTAPI NdisReleaseReadWriteLock(PNDIS_RW_LOCK Lock, PLOCK_STATE LockState);

/* ------------------------------------------------------------------------------------------ events and timers */

typedef struct _NDIS_EVENT {
    KEVENT Event;
} NDIS_EVENT, *PNDIS_EVENT;

VOID NTAPI NdisInitializeEvent(PNDIS_EVENT Event);
VOID NTAPI NdisSetEvent(PNDIS_EVENT Event);
VOID NTAPI NdisResetEvent(PNDIS_EVENT Event);
BOOLEAN NTAPI NdisWaitEvent(PNDIS_EVENT Event, UINT MsToWait);

typedef VOID(NTAPI* PNDIS_TIMER_FUNCTION)(PVOID SystemSpecific1, PVOID FunctionContext, PVOID SystemSpecific2,
                                          PVOID SystemSpecific3);

typedef struct _NDIS_TIMER {
    KTIMER Timer;
    KDPC Dpc;
} NDIS_TIMER, *PNDIS_TIMER;

VOID NTAPI NdisInitializeTimer(PNDIS_TIMER Timer, PNDIS_TIMER_FUNCTION TimerFunction, PVOID FunctionContext);
VOID NTAPI NdisSetTimer(PNDIS_TIMER Timer, UINT MillisecondsToDelay);
VOID NTAPI NdisCancelTimer(PNDIS_TIMER Timer, PBOOLEAN TimerCancelled);

/* ----------------------------------------------------------------------------------------------------- memory */

NDIS_STATUS NTAPI NdisAllocateMemoryWithTag(PVOID* VirtualAddress, UINT Length, ULONG Tag);
VOID NTAPI NdisFreeMemory(PVOID VirtualAddress, UINT Length, UINT MemoryFlags);

/* ---------------------------------------------------------------------------------------- packets and buffers */

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
} NDIS_PACKET_PRIVATE;

typedef struct _NDIS_PACKET {
    NDIS_PACKET_PRIVATE Private;
    UCHAR MacReserved[4 * sizeof(PVOID)];
    ULONG_PTR Reserved[2];
    UCHAR ProtocolReserved[1];
} NDIS_PACKET, *PNDIS_PACKET;

VOID NTAPI NdisUnchainBufferAtFront(PNDIS_PACKET Packet, PNDIS_BUFFER* Buffer);
VOID NTAPI NdisFreePacket(PNDIS_PACKET Packet);

/* Each result pointer may be null. The counts are computed once and kept in the packet. */
FORCEINLINE VOID NdisQueryPacket(PNDIS_PACKET Packet, PUINT PhysicalBufferCount, PUINT BufferCount,
                                 PNDIS_BUFFER* FirstBuffer, PUINT TotalPacketLength)
{
    if (FirstBuffer != NULL) {
        *FirstBuffer = Packet->Private.Head;
    }
    if (TotalPacketLength == NULL && BufferCount == NULL && PhysicalBufferCount == NULL) {
        return;
    }
    if (!Packet->Private.ValidCounts) {
        UINT pages = 0, buffers = 0, length = 0;
        PNDIS_BUFFER buffer;
        for (buffer = Packet->Private.Head; buffer != NULL; buffer = buffer->Next) {
            pages += ADDRESS_AND_SIZE_TO_SPAN_PAGES(MmGetMdlVirtualAddress(buffer), MmGetMdlByteCount(buffer));
            length += MmGetMdlByteCount(buffer);
            buffers++;
        }
        Packet->Private.PhysicalCount = pages;
        Packet->Private.Count = buffers;
        Packet->Private.TotalLength = length;
        Packet->Private.ValidCounts = TRUE;
    }
    if (PhysicalBufferCount != NULL) {
        *PhysicalBufferCount = Packet->Private.PhysicalCount;
    }
    if (BufferCount != NULL) {
        *BufferCount = Packet->Private.Count;
    }
    if (TotalPacketLength != NULL) {
        *TotalPacketLength = Packet->Private.TotalLength;
    }
}

#ifdef __cplusplus
}
#endif

#endif
