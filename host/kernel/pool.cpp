#include "pool.h"

#include "dispatcher.h"
#include "sanitizer.h"
#include "thread.h"
#include "verifier.h"

#include <ndis.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <mutex>
#include <new>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace kernel
{

namespace
{

constexpr uint64_t kLive = 0x6576694C6C6F6F50;
constexpr uint64_t kFreed = 0x656572466C6F6F50;
constexpr unsigned char kFreedFill = 0xDD; // no tag consists of it
constexpr unsigned char kTailFill = 0xEE;  // behind the block, to notice overruns
#ifndef NDEBUG
constexpr unsigned char kNewFill = 0xCD; // a new block, so that what reads it unwritten sees no zeros
#endif
constexpr size_t kTailSize = 16;
constexpr size_t kLargeSize = 64 * 1024;
constexpr size_t kQuarantineLimit = 4 * 1024 * 1024;

// Stands directly before a small block; for a large one apart from it.
struct alignas(16) Header {
    uint64_t magic;
    Header* next; // in the list of live blocks or in the quarantine
    Header* previous;
    size_t size;
    void* block;
    const void* site;     // where it was allocated
    const void* freeSite; // where it was freed
    uint32_t tag;
    BlockKind kind;
    bool large;
    bool exposed; // mapped for a program, which may write to all of its pages and keep them
};

struct LargeHeader : Header {
    int fd;
    unsigned char* mapping; // guard page, pages, guard page
    size_t mappingSize;
};

struct Pool {
    std::mutex mutex;
    Header live;       // ring
    Header quarantine; // ring, oldest first
    size_t quarantined = 0;
    std::map<uintptr_t, LargeHeader*> large; // by block address; live ones and those in the quarantine

    Pool()
    {
        live.next = live.previous = &live;
        quarantine.next = quarantine.previous = &quarantine;
    }
};

Pool& ThePool()
{
    static Pool& pool = *new Pool; // never destroyed: other threads may still run at exit
    return pool;
}

void Append(Header* ring, Header* header)
{
    header->next = ring;
    header->previous = ring->previous;
    ring->previous->next = header;
    ring->previous = header;
}

void Remove(Header* header)
{
    header->previous->next = header->next;
    header->next->previous = header->previous;
}

size_t RoundToPages(size_t size)
{
    return (size + PAGE_SIZE - 1) & ~static_cast<size_t>(PAGE_SIZE - 1);
}

bool CountsAsPool(BlockKind kind)
{
    return kind == BlockKind::Pool || kind == BlockKind::Ndis;
}

const char* RoutineOf(BlockKind kind)
{
    static const char* const names[] = {"ExFreePool", "NdisFreeMemory",  "IoFreeMdl",
                                        "IoFreeIrp",  "the I/O manager", "NdisFreePacket"};
    static_assert(std::size(names) == static_cast<size_t>(BlockKind::Count));
    return names[static_cast<size_t>(kind)];
}

// The slack behind a block: the tail of a small one, the rest of the last page of a large one.
size_t SlackOf(const Header* header)
{
    return header->large ? RoundToPages(header->size) - header->size : kTailSize;
}

unsigned char* EndOf(const Header* header)
{
    return static_cast<unsigned char*>(header->block) + header->size;
}

Header* AllocateSmall(size_t size)
{
    void* memory =
        std::aligned_alloc(16, (sizeof(Header) + size + kTailSize + 15) & ~static_cast<size_t>(15));
    if (memory == nullptr)
        return nullptr;
    auto* header = static_cast<Header*>(memory);
    header->block = header + 1;
    header->large = false;
    return header;
}

Header* AllocateLarge(size_t size)
{
    size_t pages = RoundToPages(size);
    auto* header = new (std::nothrow) LargeHeader;
    if (header == nullptr)
        return nullptr;
    header->mappingSize = pages + 2 * PAGE_SIZE;
    header->fd = memfd_create("pool", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    bool sealed = header->fd >= 0 && ftruncate(header->fd, static_cast<off_t>(pages)) == 0 &&
                  fcntl(header->fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) == 0;
    void* mapping = MAP_FAILED;
    if (sealed)
        mapping = mmap(nullptr, header->mappingSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    void* view = MAP_FAILED;
    if (mapping != MAP_FAILED)
        view = mmap(static_cast<char*>(mapping) + PAGE_SIZE, pages, PROT_READ | PROT_WRITE,
                    MAP_SHARED | MAP_FIXED, header->fd, 0);
    if (view == MAP_FAILED) {
        if (mapping != MAP_FAILED)
            munmap(mapping, header->mappingSize);
        if (header->fd >= 0)
            close(header->fd);
        delete header;
        return nullptr;
    }
    header->mapping = static_cast<unsigned char*>(mapping);
    header->block = view;
    header->large = true;
    return header;
}

// Checks that nobody wrote to the block since it was freed, and gives its memory back. Under the pool's
// mutex.
void Release(Pool& pool, Header* header)
{
    Unpoison(header->block, header->size + SlackOf(header));
    const auto* bytes = static_cast<const unsigned char*>(header->block);
    // Every byte equals its successor, and the first is the pattern.
    if (header->size != 0 && !header->exposed &&
        (bytes[0] != kFreedFill || memcmp(bytes, bytes + 1, header->size - 1) != 0)) {
        size_t offset = 0;
        while (bytes[offset] == kFreedFill)
            offset++;
        Report("written-after-free", "the pool",
               "block %p '%s' of %zu bytes (allocated at %s, freed at %s), offset %zu", header->block,
               TagText(header->tag).c_str(), header->size, DescribeSite(header->site).text,
               DescribeSite(header->freeSite).text, offset);
    }
    header->magic = 0;
    if (header->large) {
        auto* large = static_cast<LargeHeader*>(header);
        pool.large.erase(reinterpret_cast<uintptr_t>(large->block));
        munmap(large->mapping, large->mappingSize);
        close(large->fd);
        delete large;
    } else {
        std::free(header);
    }
}

// Reads the mark of a header that may not be one.
KERNEL_UNCHECKED uint64_t MagicAt(const Header* header)
{
    return *static_cast<const volatile uint64_t*>(&header->magic);
}

Header* FindHeader(Pool& pool, void* block)
{
    auto address = reinterpret_cast<uintptr_t>(block);
    if ((address & (PAGE_SIZE - 1)) == 0) {
        auto found = pool.large.find(address);
        if (found != pool.large.end())
            return found->second;
    }
    if ((address & 15) != 0)
        return nullptr;
    Header* header = static_cast<Header*>(block) - 1;
    uint64_t magic = MagicAt(header);
    return magic == kLive || magic == kFreed ? header : nullptr;
}

void CheckContents(const Header* header, const char* function)
{
    const unsigned char* end = EndOf(header);
    size_t slack = header->exposed ? 0 : SlackOf(header);
    for (size_t i = 0; i < slack; i++) {
        if (end[i] != kTailFill) {
            Report("pool-overrun", function,
                   "block %p '%s' of %zu bytes (allocated at %s), %zu bytes behind its end", header->block,
                   TagText(header->tag).c_str(), header->size, DescribeSite(header->site).text, i);
            break;
        }
    }
    const auto* begin = static_cast<const unsigned char*>(header->block);
    for (uint32_t i = 0; i < t_thread.heldCount; i++) {
        const void* lock = t_thread.held[i].lock;
        if (lock >= begin && lock < end)
            Report("lock-freed-while-held", function, "lock %p in block '%s'", lock,
                   TagText(header->tag).c_str());
    }
    if (const void* timer = CancelTimersIn(begin, end))
        Report("timer-freed-while-set", function, "timer %p in block '%s'", timer,
               TagText(header->tag).c_str());
}

} // namespace

std::string TagText(uint32_t tag)
{
    std::string text;
    for (int i = 0; i < 4; i++) {
        auto c = static_cast<char>(tag >> (8 * i));
        text += c >= 0x20 && c < 0x7f ? c : '.';
    }
    return text;
}

void* AllocateBlock(size_t size, uint32_t tag, BlockKind kind, const void* site)
{
    if (size > SIZE_MAX / 2)
        return nullptr;
    Header* header = size >= kLargeSize ? AllocateLarge(size) : AllocateSmall(size);
    if (header == nullptr)
        return nullptr;
    header->magic = kLive;
    header->size = size;
    header->site = site;
    header->freeSite = nullptr;
    header->tag = tag;
    header->kind = kind;
    header->exposed = false;
#ifndef NDEBUG
    memset(header->block, kNewFill, size);
#endif
    memset(EndOf(header), kTailFill, SlackOf(header));
    Poison(EndOf(header), SlackOf(header));
    if (CountsAsPool(kind)) {
        Live().poolBlocks.fetch_add(1, std::memory_order_relaxed);
        Live().poolBytes.fetch_add(size, std::memory_order_relaxed);
    }
    Pool& pool = ThePool();
    std::lock_guard lock(pool.mutex);
    Append(&pool.live, header);
    if (header->large)
        pool.large[reinterpret_cast<uintptr_t>(header->block)] = static_cast<LargeHeader*>(header);
    return header->block;
}

bool FreeBlock(void* block, BlockKind kind, const char* function, const uint32_t* tag, const size_t* size,
               const void* site)
{
    Pool& pool = ThePool();
    std::unique_lock lock(pool.mutex);
    Header* header = block == nullptr ? nullptr : FindHeader(pool, block);
    if (header == nullptr || header->magic == kFreed) {
        if (header == nullptr)
            Report("not-a-pool-block", function, "address %p", block);
        else
            Report("double-free", function, "block %p '%s', freed before at %s", block,
                   TagText(header->tag).c_str(), DescribeSite(header->freeSite).text);
        return false;
    }
    header->magic = kFreed;
    Remove(header);
    lock.unlock();

    Unpoison(EndOf(header), SlackOf(header));
    CheckContents(header, function);
    if (header->kind != kind)
        Report("wrong-free-routine", function, "block %p '%s' is to be freed by %s", block,
               TagText(header->tag).c_str(), RoutineOf(header->kind));
    if (tag != nullptr && *tag != header->tag)
        Report("wrong-tag", function, "block %p '%s' freed as '%s'", block, TagText(header->tag).c_str(),
               TagText(*tag).c_str());
    if (size != nullptr && *size != header->size)
        Report("wrong-length", function, "block %p '%s' of %zu bytes freed as %zu", block,
               TagText(header->tag).c_str(), header->size, *size);
    if (CountsAsPool(header->kind)) {
        Live().poolBlocks.fetch_sub(1, std::memory_order_relaxed);
        Live().poolBytes.fetch_sub(header->size, std::memory_order_relaxed);
    }
    header->freeSite = site;
    memset(header->block, kFreedFill, header->size);
    Poison(header->block, header->size + SlackOf(header));

    lock.lock();
    Append(&pool.quarantine, header);
    pool.quarantined += header->size;
    while (pool.quarantined > kQuarantineLimit) {
        Header* oldest = pool.quarantine.next;
        Remove(oldest);
        pool.quarantined -= oldest->size;
        Release(pool, oldest);
    }
    return true;
}

bool FindShareable(const void* address, size_t length, int* fd, size_t* offset)
{
    Pool& pool = ThePool();
    std::lock_guard lock(pool.mutex);
    auto begin = reinterpret_cast<uintptr_t>(address);
    auto found = pool.large.upper_bound(begin);
    if (found == pool.large.begin())
        return false;
    LargeHeader* header = std::prev(found)->second;
    size_t distance = begin - std::prev(found)->first;
    size_t pages = RoundToPages(header->size);
    if (header->magic != kLive || distance >= pages || length > pages - distance)
        return false;
    header->exposed = true;
    *fd = header->fd;
    *offset = distance;
    return true;
}

std::string DescribeBlocks(size_t limit)
{
    struct Group {
        uint32_t tag;
        size_t size;
        const void* site;
        auto operator<=>(const Group&) const = default;
    };
    std::map<Group, size_t> groups;
    {
        Pool& pool = ThePool();
        std::lock_guard lock(pool.mutex);
        for (const Header* header = pool.live.next; header != &pool.live; header = header->next)
            if (CountsAsPool(header->kind))
                groups[{header->tag, header->size, header->site}]++;
    }
    std::string text;
    size_t shown = 0;
    for (const auto& [group, count] : groups) {
        if (shown++ == limit) {
            text += ", ... " + std::to_string(groups.size() - limit) + " more kinds";
            break;
        }
        text += (text.empty() ? "" : ", ") + TagText(group.tag) + " " + std::to_string(count) + " x " +
                std::to_string(group.size) + " bytes from " + DescribeSite(group.site).text;
    }
    return text;
}

} // namespace kernel

using namespace kernel;

namespace
{

constexpr ULONG kTagNone = 0x656E6F4E; // "None": blocks of ExAllocatePool

void* AllocatePool(POOL_TYPE type, SIZE_T size, ULONG tag, const char* function, const void* site)
{
    RequireIrqlAtMost(type == PagedPool ? APC_LEVEL : DISPATCH_LEVEL, function);
    if (Fails(machine::Fault::Pool))
        return nullptr;
    return AllocateBlock(size, tag, BlockKind::Pool, site);
}

} // namespace

PVOID ExAllocatePool(POOL_TYPE PoolType, SIZE_T NumberOfBytes)
{
    return AllocatePool(PoolType, NumberOfBytes, kTagNone, "ExAllocatePool", __builtin_return_address(0));
}

PVOID ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag)
{
    return AllocatePool(PoolType, NumberOfBytes, Tag, "ExAllocatePoolWithTag", __builtin_return_address(0));
}

VOID ExFreePool(PVOID P)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "ExFreePool");
    FreeBlock(P, BlockKind::Pool, "ExFreePool", nullptr, nullptr, __builtin_return_address(0));
}

