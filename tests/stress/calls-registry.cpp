// Adapters as client drivers see them: the table, identifiers, properties, contexts.
#include "rows.h"

#include <cstring>

namespace stress
{

namespace
{

constexpr uint8_t kNobodysAddress[6] = {0x02, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

// A query of one property; `kNullAnswer` is what a null handle gets.
template <auto kGet, class Output, FILTER_STATUS kMayAnswer = FILTER_STATUS_SUCCESS,
          FILTER_STATUS kNullAnswer = FILTER_ERROR_INVALID_ARGUMENT>
struct Property {
    static constexpr size_t kCount = std::is_same_v<Output, UCHAR> ? 6 : 1;

    static Outcome Legal(Caller& caller)
    {
        Output output[kCount] = {};
        const FILTER_STATUS status = kGet(AnyAdapter(caller.Stream()), output);
        if constexpr (std::is_same_v<Output, UNICODE_STRING*>) {
            caller.Check(output[0] != nullptr && output[0]->Length != 0, "an adapter has a name");
            caller.Expect(Filter_FreeMemory(output[0]), FILTER_STATUS_SUCCESS);
        }
        return caller.Judge(status, {kMayAnswer});
    }
    static void Illegal(Caller& caller)
    {
        Output output[kCount] = {};
        FilterAdapter* const adapter = AnyAdapter(caller.Stream());
        caller.Expect(kGet(nullptr, output), kNullAnswer);
        caller.Expect(kGet(adapter, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
        caller.Expect(kGet(NoHandle<FilterAdapter>(caller), output), FILTER_ERROR_INVALID_ADAPTER_HANDLE);
        if (!caller.IsRaised()) {
            caller.Expect(kGet(adapter, static_cast<Output*>(caller.Unwritable())), FILTER_ERROR_EXCEPTION);
        }
    }
};

template <auto kSet>
struct MacSetting {
    static Outcome Legal(Caller& caller)
    {
        UCHAR address[6];
        caller.Stream().Fill(address, sizeof(address));
        return caller.Judge(kSet(AnyAdapter(caller.Stream()), address));
    }
    static void Illegal(Caller& caller)
    {
        const UCHAR address[6] = {};
        caller.Expect(kSet(nullptr, address), FILTER_ERROR_INVALID_ARGUMENT);
        caller.Expect(kSet(AnyAdapter(caller.Stream()), nullptr), FILTER_ERROR_INVALID_ARGUMENT);
        caller.Expect(kSet(NoHandle<FilterAdapter>(caller), address), FILTER_ERROR_INVALID_ADAPTER_HANDLE);
    }
};

support::MacAddress AnyAddress(Caller& caller)
{
    return AddressOfAdapter(caller.Stream().Below(kAdapters));
}

// ----------------------------------------------------------------------------------------------- the table

Outcome IsValidAdapter(Caller& caller)
{
    return caller.Check(Filter_IsValidAdapter(AnyAdapter(caller.Stream())), "an adapter is valid");
}

void IsValidAdapterWrongly(Caller& caller)
{
    caller.Check(!Filter_IsValidAdapter(NoHandle<FilterAdapter>(caller)), "what is no adapter is not valid");
}

// There are 32 identifiers, and adapters that come and go use them up.
Outcome AdapterToId(Caller& caller)
{
    FilterAdapter* const adapter = AnyAdapter(caller.Stream());
    ULONG id = 0;
    const FILTER_STATUS status = Filter_AdapterToId(adapter, &id);
    if (status == FILTER_STATUS_SUCCESS) {
        FilterAdapter* back = nullptr;
        caller.Expect(Filter_IdToAdapter(id, &back), FILTER_STATUS_SUCCESS);
        caller.Check(back == adapter, "an identifier leads back to its adapter");
    }
    return caller.Judge(status, {FILTER_ERROR_INTERNAL_ERROR});
}

Outcome IdToAdapter(Caller& caller)
{
    FilterAdapter* adapter = nullptr;
    return caller.Judge(Filter_IdToAdapter(1 + caller.Stream().Below(kAdapters), &adapter));
}

void IdToAdapterWrongly(Caller& caller)
{
    FilterAdapter* adapter = nullptr;
    const ULONG id = caller.Stream().OneOf<ULONG>({0, 33, 0x80000000, 0xFFFFFFFF});
    caller.Expect(Filter_IdToAdapter(id, &adapter), FILTER_ERROR_INVALID_ARGUMENT);
}

Outcome GetFirstAdapter(Caller&)
{
    FilterAdapter* const adapter = Filter_GetFirstAdapter();
    return adapter != nullptr && Filter_IsValidAdapter(adapter) ? Outcome::Success : Outcome::Refused;
}

BOOLEAN LookAtAdapter(PVOID context, FilterAdapter* adapter)
{
    if (!Filter_IsValidAdapter(adapter)) {
        Fail("an adapter of the table is not valid");
    }
    return ++*static_cast<uint32_t*>(context) < 3;
}

Outcome EnumAdapter(Caller& caller)
{
    const auto driver = AnyDriver(caller);
    uint32_t count = 0;
    return driver ? caller.Judge(Filter_EnumAdapter(driver.Get(), LookAtAdapter, &count))
                  : Outcome::NothingToUse;
}

void EnumAdapterWrongly(Caller& caller)
{
    uint32_t count = 0;
    const auto driver = AnyDriver(caller);
    ExpectNullsRefused<0, 1>(caller, Filter_EnumAdapter, driver.Get(), LookAtAdapter,
                             static_cast<PVOID>(&count));
    caller.Expect(Filter_EnumAdapter(NoHandle<FilterDriver>(caller), LookAtAdapter, &count),
                  FILTER_ERROR_INVALID_DRIVER_HANDLE);
}

Outcome FindByMac(Caller& caller)
{
    FilterAdapter* adapter = nullptr;
    const auto address = AnyAddress(caller);
    return caller.Judge(Filter_FindAdapterByMacAddress(address.data(), &adapter),
                        {FILTER_ERROR_ADAPTER_NOT_FOUND});
}

void FindByMacWrongly(Caller& caller)
{
    FilterAdapter* adapter = nullptr;
    ExpectNullsRefused<0, 1>(caller, Filter_FindAdapterByMacAddress, kNobodysAddress, &adapter);
    caller.Expect(Filter_FindAdapterByMacAddress(kNobodysAddress, &adapter), FILTER_ERROR_ADAPTER_NOT_FOUND);
}

Outcome FindByName(Caller& caller)
{
    FilterAdapter* adapter = nullptr;
    const std::string name = AdapterOptionsOf(caller.Stream().Below(kAdapters)).name;
    return caller.Judge(Filter_FindAdapterByNetCfgInstanceId(name.c_str(), &adapter),
                        {FILTER_ERROR_ADAPTER_NOT_FOUND});
}

void FindByNameWrongly(Caller& caller)
{
    FilterAdapter* adapter = nullptr;
    const std::string longName(300, 'x');
    caller.Expect(Filter_FindAdapterByNetCfgInstanceId(nullptr, &adapter), FILTER_ERROR_INVALID_ARGUMENT);
    caller.Expect(Filter_FindAdapterByNetCfgInstanceId("x", nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    caller.Expect(Filter_FindAdapterByNetCfgInstanceId("", &adapter), FILTER_ERROR_INVALID_ARGUMENT);
    caller.Expect(Filter_FindAdapterByNetCfgInstanceId(longName.c_str(), &adapter),
                  FILTER_ERROR_ADAPTER_NOT_FOUND);
}

Outcome EnumOpenedAdapter(Caller&)
{
    Filter_EnumOpenedAdapter();
    return Outcome::Success;
}

// --------------------------------------------------------------------------------------------------- settings

Outcome SetCongestionControl(Caller& caller)
{
    return caller.Judge(
        Filter_SetAdapterCongestionControl(AnyAdapter(caller.Stream()), caller.Stream().Chance(50)));
}

void SetCongestionControlWrongly(Caller& caller)
{
    caller.Expect(Filter_SetAdapterCongestionControl(nullptr, TRUE), FILTER_ERROR_INVALID_ARGUMENT);
    caller.Expect(Filter_SetAdapterCongestionControl(NoHandle<FilterAdapter>(caller), TRUE),
                  FILTER_ERROR_INVALID_ADAPTER_HANDLE);
}

Outcome GetPacketDump(Caller& caller)
{
    BOOLEAN enabled = FALSE;
    const auto address = AnyAddress(caller);
    return caller.Judge(Filter_GetAdapterPacketDump(address.data(), &enabled),
                        {FILTER_ERROR_ADAPTER_NOT_FOUND});
}

void GetPacketDumpWrongly(Caller& caller)
{
    BOOLEAN enabled = FALSE;
    ExpectNullsRefused<0, 1>(caller, Filter_GetAdapterPacketDump, kNobodysAddress, &enabled);
    caller.Expect(Filter_GetAdapterPacketDump(kNobodysAddress, &enabled), FILTER_ERROR_ADAPTER_NOT_FOUND);
}

Outcome SetPacketDump(Caller& caller)
{
    const auto address = AnyAddress(caller);
    return caller.Judge(Filter_SetAdapterPacketDump(address.data(), caller.Stream().Chance(30)),
                        {FILTER_ERROR_ADAPTER_NOT_FOUND});
}

void SetPacketDumpWrongly(Caller& caller)
{
    caller.Expect(Filter_SetAdapterPacketDump(nullptr, TRUE), FILTER_ERROR_INVALID_ARGUMENT);
    caller.Expect(Filter_SetAdapterPacketDump(kNobodysAddress, TRUE), FILTER_ERROR_ADAPTER_NOT_FOUND);
}

Outcome GetBoundAdapters(Caller& caller)
{
    const auto list = std::make_unique<AdapterList>();
    const FILTER_STATUS status = Filter_GetTcpIpBoundAdapters(list.get());
    caller.Check(list->m_nAdapterCount <= kAdapters, "there are no more adapters than there are");
    return caller.Judge(status, {FILTER_ERROR_INTERFACE_NOT_ACTIVE});
}

void GetBoundAdaptersWrongly(Caller& caller)
{
    caller.Expect(Filter_GetTcpIpBoundAdapters(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
}

Outcome SetIpConfig(Caller& caller)
{
    IPConfig config = {};
    caller.Stream().Fill(&config, sizeof(config));
    config.hAdapter = AnyAdapter(caller.Stream());
    config.m_nIP = caller.Stream().Below(9);
    config.m_nGW = caller.Stream().Below(9);
    config.m_nDHCP = caller.Stream().Below(9);
    config.m_nDNS = caller.Stream().Below(9);
    return caller.Judge(Filter_SetIPConfig(&config));
}

void SetIpConfigWrongly(Caller& caller)
{
    IPConfig config = {};
    config.hAdapter = NoHandle<FilterAdapter>(caller);
    caller.Expect(Filter_SetIPConfig(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    caller.Expect(Filter_SetIPConfig(&config), FILTER_ERROR_INVALID_ADAPTER_HANDLE);
}

Outcome GetIpConfig(Caller& caller)
{
    IPConfig config;
    FilterAdapter* const adapter = AnyAdapter(caller.Stream());
    return caller.Check(Filter_GetIPConfig(adapter, caller.Stream().Chance(90) ? &config : nullptr) ==
                            &adapter->m_IPConfig,
                        "an adapter has its own configuration");
}

void GetIpConfigWrongly(Caller& caller)
{
    IPConfig config;
    caller.Check(Filter_GetIPConfig(nullptr, &config) == nullptr &&
                     Filter_GetIPConfig(NoHandle<FilterAdapter>(caller), &config) == nullptr,
                 "what is no adapter has no configuration");
}

Outcome GetMediaState(Caller& caller)
{
    uint64_t state = 0;
    const auto address = AnyAddress(caller);
    return caller.Judge(Filter_GetAdapterMediaStateByMac(address.data(), &state),
                        {FILTER_ERROR_ADAPTER_NOT_FOUND, FILTER_ERROR_INTERFACE_NOT_ACTIVE});
}

void GetMediaStateWrongly(Caller& caller)
{
    uint64_t state = 0;
    caller.Expect(Filter_GetAdapterMediaStateByMac(nullptr, &state), FILTER_ERROR_INVALID_ARGUMENT);
    caller.Expect(Filter_GetAdapterMediaStateByMac(kNobodysAddress, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
}

Outcome SetMediaState(Caller& caller)
{
    const auto address = AnyAddress(caller);
    return caller.Judge(
        Filter_SetAdapterMediaStateByMac(address.data(), static_cast<UCHAR>(caller.Stream().Below(2))),
        {FILTER_ERROR_ADAPTER_NOT_FOUND, FILTER_ERROR_INTERFACE_NOT_ACTIVE});
}

void SetMediaStateWrongly(Caller& caller)
{
    caller.Expect(Filter_SetAdapterMediaStateByMac(nullptr, 0), FILTER_ERROR_INVALID_ARGUMENT);
    const FILTER_STATUS status = Filter_SetAdapterMediaStateByMac(kNobodysAddress, 0);
    caller.Check(status == FILTER_ERROR_ADAPTER_NOT_FOUND || status == FILTER_ERROR_INTERFACE_NOT_ACTIVE,
                 "nobody's media state cannot be set");
}

// --------------------------------------------------------------------------------------------------- contexts

Outcome AcquireContext(Caller& caller)
{
    const auto driver = AnyDriver(caller);
    ULONG slot = FILTER_ADAPTER_CONTEXT_COUNT;
    if (!driver) {
        return Outcome::NothingToUse;
    }
    const Outcome outcome = caller.Judge(Filter_AcquireAdapterContext(driver.Get(), &slot));
    caller.Check(slot < FILTER_ADAPTER_CONTEXT_COUNT, "a slot is one of the sixteen");
    TheWorld().clients[IndexOf(driver.Place())].contextSlot.store(slot, std::memory_order_relaxed);
    return outcome;
}

void AcquireContextWrongly(Caller& caller)
{
    ULONG slot = 0;
    const auto driver = AnyDriver(caller);
    caller.Expect(Filter_AcquireAdapterContext(nullptr, &slot), FILTER_ERROR_INVALID_ARGUMENT);
    caller.Expect(Filter_AcquireAdapterContext(driver.Get(), nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    caller.Expect(Filter_AcquireAdapterContext(NoHandle<FilterDriver>(caller), &slot),
                  FILTER_ERROR_INVALID_DRIVER_HANDLE);
}

ULONG ContextSlotOf(const Loan<FilterDriver>& driver)
{
    return TheWorld().clients[IndexOf(driver.Place())].contextSlot.load(std::memory_order_relaxed);
}

// Another thread of the same client may have released the slot.
Outcome SetContext(Caller& caller)
{
    const auto driver = AnyDriver(caller);
    return driver ? caller.Judge(Filter_SetAdapterContext(driver.Get(), AnyAdapter(caller.Stream()),
                                                          ContextSlotOf(driver), driver.Get()),
                                 {FILTER_ERROR_INVALID_CONTEXT_OWNER})
                  : Outcome::NothingToUse;
}

// There are fewer clients than slots: the last one is nobody's.
void SetContextWrongly(Caller& caller)
{
    const auto driver = AnyDriver(caller);
    FilterAdapter* const adapter = AnyAdapter(caller.Stream());
    caller.Expect(Filter_SetAdapterContext(nullptr, adapter, 0, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    caller.Expect(Filter_SetAdapterContext(NoHandle<FilterDriver>(caller), adapter, 0, nullptr),
                  FILTER_ERROR_INVALID_DRIVER_HANDLE);
    if (driver) {
        caller.Expect(Filter_SetAdapterContext(driver.Get(), nullptr, 0, nullptr),
                      FILTER_ERROR_INVALID_ARGUMENT);
        caller.Expect(Filter_SetAdapterContext(driver.Get(), NoHandle<FilterAdapter>(caller), 0, nullptr),
                      FILTER_ERROR_INVALID_ADAPTER_HANDLE);
        caller.Expect(
            Filter_SetAdapterContext(driver.Get(), adapter, 16 + caller.Stream().Below(100), nullptr),
            FILTER_ERROR_INVALID_ADAPTER_CONTEXT);
        caller.Expect(Filter_SetAdapterContext(driver.Get(), adapter, 15, nullptr),
                      FILTER_ERROR_INVALID_CONTEXT_OWNER);
    }
}

Outcome GetContext(Caller& caller)
{
    PVOID context = nullptr;
    return caller.Judge(
        Filter_GetAdapterContext(AnyAdapter(caller.Stream()), caller.Stream().Below(16), &context));
}

void GetContextWrongly(Caller& caller)
{
    PVOID context = nullptr;
    FilterAdapter* const adapter = AnyAdapter(caller.Stream());
    caller.Expect(Filter_GetAdapterContext(nullptr, 0, &context), FILTER_ERROR_INVALID_ARGUMENT);
    caller.Expect(Filter_GetAdapterContext(adapter, 0, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    caller.Expect(Filter_GetAdapterContext(NoHandle<FilterAdapter>(caller), 0, &context),
                  FILTER_ERROR_INVALID_ADAPTER_HANDLE);
    caller.Expect(Filter_GetAdapterContext(adapter, 16, &context), FILTER_ERROR_INVALID_ADAPTER_CONTEXT);
}

Outcome ReleaseContext(Caller& caller)
{
    const auto driver = AnyDriver(caller);
    return driver ? caller.Judge(Filter_ReleaseAdapterContext(driver.Get(), ContextSlotOf(driver)),
                                 {FILTER_ERROR_INVALID_CONTEXT_OWNER})
                  : Outcome::NothingToUse;
}

void ReleaseContextWrongly(Caller& caller)
{
    const auto driver = AnyDriver(caller);
    caller.Expect(Filter_ReleaseAdapterContext(nullptr, 0), FILTER_ERROR_INVALID_ARGUMENT);
    caller.Expect(Filter_ReleaseAdapterContext(NoHandle<FilterDriver>(caller), 0),
                  FILTER_ERROR_INVALID_DRIVER_HANDLE);
    if (driver) {
        caller.Expect(Filter_ReleaseAdapterContext(driver.Get(), 16), FILTER_ERROR_INVALID_ADAPTER_CONTEXT);
        caller.Expect(Filter_ReleaseAdapterContext(driver.Get(), 15), FILTER_ERROR_INVALID_CONTEXT_OWNER);
    }
}

// ------------------------------------------------------------------------------------------------- the table

constexpr auto D = Level::Dispatch;
constexpr auto P = Level::Passive;

template <auto kGet, class Output, FILTER_STATUS kMayAnswer = FILTER_STATUS_SUCCESS>
constexpr Call PropertyCall(const char* name, uint32_t floor = 99)
{
    return RowCall<Property<kGet, Output, kMayAnswer>>(name, floor);
}

// All zero until it was set.
template <auto kGet>
constexpr Call PppCall(const char* name)
{
    return PropertyCall<kGet, UCHAR, FILTER_ERROR_ADAPTER_NOT_OPEN>(name, 1);
}

constexpr Call kCalls[] = {
    {"Filter_IsValidAdapter", Actor::Caller, D, 99, IsValidAdapter, IsValidAdapterWrongly},
    {"Filter_AdapterToId", Actor::Caller, D, 20, AdapterToId, nullptr},
    {"Filter_IdToAdapter", Actor::Caller, D, 99, IdToAdapter, IdToAdapterWrongly},
    {"Filter_GetFirstAdapter", Actor::Caller, D, 20, GetFirstAdapter, nullptr},
    {"Filter_EnumAdapter", Actor::Caller, D, 80, EnumAdapter, EnumAdapterWrongly},
    {"Filter_FindAdapterByMacAddress", Actor::Caller, D, 20, FindByMac, FindByMacWrongly},
    {"Filter_FindAdapterByNetCfgInstanceId", Actor::Caller, D, 20, FindByName, FindByNameWrongly},
    {"Filter_EnumOpenedAdapter", Actor::Caller, D, 99, EnumOpenedAdapter, nullptr},
    PropertyCall<Filter_GetAdapterCurrentAddress, UCHAR>("Filter_GetAdapterCurrentAddress"),
    PropertyCall<Filter_GetAdapterPermentAddress, UCHAR>("Filter_GetAdapterPermentAddress"),
    PropertyCall<Filter_GetAdapterMediaState, ULONG>("Filter_GetAdapterMediaState"),
    PropertyCall<Filter_GetAdapterMediumType, ULONG>("Filter_GetAdapterMediumType"),
    PropertyCall<Filter_IsNdisWanAdapter, BOOLEAN>("Filter_IsNdisWanAdapter"),
    RowCall<
        Property<Filter_GetAdapterMtu, USHORT, FILTER_STATUS_SUCCESS, FILTER_ERROR_INVALID_ADAPTER_HANDLE>>(
        "Filter_GetAdapterMtu", 99),
    PropertyCall<Filter_GetAdapterName, UNICODE_STRING*>("Filter_GetAdapterName"),
    PppCall<Filter_GetAdapterPPPSrcMacAddress>("Filter_GetAdapterPPPSrcMacAddress"),
    PppCall<Filter_GetAdapterPPPDstMacAddress>("Filter_GetAdapterPPPDstMacAddress"),
    RowCall<MacSetting<Filter_SetAdapterPPPSrcMacAddress>>("Filter_SetAdapterPPPSrcMacAddress", 99),
    RowCall<MacSetting<Filter_SetAdapterPPPDstMacAddress>>("Filter_SetAdapterPPPDstMacAddress", 99),
    {"Filter_SetAdapterCongestionControl", Actor::Caller, D, 99, SetCongestionControl,
     SetCongestionControlWrongly},
    {"Filter_GetAdapterPacketDump", Actor::Caller, D, 20, GetPacketDump, GetPacketDumpWrongly},
    {"Filter_SetAdapterPacketDump", Actor::Caller, D, 20, SetPacketDump, SetPacketDumpWrongly},
    {"Filter_GetTcpIpBoundAdapters", Actor::Caller, D, 20, GetBoundAdapters, GetBoundAdaptersWrongly},
    {"Filter_SetIPConfig", Actor::Caller, D, 99, SetIpConfig, SetIpConfigWrongly},
    {"Filter_GetIPConfig", Actor::Caller, D, 99, GetIpConfig, GetIpConfigWrongly},
    {"Filter_GetAdapterMediaStateByMac", Actor::Caller, P, 20, GetMediaState, GetMediaStateWrongly},
    {"Filter_SetAdapterMediaStateByMac", Actor::Caller, P, 20, SetMediaState, SetMediaStateWrongly},
    {"Filter_AcquireAdapterContext", Actor::Caller, D, 80, AcquireContext, AcquireContextWrongly},
    {"Filter_SetAdapterContext", Actor::Caller, D, 20, SetContext, SetContextWrongly},
    {"Filter_GetAdapterContext", Actor::Caller, D, 99, GetContext, GetContextWrongly},
    {"Filter_ReleaseAdapterContext", Actor::Caller, D, 20, ReleaseContext, ReleaseContextWrongly},
};

} // namespace

std::span<const Call> RegistryCalls()
{
    return kCalls;
}

} // namespace stress
