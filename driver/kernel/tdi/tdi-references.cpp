// Reference counts of addresses and endpoints, and what happens with the last reference.
#include "tdi-internal.h"

namespace tdi
{
namespace
{

// For the endpoint lists of all addresses: they change when an endpoint is opened or loses its last
// reference.
KSPIN_LOCK listLock;
volatile LONG closingItems; // queued or running

// Lies in the block of a request that is over.
struct ClosingItem {
    WORK_QUEUE_ITEM Item;
    Closings Handles;
};
static_assert(sizeof(ClosingItem) <= RequestSize);

VOID NTAPI RunClosing(PVOID context)
{
    ClosingItem* item = static_cast<ClosingItem*>(context);
    Close(&item->Handles);
    NdisFreeMemory(item, RequestSize, 0);
    InterlockedDecrement(&closingItems);
}

VOID Add(Closings* closings, HANDLE handle)
{
    closings->Handles[closings->Count++] = handle;
}

// Drops a reference, but not the last one: TRUE when that is the caller's. Nobody else uses the record then,
// as nobody can come by a reference who has none, and the caller sets the count to 0 when it is done with it.
BOOLEAN HoldsLast(volatile ULONG* count)
{
    ULONG before = __atomic_load_n(count, __ATOMIC_ACQUIRE);
    while (before > 1) {
        // Releases what this holder did with the record, for whoever will hold the last one.
        if (__atomic_compare_exchange_n(count, &before, before - 1, 0, __ATOMIC_RELEASE, __ATOMIC_ACQUIRE)) {
            return FALSE;
        }
    }
    return before == 1;
}

// The client may use the record otherwise from now on.
VOID DropLast(volatile ULONG* count)
{
    __atomic_store_n(count, 0, __ATOMIC_RELEASE);
}

} // namespace

VOID Reference(PKS_TRANSPORT_ADDRESS address)
{
    __atomic_add_fetch(&address->Count, 1, __ATOMIC_RELAXED);
}

VOID Reference(PKS_CONNECTION_ENDPOINT endpoint)
{
    __atomic_add_fetch(&endpoint->Count, 1, __ATOMIC_RELAXED);
}

VOID Release(PKS_TRANSPORT_ADDRESS address, Closings* closings)
{
    if (HoldsLast(&address->Count)) {
        IoFreeIrp(address->Irp);
        ObDereferenceObject(address->FileObject);
        Add(closings, address->Handle);
        DropLast(&address->Count);
    }
}

VOID Release(PKS_CONNECTION_ENDPOINT endpoint, Closings* closings)
{
    if (HoldsLast(&endpoint->Count)) {
        KIRQL irql;
        KeAcquireSpinLock(&listLock, &irql);
        RemoveEntryList(&endpoint->Link);
        KeReleaseSpinLock(&listLock, irql);
        Release(endpoint->Address, closings);
        ObDereferenceObject(endpoint->FileObject);
        Add(closings, endpoint->Handle);
        DropLast(&endpoint->Count);
    }
}

VOID Append(PKS_CONNECTION_ENDPOINT endpoint)
{
    KIRQL irql;
    KeAcquireSpinLock(&listLock, &irql);
    InsertTailList(&endpoint->Address->Endpoints, &endpoint->Link);
    KeReleaseSpinLock(&listLock, irql);
}

VOID Close(const Closings* closings)
{
    for (ULONG i = 0; i < closings->Count; ++i) {
        ZwClose(closings->Handles[i]);
    }
}

VOID CloseLater(const Closings* closings, PVOID block)
{
    ClosingItem* item = static_cast<ClosingItem*>(block);
    item->Handles = *closings;
    InterlockedIncrement(&closingItems);
    ExInitializeWorkItem(&item->Item, RunClosing, item);
    ExQueueWorkItem(&item->Item, DelayedWorkQueue);
}

VOID WaitForClosings()
{
    while (InterlockedCompareExchange(&closingItems, 0, 0) != 0) {
        LARGE_INTEGER interval;
        interval.QuadPart = -10 * 1000; // a millisecond
        KeDelayExecutionThread(KernelMode, FALSE, &interval);
    }
}

} // namespace tdi
