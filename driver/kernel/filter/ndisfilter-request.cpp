// NDIS requests of client drivers: records of the hook driver, tagged and checked on their way to it.
#include "ndisfilter-handle.h"

namespace
{

// What the framework knows of the hook driver's record. The handle is the address behind it.
struct NdisRequestHead {
    UCHAR m_HookReserved0[16];
    ULONG m_Tag; // 16  NDIS_REQUEST_TAG
    UCHAR m_HookReserved1[4];
};
static_assert(sizeof(NdisRequestHead) == 24 && offsetof(NdisRequestHead, m_Tag) == 16);

constexpr ULONG NDIS_REQUEST_TAG = 0x4E524551; // "QERN"
constexpr PCSTR CHECK_NAME = "Filter_IsValidNdisRequest";

// As a number: the handle may be anything.
PVOID RecordOf(PVOID hRequest)
{
    return reinterpret_cast<PVOID>(reinterpret_cast<ULONG_PTR>(hRequest) - sizeof(NdisRequestHead));
}

} // namespace

FILTER_STATUS Filter_AllocateNdisRequest(PVOID* phRequest)
{
    constexpr CallTrace trace{"Filter_AllocateNdisRequest", TRACE_ADAPTER};
    return TracedCall(trace, [&]() -> FILTER_STATUS {
        if (phRequest == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        const auto allocate = BoundHookFunction(&NdisHookAPI::Hook_AllocateRequest);
        if (allocate == nullptr) {
            return FILTER_ERROR_INTERFACE_NOT_ACTIVE;
        }
        NdisRequestHead* const record = static_cast<NdisRequestHead*>(allocate());
        if (record == nullptr) {
            return FILTER_ERROR_OUT_OF_MEMORY;
        }
        record->m_Tag = NDIS_REQUEST_TAG;
        const NTSTATUS code = Guarded([&] { *phRequest = record + 1; });
        if (code != 0) {
            const auto free = BoundHookFunction(&NdisHookAPI::Hook_FreeRequest);
            if (free != nullptr) {
                free(record);
            }
            return ExceptionStatus(trace.Name, code);
        }
        return FILTER_STATUS_SUCCESS;
    });
}

BOOLEAN Filter_IsValidNdisRequest(PVOID hRequest)
{
    if (hRequest == nullptr) {
        DbgPrint("%s: Invalid Handle 0x%p, NULL pointer\n", CHECK_NAME, hRequest);
        return FALSE;
    }
    return CheckHandle(CHECK_NAME, RecordOf(hRequest), offsetof(NdisRequestHead, m_Tag), NDIS_REQUEST_TAG);
}

FILTER_STATUS Filter_MakeNdisRequest(FilterAdapter* hAdapter, PVOID hRequest, PVOID pContext)
{
    return TracedCall({"Filter_MakeNdisRequest", TRACE_ADAPTER}, [&]() -> FILTER_STATUS {
        if (hAdapter == nullptr || hRequest == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (!Filter_IsValidAdapter(hAdapter)) {
            return FILTER_ERROR_INVALID_ADAPTER_HANDLE;
        }
        if (!Filter_IsValidNdisRequest(hRequest)) {
            return FILTER_ERROR_INVALID_NDIS_REQUEST;
        }
        const auto make = BoundHookFunction(&NdisHookAPI::Hook_MakeNdisRequest);
        if (make == nullptr) {
            return FILTER_ERROR_INTERFACE_NOT_ACTIVE;
        }
        make(hAdapter, RecordOf(hRequest), pContext);
        return FILTER_STATUS_SUCCESS;
    });
}

FILTER_STATUS Filter_FreeNdisRequest(PVOID hRequest)
{
    return TracedCall({"Filter_FreeNdisRequest", TRACE_ADAPTER}, [&]() -> FILTER_STATUS {
        if (hRequest == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (!Filter_IsValidNdisRequest(hRequest)) {
            return FILTER_ERROR_INVALID_NDIS_REQUEST;
        }
        const auto free = BoundHookFunction(&NdisHookAPI::Hook_FreeRequest);
        if (free == nullptr) {
            return FILTER_ERROR_INTERFACE_NOT_ACTIVE;
        }
        free(RecordOf(hRequest));
        return FILTER_STATUS_SUCCESS;
    });
}
