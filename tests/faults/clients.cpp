// What client drivers register, and what they ask of adapters.
#include "scenario.h"

#include <atomic>

namespace faults
{
namespace
{

std::atomic<FilterPacket*> g_kept;
std::atomic<bool> g_keepNext;

FILTER_RESULT KeepOrBypass(FilterDriver*, PVOID, PacketFilter*, PVOID, FilterPacket* packet)
{
    if (!g_keepNext.exchange(false)) {
        return FILTER_RESULT_BYPASS;
    }
    g_kept = packet;
    return FILTER_RESULT_CONSUME;
}

void TakeName(STRING* name)
{
    Journal::Made(name != nullptr);
    if (name != nullptr) {
        CALL(Filter_FreeMemory, name);
    }
}

void UseFilter(FilterDriver* driver, PacketFilter* filter)
{
    STRING* name = nullptr;
    PVOID context = nullptr;
    FILTER_TYPE type = FILTER_TYPE_INVALID;
    FILTER_ORDER order = 0;
    CALL(Filter_IsValidFilter, filter);
    CALL(Filter_GetFilterName, filter, &name);
    TakeName(name);
    CALL(Filter_GetFilterContext, filter, &context);
    CALL(Filter_GetFilterType, filter, &type);
    CALL(Filter_GetFilterOrder, filter, &order);
    const FILTER_ENUM_FILTER goOn = [](PVOID, PacketFilter*) -> BOOLEAN { return TRUE; };
    CALL(Filter_EnumFilter, driver, goOn, nullptr, FILTER_TYPE_INCOMING_PACKET);
    CALL(Filter_DumpFilter, FILTER_TYPE_INCOMING_PACKET);
    CALL(Filter_ShowFilter, filter, 1);
}

void UseProperties(FilterAdapter* adapter)
{
    UCHAR mac[6] = {};
    ULONG number = 0;
    USHORT mtu = 0;
    BOOLEAN flag = FALSE;
    UNICODE_STRING* name = nullptr;
    CALL(Filter_GetAdapterCurrentAddress, adapter, mac);
    CALL(Filter_GetAdapterPermentAddress, adapter, mac);
    CALL(Filter_GetAdapterMediaState, adapter, &number);
    CALL(Filter_GetAdapterMediumType, adapter, &number);
    CALL(Filter_IsNdisWanAdapter, adapter, &flag);
    CALL(Filter_GetAdapterMtu, adapter, &mtu);
    CALL(Filter_GetAdapterName, adapter, &name);
    Journal::Made(name != nullptr);
    if (name != nullptr) {
        CALL(Filter_FreeMemory, name);
    }
    CALL(Filter_SetAdapterPPPSrcMacAddress, adapter, mac);
    CALL(Filter_SetAdapterPPPDstMacAddress, adapter, mac);
    CALL(Filter_GetAdapterPPPSrcMacAddress, adapter, mac);
    CALL(Filter_GetAdapterPPPDstMacAddress, adapter, mac);
    CALL(Filter_SetAdapterCongestionControl, adapter, TRUE);
    CALL(Filter_SetAdapterPacketDump, support::kOwnMac.data(), TRUE);
    CALL(Filter_GetAdapterPacketDump, support::kOwnMac.data(), &flag);
    static AdapterList list;
    CALL(Filter_GetTcpIpBoundAdapters, &list);
    IPConfig config = {};
    config.hAdapter = adapter;
    config.m_nIP = 1;
    config.m_Address[0] = {0x0100A8C0, 0x00FFFFFF, 0};
    CALL(Filter_SetIPConfig, &config);
    CALL(Filter_GetIPConfig, adapter, &config);
    ULONGLONG state = 0;
    CALL(Filter_GetAdapterMediaStateByMac, support::kOwnMac.data(), &state);
    CALL(Filter_SetAdapterMediaStateByMac, support::kOwnMac.data(), 1);
    CALL(Filter_SetAdapterMediaStateByMac, support::kOwnMac.data(), 0);
}

void UseContexts(FilterDriver* driver, FilterAdapter* adapter)
{
    ULONG index = 0;
    PVOID value = nullptr;
    if (CALL(Filter_AcquireAdapterContext, driver, &index) == FILTER_STATUS_SUCCESS) {
        CALL(Filter_SetAdapterContext, driver, adapter, index, &value);
        CALL(Filter_GetAdapterContext, adapter, index, &value);
        CALL(Filter_ReleaseAdapterContext, driver, index);
    }
}

void UseNdisRequest(FilterAdapter* adapter)
{
    static ULONG size;
    PVOID handle = nullptr;
    CALL(Filter_AllocateNdisRequest, &handle);
    Journal::Made(handle != nullptr);
    if (handle == nullptr) {
        return;
    }
    auto* request = static_cast<hook::NdisRequest*>(handle);
    request->oid = 0x00010106; // OID_GEN_MAXIMUM_FRAME_SIZE
    request->information = &size;
    request->informationLength = sizeof(size);
    CALL(Filter_IsValidNdisRequest, handle);
    CALL(Filter_MakeNdisRequest, adapter, handle, nullptr);
    Journal::Made(request->status == 0 && request->bytesDone != 0);
    CALL(Filter_FreeNdisRequest, handle);
}

} // namespace

void KeepNext()
{
    g_keepNext = true;
}

FilterPacket* TakeKept()
{
    g_keepNext = false;
    return g_kept.exchange(nullptr);
}

void RegisterClients(World& world)
{
    ULONG major = 0;
    ULONG minor = 0;
    CALL(Filter_GetAPIVersion, &major, &minor);
    const Name first("client");
    const Name second("other");
    CALL(Filter_RegisterDriver, &first, &world, 1, 0, &world.driver);
    Journal::Made(world.driver != nullptr);
    CALL(Filter_RegisterDriver, &second, nullptr, 1, 0, &world.other);
    Journal::Made(world.other != nullptr);
    if (world.driver == nullptr) {
        return;
    }
    STRING* name = nullptr;
    PVOID context = nullptr;
    CALL(Filter_IsValidDriver, world.driver);
    CALL(Filter_GetDriverName, world.driver, &name);
    TakeName(name);
    CALL(Filter_GetDriverContext, world.driver, &context);
    const char* names[] = {"incoming", "outgoing", "to adapter", "to protocol"};
    for (FILTER_TYPE type = 0; type < FILTER_TYPE_COUNT; ++type) {
        const Name filter(names[type]);
        CALL(Filter_RegisterFilter, world.driver, &filter, KeepOrBypass, nullptr, type, FILTER_ORDER_LAST,
             &world.filters[type]);
        Journal::Made(world.filters[type] != nullptr);
    }
    if (world.filters[0] != nullptr) {
        UseFilter(world.driver, world.filters[0]);
    }
}

void UseAdapters(World& world)
{
    FilterAdapter* const adapter = world.adapter;
    if (adapter == nullptr) {
        return;
    }
    ULONG id = 0;
    FilterAdapter* found = nullptr;
    CALL(Filter_IsValidAdapter, adapter);
    CALL(Filter_AdapterToId, adapter, &id);
    CALL(Filter_IdToAdapter, id, &found);
    CALL(Filter_GetFirstAdapter);
    CALL(Filter_FindAdapterByMacAddress, support::kOwnMac.data(), &found);
    CALL(Filter_FindAdapterByNetCfgInstanceId, "{ADAPTER-1}", &found);
    CALL(Filter_EnumOpenedAdapter);
    UseProperties(adapter);
    UseNdisRequest(adapter);
    if (world.driver == nullptr) {
        return;
    }
    const FILTER_ENUM_ADAPTER goOn = [](PVOID, FilterAdapter*) -> BOOLEAN { return TRUE; };
    CALL(Filter_EnumAdapter, world.driver, goOn, nullptr);
    UseContexts(world.driver, adapter);
    EventHandler* handler = nullptr;
    const FILTER_EVENT_PROC hear = [](FilterDriver*, PVOID, ULONG, PVOID, FilterAdapter*) {};
    CALL(Filter_RegisterEventHandler, world.driver, hear, nullptr, &handler);
    Journal::Made(handler != nullptr);
    if (handler != nullptr) {
        CALL(Filter_IsValidEventHandler, handler);
        Recorded("an adapter's status", [&] { hook::IndicateStatus(adapter, 0x4001000B); });
        CALL(Filter_DeregisterEventHandler, world.driver, handler);
    }
}

void DeregisterClients(World& world)
{
    if (world.filters[1] != nullptr) {
        CALL(Filter_DeregisterFilter, world.driver, world.filters[1]);
    }
    for (FilterDriver* driver : {world.driver, world.other}) { // the rest goes with its driver
        if (driver != nullptr) {
            CALL(Filter_DeregisterDriver, driver);
        }
    }
    world.driver = world.other = nullptr;
    for (PacketFilter*& filter : world.filters) {
        filter = nullptr;
    }
}

void UseTimers(World& world)
{
    static std::atomic<bool> fired;
    fired = false;
    FilterTimer* timer = nullptr;
    if (world.driver == nullptr) {
        return;
    }
    const FILTER_TIMER_PROC fire = [](FilterDriver*, PVOID, FilterTimer*, PVOID) { fired = true; };
    CALL(Filter_InitializeTimer, world.driver, fire, nullptr, FALSE, &timer);
    Journal::Made(timer != nullptr);
    if (timer == nullptr) {
        return;
    }
    CALL(Filter_IsValidTimer, timer);
    machine::StopClock(132'000'000'000'000'000);
    CALL(Filter_StartTimer, timer, 5);
    Recorded("a timer expires", [] { machine::AdvanceClock(10); });
    Journal::Made(fired);
    machine::StartClock();
    CALL(Filter_StopTimer, timer);
    CALL(Filter_FreeTimer, world.driver, timer);
}

void UseInterfaces(World& world)
{
    struct Block {
        USHORT length = sizeof(Block);
        USHORT value = 1;
    } block;
    const Name name("an interface");
    IfEventHandler* handler = nullptr;
    FilterInterface* published = nullptr;
    PVOID copy = nullptr;
    if (world.driver == nullptr || world.other == nullptr) {
        return;
    }
    const FILTER_IF_EVENT_PROC hear = [](FilterDriver*, PVOID, ULONG, PVOID, const STRING*) {};
    CALL(Filter_RegisterIfEventHandler, world.other, hear, nullptr, &handler);
    Journal::Made(handler != nullptr);
    if (handler != nullptr) {
        CALL(Filter_IsValidIfEventHandler, handler);
    }
    CALL(Filter_RegisterInterface, world.driver, &name, &block, &published);
    Journal::Made(published != nullptr);
    if (published != nullptr) {
        CALL(Filter_IsValidInterfaceObject, published);
        CALL(Filter_QueryInterface, world.other, &name, &copy);
        Journal::Made(copy != nullptr);
        if (copy != nullptr) {
            CALL(Filter_IsValidInterface, copy);
            CALL(Filter_ReleaseInterface, world.other, copy);
        }
        CALL(Filter_DeregisterInterface, world.driver, published);
    }
    if (handler != nullptr) {
        CALL(Filter_DeregisterIfEventHandler, world.other, handler);
    }
}

} // namespace faults
