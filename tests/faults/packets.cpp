// Packets on every road, with dumps and capture logs on.
#include "scenario.h"

#include <algorithm>

using support::Bytes;

namespace faults
{
namespace
{

const Bytes& Frame()
{
    static const Bytes frame = support::EthernetFrame(
        support::kEtherTypeIpv4,
        support::Ipv4Packet(support::kProtocolTcp,
                            support::TcpSegment(1000, 80, 0x18, support::Counting(200))));
    return frame;
}

// Hands a new packet to a function that takes it over.
template <class Use>
void WithPacket(World& world, const Use& use)
{
    if (FilterPacket* packet = NewPacket(world)) {
        use(packet);
    }
}

void Release(FilterPacket* packet)
{
    CALL(Filter_ReleasePacketp, packet, __FILE__, __LINE__);
}

uint64_t Delivered()
{
    const hook::Balance balance = hook::TakeBalance();
    return balance.deliveredToAdapter + balance.deliveredToProtocols;
}

// Whether the frame has come through.
bool Deliver(const char* name, decltype(hook::DeliverReceived)& deliver, FilterAdapter* adapter,
             const hook::FrameOptions& options)
{
    const uint64_t before = Delivered();
    Recorded(name, [&] { return deliver(adapter, Frame(), options); });
    return Delivered() == before + 1;
}

// A frame of which only the beginning is in the packet, kept by the filter of its chain.
FilterPacket* Keep(World& world, bool unmapped)
{
    KeepNext();
    Deliver("a frame that a filter keeps", hook::DeliverReceived, world.adapter,
            {.presentBytes = 20, .pieces = {30, 0, 100}, .unmappedBuffers = unmapped, .waitMs = 0});
    return TakeKept();
}

void UseTraffic(World& world, FilterAdapter* adapter)
{
    Made(Deliver("a received frame", hook::DeliverReceived, adapter, {.waitMs = 0}));
    Made(Deliver("a sent frame", hook::DeliverSent, adapter, {.waitMs = 0}));
    Made(Deliver("a received frame in pieces", hook::DeliverReceived, adapter,
                 {.presentBytes = 60, .pieces = {100}, .waitMs = 0}));
    for (const bool unmapped : {false, true}) {
        if (FilterPacket* packet = Keep(world, unmapped)) {
            CALL(Filter_TransferPacketData, packet);
            CALL(Filter_ModifyPacket, packet);
            if (world.filters[0] != nullptr) {
                CALL(Filter_InjectPacketFromFilter, FILTER_METHOD_START_AFTER_THIS_FILTER, world.filters[0],
                     packet);
            } else {
                Release(packet);
            }
        }
    }
}

} // namespace

FilterPacket* NewPacket(World& world)
{
    FilterPacket* packet = CALL(Filter_AllocatePacketp, world.adapter, __FILE__, __LINE__);
    if (packet != nullptr) {
        std::copy(Frame().begin(), Frame().end(), packet->m_Data);
        packet->m_nBytesRead = packet->m_nPacketSize = static_cast<ULONG>(Frame().size());
        CALL(Filter_InitPacketHeader, packet, nullptr);
    }
    return packet;
}

void UsePackets(World& world)
{
    FilterAdapter* const adapter = world.adapter;
    if (adapter == nullptr) {
        return;
    }
    UseTraffic(world, adapter);
    if (FilterPacket* packet = NewPacket(world)) {
        const FILTER_RELEASE_CALLBACK released = [](FilterPacket*, PVOID) {};
        CALL(Filter_SetPacketReleaseCallback, packet, released, nullptr);
        CALL(Filter_ClearPacketReleaseCallback, packet);
        CALL(Filter_SetPacketReleaseCallback, packet, released, nullptr);
        CALL(Filter_CalculatePacketCheckSum, packet->m_pIp, support::kProtocolTcp);
        CALL(Filter_VerifyPacketCheckSum, packet);
        FilterPacket* clone = nullptr;
        MAKES(clone, Filter_ClonePacket, packet, &clone);
        CALL(Filter_DumpPacket, "a packet", packet);
        if (clone != nullptr) {
            Release(clone);
        }
        Release(packet);
    }
    WithPacket(world,
               [&](auto* packet) { CALL(Filter_InvokeFilters, FILTER_TYPE_INJECT_TO_ADAPTER, packet); });
    if (PacketFilter* filter = world.filters[0]) {
        WithPacket(world, [&](auto* packet) {
            CALL(Filter_InvokeFiltersEx, FILTER_METHOD_START_FROM_FIRST_FILTER, filter, packet);
        });
    }
    WithPacket(world, [&](auto* packet) { CALL(Filter_InjectPacketToAdapterEx, adapter, packet); });
    WithPacket(world, [&](auto* packet) { CALL(Filter_IndicatePacketToProtocolEx, adapter, packet); });
    WithPacket(world, [&](auto* packet) { CALL(Filter_InjectPacketToAdapter, adapter, packet); });
    WithPacket(world, [&](auto* packet) { CALL(Filter_IndicatePacketToProtocol, adapter, packet); });
    WithPacket(world, [&](auto* packet) { CALL(Filter_IndicatePacketFromAdapter, adapter, packet); });
    WithPacket(world, [&](auto* packet) { CALL(Filter_InjectPacketFromProtocol, adapter, packet); });
    WithPacket(world, [&](auto* packet) {
        CALL(Filter_InjectPacketFromApplication, adapter, packet, NDIS_FILTER_DIRECTION_TO_ADAPTER);
    });
    CALL(Filter_GetInjectPacketCount);
}

} // namespace faults
