// Packets: made, changed, run through chains, injected, queued, indicated and given back.
#include "world.h"

#include <cstring>

namespace stress
{

namespace
{

constexpr size_t kEthernetHeader = 14;

// A packet for this thread alone: one that was kept, or a new one; none when the hook driver has none.
Hold<FilterPacket> TakePacket(Caller& caller)
{
    auto kept = FirstOf(caller.Stream(), TheWorld().packets, Hold<FilterPacket>::Taken);
    if (kept) {
        return kept;
    }
    auto place = FirstOf(caller.Stream(), TheWorld().packets, Hold<FilterPacket>::Vacant);
    if (place) {
        place.Set(MakePacket(caller.Stream(), AnyAdapter(caller.Stream())));
    }
    return place;
}

// Works on a packet that stays.
template <class Act>
Outcome WithPacket(Caller& caller, const Act& act)
{
    const auto hold = TakePacket(caller);
    return hold && hold.Get() != nullptr ? act(hold.Get()) : Outcome::NothingToUse;
}

// Hands a packet over.
template <class Act>
Outcome GivePacket(Caller& caller, const Act& act)
{
    auto hold = TakePacket(caller);
    if (!hold || hold.Get() == nullptr) {
        return Outcome::NothingToUse;
    }
    FilterPacket* const packet = hold.Get();
    hold.Set(nullptr);
    return act(packet);
}

// A packet for a call that is refused and takes it over all the same; null without one.
FilterPacket* Spare(Caller& caller)
{
    return MakePacket(caller.Stream(), AnyAdapter(caller.Stream()));
}

// ----------------------------------------------------------------------------------------------- the packet

Outcome AllocatePacket(Caller& caller)
{
    FilterPacket* const packet = Spare(caller);
    if (packet == nullptr) {
        return Outcome::Refused; // not bound, or all are out
    }
    KeepPacket(caller.Stream(), packet);
    return Outcome::Success;
}

void AllocatePacketWrongly(Caller& caller)
{
    caller.Check(Filter_AllocatePacket(NoHandle<FilterAdapter>(caller)) == nullptr,
                 "there are no packets for what is no adapter");
}

Outcome ReleasePacket(Caller& caller)
{
    return GivePacket(caller,
                      [&](FilterPacket* packet) { return caller.Judge(Filter_ReleasePacket(packet)); });
}

void ReleasePacketWrongly(Caller& caller)
{
    caller.Expect(Filter_ReleasePacket(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
}

Outcome TransferPacketData(Caller& caller)
{
    return WithPacket(caller,
                      [&](FilterPacket* packet) { return caller.Judge(Filter_TransferPacketData(packet)); });
}

void TransferPacketDataWrongly(Caller& caller)
{
    caller.Expect(Filter_TransferPacketData(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
}

Outcome ModifyPacket(Caller& caller)
{
    return WithPacket(caller, [&](FilterPacket* packet) {
        const Outcome outcome = caller.Judge(Filter_ModifyPacket(packet));
        packet->m_Data[caller.Stream().Below(FILTER_PACKET_DATA_SIZE)] ^= 1;
        caller.Expect(Filter_InitPacketHeader(packet, nullptr), FILTER_STATUS_SUCCESS);
        return outcome;
    });
}

void ModifyPacketWrongly(Caller& caller)
{
    caller.Expect(Filter_ModifyPacket(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
}

VOID OnRelease(FilterPacket* packet, PVOID context)
{
    if (context != packet) {
        Fail("a release callback got another packet");
    }
}

Outcome SetReleaseCallback(Caller& caller)
{
    return WithPacket(caller, [](FilterPacket* packet) {
        Filter_SetPacketReleaseCallback(packet, OnRelease, packet);
        return Outcome::Success;
    });
}

Outcome ClearReleaseCallback(Caller& caller)
{
    return WithPacket(caller, [](FilterPacket* packet) {
        Filter_ClearPacketReleaseCallback(packet);
        return Outcome::Success;
    });
}

Outcome InitPacketHeader(Caller& caller)
{
    return WithPacket(caller, [&](FilterPacket* packet) {
        return caller.Judge(
            Filter_InitPacketHeader(packet, caller.Stream().Chance(50) ? packet->m_Data : nullptr));
    });
}

void InitPacketHeaderWrongly(Caller& caller)
{
    uint8_t frame[78] = {};
    caller.Expect(Filter_InitPacketHeader(nullptr, frame), FILTER_ERROR_INVALID_ARGUMENT);
}

// The total length is compared with the frame first, as the header asks.
Outcome CalculateChecksum(Caller& caller)
{
    return WithPacket(caller, [&](FilterPacket* packet) {
        const size_t total = packet->m_pIp == nullptr ? 0 : packet->m_pIp[2] << 8 | packet->m_pIp[3];
        if (total == 0 || kEthernetHeader + total > packet->m_nPacketSize ||
            packet->m_nBytesRead < packet->m_nPacketSize) {
            return Outcome::NothingToUse;
        }
        return caller.Judge(
            Filter_CalculatePacketCheckSum(packet->m_pIp, caller.Stream().OneOf<ULONG>({0, 1, 6, 17})));
    });
}

void CalculateChecksumWrongly(Caller& caller)
{
    uint8_t header[60] = {0x45};
    caller.Expect(Filter_CalculatePacketCheckSum(nullptr, 0), FILTER_ERROR_INVALID_ARGUMENT);
    caller.Expect(
        Filter_CalculatePacketCheckSum(header, caller.Stream().OneOf<ULONG>({2, 7, 255, 0x80000001})),
        FILTER_ERROR_UNSUPPORTED_PROTOCOL);
}

Outcome VerifyChecksum(Caller& caller)
{
    return WithPacket(caller, [&](FilterPacket* packet) {
        Filter_VerifyPacketCheckSum(packet);
        return caller.Check(Filter_VerifyPacketCheckSum(packet), "a checksum that was mended is right");
    });
}

Outcome ClonePacket(Caller& caller)
{
    return WithPacket(caller, [&](FilterPacket* packet) {
        FilterPacket* clone = nullptr;
        const FILTER_STATUS status = Filter_ClonePacket(packet, &clone);
        if (status == FILTER_STATUS_SUCCESS) {
            // One with an NDIS packet may differ from that in its own bytes, and the clone then has the NDIS packet's.
            const bool whole =
                packet->m_pIncomingNdisPacket == nullptr && packet->m_pOutgoingNdisPacket == nullptr;
            caller.Check(
                clone->m_nPacketSize == packet->m_nPacketSize &&
                    (!whole || std::memcmp(clone->m_Data, packet->m_Data, packet->m_nPacketSize) == 0),
                "a clone has the same frame");
            KeepPacket(caller.Stream(), clone);
        }
        return caller.Judge(status, {FILTER_ERROR_OUT_OF_MEMORY});
    });
}

void ClonePacketWrongly(Caller& caller)
{
    FilterPacket* clone = nullptr;
    caller.Expect(Filter_ClonePacket(nullptr, &clone), FILTER_ERROR_INVALID_ARGUMENT);
    if (const auto hold = TakePacket(caller); hold && hold.Get() != nullptr) {
        caller.Expect(Filter_ClonePacket(hold.Get(), nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    }
}

Outcome DumpPacket(Caller& caller)
{
    return WithPacket(caller, [](FilterPacket* packet) {
        Filter_DumpPacket("stress", packet);
        return Outcome::Success;
    });
}

// ------------------------------------------------------------------------------------------- chains and deliveries

Outcome InvokeFilters(Caller& caller)
{
    return GivePacket(caller, [&](FilterPacket* packet) {
        Filter_InvokeFilters(static_cast<FILTER_TYPE>(caller.Stream().Below(FILTER_TYPE_COUNT)), packet);
        return Outcome::Success;
    });
}

void InvokeFiltersWrongly(Caller& caller)
{
    Filter_InvokeFilters(0, nullptr);
    Filter_InvokeFilters(caller.Stream().OneOf<FILTER_TYPE>({-1, 4, 0x7FFFFFFF}),
                         Spare(caller)); // is released
}

FILTER_METHOD AnyMethod(Caller& caller)
{
    return caller.Stream().Below(6); // one more than there are: any other value is FROM_THIS
}

Outcome InvokeFiltersEx(Caller& caller)
{
    const auto lent = Borrow<PacketFilter>(caller);
    if (!lent) {
        return Outcome::NothingToUse;
    }
    return GivePacket(caller, [&](FilterPacket* packet) {
        Filter_InvokeFiltersEx(AnyMethod(caller), lent.handle.Get(), packet);
        return Outcome::Success;
    });
}

void InvokeFiltersExWrongly(Caller& caller)
{
    Filter_InvokeFiltersEx(AnyMethod(caller), NoHandle<PacketFilter>(caller), nullptr);
    Filter_InvokeFiltersEx(AnyMethod(caller), nullptr, Spare(caller)); // is released
    Filter_InvokeFiltersEx(AnyMethod(caller), NoHandle<PacketFilter>(caller), Spare(caller));
}

// Straight to the hook driver, which may refuse, and faults now and then when the round says so.
template <auto kDeliver>
struct Straight {
    static Outcome Legal(Caller& caller)
    {
        return GivePacket(caller, [&](FilterPacket* packet) {
            return caller.Judge(
                kDeliver(AnyAdapter(caller.Stream()), packet),
                {FILTER_ERROR_INTERFACE_NOT_ACTIVE, FILTER_ERROR_INTERNAL_ERROR, FILTER_ERROR_EXCEPTION});
        });
    }
    static void Illegal(Caller& caller)
    {
        caller.Expect(kDeliver(AnyAdapter(caller.Stream()), nullptr), FILTER_ERROR_INVALID_ARGUMENT);
        if (FilterPacket* const packet = Spare(caller)) {
            caller.Expect(kDeliver(nullptr, packet), FILTER_ERROR_INVALID_ARGUMENT);
        }
    }
};

template <auto kInject>
struct Injection {
    static Outcome Legal(Caller& caller)
    {
        return GivePacket(caller, [&](FilterPacket* packet) {
            return caller.Judge(kInject(AnyAdapter(caller.Stream()), packet));
        });
    }
    static constexpr auto Illegal = Straight<kInject>::Illegal;
};

// Those of the queues are worked off by threads of the framework; without a bound a caller has to see to one.
bool QueuesAreFull()
{
    return Filter_GetInjectPacketCount() > 1000;
}

template <auto kInject>
struct Queueing {
    static Outcome Legal(Caller& caller)
    {
        return QueuesAreFull() ? Outcome::NothingToUse : Injection<kInject>::Legal(caller);
    }
    static constexpr auto Illegal = Straight<kInject>::Illegal;
};

FILTER_STATUS InjectFromApplication(FilterAdapter* adapter, FilterPacket* packet)
{
    return Filter_InjectPacketFromApplication(adapter, packet, CallbackRandom().Below(5));
}

Outcome InjectFromFilter(Caller& caller)
{
    const auto lent = Borrow<PacketFilter>(caller);
    if (!lent || QueuesAreFull()) {
        return Outcome::NothingToUse;
    }
    return GivePacket(caller, [&](FilterPacket* packet) {
        return caller.Judge(Filter_InjectPacketFromFilter(AnyMethod(caller), lent.handle.Get(), packet));
    });
}

void InjectFromFilterWrongly(Caller& caller)
{
    const auto lent = Borrow<PacketFilter>(caller);
    caller.Expect(Filter_InjectPacketFromFilter(0, lent.handle.Get(), nullptr),
                  FILTER_ERROR_INVALID_ARGUMENT);
    if (FilterPacket* const packet = Spare(caller)) {
        caller.Expect(Filter_InjectPacketFromFilter(0, nullptr, packet), FILTER_ERROR_INVALID_ARGUMENT);
    }
    FilterPacket* const packet = QueuesAreFull() ? nullptr : Spare(caller);
    if (packet != nullptr) { // the worker finds no such filter in the chains, and releases the packet
        caller.Expect(Filter_InjectPacketFromFilter(0, NoHandle<PacketFilter>(caller), packet),
                      FILTER_STATUS_SUCCESS);
    }
}

Outcome IndicateToApplication(Caller& caller)
{
    return WithPacket(caller, [&](FilterPacket* packet) {
        return caller.Judge(Filter_IndicatePacketToApplication(packet, 1, caller.Stream().Next()));
    });
}

void IndicateToApplicationWrongly(Caller& caller)
{
    caller.Expect(Filter_IndicatePacketToApplication(nullptr, 1, 2), FILTER_ERROR_INVALID_ARGUMENT);
}

Outcome IndicateSignal(Caller& caller)
{
    uint8_t signal[NDIS_FILTER_SIGNAL_SIZE];
    std::memset(signal, 0x77, sizeof(signal));
    return caller.Judge(Filter_IndicateSignalToApplication(signal), {FILTER_ERROR_OUT_OF_MEMORY});
}

void IndicateSignalWrongly(Caller& caller)
{
    caller.Expect(Filter_IndicateSignalToApplication(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
}

Outcome GetInjectPacketCount(Caller& caller)
{
    return caller.Check(Filter_GetInjectPacketCount() < 0x80000000,
                        "the count of queued packets is never negative");
}

Outcome SetPendingPacketLimit(Caller& caller)
{
    Filter_SetPendingPacketLimit(static_cast<ULONG>(caller.Stream().Next()));
    return Outcome::Success;
}

// ------------------------------------------------------------------------------------------------- the table

constexpr auto D = Level::Dispatch;

template <class Row>
constexpr Call PacketCall(const char* name, uint32_t floor)
{
    return {name, Actor::Caller, D, floor, Row::Legal, Row::Illegal};
}

constexpr Call kCalls[] = {
    {"Filter_AllocatePacketp", Actor::Caller, D, 30, AllocatePacket, AllocatePacketWrongly},
    {"Filter_ReleasePacketp", Actor::Caller, D, 20, ReleasePacket, ReleasePacketWrongly},
    {"Filter_TransferPacketData", Actor::Caller, D, 20, TransferPacketData, TransferPacketDataWrongly},
    {"Filter_ModifyPacket", Actor::Caller, D, 20, ModifyPacket, ModifyPacketWrongly},
    {"Filter_SetPacketReleaseCallback", Actor::Caller, D, 20, SetReleaseCallback, nullptr},
    {"Filter_ClearPacketReleaseCallback", Actor::Caller, D, 20, ClearReleaseCallback, nullptr},
    {"Filter_InitPacketHeader", Actor::Caller, D, 20, InitPacketHeader, InitPacketHeaderWrongly},
    {"Filter_CalculatePacketCheckSum", Actor::Caller, D, 5, CalculateChecksum, CalculateChecksumWrongly},
    {"Filter_VerifyPacketCheckSum", Actor::Caller, D, 20, VerifyChecksum, nullptr},
    {"Filter_ClonePacket", Actor::Caller, D, 20, ClonePacket, ClonePacketWrongly},
    {"Filter_DumpPacket", Actor::Caller, D, 20, DumpPacket, nullptr},
    {"Filter_InvokeFilters", Actor::Caller, D, 20, InvokeFilters, InvokeFiltersWrongly},
    {"Filter_InvokeFiltersEx", Actor::Caller, D, 20, InvokeFiltersEx, InvokeFiltersExWrongly},
    PacketCall<Straight<Filter_InjectPacketToAdapterEx>>("Filter_InjectPacketToAdapterEx", 10),
    PacketCall<Straight<Filter_IndicatePacketToProtocolEx>>("Filter_IndicatePacketToProtocolEx", 10),
    PacketCall<Injection<Filter_InjectPacketToAdapter>>("Filter_InjectPacketToAdapter", 20),
    PacketCall<Injection<Filter_IndicatePacketToProtocol>>("Filter_IndicatePacketToProtocol", 20),
    PacketCall<Queueing<Filter_IndicatePacketFromAdapter>>("Filter_IndicatePacketFromAdapter", 20),
    PacketCall<Queueing<Filter_InjectPacketFromProtocol>>("Filter_InjectPacketFromProtocol", 20),
    PacketCall<Queueing<InjectFromApplication>>("Filter_InjectPacketFromApplication", 20),
    {"Filter_InjectPacketFromFilter", Actor::Caller, D, 20, InjectFromFilter, InjectFromFilterWrongly},
    {"Filter_IndicatePacketToApplication", Actor::Caller, D, 20, IndicateToApplication,
     IndicateToApplicationWrongly},
    {"Filter_IndicateSignalToApplication", Actor::Caller, D, 2, IndicateSignal, IndicateSignalWrongly},
    {"Filter_GetInjectPacketCount", Actor::Caller, D, 99, GetInjectPacketCount, nullptr},
    {"Filter_SetPendingPacketLimit", Actor::Caller, D, 99, SetPendingPacketLimit, nullptr},
};

} // namespace

std::span<const Call> PacketCalls()
{
    return kCalls;
}

} // namespace stress
