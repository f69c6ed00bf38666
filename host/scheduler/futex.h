// The host's futex, past the functions of libc that the scheduler answers itself.
#pragma once

#include <cstdint>

#include <linux/futex.h>
#include <sys/syscall.h>

namespace scheduler
{

inline long RawCall(long number, long a, long b, long c, long d, long e = 0, long f = 0)
{
    long result;
    register long r10 asm("r10") = d;
    register long r8 asm("r8") = e;
    register long r9 asm("r9") = f;
    asm volatile("syscall"
                 : "=a"(result)
                 : "a"(number), "D"(a), "S"(b), "d"(c), "r"(r10), "r"(r8), "r"(r9)
                 : "rcx", "r11", "memory");
    return result;
}

inline void FutexWait(uint32_t* word, uint32_t value)
{
    RawCall(SYS_futex, reinterpret_cast<long>(word), FUTEX_WAIT_PRIVATE, value, 0);
}

inline void FutexWake(uint32_t* word)
{
    RawCall(SYS_futex, reinterpret_cast<long>(word), FUTEX_WAKE_PRIVATE, 1, 0);
}

} // namespace scheduler
