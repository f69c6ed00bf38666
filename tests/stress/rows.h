// Kinds of calls that many exports share: each is a pair of a legal and an illegal form.
#pragma once

#include "world.h"

#include <tuple>

namespace stress
{

// Calls a function with each argument of `kPositions` null in turn.
template <size_t... kPositions, class Function, class... Arguments>
void ExpectNullsRefused(Caller& caller, const Function& function, Arguments... arguments)
{
    const auto expect = [&]<size_t kPosition>() {
        std::tuple<Arguments...> wrong(arguments...);
        std::get<kPosition>(wrong) = {};
        caller.Expect(std::apply(function, wrong), FILTER_ERROR_INVALID_ARGUMENT);
    };
    (expect.template operator()<kPositions>(), ...);
}

// A live handle of some client; of the client itself, too.
template <class Handle>
auto BorrowAny(Caller& caller)
{
    if constexpr (std::is_same_v<Handle, FilterDriver>) {
        return AnyDriver(caller);
    } else {
        return Borrow<Handle>(caller);
    }
}
inline FilterDriver* HandleIn(const Loan<FilterDriver>& loan)
{
    return loan.Get();
}
template <class Handle>
Handle* HandleIn(const Lent<Handle>& lent)
{
    return lent.handle.Get();
}

// A query that takes a handle and writes through a pointer, at once or by handing out a block with a name.
template <auto kGet, class Handle, class Output, FILTER_STATUS kBadHandle>
struct Getter {
    static Outcome Legal(Caller& caller)
    {
        const auto borrowed = BorrowAny<Handle>(caller);
        if (!borrowed) {
            return Outcome::NothingToUse;
        }
        Output output = {};
        const Outcome outcome = caller.Judge(kGet(HandleIn(borrowed), &output));
        if constexpr (std::is_same_v<Output, STRING*>) {
            caller.Check(output != nullptr && output->Length < output->MaximumLength, "a name has its zero");
            caller.Expect(Filter_FreeMemory(output), FILTER_STATUS_SUCCESS);
        }
        return outcome;
    }
    static void Illegal(Caller& caller)
    {
        const auto borrowed = BorrowAny<Handle>(caller);
        Handle* const handle = borrowed ? HandleIn(borrowed) : nullptr;
        Output output = {};
        ExpectNullsRefused<0, 1>(caller, kGet, handle, &output);
        caller.Expect(kGet(NoHandle<Handle>(caller), &output), kBadHandle);
        if (handle != nullptr && !caller.IsRaised()) {
            caller.Expect(kGet(handle, static_cast<Output*>(caller.Unwritable())), FILTER_ERROR_EXCEPTION);
        }
    }
};

// TRUE of what is a handle of the kind, and of nothing else.
template <auto kIsValid, class Handle>
struct Validity {
    static Outcome Legal(Caller& caller)
    {
        const auto borrowed = BorrowAny<Handle>(caller);
        return borrowed ? caller.Check(kIsValid(HandleIn(borrowed)), "a live handle is valid")
                        : Outcome::NothingToUse;
    }
    static void Illegal(Caller& caller)
    {
        caller.Check(!kIsValid(nullptr) && !kIsValid(NoHandle<Handle>(caller)),
                     "what is no handle is not valid");
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
        if (auto held = caller.Stream().Chance(20) ? Take<Handle>(caller) : Held<Handle>()) {
            caller.Alone([&] {
                Handle* const stale = held.handle.Get();
                caller.Expect(kEnd(held.driver.Get(), stale), FILTER_STATUS_SUCCESS);
                const FILTER_STATUS again = kEnd(held.driver.Get(), stale);
                caller.Check(again == kBadHandle || again == kNotFound, "a stale handle is refused");
                End(held);
            });
        }
        const auto lent = Borrow<Handle>(caller);
        if (!lent) {
            return;
        }
        FilterDriver* const driver = lent.driver.Get();
        Handle* const handle = lent.handle.Get();
        ExpectNullsRefused<0, 1>(caller, kEnd, driver, handle);
        caller.Expect(kEnd(NoHandle<FilterDriver>(caller), handle), FILTER_ERROR_INVALID_DRIVER_HANDLE);
        caller.Expect(kEnd(driver, NoHandle<Handle>(caller)), kBadHandle);
        if (const auto other = OtherDriver(caller, lent.driver)) {
            caller.Expect(kEnd(other.Get(), handle), kWrongOwner);
        }
    }
};

template <class Row>
constexpr Call RowCall(const char* name, uint32_t floor)
{
    return {name, Actor::Caller, Level::Dispatch, floor, Row::Legal, Row::Illegal};
}
template <auto kGet, class Handle, class Output, FILTER_STATUS kBadHandle>
constexpr Call GetterCall(const char* name)
{
    return RowCall<Getter<kGet, Handle, Output, kBadHandle>>(name, 50);
}
template <auto kIsValid, class Handle>
constexpr Call ValidityCall(const char* name)
{
    return RowCall<Validity<kIsValid, Handle>>(name, 50);
}

} // namespace stress
