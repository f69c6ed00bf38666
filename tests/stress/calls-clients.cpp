// Client drivers and what they register: filters, handlers of three kinds, timers, interfaces.
#include "world.h"

#include <cstring>

namespace stress
{

namespace
{

using support::Unwritable;

// -------------------------------------------------------------------------------------------- what many share

// A query that takes a live handle and writes through a pointer, at once or by handing out a block with a name.
template <auto kGet, class Handle, class Output, FILTER_STATUS kBadHandle>
struct Getter {
    static Loan<FilterDriver> BorrowOne(Caller& caller) requires(std::is_same_v<Handle, FilterDriver>)
    {
        return AnyDriver(caller);
    }
    static Lent<Handle> BorrowOne(Caller& caller) requires(!std::is_same_v<Handle, FilterDriver>)
    {
        return Borrow<Handle>(caller);
    }
    static Handle* HandleOf(const Loan<FilterDriver>& loan) requires(std::is_same_v<Handle, FilterDriver>)
    {
        return loan.Get();
    }
    static Handle* HandleOf(const Lent<Handle>& lent) requires(!std::is_same_v<Handle, FilterDriver>)
    {
        return lent.handle.Get();
    }

    static Outcome Legal(Caller& caller)
    {
        const auto borrowed = BorrowOne(caller);
        if (!borrowed) {
            return Outcome::NothingToUse;
        }
        Output output = {};
        const Outcome outcome = caller.Judge(kGet(HandleOf(borrowed), &output));
        if constexpr (std::is_same_v<Output, STRING*>) {
            caller.Check(output != nullptr && output->Length < output->MaximumLength, "a name with its zero");
            caller.Expect(Filter_FreeMemory(output), FILTER_STATUS_SUCCESS);
        }
        return outcome;
    }
    static void Illegal(Caller& caller)
    {
        const auto borrowed = BorrowOne(caller);
        Handle* const handle = borrowed ? HandleOf(borrowed) : nullptr;
        Output output = {};
        switch (caller.Stream().Below(handle != nullptr && !caller.IsRaised() ? 4 : 3)) {
        case 0:
            return caller.Expect(kGet(nullptr, &output), FILTER_ERROR_INVALID_ARGUMENT);
        case 1:
            return caller.Expect(kGet(handle, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
        case 2:
            return caller.Expect(kGet(NoHandle<Handle>(caller), &output), kBadHandle);
        default:
            return caller.Expect(kGet(handle, Unwritable<Output>()), FILTER_ERROR_EXCEPTION);
        }
    }
};

template <auto kIsValid, class Handle>
struct Validity {
    static Outcome Legal(Caller& caller)
    {
        if constexpr (std::is_same_v<Handle, FilterDriver>) {
            const auto driver = AnyDriver(caller);
            return driver ? caller.Check(kIsValid(driver.Get()), "a live handle is valid")
                          : Outcome::NothingToUse;
        } else {
            const auto lent = Borrow<Handle>(caller);
            return lent ? caller.Check(kIsValid(lent.handle.Get()), "a live handle is valid")
                        : Outcome::NothingToUse;
        }
    }
    static void Illegal(Caller& caller)
    {
        Handle* const handle = caller.Stream().Chance(20) ? nullptr : NoHandle<Handle>(caller);
        caller.Check(!kIsValid(handle), "what is no handle is not valid");
    }
};

// Ends what a driver has registered. A stale handle is refused by its tag, or because no list has it.
template <auto kEnd, class Handle, FILTER_STATUS kBadHandle, FILTER_STATUS kNotFound,
          FILTER_STATUS kWrongOwner>
struct Ending {
    static Outcome Legal(Caller& caller)
    {
        auto held = Take<Handle>(caller);
        if (!held) {
            return Outcome::NothingToUse;
        }
        const FILTER_STATUS status = kEnd(held.driver.Get(), held.handle.Get());
        End(held);
        return caller.Judge(status);
    }
    static void Illegal(Caller& caller)
    {
        const auto driver = AnyDriver(caller);
        const auto lent = Borrow<Handle>(caller);
        Handle* const handle = lent ? lent.handle.Get() : nullptr;
        switch (caller.Stream().Below(6)) {
        case 0:
            return caller.Expect(kEnd(nullptr, handle), FILTER_ERROR_INVALID_ARGUMENT);
        case 1:
            return caller.Expect(kEnd(driver.Get(), nullptr), FILTER_ERROR_INVALID_ARGUMENT);
        case 2:
            if (handle != nullptr) {
                caller.Expect(kEnd(NoHandle<FilterDriver>(caller), handle),
                              FILTER_ERROR_INVALID_DRIVER_HANDLE);
            }
            return;
        case 3:
            if (driver) {
                caller.Expect(kEnd(driver.Get(), NoHandle<Handle>(caller)), kBadHandle);
            }
            return;
        case 4:
            if (const auto other = OtherDriver(caller, lent.driver); handle != nullptr && other) {
                caller.Expect(kEnd(other.Get(), handle), kWrongOwner);
            }
            return;
        default:
            break;
        }
        if (auto held = Take<Handle>(caller)) {
            caller.Alone([&] {
                Handle* const stale = held.handle.Get();
                caller.Expect(kEnd(held.driver.Get(), stale), FILTER_STATUS_SUCCESS);
                const FILTER_STATUS again = kEnd(held.driver.Get(), stale);
                caller.Check(again == kBadHandle || again == kNotFound, "a stale handle is refused");
                End(held);
            });
        }
    }
};

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
        FilterDriver* const driver = lent ? lent.driver.Get() : NoHandle<FilterDriver>(caller);
        Handle* handle = nullptr;
        switch (caller.Stream().Below(5)) {
        case 0:
            caller.Expect(kRegister(nullptr, kProcedure, nullptr, &handle), FILTER_ERROR_INVALID_ARGUMENT);
            break;
        case 1:
            caller.Expect(kRegister(driver, nullptr, nullptr, &handle), FILTER_ERROR_INVALID_ARGUMENT);
            break;
        case 2:
            caller.Expect(kRegister(driver, kProcedure, nullptr, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
            break;
        case 3:
            caller.Expect(kRegister(NoHandle<FilterDriver>(caller), kProcedure, nullptr, &handle),
                          FILTER_ERROR_INVALID_DRIVER_HANDLE);
            break;
        default:
            caller.Expect(kRegister(driver, kProcedure, nullptr, &handle),
                          lent ? kKnown : FILTER_ERROR_INVALID_DRIVER_HANDLE);
            break;
        }
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
    switch (caller.Stream().Below(4)) {
    case 0:
        return caller.Expect(Filter_RegisterDriver(nullptr, nullptr, 1, 0, &driver),
                             FILTER_ERROR_INVALID_ARGUMENT);
    case 1:
        return caller.Expect(Filter_RegisterDriver(name.Get(), nullptr, 1, 0, nullptr),
                             FILTER_ERROR_INVALID_ARGUMENT);
    case 2:
        return caller.Expect(
            Filter_RegisterDriver(name.Get(), nullptr, caller.Stream().Below(3) + 2, 0, &driver),
            FILTER_ERROR_UNSUPPORTED_API_VERSION);
    default:
        if (known) {
            caller.Expect(Filter_RegisterDriver(name.Get(), nullptr, 1, 0, &driver),
                          FILTER_ERROR_DRIVER_ALREADY_REGISTERED);
        }
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
    switch (caller.Stream().Below(30)) {
    case 0: {
        auto place = TakeDriver(caller);
        if (place) {
            caller.Alone([&] {
                FilterDriver* const stale = place.Get();
                Client& client = TheWorld().clients[IndexOf(place.Place())];
                caller.Expect(Depart(caller, client, stale), FILTER_STATUS_SUCCESS);
                const FILTER_STATUS again = Filter_DeregisterDriver(stale);
                caller.Check(again == FILTER_ERROR_INVALID_DRIVER_HANDLE ||
                                 again == FILTER_ERROR_DRIVER_NOT_FOUND,
                             "a stale driver is refused");
                place.Set(nullptr);
            });
        }
        return;
    }
    case 1:
    case 2:
        return caller.Expect(Filter_DeregisterDriver(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    default:
        return caller.Expect(Filter_DeregisterDriver(NoHandle<FilterDriver>(caller)),
                             FILTER_ERROR_INVALID_DRIVER_HANDLE);
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
    FilterDriver* const driver = lent.driver.Get();
    FILTER_TYPE type = FILTER_TYPE_INVALID;
    STRING* name = nullptr;
    caller.Expect(Filter_GetFilterType(lent.handle.Get(), &type), FILTER_STATUS_SUCCESS);
    caller.Expect(Filter_GetFilterName(lent.handle.Get(), &name), FILTER_STATUS_SUCCESS);
    PacketFilter* filter = nullptr;
    const auto attempt = [&](FilterDriver* owner, const STRING* text, FILTER_PROC procedure,
                             FILTER_TYPE chain, PacketFilter** output) {
        return Filter_RegisterFilter(owner, text, procedure, nullptr, chain, FILTER_ORDER_LAST, output);
    };
    switch (caller.Stream().Below(7)) {
    case 0:
        caller.Expect(attempt(nullptr, name, FilterProcedure, type, &filter), FILTER_ERROR_INVALID_ARGUMENT);
        break;
    case 1:
        caller.Expect(attempt(driver, nullptr, FilterProcedure, type, &filter),
                      FILTER_ERROR_INVALID_ARGUMENT);
        break;
    case 2:
        caller.Expect(attempt(driver, name, nullptr, type, &filter), FILTER_ERROR_INVALID_ARGUMENT);
        break;
    case 3:
        caller.Expect(attempt(driver, name, FilterProcedure, type, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
        break;
    case 4:
        caller.Expect(attempt(NoHandle<FilterDriver>(caller), name, FilterProcedure, type, &filter),
                      FILTER_ERROR_INVALID_DRIVER_HANDLE);
        break;
    case 5:
        caller.Expect(attempt(driver, name, FilterProcedure,
                              caller.Stream().OneOf<FILTER_TYPE>({FILTER_TYPE_INVALID, 4, 0x7FFFFFFF}),
                              &filter),
                      FILTER_ERROR_INVALID_FILTER_TYPE);
        break;
    default:
        caller.Expect(attempt(driver, name, FilterProcedure, type, &filter),
                      FILTER_ERROR_FILTER_ALREADY_REGISTERED);
        break;
    }
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
    switch (caller.Stream().Below(driver ? 4 : 3)) {
    case 0:
        return caller.Expect(Filter_EnumFilter(nullptr, LookAtFilter, &count, 1),
                             FILTER_ERROR_INVALID_ARGUMENT);
    case 1:
        return caller.Expect(Filter_EnumFilter(driver.Get(), nullptr, &count, 1),
                             FILTER_ERROR_INVALID_ARGUMENT);
    case 2:
        return caller.Expect(Filter_EnumFilter(NoHandle<FilterDriver>(caller), LookAtFilter, &count, 1),
                             FILTER_ERROR_INVALID_DRIVER_HANDLE);
    default:
        return caller.Expect(Filter_EnumFilter(driver.Get(), LookAtFilter, &count, 4),
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

// ---------------------------------------------------------------------------------------------------- timers

VOID OnTimer(FilterDriver*, PVOID, FilterTimer* timer, PVOID context)
{
    Standing(context, "a timer's callback");
    Random& random = CallbackRandom();
    switch (random.Below(16)) {
    case 0:
        support::FaultOnRead(); // contained, and all that is lost is the rest of this
        break;
    case 1:
        Filter_StopTimer(timer);
        break;
    case 2:
        Filter_StartTimer(timer, random.Below(30));
        break;
    case 3:
        Filter_ReportEvent(0, 0, nullptr);
        break;
    default:
        break;
    }
}

Outcome InitializeTimer(Caller& caller)
{
    auto held = Vacancy<FilterTimer>(caller);
    if (!held) {
        return Outcome::NothingToUse;
    }
    FilterTimer* timer = nullptr;
    PVOID const context = Renew(held, "timer");
    const Outcome outcome = caller.Judge(
        Filter_InitializeTimer(held.driver.Get(), OnTimer, context, caller.Stream().Chance(50), &timer));
    held.handle.Set(timer);
    return outcome;
}

void InitializeTimerWrongly(Caller& caller)
{
    const auto driver = AnyDriver(caller);
    FilterTimer* timer = nullptr;
    switch (caller.Stream().Below(4)) {
    case 0:
        caller.Expect(Filter_InitializeTimer(nullptr, OnTimer, nullptr, TRUE, &timer),
                      FILTER_ERROR_INVALID_ARGUMENT);
        break;
    case 1:
        caller.Expect(Filter_InitializeTimer(driver.Get(), nullptr, nullptr, TRUE, &timer),
                      FILTER_ERROR_INVALID_ARGUMENT);
        break;
    case 2:
        caller.Expect(Filter_InitializeTimer(driver.Get(), OnTimer, nullptr, TRUE, nullptr),
                      FILTER_ERROR_INVALID_ARGUMENT);
        break;
    default:
        caller.Expect(Filter_InitializeTimer(NoHandle<FilterDriver>(caller), OnTimer, nullptr, TRUE, &timer),
                      FILTER_ERROR_INVALID_DRIVER_HANDLE);
        break;
    }
    caller.Check(timer == nullptr, "nothing is handed out on failure");
}

template <class Act>
Outcome WithTimer(Caller& caller, const Act& act)
{
    const auto lent = Borrow<FilterTimer>(caller);
    return lent ? caller.Judge(act(lent.handle.Get())) : Outcome::NothingToUse;
}

template <class Act>
void WithNoTimer(Caller& caller, const Act& act)
{
    caller.Expect(act(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    caller.Expect(act(NoHandle<FilterTimer>(caller)), FILTER_ERROR_INVALID_TIMER_HANDLE);
}

Outcome StartTimer(Caller& caller)
{
    return WithTimer(caller,
                     [&](FilterTimer* timer) { return Filter_StartTimer(timer, caller.Stream().Below(20)); });
}

void StartTimerWrongly(Caller& caller)
{
    WithNoTimer(caller, [](FilterTimer* timer) { return Filter_StartTimer(timer, 1); });
}

Outcome StopTimer(Caller& caller)
{
    return WithTimer(caller, Filter_StopTimer);
}

void StopTimerWrongly(Caller& caller)
{
    WithNoTimer(caller, Filter_StopTimer);
}

// ------------------------------------------------------------------------------------------------ interfaces

struct InterfaceBlock {
    USHORT length;
    uint8_t bytes[62];
};

Outcome RegisterInterface(Caller& caller)
{
    auto held = Vacancy<FilterInterface>(caller);
    if (!held) {
        return Outcome::NothingToUse;
    }
    // One that others still reference keeps its name.
    static std::atomic<uint32_t> number{0};
    const std::string text = "interface-" + std::to_string(number.fetch_add(1, std::memory_order_relaxed));
    const Counted name(text);
    InterfaceBlock block = {};
    block.length = static_cast<USHORT>(2 + caller.Stream().Below(sizeof(block) - 1));
    FilterInterface* handle = nullptr;
    Renew(held, text);
    const Outcome outcome =
        caller.Judge(Filter_RegisterInterface(held.driver.Get(), name.Get(), &block, &handle));
    held.handle.Set(handle);
    return outcome;
}

void RegisterInterfaceWrongly(Caller& caller)
{
    const auto lent = Borrow<FilterInterface>(caller);
    const InterfaceBlock block = {.length = sizeof(block), .bytes = {}};
    const Counted name(lent ? lent.registration->name : "nobody's");
    FilterInterface* handle = nullptr;
    FilterDriver* const driver = lent.driver.Get();
    switch (caller.Stream().Below(6)) {
    case 0:
        caller.Expect(Filter_RegisterInterface(nullptr, name.Get(), &block, &handle),
                      FILTER_ERROR_INVALID_ARGUMENT);
        break;
    case 1:
        caller.Expect(Filter_RegisterInterface(driver, nullptr, &block, &handle),
                      FILTER_ERROR_INVALID_ARGUMENT);
        break;
    case 2:
        caller.Expect(Filter_RegisterInterface(driver, name.Get(), nullptr, &handle),
                      FILTER_ERROR_INVALID_ARGUMENT);
        break;
    case 3:
        caller.Expect(Filter_RegisterInterface(driver, name.Get(), &block, nullptr),
                      FILTER_ERROR_INVALID_ARGUMENT);
        break;
    case 4:
        caller.Expect(Filter_RegisterInterface(NoHandle<FilterDriver>(caller), name.Get(), &block, &handle),
                      FILTER_ERROR_INVALID_DRIVER_HANDLE);
        break;
    default:
        if (lent) {
            caller.Expect(Filter_RegisterInterface(driver, name.Get(), &block, &handle),
                          FILTER_ERROR_INTERFACE_ALREADY_REGISTERED);
        }
    }
    caller.Check(handle == nullptr, "nothing is handed out on failure");
}

Outcome QueryInterface(Caller& caller)
{
    auto held = Vacancy<VOID>(caller);
    const auto lent = Borrow<FilterInterface>(caller);
    if (!held || !lent) {
        return Outcome::NothingToUse;
    }
    const Counted name(lent.registration->name);
    PVOID copy = nullptr;
    const Outcome outcome = caller.Judge(Filter_QueryInterface(held.driver.Get(), name.Get(), &copy));
    if (copy != nullptr) {
        Renew(held, "reference");
        auto* block = static_cast<InterfaceBlock*>(copy);
        caller.Check(block->length >= 2 && block->length <= sizeof(*block), "the copy tells its length");
        caller.Stream().Fill(block->bytes, block->length - 2u);
        held.handle.Set(copy);
    }
    return outcome;
}

void QueryInterfaceWrongly(Caller& caller)
{
    const auto driver = AnyDriver(caller);
    const Counted name("nobody's");
    PVOID copy = nullptr;
    switch (caller.Stream().Below(driver ? 5 : 4)) {
    case 0:
        caller.Expect(Filter_QueryInterface(nullptr, name.Get(), &copy), FILTER_ERROR_INVALID_ARGUMENT);
        break;
    case 1:
        caller.Expect(Filter_QueryInterface(driver.Get(), nullptr, &copy), FILTER_ERROR_INVALID_ARGUMENT);
        break;
    case 2:
        caller.Expect(Filter_QueryInterface(driver.Get(), name.Get(), nullptr),
                      FILTER_ERROR_INVALID_ARGUMENT);
        break;
    case 3:
        caller.Expect(Filter_QueryInterface(NoHandle<FilterDriver>(caller), name.Get(), &copy),
                      FILTER_ERROR_INVALID_DRIVER_HANDLE);
        break;
    default:
        caller.Expect(Filter_QueryInterface(driver.Get(), name.Get(), &copy),
                      FILTER_ERROR_INTERFACE_NOT_FOUND);
    }
    caller.Check(copy == nullptr, "nothing is handed out on failure");
}

// The owner of the interface may have left meanwhile.
Outcome IsValidInterface(Caller& caller)
{
    const auto lent = Borrow<VOID>(caller);
    return !lent                                        ? Outcome::NothingToUse
           : Filter_IsValidInterface(lent.handle.Get()) ? Outcome::Success
                                                        : Outcome::Refused;
}

void IsValidInterfaceWrongly(Caller& caller)
{
    caller.Check(!Filter_IsValidInterface(caller.Stream().Chance(20) ? nullptr : NoHandle<VOID>(caller)),
                 "what is no copy is not valid");
}

Outcome ReleaseInterface(Caller& caller)
{
    auto held = Take<VOID>(caller);
    if (!held) {
        return Outcome::NothingToUse;
    }
    const FILTER_STATUS status = Filter_ReleaseInterface(held.driver.Get(), held.handle.Get());
    End(held);
    return caller.Judge(status, {FILTER_ERROR_INVALID_FILTER_INTERFACE}); // its owner has left
}

void ReleaseInterfaceWrongly(Caller& caller)
{
    const auto lent = Borrow<VOID>(caller);
    if (!lent) {
        return;
    }
    FilterDriver* const driver = lent.driver.Get();
    switch (caller.Stream().Below(5)) {
    case 0:
        return caller.Expect(Filter_ReleaseInterface(nullptr, lent.handle.Get()),
                             FILTER_ERROR_INVALID_ARGUMENT);
    case 1:
        return caller.Expect(Filter_ReleaseInterface(driver, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    case 2:
        return caller.Expect(Filter_ReleaseInterface(NoHandle<FilterDriver>(caller), lent.handle.Get()),
                             FILTER_ERROR_INVALID_DRIVER_HANDLE);
    case 3:
        return caller.Expect(Filter_ReleaseInterface(driver, NoHandle<VOID>(caller)),
                             FILTER_ERROR_INVALID_FILTER_INTERFACE);
    default:
        if (const auto other = OtherDriver(caller, lent.driver)) {
            const FILTER_STATUS status = Filter_ReleaseInterface(other.Get(), lent.handle.Get());
            caller.Check(status == FILTER_ERROR_INVALID_INTERFACE_REFERENCE_OWNER ||
                             status == FILTER_ERROR_INVALID_FILTER_INTERFACE,
                         "another driver's copy is refused");
        }
    }
}

// One that is referenced is withdrawn all the same, and goes with the last reference: its handle is not used again.
Outcome DeregisterInterface(Caller& caller)
{
    auto held = Take<FilterInterface>(caller);
    if (!held) {
        return Outcome::NothingToUse;
    }
    const FILTER_STATUS status = Filter_DeregisterInterface(held.driver.Get(), held.handle.Get());
    End(held);
    return caller.Judge(status, {FILTER_ERROR_INTERFACE_ARE_REFERENCED});
}

void DeregisterInterfaceWrongly(Caller& caller)
{
    const auto lent = Borrow<FilterInterface>(caller);
    if (!lent) {
        return;
    }
    FilterDriver* const driver = lent.driver.Get();
    FilterInterface* const handle = lent.handle.Get();
    switch (caller.Stream().Below(5)) {
    case 0:
        return caller.Expect(Filter_DeregisterInterface(nullptr, handle), FILTER_ERROR_INVALID_ARGUMENT);
    case 1:
        return caller.Expect(Filter_DeregisterInterface(driver, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    case 2:
        return caller.Expect(Filter_DeregisterInterface(NoHandle<FilterDriver>(caller), handle),
                             FILTER_ERROR_INVALID_DRIVER_HANDLE);
    case 3:
        return caller.Expect(Filter_DeregisterInterface(driver, NoHandle<FilterInterface>(caller)),
                             FILTER_ERROR_INVALID_FILTER_INTERFACE);
    default:
        if (const auto other = OtherDriver(caller, lent.driver)) {
            caller.Expect(Filter_DeregisterInterface(other.Get(), handle),
                          FILTER_ERROR_INVALID_INTERFACE_OWNER);
        }
    }
}

// ------------------------------------------------------------------------------------------------- the table

constexpr auto D = Level::Dispatch;

template <auto kGet, class Handle, class Output, FILTER_STATUS kBadHandle>
constexpr Call GetterCall(const char* name)
{
    using Row = Getter<kGet, Handle, Output, kBadHandle>;
    return {name, Actor::Caller, D, 50, Row::Legal, Row::Illegal};
}

template <auto kIsValid, class Handle>
constexpr Call ValidityCall(const char* name)
{
    using Row = Validity<kIsValid, Handle>;
    return {name, Actor::Caller, D, 50, Row::Legal, Row::Illegal};
}

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
using TimerEnding = Ending<Filter_FreeTimer, FilterTimer, FILTER_ERROR_INVALID_TIMER_HANDLE,
                           FILTER_ERROR_TIMER_HANDLER_NOT_FOUND, FILTER_ERROR_INVALID_TIMER_HANDLER_OWNER>;

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
    {"Filter_InitializeTimer", Actor::Caller, D, 20, InitializeTimer, InitializeTimerWrongly},
    ValidityCall<Filter_IsValidTimer, FilterTimer>("Filter_IsValidTimer"),
    {"Filter_StartTimer", Actor::Caller, D, 50, StartTimer, StartTimerWrongly},
    {"Filter_StopTimer", Actor::Caller, D, 50, StopTimer, StopTimerWrongly},
    {"Filter_FreeTimer", Actor::Caller, Level::Passive, 20, TimerEnding::Legal, TimerEnding::Illegal},
    {"Filter_RegisterInterface", Actor::Caller, D, 20, RegisterInterface, RegisterInterfaceWrongly},
    {"Filter_QueryInterface", Actor::Caller, D, 10, QueryInterface, QueryInterfaceWrongly},
    {"Filter_IsValidInterface", Actor::Caller, D, 10, IsValidInterface, IsValidInterfaceWrongly},
    ValidityCall<Filter_IsValidInterfaceObject, FilterInterface>("Filter_IsValidInterfaceObject"),
    {"Filter_ReleaseInterface", Actor::Caller, D, 10, ReleaseInterface, ReleaseInterfaceWrongly},
    {"Filter_DeregisterInterface", Actor::Caller, D, 10, DeregisterInterface, DeregisterInterfaceWrongly},
};

} // namespace

std::span<const Call> ClientCalls()
{
    return kCalls;
}

} // namespace stress
