// Client drivers' timers: the deferred call of an expiry queues a callback, which a worker makes at PASSIVE_LEVEL.
#include "ndisfilter-handle.h"

namespace
{

// A callback that waits for a worker.
struct TimerCallback {
    WORK_QUEUE_ITEM m_QueueItem;
    FilterTimer* m_pTimer;
};

// The record of a timer that is stopped for good is freed here, or by the last of its callbacks: whichever comes second
// has the lock when the other is out of the record.
VOID ReleaseTimer(FilterTimer* timer)
{
    BOOLEAN last;
    {
        SpinLock lock(timer->m_Lock);
        timer->m_bReleased = TRUE;
        last = timer->m_nPendingCallback == 0;
    }
    if (last) {
        Filter_FreeMemory(timer);
    }
}

VOID EndCallback(FilterTimer* timer)
{
    BOOLEAN last = FALSE;
    {
        // Against a deferred call that queues the next callback: count and event change together.
        SpinLock lock(timer->m_Lock);
        if (InterlockedDecrement(&timer->m_nPendingCallback) == 0) {
            KeSetEvent(&timer->m_CallbackEvent, IO_NO_INCREMENT, FALSE);
            last = timer->m_bReleased;
        }
    }
    if (last) {
        Filter_FreeMemory(timer);
    }
}

VOID Filter_TimerWorkRoutine(PVOID pParameter)
{
    TimerCallback* const callback = static_cast<TimerCallback*>(pParameter);
    FilterTimer* const timer = callback->m_pTimer;
    const NTSTATUS code = Guarded([&] {
        timer->m_pfTimerProc(timer->m_hFilterDriver, timer->m_pDriverContext, timer, timer->m_pTimerContext);
    });
    if (code != 0) {
        PrintException("Filter_TimerWorkRoutine", code);
    }
    ExFreePoolWithTag(callback, POOL_TAG_TIMER);
    EndCallback(timer);
    LeaveQueuedWork();
}

// Under the timer's lock. Without memory the tick is lost.
VOID QueueCallback(FilterTimer* timer)
{
    TimerCallback* const callback = static_cast<TimerCallback*>(
        ExAllocatePoolWithTag(NonPagedPool, sizeof(TimerCallback), POOL_TAG_TIMER));
    if (callback == nullptr) {
        return;
    }
    callback->m_pTimer = timer;
    InterlockedIncrement(&timer->m_nPendingCallback);
    KeClearEvent(&timer->m_CallbackEvent);
    QueueWork(&callback->m_QueueItem, Filter_TimerWorkRoutine, callback);
}

VOID Filter_TimerProc(PVOID, PVOID pContext, PVOID, PVOID)
{
    FilterTimer* const timer = static_cast<FilterTimer*>(pContext);
    if (timer == nullptr) {
        DbgPrint("Filter_TimerProc: pTimerObj is NULL\n");
        return;
    }
    SpinLock lock(timer->m_Lock);
    if (timer->m_bStopped) {
        return;
    }
    if (timer->m_bRepeatTimer && timer->m_bRunning) { // a stop may have come between the expiry and this call
        NdisSetTimer(&timer->m_Timer, timer->m_MsToDelay);
    }
    QueueCallback(timer);
}

// Afterwards the timer is not set and no more callback is queued; a deferred call may yet find out. Answers how many
// callbacks are pending.
LONG StopForGood(FilterTimer& timer)
{
    SpinLock lock(timer.m_Lock);
    StoreRelaxed(timer.m_bStopped, TRUE);
    BOOLEAN cancelled;
    NdisCancelTimer(&timer.m_Timer, &cancelled);
    return timer.m_nPendingCallback;
}

// A chain of timers that are unlinked and stopped for good.
VOID FreeStoppedTimers(FilterTimer* timer)
{
    KeFlushQueuedDpcs(); // no deferred call has one of them any more
    while (timer != nullptr) {
        FilterTimer* const next = timer->m_pNextStopped;
        ReleaseTimer(timer);
        timer = next;
    }
}

VOID FreeStoppedTimersRoutine(PVOID pParameter)
{
    FreeStoppedTimers(static_cast<FilterTimer*>(pParameter));
    LeaveQueuedWork();
}

// For callers above PASSIVE_LEVEL, where deferred calls cannot be flushed.
VOID QueueFree(FilterTimer& first)
{
    QueueWork(&first.m_FreeItem, FreeStoppedTimersRoutine, &first);
}

// Lists a new timer and hands it out. `code` is that of an exception that the caller's memory raised.
FILTER_STATUS ListTimer(FilterTimer& timer, FilterTimer** phTimer, NTSTATUS& code)
{
    WriteLock lock(Global().m_FilterTimerLock);
    // A driver that departs unlinks itself before its timers: what is listed here with its owner goes with it.
    ReadLock driverLock(Global().m_FilterDriverLock);
    if (!Global().m_FilterDriverList.Contains(timer.m_hFilterDriver)) {
        return FILTER_ERROR_INVALID_DRIVER_HANDLE;
    }
    timer.m_pDriverContext = timer.m_hFilterDriver->m_pDriverContext;
    timer.m_bStopped = Global().m_bTimersStopped; // made by a callback that the unload waits for: it never fires
    code = Guarded([&] { *phTimer = &timer; });
    if (code != 0) {
        return FILTER_ERROR_EXCEPTION;
    }
    Global().m_FilterTimerList.Append(timer);
    return FILTER_STATUS_SUCCESS;
}

// A stopped timer is not set any more, and its record not touched: that of a stale handle may be freed, with the tag
// still in it.
BOOLEAN IsStoppedForGood(const FilterTimer* timer)
{
    return LoadRelaxed(timer->m_bStopped) != FALSE;
}

} // namespace

