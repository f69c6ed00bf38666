// Cancelling requests, and the lock that all cancel routines of the machine share.
#include "irp.h"

#include "verifier.h"

namespace
{

KSPIN_LOCK cancelLock;
// Both belong to the holder of the lock.
KIRQL irqlBeforeLock;
std::atomic<PKTHREAD> lockOwner;

} // namespace

VOID IoAcquireCancelSpinLock(PKIRQL irql)
{
    *irql = KeAcquireSpinLockRaiseToDpc(&cancelLock);
    irqlBeforeLock = *irql;
    lockOwner = KeGetCurrentThread();
}

VOID IoReleaseCancelSpinLock(KIRQL irql)
{
    if (lockOwner != KeGetCurrentThread()) {
        kernel::Report("cancel-lock-not-held", "IoReleaseCancelSpinLock", "this thread does not hold the lock");
        return;
    }
    const KIRQL before = irqlBeforeLock;
    if (irql != before) {
        kernel::Report("cancel-lock-irql", "IoReleaseCancelSpinLock",
                       "released to IRQL %u, but it was taken at IRQL %u", irql, before);
    }
    lockOwner = nullptr;
    KeReleaseSpinLock(&cancelLock, before);
}

BOOLEAN IoCancelIrp(PIRP irp)
{
    kernel::RequireIrqlAtMost(DISPATCH_LEVEL, "IoCancelIrp");
    KIRQL irql;
    IoAcquireCancelSpinLock(&irql);
    __atomic_store_n(&irp->Cancel, TRUE, __ATOMIC_SEQ_CST);
    PDRIVER_CANCEL routine = IoSetCancelRoutine(irp, nullptr);
    if (routine == nullptr) {
        IoReleaseCancelSpinLock(irql);
        return FALSE;
    }
    irp->CancelIrql = irql;
    routine(IoGetCurrentIrpStackLocation(irp)->DeviceObject, irp);
    if (lockOwner == KeGetCurrentThread()) {
        kernel::Report("cancel-lock-held", "IoCancelIrp", "the cancel routine returned without releasing the lock");
        IoReleaseCancelSpinLock(irql);
    }
    return TRUE;
}
