// Timers and interfaces of client drivers.
#include "rows.h"

namespace stress
{

namespace
{

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
    ExpectNullsRefused<0, 1, 4>(caller, Filter_InitializeTimer, driver.Get(), OnTimer, PVOID{}, BOOLEAN{TRUE},
                                &timer);
    caller.Expect(Filter_InitializeTimer(NoHandle<FilterDriver>(caller), OnTimer, nullptr, TRUE, &timer),
                  FILTER_ERROR_INVALID_DRIVER_HANDLE);
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
    ExpectNullsRefused<0, 1, 2, 3>(caller, Filter_RegisterInterface, driver, name.Get(),
                                   static_cast<const VOID*>(&block), &handle);
    caller.Expect(Filter_RegisterInterface(NoHandle<FilterDriver>(caller), name.Get(), &block, &handle),
                  FILTER_ERROR_INVALID_DRIVER_HANDLE);
    if (lent) {
        caller.Expect(Filter_RegisterInterface(driver, name.Get(), &block, &handle),
                      FILTER_ERROR_INTERFACE_ALREADY_REGISTERED);
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
    ExpectNullsRefused<0, 1, 2>(caller, Filter_QueryInterface, driver.Get(), name.Get(), &copy);
    caller.Expect(Filter_QueryInterface(NoHandle<FilterDriver>(caller), name.Get(), &copy),
                  FILTER_ERROR_INVALID_DRIVER_HANDLE);
    if (driver) {
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
    ExpectNullsRefused<0, 1>(caller, Filter_ReleaseInterface, driver, lent.handle.Get());
    caller.Expect(Filter_ReleaseInterface(NoHandle<FilterDriver>(caller), lent.handle.Get()),
                  FILTER_ERROR_INVALID_DRIVER_HANDLE);
    caller.Expect(Filter_ReleaseInterface(driver, NoHandle<VOID>(caller)),
                  FILTER_ERROR_INVALID_FILTER_INTERFACE);
    if (const auto other = OtherDriver(caller, lent.driver)) {
        const FILTER_STATUS status = Filter_ReleaseInterface(other.Get(), lent.handle.Get());
        caller.Check(status == FILTER_ERROR_INVALID_INTERFACE_REFERENCE_OWNER ||
                         status == FILTER_ERROR_INVALID_FILTER_INTERFACE,
                     "another driver's copy is refused");
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
    ExpectNullsRefused<0, 1>(caller, Filter_DeregisterInterface, driver, handle);
    caller.Expect(Filter_DeregisterInterface(NoHandle<FilterDriver>(caller), handle),
                  FILTER_ERROR_INVALID_DRIVER_HANDLE);
    caller.Expect(Filter_DeregisterInterface(driver, NoHandle<FilterInterface>(caller)),
                  FILTER_ERROR_INVALID_FILTER_INTERFACE);
    if (const auto other = OtherDriver(caller, lent.driver)) {
        caller.Expect(Filter_DeregisterInterface(other.Get(), handle), FILTER_ERROR_INVALID_INTERFACE_OWNER);
    }
}

// ------------------------------------------------------------------------------------------------- the table

constexpr auto D = Level::Dispatch;

using TimerEnding = Ending<Filter_FreeTimer, FilterTimer, FILTER_ERROR_INVALID_TIMER_HANDLE,
                           FILTER_ERROR_TIMER_HANDLER_NOT_FOUND, FILTER_ERROR_INVALID_TIMER_HANDLER_OWNER>;

constexpr Call kCalls[] = {
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

std::span<const Call> InterfaceCalls()
{
    return kCalls;
}

} // namespace stress
