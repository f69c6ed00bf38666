// DPDK's rte_hash with lock-free reads: a find compares the key and counts a reference in the record, as ours does.
#include "contenders.h"
#include "hash-contest.h"

#include <rte_eal.h>
#include <rte_hash.h>

#include <sched.h>

namespace
{

using bench::HashOf;
using bench::Key;
using bench::Record;

// Without huge pages, devices and files. It pins the calling thread, which goes back to where it was.
void InitializeEal()
{
    cpu_set_t processors;
    sched_getaffinity(0, sizeof(processors), &processors);
    std::string arguments[] = {"bench", "--no-huge", "--no-shconf",    "--no-pci",
                               "-m",    "1024",      "--no-telemetry", "--log-level=lib.eal:error"};
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    if (rte_eal_init(static_cast<int>(pointers.size()), pointers.data()) < 0) {
        bench::Fail("DPDK does not initialize");
    }
    sched_setaffinity(0, sizeof(processors), &processors);
}

class RteHash
{
  public:
    using Level = bench::NoLevel;

    explicit RteHash(size_t size) : records_(bench::MakeRecords(size))
    {
        static const bool initialized = (InitializeEal(), true);
        static_cast<void>(initialized);
        const std::string name = "bench" + std::to_string(size);
        rte_hash_parameters parameters = {};
        parameters.name = name.c_str();
        parameters.entries = bench::Buckets(size); // it is a cuckoo table: with less it moves entries about
        parameters.key_len = sizeof(Key);
        parameters.extra_flag = RTE_HASH_EXTRA_FLAGS_RW_CONCURRENCY_LF;
        hash_ = rte_hash_create(&parameters);
        for (Record& record : records_) {
            if (hash_ == nullptr || !Insert(record.key, &record)) {
                bench::Fail("rte_hash has no room for " + std::to_string(size) + " entries");
            }
        }
    }
    ~RteHash() { rte_hash_free(hash_); }
    RteHash(const RteHash&) = delete;
    RteHash& operator=(const RteHash&) = delete;

    const Record* Find(const Key& key)
    {
        void* data = nullptr;
        if (rte_hash_lookup_with_hash_data(hash_, &key, HashOf(key), &data) < 0) {
            return nullptr;
        }
        Record* const record = static_cast<Record*>(data);
        record->references.fetch_add(1);
        record->references.fetch_sub(1);
        return record;
    }
    // Nobody reads meanwhile, so the place of the key is free at once. The record goes by the number in its key.
    bool Replace(const Key& key)
    {
        const int32_t position = rte_hash_del_key_with_hash(hash_, &key, HashOf(key));
        return position >= 0 && rte_hash_free_key_with_position(hash_, position) == 0 &&
               Insert(key, &records_[key.words[1]]);
    }

  private:
    bool Insert(const Key& key, void* data)
    {
        return rte_hash_add_key_with_hash_data(hash_, &key, HashOf(key), data) == 0;
    }

    std::vector<Record> records_;
    rte_hash* hash_ = nullptr;
};

} // namespace

void RegisterDpdkHashTable()
{
    bench::RegisterTable<RteHash>("rte_hash");
}
