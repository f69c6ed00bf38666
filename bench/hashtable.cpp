// Finds in a client driver's hash table, with the reference that a find takes and its release, beside what a user-mode
// program would use: std::unordered_map under a shared mutex, and TBB's concurrent_hash_map. Keys of 16 bytes; everybody
// gets the hash value for nothing.
#include "machine.h"
#include "medians.h"
#include "ndisfilter.h"

#include <benchmark/benchmark.h>
#include <tbb/concurrent_hash_map.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <numeric>
#include <random>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);

namespace
{

constexpr int64_t kSizes[] = {1000, 100'000, 1'000'000};
constexpr int kThreads[] = {1, 2};

struct Key {
    uint64_t words[2];
    bool operator==(const Key&) const = default;
};

// The first word is as good as random: SplitMix64.
Key KeyOf(uint64_t number)
{
    uint64_t mixed = (number + 1) * 0x9E3779B97F4A7C15;
    mixed = (mixed ^ mixed >> 30) * 0xBF58476D1CE4E5B9;
    mixed = (mixed ^ mixed >> 27) * 0x94D049BB133111EB;
    return {{mixed ^ mixed >> 31, number}};
}

uint32_t HashOf(const Key& key)
{
    return static_cast<uint32_t>(key.words[0] >> 32);
}

struct Item {
    HashItem head = {};
    Key key;
};

struct Hasher {
    size_t operator()(const Key& key) const { return HashOf(key); }
    size_t hash(const Key& key) const { return HashOf(key); }                  // as TBB asks
    bool equal(const Key& left, const Key& right) const { return left == right; }
};

BOOLEAN HasKey(HashItem* item, const VOID* key)
{
    return reinterpret_cast<Item*>(item)->key == *static_cast<const Key*>(key);
}

VOID KeepItem(HashItem*) {}

// Numbers below `size` in random order, another one for each thread.
std::vector<uint32_t> Order(const benchmark::State& state)
{
    std::vector<uint32_t> order(static_cast<size_t>(state.range(0)));
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), std::mt19937(static_cast<unsigned>(state.thread_index())));
    return order;
}

// Runs find(key) once an iteration, for the keys in their order.
template <class Find>
void FindAll(benchmark::State& state, const Find& find)
{
    const std::vector<uint32_t> order = Order(state);
    size_t next = 0;
    for (auto _ : state) {
        if (!find(KeyOf(order[next]))) {
            state.SkipWithError("a key was not found");
        }
        next = next + 1 < order.size() ? next + 1 : 0;
    }
    state.counters["finds/s"] = benchmark::Counter(static_cast<double>(state.iterations()),
                                                   benchmark::Counter::kIsRate);
}

class Framework
{
  public:
    explicit Framework(size_t size) : items_(size)
    {
        ULONG buckets = 1;
        while (buckets < size) {
            buckets *= 2;
        }
        table_ = Filter_CreateHashTable("key", buckets, KeepItem, HasKey);
        for (size_t i = 0; i < size; i++) {
            items_[i].key = KeyOf(i);
            items_[i].head.m_HashValue = HashOf(items_[i].key);
            Filter_InsertHashItem(table_, &items_[i].head);
            Filter_ReleaseHashItem(&items_[i].head);
        }
    }
    ~Framework() { Filter_DestroyHashTable(table_); }

    void Run(benchmark::State& state)
    {
        const machine::AtDispatch level; // as in a filter procedure
        FindAll(state, [&](const Key& key) {
            HashItem* const item = Filter_FindHashItem(table_, HashOf(key), &key);
            if (item != nullptr) {
                Filter_ReleaseHashItem(item);
            }
            return item != nullptr;
        });
    }

  private:
    std::vector<Item> items_;
    HashTable* table_;
};

class Standard
{
  public:
    explicit Standard(size_t size)
    {
        map_.reserve(size);
        for (size_t i = 0; i < size; i++) {
            map_.try_emplace(KeyOf(i), std::make_unique<std::atomic<int>>(1));
        }
    }
    void Run(benchmark::State& state)
    {
        FindAll(state, [&](const Key& key) {
            std::atomic<int>* references = nullptr;
            {
                const std::shared_lock lock(mutex_);
                const auto found = map_.find(key);
                if (found == map_.end()) {
                    return false;
                }
                references = found->second.get();
                references->fetch_add(1);
            }
            references->fetch_sub(1);
            return true;
        });
    }

  private:
    std::shared_mutex mutex_;
    std::unordered_map<Key, std::unique_ptr<std::atomic<int>>, Hasher> map_;
};

class Tbb
{
  public:
    explicit Tbb(size_t size) : map_(size)
    {
        for (size_t i = 0; i < size; i++) {
            map_.emplace(KeyOf(i), 1);
        }
    }
    void Run(benchmark::State& state)
    {
        FindAll(state, [&](const Key& key) {
            Map::const_accessor found; // holds the item until it goes
            return map_.find(found, key);
        });
    }

  private:
    using Map = tbb::concurrent_hash_map<Key, int, Hasher>;
    Map map_;
};

// The table is made by the first thread, which the others wait for at the start of the loop.
template <class Table>
void Find(benchmark::State& state)
{
    static std::unique_ptr<Table> table;
    static std::atomic<bool> ready;
    if (state.thread_index() == 0) {
        table = std::make_unique<Table>(static_cast<size_t>(state.range(0)));
        ready = true;
        ready.notify_all();
    }
    ready.wait(false);
    table->Run(state);
    if (state.thread_index() == 0) {
        ready = false;
        table.reset();
    }
}

std::string NameOf(const char* name, int threads)
{
    return std::string(name) + ", threads " + std::to_string(threads);
}

template <class Table>
void Register(const char* name)
{
    for (const int64_t size : kSizes) {
        for (const int threads : kThreads) {
            benchmark::RegisterBenchmark(NameOf(name, threads).c_str(), Find<Table>)
                ->Arg(size)
                ->Threads(threads)
                ->UseRealTime();
        }
    }
}

void PrintSummary(const bench::Medians& medians)
{
    if (medians.Count() != 3 * std::size(kSizes) * std::size(kThreads)) {
        return; // a filter on the command line chose some only, or a run failed
    }
    std::printf("\n%10s %8s %12s %16s %8s   million finds a second, both threads together\n", "items", "threads",
                "framework", "unordered_map", "TBB");
    for (const int64_t size : kSizes) {
        for (const int threads : kThreads) {
            const auto rate = [&](const char* name) {
                return 1e-6 * medians.Of(NameOf(name, threads) + "/" + std::to_string(size));
            };
            std::printf("%10lld %8d %12.1f %16.1f %8.1f\n", static_cast<long long>(size), threads,
                        rate("framework"), rate("unordered_map"), rate("TBB"));
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (!bench::Initialize(argc, argv, 3)) {
        return 2;
    }
    const auto entry = [](void* driver, void* path) {
        return DriverEntry(static_cast<PDRIVER_OBJECT>(driver), static_cast<PUNICODE_STRING>(path));
    };
    if (const machine::Status status = machine::LoadDriver("NdisFilter", entry); status != STATUS_SUCCESS) {
        std::fprintf(stderr, "bench-hashtable: loading the framework: status 0x%08X\n", status);
        return 1;
    }
    Register<Framework>("framework");
    Register<Standard>("unordered_map");
    Register<Tbb>("TBB");
    bench::Medians medians("finds/s");
    benchmark::RunSpecifiedBenchmarks(&medians);
    PrintSummary(medians);
    machine::UnloadDriver("NdisFilter");
    return machine::TakeViolations().empty() ? 0 : 1;
}
