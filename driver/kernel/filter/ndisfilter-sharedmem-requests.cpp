// What moves the shared rings: the thread that injects the program's blocks, and its read and write requests.
//
// At most one read request is parked. It is in one of three hands: m_pPendingReadIrp (parked), whoever took it from
// there and took its cancel routine back, or the cancel routine. m_PendingReadLock makes taking it from the slot and
// taking the routine back one step, so that a cancel routine which has begun completes the request, and nobody else.
#include "ndisfilter-internal.h"

namespace
{

BOOLEAN CheckShareOwner(PIRP irp)
{
    const PFILE_OBJECT file = FileObjectOf(irp);
    if (IsShareOwner(file)) {
        return TRUE;
    }
    Trace(TRACE_SHARE, "SharedMemory is not opened by FileObject 0x%p\n", file);
    return FALSE;
}

PVOID* PendingReadSlot()
{
    return reinterpret_cast<PVOID*>(&Global().m_pPendingReadIrp);
}

enum class Parking { Parked, Cancelled, Refused, NotNeeded };

// Parks the request unless blocks are waiting. Parked: the request is not the caller's to touch any more.
Parking ParkRead(PIRP irp)
{
    const WriteLock lock(Global().m_PendingReadLock);
    if (Global().m_pSharedMemory == nullptr || !IsOutputRingEmpty()) {
        return Parking::NotNeeded;
    }
    if (InterlockedCompareExchangePointer(PendingReadSlot(), nullptr, nullptr) != nullptr) {
        return Parking::Refused;
    }
    IoSetCancelRoutine(irp, CancelPendingReadShare);
    IoMarkIrpPending(irp);
    irp->IoStatus.Status = STATUS_PENDING;
    if (irp->Cancel && IoSetCancelRoutine(irp, nullptr) != nullptr) {
        return Parking::Cancelled;
    }
    InterlockedExchangePointer(PendingReadSlot(), irp);
    return Parking::Parked;
}

// The parked request, now the caller's to complete; nullptr when there is none or its cancellation has begun.
PIRP TakeParkedRead()
{
    const WriteLock lock(Global().m_PendingReadLock);
    const PIRP irp = static_cast<PIRP>(InterlockedExchangePointer(PendingReadSlot(), nullptr));
    return irp != nullptr && IoSetCancelRoutine(irp, nullptr) != nullptr ? irp : nullptr;
}

// Sends a packet of the program on its way.
VOID InjectBlock(FilterPacket* packet)
{
    const ULONG direction = packet->m_nDirection;
    if (direction == NDIS_FILTER_DIRECTION_TO_APPLICATION) {
        NdisFilter_WriteShareMemory(packet);
        Filter_ReleasePacket(packet);
        return;
    }
    if ((direction != NDIS_FILTER_DIRECTION_TO_PROTOCOL && direction != NDIS_FILTER_DIRECTION_TO_ADAPTER) ||
        packet->m_hAdapter == nullptr) {
        Filter_ReleasePacket(packet);
        return;
    }
    Filter_InitPacketHeader(packet, nullptr);
    Filter_DumpPacket(">> Injected Packet", packet);
    Filter_InvokeFilters(direction == NDIS_FILTER_DIRECTION_TO_PROTOCOL ? FILTER_TYPE_INJECT_TO_PROTOCOL
                                                                        : FILTER_TYPE_INJECT_TO_ADAPTER,
                         packet);
}

} // namespace

VOID ShareMemoryThread(PVOID)
{
    NdisFilterDeviceExtension& global = Global();

    Trace(TRACE_SHARE, "Enter ShareMemoryThread\n");
    EnterWorkerThread();
    while (!LoadRelaxed(global.m_bStopShare)) {
        FilterPacket* const packet = NdisFilter_ReadShareMemory();
        if (packet != nullptr) {
            InjectBlock(packet);
            continue;
        }
        NdisWaitEvent(&global.m_ShareMemoryEvent, SHARE_WAIT_MS);
        // Before the ring is read again: a block announced up to here is found by that, one announced later sets the
        // event anew.
        NdisResetEvent(&global.m_ShareMemoryEvent);
    }
    Trace(TRACE_SHARE, "Leave ShareMemoryThread\n");
    LeaveWorkerThread();
}

