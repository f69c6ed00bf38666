// What the threads share of the framework: adapters, clients with what they have registered, packets, tables.
//
// A legal call works on what is borrowed here, so nobody ends it meanwhile; a call that ends something has it alone.
// Children of a client are reached through a loan of the client: who has the client alone has all of them.
#pragma once

#include "stress.h"

#include <hook/virtual-adapters.h>

#include <ntddk.h>

#include <ndis.h>

#include <ndisfilter.h>

#include <support/faults.h>
#include <support/frames.h>

#include <array>
#include <string>

namespace stress
{

inline constexpr uint32_t kAdapters = 4;
inline constexpr uint32_t kClients = 6;
inline constexpr uint32_t kTables = 3;
inline constexpr ULONG kTag = 0x73727453; // "Strs"
inline constexpr ULONG kOwnCode =
    0x80002600u; // of the first client's handler of control requests, then every fourth

// What a callback gets as its context. One is never used again within a round, so a callback that comes too late shows.
struct Registration {
    std::atomic<bool> live{false};
    char name[32] = {};
};

template <class Handle>
struct Child {
    Slot<Handle> slot;
    Registration* registration = nullptr; // of who holds or has borrowed the slot
};

struct Client {
    Slot<FilterDriver> driver;
    Child<PacketFilter> filters[4];
    Child<EventHandler> eventHandlers[1];
    Child<IfEventHandler> ifEventHandlers[1];
    Child<IoCtrlHandler> ioCtrlHandlers[1];
    Child<FilterInterface> interfaces[2];
    Child<FilterTimer> timers[3];
    Child<VOID> references[2]; // to interfaces, its own among them
    std::atomic<ULONG> contextSlot{0};

    template <class Handle>
    auto& Children()
    {
        if constexpr (std::is_same_v<Handle, PacketFilter>) {
            return filters;
        } else if constexpr (std::is_same_v<Handle, EventHandler>) {
            return eventHandlers;
        } else if constexpr (std::is_same_v<Handle, IfEventHandler>) {
            return ifEventHandlers;
        } else if constexpr (std::is_same_v<Handle, IoCtrlHandler>) {
            return ioCtrlHandlers;
        } else if constexpr (std::is_same_v<Handle, FilterInterface>) {
            return interfaces;
        } else if constexpr (std::is_same_v<Handle, FilterTimer>) {
            return timers;
        } else {
            return references;
        }
    }
};

struct Table {
    Slot<HashTable> slot;
    std::atomic<uint32_t> epoch{0}; // of its last cleaning: items inserted before are only released
};

struct TableItem : HashItem {
    ULONG key;
};

struct HeldItem {
    Slot<TableItem> slot;
    Table* table = nullptr; // may have been destroyed since
    uint32_t epoch = 0;
};

struct HeldRequest {
    Slot<hook::NdisRequest> slot;
    uint8_t buffer[16] = {};
};

// For mutual exclusion.
struct GuardedNumber {
    FilterLock lock;
    uint64_t number;
};

struct World {
    std::atomic<FilterAdapter*> adapters[kAdapters]; // never null; some are closed, or removed
    Client clients[kClients];
    Slot<FilterPacket> packets[64];
    Slot<VOID> blocks[32]; // of Filter_AllocateMemory
    Table tables[kTables];
    HeldItem items[24];
    HeldRequest requests[6];
    GuardedNumber numbers[2];
    std::array<ULONG, 32768> flags = {}; // what Filter_SafeGetGlobalDebugFlag stores, some time
    std::atomic<uint32_t> flagsUsed{0};
};
World& TheWorld();

Registration* NewRegistration(const std::string& name);

FilterAdapter* AnyAdapter(Random& random);
support::MacAddress AddressOfAdapter(uint32_t index);
hook::AdapterOptions AdapterOptionsOf(uint32_t index);
std::string ClientName(size_t index);
// A frame of some kind, of any length that a packet holds.
support::Bytes AnyFrame(Random& random);
// A packet of the hook driver with a frame in it; null without one.
FilterPacket* MakePacket(Random& random, FilterAdapter* adapter);
// Keeps a packet for somebody else, or gives it back.
void KeepPacket(Random& random, FilterPacket* packet);

FILTER_RESULT FilterProcedure(FilterDriver* driver, PVOID driverContext, PacketFilter* filter, PVOID context,
                              FilterPacket* packet);

// A counted string without a terminating zero, and one of the wide kind with it.
class Counted
{
  public:
    explicit Counted(std::string text) : text_(std::move(text))
    {
        const auto length = static_cast<USHORT>(text_.size());
        string_ = {length, length, text_.data()};
    }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;
    const STRING* Get() const { return &string_; }

