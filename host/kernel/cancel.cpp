// Cancelling requests, and the lock that all cancel routines of the machine share.
#include "irp.h"

#include "sanitizer.h"
#include "verifier.h"

namespace
{

KSPIN_LOCK cancelLock;
// Both belong to the holder of the lock.
KIRQL irqlBeforeLock;
std::atomic<PKTHREAD> lockOwner;

// Drivers look at the flag without a lock, after they have set their cancel routine. The exchange of that routine by
// both sides orders it; the thread sanitizer is not shown a race that the interface itself consists of.
KERNEL_UNCHECKED void SetCancelFlag(PIRP irp)
{
    *static_cast<volatile BOOLEAN*>(&irp->Cancel) = TRUE;
}

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
        kernel::Report("cancel-lock-not-held", "IoReleaseCancelSpinLock",
                       "this thread does not hold the lock");
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
    SetCancelFlag(irp);
    PDRIVER_CANCEL routine = IoSetCancelRoutine(irp, nullptr);
    if (routine == nullptr) {
        IoReleaseCancelSpinLock(irql);
        return FALSE;
    }
    irp->CancelIrql = irql;
    routine(IoGetCurrentIrpStackLocation(irp)->DeviceObject, irp);
    if (lockOwner == KeGetCurrentThread()) {
        kernel::Report("cancel-lock-held", "IoCancelIrp",
                       "the cancel routine returned without releasing the lock");
        IoReleaseCancelSpinLock(irql);
    }
    return TRUE;
}
