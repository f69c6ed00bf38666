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
    Closings Records;
};
static_assert(sizeof(ClosingItem) <= RequestSize);

VOID NTAPI RunClosing(PVOID context)
{
    ClosingItem* item = static_cast<ClosingItem*>(context);
    Close(&item->Records);
    NdisFreeMemory(item, RequestSize, 0);
    InterlockedDecrement(&closingItems);
}

// A count that stands for a record whose last reference is gone while its handle is still open.
constexpr ULONG BeingClosed = KS_BEING_CLOSED;

BOOLEAN IsAlive(ULONG count)
{
    return count != 0 && count != BeingClosed;
}

BOOLEAN AddReference(volatile ULONG* count)
{
    ULONG before = __atomic_load_n(count, __ATOMIC_RELAXED);
    while (IsAlive(before)) {
        if (__atomic_compare_exchange_n(count, &before, before + 1, 0, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) {
            return TRUE;
        }
    }
    return FALSE;
}

// TRUE: it was the last one, and the caller is the one who closes the record.
BOOLEAN DropReference(volatile ULONG* count)
{
    ULONG before = __atomic_load_n(count, __ATOMIC_RELAXED);
    while (IsAlive(before)) {
        const ULONG after = before == 1 ? BeingClosed : before - 1;
        // Releases what this holder did with the record; who closes it acquires what all others did.
        if (__atomic_compare_exchange_n(count, &before, after, 0, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED)) {
            return after == BeingClosed;
        }
    }
    return FALSE;
}

// The client may free the record or use it again as soon as the count is 0.
VOID CloseRecord(HANDLE handle, volatile ULONG* count)
{
    ZwClose(handle);
    __atomic_store_n(count, 0, __ATOMIC_RELEASE);
}

} // namespace

BOOLEAN Reference(PKS_TRANSPORT_ADDRESS address)
{
    return AddReference(&address->Count);
}

BOOLEAN Reference(PKS_CONNECTION_ENDPOINT endpoint)
{
    return AddReference(&endpoint->Count);
}

VOID Release(PKS_TRANSPORT_ADDRESS address, Closings* closings)
{
    if (DropReference(&address->Count)) {
        IoFreeIrp(address->Irp);
        ObDereferenceObject(address->FileObject);
        closings->Address = address;
    }
}

// Leaves the list first: its head lies in the address.
VOID Release(PKS_CONNECTION_ENDPOINT endpoint, Closings* closings)
{
    if (DropReference(&endpoint->Count)) {
        KIRQL irql;
        KeAcquireSpinLock(&listLock, &irql);
        RemoveEntryList(&endpoint->Link);
        KeReleaseSpinLock(&listLock, irql);
        Release(endpoint->Address, closings);
        ObDereferenceObject(endpoint->FileObject);
        closings->Endpoint = endpoint;
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
    if (closings->Address != nullptr) {
        CloseRecord(closings->Address->Handle, &closings->Address->Count);
    }
    if (closings->Endpoint != nullptr) {
        CloseRecord(closings->Endpoint->Handle, &closings->Endpoint->Count);
    }
}

VOID CloseLater(const Closings* closings, PVOID block)
{
    ClosingItem* item = static_cast<ClosingItem*>(block);
    item->Records = *closings;
    InterlockedIncrement(&closingItems);
    ExInitializeWorkItem(&item->Item, RunClosing, item);
    ExQueueWorkItem(&item->Item, DelayedWorkQueue);
}

BOOLEAN AreClosingsUnderWay()
{
    return InterlockedCompareExchange(&closingItems, 0, 0) != 0;
}

} // namespace tdi
