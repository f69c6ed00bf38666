// What the compiler calls for each access to memory under -fsanitize=thread, and what the kernel's pool tells about its
// memory. The thread sanitizer itself is not linked: atomic operations are carried out and are switch points; plain
// accesses are looked at, whether they hit freed memory, and are switch points where a watched range lies.
#include "memory.h"
#include "threads.h"

#include <array>
#include <cstdint>
#include <cstring>

#include <sys/mman.h>

using namespace scheduler;

namespace
{

// One byte for each 16 bytes of the address space; nonzero: freed.
constexpr size_t kGranule = 16;
constexpr uintptr_t kAddresses = uintptr_t{1} << 47;
uint8_t* g_freed = nullptr;

struct Range {
    uintptr_t begin = 0;
    uintptr_t end = 0;
};
std::array<Range, 4> g_watched;
size_t g_watchedCount = 0;

bool IsFreed(uintptr_t address)
{
    return address < kAddresses && g_freed[address / kGranule] != 0;
}

void Look(const volatile void* memory, size_t size, Operation operation, const void* site)
{
    if (g_freed == nullptr || Self() == nullptr || size == 0) {
        return;
    }
    const auto begin = reinterpret_cast<uintptr_t>(memory);
    for (uintptr_t at = begin; at < begin + size; at = at / kGranule * kGranule + kGranule) {
        if (__builtin_expect(IsFreed(at), 0)) {
            Fail("freed memory: thread %u %s %zu bytes at %p, at %p", IdOf(Self()),
                 operation == Operation::Read ? "reads" : "writes", size, const_cast<const void*>(memory),
                 site);
        }
    }
    for (size_t i = 0; i < g_watchedCount; ++i) {
        if (begin >= g_watched[i].begin && begin < g_watched[i].end) {
            SwitchPoint(operation, reinterpret_cast<const void*>(begin), site);
        }
    }
}

// Before an atomic operation.
void Arrive(const volatile void* memory, size_t size, Operation operation, const void* site)
{
    if (Self() != nullptr) {
        Look(memory, size, operation, site);
        SwitchPoint(operation, const_cast<const void*>(memory), site);
    }
}

void Mark(const volatile void* memory, size_t size, uint8_t mark)
{
    if (g_freed == nullptr) {
        return;
    }
    const auto begin = (reinterpret_cast<uintptr_t>(memory) + kGranule - 1) / kGranule;
    const auto end = (reinterpret_cast<uintptr_t>(memory) + size) / kGranule;
    if (begin < end) {
        memset(g_freed + begin, mark, end - begin);
    }
}

} // namespace

