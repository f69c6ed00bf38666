// Faults on demand, the same in every build: in assembly, so that no sanitizer reports them before they happen.
#pragma once

#include <cstdint>

#include <sys/mman.h>

namespace support
{

inline void FaultOnRead()
{
    asm volatile("movl (%0), %%eax" : : "r"(uintptr_t{0}) : "rax", "memory");
}

inline void FaultOnDivision()
{
    asm volatile("xorl %%edx, %%edx\n\tmovl $1, %%eax\n\txorl %%ecx, %%ecx\n\tdivl %%ecx"
                 :
                 :
                 : "rax", "rcx", "rdx");
}

__attribute__((noinline, no_sanitize("undefined"))) inline void CallNowhere(void* place)
{
    reinterpret_cast<void (*)()>(place)();
}

// A page with PROT_... rights, all zero.
void* MapPage(int protection);

template <class T>
T* Unreadable()
{
    static void* const page = MapPage(PROT_NONE);
    return static_cast<T*>(page);
}

template <class T>
T* Unwritable()
{
    static void* const page = MapPage(PROT_READ);
    return static_cast<T*>(page);
}

// The codes that the guard reports.
inline constexpr int32_t kAccessViolation = static_cast<int32_t>(0xC0000005);
inline constexpr int32_t kDivideByZero = static_cast<int32_t>(0xC0000094);

} // namespace support
