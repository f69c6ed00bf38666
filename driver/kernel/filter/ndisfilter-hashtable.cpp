// Hash tables for client drivers. Items are the clients' own records; the table links and counts them.
//
// Who holds references: the creator one to the table, every item one to its table until it is freed; the table one to
// each of its items, and whoever inserted or found an item one more.
#include "ndisfilter-handle.h"

namespace
{

LONG Increment(ULONG& count)
{
    return InterlockedIncrement(reinterpret_cast<volatile LONG*>(&count));
}

LONG Decrement(ULONG& count)
{
    return InterlockedDecrement(reinterpret_cast<volatile LONG*>(&count));
}

ULONG Now()
{
    return static_cast<ULONG>(Filter_GetSystemTime());
}

__attribute__((noinline)) BOOLEAN IsThreadOfEnumeration(const HashTable& table)
{
    return LoadRelaxed(table.m_hEnumProcess) == PsGetCurrentProcessId() &&
           LoadRelaxed(table.m_hEnumThread) == PsGetCurrentThreadId();
}

// The enumeration holds the table's lock, so its callbacks must not take it again.
inline BOOLEAN IsEnumeratingThread(const HashTable& table)
{
    return __builtin_expect(LoadAcquire(table.m_bEnumerating) != 0, 0) && IsThreadOfEnumeration(table);
}

enum class Locking {
    Plain, // takes the table's lock, except in a callback of the enumeration
    Ex,    // the caller holds it
};

template <BOOLEAN Write>
class TableLock
{
  public:
    __attribute__((always_inline)) TableLock(HashTable& table, Locking locking)
        : lock_(locking == Locking::Plain && !IsEnumeratingThread(table) ? &table.m_Lock : nullptr)
    {
        if (lock_ != nullptr) {
            NdisAcquireReadWriteLock(lock_, Write, &state_);
        }
    }
    ~TableLock()
    {
        if (lock_ != nullptr) {
            NdisReleaseReadWriteLock(lock_, &state_);
        }
    }
    TableLock(const TableLock&) = delete;
    TableLock& operator=(const TableLock&) = delete;

