#include "irql.h"
#include "verifier.h"

using namespace kernel;

namespace
{

constexpr USHORT kMinimumDepth = 4;
constexpr USHORT kMaximumDepth = 256;

// The list head of a real kernel is exchanged as a whole; here a mark guards it for the few instructions of a
// change.
class ListLock
{
  public:
    explicit ListLock(SLIST_HEADER& head) : head_(head)
    {
        Backoff backoff;
        while (__atomic_exchange_n(&head_.Lock, 1, __ATOMIC_ACQUIRE) != 0)
            backoff.Wait();
    }
    ~ListLock() { __atomic_store_n(&head_.Lock, 0, __ATOMIC_RELEASE); }
    ListLock(const ListLock&) = delete;
    ListLock& operator=(const ListLock&) = delete;

  private:
    SLIST_HEADER& head_;
};

// The counters are statistics: updates are not lost on one thread, and may be on several.
void Count(ULONG& counter)
{
    __atomic_store_n(&counter, __atomic_load_n(&counter, __ATOMIC_RELAXED) + 1, __ATOMIC_RELAXED);
}

void* Pop(SLIST_HEADER& head)
{
    ListLock lock(head);
    SINGLE_LIST_ENTRY* entry = head.Next.Next;
    if (entry != nullptr) {
        head.Next.Next = entry->Next;
        head.Depth--;
        head.Sequence++;
    }
    return entry;
}

bool Push(SLIST_HEADER& head, void* memory, USHORT depth)
{
    ListLock lock(head);
    if (head.Depth >= depth)
        return false;
    auto* entry = static_cast<SINGLE_LIST_ENTRY*>(memory);
    entry->Next = head.Next.Next;
    head.Next.Next = entry;
    head.Depth++;
    head.Sequence++;
    return true;
}

} // namespace

VOID ExInitializeNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PALLOCATE_FUNCTION Allocate,
                                     PFREE_FUNCTION Free, ULONG, SIZE_T Size, ULONG Tag, USHORT)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "ExInitializeNPagedLookasideList");
    GENERAL_LOOKASIDE& list = Lookaside->L;
    memset(&list, 0, sizeof(list));
    list.Depth = kMinimumDepth;
    list.MaximumDepth = kMaximumDepth;
    list.Type = NonPagedPool;
    list.Tag = Tag;
    // A free entry holds the link to the next one.
    list.Size = static_cast<ULONG>(Size < sizeof(SINGLE_LIST_ENTRY) ? sizeof(SINGLE_LIST_ENTRY) : Size);
    list.Allocate = Allocate != nullptr ? Allocate : ExAllocatePoolWithTag;
    list.Free = Free != nullptr ? Free : ExFreePool;
    Live().lookasideLists++;
}

PVOID ExAllocateFromNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "ExAllocateFromNPagedLookasideList");
    GENERAL_LOOKASIDE& list = Lookaside->L;
    Count(list.TotalAllocates);
    bool fails = Fails(machine::Fault::Lookaside);
    void* entry = fails ? nullptr : Pop(list.ListHead);
    if (entry != nullptr)
        return entry;
    Count(list.AllocateMisses);
    return fails ? nullptr : list.Allocate(list.Type, list.Size, list.Tag);
}

VOID ExFreeToNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PVOID Entry)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "ExFreeToNPagedLookasideList");
    GENERAL_LOOKASIDE& list = Lookaside->L;
    Count(list.TotalFrees);
    if (Push(list.ListHead, Entry, list.Depth))
        return;
    Count(list.FreeMisses);
    list.Free(Entry);
}

VOID ExDeleteNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "ExDeleteNPagedLookasideList");
    while (void* entry = Pop(Lookaside->L.ListHead))
        Lookaside->L.Free(entry);
    Live().lookasideLists--;
}
