// Properties and settings of adapters: addresses, names, switches and media state.
#include "ndisfilter-handle.h"

namespace
{

constexpr SIZE_T MacAddressSize = 6;

// Runs `access` when both pointers are given and the handle is valid. A function without data passes its handle twice.
template <class Access>
FILTER_STATUS WithAdapter(const CallTrace& trace, FilterAdapter* hAdapter, const VOID* data,
                          const Access& access)
{
    return TracedCall(trace, [&]() -> FILTER_STATUS {
        if (hAdapter == nullptr || data == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        return Filter_IsValidAdapter(hAdapter) ? access() : FILTER_ERROR_INVALID_ADAPTER_HANDLE;
    });
}

template <class Value>
FILTER_STATUS GetValue(const CallTrace& trace, FilterAdapter* hAdapter, Value FilterAdapter::*field,
                       Value* output)
{
    return WithAdapter(trace, hAdapter, output, [&]() -> FILTER_STATUS {
        *output = LoadRelaxed(hAdapter->*field);
        return FILTER_STATUS_SUCCESS;
    });
}

using MacAddressField = UCHAR (FilterAdapter::*)[MacAddressSize];

FILTER_STATUS GetMacAddress(PCSTR name, FilterAdapter* hAdapter, MacAddressField field, UCHAR* output)
{
    return WithAdapter({name, TRACE_ADAPTER}, hAdapter, output, [&]() -> FILTER_STATUS {
        CopyRelaxed(output, hAdapter->*field, MacAddressSize);
        return FILTER_STATUS_SUCCESS;
    });
}

FILTER_STATUS GetPppMacAddress(PCSTR name, FilterAdapter* hAdapter, MacAddressField field, UCHAR* output)
{
    return WithAdapter({name, TRACE_ADAPTER}, hAdapter, output, [&]() -> FILTER_STATUS {
        constexpr UCHAR notSet[MacAddressSize] = {};
        UCHAR address[MacAddressSize];
        CopyRelaxed(address, hAdapter->*field, MacAddressSize);
        RtlCopyMemory(output, address, MacAddressSize);
        return RtlEqualMemory(address, notSet, MacAddressSize) ? FILTER_ERROR_ADAPTER_NOT_OPEN
                                                               : FILTER_STATUS_SUCCESS;
    });
}

FILTER_STATUS SetPppMacAddress(PCSTR name, PCSTR fieldName, FilterAdapter* hAdapter, MacAddressField field,
                               const UCHAR* input)
{
    return WithAdapter({name, TRACE_ADAPTER}, hAdapter, input, [&]() -> FILTER_STATUS {
        UCHAR address[MacAddressSize];
        RtlCopyMemory(address, input, MacAddressSize);
        StoreBytesRelaxed(hAdapter->*field, address, MacAddressSize);
        DbgPrint("Set %s = %2.2x-%2.2x-%2.2x-%2.2x-%2.2x-%2.2x\n", fieldName, address[0], address[1],
                 address[2], address[3], address[4], address[5]);
        return FILTER_STATUS_SUCCESS;
    });
}

// Runs `access` with the adapter of the table that has the MAC address. A function without data passes its address twice.
template <class Access>
FILTER_STATUS WithAdapterOfMac(PCSTR name, const UCHAR* pMacAddress, const VOID* data, const Access& access)
{
    return TracedCall({name, TRACE_ADAPTER}, [&]() -> FILTER_STATUS {
        if (pMacAddress == nullptr || data == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        FilterAdapter* hAdapter = nullptr;
        const FILTER_STATUS status = Filter_FindAdapterByMacAddress(pMacAddress, &hAdapter);
        if (status == FILTER_STATUS_SUCCESS) {
            access(*hAdapter);
        }
        return status;
    });
}

VOID PrintMtuLeave(FILTER_STATUS status, PVOID mtu)
{
    switch (status) {
    case FILTER_STATUS_SUCCESS:
        DbgPrint("Leave Filter_GetAdapterMtu, %d\n", *static_cast<USHORT*>(mtu));
        break;
    case FILTER_ERROR_INVALID_ADAPTER_HANDLE:
        DbgPrint("Leave Filter_GetAdapterMtu, Invalid adapter\n");
        break;
    case FILTER_ERROR_INVALID_ARGUMENT:
        DbgPrint("Leave Filter_GetAdapterMtu, Invalid argument\n");
        break;
    default:
        DbgPrint("Leave Filter_GetAdapterMtu, %d-%s\n", status, Filter_StatusString(status));
        break;
    }
}

// Of the hook driver's functions for the media state.
FILTER_STATUS FromNdisStatus(NTSTATUS status)
{
    switch (status) {
    case static_cast<NTSTATUS>(NDIS_STATUS_ADAPTER_NOT_FOUND):
        return FILTER_ERROR_ADAPTER_NOT_FOUND;
    case STATUS_INSUFFICIENT_RESOURCES:
        return FILTER_ERROR_OUT_OF_MEMORY;
    default:
        return FILTER_STATUS_SUCCESS;
    }
}

} // namespace

FILTER_STATUS Filter_GetAdapterCurrentAddress(FilterAdapter* hAdapter, UCHAR* pMacAddress)
{
    return GetMacAddress("Filter_GetAdapterCurrentAddress", hAdapter, &FilterAdapter::m_CurrentAddress,
                         pMacAddress);
}

FILTER_STATUS Filter_GetAdapterPermentAddress(FilterAdapter* hAdapter, UCHAR* pMacAddress)
{
    return GetMacAddress("Filter_GetAdapterPermentAddress", hAdapter, &FilterAdapter::m_PermanentAddress,
                         pMacAddress);
}

FILTER_STATUS Filter_GetAdapterMediaState(FilterAdapter* hAdapter, PULONG pnMediaState)
{
    constexpr CallTrace trace{.Name = "Filter_GetAdapterMediaState",
                              .Area = TRACE_ADAPTER,
                              .Enter = "Enter Filter_GetAdapterState\n"};
    return GetValue(trace, hAdapter, &FilterAdapter::m_nAdapterMediaState, pnMediaState);
}

FILTER_STATUS Filter_GetAdapterMediumType(FilterAdapter* hAdapter, PULONG pnMedium)
{
    return GetValue({"Filter_GetAdapterMediumType", TRACE_ADAPTER}, hAdapter,
                    &FilterAdapter::m_nAdapterMedium, pnMedium);
}

FILTER_STATUS Filter_IsNdisWanAdapter(FilterAdapter* hAdapter, PBOOLEAN pbNdisWan)
{
    return GetValue({"Filter_IsNdisWanAdapter", TRACE_ADAPTER}, hAdapter, &FilterAdapter::m_bNdisWanAdapter,
                    pbNdisWan);
}

// Checks the handle first.
FILTER_STATUS Filter_GetAdapterMtu(FilterAdapter* hAdapter, PUSHORT pusMtu)
{
    USHORT mtu = 0;
    const CallTrace trace{.Name = "Filter_GetAdapterMtu",
                          .Area = TRACE_ADAPTER,
                          .Subject = &mtu,
                          .Leave = PrintMtuLeave};
    return TracedCall(trace, [&]() -> FILTER_STATUS {
        if (!Filter_IsValidAdapter(hAdapter)) {
            return FILTER_ERROR_INVALID_ADAPTER_HANDLE;
        }
        if (pusMtu == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        mtu = LoadRelaxed(hAdapter->m_usMTU);
        *pusMtu = mtu;
        return FILTER_STATUS_SUCCESS;
    });
}

FILTER_STATUS Filter_GetAdapterName(FilterAdapter* hAdapter, UNICODE_STRING** ppName)
{
    constexpr CallTrace trace{"Filter_GetAdapterName", TRACE_ADAPTER};
    return WithAdapter(trace, hAdapter, ppName, [&]() -> FILTER_STATUS {
        return CopyNameOut(trace.Name, hAdapter->m_AdapterName, POOL_TAG_ADAPTER, ppName);
    });
}

FILTER_STATUS Filter_GetAdapterPPPSrcMacAddress(FilterAdapter* hAdapter, UCHAR* pMacAddress)
{
    return GetPppMacAddress("Filter_GetAdapterPPPSrcMacAddress", hAdapter, &FilterAdapter::m_PPPSrcMacAddress,
                            pMacAddress);
}

FILTER_STATUS Filter_GetAdapterPPPDstMacAddress(FilterAdapter* hAdapter, UCHAR* pMacAddress)
{
    return GetPppMacAddress("Filter_GetAdapterPPPDstMacAddress", hAdapter, &FilterAdapter::m_PPPDstMacAddress,
                            pMacAddress);
}

FILTER_STATUS Filter_SetAdapterPPPSrcMacAddress(FilterAdapter* hAdapter, const UCHAR* pMacAddress)
{
    return SetPppMacAddress("Filter_SetAdapterPPPSrcMacAddress", "PPPSrcMacAddress", hAdapter,
                            &FilterAdapter::m_PPPSrcMacAddress, pMacAddress);
}

FILTER_STATUS Filter_SetAdapterPPPDstMacAddress(FilterAdapter* hAdapter, const UCHAR* pMacAddress)
{
    return SetPppMacAddress("Filter_SetAdapterPPPDstMacAddress", "PPPDstMacAddress", hAdapter,
                            &FilterAdapter::m_PPPDstMacAddress, pMacAddress);
}

FILTER_STATUS Filter_SetAdapterCongestionControl(FilterAdapter* hAdapter, BOOLEAN bEnable)
{
    return WithAdapter({"Filter_SetAdapterCongestionControl", TRACE_ADAPTER}, hAdapter, hAdapter,
                       [&]() -> FILTER_STATUS {
                           StoreRelaxed(hAdapter->m_bCongestionControl, bEnable);
                           return FILTER_STATUS_SUCCESS;
                       });
}

FILTER_STATUS Filter_GetAdapterPacketDump(const UCHAR* pMacAddress, PBOOLEAN pbEnabled)
{
    return WithAdapterOfMac("Filter_GetAdapterPacketDump", pMacAddress, pbEnabled,
                            [&](FilterAdapter& adapter) { *pbEnabled = LoadRelaxed(adapter.m_bPacketDump); });
}

FILTER_STATUS Filter_SetAdapterPacketDump(const UCHAR* pMacAddress, BOOLEAN bEnable)
{
    return WithAdapterOfMac("Filter_SetAdapterPacketDump", pMacAddress, pMacAddress,
                            [&](FilterAdapter& adapter) { StoreRelaxed(adapter.m_bPacketDump, bEnable); });
}

FILTER_STATUS Filter_GetTcpIpBoundAdapters(AdapterList* pAdapterList)
{
    return TracedCall({"Filter_GetTcpIpBoundAdapters", TRACE_ADAPTER}, [&]() -> FILTER_STATUS {
        if (pAdapterList == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        const auto getBoundAdapters = BoundHookFunction(&NdisHookAPI::Hook_GetTcpIpBoundAdapters);
        if (getBoundAdapters == nullptr) {
            return FILTER_ERROR_INTERFACE_NOT_ACTIVE;
        }
        getBoundAdapters(pAdapterList);
        return FILTER_STATUS_SUCCESS;
    });
}

FILTER_STATUS Filter_GetAdapterMediaStateByMac(const UCHAR* pMacAddress, PVOID pState)
{
    constexpr CallTrace trace{.Name = "Filter_GetAdapterMediaStateByMac",
                              .Area = TRACE_ADAPTER,
                              .ExceptionName = "Hook_GetAdapterStatus"};
    return TracedCall(trace, [&]() -> FILTER_STATUS {
        if (pMacAddress == nullptr || pState == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        const auto getStatus = BoundHookFunction(&NdisHookAPI::Hook_GetAdapterStatus);
        if (getStatus == nullptr) {
            return FILTER_ERROR_INTERFACE_NOT_ACTIVE;
        }
        return FromNdisStatus(getStatus(pMacAddress, pState));
    });
}

FILTER_STATUS Filter_SetAdapterMediaStateByMac(const UCHAR* pMacAddress, UCHAR nState)
{
    constexpr CallTrace trace{.Name = "Filter_SetAdapterMediaStateByMac",
                              .Area = TRACE_ADAPTER,
                              .ExceptionName = "Hook_SetAdapterStatus"};
    return TracedCall(trace, [&]() -> FILTER_STATUS {
        if (pMacAddress == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        const auto setStatus = BoundHookFunction(&NdisHookAPI::Hook_SetAdapterStatus);
        if (setStatus == nullptr) {
            return FILTER_ERROR_INTERFACE_NOT_ACTIVE;
        }
        return FromNdisStatus(setStatus(pMacAddress, nState));
    });
}