  private:
    PNDIS_RW_LOCK lock_;
    LOCK_STATE state_;
};

VOID ReferenceTable(HashTable* table)
{
    const LONG count = Increment(table->m_RefCount);
    Trace(TRACE_HASH, "  pHashTable[0x%p/%s]->m_RefCount ++ = %d\n", table, table->pItemName, count);
}

VOID ReleaseTable(HashTable* table)
{
    const PCSTR name = table->pItemName; // of a table that others may free as soon as it is released
    const LONG count = Decrement(table->m_RefCount);
    if (count == 0) {
        Trace(TRACE_HASH, "  pHashTable[0x%p/%s]->m_RefCount -- = %d, Free it\n", table, name, count);
        Filter_FreeMemory(table);
    } else {
        Trace(TRACE_HASH, "  pHashTable[0x%p/%s]->m_RefCount -- = %d\n", table, name, count);
    }
}

VOID ReferenceItem(HashItem* item)
{
    const LONG count = Increment(item->m_RefCount);
    Trace(TRACE_HASH, "  pHashItem[0x%p/%s]->m_RefCount ++ = %d\n", item, item->m_pHashTable->pItemName,
          count);
}

VOID FreeItem(HashTable& table, HashItem* item)
{
    if (table.pfnFreeItem == nullptr) {
        Filter_FreeMemory(item);
        return;
    }
    const NTSTATUS code = Guarded([&] { table.pfnFreeItem(item); });
    if (code != 0) {
        PrintException("Filter_ReleaseHashItem", code);
    }
}

// Only the enumeration's own thread makes an item the current one, with a reference of the enumeration to it: so whoever
// sees here that an item is not, is right for as long as it matters.
VOID ForgetCurrentItem(HashTable& table, HashItem* item)
{
    if (LoadAcquire(table.m_pCurrentItem) == item) {
        InterlockedCompareExchangePointer(reinterpret_cast<PVOID*>(&table.m_pCurrentItem), nullptr, item);
    }
}

// Frees an item that has just lost its last reference.
__attribute__((noinline)) VOID EndItem(HashItem* item)
{
    HashTable& table = *item->m_pHashTable; // stays at least as long as the item
    Trace(TRACE_HASH, "  pHashItem[0x%p/%s]->m_RefCount -- = 0, Free it\n", item, table.pItemName);
    ForgetCurrentItem(table, item); // before its memory can be another item's
    FreeItem(table, item);
    ReleaseTable(&table);
}

// FALSE: that was its end.
BOOLEAN TraceItemRelease(HashItem* item)
{
    const PCSTR name =
        item->m_pHashTable->pItemName; // of an item that others may free as soon as it is released
    const LONG count = Decrement(item->m_RefCount);
    if (count == 0) {
        EndItem(item);
        return FALSE;
    }
    Trace(TRACE_HASH, "  pHashItem[0x%p/%s]->m_RefCount -- = %d\n", item, name, count);
    return TRUE;
}

// Drops some references, each with its own trace line. A caller that never had one of them does not keep the item from
// its end.
inline VOID ReleaseItem(HashItem* item, LONG references = 1)
{
    if (TraceEnabled(TRACE_HASH)) {
        for (LONG i = 0; i < references && TraceItemRelease(item); i++) {
        }
        return;
    }
    const LONG before =
        InterlockedExchangeAdd(reinterpret_cast<volatile LONG*>(&item->m_RefCount), -references);
    if (before > 0 && before <= references) {
        EndItem(item);
    }
}

BOOLEAN BelongsToTable(const HashItem* item)
{
    return item != nullptr && item->m_pHashTable != nullptr;
}

// A table of size 0 uses the spare bucket for every value, and has one more to spare.
SIZE_T UsedBuckets(ULONG size)
{
    return size != 0 ? size : 1;
}

// Where the enumeration goes on; moved on when that item is deleted. Lies in the spare bucket.
LIST_ENTRY*& NextLink(HashTable& table)
{
    return table.m_Buckets[UsedBuckets(table.HashTableSize)].Flink;
}

LIST_ENTRY* BucketOf(HashTable& table, ULONG hashValue)
{
    return &table.m_Buckets[hashValue & table.m_HashMask];
}

// The number of items changes under the table's lock only, which callers of the Ex variants hold, and is read without it.
VOID CountItems(HashTable& table, LONG change)
{
    StoreRelaxed(table.m_nItemCount, LoadRelaxed(table.m_nItemCount) + static_cast<ULONG>(change));
}

// Under the table's lock. The item's references, the table's and the caller's, are there before anybody else can find and
// delete it.
VOID LinkItem(HashTable* table, HashItem* item)
{
    item->m_pHashTable = table;
    ReferenceTable(table);
    if (TraceEnabled(TRACE_HASH)) {
        ReferenceItem(item);
        ReferenceItem(item);
    } else {
        InterlockedExchangeAdd(reinterpret_cast<volatile LONG*>(&item->m_RefCount), 2);
    }
    InsertTailList(&table->m_ItemList, &item->m_ListEntry);
    InsertHeadList(BucketOf(*table, item->m_HashValue), &item->m_BucketEntry);
    CountItems(*table, 1);
}

VOID Unlink(LIST_ENTRY& link)
{
    RemoveEntryList(&link);
    InitializeListHead(&link); // so that it shows: see IsLinked
}

VOID UnlinkItem(HashTable& table, HashItem* item)
{
    LIST_ENTRY* const links[] = {&item->m_ListEntry, &item->m_BucketEntry};
    for (LIST_ENTRY* link : links) {
        if (NextLink(table) == link) {
            NextLink(table) = link->Flink;
        }
        Unlink(*link);
    }
}

// Not so behind a clean, which leaves the deleted flag alone.
BOOLEAN IsLinked(const HashItem* item)
{
    return item->m_ListEntry.Flink != &item->m_ListEntry;
}

// Takes an item out of its table. FALSE: it was out already.
BOOLEAN RemoveItem(HashItem* item, Locking locking)
{
    HashTable& table = *item->m_pHashTable;
    const TableLock<TRUE> lock(table, locking);
    if (item->m_bDeleted || !IsLinked(item)) {
        return FALSE;
    }
    item->m_bDeleted = TRUE;
    UnlinkItem(table, item);
    CountItems(table, -1);
    // The deletion uses up the reference of the enumeration whose callback makes it.
    ForgetCurrentItem(table, item);
    return TRUE;
}

// A walk along a bucket: what it looks for, and what it has found. Its fields are read anew behind each call of a compare
// routine, so that the walk keeps little in registers that every function on the way would have to save.
struct Search {
    LIST_ENTRY* Bucket;
    FILTER_COMPARE_HASH_ITEM Compare;
    const VOID* Key;
    ULONG HashValue;
    HashItem* Found = nullptr;

