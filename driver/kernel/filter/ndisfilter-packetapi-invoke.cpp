// Running a chain of packet filters over a packet, and what the verdicts make of it.
//
// The road of a received frame: hook driver -> NdisFilter_FilterReceivedPacket -> Filter_InvokeFilters -> the
// incoming chain -> Filter_IndicatePacketToProtocolEx -> hook driver. Sent frames take the mirror road.
#include "ndisfilter-packetapi.h"

namespace
{

// One walk over a chain whose lock the caller holds. The filters run inside one guard; when one faults, a new guard
// takes the walk up behind it, so that an exception costs only the filter that raised it.
class ChainWalk
{
  public:
    // `given` and `method` choose the part of the chain; START_FROM_FIRST runs all of it.
    ChainWalk(PCSTR name, FILTER_TYPE type, FilterPacket* packet, FILTER_METHOD method, const PacketFilter* given)
        : name_(name), type_(type), packet_(packet), method_(method), given_(given),
          next_(Global().m_PacketFilterList[type].begin()), end_(Global().m_PacketFilterList[type].end()),
          slot_(CounterSlot(KeGetCurrentProcessorNumber())),
          active_(method == FILTER_METHOD_START_FROM_FIRST_FILTER || method == FILTER_METHOD_START_UNTIL_THIS_FILTER ||
                  method == FILTER_METHOD_STOP_AT_THIS_FILTER)
    {
    }

    // The verdict that ended the walk; FILTER_RESULT_BYPASS when none did.
    FILTER_RESULT Run()
    {
        while (!ended_ && next_ != end_) {
            const NTSTATUS code = Guarded([&] { RunUntilVerdict(); });
            if (!ended_) {
                DbgPrint("  %s: exception, code = %d, pPacket=0x%p\n", name_, code, packet_);
            }
        }
        if (verdict_ != FILTER_RESULT_BYPASS) {
            SettleVerdict();
        }
        return verdict_;
    }

  private:
    static ULONG CounterSlot(ULONG processor)
    {
        return processor < FILTER_SHARED_SLOT ? processor : FILTER_SHARED_SLOT;
    }

    VOID Count(ULONG& counter) const
    {
        if (slot_ != FILTER_SHARED_SLOT) {
            StoreRelaxed(counter, LoadRelaxed(counter) + 1);
        } else {
            InterlockedIncrement(reinterpret_cast<LONG*>(&counter));
        }
    }

    // Runs filters until one gives a verdict other than bypass or the walk ends.
    VOID RunUntilVerdict()
    {
        while (PacketFilter* const filter = TakeNext()) {
            PacketFilterCounters& counters = filter->m_pCounters[slot_];
            Count(counters.m_PacketProcess);
            const FILTER_RESULT result = filter->m_pfFilterProc(filter->m_hFilterDriver, filter->m_pDriverContext,
                                                                filter, filter->m_pFilterContext, packet_);
            if (result == FILTER_RESULT_BYPASS) {
                TraceVerdict(result);
                Count(counters.m_PacketBypass);
            } else if (result <= FILTER_RESULT_CAPTURE) {
                verdict_ = result;
                judge_ = filter;
                break;
            }
        }
        ended_ = TRUE;
    }

    // The next filter to run, or nullptr at the end of the walk. The walk stands behind it before it runs.
    PacketFilter* TakeNext()
    {
        while (next_ != end_) {
            PacketFilter& filter = *next_;
            ++next_;
            const ULONG index = index_++;
            if (!Chosen(filter)) {
                continue;
            }
            if (TraceEnabled(TRACE_PACKET)) {
                DbgPrint("  %s: %s->Filter[%d] - %*.*s, pPacket=0x%p\n", name_, Filter_TypeString(type_), index,
                         filter.m_FilterName.Length, filter.m_FilterName.Length, filter.m_FilterName.Buffer, packet_);
            }
            return &filter;
        }
        return nullptr;
    }

    // Applies the method to the filter reached; may end the walk.
    BOOLEAN Chosen(const PacketFilter& filter)
    {
        const BOOLEAN isGiven = &filter == given_;
        if (!active_) {
            active_ = isGiven;
            return isGiven && method_ != FILTER_METHOD_START_AFTER_THIS_FILTER;
        }
        if (isGiven && method_ == FILTER_METHOD_STOP_AT_THIS_FILTER) {
            next_ = end_;
            return FALSE;
        }
        if (isGiven && method_ == FILTER_METHOD_START_UNTIL_THIS_FILTER) {
            next_ = end_;
        }
        return TRUE;
    }

