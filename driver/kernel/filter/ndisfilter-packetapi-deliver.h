// The final delivery of a packet to the hook driver, which the exported operations and the chains share.
#pragma once

#include "ndisfilter-packetapi.h"

// One of the two final deliveries.
struct Delivery {
    CallTrace Trace;
    HOOK_INJECT_PACKET NdisHookAPI::*Function;
    PCSTR Title; // of the dump
    PVOID FilterAdapter::*Log;
};

inline constexpr Delivery TO_ADAPTER = {{.Name = "Filter_InjectPacketToAdapterEx", .Area = TRACE_PACKET},
                                        &NdisHookAPI::Hook_InjectPacketToAdapter,
                                        "VV Inject To Adapter",
                                        &FilterAdapter::m_pLowerEthrLog};
// Its exception line carries another name than its trace lines.
inline constexpr Delivery TO_PROTOCOL = {{.Name = "Filter_IndicatePacketToProtocolEx",
                                          .Area = TRACE_PACKET,
                                          .ExceptionName = "Filter_InjectPacketToProtocolEx"},
                                         &NdisHookAPI::Hook_InjectPacketToProtocol,
                                         "AA Indicate To Protocol",
                                         &FilterAdapter::m_pUpperEthrLog};

// For a caller that has a guard and prints the trace lines.
template <const Delivery& DELIVERY>
__attribute__((always_inline)) inline FILTER_STATUS DeliverToHook(FilterAdapter* adapter,
                                                                  FilterPacket* packet)
{
    if (packet == nullptr) {
        return FILTER_ERROR_INVALID_ARGUMENT;
    }
    if (adapter == nullptr) {
        Filter_ReleasePacket(packet);
        return FILTER_ERROR_INVALID_ARGUMENT;
    }
    const HOOK_INJECT_PACKET inject = BoundHookFunction(DELIVERY.Function);
    if (inject == nullptr) {
        Filter_ReleasePacket(packet);
        return FILTER_ERROR_INTERFACE_NOT_ACTIVE;
    }
    packet->m_hAdapter = adapter;
    DumpWhenEnabled(DELIVERY.Title, packet);
    RecordFrame(adapter->*DELIVERY.Log, packet);
    // From here on the packet is the hook driver's, whatever it answers.
    return inject(adapter, packet) == 0 ? FILTER_STATUS_SUCCESS : FILTER_ERROR_INTERNAL_ERROR;
}

// Of what a chain of this type lets pass.
inline BOOLEAN LeadsToProtocol(FILTER_TYPE type)
{
    return type == FILTER_TYPE_INCOMING_PACKET || type == FILTER_TYPE_INJECT_TO_PROTOCOL;
}
