// The functions of libc by which threads wait, wake and come into being, for the threads that the scheduler knows; all
// others get libc's own. A program that links this has them interposed for itself and for libstdc++, so host code waits
// as it is written: with std::mutex, std::condition_variable, std::thread and futexes.
//
// The state of mutexes stays in them: they are taken with the try functions. Conditions are the scheduler's alone.
#include "futex.h"
#include "threads.h"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <ctime>
#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

using namespace scheduler;

namespace
{

constexpr uint64_t kSecond = 1'000'000'000;

template <class Function>
Function* Real(Function*, const char* name, const char* version = nullptr)
{
    void* found = version != nullptr ? dlvsym(RTLD_NEXT, name, version) : dlsym(RTLD_NEXT, name);
    return reinterpret_cast<Function*>(found);
}

// The function of libc behind the one of that name here.
#define REAL(name, ...)                                                                                      \
    ([] {                                                                                                    \
        static auto* const function =                                                                        \
            Real(static_cast<decltype(&::name)>(nullptr), #name __VA_OPT__(, ) __VA_ARGS__);                 \
        return function;                                                                                     \
    }())

#define CONDITION_VERSION "GLIBC_2.3.2"

uint64_t Nanoseconds(const timespec& time)
{
    return static_cast<uint64_t>(time.tv_sec) * kSecond + static_cast<uint64_t>(time.tv_nsec);
}

timespec TimeOf(uint64_t nanoseconds)
{
    return {static_cast<time_t>(nanoseconds / kSecond), static_cast<long>(nanoseconds % kSecond)};
}

int Lock(pthread_mutex_t* mutex, const void* site)
{
    SwitchPoint(Operation::Acquire, mutex, site);
    for (;;) {
        const int error = REAL(pthread_mutex_trylock)(mutex);
        if (error != EBUSY) {
            return error;
        }
        Block(mutex, 0, site);
    }
}

int Unlock(pthread_mutex_t* mutex)
{
    const int error = REAL(pthread_mutex_unlock)(mutex);
    NoteChange();
    Wake(mutex, true);
    return error;
}

int WaitForCondition(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* limit,
                     const void* site)
{
    Unlock(mutex);
    const bool woken = Block(condition, limit != nullptr ? Nanoseconds(*limit) : 0, site);
    while (REAL(pthread_mutex_trylock)(mutex) == EBUSY) {
        Block(mutex, 0, site);
    }
    return woken ? 0 : ETIMEDOUT;
}

template <int Try(pthread_rwlock_t*)>
int LockShared(pthread_rwlock_t* lock, const void* site)
{
    SwitchPoint(Operation::Acquire, lock, site);
    for (;;) {
        const int error = Try(lock);
        if (error != EBUSY) {
            return error;
        }
        Block(lock, 0, site);
    }
}

void Sleep(const timespec& time, const void* site)
{
    static const char sleeping = 0; // nobody wakes it
    Block(&sleeping, Now() + Nanoseconds(time), site);
}

} // namespace

extern "C" {

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept
{
    return Self() == nullptr ? REAL(pthread_mutex_lock)(mutex) : Lock(mutex, __builtin_return_address(0));
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept
{
    if (Self() == nullptr) {
        return REAL(pthread_mutex_unlock)(mutex);
    }
    const int error = Unlock(mutex);
    SwitchPoint(Operation::Release, mutex, __builtin_return_address(0));
    return error;
}

int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex)
{
    return Self() == nullptr ? REAL(pthread_cond_wait, CONDITION_VERSION)(condition, mutex)
                             : WaitForCondition(condition, mutex, nullptr, __builtin_return_address(0));
}

int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* limit)
{
    return Self() == nullptr ? REAL(pthread_cond_timedwait, CONDITION_VERSION)(condition, mutex, limit)
                             : WaitForCondition(condition, mutex, limit, __builtin_return_address(0));
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const timespec* limit)
{
    return Self() == nullptr ? REAL(pthread_cond_clockwait)(condition, mutex, clock, limit)
                             : WaitForCondition(condition, mutex, limit, __builtin_return_address(0));
}

int pthread_cond_signal(pthread_cond_t* condition) noexcept
{
    if (Self() == nullptr) {
        return REAL(pthread_cond_signal, CONDITION_VERSION)(condition);
    }
    NoteChange();
    Wake(condition, false);
    return 0;
}

int pthread_cond_broadcast(pthread_cond_t* condition) noexcept
{
    if (Self() == nullptr) {
        return REAL(pthread_cond_broadcast, CONDITION_VERSION)(condition);
    }
    NoteChange();
    Wake(condition, true);
    return 0;
}

int pthread_rwlock_rdlock(pthread_rwlock_t* lock) noexcept
{
    return Self() == nullptr ? REAL(pthread_rwlock_rdlock)(lock)
                             : LockShared<pthread_rwlock_tryrdlock>(lock, __builtin_return_address(0));
}

int pthread_rwlock_wrlock(pthread_rwlock_t* lock) noexcept
{
    return Self() == nullptr ? REAL(pthread_rwlock_wrlock)(lock)
                             : LockShared<pthread_rwlock_trywrlock>(lock, __builtin_return_address(0));
}

int pthread_rwlock_unlock(pthread_rwlock_t* lock) noexcept
{
    const int error = REAL(pthread_rwlock_unlock)(lock);
    if (Self() != nullptr) {
        NoteChange();
        Wake(lock, true);
    }
    return error;
}

int pthread_create(pthread_t* handle, const pthread_attr_t* attributes, void* (*routine)(void*),
                   void* argument) noexcept
{
    if (Self() == nullptr) {
        return REAL(pthread_create)(handle, attributes, routine, argument);
    }
    int detached = PTHREAD_CREATE_JOINABLE;
    if (attributes != nullptr) {
        pthread_attr_getdetachstate(attributes, &detached);
    }
    Start* const start = StartThread(routine, argument, detached == PTHREAD_CREATE_JOINABLE);
    Thread* const thread = start->thread;
    const int error = REAL(pthread_create)(handle, attributes, RunThread, start);
    if (error != 0) {
        ForgetThread(start);
        return error;
    }
    SetHandle(thread, static_cast<uintptr_t>(*handle));
    SwitchPoint(Operation::Start, thread, __builtin_return_address(0));
    return 0;
}

int pthread_join(pthread_t handle, void** result)
{
    if (Self() != nullptr) {
        Thread* const thread = FindByHandle(static_cast<uintptr_t>(handle));
        while (thread != nullptr && !HasEnded(thread)) {
            Block(EndKeyOf(thread), 0, __builtin_return_address(0));
        }
        if (thread != nullptr) {
            NobodyJoins(thread);
        }
    }
    return REAL(pthread_join)(handle, result);
}

int pthread_detach(pthread_t handle) noexcept
{
    if (Self() != nullptr) {
        if (Thread* const thread = FindByHandle(static_cast<uintptr_t>(handle))) {
            NobodyJoins(thread);
        }
    }
    return REAL(pthread_detach)(handle);
}

int sched_yield() noexcept
{
    if (Self() == nullptr) {
        return REAL(sched_yield)();
    }
    Yield(__builtin_return_address(0));
    return 0;
}

int nanosleep(const timespec* time, timespec* left)
{
    if (Self() == nullptr) {
        return REAL(nanosleep)(time, left);
    }
    Sleep(*time, __builtin_return_address(0));
    return 0;
}

// The run has one clock for all purposes.
int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    if (Self() == nullptr) {
        return REAL(clock_gettime)(clock, time);
    }
    *time = TimeOf(Now());
    return 0;
}