  private:
    std::string text_;
    STRING string_;
};

// A handle that is none. In the user range only at PASSIVE_LEVEL, as the header says.
template <class Handle>
Handle* NoHandle(Caller& caller)
{
    static const std::array<uint64_t, 512> zeros = {};
    static const auto words = [] {
        std::array<uint64_t, 512> filled;
        filled.fill(0x5A5A5A5A5A5A5A5A);
        return filled;
    }();
    const std::array<uint64_t, 512>* const memory = caller.Stream().Chance(50) ? &zeros : &words;
    const void* const middle = memory->data() + 256; // tags lie in front of some handles
    if (!caller.IsRaised() && caller.Stream().Chance(50)) {
        return reinterpret_cast<Handle*>(ULONG_PTR{0x1000} + 8 * caller.Stream().Below(1000));
    }
    return static_cast<Handle*>(const_cast<void*>(middle));
}

// A handle that was lent, with the driver that owns it.
template <class Handle>
struct Lent {
    Loan<FilterDriver> driver;
    Loan<Handle> handle;
    Registration* registration = nullptr;
    explicit operator bool() const { return static_cast<bool>(handle); }
};

// A handle's place that this thread has alone, with the driver that owns it.
template <class Handle>
struct Held {
    Loan<FilterDriver> driver;
    Hold<Handle> handle;
    Child<Handle>* child = nullptr;
    explicit operator bool() const { return static_cast<bool>(handle); }
};

inline size_t IndexOf(const Slot<FilterDriver>* driver)
{
    const auto* client = reinterpret_cast<const Client*>(driver); // its first member
    return static_cast<size_t>(client - TheWorld().clients);
}

inline Loan<FilterDriver> AnyDriver(Caller& caller)
{
    return FirstOf(caller.Stream(), TheWorld().clients,
                   [](Client& client) { return Loan<FilterDriver>(client.driver); });
}

// Another one than `not`.
inline Loan<FilterDriver> OtherDriver(Caller& caller, const Loan<FilterDriver>& other)
{
    return FirstOf(caller.Stream(), TheWorld().clients, [&](Client& client) {
        return &client.driver != other.Place() ? Loan<FilterDriver>(client.driver) : Loan<FilterDriver>();
    });
}

template <class Handle>
Lent<Handle> Borrow(Caller& caller)
{
    return FirstOf(caller.Stream(), TheWorld().clients, [&](Client& client) -> Lent<Handle> {
        Loan<FilterDriver> driver(client.driver);
        if (!driver) {
            return {};
        }
        return FirstOf(caller.Stream(), client.template Children<Handle>(),
                       [&](Child<Handle>& child) -> Lent<Handle> {
                           Loan<Handle> loan(child.slot);
                           if (!loan) {
                               return {};
                           }
                           return {std::move(driver), std::move(loan), child.registration};
                       });
    });
}

template <class Handle, class Get>
Held<Handle> HoldChild(Caller& caller, const Get& get)
{
    return FirstOf(caller.Stream(), TheWorld().clients, [&](Client& client) -> Held<Handle> {
        Loan<FilterDriver> driver(client.driver);
        if (!driver) {
            return {};
        }
        return FirstOf(caller.Stream(), client.template Children<Handle>(),
                       [&](Child<Handle>& child) -> Held<Handle> {
                           Hold<Handle> hold = get(child.slot);
                           if (!hold) {
                               return {};
                           }
                           return {std::move(driver), std::move(hold), &child};
                       });
    });
}

template <class Handle>
Held<Handle> Take(Caller& caller)
{
    return HoldChild<Handle>(caller, Hold<Handle>::Taken);
}

template <class Handle>
Held<Handle> Vacancy(Caller& caller)
{
    return HoldChild<Handle>(caller, Hold<Handle>::Vacant);
}

// A new registration for a place; `number` of its kind.
template <class Handle>
Registration* Renew(const Held<Handle>& held, const std::string& name)
{
    held.child->registration = NewRegistration(name);
    held.child->registration->live.store(true, std::memory_order_relaxed);
    return held.child->registration;
}

// Behind the end of what was registered.
template <class Handle>
void End(Held<Handle>& held)
{
    held.child->registration->live.store(false, std::memory_order_relaxed);
    held.handle.Set(nullptr);
}

// In a callback: its registration still stands.
inline Registration& Standing(PVOID context, const char* what)
{
    auto& registration = *static_cast<Registration*>(context);
    if (!registration.live.load(std::memory_order_relaxed)) {
        Fail(std::string(what) + " ran behind its deregistration");
    }
    return registration;
}

} // namespace stress
