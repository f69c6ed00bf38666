#include "world.h"

#include <algorithm>
#include <cstring>

namespace stress
{

namespace
{

constexpr uint32_t kRegistrations = 1 << 18; // of a round, more than it makes

std::unique_ptr<World> g_world;
std::unique_ptr<Registration[]> g_registrations;
std::atomic<uint32_t> g_registrationsUsed{0};

constinit thread_local uint32_t t_walks = 0; // chains that this thread is in

class Walk
{
  public:
    Walk() { ++t_walks; }
    ~Walk() { --t_walks; }
};

} // namespace

World& TheWorld()
{
    return *g_world;
}

Registration* NewRegistration(const std::string& name)
{
    const uint32_t index = g_registrationsUsed.fetch_add(1, std::memory_order_relaxed);
    if (index >= kRegistrations) {
        Fail("a round makes more registrations than there is room for");
        return &g_registrations[0];
    }
    Registration& registration = g_registrations[index];
    name.copy(registration.name, sizeof(registration.name) - 1);
    return &registration;
}

FilterAdapter* AnyAdapter(Random& random)
{
    return TheWorld().adapters[random.Below(kAdapters)].load();
}

support::MacAddress AddressOfAdapter(uint32_t index)
{
    return {0x02, 0, 0, 0, 1, static_cast<uint8_t>(index)};
}

hook::AdapterOptions AdapterOptionsOf(uint32_t index)
{
    return {.name = "{STRESS-" + std::to_string(index) + "} Virtual", .address = AddressOfAdapter(index)};
}

std::string ClientName(size_t index)
{
    return "client-" + std::to_string(index);
}

support::Bytes AnyFrame(Random& random)
{
    using namespace support;
    const Bytes payload(random.Below(1400), static_cast<uint8_t>(random.Next()));
    const auto port = [&] { return random.OneOf<uint16_t>({53, 67, 68, 80, 1000}); };
    const Ipv4Options addresses = {.source = {static_cast<uint8_t>(random.Next()), 0, 0, 1},
                                   .destination = {10, 0, 0, static_cast<uint8_t>(random.Next())},
                                   .fragmentOffset =
                                       static_cast<uint16_t>(random.Chance(10) ? random.Below(1000) : 0)};
    switch (random.Below(8)) {
    case 0:
        return EthernetFrame(kEtherTypeArp,
                             ArpPacket(ArpOperation::Request, kPeerMac, kPeerAddress, kOwnMac, kOwnAddress));
    case 1:
    case 2:
        return EthernetFrame(kEtherTypeIpv4,
                             Ipv4Packet(kProtocolTcp, TcpSegment(port(), port(), 2, payload), addresses));
    case 3:
        return EthernetFrame(kEtherTypeIpv4, Ipv4Packet(kProtocolIcmp, IcmpEcho(8, 1, payload), addresses));
    case 4:
        return VlanTagged(
            EthernetFrame(kEtherTypeIpv4, Ipv4Packet(kProtocolUdp, UdpDatagram(port(), port(), payload))), 5);
    case 5: {
        Bytes noise(random.Below(hook::kLongestFrame + 1));
        random.Fill(noise.data(), noise.size());
        if (noise.size() > 14 && random.Chance(50)) { // an IPv4 header whose lengths lie
            noise[12] = 8;
            noise[13] = 0;
        }
        return noise;
    }
    default:
        return EthernetFrame(kEtherTypeIpv4,
                             Ipv4Packet(kProtocolUdp, UdpDatagram(port(), port(), payload), addresses));
    }
}

FilterPacket* MakePacket(Random& random, FilterAdapter* adapter)
{
    FilterPacket* const packet = Filter_AllocatePacket(adapter);
    if (packet != nullptr) {
        const support::Bytes frame = AnyFrame(random);
        std::copy(frame.begin(), frame.end(), packet->m_Data);
        packet->m_nBytesRead = packet->m_nPacketSize = static_cast<ULONG>(frame.size());
        Filter_InitPacketHeader(packet, nullptr);
    }
    return packet;
}

void KeepPacket(Random& random, FilterPacket* packet)
{
    auto place = FirstOf(random, TheWorld().packets, Hold<FilterPacket>::Vacant);
    if (place) {
        place.Set(packet);
    } else {
        Filter_ReleasePacket(packet);
    }
}

namespace
{

// What a filter may do with a packet, and now and then does. It injects at once only into chains that come behind its
// own, or two walks could wait for one another.
void Meddle(Random& random, PacketFilter* filter, FilterPacket* packet)
{
    switch (random.Below(60)) {
    case 1:
        Filter_ModifyPacket(packet);
        packet->m_Data[random.Below(64)] ^= 1;
        Filter_InitPacketHeader(packet, nullptr);
        break;
    case 2:
        Filter_IndicatePacketToApplication(packet, 7, 8);
        break;
    case 3:
        Filter_ReportEvent(3, 4, "packet of %d bytes", packet->m_nPacketSize);
        break;
    case 4: {
        STRING* name = nullptr;
        if (Filter_GetFilterName(filter, &name) != FILTER_STATUS_SUCCESS ||
            Filter_FreeMemory(name) != FILTER_STATUS_SUCCESS) {
            Fail("a filter that runs has no name");
        }
        break;
    }
    case 5: {
        FilterPacket* clone = nullptr;
        FILTER_TYPE type = FILTER_TYPE_INVALID;
        Filter_GetFilterType(filter, &type);
        if (Filter_ClonePacket(packet, &clone) != FILTER_STATUS_SUCCESS) {
            break;
        }
        if (type <= FILTER_TYPE_OUTGOING_PACKET && t_walks == 1) {
            const auto inject =
                random.Chance(50) ? Filter_InjectPacketToAdapter : Filter_IndicatePacketToProtocol;
            inject(AnyAdapter(random), clone);
        } else {
            KeepPacket(random, clone);
        }
        break;
    }
    case 6:
        Filter_TransferPacketData(packet);
        Filter_VerifyPacketCheckSum(packet);
        break;
    default:
        break;
    }
}

} // namespace

FILTER_RESULT FilterProcedure(FilterDriver* driver, PVOID, PacketFilter* filter, PVOID context,
                              FilterPacket* packet)
{
    Standing(context, "a filter");
    if (!Filter_IsValidDriver(driver)) {
        Fail("the driver of a filter that runs is not valid");
    }
    Random& random = CallbackRandom();
    if (random.Below(300) == 0) {
        support::FaultOnRead(); // contained: counts as no verdict
    }
    {
        const Walk walk;
        Meddle(random, filter, packet);
    }
    switch (random.Below(20)) {
    case 0:
        return FILTER_RESULT_DISCARD;
    case 1:
        return FILTER_RESULT_CAPTURE;
    case 2:
        return 4 + random.Below(1000); // no verdict
    case 3:
        if (random.Chance(30)) {
            Filter_InjectPacketFromFilter(FILTER_METHOD_START_AFTER_THIS_FILTER, filter, packet);
        } else {
            KeepPacket(random, packet);
        }
        return FILTER_RESULT_CONSUME;
    default:
        return FILTER_RESULT_BYPASS;
    }
}

void OpenWorld(const RoundPlan&)
{
    g_world = std::make_unique<World>();
    g_registrations = std::make_unique<Registration[]>(kRegistrations);
    g_registrationsUsed = 0;
    World& world = *g_world;
    for (uint32_t i = 0; i < kAdapters; ++i) {
        FilterAdapter* const adapter = hook::AddAdapter(AdapterOptionsOf(i));
        hook::OpenAdapter(adapter);
        world.adapters[i] = adapter;
        ULONG id = 0;
        if (Filter_AdapterToId(adapter, &id) != FILTER_STATUS_SUCCESS || id != i + 1) {
            Fail("the adapters of a round do not get the first identifiers");
        }
    }
    for (GuardedNumber& number : world.numbers) {
        Filter_InitializeLock(&number.lock);
    }
}

// What belongs to nobody but the clients. Their registrations are given back too, unless the unload is to do it.
void CloseWorld(const RoundPlan& plan)
{
    World& world = *g_world;
    for (Slot<FilterPacket>& slot : world.packets) {
        if (slot.Take()) {
            Filter_ReleasePacket(slot.Value());
            slot.Empty();
        }
    }
    for (HeldRequest& held :
         world.requests) { // those under way are answered by the unload of the hook driver
        if (held.slot.Take()) {
            Filter_FreeNdisRequest(held.slot.Value());
        }
    }
    for (Slot<VOID>& slot : world.blocks) {
        if (slot.Take()) {
            Filter_FreeMemory(slot.Value());
        }
    }
    for (HeldItem& held : world.items) {
        if (held.slot.Take()) {
            Filter_ReleaseHashItem(held.slot.Value());
        }
    }
    for (Table& table : world.tables) {
        if (table.slot.Take()) {
            Filter_DestroyHashTable(table.slot.Value());
        }
    }
    if (plan.leavesAll) {
        return;
    }
    for (Client& client : world.clients) {
        if (!client.driver.Take()) {
            continue;
        }
        FilterDriver* const driver = client.driver.Value();
        for (Child<VOID>& reference : client.references) {
            if (reference.slot.Take()) {
                Filter_ReleaseInterface(driver, reference.slot.Value());
            }
        }
        for (Child<IfEventHandler>& handler : client.ifEventHandlers) {
            if (handler.slot.Take()) {
                Filter_DeregisterIfEventHandler(driver, handler.slot.Value());
            }
        }
        for (Child<FilterTimer>& timer : client.timers) {
            if (timer.slot.Take()) {
                Filter_FreeTimer(driver, timer.slot.Value());
            }
        }
        if (Filter_DeregisterDriver(driver) != FILTER_STATUS_SUCCESS) {
            Fail("a client cannot be deregistered at the end of a round");
        }
    }
}

} // namespace stress
