// Hash tables. Who holds an item of a table that has been cleaned since only releases it.
#include "world.h"

namespace stress
{

namespace
{

constexpr uint32_t kKeys = 64;

ULONG HashOf(ULONG key)
{
    return key * 7; // so that buckets hold several values
}

BOOLEAN HasKey(HashItem* item, const VOID* key)
{
    return static_cast<TableItem*>(item)->key == *static_cast<const ULONG*>(key);
}

VOID FreeItem(HashItem* item)
{
    if (Filter_FreeMemory(item) != FILTER_STATUS_SUCCESS) {
        Fail("an item of a table was freed before");
    }
}

TableItem* NewItem(Random& random)
{
    auto* item = static_cast<TableItem*>(Filter_AllocateMemory(sizeof(TableItem), kTag));
    if (item != nullptr) {
        RtlZeroMemory(item, sizeof(*item));
        item->key = random.Below(kKeys);
        item->m_HashValue = HashOf(item->key);
    }
    return item;
}

struct LentTable {
    Loan<HashTable> loan;
    Table* table = nullptr;
    HashTable* Get() const { return loan.Get(); }
    explicit operator bool() const { return static_cast<bool>(loan); }
};

LentTable BorrowTable(Caller& caller)
{
    return FirstOf(caller.Stream(), TheWorld().tables, [](Table& table) -> LentTable {
        return {Loan<HashTable>(table.slot), &table};
    });
}

// Of the item's reference: keeps it for another call, or gives it back with or without the item's end.
void Dispose(Caller& caller, const LentTable& lent, TableItem* item)
{
    if (caller.Stream().Chance(40)) {
        auto place = FirstOf(caller.Stream(), TheWorld().items,
                             [](HeldItem& held) { return Hold<TableItem>::Vacant(held.slot); });
        if (place) {
            auto* held = reinterpret_cast<HeldItem*>(place.Place()); // its first member
            held->table = lent.table;
            held->epoch = lent.table->epoch.load(std::memory_order_relaxed);
            place.Set(item);
            return;
        }
    }
    if (caller.Stream().Chance(20)) {
        caller.Check(Filter_DeleteHashItem(item), "an item is deleted");
    } else {
        Filter_ReleaseHashItem(item);
    }
}

Outcome CreateTable(Caller& caller)
{
    auto place = FirstOf(caller.Stream(), TheWorld().tables,
                         [](Table& table) { return Hold<HashTable>::Vacant(table.slot); });
    if (!place) {
        return Outcome::NothingToUse;
    }
    const ULONG size = caller.Stream().OneOf<ULONG>({0, 1, 7, 16, 64});
    place.Set(Filter_CreateHashTable(caller.Stream().Chance(50) ? "stress" : nullptr, size,
                                     caller.Stream().Chance(50) ? FreeItem : nullptr, HasKey));
    return caller.Check(place.Get() != nullptr, "a table is created");
}

template <auto kEmpty>
Outcome EmptyTable(Caller& caller)
{
    if (caller.Stream().Chance(90)) { // tables are to fill up
        return Outcome::NothingToUse;
    }
    auto place = FirstOf(caller.Stream(), TheWorld().tables,
                         [](Table& table) { return Hold<HashTable>::Taken(table.slot); });
    if (!place) {
        return Outcome::NothingToUse;
    }
    reinterpret_cast<Table*>(place.Place())->epoch.fetch_add(1, std::memory_order_relaxed);
    kEmpty(place.Get());
    if constexpr (kEmpty == Filter_DestroyHashTable) {
        place.Set(nullptr);
    }
    return Outcome::Success;
}

template <class Act>
Outcome WithTable(Caller& caller, const Act& act)
{
    const LentTable lent = BorrowTable(caller);
    if (!lent) {
        return Outcome::NothingToUse;
    }
    act(lent);
    return Outcome::Success;
}

Outcome CountItems(Caller& caller)
{
    return WithTable(caller, [](const LentTable& lent) { Filter_GetHashItemCount(lent.Get()); });
}

Outcome ReferenceTable(Caller& caller)
{
    return WithTable(caller, [](const LentTable& lent) {
        Filter_ReferenceHashTable(lent.Get());
        Filter_ReleaseHashTable(lent.Get());
    });
}

// Inserts, finds and deletes from inside.
VOID VisitItem(PVOID context, HashItem* item)
{
    auto* table = static_cast<HashTable*>(context);
    Random& random = CallbackRandom();
    switch (random.Below(8)) {
    case 0:
        Filter_DeleteHashItem(item);
        break;
    case 1: {
        ULONG key = random.Below(kKeys);
        if (HashItem* const found = Filter_FindHashItem(table, HashOf(key), &key)) {
            Filter_ReleaseHashItem(found);
        }
        break;
    }
    case 2:
        if (TableItem* const fresh = random.Chance(20) ? NewItem(random) : nullptr) {
            Filter_ReleaseHashItem(Filter_InsertHashItem(table, fresh));
        }
        break;
    default:
        break;
    }
}

Outcome EnumTable(Caller& caller)
{
    return WithTable(caller,
                     [](const LentTable& lent) { Filter_EnumHashTable(lent.Get(), VisitItem, lent.Get()); });
}

Outcome EnumBucket(Caller& caller)
{
    return WithTable(caller, [&](const LentTable& lent) {
        Filter_EnumHashTableEx(lent.Get(), HashOf(caller.Stream().Below(kKeys)), VisitItem, lent.Get());
    });
}

Outcome InsertItem(Caller& caller)
{
    return WithTable(caller, [&](const LentTable& lent) {
        for (uint32_t i = 1 + caller.Stream().Below(16); i > 0; --i) {
            TableItem* const item =
                Filter_GetHashItemCount(lent.Get()) < 4 * kKeys ? NewItem(caller.Stream()) : nullptr;
            if (item != nullptr) {
                caller.Check(Filter_InsertHashItem(lent.Get(), item) == item, "an item is inserted");
                Dispose(caller, lent, item);
            }
        }
    });
}

Outcome FindItem(Caller& caller)
{
    const LentTable lent = BorrowTable(caller);
    if (!lent) {
        return Outcome::NothingToUse;
    }
    const ULONG key = caller.Stream().Below(kKeys);
    auto* item = static_cast<TableItem*>(Filter_FindHashItem(lent.Get(), HashOf(key), &key));
    if (item == nullptr) {
        return Outcome::Refused;
    }
    caller.Check(item->key == key, "the item that is found has the key");
    Dispose(caller, lent, item);
    return Outcome::Success;
}

// Between lock and unlock, in the caller's hands.
Outcome WithLock(Caller& caller)
{
    return WithTable(caller, [&](const LentTable& lent) {
        TableItem* const fresh = NewItem(caller.Stream());
        const ULONG key = caller.Stream().Below(kKeys);
        LOCK_STATE state;
        Filter_LockHashTable(lent.Get(), &state);
        if (fresh != nullptr) {
            caller.Check(Filter_InsertHashItemEx(lent.Get(), fresh) == fresh,
                         "an item is inserted under the lock");
            HashItem* const found = Filter_FindHashItemEx(lent.Get(), fresh->m_HashValue, &fresh->key);
            caller.Check(found == fresh, "the newest item is found");
            Filter_ReleaseHashItem(found);
            caller.Check(Filter_DeleteHashItemEx(fresh), "an item is deleted under the lock");
        }
        if (HashItem* const found = Filter_FindHashItemEx(lent.Get(), HashOf(key), &key)) {
            Filter_ReleaseHashItem(found);
        }
        Filter_UnLockHashTable(lent.Get(), &state);
    });
}

Hold<TableItem> TakeItem(Caller& caller)
{
    return FirstOf(caller.Stream(), TheWorld().items,
                   [](HeldItem& held) { return Hold<TableItem>::Taken(held.slot); });
}

Outcome DeleteItem(Caller& caller)
{
    auto hold = TakeItem(caller);
    if (!hold) {
        return Outcome::NothingToUse;
    }
    const auto& held = *reinterpret_cast<HeldItem*>(hold.Place());
    const Loan<HashTable> loan(held.table->slot);
    TableItem* const item = hold.Get();
    hold.Set(nullptr);
    if (loan && held.table->epoch.load(std::memory_order_relaxed) == held.epoch) {
        return caller.Check(Filter_DeleteHashItem(item), "an item is deleted");
    }
    Filter_ReleaseHashItem(item); // it was removed with all the others
    return Outcome::Refused;
}

Outcome ReleaseItem(Caller& caller)
{
    auto hold = TakeItem(caller);
    if (!hold) {
        return Outcome::NothingToUse;
    }
    Filter_ReferenceHashItem(hold.Get());
    Filter_ReleaseHashItem(hold.Get());
    Filter_ReleaseHashItem(hold.Get());
    hold.Set(nullptr);
    return Outcome::Success;
}

void Nothing(Caller& caller)
{
    LOCK_STATE state;
    const ULONG key = 0;
    Filter_DestroyHashTable(nullptr);
    Filter_CleanHashTable(nullptr);
    Filter_EnumHashTable(nullptr, VisitItem, nullptr);
    Filter_EnumHashTableEx(nullptr, 0, VisitItem, nullptr);
    Filter_LockHashTable(nullptr, &state);
    Filter_UnLockHashTable(nullptr, &state);
    Filter_ReferenceHashTable(nullptr);
    Filter_ReleaseHashTable(nullptr);
    Filter_ReferenceHashItem(nullptr);
    Filter_ReleaseHashItem(nullptr);
    caller.Check(Filter_GetHashItemCount(nullptr) == 0 && Filter_FindHashItem(nullptr, 0, &key) == nullptr &&
                     Filter_FindHashItemEx(nullptr, 0, &key) == nullptr && !Filter_DeleteHashItem(nullptr) &&
                     !Filter_DeleteHashItemEx(nullptr) &&
                     Filter_InsertHashItem(nullptr, nullptr) == nullptr &&
                     Filter_InsertHashItemEx(nullptr, nullptr) == nullptr,
                 "nothing is in no table");
}

constexpr auto D = Level::Dispatch;

constexpr Call kCalls[] = {
    {"Filter_CreateHashTable", Actor::Caller, D, 1, CreateTable, nullptr},
    {"Filter_DestroyHashTable", Actor::Caller, D, 1, EmptyTable<Filter_DestroyHashTable>, Nothing},
    {"Filter_CleanHashTable", Actor::Caller, D, 1, EmptyTable<Filter_CleanHashTable>, Nothing},
    {"Filter_GetHashItemCount", Actor::Caller, D, 30, CountItems, Nothing},
    {"Filter_EnumHashTable", Actor::Caller, D, 30, EnumTable, Nothing},
    {"Filter_EnumHashTableEx", Actor::Caller, D, 30, EnumBucket, Nothing},
    {"Filter_LockHashTable", Actor::Caller, D, 30, WithLock, Nothing},
    {"Filter_UnLockHashTable", Actor::Caller, D, 30, WithLock, Nothing},
    {"Filter_InsertHashItem", Actor::Caller, D, 30, InsertItem, Nothing},
    {"Filter_InsertHashItemEx", Actor::Caller, D, 30, WithLock, Nothing},
    {"Filter_FindHashItem", Actor::Caller, D, 2, FindItem, Nothing},
    {"Filter_FindHashItemEx", Actor::Caller, D, 30, WithLock, Nothing},
    {"Filter_DeleteHashItem", Actor::Caller, D, 1, DeleteItem, Nothing},
    {"Filter_DeleteHashItemEx", Actor::Caller, D, 30, WithLock, Nothing},
    {"Filter_ReferenceHashTable", Actor::Caller, D, 30, ReferenceTable, Nothing},
    {"Filter_ReleaseHashTable", Actor::Caller, D, 30, ReferenceTable, Nothing},
    {"Filter_ReferenceHashItem", Actor::Caller, D, 10, ReleaseItem, Nothing},
    {"Filter_ReleaseHashItem", Actor::Caller, D, 10, ReleaseItem, Nothing},
};

} // namespace

std::span<const Call> TableCalls()
{
    return kCalls;
}

} // namespace stress