    VOID Run()
    {
        for (LIST_ENTRY* link = Bucket->Flink; link != Bucket; link = link->Flink) {
            HashItem* const item = CONTAINING_RECORD(link, HashItem, m_BucketEntry);
            __builtin_prefetch(item + 1); // the key, most likely
            if (item->m_HashValue == HashValue && (Compare == nullptr || Compare(item, Key))) {
                Found = item;
                return;
            }
        }
    }
};

// A find is as long as the processor's memory latency divided by how many finds it can look ahead, so out of the caches
// each instruction counts: the road without trace lines is a function of its own.
template <BOOLEAN Traced>
__attribute__((always_inline)) inline HashItem* SearchTable(PCSTR name, HashTable& table, ULONG hashValue,
                                                            const VOID* key, Locking locking)
{
    Search search = {BucketOf(table, hashValue), table.pfnCompItem, key, hashValue};
    __builtin_prefetch(search.Bucket);
    NTSTATUS code = 0;
    {
        const TableLock<FALSE> lock(table, locking);
        code = CallGuarded([](PVOID context) { static_cast<Search*>(context)->Run(); }, &search);
        if (HashItem* const item = search.Found) {
            const ULONG now = Now();
            if (LoadRelaxed(item->m_nTime) != now) { // written by any number of finders at once
                StoreRelaxed(item->m_nTime, now);
            }
            if constexpr (Traced) {
                ReferenceItem(item);
            } else {
                Increment(item->m_RefCount);
            }
        }
    }
    if (__builtin_expect(code != 0, 0)) {
        PrintException(name, code);
    }
    return search.Found;
}

__attribute__((noinline)) HashItem* FindTraced(PCSTR name, HashTable* table, ULONG hashValue, const VOID* key,
                                               Locking locking)
{
    Trace(TRACE_HASH, "Enter %s\n", name);
    HashItem* const item =
        table != nullptr ? SearchTable<TRUE>(name, *table, hashValue, key, locking) : nullptr;
    if (item != nullptr) {
        Trace(TRACE_HASH, "Leave Filter_FindHashItem, pHashItem = 0x%p\n", item); // in both variants
    } else {
        Trace(TRACE_HASH, "Leave Filter_FindHashItem, NULL\n");
    }
    return item;
}

__attribute__((always_inline)) inline HashItem* Find(PCSTR name, HashTable* table, ULONG hashValue,
                                                     const VOID* key, Locking locking)
{
    if (TraceEnabled(TRACE_HASH)) {
        return FindTraced(name, table, hashValue, key, locking);
    }
    return table != nullptr ? SearchTable<FALSE>(name, *table, hashValue, key, locking) : nullptr;
}

HashItem* Insert(PCSTR name, HashTable* table, HashItem* item, Locking locking)
{
    Trace(TRACE_HASH, "Enter %s\n", name);
    if (item != nullptr && table != nullptr) {
        item->m_RefCount = 0;
        item->m_bDeleted = FALSE;
        item->m_nTime = Now();
        __builtin_prefetch(BucketOf(*table, item->m_HashValue), 1);
        const TableLock<TRUE> lock(*table, locking);
        LinkItem(table, item);
    } else if (BelongsToTable(item)) {
        ReferenceItem(item);
    }
    Trace(TRACE_HASH, "Leave Filter_InsertHashItem, pHashItem = 0x%p\n", item); // in both variants
    return item;
}

BOOLEAN Delete(PCSTR name, HashItem* item, Locking locking)
{
    Trace(TRACE_HASH, "Enter %s\n", name);
    const BOOLEAN belongs = BelongsToTable(item);
    if (belongs) {
        if (RemoveItem(item, locking)) {
            ReleaseItem(item, 2); // the table's and the caller's
        } else {
            Trace(TRACE_HASH, "DeleteHashItem: double delete hash item, try release hash item\n");
            ReleaseItem(item); // the caller's
        }
    }
    Trace(TRACE_HASH, "Leave %s\n", name);
    return belongs;
}

// Calls the routine for one item of the enumeration, with a reference to it; answers the code of its exception, or 0.
NTSTATUS CallEnumRoutine(HashTable& table, HashItem* item, FILTER_ENUM_HASH_ITEM routine, PVOID context)
{
    ReferenceItem(item);
    InterlockedExchangePointer(reinterpret_cast<PVOID*>(&table.m_pCurrentItem), item);
    const NTSTATUS code = Guarded([&] { routine(context, item); });
    if (InterlockedExchangePointer(reinterpret_cast<PVOID*>(&table.m_pCurrentItem), nullptr) == item) {
        ReleaseItem(item);
    }
    return code;
}

// Walks a list of items whose links lie at an offset in them. The routine may delete items. Answers the code of the
// exception that ended the walk, or 0.
NTSTATUS Enumerate(HashTable* table, LIST_ENTRY* head, SIZE_T linkOffset, FILTER_ENUM_HASH_ITEM routine,
                   PVOID context)
{
    NTSTATUS code = 0;
    ReferenceTable(table);
    {
        const WriteLock lock(table->m_Lock);
        StoreRelaxed(table->m_hEnumProcess, PsGetCurrentProcessId());
        StoreRelaxed(table->m_hEnumThread, PsGetCurrentThreadId());
        InterlockedExchange(&table->m_bEnumerating, 1);
        LIST_ENTRY*& next = NextLink(*table);
        next = head->Flink;
        while (next != head && code == 0) {
            const PUCHAR link = reinterpret_cast<PUCHAR>(next);
            next = next->Flink;
            code = CallEnumRoutine(*table, reinterpret_cast<HashItem*>(link - linkOffset), routine, context);
        }
        next = nullptr;
        InterlockedExchange(&table->m_bEnumerating, 0);
    }
    ReleaseTable(table);
    return code;
}

VOID RemoveAllItems(HashTable& table)
{
    const WriteLock lock(table.m_Lock);
    while (!IsListEmpty(&table.m_ItemList)) {
        HashItem* const item = CONTAINING_RECORD(table.m_ItemList.Flink, HashItem, m_ListEntry);
        Trace(TRACE_HASH, "  Remove %s Hash Item 0x%p\n", table.pItemName, item);
        UnlinkItem(table, item);
        ReleaseItem(item);
    }
}

// Runs the body between the trace lines of a function without a result.
template <class Body>
VOID TracedVoid(PCSTR name, const Body& body)
{
    Trace(TRACE_HASH, "Enter %s\n", name);
    body();
    Trace(TRACE_HASH, "Leave %s\n", name);
}

} // namespace

