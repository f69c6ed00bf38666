// Hash tables and items of them, which some thread may hold while others empty the table.
#include "world.h"

namespace stress
{

namespace
{

constexpr uint32_t kKeys = 64;

struct TableItem : HashItem {
    ULONG key;
};

BOOLEAN HasKey(HashItem* item, const VOID* key)
{
    return static_cast<TableItem*>(item)->key == *static_cast<const ULONG*>(key);
}

TableItem* NewItem()
{
    auto* const item = static_cast<TableItem*>(Filter_AllocateMemory(sizeof(TableItem), kTag));
    RtlZeroMemory(item, sizeof(*item));
    item->key = Dice().Below(kKeys);
    item->m_HashValue = item->key / 2; // so that items share a value
    return item;
}

VOID FreeItem(HashItem* item)
{
    RequireSuccess(Filter_FreeMemory(item), "an item of a table is freed");
}

HashItem* Get(HashTable* table)
{
    const ULONG key = Dice().Below(kKeys);
    HashItem* const item = Filter_FindHashItem(table, key / 2, &key);
    Require(item == nullptr || HasKey(item, &key), "the item that is found has the key");
    return item;
}

// Inserts some, and answers the last one with its reference.
HashItem* Insert(HashTable* table)
{
    HashItem* item = nullptr;
    for (uint32_t i = Dice().Below(16); table != nullptr && i <= 16; ++i) {
        Filter_ReleaseHashItem(item);
        item = Filter_GetHashItemCount(table) < 4 * kKeys ? Filter_InsertHashItem(table, NewItem()) : nullptr;
    }
    return item;
}

// Nobody empties the table meanwhile: behind that an item may only be released.
BOOLEAN Delete(HashTable* table)
{
    return Filter_DeleteHashItem(Get(table));
}

VOID ReferenceTable(HashTable* table)
{
    Filter_ReferenceHashTable(table);
    Filter_ReleaseHashTable(table);
}

VOID ReleaseItem(HashItem* item)
{
    Filter_ReferenceHashItem(item);
    Filter_ReleaseHashItem(item);
    Filter_ReleaseHashItem(item);
}

// Finds, deletes and inserts from inside.
VOID VisitItem(PVOID, HashItem* item)
{
    const uint32_t act = Dice().Below(32);
    if (act < 4) {
        Filter_DeleteHashItem(item);
    } else if (act < 6) {
        Filter_ReleaseHashItem(Get(item->m_pHashTable));
    } else if (act == 6) {
        Filter_ReleaseHashItem(Filter_InsertHashItem(item->m_pHashTable, NewItem()));
    }
}

// Between lock and unlock, in the caller's hands.
VOID UseLocked(HashTable* table)
{
    TableItem* const item = NewItem();
    LOCK_STATE state;
    Filter_LockHashTable(table, &state);
    Filter_InsertHashItemEx(table, item);
    HashItem* const found = Filter_FindHashItemEx(table, item->m_HashValue, &item->key);
    Require(found == item, "the newest item is found");
    Filter_ReleaseHashItem(found);
    Require(Filter_DeleteHashItemEx(item), "an item is deleted under the lock");
    Filter_UnLockHashTable(table, &state);
}

} // namespace

std::vector<Call> TableCalls()
{
    const Argument table = Handle(Form::Live, kTable, 0);
    const Argument locked = Handle(Form::Live, kTable);
    const Argument item = Handle(Form::Given, kItem, 0);
    const Argument size = OneOf({0, 1, 7, 16, 64});
    const Options rarely = {.percent = 10}; // tables are to fill up
    const Options none = {.may = {kNo}};
    return {
        Line(NAMED(Filter_CreateHashTable), 5,
             {Null(), size, OneOf({0, Word(FreeItem)}), Pointer(HasKey), Result(kTable)}),
        Line(NAMED(Filter_DestroyHashTable), 5, {Ended(kTable)}, rarely),
        Line(NAMED(Filter_CleanHashTable), 5, {Handle(Form::Own, kTable, 0)}, rarely),
        Line(NAMED(Filter_GetHashItemCount), 70, {table}),
        Line(NAMED(Filter_EnumHashTable), 70, {table, Pointer(VisitItem), Null()}),
        Line(NAMED(Filter_EnumHashTableEx), 70, {table, Number(0, kKeys / 2), Pointer(VisitItem), Null()}),
        Line("Filter_LockHashTable", UseLocked, 70, {locked}),
        Line("Filter_UnLockHashTable", UseLocked, 70, {locked}),
        Line("Filter_InsertHashItemEx", UseLocked, 70, {locked}),
        Line("Filter_FindHashItemEx", UseLocked, 70, {locked}),
        Line("Filter_DeleteHashItemEx", UseLocked, 70, {locked}),
        Line("Filter_InsertHashItem", Insert, 25, {table, Result(kItem)}, none),
        Line("Filter_FindHashItem", Get, 10, {table, Result(kItem)}, none),
        Line("Filter_DeleteHashItem", Delete, 10, {table}, none),
        Line("Filter_ReferenceHashTable", ReferenceTable, 70, {table}),
        Line("Filter_ReleaseHashTable", ReferenceTable, 70, {table}),
        Line("Filter_ReferenceHashItem", ReleaseItem, 30, {item}),
        Line("Filter_ReleaseHashItem", ReleaseItem, 30, {item}),
    };
}

} // namespace stress
