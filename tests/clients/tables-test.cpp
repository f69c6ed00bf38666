// Hash tables of client drivers.
#include "support/framework.h"

#include <list>

using namespace support;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace
{

constexpr uint32_t kTraceHash = 0x1000;

struct Item {
    HashItem head = {};
    int key = 0;
    int freed = 0;

    Item(ULONG hash, int number) : key(number) { head.m_HashValue = hash; }
};
static_assert(offsetof(Item, head) == 0);

Item* ItemOf(HashItem* head)
{
    return reinterpret_cast<Item*>(head);
}

VOID CountFree(HashItem* head)
{
    ItemOf(head)->freed++;
}

BOOLEAN HasKey(HashItem* head, const VOID* key)
{
    return ItemOf(head)->key == *static_cast<const int*>(key) ? 2 : 0; // any nonzero value is a match
}

using Visit = std::function<void(Item*)>;
VOID CallVisit(PVOID visit, HashItem* head)
{
    (*static_cast<Visit*>(visit))(ItemOf(head));
}

struct TablesTest : Loaded<FrameworkOnly> {
    void TearDown() override
    {
        Filter_DestroyHashTable(table);
        FrameworkTest::TearDown();
    }

    void Make(ULONG size, FILTER_COMPARE_HASH_ITEM compare = HasKey)
    {
        table = Filter_CreateHashTable("thing", size, CountFree, compare);
        ASSERT_NE(table, nullptr);
    }
    // Inserts an item that only the table holds.
    void Add(Item& item)
    {
        EXPECT_EQ(Filter_InsertHashItem(table, &item.head), &item.head);
        Filter_ReleaseHashItem(&item.head);
    }
    Item* Find(ULONG hash, int key) { return ItemOf(Filter_FindHashItem(table, hash, &key)); }
    std::vector<int> Keys()
    {
        std::vector<int> keys;
        Enumerate([&](Item* item) { keys.push_back(item->key); });
        return keys;
    }
    void Enumerate(Visit visit) { Filter_EnumHashTable(table, CallVisit, &visit); }

    Item& New(int key) { return items.emplace_back(static_cast<ULONG>(key), key); }

    HashTable* table = nullptr;
    std::list<Item> items; // outlive the table
};

using TracedTablesTest = Loaded<FrameworkOnly, kTraceHash, TablesTest>;

TEST_F(TracedTablesTest, SayWhatTheyDo)
{
    Debug().Take();
    Make(7, nullptr);
    const std::string its = "[" + PointerText(table) + "/thing]->m_RefCount ";
    EXPECT_THAT(Debug().Take(),
                AllOf(StartsWith("Enter Filter_CreateHashTable\n - HashTableSize = 7\n"
                                 " - pItemName     = thing\n - pfnFreeItem   = 0x"),
                      HasSubstr("\n - pfnCompItem   = 0x0000000000000000\n"
                                "  Adjust HashTableSize to 8\n"),
                      HasSubstr("Leave Filter_CreateHashTable, pHashTable = " + PointerText(table) + "\n")));
    Item &older = items.emplace_back(3u, 1), &newer = items.emplace_back(3u, 2);
    Add(older);
    Debug().Take();
    Filter_InsertHashItem(table, &newer.head);
    const std::string item = "  pHashItem[" + PointerText(&newer) + "/thing]->m_RefCount ";
    EXPECT_EQ(Debug().Take(),
              "Enter Filter_InsertHashItem\n  pHashTable" + its + "++ = 3\n" + item + "++ = 1\n" + item +
                  "++ = 2\nLeave Filter_InsertHashItem, pHashItem = " + PointerText(&newer) + "\n");
    EXPECT_EQ(Find(3, 0), &newer); // without a compare routine the hash value decides
    EXPECT_EQ(Debug().Take(), "Enter Filter_FindHashItem\n" + item +
                                  "++ = 3\nLeave Filter_FindHashItem, pHashItem = " + PointerText(&newer) +
                                  "\n");
    EXPECT_EQ(Find(11, 0), nullptr); // another value of the same bucket
    EXPECT_EQ(Debug().Take(), "Enter Filter_FindHashItem\nLeave Filter_FindHashItem, NULL\n");
    EXPECT_EQ(Filter_FindHashItemEx(table, 11, nullptr), nullptr);
    EXPECT_EQ(Debug().Take(), "Enter Filter_FindHashItemEx\nLeave Filter_FindHashItem, NULL\n");
    Filter_DeleteHashItem(&newer.head);
    EXPECT_EQ(Debug().Take(), "Enter Filter_DeleteHashItem\n" + item + "-- = 2\n" + item +
                                  "-- = 1\nLeave Filter_DeleteHashItem\n");
    Filter_DeleteHashItem(&newer.head);
    EXPECT_EQ(Debug().Take(), "Enter Filter_DeleteHashItem\n"
                              "DeleteHashItem: double delete hash item, try release hash item\n" +
                                  item + "-- = 0, Free it\n  pHashTable" + its +
                                  "-- = 2\nLeave Filter_DeleteHashItem\n");
    Filter_CleanHashTable(table);
    EXPECT_THAT(Debug().Take(), HasSubstr("  Remove thing Hash Item " + PointerText(&older) + "\n"));
    Filter_DestroyHashTable(table);
    table = nullptr;
    EXPECT_THAT(Debug().Take(), HasSubstr("  pHashTable" + its + "-- = 0, Free it\n"));
    HashTable* const unnamed = Filter_CreateHashTable(nullptr, 8, nullptr, nullptr);
    EXPECT_THAT(Debug().Take(), AllOf(HasSubstr("/unknown]"), Not(HasSubstr("Adjust"))));
    auto* const plain = static_cast<HashItem*>(Filter_AllocateMemory(sizeof(HashItem), 0x54534554));
    *plain = {};
    machine::StopClock(10'000'000 * ((int64_t{1} << 33) + 5)); // seconds beyond 32 bits
    Filter_InsertHashItem(unnamed, plain);
    EXPECT_EQ(plain->m_nTime, 5u);
    machine::AdvanceClock(2000);
    EXPECT_EQ(Filter_FindHashItem(unnamed, 0, nullptr), plain);
    EXPECT_EQ(plain->m_nTime, 7u);
    machine::StartClock();
    Filter_ReleaseHashItem(plain);
    Filter_ReleaseHashItem(plain);
    Filter_DestroyHashTable(unnamed); // frees the item as what it is
}

// And an item that is in no table is not deleted.
TEST_F(TablesTest, NullDoesNothing)
{
    Item& item = New(1);
    EXPECT_EQ(Filter_InsertHashItem(nullptr, &item.head), &item.head);
    EXPECT_EQ(item.head.m_RefCount, 0u);
    EXPECT_FALSE(Filter_DeleteHashItem(&item.head));
    Filter_ReferenceHashItem(&item.head);
    Make(2, nullptr);
    EXPECT_EQ(Filter_InsertHashItem(table, nullptr), nullptr);
    Filter_EnumHashTable(table, nullptr, nullptr);
    Filter_LockHashTable(table, nullptr);
    Add(item);
    EXPECT_EQ(Filter_InsertHashItem(nullptr, &item.head), &item.head); // a reference all the same
    EXPECT_EQ(item.head.m_RefCount, 2u);
    Filter_ReleaseHashItem(&item.head);
    machine::FailCall(machine::Fault::Pool, 1);
    EXPECT_EQ(Filter_CreateHashTable(nullptr, 2, nullptr, nullptr), nullptr);
    EXPECT_EQ(Filter_CreateHashTable(nullptr, 0xFFFFFFFE, nullptr, nullptr), nullptr);
}

TEST_F(TablesTest, AnEnumerationMayInsertFindAndDelete)
{
    Make(2);
    for (int i = 0; i < 6; i++) {
        Add(New(i));
    }
    Item& inserted = New(10);
    std::vector<int> seen;
    Enumerate([&](Item* item) {
        EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
        seen.push_back(item->key);
        if (item->key == 0) {
            Add(inserted);
            EXPECT_TRUE(Filter_DeleteHashItem(&Find(4, 4)->head));
            EXPECT_TRUE(Filter_DeleteHashItem(&Find(1, 1)->head)); // the next one
        } else if (item->key == 2) {
            EXPECT_TRUE(Filter_DeleteHashItem(&item->head));
            EXPECT_EQ(item->freed, 1);
        }
    });
    EXPECT_THAT(seen, ElementsAre(0, 2, 3, 5, 10));
    EXPECT_THAT(Keys(), ElementsAre(0, 3, 5, 10));
    std::vector<int> bucket;
    Visit visit = [&](Item* item) {
        bucket.push_back(item->key);
        Filter_DeleteHashItemEx(&item->head);
    };
    Filter_EnumHashTableEx(table, 7, CallVisit, &visit);
    EXPECT_THAT(bucket, ElementsAre(5, 3));

    // Between lock and unlock the Ex functions are for the holder.
    LOCK_STATE state;
    Item& own = New(20);
    Filter_LockHashTable(table, &state);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    Filter_InsertHashItemEx(table, &own.head);
    const int key = 20;
    EXPECT_EQ(Filter_FindHashItemEx(table, 20, &key), &own.head);
    EXPECT_TRUE(Filter_DeleteHashItemEx(&own.head));
    Filter_UnLockHashTable(table, &state);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    Filter_ReleaseHashItem(&own.head);
    EXPECT_EQ(own.freed, 1);
}

TEST_F(TablesTest, RoutinesThatFaultAreContained)
{
    table = Filter_CreateHashTable(
        "thing", 2, [](HashItem*) { FaultOnRead(); },
        [](HashItem*, const VOID*) -> BOOLEAN {
            FaultOnRead();
            return TRUE;
        });
    Item &one = New(1), &two = New(2);
    Add(one);
    Add(two);
    EXPECT_EQ(Filter_FindHashItem(table, 1, nullptr), nullptr);
    EXPECT_THAT(Debug().Take(), HasSubstr("Filter_FindHashItem: exception, code = -1073741819\n"));
    int calls = 0;
    Enumerate([&](Item*) {
        calls++;
        FaultOnRead();
    });
    EXPECT_EQ(calls, 1);
    EXPECT_THAT(Debug().Take(), HasSubstr("Filter_EnumHashTable: exception, code = -1073741819\n"));
    EXPECT_EQ(one.head.m_RefCount, 1u);
    ExpectNoLockHeld("faulting routines");
    Filter_CleanHashTable(table);
    EXPECT_THAT(Debug().Take(), HasSubstr("Filter_ReleaseHashItem: exception, code = -1073741819\n"));
    ExpectNoLockHeld("a faulting free routine");
}

} // namespace
