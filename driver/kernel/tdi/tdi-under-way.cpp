// Data requests under way: the driver that holds the library must not be unloaded before the last of them is over.
#include "tdi-internal.h"

namespace tdi
{
namespace
{

KSPIN_LOCK requestLock;
LIST_ENTRY requests = {&requests, &requests}; // sent and not completed
BOOLEAN ending;                               // no more may be sent; under the lock
volatile LONG underWay;                       // sent, and their completion not yet behind its last step

// The first request that was not cancelled before, which stays until Free gives it back. Null: there is none.
SentRequest* TakeForCancel()
{
    SentRequest* found = nullptr;
    KIRQL irql;
    KeAcquireSpinLock(&requestLock, &irql);
    for (PLIST_ENTRY entry = requests.Flink; entry != &requests && found == nullptr; entry = entry->Flink) {
        SentRequest* request = CONTAINING_RECORD(entry, SentRequest, Link);
        if (!request->Cancelled) {
            request->Cancelled = TRUE;
            InterlockedIncrement(&request->Users);
            found = request;
        }
    }
    KeReleaseSpinLock(&requestLock, irql);
    return found;
}

} // namespace

SentRequest* AllocateSentRequest(PDEVICE_OBJECT device)
{
    const PIRP irp = IoAllocateIrp(static_cast<CCHAR>(device->StackSize + 1), FALSE);
    if (irp == nullptr) {
        return nullptr;
    }
    IoSetNextIrpStackLocation(irp);
    SentRequest* request = SentRequestOf(irp);
    request->Irp = irp;
    request->Users = 1;
    request->Cancelled = FALSE;
    return request;
}

BOOLEAN BeginRequest(SentRequest* request)
{
    KIRQL irql;
    KeAcquireSpinLock(&requestLock, &irql);
    const BOOLEAN allowed = !ending;
    if (allowed) {
        InterlockedIncrement(&underWay);
        InsertTailList(&requests, &request->Link);
    }
    KeReleaseSpinLock(&requestLock, irql);
    return allowed;
}

// The library's own stack location is left as well: the request belongs to nobody's stack when it is freed.
VOID CompleteRequest(SentRequest* request)
{
    IoSkipCurrentIrpStackLocation(request->Irp);
    KIRQL irql;
    KeAcquireSpinLock(&requestLock, &irql);
    RemoveEntryList(&request->Link);
    KeReleaseSpinLock(&requestLock, irql);
}

VOID Free(SentRequest* request)
{
    if (InterlockedDecrement(&request->Users) == 0) {
        IoFreeIrp(request->Irp);
    }
}

VOID EndRequest()
{
    InterlockedDecrement(&underWay);
}

namespace
{

VOID SetEnding(BOOLEAN value)
{
    KIRQL irql;
    KeAcquireSpinLock(&requestLock, &irql);
    ending = value;
    KeReleaseSpinLock(&requestLock, irql);
}

} // namespace

VOID EndEverything()
{
    SetEnding(TRUE); // or a callback that always sends the next request would never come to an end
    for (;;) {
        while (SentRequest* request = TakeForCancel()) {
            IoCancelIrp(request->Irp);
            Free(request);
        }
        if (InterlockedCompareExchange(&underWay, 0, 0) == 0 && !AreClosingsUnderWay()) {
            break;
        }
        LARGE_INTEGER interval;
        interval.QuadPart = -10 * 1000; // a millisecond
        KeDelayExecutionThread(KernelMode, FALSE, &interval);
    }
    SetEnding(FALSE); // a driver that is loaded again may find its data as it left them
}

} // namespace tdi
