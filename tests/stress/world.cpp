#include "world.h"

#include <support/rings.h>

#include <algorithm>
#include <map>

namespace stress
{

void ReplaceAdapter(uint32_t index)
{
    if (FilterAdapter* const adapter = g_adapters[index].load()) {
        hook::RemoveAdapter(adapter);
    }
    FilterAdapter* const adapter = hook::AddAdapter(AdapterOptionsOf(index));
    hook::OpenAdapter(adapter);
    g_adapters[index] = adapter;
}

hook::AdapterOptions AdapterOptionsOf(uint32_t index)
{
    return {.name = "{STRESS-" + std::to_string(index) + "} Virtual",
            .address = {0x02, 0, 0, 0, 1, static_cast<uint8_t>(index)}};
}

// How calls refuse what is no handle, one that was ended, and that of another driver.
Argument Checked(Form form, Kind kind, int64_t null)
{
    static const std::map<Kind, std::array<int64_t, 3>> refusals = {
        {kDriver, {FILTER_ERROR_INVALID_DRIVER_HANDLE, FILTER_ERROR_DRIVER_NOT_FOUND, kNoMatter}},
        {kFilter,
         {FILTER_ERROR_INVALID_PACKET_FILTER, FILTER_ERROR_FILTER_NOT_FOUND,
          FILTER_ERROR_INVALID_FILTER_OWNER}},
        {kEventHandler,
         {FILTER_ERROR_INVALID_EVENT_HANDLER, FILTER_ERROR_EVENT_HANDLER_NOT_FOUND,
          FILTER_ERROR_INVALID_EVENT_HANDLER_OWNER}},
        {kIfEventHandler,
         {FILTER_ERROR_INVALID_EVENT_HANDLER, FILTER_ERROR_EVENT_HANDLER_NOT_FOUND,
          FILTER_ERROR_INVALID_EVENT_HANDLER_OWNER}},
        {kIoCtrlHandler,
         {FILTER_ERROR_INVALID_IOCTL_HANDLER, FILTER_ERROR_IOCTL_HANDLER_NOT_FOUND,
          FILTER_ERROR_INVALID_IOCTL_HANDLER_OWNER}},
        {kInterface,
         {FILTER_ERROR_INVALID_FILTER_INTERFACE, kNoMatter, FILTER_ERROR_INVALID_INTERFACE_OWNER}},
        {kReference,
         {FILTER_ERROR_INVALID_FILTER_INTERFACE, FILTER_ERROR_INTERFACE_REFERENCE_NOT_FOUND,
          FILTER_ERROR_INVALID_INTERFACE_REFERENCE_OWNER}},
        {kTimer,
         {FILTER_ERROR_INVALID_TIMER_HANDLE, FILTER_ERROR_TIMER_HANDLER_NOT_FOUND,
          FILTER_ERROR_INVALID_TIMER_HANDLER_OWNER}},
        {kMemory, {FILTER_ERROR_INVALID_MEMORY_POINTER, FILTER_ERROR_EXCEPTION, kNoMatter}},
        {kRequest, {FILTER_ERROR_INVALID_NDIS_REQUEST, kNoMatter, kNoMatter}},
        {kAdapter, {FILTER_ERROR_INVALID_ADAPTER_HANDLE, kNoMatter, kNoMatter}}};
    Argument argument = Handle(form, kind, null);
    if (const auto found = refusals.find(kind); found != refusals.end()) {
        argument.refusal = found->second[0];
        argument.stale = form == Form::Ended ? found->second[1] : kNoMatter;
        argument.foreign = form == Form::Ended ? found->second[2] : kNoMatter;
    }
    return argument;
}

Argument Text()
{
    return Output(8, kNull, [](uint64_t* text) {
        RequireSuccess(Filter_FreeMemory(reinterpret_cast<PVOID>(*text)), "a text is freed");
    });
}

machine::Request::Result AskOnce(uint32_t code, std::span<const uint8_t> input, std::span<uint8_t> output)
{
    return support::UserProgram().device->Control(code, input, output);
}

support::Bytes AnyFrame()
{
    using namespace support;
    Random& random = Dice();
    const uint32_t kind = random.Below(4);
    Bytes payload(random.Below(kind == 0 ? hook::kLongestFrame + 1 : 1400));
    random.Fill(payload.data(), std::min<size_t>(payload.size(), 64));
    if (kind == 0) {
        return payload;
    }
    const auto port = random.OneOf<uint16_t>({53, 67, 68, 80, 1000});
    const bool udp = random.Chance(50);
    const Bytes segment = udp ? UdpDatagram(port, port, payload) : TcpSegment(port, port, 2, payload);
    const auto offset = static_cast<uint16_t>(random.Chance(10) ? random.Below(1000) : 0);
    const Bytes frame = EthernetFrame(
        kEtherTypeIpv4, Ipv4Packet(udp ? kProtocolUdp : kProtocolTcp, segment, {.fragmentOffset = offset}));
    return kind == 1 ? VlanTagged(frame, 5) : frame;
}

FilterPacket* MakePacket(FilterAdapter* adapter)
{
    FilterPacket* const packet = Filter_AllocatePacket(adapter);
    if (packet != nullptr) {
        const support::Bytes frame = AnyFrame();
        std::copy(frame.begin(), frame.end(), packet->m_Data);
        packet->m_nBytesRead = packet->m_nPacketSize = static_cast<ULONG>(frame.size());
        Filter_InitPacketHeader(packet, nullptr);
    }
    return packet;
}

Use TakePacket()
{
    Use use = Find(kPacket, Use::kAlone);
    if (!use) {
        use = Find(kPacket, Use::kVacant);
        if (use) {
            use.Set(MakePacket(AnyAdapter()));
        }
    }
    return use;
}

void KeepPacket(FilterPacket* packet)
{
    Use place = Find(kPacket, Use::kVacant);
    if (place) {
        place.Set(packet);
    } else {
        Filter_ReleasePacket(packet);
    }
}

void OpenWorld()
{
    MakePools();
    for (uint32_t i = 0; i < kAdapters; ++i) {
        g_adapters[i] = nullptr;
        ReplaceAdapter(i);
        ULONG id = 0;
        Require(Filter_AdapterToId(g_adapters[i].load(), &id) == FILTER_STATUS_SUCCESS && id == i + 1,
                "the adapters of a round do not get the first identifiers");
    }
}

// What belongs to nobody but the clients. Their registrations are given back too, unless the unload is to do it.
void CloseWorld()
{
    DropAll(kPacket, [](Use& use) { Filter_ReleasePacket(use.Get<FilterPacket>()); });
    // Requests under way are answered by the unload of the hook driver.
    DropAll(kRequest, [](Use& use) { Filter_FreeNdisRequest(use.Get()); });
    DropAll(kMemory, [](Use& use) { Filter_FreeMemory(use.Get()); });
    DropAll(kItem, [](Use& use) { Filter_ReleaseHashItem(use.Get<HashItem>()); });
    DropAll(kTable, [](Use& use) { Filter_DestroyHashTable(use.Get<HashTable>()); });
    if (!g_plan.leavesAll) {
        const auto driverOf = [](const Use& use) { return static_cast<FilterDriver*>(use.Owner()); };
        DropAll(kReference, [&](Use& use) { Filter_ReleaseInterface(driverOf(use), use.Get()); });
        DropAll(kIfEventHandler,
                [&](Use& use) { Filter_DeregisterIfEventHandler(driverOf(use), use.Get<IfEventHandler>()); });
        DropAll(kTimer, [&](Use& use) { Filter_FreeTimer(driverOf(use), use.Get<FilterTimer>()); });
        DropAll(kDriver, [](Use& use) {
            RequireSuccess(Filter_DeregisterDriver(use.Get<FilterDriver>()), "deregistration of a client");
        });
    }
}

} // namespace stress
