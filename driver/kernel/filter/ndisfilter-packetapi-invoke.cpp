// Running a chain of packet filters over a packet, and what the verdicts make of it.
//
// The road of a received frame: hook driver -> NdisFilter_FilterReceivedPacket -> the incoming chain -> hook driver. Sent
// frames take the mirror road. What Filter_InvokeFilters and Filter_IndicatePacketToProtocolEx do is on it, in one guard;
// a frame whose passage is traced goes through the delivery itself.
#include "ndisfilter-packetapi-deliver.h"

namespace
{

constexpr PCSTR INVOKE = "Filter_InvokeFilters";
constexpr PCSTR INVOKE_EX = "Filter_InvokeFiltersEx";

// Which filters of a chain a packet meets, and what the trace lines call it.
struct Itinerary {
    PCSTR Name;
    FILTER_TYPE Type;
    FILTER_METHOD Method = FILTER_METHOD_START_FROM_FIRST_FILTER;
    const PacketFilter* Given = nullptr; // the filter that the method speaks of

    BOOLEAN IsWhole() const { return Method == FILTER_METHOD_START_FROM_FIRST_FILTER; }
    BOOLEAN StartsActive() const
    {
        return IsWhole() || Method == FILTER_METHOD_START_UNTIL_THIS_FILTER ||
               Method == FILTER_METHOD_STOP_AT_THIS_FILTER;
    }
};

// From 0.
ULONG PositionOf(const RecordList<PacketFilter>& chain, const PacketFilter& filter)
{
    ULONG position = 0;
    for (const PacketFilter& entry : chain) {
        if (&entry == &filter) {
            break;
        }
        position++;
    }
    return position;
}

// One packet's passage: the start of its route, the filters, and what their verdict makes of the packet.
//
// A route tells its itinerary, and what comes first: Parse(packet) and Arrive(packet), for a frame that comes in from the
// hook driver, and with the chain locked Admits(), which answers FALSE to have the packet left as it is.
//
// All of it runs in one guard. When something faults, a new guard takes the passage up behind it, so that an exception
// costs only who raised it.
//
// A plain passage is what a frame meets nearly always, the whole chain with nothing traced: it tests for neither.
template <BOOLEAN Plain, class Route>
class Passage
{
  public:
    Passage(const Route& route, FilterPacket* packet) : route_(route), packet_(packet) {}

    // FALSE when the route did not admit the packet. The chain's lock is released in the end, whatever faults.
    BOOLEAN Run()
    {
        const NTSTATUS code = RunInGuard<TRUE>();
        return __builtin_expect(stage_ == Stage::Done, 1) ? TRUE : TakeUp(code);
    }

  private:
    // What runs, or is next to run.
    enum class Stage : UCHAR { Parse, Arrival, Chain, Filters, Delivery, Done, Refused };

    template <BOOLEAN FromStart>
    NTSTATUS RunInGuard()
    {
        return CallGuarded([](PVOID passage) { static_cast<Passage*>(passage)->template Proceed<FromStart>(); },
                           this);
    }

    // Behind a route that did not admit the packet, or a fault.
    __attribute__((noinline, cold)) BOOLEAN TakeUp(NTSTATUS code)
    {
        while (stage_ < Stage::Delivery) {
            if (stage_ == Stage::Parse) {
                PrintException("Filter_InitPacketHeader", code);
                stage_ = Stage::Arrival;
            } else {
                ReportException(code);
                stage_ = stage_ == Stage::Arrival ? Stage::Chain : stage_;
            }
            code = RunInGuard<FALSE>();
        }
        if (stage_ == Stage::Delivery) {
            ReportDeliveryException(code);
        }
        return stage_ != Stage::Refused;
    }

    // From the stage that was reached.
    template <BOOLEAN FromStart>
    VOID Proceed()
    {
        if constexpr (Route::ARRIVES) {
            if (FromStart || stage_ == Stage::Parse) {
                route_.Parse(packet_);
                stage_ = Stage::Arrival;
            }
            if (FromStart || stage_ == Stage::Arrival) {
                route_.Arrive(packet_);
                stage_ = Stage::Chain;
            }
        }
        if (FromStart || stage_ == Stage::Chain) {
            NdisAcquireReadWriteLock(&ChainLock(), FALSE, &lockState_);
            next_ = Chain().First();
            stage_ = Stage::Filters;
            if (!route_.Admits()) {
                NdisReleaseReadWriteLock(&ChainLock(), &lockState_);
                stage_ = Stage::Refused;
                return;
            }
        }
        const ULONG processor = KeGetCurrentProcessorNumber(); // it stays so while the lock is held
        const FILTER_RESULT verdict = __builtin_expect(processor < FILTER_SHARED_SLOT, 1)
                                          ? RunFilters<TRUE>(processor)
                                          : RunFilters<FALSE>(FILTER_SHARED_SLOT);
        stage_ = Stage::Delivery;
        NdisReleaseReadWriteLock(&ChainLock(), &lockState_);
        Conclude(verdict);
        stage_ = Stage::Done;
    }

