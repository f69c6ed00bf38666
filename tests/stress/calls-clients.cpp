// Client drivers, their filters and their handlers of three kinds.
#include "rows.h"

#include <cstring>

namespace stress
{

namespace
{

// Registers the one handler of a kind that a driver may have.
template <auto kRegister, class Handle, auto kProcedure, FILTER_STATUS kKnown>
struct Handling {
    static Outcome Legal(Caller& caller)
    {
        auto held = Vacancy<Handle>(caller);
        if (!held) {
            return Outcome::NothingToUse;
        }
        Handle* handle = nullptr;
        PVOID const context = Renew(held, "handler");
        const Outcome outcome = caller.Judge(kRegister(held.driver.Get(), kProcedure, context, &handle));
        held.handle.Set(handle);
        return outcome;
    }
    static void Illegal(Caller& caller)
    {
        const auto lent = Borrow<Handle>(caller);
        Handle* handle = nullptr;
        if (lent) {
            FilterDriver* const driver = lent.driver.Get();
            ExpectNullsRefused<0, 1, 3>(caller, kRegister, driver, kProcedure, PVOID{}, &handle);
            caller.Expect(kRegister(driver, kProcedure, nullptr, &handle), kKnown);
        }
        caller.Expect(kRegister(NoHandle<FilterDriver>(caller), kProcedure, nullptr, &handle),
                      FILTER_ERROR_INVALID_DRIVER_HANDLE);
        caller.Check(handle == nullptr, "nothing is handed out on failure");
    }
};

// --------------------------------------------------------------------------------------------------- drivers

Outcome RegisterDriver(Caller& caller)
{
    auto place = FirstOf(caller.Stream(), TheWorld().clients,
                         [](Client& client) { return Hold<FilterDriver>::Vacant(client.driver); });
    if (!place) {
        return Outcome::NothingToUse;
    }
    const size_t index = IndexOf(place.Place());
    const Counted name(ClientName(index));
    FilterDriver* driver = nullptr;
    const Outcome outcome =
        caller.Judge(Filter_RegisterDriver(name.Get(), &TheWorld().clients[index], 1, 0, &driver));
    place.Set(driver);
    return outcome;
}

void RegisterDriverWrongly(Caller& caller)
{
    const auto known = AnyDriver(caller);
    const Counted name(known ? ClientName(IndexOf(known.Place())) : "nobody");
    FilterDriver* driver = nullptr;
    ExpectNullsRefused<0, 4>(caller, Filter_RegisterDriver, name.Get(), PVOID{}, ULONG{1}, ULONG{0}, &driver);
    caller.Expect(Filter_RegisterDriver(name.Get(), nullptr, caller.Stream().Below(3) + 2, 0, &driver),
                  FILTER_ERROR_UNSUPPORTED_API_VERSION);
    if (known) {
        caller.Expect(Filter_RegisterDriver(name.Get(), nullptr, 1, 0, &driver),
                      FILTER_ERROR_DRIVER_ALREADY_REGISTERED);
    }
}

template <class Handle, class Drop>
void DropChildren(Client& client, const Drop& drop)
{
    for (Child<Handle>& child : client.Children<Handle>()) {
        if (child.slot.Take()) {
            drop(child.slot.Value());
            // Callbacks of a timer are not waited for.
            child.registration->live.store(std::is_same_v<Handle, FilterTimer>, std::memory_order_relaxed);
            child.slot.Empty();
        }
    }
}

// What the framework would not take along goes first; of the rest now and then some. Nobody has borrowed anything of
// the client, as its driver is held.
FILTER_STATUS Depart(Caller& caller, Client& client, FilterDriver* driver)
{
    ULONG contextSlot = 0;
    caller.Expect(Filter_AcquireAdapterContext(driver, &contextSlot), FILTER_STATUS_SUCCESS);
    caller.Expect(Filter_ReleaseAdapterContext(driver, contextSlot), FILTER_STATUS_SUCCESS);
    DropChildren<IfEventHandler>(client, [&](IfEventHandler* handler) {
        caller.Expect(Filter_DeregisterIfEventHandler(driver, handler), FILTER_STATUS_SUCCESS);
    });
    DropChildren<VOID>(client, [&](PVOID copy) {
        caller.Judge(Filter_ReleaseInterface(driver, copy), {FILTER_ERROR_INVALID_FILTER_INTERFACE});
    });
    const bool tidy = caller.Stream().Chance(70);
    const auto leave = [](const void*) {};
    if (tidy) {
        DropChildren<FilterInterface>(client, [&](FilterInterface* entry) {
            caller.Judge(Filter_DeregisterInterface(driver, entry), {FILTER_ERROR_INTERFACE_ARE_REFERENCED});
        });
    }
    const FILTER_STATUS status = Filter_DeregisterDriver(driver);
    DropChildren<FilterInterface>(client, leave);
    DropChildren<PacketFilter>(client, leave);
    DropChildren<EventHandler>(client, leave);
    DropChildren<IoCtrlHandler>(client, leave);
    DropChildren<FilterTimer>(client, leave);
    return status;
}

Hold<FilterDriver> TakeDriver(Caller& caller)
{
    return FirstOf(caller.Stream(), TheWorld().clients,
                   [](Client& client) { return Hold<FilterDriver>::Taken(client.driver); });
}

// Not as often as the other kinds of call: a client is to have a life.
Outcome DeregisterDriver(Caller& caller)
{
    if (caller.Stream().Chance(90)) {
        return Outcome::NothingToUse;
    }
    auto place = TakeDriver(caller);
    if (!place) {
        return Outcome::NothingToUse;
    }
    Client& client = TheWorld().clients[IndexOf(place.Place())];
    const FILTER_STATUS status = Depart(caller, client, place.Get());
    place.Set(nullptr);
    return caller.Judge(status);
}

void DeregisterDriverWrongly(Caller& caller)
{
    caller.Expect(Filter_DeregisterDriver(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    caller.Expect(Filter_DeregisterDriver(NoHandle<FilterDriver>(caller)),
                  FILTER_ERROR_INVALID_DRIVER_HANDLE);
    if (auto place = caller.Stream().Chance(3) ? TakeDriver(caller) : Hold<FilterDriver>()) {
        caller.Alone([&] {
            FilterDriver* const stale = place.Get();
            caller.Expect(Depart(caller, TheWorld().clients[IndexOf(place.Place())], stale),
                          FILTER_STATUS_SUCCESS);
            const FILTER_STATUS again = Filter_DeregisterDriver(stale);
            caller.Check(again == FILTER_ERROR_INVALID_DRIVER_HANDLE ||
                             again == FILTER_ERROR_DRIVER_NOT_FOUND,
                         "a stale driver is refused");
            place.Set(nullptr);
        });
    }
}

// --------------------------------------------------------------------------------------------------- filters

Outcome RegisterFilter(Caller& caller)
{
    auto held = Vacancy<PacketFilter>(caller);
    if (!held) {
        return Outcome::NothingToUse;
    }
    const auto place =
        static_cast<size_t>(held.child - TheWorld().clients[IndexOf(held.driver.Place())].filters);
    const Counted name(ClientName(IndexOf(held.driver.Place())) + "/" + std::to_string(place));
    const auto type = static_cast<FILTER_TYPE>(caller.Stream().Below(FILTER_TYPE_COUNT));
    const FILTER_ORDER order =
        caller.Stream().OneOf<FILTER_ORDER>({FILTER_ORDER_FIRST, FILTER_ORDER_NEXT, FILTER_ORDER_LAST,
                                             static_cast<FILTER_ORDER>(caller.Stream().Next())});
    PacketFilter* filter = nullptr;
    const Outcome outcome = caller.Judge(Filter_RegisterFilter(held.driver.Get(), name.Get(), FilterProcedure,
                                                               Renew(held, "filter"), type, order, &filter));
    held.handle.Set(filter);
    return outcome;
}

void RegisterFilterWrongly(Caller& caller)
{
    const auto lent = Borrow<PacketFilter>(caller);
    if (!lent) {
        return;
    }
    FILTER_TYPE type = FILTER_TYPE_INVALID;
    STRING* name = nullptr;
    PacketFilter* filter = nullptr;
    caller.Expect(Filter_GetFilterType(lent.handle.Get(), &type), FILTER_STATUS_SUCCESS);
    caller.Expect(Filter_GetFilterName(lent.handle.Get(), &name), FILTER_STATUS_SUCCESS);
    const auto attempt = [&](FilterDriver* driver, FILTER_TYPE chain, FILTER_STATUS expected) {
        caller.Expect(
            Filter_RegisterFilter(driver, name, FilterProcedure, nullptr, chain, FILTER_ORDER_LAST, &filter),
            expected);
    };
    FilterDriver* const driver = lent.driver.Get();
    ExpectNullsRefused<0, 1, 2, 6>(caller, Filter_RegisterFilter, driver, static_cast<const STRING*>(name),
                                   FilterProcedure, PVOID{}, type, FILTER_ORDER{FILTER_ORDER_LAST}, &filter);
    attempt(NoHandle<FilterDriver>(caller), type, FILTER_ERROR_INVALID_DRIVER_HANDLE);
    attempt(driver, caller.Stream().OneOf<FILTER_TYPE>({FILTER_TYPE_INVALID, 4, 0x7FFFFFFF}),
            FILTER_ERROR_INVALID_FILTER_TYPE);
    attempt(driver, type, FILTER_ERROR_FILTER_ALREADY_REGISTERED);
    caller.Check(filter == nullptr, "nothing is handed out on failure");
    caller.Expect(Filter_FreeMemory(name), FILTER_STATUS_SUCCESS);
}

BOOLEAN LookAtFilter(PVOID count, PacketFilter* filter)
{
    PVOID context = nullptr;
    if (Filter_GetFilterContext(filter, &context) != FILTER_STATUS_SUCCESS) {
        Fail("a filter of the enumeration is not valid");
    }
    ++*static_cast<uint32_t*>(count);
    return TRUE;
}

Outcome EnumFilter(Caller& caller)
{
    const auto driver = AnyDriver(caller);
    const auto type = static_cast<FILTER_TYPE>(caller.Stream().Below(FILTER_TYPE_COUNT));
    uint32_t count = 0;
    if (!driver) {
        return Outcome::NothingToUse;
    }
    const FILTER_STATUS status = Filter_EnumFilter(driver.Get(), LookAtFilter, &count, type);
    caller.Check(type != FILTER_TYPE_INCOMING_PACKET || count == 0, "an enumeration of type 0 finds none");
    return caller.Judge(status);
}

void EnumFilterWrongly(Caller& caller)
{
    const auto driver = AnyDriver(caller);
    uint32_t count = 0;
    ExpectNullsRefused<0, 1>(caller, Filter_EnumFilter, driver.Get(), LookAtFilter,
                             static_cast<PVOID>(&count), FILTER_TYPE{1});
    caller.Expect(Filter_EnumFilter(NoHandle<FilterDriver>(caller), LookAtFilter, &count, 1),
                  FILTER_ERROR_INVALID_DRIVER_HANDLE);
    if (driver) {
        caller.Expect(Filter_EnumFilter(driver.Get(), LookAtFilter, &count, 4),
                      FILTER_ERROR_INVALID_FILTER_TYPE);
    }
}

Outcome DumpFilter(Caller& caller)
{
    return caller.Judge(
        Filter_DumpFilter(static_cast<FILTER_TYPE>(caller.Stream().Below(FILTER_TYPE_COUNT))));
}

void DumpFilterWrongly(Caller& caller)
{
    caller.Expect(Filter_DumpFilter(caller.Stream().OneOf<FILTER_TYPE>({FILTER_TYPE_INVALID, 4, 1000})),
                  FILTER_ERROR_INVALID_FILTER_TYPE);
}

Outcome ShowFilter(Caller& caller)
{
    const auto lent = Borrow<PacketFilter>(caller);
    if (!lent) {
        return Outcome::NothingToUse;
    }
    Filter_ShowFilter(lent.handle.Get(), caller.Stream().Below(100));
    return Outcome::Success;
}

// -------------------------------------------------------------------------------------------------- handlers

VOID OnAdapterEvent(FilterDriver*, PVOID, ULONG nEvent, PVOID context, FilterAdapter* adapter)
{
    Standing(context, "an event handler");
    if (nEvent > FILTER_EVENT_IPCONFIG_CHANGED || !Filter_IsValidAdapter(adapter)) {
        Fail("an event handler got no event of an adapter");
    }
    Random& random = CallbackRandom();
    if (random.Chance(10)) {
        Filter_ReportEvent(nEvent, 0, "adapter %p", adapter);
    }
    if (random.Chance(10)) {
        USHORT mtu = 0;
        Filter_GetAdapterMtu(adapter, &mtu);
    }
}

VOID OnInterfaceEvent(FilterDriver* driver, PVOID, ULONG nEvent, PVOID context, const STRING* name)
{
    Standing(context, "an interface event handler");
    if (nEvent > FILTER_IF_EVENT_DEREGISTERED || name->Length == 0) {
        Fail("an interface event handler got no event of an interface");
    }
    PVOID copy = nullptr;
    if (CallbackRandom().Chance(20) && Filter_QueryInterface(driver, name, &copy) == FILTER_STATUS_SUCCESS) {
        Filter_ReleaseInterface(driver, copy); // its owner may have gone
    }
}

// Answers its driver's code, and diagnostics for its driver.
NTSTATUS OnControl(PVOID context, PIRP irp, ULONG code, PVOID input, ULONG inputLength, PVOID output,
                   ULONG outputLength, ULONG_PTR* returned)
{
    const Registration& registration = Standing(context, "a handler of control requests");
    const auto decline = [&] {
        return Filter_DefaultIoCtrlHandler(context, irp, code, input, inputLength, output, outputLength,
                                           returned);
    };
    if (code == IOCTL_NDIS_FILTER_DIAG) {
        Diag* diag = nullptr;
        if (Filter_BeginDiag(input, inputLength, output, outputLength, &diag) != FILTER_STATUS_SUCCESS) {
            return decline();
        }
        if (std::strcmp(diag->m_pszDriverName, "driver") == 0) {
            Filter_DiagPrint(diag, "%s\n", registration.name);
            return decline();
        }
        if (std::strcmp(diag->m_pszDriverName, registration.name) != 0) {
            return decline();
        }
        Filter_DiagPrint(diag, "%s: %d arguments\n", registration.name, diag->m_nArgumentCount);
        const ULONG type = CallbackRandom().Below(FILTER_TYPE_COUNT + 1);
        const FILTER_STATUS expected =
            type < FILTER_TYPE_COUNT ? FILTER_STATUS_SUCCESS : FILTER_ERROR_INVALID_FILTER_TYPE;
        if (Filter_DiagFilter(diag, static_cast<FILTER_TYPE>(type)) != expected) {
            Fail("Filter_DiagFilter");
        }
        return STATUS_SUCCESS;
    }
    const ULONG own = kOwnCode + 4 * static_cast<ULONG>(registration.name[sizeof("client-") - 1] - '0');
    if (code != own || outputLength < sizeof(ULONG)) {
        return decline();
    }
    std::memcpy(output, &code, sizeof(code));
    *returned = sizeof(code);
    return STATUS_SUCCESS;
}

Outcome RegisterIoControl(Caller& caller)
{
    auto held = Vacancy<IoCtrlHandler>(caller);
    if (!held) {
        return Outcome::NothingToUse;
    }
    IoCtrlHandler* handle = nullptr;
    PVOID const context = Renew(held, ClientName(IndexOf(held.driver.Place())));
    const Outcome outcome =
        caller.Judge(Filter_RegisterIoControl(held.driver.Get(), OnControl, context, &handle));
    held.handle.Set(handle);
    return outcome;
}

Outcome DeclineControl(Caller& caller)
{
    const NTSTATUS status =
        Filter_DefaultIoCtrlHandler(nullptr, nullptr, kOwnCode, nullptr, 0, nullptr, 0, nullptr);
    return caller.Check(status == STATUS_NOT_SUPPORTED, "the default handler declines");
}

// ------------------------------------------------------------------------------------------------- the table

constexpr auto D = Level::Dispatch;

using EventHandling = Handling<Filter_RegisterEventHandler, EventHandler, OnAdapterEvent,
                               FILTER_ERROR_EVENT_HANDLER_ALREADY_REGISTERED>;
using IfEventHandling = Handling<Filter_RegisterIfEventHandler, IfEventHandler, OnInterfaceEvent,
                                 FILTER_ERROR_EVENT_HANDLER_ALREADY_REGISTERED>;
using ControlHandling = Handling<Filter_RegisterIoControl, IoCtrlHandler, OnControl,
                                 FILTER_ERROR_IOCTL_HANDLER_ALREADY_REGISTERED>;
using FilterEnding = Ending<Filter_DeregisterFilter, PacketFilter, FILTER_ERROR_INVALID_PACKET_FILTER,
                            FILTER_ERROR_FILTER_NOT_FOUND, FILTER_ERROR_INVALID_FILTER_OWNER>;
using EventEnding = Ending<Filter_DeregisterEventHandler, EventHandler, FILTER_ERROR_INVALID_EVENT_HANDLER,
                           FILTER_ERROR_EVENT_HANDLER_NOT_FOUND, FILTER_ERROR_INVALID_EVENT_HANDLER_OWNER>;
using IfEventEnding =
    Ending<Filter_DeregisterIfEventHandler, IfEventHandler, FILTER_ERROR_INVALID_EVENT_HANDLER,
           FILTER_ERROR_EVENT_HANDLER_NOT_FOUND, FILTER_ERROR_INVALID_EVENT_HANDLER_OWNER>;
using ControlEnding = Ending<Filter_DeregisterIoControl, IoCtrlHandler, FILTER_ERROR_INVALID_IOCTL_HANDLER,
                             FILTER_ERROR_IOCTL_HANDLER_NOT_FOUND, FILTER_ERROR_INVALID_IOCTL_HANDLER_OWNER>;

constexpr Call kCalls[] = {
    {"Filter_RegisterDriver", Actor::Caller, D, 1, RegisterDriver, RegisterDriverWrongly},
    ValidityCall<Filter_IsValidDriver, FilterDriver>("Filter_IsValidDriver"),
    GetterCall<Filter_GetDriverName, FilterDriver, STRING*, FILTER_ERROR_INVALID_DRIVER_HANDLE>(
        "Filter_GetDriverName"),
    GetterCall<Filter_GetDriverContext, FilterDriver, PVOID, FILTER_ERROR_INVALID_DRIVER_HANDLE>(
        "Filter_GetDriverContext"),
    {"Filter_DeregisterDriver", Actor::Caller, D, 1, DeregisterDriver, DeregisterDriverWrongly},
    {"Filter_RegisterFilter", Actor::Caller, D, 20, RegisterFilter, RegisterFilterWrongly},
    ValidityCall<Filter_IsValidFilter, PacketFilter>("Filter_IsValidFilter"),
    {"Filter_DeregisterFilter", Actor::Caller, D, 20, FilterEnding::Legal, FilterEnding::Illegal},
    GetterCall<Filter_GetFilterName, PacketFilter, STRING*, FILTER_ERROR_INVALID_PACKET_FILTER>(
        "Filter_GetFilterName"),
    GetterCall<Filter_GetFilterContext, PacketFilter, PVOID, FILTER_ERROR_INVALID_PACKET_FILTER>(
        "Filter_GetFilterContext"),
    GetterCall<Filter_GetFilterType, PacketFilter, FILTER_TYPE, FILTER_ERROR_INVALID_PACKET_FILTER>(
        "Filter_GetFilterType"),
    GetterCall<Filter_GetFilterOrder, PacketFilter, FILTER_ORDER, FILTER_ERROR_INVALID_PACKET_FILTER>(
        "Filter_GetFilterOrder"),
    {"Filter_EnumFilter", Actor::Caller, D, 80, EnumFilter, EnumFilterWrongly},
    {"Filter_DumpFilter", Actor::Caller, D, 99, DumpFilter, DumpFilterWrongly},
    {"Filter_ShowFilter", Actor::Caller, D, 50, ShowFilter, nullptr},
    {"Filter_RegisterEventHandler", Actor::Caller, D, 20, EventHandling::Legal, EventHandling::Illegal},
    ValidityCall<Filter_IsValidEventHandler, EventHandler>("Filter_IsValidEventHandler"),
    {"Filter_DeregisterEventHandler", Actor::Caller, D, 20, EventEnding::Legal, EventEnding::Illegal},
    {"Filter_RegisterIfEventHandler", Actor::Caller, D, 20, IfEventHandling::Legal, IfEventHandling::Illegal},
    ValidityCall<Filter_IsValidIfEventHandler, IfEventHandler>("Filter_IsValidIfEventHandler"),
    {"Filter_DeregisterIfEventHandler", Actor::Caller, D, 20, IfEventEnding::Legal, IfEventEnding::Illegal},
    {"Filter_RegisterIoControl", Actor::Caller, D, 20, RegisterIoControl, ControlHandling::Illegal},
    ValidityCall<Filter_IsValidIoCtrlHandler, IoCtrlHandler>("Filter_IsValidIoCtrlHandler"),
    {"Filter_DeregisterIoControl", Actor::Caller, D, 20, ControlEnding::Legal, ControlEnding::Illegal},
    {"Filter_DefaultIoCtrlHandler", Actor::Caller, D, 99, DeclineControl, nullptr},
};

} // namespace

std::span<const Call> ClientCalls()
{
    return kCalls;
}

} // namespace stress