// Futexes; all other calls go to the host.
long syscall(long number, ...) noexcept
{
    va_list list;
    va_start(list, number);
    long a[6];
    for (long& argument : a) {
        argument = va_arg(list, long);
    }
    va_end(list);
    if (Self() != nullptr && number == SYS_futex) {
        auto* const word = reinterpret_cast<uint32_t*>(a[0]);
        const int operation = static_cast<int>(a[1]) & FUTEX_CMD_MASK;
        if (operation == FUTEX_WAKE) {
            NoteChange();
            Wake(word, a[2] > 1);
            return 0;
        }
        if (operation == FUTEX_WAIT) {
            if (__atomic_load_n(word, __ATOMIC_SEQ_CST) != static_cast<uint32_t>(a[2])) {
                errno = EAGAIN;
                return -1;
            }
            const auto* limit = reinterpret_cast<const timespec*>(a[3]);
            const uint64_t deadline = limit != nullptr ? Now() + Nanoseconds(*limit) : 0;
            if (!Block(word, deadline, __builtin_return_address(0))) {
                errno = ETIMEDOUT;
                return -1;
            }
            return 0;
        }
    }
    const long result = RawCall(number, a[0], a[1], a[2], a[3], a[4], a[5]);
    if (result < 0 && result > -4096) {
        errno = static_cast<int>(-result);
        return -1;
    }
    return result;
}

} // extern "C"