    // Runs filters until one gives a verdict other than bypass or the walk ends, and answers the verdict.
    template <BOOLEAN OwnSlot>
    FILTER_RESULT RunFilters(ULONG slot)
    {
        const auto end = Chain().End();
        for (auto next = next_; next != end;) {
            PacketFilter* const filter = next.Get();
            next = next.Next();
            next_ = next; // where a new guard takes up when the filter faults
            if (!Plain) {
                const BOOLEAN chosen = Chosen(*filter);
                next = next_;
                if (!chosen) {
                    continue;
                }
                TraceFilter(*filter);
            }
            PacketFilterCounters& counters = filter->m_pCounters[slot];
            Count<OwnSlot>(counters.m_PacketProcess);
            const FILTER_RESULT result = filter->m_pfFilterProc(
                filter->m_hFilterDriver, filter->m_pDriverContext, filter, filter->m_pFilterContext, packet_);
            if (__builtin_expect(result != FILTER_RESULT_BYPASS, 0)) {
                if (result > FILTER_RESULT_CAPTURE) {
                    continue;
                }
                TraceVerdict(result);
                CountVerdict<OwnSlot>(result, counters);
                return result;
            }
            TraceVerdict(result);
            Count<OwnSlot>(counters.m_PacketBypass);
        }
        return FILTER_RESULT_BYPASS;
    }

    // Applies the method to the filter reached; may end the walk.
    BOOLEAN Chosen(const PacketFilter& filter)
    {
        const BOOLEAN isGiven = &filter == Way().Given;
        if (!active_) {
            active_ = isGiven;
            return isGiven && Way().Method != FILTER_METHOD_START_AFTER_THIS_FILTER;
        }
        if (isGiven && Way().Method == FILTER_METHOD_STOP_AT_THIS_FILTER) {
            next_ = Chain().End();
            return FALSE;
        }
        if (isGiven && Way().Method == FILTER_METHOD_START_UNTIL_THIS_FILTER) {
            next_ = Chain().End();
        }
        return TRUE;
    }

    template <BOOLEAN OwnSlot>
    static VOID Count(ULONG& counter)
    {
        if (OwnSlot) {
            StoreRelaxed(counter, LoadRelaxed(counter) + 1);
        } else {
            InterlockedIncrement(reinterpret_cast<LONG*>(&counter));
        }
    }

    template <BOOLEAN OwnSlot>
    VOID CountVerdict(FILTER_RESULT verdict, PacketFilterCounters& counters)
    {
        switch (verdict) {
        case FILTER_RESULT_DISCARD:
            DumpDiscarded();
            Count<OwnSlot>(counters.m_PacketDiscard);
            break;
        case FILTER_RESULT_CONSUME:
            Count<OwnSlot>(counters.m_PacketConsume); // the packet is the filter's by now: it is not touched
            break;
        default:
            Count<OwnSlot>(counters.m_PacketCapture);
            break;
        }
    }

    // In a guard of its own: a fault does not change the verdict.
    VOID DumpDiscarded()
    {
        const NTSTATUS code = Guarded([&] { DumpWhenEnabled("DD Filter Discard", packet_); });
        if (code != 0) {
            ReportException(code);
        }
    }

    // What becomes of the packet; no chain lock is held any more.
    VOID Conclude(FILTER_RESULT verdict)
    {
        switch (verdict) {
        case FILTER_RESULT_CONSUME:
            break;
        case FILTER_RESULT_DISCARD:
        case FILTER_RESULT_CAPTURE:
            Filter_ReleasePacket(packet_);
            break;
        default:
            TraceVerdict(verdict);
            Deliver();
            break;
        }
    }

