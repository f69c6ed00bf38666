// Control requests about the event queue.
#include "ndisfilter-main-requests.h"

namespace
{

FilterEventRecord* TakeOldestEvent()
{
    const WriteLock lock(Global().m_FilterLogLock);
    return Global().m_FilterLogList.TakeFirst();
}

// Puts the adapter's identifier for its handle in the head that events for user mode have in front of their text. The
// head shrinks by four bytes; the text stays where it is. No event is looked at: every one is treated so.
NTSTATUS RewriteHead(UserEvent& event)
{
    FilterEventHead given;
    UserEventHead* const head = static_cast<UserEventHead*>(AllocateScratch(sizeof(UserEventHead)));
    if (head == nullptr) {
        return STATUS_NO_MEMORY;
    }
    RtlCopyMemory(&given, event.m_Text, sizeof(given));
    ULONG id;
    const NTSTATUS status = TranslateToId(given.m_hAdapter, &id);
    if (NT_SUCCESS(status)) {
        head->m_nValue1 = given.m_nValue1;
        head->m_nAdapterId = id;
        head->m_nValue2 = given.m_nValue2;
        head->m_nValue3 = given.m_nValue3;
        head->m_nValue4 = given.m_nValue4;
        head->m_nValue5 = given.m_nValue5;
        head->m_nValue6 = given.m_nValue6;
        RtlCopyMemory(event.m_Text, head, sizeof(*head));
    }
    ExFreePool(head);
    return status;
}

} // namespace

NTSTATUS GetEvent(ControlRequest& request)
{
    UserEvent& output = *static_cast<UserEvent*>(request.Buffer);
    RtlZeroMemory(&output, sizeof(output));
    FilterEventRecord* const record = TakeOldestEvent();
    if (record == nullptr) {
        return STATUS_SUCCESS;
    }
    output = record->m_Event;
    GiveBackEventRecord(record);
    const NTSTATUS status = RewriteHead(output);
    if (NT_SUCCESS(status)) {
        request.Information = sizeof(output);
    }
    return status;
}

NTSTATUS ClearEvents(ControlRequest&)
{
    const WriteLock lock(Global().m_FilterLogLock);
    while (FilterEventRecord* record = Global().m_FilterLogList.TakeFirst()) {
        GiveBackEventRecord(record);
    }
    return STATUS_SUCCESS;
}
