// The registry of client drivers' handlers of control requests, to which ndisfilter-main-requests turns.
#include "ndisfilter-handle.h"

FILTER_STATUS Filter_RegisterIoControl(FilterDriver* hFilterDriver, FILTER_IOCTRL_PROC pfIoCtrlProc,
                                       PVOID pIoCtrlContext, IoCtrlHandler** phIoCtrlHandler)
{
    constexpr CallTrace trace{"Filter_RegisterIoControl", TRACE_IOCTL};
    return TracedCall(trace, [&]() -> FILTER_STATUS {
        if (hFilterDriver == nullptr || pfIoCtrlProc == nullptr || phIoCtrlHandler == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (!Filter_IsValidDriver(hFilterDriver)) {
            return FILTER_ERROR_INVALID_DRIVER_HANDLE;
        }
        const OwnedRegistration<IoCtrlHandler> registration{
            .FunctionName = trace.Name,
            .Owner = hFilterDriver,
            .Handle = phIoCtrlHandler,
            .List = Global().m_IoCtrlHandlerList,
            .KnownStatus = FILTER_ERROR_IOCTL_HANDLER_ALREADY_REGISTERED,
            .RecordTag = IOCTRL_HANDLER_TAG,
            .PoolTag = POOL_TAG_IOCTRL,
        };
        return RegisterOwned<WriteLock>(Global().m_IoCtrlHandlerLock, registration,
                                        [&](IoCtrlHandler& handler) {
                                            handler.m_pfIoCtrlProc = pfIoCtrlProc;
                                            handler.m_pIoCtrlContext = pIoCtrlContext;
                                        });
    });
}

BOOLEAN Filter_IsValidIoCtrlHandler(IoCtrlHandler* hIoCtrlHandler)
{
    return CheckRecord("Filter_IsValidIoCtrlHandler", hIoCtrlHandler, IOCTRL_HANDLER_TAG);
}

FILTER_STATUS Filter_DeregisterIoControl(FilterDriver* hFilterDriver, IoCtrlHandler* hIoCtrlHandler)
{
    constexpr CallTrace trace{.Name = "Filter_DeregisterIoControl",
                              .Area = TRACE_IOCTL,
                              .Enter = "Enter Filter_DeregisterIoControlr\n",
                              .Success = SuccessTrace::ErrorAndLeave};
    return TracedCall(trace, [&]() -> FILTER_STATUS {
        if (hFilterDriver == nullptr || hIoCtrlHandler == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (!Filter_IsValidDriver(hFilterDriver)) {
            return FILTER_ERROR_INVALID_DRIVER_HANDLE;
        }
        if (!Filter_IsValidIoCtrlHandler(hIoCtrlHandler)) {
            return FILTER_ERROR_INVALID_IOCTL_HANDLER;
        }
        const FILTER_STATUS status = UnlinkOwned<WriteLock>(
            Global().m_IoCtrlHandlerLock, Global().m_IoCtrlHandlerList, hIoCtrlHandler, hFilterDriver,
            FILTER_ERROR_IOCTL_HANDLER_NOT_FOUND, FILTER_ERROR_INVALID_IOCTL_HANDLER_OWNER);
        if (status == FILTER_STATUS_SUCCESS) {
            Filter_FreeMemory(hIoCtrlHandler);
        }
        return status;
    });
}

NTSTATUS Filter_DefaultIoCtrlHandler(PVOID, PIRP, ULONG, PVOID, ULONG, PVOID, ULONG, ULONG_PTR*)
{
    return STATUS_NOT_SUPPORTED;
}