HashTable* Filter_CreateHashTable(PCSTR pszItemName, ULONG nSize, FILTER_FREE_HASH_ITEM pfnFreeItem,
                                  FILTER_COMPARE_HASH_ITEM pfnCompItem)
{
    const PCSTR itemName = pszItemName != nullptr ? pszItemName : "unknown";
    Trace(TRACE_HASH, "Enter Filter_CreateHashTable\n");
    Trace(TRACE_HASH, " - HashTableSize = %d\n", nSize);
    Trace(TRACE_HASH, " - pItemName     = %s\n", itemName);
    Trace(TRACE_HASH, " - pfnFreeItem   = 0x%p\n", AddressOf(pfnFreeItem));
    Trace(TRACE_HASH, " - pfnCompItem   = 0x%p\n", AddressOf(pfnCompItem));
    ULONG size = nSize;
    if (size % 2 != 0) {
        size = (size | 1) + 1;
        Trace(TRACE_HASH, "  Adjust HashTableSize to %d\n", size);
    }
    const SIZE_T buckets = UsedBuckets(size);
    HashTable* const table = static_cast<HashTable*>(
        AllocateZeroed(offsetof(HashTable, m_Buckets) + (buckets + 1) * sizeof(LIST_ENTRY), POOL_TAG_HASH));
    if (table != nullptr) {
        table->HashTableSize = size;
        table->m_HashMask = size != 0 ? size - 1 : 0;
        table->pItemName = itemName;
        table->pfnFreeItem = pfnFreeItem;
        table->pfnCompItem = pfnCompItem;
        NdisInitializeReadWriteLock(&table->m_Lock);
        InitializeListHead(&table->m_ItemList);
        for (SIZE_T i = 0; i < buckets; i++) {
            InitializeListHead(&table->m_Buckets[i]);
        }
        ReferenceTable(table);
    }
    Trace(TRACE_HASH, "Leave Filter_CreateHashTable, pHashTable = 0x%p\n", table);
    return table;
}