    VOID SettleVerdict()
    {
        PacketFilterCounters& counters = judge_->m_pCounters[slot_];
        TraceVerdict(verdict_);
        switch (verdict_) {
        case FILTER_RESULT_DISCARD:
            DumpDiscarded();
            Count(counters.m_PacketDiscard);
            break;
        case FILTER_RESULT_CONSUME:
            Count(counters.m_PacketConsume); // the packet is the filter's by now: it is not touched
            break;
        default:
            Count(counters.m_PacketCapture);
            break;
        }
    }

    // Guarded: the chain is locked, and a fault must come back through its release.
    VOID DumpDiscarded()
    {
        const NTSTATUS code = Guarded([&] { DumpWhenEnabled("DD Filter Discard", packet_); });
        if (code != 0) {
            DbgPrint("  %s: exception, code = %d, pPacket=0x%p\n", name_, code, packet_);
        }
    }

    VOID TraceVerdict(FILTER_RESULT result) const
    {
        if (TraceEnabled(TRACE_PACKET)) {
            DbgPrint("  %s: %s, pPacket=0x%p\n", name_, Filter_ResultString(result), packet_);
        }
    }

    const PCSTR name_;
    const FILTER_TYPE type_;
    FilterPacket* const packet_;
    const FILTER_METHOD method_;
    const PacketFilter* const given_;
    RecordList<PacketFilter>::Iterator next_;
    const RecordList<PacketFilter>::Iterator end_;
    const ULONG slot_; // of the counters: this processor's until the chain's lock is released
    BOOLEAN active_;        // filters run from here on
    BOOLEAN ended_ = FALSE; // not by an exception
    ULONG index_ = 0;       // position in the chain
    FILTER_RESULT verdict_ = FILTER_RESULT_BYPASS;
    PacketFilter* judge_ = nullptr; // who gave the verdict
};

VOID Deliver(FILTER_TYPE type, FilterPacket* packet)
{
    if (type == FILTER_TYPE_INCOMING_PACKET || type == FILTER_TYPE_INJECT_TO_PROTOCOL) {
        Filter_IndicatePacketToProtocolEx(packet->m_hAdapter, packet);
    } else {
        Filter_InjectPacketToAdapterEx(packet->m_hAdapter, packet);
    }
}

// What becomes of a packet behind the chain; no chain lock is held any more.
VOID Conclude(PCSTR name, FILTER_TYPE type, FilterPacket* packet, FILTER_RESULT verdict)
{
    switch (verdict) {
    case FILTER_RESULT_CONSUME:
        break;
    case FILTER_RESULT_DISCARD:
    case FILTER_RESULT_CAPTURE:
        Filter_ReleasePacket(packet);
        break;
    default:
        Trace(TRACE_PACKET, "  %s: FILTER_RESULT_BYPASS, pPacket=0x%p\n", name, packet);
        Deliver(type, packet);
        break;
    }
}

constexpr PCSTR INVOKE_EX = "Filter_InvokeFiltersEx";

VOID TraceEnterEx(FilterPacket* packet)
{
    Trace(TRACE_PACKET, "Enter Filter_InvokeFiltersEx\n");
    Trace(TRACE_PACKET, "Enter Filter_InvokeFiltersEx: pPacket=0x%p\n", packet);
}

VOID TraceChainEx(FILTER_TYPE type, FILTER_METHOD method)
{
    if (TraceEnabled(TRACE_PACKET)) {
        DbgPrint("Enter Filter_InvokeFiltersEx: Filter=%s, Method=%s\n", Filter_TypeString(type),
                 Filter_MethodString(method));
    }
}

VOID TraceLeaveEx()
{
    Trace(TRACE_PACKET, "Leave Filter_InvokeFiltersEx\n");
}

VOID RunChain(PCSTR name, FILTER_TYPE type, FilterPacket* packet, FILTER_METHOD method, const PacketFilter* given)
{
    FILTER_RESULT verdict;
    {
        const ReadLock lock(Global().m_PacketFilterLock[type]);
        verdict = ChainWalk(name, type, packet, method, given).Run();
    }
    Conclude(name, type, packet, verdict);
}

// The same if the chain holds the given filter; FALSE, with the packet untouched, if not.
BOOLEAN RunChainOf(PCSTR name, FILTER_TYPE type, FilterPacket* packet, FILTER_METHOD method,
                   const PacketFilter* given)
{
    FILTER_RESULT verdict;
    {
        const ReadLock lock(Global().m_PacketFilterLock[type]);
        if (!Global().m_PacketFilterList[type].Contains(given)) {
            return FALSE;
        }
        TraceChainEx(type, method);
        verdict = ChainWalk(name, type, packet, method, given).Run();
    }
    Conclude(name, type, packet, verdict);
    return TRUE;
}

// A frame that the hook driver hands in: parse, mark, dump, record, filter.
VOID FilterHookPacket(FilterPacket* packet, ULONG direction, PCSTR title, PVOID FilterAdapter::*log, FILTER_TYPE type)
{
    Filter_InitPacketHeader(packet, nullptr);
    packet->m_nDirection = direction;
    DumpWhenEnabled(title, packet);
    RecordAdapterFrame(log, packet);
    Filter_InvokeFilters(type, packet);
}

} // namespace

