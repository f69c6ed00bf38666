// What drivers do with memory that programs may change at any moment. A byte that is read twice in one operation may
// have another value the second time, behind a check of the first: the rule "shared-memory-read-twice".
#include "thread.h"
#include "verifier.h"

namespace
{

std::atomic<machine::SharedAccessObserver> g_observer{nullptr};

} // namespace

namespace machine
{

void ObserveSharedAccess(SharedAccessObserver observer)
{
    g_observer = observer;
}

#ifdef NDEBUG

bool ChecksSharedAccess()
{
    return false;
}

} // namespace machine

#else

bool ChecksSharedAccess()
{
    return true;
}

} // namespace machine

namespace kernel
{
namespace
{

// What the thread has read in its present operation.
struct Operation {
    static constexpr size_t kMostReads = 32;
    struct Range {
        uintptr_t begin, end;
    };
    uint32_t number; // that of the lock it runs under, or the latest
    bool locked;
    size_t count;
    Range reads[kMostReads];
};

__thread Operation t_operation;

Operation& PresentOperation()
{
    const ThreadState& thread = t_thread;
    const bool locked = thread.heldCount != 0;
    const uint32_t number = locked ? thread.held[thread.heldCount - 1].operation : thread.operations;
    Operation& operation = t_operation;
    if (operation.number != number || operation.locked != locked) {
        operation.number = number;
        operation.locked = locked;
        operation.count = 0;
    }
    return operation;
}

void Observe(machine::SharedAccess access, const volatile void* address, size_t size)
{
    if (const machine::SharedAccessObserver observer = g_observer.load(std::memory_order_acquire)) {
        observer(access, address, size);
    }
}

void NoteRead(const volatile void* address, size_t size, const void* site)
{
    Observe(machine::SharedAccess::Read, address, size);
    Operation& operation = PresentOperation();
    const auto begin = reinterpret_cast<uintptr_t>(address);
    const uintptr_t end = begin + size;
    for (size_t i = 0; i < operation.count; ++i) {
        if (begin < operation.reads[i].end && operation.reads[i].begin < end) {
            Report("shared-memory-read-twice", "a driver", "%zu bytes at %p, read once more at %s", size,
                   const_cast<const void*>(address), DescribeSite(site).text);
            return;
        }
    }
    if (operation.count < Operation::kMostReads) {
        operation.reads[operation.count++] = {begin, end};
    }
}

} // namespace
} // namespace kernel

using namespace kernel;

ULONG ReadULongAcquire(ULONG const volatile* Source)
{
    NoteRead(Source, sizeof(*Source), __builtin_return_address(0));
    return __atomic_load_n(Source, __ATOMIC_ACQUIRE);
}

VOID WriteULongRelease(ULONG volatile* Destination, ULONG Value)
{
    Observe(machine::SharedAccess::Announce, Destination, sizeof(*Destination));
    __atomic_store_n(Destination, Value, __ATOMIC_RELEASE);
}

VOID RtlCopyVolatileMemory(VOID volatile* Destination, VOID const volatile* Source, SIZE_T Length)
{
    NoteRead(Source, Length, __builtin_return_address(0));
    // Others write meanwhile: in whole words where they are aligned, so that the thread sanitizer sees no race.
    auto* to = static_cast<char*>(const_cast<PVOID>(Destination));
    auto* from = static_cast<const volatile char*>(Source);
    for (SIZE_T size = 0; Length != 0; to += size, from += size, Length -= size) {
        if (Length >= sizeof(uint64_t) && reinterpret_cast<uintptr_t>(from) % sizeof(uint64_t) == 0) {
            const uint64_t word =
                __atomic_load_n(reinterpret_cast<const volatile uint64_t*>(from), __ATOMIC_RELAXED);
            size = sizeof(word);
            memcpy(to, &word, size);
        } else {
            *to = __atomic_load_n(from, __ATOMIC_RELAXED);
            size = 1;
        }
    }
}

#endif