VOID Filter_DestroyHashTable(HashTable* pHashTable)
{
    TracedVoid("Filter_DestroyHashTable", [&] {
        if (pHashTable != nullptr) {
            RemoveAllItems(*pHashTable);
            ReleaseTable(pHashTable);
        }
    });
}

VOID Filter_CleanHashTable(HashTable* pHashTable)
{
    TracedVoid("Filter_CleanHashTable", [&] {
        if (pHashTable != nullptr) {
            ReferenceTable(pHashTable);
            RemoveAllItems(*pHashTable);
            ReleaseTable(pHashTable);
        }
    });
}

ULONG Filter_GetHashItemCount(HashTable* pHashTable)
{
    ULONG count = 0;
    TracedVoid("Filter_GetHashItemCount", [&] {
        if (pHashTable != nullptr) {
            count = LoadRelaxed(pHashTable->m_nItemCount);
        }
    });
    return count;
}

VOID Filter_EnumHashTable(HashTable* pHashTable, FILTER_ENUM_HASH_ITEM pfnEnumItem, PVOID pEnumContext)
{
    constexpr PCSTR name = "Filter_EnumHashTable";
    TracedVoid(name, [&] {
        if (pHashTable == nullptr || pfnEnumItem == nullptr) {
            return;
        }
        Trace(TRACE_HASH, " - pfnEnumItem  = 0x%p\n", AddressOf(pfnEnumItem));
        Trace(TRACE_HASH, " - pEnumContext = 0x%p\n", pEnumContext);
        const NTSTATUS code = Enumerate(pHashTable, &pHashTable->m_ItemList, offsetof(HashItem, m_ListEntry),
                                        pfnEnumItem, pEnumContext);
        if (code != 0) {
            PrintException(name, code);
        }
    });
}

