// Faults on demand, the same in every build: in assembly, so that no sanitizer reports them before they happen.
#pragma once

#include <cstdint>

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

// An address whose page can be neither read nor written, and one of a page that can only be read (all zero).
void* NoAccessPage();
void* ReadOnlyPage();

template <class T>
T* Unreadable()
{
    return static_cast<T*>(NoAccessPage());
}

template <class T>
T* Unwritable()
{
    return static_cast<T*>(ReadOnlyPage());
}

// The codes that the guard reports.
inline constexpr int32_t kAccessViolation = static_cast<int32_t>(0xC0000005);
inline constexpr int32_t kDivideByZero = static_cast<int32_t>(0xC0000094);

} // namespace support