VOID RetireTimers(const FilterDriver* owner)
{
    FilterTimer* stopped = nullptr;
    {
        WriteLock lock(Global().m_FilterTimerLock);
        for (FilterTimer& timer : Global().m_FilterTimerList) {
            if (timer.m_hFilterDriver == owner) {
                RecordList<FilterTimer>::Unlink(timer);
                StopForGood(timer);
                timer.m_pNextStopped = stopped;
                stopped = &timer;
            }
        }
    }
    if (stopped != nullptr) {
        QueueFree(*stopped);
    }
}

VOID StopTimers()
{
    {
        WriteLock lock(Global().m_FilterTimerLock);
        Global().m_bTimersStopped = TRUE;
        for (FilterTimer& timer : Global().m_FilterTimerList) {
            StopForGood(timer);
        }
    }
    KeFlushQueuedDpcs();
}

FILTER_STATUS Filter_InitializeTimer(FilterDriver* hFilterDriver, FILTER_TIMER_PROC pfTimerProc,
                                     PVOID pTimerContext, BOOLEAN bRepeatTimer, FilterTimer** phTimer)
{
    constexpr CallTrace trace{"Filter_InitializeTimer", TRACE_SERVICE};
    return TracedCall(trace, [&]() -> FILTER_STATUS {
        if (hFilterDriver == nullptr || pfTimerProc == nullptr || phTimer == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (!Filter_IsValidDriver(hFilterDriver)) {
            return FILTER_ERROR_INVALID_DRIVER_HANDLE;
        }
        FilterTimer* const timer = static_cast<FilterTimer*>(AllocateZeroed(sizeof(FilterTimer), POOL_TAG_TIMER));
        if (timer == nullptr) {
            return FILTER_STATUS_SUCCESS;
        }
        timer->m_Tag = FILTER_TIMER_TAG;
        timer->m_hFilterDriver = hFilterDriver;
        timer->m_pfTimerProc = pfTimerProc;
        timer->m_pTimerContext = pTimerContext;
        timer->m_bRepeatTimer = bRepeatTimer;
        KeInitializeEvent(&timer->m_CallbackEvent, NotificationEvent, FALSE);
        KeInitializeSpinLock(&timer->m_Lock);
        NdisInitializeTimer(&timer->m_Timer, Filter_TimerProc, timer);
        NTSTATUS code = 0;
        const FILTER_STATUS status = ListTimer(*timer, phTimer, code);
        if (status != FILTER_STATUS_SUCCESS) {
            Filter_FreeMemory(timer);
        }
        return code == 0 ? status : ExceptionStatus(trace.Name, code);
    });
}

BOOLEAN Filter_IsValidTimer(FilterTimer* hTimer)
{
    return CheckRecord("Filter_IsValidTimer", hTimer, FILTER_TIMER_TAG);
}

FILTER_STATUS Filter_StartTimer(FilterTimer* hTimer, ULONG nMilliseconds)
{
    return TracedCall({"Filter_StartTimer", TRACE_SERVICE}, [&]() -> FILTER_STATUS {
        if (hTimer == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (!Filter_IsValidTimer(hTimer)) {
            return FILTER_ERROR_INVALID_TIMER_HANDLE;
        }
        if (IsStoppedForGood(hTimer)) {
            return FILTER_STATUS_SUCCESS;
        }
        SpinLock lock(hTimer->m_Lock);
        StoreRelaxed(hTimer->m_MsToDelay, nMilliseconds);
        if (!hTimer->m_bStopped) {
            hTimer->m_bRunning = TRUE;
            NdisSetTimer(&hTimer->m_Timer, nMilliseconds);
        }
        return FILTER_STATUS_SUCCESS;
    });
}

FILTER_STATUS Filter_StopTimer(FilterTimer* hTimer)
{
    return TracedCall({"Filter_StopTimer", TRACE_SERVICE}, [&]() -> FILTER_STATUS {
        if (hTimer == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (!Filter_IsValidTimer(hTimer)) {
            return FILTER_ERROR_INVALID_TIMER_HANDLE;
        }
        if (IsStoppedForGood(hTimer)) {
            return FILTER_STATUS_SUCCESS;
        }
        SpinLock lock(hTimer->m_Lock);
        hTimer->m_bRunning = FALSE;
        BOOLEAN cancelled;
        NdisCancelTimer(&hTimer->m_Timer, &cancelled);
        return FILTER_STATUS_SUCCESS;
    });
}

FILTER_STATUS Filter_FreeTimer(FilterDriver* hFilterDriver, FilterTimer* hTimer)
{
    constexpr CallTrace trace{
        .Name = "Filter_FreeTimer", .Area = TRACE_SERVICE, .Success = SuccessTrace::ErrorAndLeave};
    return TracedCall(trace, [&]() -> FILTER_STATUS {
        if (hFilterDriver == nullptr || hTimer == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (!Filter_IsValidDriver(hFilterDriver)) {
            return FILTER_ERROR_INVALID_DRIVER_HANDLE;
        }
        if (!Filter_IsValidTimer(hTimer)) {
            return FILTER_ERROR_INVALID_TIMER_HANDLE;
        }
        const FILTER_STATUS status = UnlinkOwned<WriteLock>(
            Global().m_FilterTimerLock, Global().m_FilterTimerList, hTimer, hFilterDriver,
            FILTER_ERROR_TIMER_HANDLER_NOT_FOUND, FILTER_ERROR_INVALID_TIMER_HANDLER_OWNER);
        if (status != FILTER_STATUS_SUCCESS) {
            return status;
        }
        const LONG pending = StopForGood(*hTimer);
        if (pending > 0) {
            DbgPrint("Filter_FreeTimer: wait %d pending timer callback to completed\n", pending);
            KeWaitForSingleObject(&hTimer->m_CallbackEvent, Executive, KernelMode, FALSE, nullptr);
            DbgPrint("Filter_FreeTimer: pending timer callback has completed\n");
        }
        if (KeGetCurrentIrql() == PASSIVE_LEVEL) {
            FreeStoppedTimers(hTimer);
        } else {
            QueueFree(*hTimer);
        }
        return FILTER_STATUS_SUCCESS;
    });
}
