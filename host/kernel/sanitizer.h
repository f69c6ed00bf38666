// Which sanitizer this build has, and what the kernel tells it about its memory.
#pragma once

#include <cstddef>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KERNEL_ASAN 1
#endif
#if __has_feature(thread_sanitizer)
#define KERNEL_TSAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define KERNEL_ASAN 1
#endif
#if defined(__SANITIZE_THREAD__)
#define KERNEL_TSAN 1
#endif

// For functions that read memory which may be poisoned on purpose.
#define KERNEL_UNCHECKED __attribute__((no_sanitize("address", "thread"), noinline))

#ifdef KERNEL_ASAN
extern "C" void __asan_poison_memory_region(const volatile void* address, size_t size);
extern "C" void __asan_unpoison_memory_region(const volatile void* address, size_t size);
extern "C" void __asan_handle_no_return();
#endif

namespace kernel
{

inline void Poison([[maybe_unused]] const void* address, [[maybe_unused]] size_t size)
{
#ifdef KERNEL_ASAN
    __asan_poison_memory_region(address, size);
#endif
}

inline void Unpoison([[maybe_unused]] const void* address, [[maybe_unused]] size_t size)
{
#ifdef KERNEL_ASAN
    __asan_unpoison_memory_region(address, size);
#endif
}

// Before frames are abandoned by a jump.
inline void AbandonFrames()
{
#ifdef KERNEL_ASAN
    __asan_handle_no_return();
#endif
}

} // namespace kernel
