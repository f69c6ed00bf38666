// Finds in a client driver's hash table, with the reference that a find takes and its release, and deletions with the
// insertion of the same item. Beside them a bare chained table of the same buckets, without lock and references, and
// what a user-mode program would use: std::unordered_map under a shared mutex, TBB's concurrent_hash_map, and DPDK's
// rte_hash. Keys of 16 bytes; everybody gets the hash value for nothing.
#include "framework.h"
#include "hash-contest.h"
#include "peers/contenders.h"

#include <tbb/concurrent_hash_map.h>

#include <shared_mutex>
#include <unordered_map>

namespace
{

using bench::HashOf;
using bench::Key;
using bench::Record;

BOOLEAN HasKey(HashItem* item, const VOID* key)
{
    return reinterpret_cast<Record*>(item)->key == *static_cast<const Key*>(key);
}

VOID KeepItem(HashItem*) {}

class Framework
{
  public:
    using Level = machine::AtDispatch; // as in a filter procedure

    explicit Framework(size_t size)
        : records_(bench::MakeRecords(size)),
          table_(Filter_CreateHashTable("key", bench::Buckets(size), KeepItem, HasKey))
    {
        for (Record& record : records_) {
            HashItem* const item = reinterpret_cast<HashItem*>(&record);
            item->m_HashValue = HashOf(record.key);
            Filter_ReleaseHashItem(Filter_InsertHashItem(table_, item));
        }
    }
    ~Framework() { Filter_DestroyHashTable(table_); }

    const Record* Find(const Key& key)
    {
        HashItem* const item = Filter_FindHashItem(table_, HashOf(key), &key);
        if (item != nullptr) {
            Filter_ReleaseHashItem(item);
        }
        return reinterpret_cast<const Record*>(item);
    }
    bool Replace(const Key& key)
    {
        HashItem* const item = Filter_FindHashItem(table_, HashOf(key), &key);
        if (item == nullptr || !Filter_DeleteHashItem(item)) {
            return false;
        }
        Filter_ReleaseHashItem(Filter_InsertHashItem(table_, item));
        return true;
    }

  private:
    std::vector<Record> records_;
    HashTable* table_;
};
static_assert(sizeof(HashItem) <= sizeof(Record::links));

// What no chained table can do without.
class Chained
{
  public:
    using Level = bench::NoLevel;

    explicit Chained(size_t size) : records_(bench::MakeRecords(size)), heads_(bench::Buckets(size))
    {
        for (Record& record : records_) {
            Link(record);
        }
    }
    const Record* Find(const Key& key)
    {
        const uint32_t hash = HashOf(key);
        for (Record* record = HeadOf(hash); record != nullptr; record = LinksOf(*record).next) {
            if (LinksOf(*record).hash == hash && compare_(reinterpret_cast<HashItem*>(record), &key)) {
                return record;
            }
        }
        return nullptr;
    }
    bool Replace(const Key& key)
    {
        Record** place = &HeadOf(HashOf(key));
        while (*place != nullptr && (*place)->key != key) {
            place = &LinksOf(**place).next;
        }
        Record* const record = *place;
        if (record == nullptr) {
            return false;
        }
        *place = LinksOf(*record).next;
        Link(*record);
        return true;
    }

  private:
    struct Links {
        Record* next;
        uint32_t hash;
    };
    static Links& LinksOf(Record& record) { return *reinterpret_cast<Links*>(record.links.data()); }
    Record*& HeadOf(uint32_t hash) { return heads_[hash & (heads_.size() - 1)]; }
    void Link(Record& record)
    {
        const uint32_t hash = HashOf(record.key);
        LinksOf(record) = {HeadOf(hash), hash};
        HeadOf(hash) = &record;
    }

    std::vector<Record> records_;
    std::vector<Record*> heads_;
    FILTER_COMPARE_HASH_ITEM volatile compare_ = HasKey; // as a table for all clients has to call it
};

struct Hasher {
    size_t operator()(const Key& key) const { return HashOf(key); }
    size_t hash(const Key& key) const { return HashOf(key); } // as TBB asks
    bool equal(const Key& left, const Key& right) const { return left == right; }
};

class Standard
{
  public:
    using Level = bench::NoLevel;

    explicit Standard(size_t size) : records_(bench::MakeRecords(size)), map_(bench::Buckets(size))
    {
        for (Record& record : records_) {
            map_.emplace(record.key, &record);
        }
    }
    const Record* Find(const Key& key)
    {
        Record* record = nullptr;
        {
            const std::shared_lock lock(mutex_);
            const auto found = map_.find(key);
            if (found == map_.end()) {
                return nullptr;
            }
            record = found->second;
            record->references.fetch_add(1);
        }
        record->references.fetch_sub(1);
        return record;
    }
    bool Replace(const Key& key)
    {
        Record* record = nullptr;
        {
            const std::unique_lock lock(mutex_);
            const auto found = map_.find(key);
            if (found == map_.end()) {
                return false;
            }
            record = found->second;
            map_.erase(found);
        }
        const std::unique_lock lock(mutex_);
        return map_.emplace(key, record).second;
    }

  private:
    std::vector<Record> records_;
    std::shared_mutex mutex_;
    std::unordered_map<Key, Record*, Hasher> map_;
};

class Tbb
{
  public:
    using Level = bench::NoLevel;

    explicit Tbb(size_t size) : records_(bench::MakeRecords(size)), map_(bench::Buckets(size))
    {
        for (Record& record : records_) {
            map_.emplace(record.key, &record);
        }
    }
    const Record* Find(const Key& key)
    {
        Map::const_accessor found; // holds the item until it goes
        return map_.find(found, key) ? found->second : nullptr;
    }
    bool Replace(const Key& key)
    {
        const Record* const record = Find(key);
        return record != nullptr && map_.erase(key) && map_.emplace(key, const_cast<Record*>(record));
    }

  private:
    using Map = tbb::concurrent_hash_map<Key, Record*, Hasher>;
    std::vector<Record> records_;
    Map map_;
};

} // namespace

int main(int argc, char** argv)
{
    bench::LoadFramework();
    bench::RegisterTable<Framework>("framework");
    bench::RegisterTable<Chained>("bare chains");
    bench::RegisterTable<Standard>("unordered_map");
    bench::RegisterTable<Tbb>("TBB");
#ifdef HAVE_DPDK
    RegisterDpdkHashTable();
#endif
    const int result = bench::Run(argc, argv);
    bench::Tables<Framework>::Drop();
    bench::UnloadFramework();
    return result;
}
