// Context slots of adapters, each owned by one client driver, and client drivers' adapter event handlers.
#include "ndisfilter-handle.h"

namespace
{

BOOLEAN IsSlot(ULONG index)
{
    return index < FILTER_ADAPTER_CONTEXT_COUNT;
}

// Without the lock: a driver's own slot changes hands by its own calls only.
BOOLEAN OwnsSlot(const FilterDriver* driver, ULONG index)
{
    return LoadRelaxed(Global().m_pContextDriver[index]) == driver;
}

// The lowest slot that has this owner, nullptr for a free one. No slot: FILTER_ADAPTER_CONTEXT_COUNT.
ULONG FindSlot(const FilterDriver* owner)
{
    ULONG index = 0;
    while (IsSlot(index) && !OwnsSlot(owner, index)) {
        index++;
    }
    return index;
}

} // namespace

FILTER_STATUS Filter_AcquireAdapterContext(FilterDriver* hFilterDriver, PULONG pnIndex)
{
    constexpr CallTrace trace{"Filter_AcquireAdapterContext", TRACE_ADAPTER};
    return TracedCall(trace, [&]() -> FILTER_STATUS {
        if (hFilterDriver == nullptr || pnIndex == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (!Filter_IsValidDriver(hFilterDriver)) {
            return FILTER_ERROR_INVALID_DRIVER_HANDLE;
        }
        NTSTATUS code;
        {
            WriteLock lock(Global().m_pContextLock);
            ULONG index = FindSlot(hFilterDriver);
            const BOOLEAN known = IsSlot(index);
            if (!known) {
                index = FindSlot(nullptr);
            }
            if (!IsSlot(index)) {
                return FILTER_ERROR_NO_FREE_ADAPTER_CONTEXT;
            }
            code = Guarded([&] { *pnIndex = index; });
            if (code == 0 && !known) {
                StoreRelaxed(Global().m_pContextDriver[index], hFilterDriver);
            }
        }
        return code == 0 ? FILTER_STATUS_SUCCESS : ExceptionStatus(trace.Name, code);
    });
}

FILTER_STATUS Filter_SetAdapterContext(FilterDriver* hFilterDriver, FilterAdapter* hAdapter, ULONG nIndex,
                                       PVOID pContext)
{
    return TracedCall({"Filter_SetAdapterContext", TRACE_ADAPTER}, [&]() -> FILTER_STATUS {
        if (hFilterDriver == nullptr || hAdapter == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (!Filter_IsValidDriver(hFilterDriver)) {
            return FILTER_ERROR_INVALID_DRIVER_HANDLE;
        }
        if (!Filter_IsValidAdapter(hAdapter)) {
            return FILTER_ERROR_INVALID_ADAPTER_HANDLE;
        }
        if (!IsSlot(nIndex)) {
            return FILTER_ERROR_INVALID_ADAPTER_CONTEXT;
        }
        if (!OwnsSlot(hFilterDriver, nIndex)) {
            return FILTER_ERROR_INVALID_CONTEXT_OWNER;
        }
        // Released for Filter_GetAdapterContext: what the owner has written to the context is seen with it.
        StoreRelease(hAdapter->m_pAdapterContext[nIndex], reinterpret_cast<ULONG_PTR>(pContext));
        return FILTER_STATUS_SUCCESS;
    });
}

FILTER_STATUS Filter_GetAdapterContext(FilterAdapter* hAdapter, ULONG nIndex, PVOID* ppContext)
{
    return TracedCall({"Filter_GetAdapterContext", TRACE_ADAPTER}, [&]() -> FILTER_STATUS {
        if (hAdapter == nullptr || ppContext == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (!Filter_IsValidAdapter(hAdapter)) {
            return FILTER_ERROR_INVALID_ADAPTER_HANDLE;
        }
        if (!IsSlot(nIndex)) {
            return FILTER_ERROR_INVALID_ADAPTER_CONTEXT;
        }
        *ppContext = reinterpret_cast<PVOID>(LoadAcquire(hAdapter->m_pAdapterContext[nIndex]));
        return FILTER_STATUS_SUCCESS;
    });
}

FILTER_STATUS Filter_ReleaseAdapterContext(FilterDriver* hFilterDriver, ULONG nIndex)
{
    return TracedCall({"Filter_ReleaseAdapterContext", TRACE_ADAPTER}, [&]() -> FILTER_STATUS {
        if (hFilterDriver == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (!Filter_IsValidDriver(hFilterDriver)) {
            return FILTER_ERROR_INVALID_DRIVER_HANDLE;
        }
        if (!IsSlot(nIndex)) {
            return FILTER_ERROR_INVALID_ADAPTER_CONTEXT;
        }
        if (!OwnsSlot(hFilterDriver, nIndex)) {
            return FILTER_ERROR_INVALID_CONTEXT_OWNER;
        }
        WriteLock lock(Global().m_pContextLock);
        if (OwnsSlot(hFilterDriver, nIndex)) { // else released twice at once, and maybe another's by now
            StoreRelaxed(Global().m_pContextDriver[nIndex], nullptr);
        }
        return FILTER_STATUS_SUCCESS;
    });
}

FILTER_STATUS Filter_RegisterEventHandler(FilterDriver* hFilterDriver, FILTER_EVENT_PROC pfEventProc,
                                          PVOID pEventContext, EventHandler** phEventHandler)
{
    constexpr CallTrace trace{"Filter_RegisterEventHandler", TRACE_ADAPTER};
    return TracedCall(trace, [&]() -> FILTER_STATUS {
        if (hFilterDriver == nullptr || pfEventProc == nullptr || phEventHandler == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (!Filter_IsValidDriver(hFilterDriver)) {
            return FILTER_ERROR_INVALID_DRIVER_HANDLE;
        }
        const PVOID driverContext = hFilterDriver->m_pDriverContext;
        const OwnedRegistration<EventHandler> registration{
            .FunctionName = trace.Name,
            .Owner = hFilterDriver,
            .Handle = phEventHandler,
            .List = Global().m_EventHandlerList,
            .KnownStatus = FILTER_ERROR_EVENT_HANDLER_ALREADY_REGISTERED,
            .RecordTag = EVENT_HANDLER_TAG,
            .PoolTag = POOL_TAG_ADAPTER,
        };
        return RegisterOwned<SpinLock>(Global().m_EventHandlerLock, registration, [&](EventHandler& handler) {
            handler.m_pDriverContext = driverContext;
            handler.m_pfEventProc = pfEventProc;
            handler.m_pEventContext = pEventContext;
        });
    });
}

BOOLEAN Filter_IsValidEventHandler(EventHandler* hEventHandler)
{
    return CheckRecord("Filter_IsValidEventHandler", hEventHandler, EVENT_HANDLER_TAG);
}

FILTER_STATUS Filter_DeregisterEventHandler(FilterDriver* hFilterDriver, EventHandler* hEventHandler)
{
    return TracedCall({"Filter_DeregisterEventHandler", TRACE_ADAPTER}, [&]() -> FILTER_STATUS {
        if (hFilterDriver == nullptr || hEventHandler == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (!Filter_IsValidDriver(hFilterDriver)) {
            return FILTER_ERROR_INVALID_DRIVER_HANDLE;
        }
        if (!Filter_IsValidEventHandler(hEventHandler)) {
            return FILTER_ERROR_INVALID_EVENT_HANDLER;
        }
        const FILTER_STATUS status = UnlinkOwned<SpinLock>(
            Global().m_EventHandlerLock, Global().m_EventHandlerList, hEventHandler, hFilterDriver,
            FILTER_ERROR_EVENT_HANDLER_NOT_FOUND, FILTER_ERROR_INVALID_EVENT_HANDLER_OWNER);
        if (status == FILTER_STATUS_SUCCESS) {
            Filter_FreeMemory(hEventHandler);
        }
        return status;
    });
}
