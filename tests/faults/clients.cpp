// What client drivers register, and what they ask of adapters.
#include "scenario.h"

#include <algorithm>
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

// What a getter has handed out.
void TakeMade(PVOID made)
{
    if (Made(made != nullptr)) {
        CALL(Filter_FreeMemory, made);
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
    TakeMade(name);
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
    TakeMade(name);
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
    if (!MAKES(handle, Filter_AllocateNdisRequest, &handle)) {
        return;
    }
    auto* request = static_cast<hook::NdisRequest*>(handle);
    request->oid = 0x00010106; // OID_GEN_MAXIMUM_FRAME_SIZE
    request->information = &size;
    request->informationLength = sizeof(size);
    CALL(Filter_IsValidNdisRequest, handle);
    CALL(Filter_MakeNdisRequest, adapter, handle, nullptr);
    Made(request->status == 0 && request->bytesDone != 0);
    CALL(Filter_FreeNdisRequest, handle);
}

void RegisterClients(World& world)
{
    ULONG major = 0;
    ULONG minor = 0;
    CALL(Filter_GetAPIVersion, &major, &minor);
    const CountedString first("client");
    const CountedString second("other");
    MAKES(world.other, Filter_RegisterDriver, &second, nullptr, 1, 0, &world.other);
    if (!MAKES(world.driver, Filter_RegisterDriver, &first, &world, 1, 0, &world.driver)) {
        return;
    }
    STRING* name = nullptr;
    PVOID context = nullptr;
    CALL(Filter_IsValidDriver, world.driver);
    CALL(Filter_GetDriverName, world.driver, &name);
    TakeMade(name);
    CALL(Filter_GetDriverContext, world.driver, &context);
    const char* names[] = {"incoming", "outgoing", "to adapter", "to protocol"};
    for (FILTER_TYPE type = 0; type < FILTER_TYPE_COUNT; ++type) {
        const CountedString filter(names[type]);
        MAKES(world.filters[type], Filter_RegisterFilter, world.driver, &filter, KeepOrBypass, nullptr, type,
              FILTER_ORDER_LAST, &world.filters[type]);
    }
    if (world.filters[0] != nullptr) {
        UseFilter(world.driver, world.filters[0]);
    }
}

void UseAdapter(World& world, FilterAdapter* adapter)
{
    ULONG id = 0;
    FilterAdapter* found = nullptr;
    CALL(Filter_EnumOpenedAdapter); // first: the table is empty since a refresh that failed
    CALL(Filter_IsValidAdapter, adapter);
    CALL(Filter_AdapterToId, adapter, &id);
    CALL(Filter_IdToAdapter, id, &found);
    CALL(Filter_GetFirstAdapter);
    CALL(Filter_FindAdapterByMacAddress, support::kOwnMac.data(), &found);
    CALL(Filter_FindAdapterByNetCfgInstanceId, "{ADAPTER-1}", &found);
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
    if (MAKES(handler, Filter_RegisterEventHandler, world.driver, hear, nullptr, &handler)) {
        CALL(Filter_IsValidEventHandler, handler);
        Recorded("an adapter's status", [&] { hook::IndicateStatus(adapter, 0x4001000B); });
        CALL(Filter_DeregisterEventHandler, world.driver, handler);
    }
}

void UseTimer(FilterDriver* driver)
{
    static std::atomic<bool> fired;
    fired = false;
    FilterTimer* timer = nullptr;
    const FILTER_TIMER_PROC fire = [](FilterDriver*, PVOID, FilterTimer*, PVOID) { fired = true; };
    if (!MAKES(timer, Filter_InitializeTimer, driver, fire, nullptr, FALSE, &timer)) {
        return;
    }
    CALL(Filter_IsValidTimer, timer);
    machine::StopClock(132'000'000'000'000'000);
    CALL(Filter_StartTimer, timer, 5);
    Recorded("a timer expires", [] { machine::AdvanceClock(10); });
    Made(fired);
    machine::StartClock();
    CALL(Filter_StopTimer, timer);
    CALL(Filter_FreeTimer, driver, timer);
}

void UseInterface(FilterDriver* driver, FilterDriver* other)
{
    struct Block {
        USHORT length = sizeof(Block);
        USHORT value = 1;
    } block;
    const CountedString name("an interface");
    IfEventHandler* handler = nullptr;
    FilterInterface* published = nullptr;
    PVOID copy = nullptr;
    const FILTER_IF_EVENT_PROC hear = [](FilterDriver*, PVOID, ULONG, PVOID, const STRING*) {};
    if (MAKES(handler, Filter_RegisterIfEventHandler, other, hear, nullptr, &handler)) {
        CALL(Filter_IsValidIfEventHandler, handler);
    }
    if (MAKES(published, Filter_RegisterInterface, driver, &name, &block, &published)) {
        CALL(Filter_IsValidInterfaceObject, published);
        if (MAKES(copy, Filter_QueryInterface, other, &name, &copy)) {
            CALL(Filter_IsValidInterface, copy);
            CALL(Filter_ReleaseInterface, other, copy);
        }
        CALL(Filter_DeregisterInterface, driver, published);
    }
    if (handler != nullptr) {
        CALL(Filter_DeregisterIfEventHandler, other, handler);
    }
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

void UseClients(World& world)
{
    RegisterClients(world);
    if (world.adapter != nullptr) {
        UseAdapter(world, world.adapter);
    }
    if (world.driver != nullptr) {
        UseTimer(world.driver);
    }
    if (world.driver != nullptr && world.other != nullptr) {
        UseInterface(world.driver, world.other);
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
    std::fill(std::begin(world.filters), std::end(world.filters), nullptr);
}

} // namespace faults
