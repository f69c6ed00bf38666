// What the contenders of bench-hashtable share: keys, records, and the loops around a find and around a deletion with
// the insertion that follows it.
//
// A table is a class with
//   Table(size_t size)                 holds the records of the keys 0 .. size - 1, with as many buckets as Buckets says
//   const Record* Find(const Key&)     takes and releases a reference to what it finds; null when there is none
//   bool Replace(const Key&)           deletes the key and inserts it again
//   Level                              lives as long as a thread works with the table
#pragma once

#include "contest.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace bench
{

struct Key {
    uint64_t words[2];
    bool operator==(const Key&) const = default;
};

// The first word is as good as random: SplitMix64.
inline Key KeyOf(uint64_t number)
{
    uint64_t mixed = (number + 1) * 0x9E3779B97F4A7C15;
    mixed = (mixed ^ mixed >> 30) * 0xBF58476D1CE4E5B9;
    mixed = (mixed ^ mixed >> 27) * 0x94D049BB133111EB;
    return {{mixed ^ mixed >> 31, number}};
}

inline uint32_t HashOf(const Key& key)
{
    return static_cast<uint32_t>(key.words[0] >> 32);
}

// A power of two of at least twice the number of items: fewer make chains that a find walks, more make a larger array
// of buckets that it misses in.
inline uint32_t Buckets(size_t size)
{
    return static_cast<uint32_t>(std::bit_ceil(2 * size));
}

// A connection, say: two cache lines, the links of its table, if that keeps them here, in the first.
struct alignas(64) Record {
    std::array<uint8_t, 64> links;
    Key key;
    uint64_t number;
    std::atomic<int> references;
};
static_assert(sizeof(Record) == 128);

inline std::vector<Record> MakeRecords(size_t size)
{
    std::vector<Record> records(size);
    for (size_t i = 0; i < size; ++i) {
        records[i].key = KeyOf(i);
        records[i].number = i;
        records[i].references = 1;
    }
    return records;
}

// The table of a size, made when it is first asked for and kept until DropTables.
template <class Table>
class Tables
{
  public:
    struct Entry {
        explicit Entry(size_t size) : table(size)
        {
            for (size_t i = 0; i < size; ++i) {
                const Record* const record = table.Find(KeyOf(i));
                work = Mix(work, record != nullptr ? record->number + 1 : 0);
            }
        }
        Table table;
        uint64_t work = 0; // what a find of each key has come to
    };
    static Entry& Get(size_t size)
    {
        static std::mutex mutex;
        const std::lock_guard lock(mutex);
        auto& entry = All()[size];
        if (entry == nullptr) {
            entry = std::make_unique<Entry>(size);
        }
        return *entry;
    }
    static void Drop() { All().clear(); } // before what they need goes

  private:
    static std::map<size_t, std::unique_ptr<Entry>>& All()
    {
        static std::map<size_t, std::unique_ptr<Entry>> all;
        return all;
    }
};

// A table that works at any level.
struct NoLevel {
    NoLevel() {}
};

// Calls operation(table, key) once an iteration, for the keys in random order, another one for each thread.
template <class Table, class Operation>
void ForRandomKeys(benchmark::State& state, size_t size, const Operation& operation)
{
    auto& entry = Tables<Table>::Get(size);
    std::vector<Key> keys(size);
    for (size_t i = 0; i < size; ++i) {
        keys[i] = KeyOf(i);
    }
    std::shuffle(keys.begin(), keys.end(), std::mt19937(static_cast<unsigned>(state.thread_index())));
    {
        [[maybe_unused]] const typename Table::Level level;
        size_t next = 0;
        for (auto _ : state) {
            if (!operation(entry.table, keys[next])) {
                state.SkipWithError("a key was not there");
                break;
            }
            next = next + 1 < size ? next + 1 : 0;
        }
    }
    SetWork(state, entry.work);
}

// Registers find/NAME and delete and insert/NAME for every size.
template <class Table>
void RegisterTable(const std::string& name)
{
    const std::pair<size_t, const char*> sizes[] = {{1000, "1k"}, {100'000, "100k"}, {1'000'000, "1M"}};
    for (const auto& [size, text] : sizes) {
        const size_t items = size; // for the closures
        for (const int threads : {1, 2}) {
            const std::string params = std::string(text) + (threads == 1 ? ", 1 thread" : ", 2 threads");
            benchmark::RegisterBenchmark(("find/" + name + "/" + params).c_str(),
                                         [items](benchmark::State& state) {
                                             ForRandomKeys<Table>(state, items,
                                                                  [](Table& table, const Key& key) {
                                                                      return table.Find(key) != nullptr;
                                                                  });
                                         })
                ->Threads(threads)
                ->UseRealTime();
        }
        benchmark::RegisterBenchmark(("delete and insert/" + name + "/" + text).c_str(),
                                     [items](benchmark::State& state) {
                                         ForRandomKeys<Table>(state, items, [](Table& table, const Key& key) {
                                             return table.Replace(key);
                                         });
                                     })
            ->UseRealTime();
    }
}

} // namespace bench
