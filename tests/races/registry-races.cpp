// Drivers, filters and timers that go, against the packets and callbacks that are on their way to them; hash tables and
// interfaces, of which one thread takes out what another found.
#include "race.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace races
{
namespace
{

// A filter of the incoming packets, and one behind it of another driver, which sees them all.
struct FilterRace : Race {
    void Begin() override
    {
        client = std::make_unique<Client>("leaving");
        other = std::make_unique<Client>("staying");
        filter = Register(*client, "leaving", FILTER_ORDER_FIRST);
        Register(*other, "staying", FILTER_ORDER_LAST);
        before = hook::TakeBalance();
    }
    void End() override
    {
        const hook::Balance after = hook::TakeBalance();
        Require(after.IsEven() && after.outstanding == before.outstanding, "every packet has ended once");
        Require(passed == received, "a filter that stays sees every packet once");
        client.reset();
        other.reset();
    }

    PacketFilter* Register(Client& owner, std::string name, FILTER_ORDER order)
    {
        const auto length = static_cast<USHORT>(name.size());
        const STRING counted = {length, length, name.data()};
        PacketFilter* handle = nullptr;
        RequireSuccess(Filter_RegisterFilter(owner.Handle(), &counted, Procedure, this,
                                             FILTER_TYPE_INCOMING_PACKET, order, &handle),
                       "Filter_RegisterFilter");
        return handle;
    }

    void Receive()
    {
        Require(hook::DeliverReceived(Adapter(), support::UdpFrame()) == hook::Accepted::Yes,
                "a frame is accepted");
        ++received;
    }

    static FILTER_RESULT Procedure(FilterDriver*, PVOID driver, PacketFilter*, PVOID context, FilterPacket*)
    {
        auto& race = *static_cast<FilterRace*>(context);
        if (driver == race.other.get()) {
            ++race.passed;
        } else {
            Require(!race.gone, "no procedure runs behind its deregistration");
        }
        return FILTER_RESULT_BYPASS;
    }

    std::unique_ptr<Client> client, other;
    PacketFilter* filter = nullptr;
    std::atomic<bool> gone{false};
    std::atomic<int> received{0}, passed{0};
    hook::Balance before;
};

TEST(Races, DriverDeregistrationAgainstInvocation)
{
    Search<FilterRace>({.shortly = 2, .fully = 3}, [](FilterRace& race) {
        race.threads = {[&] {
                            race.Receive();
                            race.Receive();
                        },
                        [&] {
                            race.client->Deregister();
                            race.gone = true;
                        },
                        [&] { race.Receive(); }};
    });
}

// A packet waits for the filter in a queue while that goes; another filter may come to its place in memory.
TEST(Races, QueuedPacketAgainstFilterDeregistration)
{
    Search<FilterRace>({.shortly = 1, .fully = 2}, [](FilterRace& race) {
        race.threads = {[&] {
                            FilterPacket* const packet = Filter_AllocatePacket(Adapter());
                            packet->m_nDirection = NDIS_FILTER_DIRECTION_TO_PROTOCOL;
                            Filter_InjectPacketFromFilter(FILTER_METHOD_START_FROM_THIS_FILTER, race.filter,
                                                          packet);
                        },
                        [&] {
                            RequireSuccess(Filter_DeregisterFilter(race.client->Handle(), race.filter),
                                           "Filter_DeregisterFilter");
                            race.gone = true;
                        }};
        race.end = [&] {
            Require(race.passed <= 1, "a packet passes a filter once");
            race.received = race.passed.load(); // of a filter that is gone it is dropped or goes on
        };
    });
}

TEST(Races, RegistrationAgainstRegistration)
{
    FilterDriver* drivers[2];
    Search<Race>({.shortly = 3, .fully = 4}, [&](Race& race) {
        const auto add = [](FilterDriver*& driver) {
            char name[] = "one";
            const STRING counted = {3, 3, name};
            driver = nullptr;
            const FILTER_STATUS status = Filter_RegisterDriver(&counted, nullptr, 1, 0, &driver);
            Require(status == FILTER_STATUS_SUCCESS || status == FILTER_ERROR_DRIVER_ALREADY_REGISTERED,
                    "a name is new or known");
            Require((status == FILTER_STATUS_SUCCESS) == (driver != nullptr), "a handle comes with success");
        };
        race.threads = {[&, add] { add(drivers[0]); }, [&, add] { add(drivers[1]); }};
        race.end = [&] {
            Require((drivers[0] == nullptr) != (drivers[1] == nullptr),
                    "of two registrations of one name one succeeds");
            Filter_DeregisterDriver(drivers[0] != nullptr ? drivers[0] : drivers[1]);
        };
    });
}

struct TimerRace : Race {
    void Begin() override
    {
        client = std::make_unique<Client>();
        RequireSuccess(Filter_InitializeTimer(client->Handle(), Callback, this, TRUE, &timer),
                       "Filter_InitializeTimer");
        Filter_StartTimer(timer, 10);
    }
    void End() override
    {
        client.reset();
        Require(running == 0, "every callback has ended");
    }
    FILTER_STATUS Free() { return Filter_FreeTimer(client->Handle(), timer); }

    static VOID Callback(FilterDriver*, PVOID, FilterTimer*, PVOID context)
    {
        auto& race = *static_cast<TimerRace*>(context);
        Require(!race.freed, "no callback begins after Filter_FreeTimer has returned");
        ++race.running;
        ++race.calls;
        --race.running;
        Require(!race.freed, "no callback runs on behind Filter_FreeTimer");
    }

    std::unique_ptr<Client> client;
    FilterTimer* timer = nullptr;
    bool freed = false;
    int calls = 0;
    std::atomic<int> running{0};
};

TEST(Races, FreeTimerAgainstCallback)
{
    Search<TimerRace>({.shortly = 1, .fully = 2}, [](TimerRace& race) {
        race.threads = {[] { machine::AdvanceClock(20); },
                        [&] {
                            RequireSuccess(race.Free(), "Filter_FreeTimer");
                            race.freed = true;
                        }};
    });
}

// What expired before the stop may still call; nothing expires behind it.
TEST(Races, StopTimerAgainstExpiry)
{
    Search<TimerRace>({.shortly = 2, .fully = 3}, [](TimerRace& race) {
        race.threads = {[] { machine::AdvanceClock(10); },
                        [&] { RequireSuccess(Filter_StopTimer(race.timer), "Filter_StopTimer"); }};
        race.end = [&] {
            Require(race.calls <= 1, "one expiry makes one callback");
            race.calls = 0;
            machine::AdvanceClock(100);
            Require(machine::WaitIdle() && race.calls == 0, "a timer that was stopped does not expire");
        };
    });
}

// The deregistration does not wait for callbacks; it only sees to it that no more are queued.
TEST(Races, DeregistrationAgainstCallback)
{
    Search<TimerRace>({.shortly = 1, .fully = 2}, [](TimerRace& race) {
        race.threads = {[] { machine::AdvanceClock(20); }, [&] { race.client.reset(); }};
        race.end = [&] {
            race.freed = true;
            machine::AdvanceClock(100);
            Require(machine::WaitIdle(), "the machine comes to rest");
        };
    });
}

TEST(Races, FreeTimerAgainstFreeTimer)
{
    std::atomic<int> successes;
    Search<TimerRace>({.shortly = 1, .fully = 2}, [&](TimerRace& race) {
        successes = 0;
        const auto free = [&] {
            const FILTER_STATUS status = race.Free();
            if (status == FILTER_STATUS_SUCCESS) {
                ++successes;
            } else {
                Require(status == FILTER_ERROR_TIMER_HANDLER_NOT_FOUND ||
                            status == FILTER_ERROR_INVALID_TIMER_HANDLE,
                        "who comes second is told so");
            }
        };
        race.threads = {free, free, [] { machine::AdvanceClock(10); }};
        race.end = [&] { Require(successes == 1, "one of two frees succeeds"); };
    });
}

constexpr ULONG kTag = 0x65636152; // "Race"
constexpr ULONG kHash = 1;

struct Item {
    HashItem header; // the first field
    int key;
};

struct TableRace : Race {
    void Begin() override
    {
        freed = 0;
        table = Filter_CreateHashTable("race", 4, FreeItem, nullptr);
        for (Item*& item : items) {
            item = static_cast<Item*>(Filter_AllocateMemory(sizeof(Item), kTag));
            *item = {};
            item->header.m_HashValue = kHash + static_cast<ULONG>(&item - items); // a bucket each
            Filter_InsertHashItem(table, &item->header);
        }
        Filter_ReleaseHashItem(&items[1]->header); // only the first one's insertion is still the race's
    }
    void End() override
    {
        Filter_DestroyHashTable(table);
        Require(freed == 2, "each item is freed once");
    }

    static VOID FreeItem(HashItem* item)
    {
        ++freed;
        Filter_FreeMemory(item);
    }

    // What is found stays, until it is given back.
    void FindAndRelease(ULONG hash)
    {
        HashItem* const item = Filter_FindHashItem(table, hash, nullptr);
        if (item != nullptr) {
            Require(item->m_HashValue == hash, "an item that was found keeps its contents");
            Filter_ReleaseHashItem(item);
        }
    }

    HashTable* table = nullptr;
    Item* items[2] = {};
    static inline std::atomic<int> freed{0};
};

TEST(Races, HashDeletionAgainstFindAndEnumeration)
{
    Search<TableRace>({.shortly = 2, .fully = 4}, [](TableRace& race) {
        race.threads = {
            [&] { Require(Filter_DeleteHashItem(&race.items[0]->header), "a deletion succeeds"); },
            [&] { race.FindAndRelease(kHash); },
            [&] {
                std::pair<HashTable*, int> seen = {race.table, 0};
                const auto note = [](PVOID context, HashItem* item) {
                    auto& [table, count] = *static_cast<std::pair<HashTable*, int>*>(context);
                    Require(item->m_pHashTable == table, "an enumerated item is in the table");
                    ++count;
                };
                Filter_EnumHashTable(race.table, note, &seen);
                Require(seen.second == 1 || seen.second == 2, "an enumeration sees what stays");
            }};
        race.end = [&] { Require(Filter_GetHashItemCount(race.table) == 1, "one item is left"); };
    });
}

// Two who found one item delete it, an enumeration deletes what it comes to.
TEST(Races, HashDeletionAgainstDeletion)
{
    Search<TableRace>({.shortly = 2, .fully = 3}, [](TableRace& race) {
        const auto remove = [&] {
            if (HashItem* const item = Filter_FindHashItem(race.table, kHash, nullptr)) {
                Filter_DeleteHashItem(item);
            }
        };
        race.threads = {remove, remove, [&] {
                            Filter_EnumHashTable(
                                race.table, [](PVOID, HashItem* item) { Filter_DeleteHashItem(item); },
                                nullptr);
                        }};
        race.end = [&] {
            Filter_ReleaseHashItem(&race.items[0]->header);
            Require(Filter_GetHashItemCount(race.table) == 0, "no item is left");
            Require(race.freed == 2, "the last reference frees an item");
        };
    });
}

TEST(Races, HashTableEndAgainstFind)
{
    Search<TableRace>({.shortly = 3, .fully = 4}, [](TableRace& race) {
        Filter_ReferenceHashTable(race.table); // the finder's
        race.threads = {[&] { Filter_DestroyHashTable(race.table); },
                        [&] {
                            race.FindAndRelease(kHash);
                            Filter_ReleaseHashTable(race.table);
                        }};
        race.end = [&] {
            Filter_ReleaseHashItem(&race.items[0]->header);
            race.table = nullptr; // is gone
        };
    });
}

struct Block {
    USHORT length;
    int value;
};

struct InterfaceRace : Race {
    void Begin() override
    {
        owner = std::make_unique<Client>("owner");
        user = std::make_unique<Client>("user");
        snprintf(text, sizeof(text), "%07u", ++number); // an interface that is left over keeps its name
        const Block block = {sizeof(Block), 42};
        RequireSuccess(Filter_RegisterInterface(owner->Handle(), &name, &block, &interface),
                       "Filter_RegisterInterface");
        RequireSuccess(Query(&held), "Filter_QueryInterface");
    }
    void End() override
    {
        user.reset();
        owner.reset();
    }

    FILTER_STATUS Query(PVOID* copy) { return Filter_QueryInterface(user->Handle(), &name, copy); }
    FILTER_STATUS Release(PVOID copy) { return Filter_ReleaseInterface(user->Handle(), copy); }

    char text[8] = {};
    const STRING name = {sizeof(text), sizeof(text), text};
    static inline unsigned number = 0;
    std::unique_ptr<Client> owner, user;
    FilterInterface* interface = nullptr;
    PVOID held = nullptr;
};

TEST(Races, InterfaceReleaseAgainstDeregistration)
{
    Search<InterfaceRace>({.shortly = 2, .fully = 4}, [](InterfaceRace& race) {
        race.threads = {
            [&] { RequireSuccess(race.Release(race.held), "Filter_ReleaseInterface"); },
            [&] {
                const FILTER_STATUS status = Filter_DeregisterInterface(race.owner->Handle(), race.interface);
                Require(status == FILTER_STATUS_SUCCESS || status == FILTER_ERROR_INTERFACE_ARE_REFERENCED,
                        "an interface goes, or is referenced");
            },
            [&] {
                PVOID copy = nullptr;
                const FILTER_STATUS status = race.Query(&copy);
                if (status == FILTER_STATUS_SUCCESS) {
                    Require(static_cast<Block*>(copy)->value == 42, "a copy has the block's contents");
                    RequireSuccess(race.Release(copy), "the release of a query");
                } else {
                    Require(status == FILTER_ERROR_INTERFACE_NOT_FOUND ||
                                status == FILTER_ERROR_INTERFACE_ARE_INVALID,
                            "an interface that goes is not found, or invalid");
                }
            }};
        race.end = [&] { // freed by the deregistration or by the last release, whichever came last
            PVOID copy = nullptr;
            Require(race.Query(&copy) == FILTER_ERROR_INTERFACE_NOT_FOUND,
                    "a query behind all finds nothing");
        };
    });
}

// The owner departs as a whole: copies become invalid, and their references stay with the framework until its unload.
TEST(Races, InterfaceReleaseAgainstDriverDeregistration)
{
    bool released;
    Search<InterfaceRace>({.shortly = 2, .fully = 4}, [&](InterfaceRace& race) {
        race.threads = {[&] {
                            const FILTER_STATUS status = race.Release(race.held);
                            released = status == FILTER_STATUS_SUCCESS;
                            Require(released || status == FILTER_ERROR_INVALID_FILTER_INTERFACE,
                                    "a copy is released, or invalid");
                        },
                        [&] { race.owner.reset(); }};
        race.end = [&] {
            PVOID copy = nullptr;
            // A release that was past the check of the copy's validity empties an interface that has become inactive.
            Require(race.Query(&copy) ==
                        (released ? FILTER_ERROR_INTERFACE_NOT_FOUND : FILTER_ERROR_INTERFACE_ARE_INVALID),
                    "an interface stays as long as a copy is out");
            race.user.reset();
            if (!released) {
                race.AcceptLeftovers();
            }
        };
    });
}

} // namespace
} // namespace races
