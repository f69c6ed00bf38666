#include "dispatcher.h"
#include "thread.h"
#include "verifier.h"

#include <ndis.h>

using namespace kernel;

namespace
{

LONG SetEvent(KEVENT* event)
{
    // A producer that finds the event set has nothing to wake. The addition of nothing is a full barrier:
    // what the producer stored before is seen by a consumer that resets the event after this look.
    if (__atomic_fetch_add(&event->Header.SignalState, 0, __ATOMIC_SEQ_CST) != 0)
        return 1;
    std::lock_guard lock(TheDispatcher().mutex);
    LONG before = __atomic_load_n(&event->Header.SignalState, __ATOMIC_RELAXED);
    if (before == 0)
        Signal(&event->Header);
    return before;
}

LONG ResetEvent(KEVENT* event)
{
    std::lock_guard lock(TheDispatcher().mutex);
    return __atomic_exchange_n(&event->Header.SignalState, 0, __ATOMIC_SEQ_CST);
}

} // namespace

VOID KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State)
{
    InitializeHeader(&Event->Header, Type == NotificationEvent ? kNotificationEvent : kSynchronizationEvent,
                     sizeof(KEVENT), State != 0);
}

LONG KeSetEvent(PRKEVENT Event, KPRIORITY, BOOLEAN)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "KeSetEvent");
    return SetEvent(Event);
}

LONG KeResetEvent(PRKEVENT Event)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "KeResetEvent");
    return ResetEvent(Event);
}

VOID KeClearEvent(PRKEVENT Event)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "KeClearEvent");
    ResetEvent(Event);
}

LONG KeReadStateEvent(PRKEVENT Event)
{
    return __atomic_load_n(&Event->Header.SignalState, __ATOMIC_ACQUIRE);
}

VOID NdisInitializeEvent(PNDIS_EVENT Event)
{
    KeInitializeEvent(&Event->Event, NotificationEvent, FALSE);
}

VOID NdisSetEvent(PNDIS_EVENT Event)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "NdisSetEvent");
    SetEvent(&Event->Event);
}

VOID NdisResetEvent(PNDIS_EVENT Event)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "NdisResetEvent");
    ResetEvent(&Event->Event);
}

BOOLEAN NdisWaitEvent(PNDIS_EVENT Event, UINT MsToWait)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "NdisWaitEvent");
    bool mayBeHeld =
        t_thread.systemThread && TheDispatcher().threadHolds.load(std::memory_order_relaxed) != 0;
    if (!mayBeHeld && __atomic_load_n(&Event->Event.Header.SignalState, __ATOMIC_ACQUIRE) != 0)
        return TRUE;
    Deadline deadline = DeadlineIn(MsToWait);
    return Wait(&Event->Event.Header, MsToWait == 0 ? nullptr : &deadline, "NdisWaitEvent") == STATUS_SUCCESS;
}
