// The packets of the driver: made in blocks, handed out and taken back on any processor.
#pragma once

#include "processor.h"
#include "virtual-adapters.h"

#include <ndis.h>

#include "ndisfilter-hook.h"

namespace hook
{

// The driver's own part of a packet, at its very beginning.
struct PacketHeader {
    PacketHeader* next; //   0  of a free packet
    ULONG mark;         //   8  kPacketOut or kPacketFree
    Origin origin;      //  12
    PCSTR file;         //  16  where it was allocated, and where freed: names in a module that may be gone
    ULONG line;         //  24
    ULONG freedLine;    //  28
    PCSTR freedFile;    //  32
    PNDIS_PACKET ndisPacket; //  40  the one that the driver made for it, or null
    PUCHAR frame;            //  48  the memory behind its buffers
};
static_assert(sizeof(PacketHeader) <= sizeof(FilterPacket::m_HookReserved0));
static_assert(sizeof(FilterPacket) == 2496);

constexpr ULONG kPacketOut = 0x5454554F;  // "OUTT"
constexpr ULONG kPacketFree = 0x45455246; // "FREE"

inline PacketHeader* HeaderOf(FilterPacket* packet)
{
    return reinterpret_cast<PacketHeader*>(packet->m_HookReserved0);
}

inline FilterPacket* PacketOf(PacketHeader* header)
{
    return reinterpret_cast<FilterPacket*>(header);
}

// A block from the pool, 64-byte aligned; null without memory.
void* AllocateAligned(size_t size, ULONG tag);
void FreeAligned(void* block, ULONG tag);

class PacketPool
{
  public:
    // `limit`: packets that exist at most.
    explicit PacketPool(uint32_t limit);
    ~PacketPool();
    PacketPool(const PacketPool&) = delete;
    PacketPool& operator=(const PacketPool&) = delete;

    // A packet whose fields are zero up to m_Data, or null: all are out, or no memory is left.
    FilterPacket* Take(const ProcessorScope& scope, Origin origin, PCSTR file, ULONG line);
    // Takes back a packet that is out.
    void Give(const ProcessorScope& scope, FilterPacket* packet);
    // Makes the packets that this processor has put aside available to all. Before its outermost scope ends.
    void Flush(const ProcessorScope& scope);

    // Waiting for a packet to come back. Register inside a scope, try Take once more, wait outside,
    // deregister.
    void Register() { waiters_.fetch_add(1); }
    bool Wait(uint32_t milliseconds); // false: the time is over
    void Deregister(bool gotPacket);  // the last access of the waiter to the pool
    void SendWaitersAway();           // returns when there are none; Take must fail from now on

    uint32_t Limit() const { return limit_; }
    bool IsAtLimit() const { return Size() == limit_; }
    uint32_t Size() const { return size_.load(std::memory_order_relaxed); }
    // Calls visit(PacketHeader*) for every packet that is out.
    template <class Visit>
    void ForEachOut(Visit visit);

  private:
    struct Block {
        Block* next;
        uint32_t count;
    };
    struct FreeList {
        PacketHeader* top = nullptr;
        uint32_t count = 0;

        void Push(PacketHeader* header)
        {
            header->next = top;
            top = header;
            ++count;
        }
        PacketHeader* Pop()
        {
            PacketHeader* header = top;
            if (header != nullptr) {
                top = header->next;
                --count;
            }
            return header;
        }
    };
    // `aside` belongs to the processor alone and is empty outside a delivery; `free` is also robbed by
    // others.
    struct alignas(64) Cache {
        FreeList aside;
        KSPIN_LOCK lock = 0;
        FreeList free;
    };

    static FilterPacket* PacketAt(Block* block, uint32_t index);
    PacketHeader* TakeFromCache(uint32_t processor);
    PacketHeader* Refill(uint32_t processor);
    PacketHeader* Rob();
    bool Grow();
    void GiveToCache(uint32_t processor, PacketHeader* header);

    const uint32_t limit_;
    std::atomic<uint32_t> size_{0};
    std::atomic<uint32_t> waiters_{0};
    KEVENT returned_;
    KSPIN_LOCK lock_ = 0; // of the two below
    FreeList free_;
    Block* blocks_ = nullptr;
    Cache caches_[MAXIMUM_PROCESSORS];
};

inline FilterPacket* PacketPool::PacketAt(Block* block, uint32_t index)
{
    return reinterpret_cast<FilterPacket*>(reinterpret_cast<UCHAR*>(block) + 64) + index;
}

template <class Visit>
void PacketPool::ForEachOut(Visit visit)
{
    const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&lock_);
    Block* block = blocks_;
    KeReleaseSpinLock(&lock_, irql);
    for (; block != nullptr; block = block->next) { // blocks stay, and new ones come in front
        for (uint32_t i = 0; i < block->count; ++i) {
            PacketHeader* header = HeaderOf(PacketAt(block, i));
            if (__atomic_load_n(&header->mark, __ATOMIC_ACQUIRE) == kPacketOut) {
                visit(header);
            }
        }
    }
}

} // namespace hook