    VOID Deliver()
    {
        FilterAdapter* const adapter = packet_->m_hAdapter;
        if (LeadsToProtocol(Way().Type)) {
            Plain ? DeliverToHook<TO_PROTOCOL>(adapter, packet_)
                  : Filter_IndicatePacketToProtocolEx(adapter, packet_);
        } else {
            Plain ? DeliverToHook<TO_ADAPTER>(adapter, packet_)
                  : Filter_InjectPacketToAdapterEx(adapter, packet_);
        }
    }

    // As the exported delivery does, which has a guard of its own.
    VOID ReportDeliveryException(NTSTATUS code) const
    {
        PrintException(LeadsToProtocol(Way().Type) ? TO_PROTOCOL.Trace.ExceptionName : TO_ADAPTER.Trace.Name,
                       code);
    }

    VOID ReportException(NTSTATUS code) const
    {
        DbgPrint("  %s: exception, code = %d, pPacket=0x%p\n", Way().Name, code, packet_);
    }

    const Itinerary& Way() const { return route_.Way(); }
    NDIS_RW_LOCK& ChainLock() const { return Global().m_PacketFilterLock[Way().Type]; }
    const RecordList<PacketFilter>& Chain() const { return Global().m_PacketFilterList[Way().Type]; }

    VOID TraceFilter(const PacketFilter& filter) const
    {
        if (TraceEnabled(TRACE_PACKET)) {
            DbgPrint("  %s: %s->Filter[%d] - %*.*s, pPacket=0x%p\n", Way().Name,
                     Filter_TypeString(Way().Type), PositionOf(Chain(), filter), filter.m_FilterName.Length,
                     filter.m_FilterName.Length, filter.m_FilterName.Buffer, packet_);
        }
    }

    VOID TraceVerdict(FILTER_RESULT result) const
    {
        if (!Plain && TraceEnabled(TRACE_PACKET)) {
            DbgPrint("  %s: %s, pPacket=0x%p\n", Way().Name, Filter_ResultString(result), packet_);
        }
    }

    const Route route_;
    FilterPacket* const packet_;
    LOCK_STATE lockState_; // of the chain's lock: a guard runs no destructor of a holder inside it
    RecordList<PacketFilter>::Place next_;
    BOOLEAN active_ = Way().StartsActive(); // filters run from here on
    Stage stage_ = Route::ARRIVES ? Stage::Parse : Stage::Chain;
};

VOID TraceEnter(FILTER_TYPE type, FilterPacket* packet)
{
    if (TraceEnabled(TRACE_PACKET)) {
        DbgPrint("Enter Filter_InvokeFilters: Filter=%s, pPacket=0x%p\n", Filter_TypeString(type), packet);
    }
}

VOID TraceLeave()
{
    Trace(TRACE_PACKET, "Leave Filter_InvokeFilters\n");
}

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

// For any packet.
struct ChainRoute {
    static constexpr BOOLEAN ARRIVES = FALSE;
    const Itinerary& Chosen;

    const Itinerary& Way() const { return Chosen; }
    static BOOLEAN Admits() { return TRUE; }
};

// If the chain holds the given filter.
struct GivenRoute {
    static constexpr BOOLEAN ARRIVES = FALSE;
    const Itinerary& Chosen;

    const Itinerary& Way() const { return Chosen; }
    BOOLEAN Admits() const
    {
        if (!Global().m_PacketFilterList[Way().Type].Contains(Way().Given)) {
            return FALSE;
        }
        TraceChainEx(Way().Type, Way().Method);
        return TRUE;
    }
};

VOID RunChain(const Itinerary& itinerary, FilterPacket* packet)
{
    if (itinerary.IsWhole() && !TraceEnabled(TRACE_PACKET)) {
        Passage<TRUE, ChainRoute>({itinerary}, packet).Run();
    } else {
        Passage<FALSE, ChainRoute>({itinerary}, packet).Run();
    }
}

// The same if the chain holds the given filter; FALSE, with the packet untouched, if not.
BOOLEAN RunChainOf(const Itinerary& itinerary, FilterPacket* packet)
{
    return Passage<FALSE, GivenRoute>({itinerary}, packet).Run();
}

// How a frame comes in from the hook driver.
struct Arrival {
    Itinerary Chain;
    ULONG Direction;
    PCSTR Title; // of the dump
    PVOID FilterAdapter::*Log;
};

constexpr Arrival RECEIVED = {{.Name = INVOKE, .Type = FILTER_TYPE_INCOMING_PACKET},
                              NDIS_FILTER_DIRECTION_TO_PROTOCOL,
                              "/\\ Incoming Packet",
                              &FilterAdapter::m_pLowerEthrLog};
constexpr Arrival SENT = {{.Name = INVOKE, .Type = FILTER_TYPE_OUTGOING_PACKET},
                          NDIS_FILTER_DIRECTION_TO_ADAPTER,
                          "\\/ Outgoing Packet",
                          &FilterAdapter::m_pUpperEthrLog};

// For a frame, which is parsed, marked, dumped and recorded before.
template <BOOLEAN Plain, const Arrival& ARRIVAL>
struct ArrivalRoute {
    static constexpr BOOLEAN ARRIVES = TRUE;