VOID ExFreePoolWithTag(PVOID P, ULONG Tag)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "ExFreePoolWithTag");
    FreeBlock(P, BlockKind::Pool, "ExFreePoolWithTag", &Tag, nullptr, __builtin_return_address(0));
}

NDIS_STATUS NdisAllocateMemoryWithTag(PVOID* VirtualAddress, UINT Length, ULONG Tag)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "NdisAllocateMemoryWithTag");
    *VirtualAddress = Fails(machine::Fault::Pool)
                          ? nullptr
                          : AllocateBlock(Length, Tag, BlockKind::Ndis, __builtin_return_address(0));
    return *VirtualAddress == nullptr ? NDIS_STATUS_FAILURE : NDIS_STATUS_SUCCESS;
}

VOID NdisFreeMemory(PVOID VirtualAddress, UINT Length, UINT MemoryFlags)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "NdisFreeMemory");
    if (MemoryFlags != 0)
        Report("wrong-free-routine", "NdisFreeMemory",
               "block %p freed with memory flags %u, allocated with 0", VirtualAddress, MemoryFlags);
    // Length 0 is the documented form for callers that do not keep the length.
    size_t length = Length;
    FreeBlock(VirtualAddress, BlockKind::Ndis, "NdisFreeMemory", nullptr, Length == 0 ? nullptr : &length,
              __builtin_return_address(0));
}
