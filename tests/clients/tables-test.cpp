// Hash tables of client drivers.
#include "support/framework.h"

#include <list>

using namespace support;
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

struct TablesTest : Loaded<FrameworkOnly> {
    void TearDown() override
    {
        Filter_DestroyHashTable(table);
        FrameworkTest::TearDown();
    }

    void Make(ULONG size)
    {
        table = Filter_CreateHashTable("thing", size, CountFree, nullptr);
        ASSERT_NE(table, nullptr);
    }
    // Inserts an item that only the table holds.
    void Add(Item& item)
    {
        EXPECT_EQ(Filter_InsertHashItem(table, &item.head), &item.head);
        Filter_ReleaseHashItem(&item.head);
    }
    Item* Find(ULONG hash, int key) { return ItemOf(Filter_FindHashItem(table, hash, &key)); }

    Item& New(int key) { return items.emplace_back(static_cast<ULONG>(key), key); }

    HashTable* table = nullptr;
    std::list<Item> items; // outlive the table
};

using TracedTablesTest = Loaded<FrameworkOnly, kTraceHash, TablesTest>;

TEST_F(TracedTablesTest, SayWhatTheyDo)
{
    Debug().Take();
    Make(7);
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
    EXPECT_EQ(Filter_FindHashItemEx(table, 11, nullptr), nullptr); // another value of the same bucket
    EXPECT_EQ(Debug().Take(), "Enter Filter_FindHashItemEx\nLeave Filter_FindHashItem, NULL\n");
    Filter_DeleteHashItem(&newer.head);
    EXPECT_THAT(Debug().Take(), HasSubstr("\n" + item + "-- = 2\n" + item + "-- = 1\nLeave"));
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
    Make(2);
    EXPECT_EQ(Filter_InsertHashItem(table, nullptr), nullptr);
    Filter_EnumHashTable(table, nullptr, nullptr);
    Filter_LockHashTable(table, nullptr);
    Add(item);
    EXPECT_EQ(Filter_InsertHashItem(nullptr, &item.head), &item.head); // a reference all the same
    EXPECT_EQ(item.head.m_RefCount, 2u);
    Filter_ReleaseHashItem(&item.head);
    EXPECT_EQ(Filter_CreateHashTable(nullptr, 0xFFFFFFFE, nullptr, nullptr), nullptr);
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
    const auto fault = [](PVOID count, HashItem*) {
        ++*static_cast<int*>(count);
        FaultOnRead();
    };
    Filter_EnumHashTable(table, fault, &calls);
    EXPECT_EQ(calls, 1);
    EXPECT_THAT(Debug().Take(), HasSubstr("Filter_EnumHashTable: exception, code = -1073741819\n"));
    EXPECT_EQ(one.head.m_RefCount, 1u);
    ExpectNoLockHeld("faulting routines");
    Filter_CleanHashTable(table);
    EXPECT_THAT(Debug().Take(), HasSubstr("Filter_ReleaseHashItem: exception, code = -1073741819\n"));
    ExpectNoLockHeld("a faulting free routine");
}

} // namespace