NTSTATUS NdisFilter_IOCtrlReadShare(PIRP pIrp)
{
    const PFILE_OBJECT file = FileObjectOf(pIrp);

    Trace(TRACE_SHARE, "Enter NdisFilter_IOCtrlReadShare\n");
    if (!CheckShareOwner(pIrp)) {
        pIrp->IoStatus.Status = STATUS_UNSUCCESSFUL;
        Trace(TRACE_SHARE, "Leave NdisFilter_IOCtrlReadShare, STATUS_UNSUCCESSFUL\n");
        return STATUS_UNSUCCESSFUL;
    }
    switch (ParkRead(pIrp)) {
    case Parking::Refused:
        Trace(TRACE_SHARE, "Leave NdisFilter_IOCtrlReadShare, STATUS_UNSUCCESSFUL\n");
        return STATUS_UNSUCCESSFUL;
    case Parking::NotNeeded:
        Trace(TRACE_SHARE, "Leave NdisFilter_IOCtrlReadShare, STATUS_SUCCESS\n");
        return STATUS_SUCCESS;
    case Parking::Cancelled:
        CompleteRequest(pIrp, STATUS_CANCELLED, 0);
        break;
    case Parking::Parked:
        // A block written, or a share stopped, between the look at them and the parking found nothing to complete. A
        // writer stores the index and then looks at the slot, StopShare clears the owner and then looks at the slot,
        // this side the other way round: one of the two sees the other.
        if (!IsOutputRingEmpty() || !IsShareOwner(file)) {
            NdisFilter_CompleteRead();
        }
        break;
    }
    Trace(TRACE_SHARE, "Leave NdisFilter_IOCtrlReadShare, STATUS_PENDING\n");
    return STATUS_PENDING;
}

NTSTATUS NdisFilter_IOCtrlWriteShare(PIRP pIrp)
{
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    Trace(TRACE_SHARE, "Enter NdisFilter_IOCtrlWriteShare\n");
    if (CheckShareOwner(pIrp)) {
        NdisSetEvent(&Global().m_ShareMemoryEvent);
        status = STATUS_SUCCESS;
    }
    Trace(TRACE_SHARE, "Leave NdisFilter_IOCtrlWriteShare\n");
    return status;
}

VOID CompleteParkedRead()
{
    // The interlocked look orders the writer's index before it; most writers find nobody waiting and take no lock.
    if (InterlockedCompareExchangePointer(PendingReadSlot(), nullptr, nullptr) != nullptr) {
        if (const PIRP irp = TakeParkedRead()) {
            CompleteRequest(irp, STATUS_SUCCESS, 0);
        }
    }
}

VOID NdisFilter_CompleteRead()
{
    Trace(TRACE_SHARE, "Enter NdisFilter_CompleteRead\n");
    CompleteParkedRead();
    Trace(TRACE_SHARE, "Leave NdisFilter_CompleteRead\n");
}

VOID CancelPendingReadShare(PDEVICE_OBJECT, PIRP pIrp)
{
    Trace(TRACE_SHARE, "Enter CancelPendingReadShare\n");
    IoReleaseCancelSpinLock(pIrp->CancelIrql);
    {
        const WriteLock lock(Global().m_PendingReadLock);
        InterlockedCompareExchangePointer(PendingReadSlot(), nullptr, pIrp);
    }
    IoSetCancelRoutine(pIrp, nullptr);
    CompleteRequest(pIrp, STATUS_CANCELLED, 0);
    Trace(TRACE_SHARE, "Leave CancelPendingReadShare\n");
}
