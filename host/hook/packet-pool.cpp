#include "hook-state.h"

#include <thread>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define HOOK_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define HOOK_ASAN 1
#endif
#ifdef HOOK_ASAN
#include <sanitizer/asan_interface.h>
#endif

namespace hook
{
namespace
{

constexpr uint32_t kBlockPackets =
    25;                          // a block stays below 64 KiB, above which pool blocks get pages of their own
constexpr uint32_t kRefill = 16; // packets that a processor takes over at once
constexpr uint32_t kCacheMost = 64; // and keeps at most
constexpr uint32_t kAsideMost = 8;

// What a stale pointer in a free packet leads to: an address that faults.
constexpr ULONG_PTR kStalePointer = 0xDDDDDDDDDDDDDDDD;

// Fields are cleared 16 bytes at a time, in line: a call or a string instruction costs more than the stores.
template <size_t kFrom, size_t kEnd>
void ClearBytes(FilterPacket* packet)
{
    static_assert(kFrom % 16 == 0 && kEnd % 16 == 0);
    RtlZeroMemory(reinterpret_cast<UCHAR*>(packet) + kFrom, 16);
    if constexpr (kFrom + 16 < kEnd) {
        ClearBytes<kFrom + 16, kEnd>(packet);
    }
}

// Everything in front of m_Data that is not the driver's own, but the queue link.
void ClearFields(FilterPacket* packet)
{
    packet->m_nProtocol = 0;
    ClearBytes<offsetof(FilterPacket, m_pEthernet), offsetof(FilterPacket, m_HookReserved4)>(packet);
    ClearBytes<offsetof(FilterPacket, m_pOutgoingNdisPacket), offsetof(FilterPacket, m_Data)>(packet);
}

// Under the address sanitizer a free packet may not be touched behind the header.
void Close([[maybe_unused]] FilterPacket* packet)
{
#ifdef HOOK_ASAN
    constexpr size_t kHeader = sizeof(packet->m_HookReserved0);
    __asan_poison_memory_region(reinterpret_cast<UCHAR*>(packet) + kHeader, sizeof(FilterPacket) - kHeader);
#endif
}

void Reopen([[maybe_unused]] FilterPacket* packet)
{
#ifdef HOOK_ASAN
    __asan_unpoison_memory_region(packet, sizeof(FilterPacket));
#endif
}

} // namespace

void* AllocateAligned(size_t size, ULONG tag)
{
    // The pool aligns to 16 bytes; the word in front of the block leads back to the pool's.
    auto* raw = static_cast<UCHAR*>(ExAllocatePoolWithTag(NonPagedPool, size + 64, tag));
    if (raw == nullptr) {
        return nullptr;
    }
    UCHAR* block = raw + 64 - (reinterpret_cast<ULONG_PTR>(raw) & 63);
    reinterpret_cast<UCHAR**>(block)[-1] = raw;
    return block;
}

void FreeAligned(void* block, ULONG tag)
{
    ExFreePoolWithTag(static_cast<UCHAR**>(block)[-1], tag);
}

PacketPool::PacketPool(uint32_t limit) : limit_(limit)
{
    KeInitializeEvent(&returned_, SynchronizationEvent, FALSE);
}

PacketPool::~PacketPool()
{
    while (blocks_ != nullptr) {
        Block* block = blocks_;
        blocks_ = block->next;
        for (uint32_t i = 0; i < block->count; ++i) {
            Reopen(PacketAt(block, i));
        }
        FreeAligned(block, kPacketTag);
    }
}

FilterPacket* PacketPool::Take(const ProcessorScope& scope, Origin origin, PCSTR file, ULONG line)
{
    const uint32_t processor = scope.Number();
    PacketHeader* header = caches_[processor].aside.Pop();
    if (header == nullptr && (header = TakeFromCache(processor)) == nullptr &&
        (header = Refill(processor)) == nullptr && (header = Rob()) == nullptr) {
        return nullptr;
    }
    FilterPacket* packet = PacketOf(header);
    Reopen(packet);
    ClearFields(packet);
    header->origin = origin;
    header->file = file;
    header->line = line;
    header->ndisPacket = nullptr;
    header->frame = nullptr;
    __atomic_store_n(&header->mark, kPacketOut, __ATOMIC_RELEASE);
    return packet;
}

void PacketPool::Give(const ProcessorScope& scope, FilterPacket* packet)
{
    PacketHeader* header = HeaderOf(packet);
    packet->m_hAdapter = reinterpret_cast<FilterAdapter*>(kStalePointer);
    packet->m_pEthernet = reinterpret_cast<UCHAR*>(kStalePointer);
    packet->m_pIp = reinterpret_cast<UCHAR*>(kStalePointer);
    Close(packet);
    __atomic_store_n(&header->mark, kPacketFree, __ATOMIC_RELAXED);

    Cache& cache = caches_[scope.Number()];
    if (!scope.IsOutermost() && cache.aside.count < kAsideMost) {
        cache.aside.Push(header);
    } else {
        GiveToCache(scope.Number(), header);
    }
}

void PacketPool::Flush(const ProcessorScope& scope)
{
    if (scope.IsOutermost()) {
        while (PacketHeader* header = caches_[scope.Number()].aside.Pop()) {
            GiveToCache(scope.Number(), header);
        }
    }
}

PacketHeader* PacketPool::TakeFromCache(uint32_t processor)
{
    Cache& cache = caches_[processor];
    KeAcquireSpinLockAtDpcLevel(&cache.lock);
    PacketHeader* header = cache.free.Pop();
    KeReleaseSpinLockFromDpcLevel(&cache.lock);
    return header;
}

PacketHeader* PacketPool::Refill(uint32_t processor)
{
    FreeList taken;
    KeAcquireSpinLockAtDpcLevel(&lock_);
    if (free_.top != nullptr || Grow()) {
        while (taken.count < kRefill && free_.top != nullptr) {
            taken.Push(free_.Pop());
        }
    }
    KeReleaseSpinLockFromDpcLevel(&lock_);

    PacketHeader* header = taken.Pop();
    if (taken.top != nullptr) {
        Cache& cache = caches_[processor];
        KeAcquireSpinLockAtDpcLevel(&cache.lock);
        while (PacketHeader* spare = taken.Pop()) {
            cache.free.Push(spare);
        }
        KeReleaseSpinLockFromDpcLevel(&cache.lock);
    }
    return header;
}

// The pool is at its limit, but other processors may have free packets.
PacketHeader* PacketPool::Rob()
{
    for (uint32_t processor = 0; processor < MAXIMUM_PROCESSORS; ++processor) {
        if (PacketHeader* header = TakeFromCache(processor)) {
            return header;
        }
    }
    return nullptr;
}

// With lock_ held.
bool PacketPool::Grow()
{
    const uint32_t size = size_.load(std::memory_order_relaxed);
    const uint32_t count =
        size < limit_ ? (limit_ - size < kBlockPackets ? limit_ - size : kBlockPackets) : 0;
    if (count == 0) {
        return false;
    }
    auto* block = static_cast<Block*>(AllocateAligned(64 + count * sizeof(FilterPacket), kPacketTag));
    if (block == nullptr) {
        return false;
    }
    block->next = blocks_;
    block->count = count;
    for (uint32_t i = 0; i < count; ++i) {
        FilterPacket* packet = PacketAt(block, i);
        RtlZeroMemory(packet, sizeof(FilterPacket));
        HeaderOf(packet)->mark = kPacketFree;
        Close(packet);
        free_.Push(HeaderOf(packet));
    }
    blocks_ = block;
    size_.store(size + count, std::memory_order_relaxed);
    return true;
}

void PacketPool::GiveToCache(uint32_t processor, PacketHeader* header)
{
    Cache& cache = caches_[processor];
    FreeList surplus;
    KeAcquireSpinLockAtDpcLevel(&cache.lock);
    cache.free.Push(header);
    if (cache.free.count > kCacheMost) {
        while (surplus.count < kCacheMost / 2) {
            surplus.Push(cache.free.Pop());
        }
    }
    // A waiter registers before it looks into the caches: it either finds the packet or is seen here.
    const bool waited = waiters_.load() != 0;
    KeReleaseSpinLockFromDpcLevel(&cache.lock);

    if (surplus.top != nullptr) {
        KeAcquireSpinLockAtDpcLevel(&lock_);
        while (PacketHeader* spare = surplus.Pop()) {
            free_.Push(spare);
        }
        KeReleaseSpinLockFromDpcLevel(&lock_);
    }
    if (waited) {
        KeSetEvent(&returned_, IO_NO_INCREMENT, FALSE);
    }
}

bool PacketPool::Wait(uint32_t milliseconds)
{
    LARGE_INTEGER limit;
    limit.QuadPart = -static_cast<LONGLONG>(milliseconds) * 10000;
    return KeWaitForSingleObject(&returned_, Executive, KernelMode, FALSE, &limit) == STATUS_SUCCESS;
}

void PacketPool::Deregister(bool gotPacket)
{
    // Packets that came back at the same time have set the event once only.
    if (gotPacket && waiters_.load() > 1) {
        KeSetEvent(&returned_, IO_NO_INCREMENT, FALSE);
    }
    waiters_.fetch_sub(1);
}

void PacketPool::SendWaitersAway()
{
    while (waiters_.load() != 0) {
        KeSetEvent(&returned_, IO_NO_INCREMENT, FALSE);
        std::this_thread::yield();
    }
}

} // namespace hook
