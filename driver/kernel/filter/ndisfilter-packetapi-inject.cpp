// The injection and indication operations, and the two queues with their workers.
#include "ndisfilter-packetapi-deliver.h"

namespace
{

constexpr UINT QUEUE_POLL_MS = 10; // bounds how late a worker notices the stop flag
constexpr ULONG METHOD_MASK = 0x0FFFFFFF;
constexpr ULONG SIGNAL_SIZE_OFFSET = 12; // where a block has its packet size

// The tests that all injections share, then the operation itself. `target` is the adapter or filter given.
template <class Operation>
FILTER_STATUS Inject(PCSTR name, PVOID target, FilterPacket* packet, const Operation& operation)
{
    return TracedCall({.Name = name, .Area = TRACE_PACKET}, [&]() -> FILTER_STATUS {
        if (packet == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        if (target == nullptr) {
            Filter_ReleasePacket(packet);
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        operation();
        return FILTER_STATUS_SUCCESS;
    });
}

// The queue of a packet: the parity of the sum of its two IPv4 addresses, each taken as a little-endian word, so that
// both directions of a pair of hosts share a queue. Only the first octets decide it.
ULONG ChooseQueue(const FilterPacket& packet)
{
    const UCHAR* const ip = packet.m_pIp;
    return ip == nullptr ? 0 : (ip[IP_SOURCE_OFFSET] + ip[IP_DESTINATION_OFFSET]) & 1u;
}

VOID QueuePacket(FilterPacket* packet, ULONG origin, PacketFilter* filter)
{
    NdisFilterDeviceExtension& global = Global();
    packet->m_InjectOrigin = origin;
    packet->m_hInjectFilter = filter;
    InitializeListHead(&packet->m_InjectLink); // touched before the lock: a bad packet faults here
    const ULONG queue = ChooseQueue(*packet);
    {
        const WriteLock lock(global.m_InjectedPacketLock[queue]);
        global.m_InjectedPacketList[queue].Append(*packet);
        InterlockedIncrement(&global.m_nInjectPacketCount);
    }
    NdisSetEvent(&global.m_InjectPacketEvent[queue]);
}

VOID QueueForAdapter(FilterPacket* packet, FilterAdapter* adapter, ULONG direction, ULONG origin)
{
    packet->m_hAdapter = adapter;
    packet->m_nDirection = direction;
    QueuePacket(packet, origin, nullptr);
}

// Moves what is queued to the worker's own list, so that the worker and the producers meet once for many packets.
VOID TakeQueuedPackets(ULONG queue, RecordList<FilterPacket>& taken)
{
    NdisFilterDeviceExtension& global = Global();
    const WriteLock lock(global.m_InjectedPacketLock[queue]);
    taken.AppendAll(global.m_InjectedPacketList[queue]);
}

// A packet that was deferred on its way in from the hook driver.
VOID ProcessHookPacket(FilterPacket* packet)
{
    switch (packet->m_nDirection) {
    case NDIS_FILTER_DIRECTION_TO_PROTOCOL:
        NdisFilter_FilterReceivedPacket(packet);
        break;
    case NDIS_FILTER_DIRECTION_TO_ADAPTER:
        NdisFilter_FilterSendPacket(packet);
        break;
    default:
        Filter_ReleasePacket(packet);
        break;
    }
}

VOID ProcessApplicationPacket(FilterPacket* packet)
{
    Filter_InitPacketHeader(packet, nullptr);
    DumpWhenEnabled(">> Injected Packet", packet);
    RecordAdapterFrame(&FilterAdapter::m_pInjectEthrLog, packet);
    switch (packet->m_nDirection) {
    case NDIS_FILTER_DIRECTION_TO_ADAPTER:
        Filter_InvokeFilters(FILTER_TYPE_INJECT_TO_ADAPTER, packet);
        break;
    case NDIS_FILTER_DIRECTION_TO_PROTOCOL:
        Filter_InvokeFilters(FILTER_TYPE_INJECT_TO_PROTOCOL, packet);
        break;
    case NDIS_FILTER_DIRECTION_TO_APPLICATION:
        NdisFilter_WriteShareMemory(packet);
        Filter_ReleasePacket(packet);
        break;
    default:
        Filter_ReleasePacket(packet);
        break;
    }
}

VOID ProcessQueuedPacket(FilterPacket* packet)
{
    const ULONG origin = static_cast<ULONG>(packet->m_InjectOrigin);
    switch (origin) {
    case FILTER_INJECT_FROM_HOOK:
        ProcessHookPacket(packet);
        break;
    case FILTER_INJECT_FROM_APPLICATION:
        ProcessApplicationPacket(packet);
        break;
    default:
        InvokeQueuedFilter(origin & METHOD_MASK, packet->m_hInjectFilter, packet);
        break;
    }
}

// Processes what is queued, in order. Packets that wait for their turn count as queued.
VOID DrainQueue(ULONG queue)
{
    RecordList<FilterPacket> taken;
    taken.Initialize();
    for (TakeQueuedPackets(queue, taken); !taken.IsEmpty(); TakeQueuedPackets(queue, taken)) {
        while (FilterPacket* const packet = taken.TakeFirst()) {
            InterlockedDecrement(&Global().m_nInjectPacketCount);
            ProcessQueuedPacket(packet);
        }
    }
}

// A producer appends before it sets the event, so an event reset here while the list is empty loses no packet.
VOID ResetEventOfEmptyQueue(ULONG queue)
{
    NdisFilterDeviceExtension& global = Global();
    const ReadLock lock(global.m_InjectedPacketLock[queue]);
    if (global.m_InjectedPacketList[queue].IsEmpty()) {
        NdisResetEvent(&global.m_InjectPacketEvent[queue]);
    }
}

} // namespace

FILTER_STATUS Filter_InjectPacketToAdapterEx(FilterAdapter* hAdapter, FilterPacket* pPacket)
{
    return TracedCall(TO_ADAPTER.Trace, [&] { return DeliverToHook<TO_ADAPTER>(hAdapter, pPacket); });
}

FILTER_STATUS Filter_IndicatePacketToProtocolEx(FilterAdapter* hAdapter, FilterPacket* pPacket)
{
    return TracedCall(TO_PROTOCOL.Trace, [&] { return DeliverToHook<TO_PROTOCOL>(hAdapter, pPacket); });
}

FILTER_STATUS Filter_InjectPacketToAdapter(FilterAdapter* hAdapter, FilterPacket* pPacket)
{
    return Inject("Filter_InjectPacketToAdapter", hAdapter, pPacket, [&] {
        pPacket->m_hAdapter = hAdapter;
        pPacket->m_nDirection = NDIS_FILTER_DIRECTION_TO_ADAPTER;
        Filter_InvokeFilters(FILTER_TYPE_INJECT_TO_ADAPTER, pPacket);
    });
}

FILTER_STATUS Filter_IndicatePacketToProtocol(FilterAdapter* hAdapter, FilterPacket* pPacket)
{
    return Inject("Filter_IndicatePacketToProtocol", hAdapter, pPacket, [&] {
        pPacket->m_hAdapter = hAdapter;
        pPacket->m_nDirection = NDIS_FILTER_DIRECTION_TO_PROTOCOL;
        Filter_InvokeFilters(FILTER_TYPE_INJECT_TO_PROTOCOL, pPacket);
    });
}

FILTER_STATUS Filter_IndicatePacketFromAdapter(FilterAdapter* hAdapter, FilterPacket* pPacket)
{
    return Inject("Filter_IndicatePacketFromAdapter", hAdapter, pPacket, [&] {
        QueueForAdapter(pPacket, hAdapter, NDIS_FILTER_DIRECTION_TO_PROTOCOL, FILTER_INJECT_FROM_HOOK);
    });
}

FILTER_STATUS Filter_InjectPacketFromProtocol(FilterAdapter* hAdapter, FilterPacket* pPacket)
{
    return Inject("Filter_InjectPacketFromProtocol", hAdapter, pPacket, [&] {
        QueueForAdapter(pPacket, hAdapter, NDIS_FILTER_DIRECTION_TO_ADAPTER, FILTER_INJECT_FROM_HOOK);
    });
}

FILTER_STATUS Filter_InjectPacketFromApplication(FilterAdapter* hAdapter, FilterPacket* pPacket, ULONG nDirection)
{
    return Inject("Filter_InjectPacketFromApplication", hAdapter, pPacket,
                  [&] { QueueForAdapter(pPacket, hAdapter, nDirection, FILTER_INJECT_FROM_APPLICATION); });
}

FILTER_STATUS Filter_InjectPacketFromFilter(FILTER_METHOD nMethod, PacketFilter* hPacketFilter, FilterPacket* pPacket)
{
    return Inject("Filter_InjectPacketFromFilter", hPacketFilter, pPacket,
                  [&] { QueuePacket(pPacket, nMethod | FILTER_INJECT_FROM_FILTER, hPacketFilter); });
}

FILTER_STATUS Filter_IndicatePacketToApplication(FilterPacket* pPacket, ULONG nCode, ULONGLONG nValue)
{
    return TracedCall({.Name = "Filter_IndicatePacketToApplication", .Area = TRACE_PACKET}, [&]() -> FILTER_STATUS {
        if (pPacket == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        pPacket->m_nIndicateCode = nCode;
        pPacket->m_nIndicateValue = nValue;
        DumpWhenEnabled("<< Indicate to Application", pPacket);
        NdisFilter_WriteShareMemory(pPacket);
        return FILTER_STATUS_SUCCESS;
    });
}

FILTER_STATUS Filter_IndicateSignalToApplication(PVOID pSignal)
{
    return TracedCall({.Name = "Filter_IndicateSignalToApplication", .Area = TRACE_PACKET}, [&]() -> FILTER_STATUS {
        if (pSignal == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        RtlZeroMemory(static_cast<PUCHAR>(pSignal) + SIGNAL_SIZE_OFFSET, sizeof(ULONG));
        return NdisFilter_WriteSignalPacket(pSignal) ? FILTER_STATUS_SUCCESS : FILTER_ERROR_OUT_OF_MEMORY;
    });
}

ULONG Filter_GetInjectPacketCount(VOID)
{
    return static_cast<ULONG>(InterlockedCompareExchange(&Global().m_nInjectPacketCount, 0, 0));
}

VOID Filter_SetPendingPacketLimit(ULONG nLimit)
{
    StoreRelaxed(g_nPendingPacketLimit, nLimit);
}

VOID InjectedPacketThread(PVOID pContext)
{
    NdisFilterDeviceExtension& global = Global();
    const ULONG queue = static_cast<ULONG>(reinterpret_cast<ULONG_PTR>(pContext));

    Trace(TRACE_PACKET, "Enter InjectedPacketThread\n");
    EnterWorkerThread();
    while (!LoadRelaxed(global.m_bStopShare)) {
        NdisWaitEvent(&global.m_InjectPacketEvent[queue], QUEUE_POLL_MS);
        DrainQueue(queue);
        ResetEventOfEmptyQueue(queue);
    }
    Trace(TRACE_PACKET, "Leave InjectedPacketThread\n");
    LeaveWorkerThread();
}