namespace scheduler
{

bool WatchFreedMemory()
{
    void* map = mmap(nullptr, kAddresses / kGranule, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    g_freed = map != MAP_FAILED ? static_cast<uint8_t*>(map) : nullptr;
    return g_freed != nullptr;
}

void WatchRange(const void* memory, size_t size)
{
    const auto begin = reinterpret_cast<uintptr_t>(memory);
    if (g_watchedCount < g_watched.size()) {
        g_watched[g_watchedCount++] = {begin, begin + size};
    }
}

void ForgetRanges()
{
    g_watchedCount = 0;
}

} // namespace scheduler

extern "C" {

void __tsan_init() {}
void __tsan_func_entry(void*) {}
void __tsan_func_exit() {}

#define PLAIN(size)                                                                                          \
    void __tsan_read##size(void* memory)                                                                     \
    {                                                                                                        \
        Look(memory, size, Operation::Read, __builtin_return_address(0));                                    \
    }                                                                                                        \
    void __tsan_write##size(void* memory)                                                                    \
    {                                                                                                        \
        Look(memory, size, Operation::Write, __builtin_return_address(0));                                   \
    }                                                                                                        \
    void __tsan_unaligned_read##size(void* memory)                                                           \
    {                                                                                                        \
        Look(memory, size, Operation::Read, __builtin_return_address(0));                                    \
    }                                                                                                        \
    void __tsan_unaligned_write##size(void* memory)                                                          \
    {                                                                                                        \
        Look(memory, size, Operation::Write, __builtin_return_address(0));                                   \
    }
PLAIN(1)
PLAIN(2)
PLAIN(4)
PLAIN(8)
PLAIN(16)
#undef PLAIN

void __tsan_read_range(void* memory, unsigned long size)
{
    Look(memory, size, Operation::Read, __builtin_return_address(0));
}

void __tsan_write_range(void* memory, unsigned long size)
{
    Look(memory, size, Operation::Write, __builtin_return_address(0));
}

void __tsan_vptr_update(void** memory, void*)
{
    Look(memory, sizeof(void*), Operation::Write, __builtin_return_address(0));
}

void __tsan_vptr_read(void** memory)
{
    Look(memory, sizeof(void*), Operation::Read, __builtin_return_address(0));
}

// All orders are the strongest: one thread runs at a time.
#define ATOMIC(bits, Type)                                                                                   \
    Type __tsan_atomic##bits##_load(const volatile Type* memory, int)                                        \
    {                                                                                                        \
        Arrive(memory, sizeof(Type), Operation::Read, __builtin_return_address(0));                          \
        Type value = __atomic_load_n(memory, __ATOMIC_SEQ_CST);                                              \
        if (Self() != nullptr && NoteLoad(const_cast<const Type*>(memory), static_cast<uint64_t>(value),     \
                                          __builtin_return_address(0))) {                                    \
            value = __atomic_load_n(memory, __ATOMIC_SEQ_CST);                                               \
        }                                                                                                    \
        return value;                                                                                        \
    }                                                                                                        \
    void __tsan_atomic##bits##_store(volatile Type* memory, Type value, int)                                 \
    {                                                                                                        \
        Arrive(memory, sizeof(Type), Operation::Write, __builtin_return_address(0));                         \
        __atomic_store_n(memory, value, __ATOMIC_SEQ_CST);                                                   \
    }                                                                                                        \
    Type __tsan_atomic##bits##_exchange(volatile Type* memory, Type value, int)                              \
    {                                                                                                        \
        Arrive(memory, sizeof(Type), Operation::Write, __builtin_return_address(0));                         \
        return __atomic_exchange_n(memory, value, __ATOMIC_SEQ_CST);                                         \
    }                                                                                                        \
    int __tsan_atomic##bits##_compare_exchange_strong(volatile Type* memory, Type* expected, Type value,     \
                                                      int, int)                                              \
    {                                                                                                        \
        Arrive(memory, sizeof(Type), Operation::Write, __builtin_return_address(0));                         \
        return __atomic_compare_exchange_n(memory, expected, value, false, __ATOMIC_SEQ_CST,                 \
                                           __ATOMIC_SEQ_CST);                                                \
    }                                                                                                        \
    int __tsan_atomic##bits##_compare_exchange_weak(volatile Type* memory, Type* expected, Type value, int,  \
                                                    int)                                                     \
    {                                                                                                        \
        Arrive(memory, sizeof(Type), Operation::Write, __builtin_return_address(0));                         \
        return __atomic_compare_exchange_n(memory, expected, value, false, __ATOMIC_SEQ_CST,                 \
                                           __ATOMIC_SEQ_CST);                                                \
    }                                                                                                        \
    Type __tsan_atomic##bits##_compare_exchange_val(volatile Type* memory, Type expected, Type value, int,   \
                                                    int)                                                     \
    {                                                                                                        \
        Arrive(memory, sizeof(Type), Operation::Write, __builtin_return_address(0));                         \
        __atomic_compare_exchange_n(memory, &expected, value, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);    \
        return expected;                                                                                     \
    }
#define ATOMIC_CHANGE(bits, Type, name)                                                                      \
    Type __tsan_atomic##bits##_##name(volatile Type* memory, Type value, int)                                \
    {                                                                                                        \
        Arrive(memory, sizeof(Type), Operation::Write, __builtin_return_address(0));                         \
        return __atomic_##name(memory, value, __ATOMIC_SEQ_CST);                                             \
    }
#define ATOMICS(bits, Type)                                                                                  \
    ATOMIC(bits, Type)                                                                                       \
    ATOMIC_CHANGE(bits, Type, fetch_add)                                                                     \
    ATOMIC_CHANGE(bits, Type, fetch_sub)                                                                     \
    ATOMIC_CHANGE(bits, Type, fetch_and)                                                                     \
    ATOMIC_CHANGE(bits, Type, fetch_or)                                                                      \
    ATOMIC_CHANGE(bits, Type, fetch_xor)
ATOMICS(8, uint8_t)
ATOMICS(16, uint16_t)
ATOMICS(32, uint32_t)
ATOMICS(64, uint64_t)

void __tsan_atomic_thread_fence(int)
{
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
}

// The kernel's pool poisons what is freed, as under the address sanitizer.
void __asan_poison_memory_region(const volatile void* memory, size_t size)
{
    Mark(memory, size, 1);
}

void __asan_unpoison_memory_region(const volatile void* memory, size_t size)
{
    Mark(memory, size, 0);
}

void __asan_handle_no_return() {}

} // extern "C"