VOID Filter_EnumHashTableEx(HashTable* pHashTable, ULONG nHashValue, FILTER_ENUM_HASH_ITEM pfnEnumItem,
                            PVOID pEnumContext)
{
    constexpr PCSTR name = "Filter_EnumHashTableEx";
    TracedVoid(name, [&] {
        if (pHashTable == nullptr || pfnEnumItem == nullptr) {
            return;
        }
        Trace(TRACE_HASH, " - HashValue    = %d\n", nHashValue);
        Trace(TRACE_HASH, " - pfnEnumItem  = 0x%p\n", AddressOf(pfnEnumItem));
        Trace(TRACE_HASH, " - pEnumContext = 0x%p\n", pEnumContext);
        const NTSTATUS code = Enumerate(pHashTable, BucketOf(*pHashTable, nHashValue),
                                        offsetof(HashItem, m_BucketEntry), pfnEnumItem, pEnumContext);
        if (code != 0) {
            PrintException(name, code);
        }
    });
}

VOID Filter_LockHashTable(HashTable* pHashTable, PLOCK_STATE pLockState)
{
    TracedVoid("Filter_LockHashTable", [&] {
        if (pHashTable != nullptr && pLockState != nullptr) {
            NdisAcquireReadWriteLock(&pHashTable->m_Lock, TRUE, pLockState);
        }
    });
}

VOID Filter_UnLockHashTable(HashTable* pHashTable, PLOCK_STATE pLockState)
{
    TracedVoid("Filter_UnLockHashTable", [&] {
        if (pHashTable != nullptr && pLockState != nullptr) {
            NdisReleaseReadWriteLock(&pHashTable->m_Lock, pLockState);
        }
    });
}

HashItem* Filter_InsertHashItem(HashTable* pHashTable, HashItem* pHashItem)
{
    return Insert("Filter_InsertHashItem", pHashTable, pHashItem, Locking::Plain);
}

HashItem* Filter_InsertHashItemEx(HashTable* pHashTable, HashItem* pHashItem)
{
    return Insert("Filter_InsertHashItemEx", pHashTable, pHashItem, Locking::Ex);
}

HashItem* Filter_FindHashItem(HashTable* pHashTable, ULONG nHashValue, const VOID* pKey)
{
    return Find("Filter_FindHashItem", pHashTable, nHashValue, pKey, Locking::Plain);
}

HashItem* Filter_FindHashItemEx(HashTable* pHashTable, ULONG nHashValue, const VOID* pKey)
{
    return Find("Filter_FindHashItemEx", pHashTable, nHashValue, pKey, Locking::Ex);
}

BOOLEAN Filter_DeleteHashItem(HashItem* pHashItem)
{
    return Delete("Filter_DeleteHashItem", pHashItem, Locking::Plain);
}

BOOLEAN Filter_DeleteHashItemEx(HashItem* pHashItem)
{
    return Delete("Filter_DeleteHashItemEx", pHashItem, Locking::Ex);
}

VOID Filter_ReferenceHashTable(HashTable* pHashTable)
{
    TracedVoid("Filter_ReferenceHashTable", [&] {
        if (pHashTable != nullptr) {
            ReferenceTable(pHashTable);
        }
    });
}

VOID Filter_ReleaseHashTable(HashTable* pHashTable)
{
    TracedVoid("Filter_ReleaseHashTable", [&] {
        if (pHashTable != nullptr) {
            ReleaseTable(pHashTable);
        }
    });
}

VOID Filter_ReferenceHashItem(HashItem* pHashItem)
{
    TracedVoid("Filter_ReferenceHashItem", [&] {
        if (BelongsToTable(pHashItem)) {
            ReferenceItem(pHashItem);
        }
    });
}

VOID Filter_ReleaseHashItem(HashItem* pHashItem)
{
    Trace(TRACE_HASH, "Enter Filter_ReleaseHashItem\n");
    if (BelongsToTable(pHashItem)) {
        ReleaseItem(pHashItem);
    }
    Trace(TRACE_HASH, "Leave Filter_ReleaseHashItem\n");
}
