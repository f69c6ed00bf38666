// Hash tables and interfaces: what one thread found, another takes out.
#include "race.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace races
{
namespace
{

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