VOID NdisFilter_FilterReceivedPacket(FilterPacket* pPacket)
{
    Trace(TRACE_HOOK, "Enter NdisFilter_FilterReceivedPacket\n");
    if (pPacket != nullptr) {
        FilterHookPacket(pPacket, NDIS_FILTER_DIRECTION_TO_PROTOCOL, "/\\ Incoming Packet",
                         &FilterAdapter::m_pLowerEthrLog, FILTER_TYPE_INCOMING_PACKET);
    }
    Trace(TRACE_HOOK, "Leave NdisFilter_FilterReceivedPacket\n");
}

VOID NdisFilter_FilterSendPacket(FilterPacket* pPacket)
{
    Trace(TRACE_HOOK, "Enter NdisFilter_FilterSendPacket\n");
    if (pPacket != nullptr) {
        FilterHookPacket(pPacket, NDIS_FILTER_DIRECTION_TO_ADAPTER, "\\/ Outgoing Packet",
                         &FilterAdapter::m_pUpperEthrLog, FILTER_TYPE_OUTGOING_PACKET);
    }
    Trace(TRACE_HOOK, "Leave NdisFilter_FilterSendPacket\n");
}

VOID Filter_InvokeFilters(FILTER_TYPE nType, FilterPacket* pPacket)
{
    if (TraceEnabled(TRACE_PACKET)) {
        DbgPrint("Enter Filter_InvokeFilters: Filter=%s, pPacket=0x%p\n", Filter_TypeString(nType), pPacket);
    }
    if (pPacket == nullptr) {
        return;
    }
    if (static_cast<ULONG>(nType) >= FILTER_TYPE_COUNT) {
        Filter_ReleasePacket(pPacket);
        return;
    }
    RunChain("Filter_InvokeFilters", nType, pPacket, FILTER_METHOD_START_FROM_FIRST_FILTER, nullptr);
    Trace(TRACE_PACKET, "Leave Filter_InvokeFilters\n");
}

VOID Filter_InvokeFiltersEx(FILTER_METHOD nMethod, PacketFilter* hPacketFilter, FilterPacket* pPacket)
{
    TraceEnterEx(pPacket);
    if (pPacket == nullptr) {
        return;
    }
    FILTER_TYPE type = FILTER_TYPE_INVALID;
    Filter_GetFilterType(hPacketFilter, &type);
    TraceChainEx(type, nMethod);
    if (static_cast<ULONG>(type) >= FILTER_TYPE_COUNT) {
        Filter_ReleasePacket(pPacket);
    } else {
        RunChain(INVOKE_EX, type, pPacket, nMethod, hPacketFilter);
    }
    TraceLeaveEx();
}

VOID InvokeQueuedFilter(FILTER_METHOD nMethod, PacketFilter* hPacketFilter, FilterPacket* pPacket)
{
    TraceEnterEx(pPacket);
    FILTER_TYPE type = FILTER_TYPE_INCOMING_PACKET;
    while (type < FILTER_TYPE_COUNT && !RunChainOf(INVOKE_EX, type, pPacket, nMethod, hPacketFilter)) {
        type++;
    }
    if (type == FILTER_TYPE_COUNT) {
        Filter_IsValidFilter(hPacketFilter); // for what it prints
        TraceChainEx(FILTER_TYPE_INVALID, nMethod);
        Filter_ReleasePacket(pPacket);
    }
    TraceLeaveEx();
}