    static constexpr const Itinerary& Way() { return ARRIVAL.Chain; }
    static VOID Parse(FilterPacket* packet)
    {
        if (Plain) {
            ParsePacket(packet);
        } else {
            Filter_InitPacketHeader(packet, nullptr);
        }
    }
    static VOID Arrive(FilterPacket* packet)
    {
        packet->m_nDirection = ARRIVAL.Direction;
        if (const FilterAdapter* const adapter = packet->m_hAdapter; adapter != nullptr) {
            DumpWhenEnabled(ARRIVAL.Title, packet);
            RecordFrame(adapter->*ARRIVAL.Log, packet);
        }
        if (!Plain) {
            TraceEnter(Way().Type, packet);
        }
    }
    static BOOLEAN Admits() { return TRUE; }
};

template <const Arrival& ARRIVAL>
__attribute__((noinline, cold)) VOID FilterFromHookTraced(PCSTR enter, PCSTR leave, FilterPacket* packet)
{
    Trace(TRACE_HOOK, enter);
    if (packet != nullptr) {
        Passage<FALSE, ArrivalRoute<FALSE, ARRIVAL>>({}, packet).Run();
        TraceLeave();
    }
    Trace(TRACE_HOOK, leave);
}

// What is traced is decided once a frame: most often nothing, and then its road looks at the debug mask no more.
template <const Arrival& ARRIVAL>
VOID FilterFromHook(PCSTR enter, PCSTR leave, FilterPacket* packet)
{
    if (TraceEnabled(TRACE_HOOK | TRACE_PACKET)) {
        FilterFromHookTraced<ARRIVAL>(enter, leave, packet);
    } else if (packet != nullptr) {
        Passage<TRUE, ArrivalRoute<TRUE, ARRIVAL>>({}, packet).Run();
    }
}

} // namespace

VOID NdisFilter_FilterReceivedPacket(FilterPacket* pPacket)
{
    FilterFromHook<RECEIVED>("Enter NdisFilter_FilterReceivedPacket\n",
                             "Leave NdisFilter_FilterReceivedPacket\n", pPacket);
}

VOID NdisFilter_FilterSendPacket(FilterPacket* pPacket)
{
    FilterFromHook<SENT>("Enter NdisFilter_FilterSendPacket\n", "Leave NdisFilter_FilterSendPacket\n",
                         pPacket);
}

VOID Filter_InvokeFilters(FILTER_TYPE nType, FilterPacket* pPacket)
{
    TraceEnter(nType, pPacket);
    if (pPacket == nullptr) {
        return;
    }
    if (static_cast<ULONG>(nType) >= FILTER_TYPE_COUNT) {
        Filter_ReleasePacket(pPacket);
        return;
    }
    RunChain({.Name = INVOKE, .Type = nType}, pPacket);
    TraceLeave();
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
        RunChain({.Name = INVOKE_EX, .Type = type, .Method = nMethod, .Given = hPacketFilter}, pPacket);
    }
    TraceLeaveEx();
}

VOID InvokeQueuedFilter(FILTER_METHOD nMethod, PacketFilter* hPacketFilter, FilterPacket* pPacket)
{
    TraceEnterEx(pPacket);
    Itinerary itinerary = {
        .Name = INVOKE_EX, .Type = FILTER_TYPE_INCOMING_PACKET, .Method = nMethod, .Given = hPacketFilter};
    while (itinerary.Type < FILTER_TYPE_COUNT && !RunChainOf(itinerary, pPacket)) {
        itinerary.Type++;
    }
    if (itinerary.Type == FILTER_TYPE_COUNT) {
        Filter_IsValidFilter(hPacketFilter); // for what it prints
        TraceChainEx(FILTER_TYPE_INVALID, nMethod);
        Filter_ReleasePacket(pPacket);
    }
    TraceLeaveEx();
}
