// Hash tables and interfaces: what one thread found, another takes out.
#include "race.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace races
{
namespace
{

constexpr ULONG kTag = 0x65636152; // "Race"

struct Item {
    HashItem header; // the first field
    int key;
};

class TableRace : public Race
{
  protected:
    static constexpr ULONG kHash = 1;

    void Begin() override
    {
        freed_ = 0;
        table_ = Filter_CreateHashTable("race", 4, FreeItem, nullptr);
        for (Item*& item : items_) {
            item = static_cast<Item*>(Filter_AllocateMemory(sizeof(Item), kTag));
            *item = {};
            item->header.m_HashValue = kHash + static_cast<ULONG>(&item - items_); // a bucket each
            Filter_InsertHashItem(table_, &item->header);
        }
        Filter_ReleaseHashItem(&items_[1]->header); // only the first one's insertion is still the race's
    }
    void End() override
    {
        Filter_DestroyHashTable(table_);
        Require(freed_ == 2, "each item is freed once");
    }

    static VOID FreeItem(HashItem* item)
    {
        ++freed_;
        Filter_FreeMemory(item);
    }

    // What is found stays, until it is given back.
    void FindAndRelease(ULONG hash)
    {
        HashItem* const item = Filter_FindHashItem(table_, hash, nullptr);
        if (item != nullptr) {
            Require(item->m_HashValue == hash, "an item that was found keeps its contents");
            Filter_ReleaseHashItem(item);
        }
    }

    HashTable* table_ = nullptr;
    Item* items_[2] = {};
    static inline std::atomic<int> freed_{0};
};

class DeleteFindEnumerate : public TableRace
{
    Bodies Threads() override
    {
        return {[this] { Require(Filter_DeleteHashItem(&items_[0]->header), "a deletion succeeds"); },
                [this] { FindAndRelease(kHash); },
                [this] {
                    Filter_EnumHashTable(
                        table_,
                        [](PVOID context, HashItem* item) {
                            auto& race = *static_cast<DeleteFindEnumerate*>(context);
                            Require(item->m_pHashTable == race.table_, "an enumerated item is in the table");
                            ++race.enumerated_;
                        },
                        this);
                    Require(enumerated_ == 1 || enumerated_ == 2, "an enumeration sees what stays");
                }};
    }
    void End() override
    {
        Require(Filter_GetHashItemCount(table_) == 1, "one item is left");
        TableRace::End();
    }
    int enumerated_ = 0;
};

TEST(Races, HashDeletionAgainstFindAndEnumeration)
{
    Search<DeleteFindEnumerate>({.shortly = 2, .fully = 4});
}

// Two who found one item delete it, an enumeration deletes what it comes to.
class DeleteTwice : public TableRace
{
    Bodies Threads() override
    {
        const auto remove = [this] {
            if (HashItem* const item = Filter_FindHashItem(table_, kHash, nullptr)) {
                Filter_DeleteHashItem(item);
            }
        };
        return {remove, remove, [this] {
                    Filter_EnumHashTable(
                        table_, [](PVOID, HashItem* item) { Filter_DeleteHashItem(item); }, nullptr);
                }};
    }
    void End() override
    {
        Filter_ReleaseHashItem(&items_[0]->header);
        Require(Filter_GetHashItemCount(table_) == 0, "no item is left");
        Require(freed_ == 2, "the last reference frees an item");
        TableRace::End();
    }
};

TEST(Races, HashDeletionAgainstDeletion)
{
    Search<DeleteTwice>({.shortly = 2, .fully = 3});
}

class DestroyAndFind : public TableRace
{
    void Begin() override
    {
        TableRace::Begin();
        Filter_ReferenceHashTable(table_); // the finder's
    }
    Bodies Threads() override
    {
        return {[this] { Filter_DestroyHashTable(table_); },
                [this] {
                    FindAndRelease(kHash);
                    Filter_ReleaseHashTable(table_);
                }};
    }
    void End() override
    {
        Filter_ReleaseHashItem(&items_[0]->header);
        Require(freed_ == 2, "each item is freed once");
    }
};

TEST(Races, HashTableEndAgainstFind)
{
    Search<DestroyAndFind>({.shortly = 3, .fully = 4});
}

struct Block {
    USHORT length;
    int value;
};

class InterfaceRace : public Race
{
  protected:
    void Begin() override
    {
        owner_ = std::make_unique<Client>("owner");
        user_ = std::make_unique<Client>("user");
        snprintf(text_, sizeof(text_), "%07u", ++number_); // an interface that is left over keeps its name
        const Block block = {sizeof(Block), 42};
        RequireSuccess(Filter_RegisterInterface(owner_->Handle(), &name_, &block, &interface_),
                       "Filter_RegisterInterface");
        RequireSuccess(Query(&held_), "Filter_QueryInterface");
    }
    void End() override
    {
        user_.reset();
        owner_.reset();
    }

    FILTER_STATUS Query(PVOID* copy) { return Filter_QueryInterface(user_->Handle(), &name_, copy); }
    FILTER_STATUS Release(PVOID copy) { return Filter_ReleaseInterface(user_->Handle(), copy); }

    char text_[8] = {};
    const STRING name_ = {sizeof(text_), sizeof(text_), text_};
    static inline unsigned number_ = 0;
    std::unique_ptr<Client> owner_, user_;
    FilterInterface* interface_ = nullptr;
    PVOID held_ = nullptr;
};

class ReleaseAndDeregister : public InterfaceRace
{
    Bodies Threads() override
    {
        return {[this] { RequireSuccess(Release(held_), "Filter_ReleaseInterface"); },
                [this] {
                    const FILTER_STATUS status = Filter_DeregisterInterface(owner_->Handle(), interface_);
                    Require(status == FILTER_STATUS_SUCCESS ||
                                status == FILTER_ERROR_INTERFACE_ARE_REFERENCED,
                            "an interface goes, or is referenced");
                },
                [this] {
                    PVOID copy = nullptr;
                    const FILTER_STATUS status = Query(&copy);
                    if (status == FILTER_STATUS_SUCCESS) {
                        Require(static_cast<Block*>(copy)->value == 42, "a copy has the block's contents");
                        RequireSuccess(Release(copy), "the release of a query");
                    } else {
                        Require(status == FILTER_ERROR_INTERFACE_NOT_FOUND ||
                                    status == FILTER_ERROR_INTERFACE_ARE_INVALID,
                                "an interface that goes is not found, or invalid");
                    }
                }};
    }
    void End() override // freed by the deregistration or by the last release, whichever came last
    {
        PVOID copy = nullptr;
        Require(Query(&copy) == FILTER_ERROR_INTERFACE_NOT_FOUND, "a query behind all finds nothing");
        InterfaceRace::End();
    }
};

TEST(Races, InterfaceReleaseAgainstDeregistration)
{
    Search<ReleaseAndDeregister>({.shortly = 2, .fully = 4});
}

// The owner departs as a whole: copies become invalid, and their references stay with the framework until its unload.
class ReleaseAndDepart : public InterfaceRace
{
    Bodies Threads() override
    {
        return {[this] {
                    const FILTER_STATUS status = Release(held_);
                    Require(status == FILTER_STATUS_SUCCESS ||
                                status == FILTER_ERROR_INVALID_FILTER_INTERFACE,
                            "a copy is released, or invalid");
                    released_ = status == FILTER_STATUS_SUCCESS;
                },
                [this] { owner_.reset(); }};
    }
    void End() override
    {
        PVOID copy = nullptr;
        const FILTER_STATUS status = Query(&copy);
        // A release that was past the check of the copy's validity empties an interface that has become inactive.
        Require(status == (released_ ? FILTER_ERROR_INTERFACE_NOT_FOUND : FILTER_ERROR_INTERFACE_ARE_INVALID),
                "an interface stays as long as a copy is out");
        InterfaceRace::End();
        if (!released_) {
            AcceptLeftovers();
        }
    }
    bool released_ = false;
};

TEST(Races, InterfaceReleaseAgainstDriverDeregistration)
{
    Search<ReleaseAndDepart>({.shortly = 2, .fully = 4});
}

} // namespace
} // namespace races
