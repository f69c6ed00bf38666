// Kernel functions that are one step for the other threads; the linker leads the calls of the program here (--wrap).
// Taking a lock has its switch point before it and giving it back behind it; what both do inside, to their own words and
// to the IRQL, is divided only where a search asks for that. Memory and the debug output know no order that drivers
// could rely on.
#include "threads.h"

#include <cstdint>

using namespace scheduler;

namespace
{

template <class Call>
auto Undividedly(const Call& call)
{
    const Undivided step;
    return call();
}

template <class Call>
auto Taking(const void* lock, const void* site, const Call& call)
{
    if (Self() == nullptr || LocksAreDivided()) {
        return call();
    }
    SwitchPoint(Operation::Acquire, lock, site);
    return Undividedly(call);
}

template <class Call>
void Leaving(const void* lock, const void* site, const Call& call)
{
    if (Self() == nullptr || LocksAreDivided()) {
        call();
        return;
    }
    Undividedly(call);
    SwitchPoint(Operation::Release, lock, site);
}

} // namespace

#define SITE __builtin_return_address(0)

extern "C" {

void __real_NdisAcquireReadWriteLock(void* lock, uint8_t write, void* state);
void __real_NdisReleaseReadWriteLock(void* lock, void* state);
uint8_t __real_KeAcquireSpinLockRaiseToDpc(void* lock);
void __real_KeReleaseSpinLock(void* lock, uint8_t irql);
void __real_KeAcquireSpinLockAtDpcLevel(void* lock);
void __real_KeReleaseSpinLockFromDpcLevel(void* lock);
uint8_t __real_KeRaiseIrqlToDpcLevel();
void __real_KeLowerIrql(uint8_t irql);
void* __real_ExAllocatePool(int type, size_t size);
void* __real_ExAllocatePoolWithTag(int type, size_t size, uint32_t tag);
void __real_ExFreePool(void* block);
void __real_ExFreePoolWithTag(void* block, uint32_t tag);
int32_t __real_NdisAllocateMemoryWithTag(void** block, uint32_t size, uint32_t tag);
void __real_NdisFreeMemory(void* block, uint32_t size, uint32_t flags);

void __wrap_NdisAcquireReadWriteLock(void* lock, uint8_t write, void* state)
{
    Taking(lock, SITE, [&] { __real_NdisAcquireReadWriteLock(lock, write, state); });
}

void __wrap_NdisReleaseReadWriteLock(void* lock, void* state)
{
    Leaving(lock, SITE, [&] { __real_NdisReleaseReadWriteLock(lock, state); });
}

uint8_t __wrap_KeAcquireSpinLockRaiseToDpc(void* lock)
{
    return Taking(lock, SITE, [&] { return __real_KeAcquireSpinLockRaiseToDpc(lock); });
}

void __wrap_KeReleaseSpinLock(void* lock, uint8_t irql)
{
    Leaving(lock, SITE, [&] { __real_KeReleaseSpinLock(lock, irql); });
}

void __wrap_KeAcquireSpinLockAtDpcLevel(void* lock)
{
    Undividedly([&] { __real_KeAcquireSpinLockAtDpcLevel(lock); });
}

void __wrap_KeReleaseSpinLockFromDpcLevel(void* lock)
{
    Undividedly([&] { __real_KeReleaseSpinLockFromDpcLevel(lock); });
}

uint8_t __wrap_KeRaiseIrqlToDpcLevel()
{
    return Undividedly([&] { return __real_KeRaiseIrqlToDpcLevel(); });
}

void __wrap_KeLowerIrql(uint8_t irql)
{
    Undividedly([&] { __real_KeLowerIrql(irql); });
}

void* __wrap_ExAllocatePool(int type, size_t size)
{
    return Undividedly([&] { return __real_ExAllocatePool(type, size); });
}

void* __wrap_ExAllocatePoolWithTag(int type, size_t size, uint32_t tag)
{
    return Undividedly([&] { return __real_ExAllocatePoolWithTag(type, size, tag); });
}

void __wrap_ExFreePool(void* block)
{
    Undividedly([&] { __real_ExFreePool(block); });
}

void __wrap_ExFreePoolWithTag(void* block, uint32_t tag)
{
    Undividedly([&] { __real_ExFreePoolWithTag(block, tag); });
}

int32_t __wrap_NdisAllocateMemoryWithTag(void** block, uint32_t size, uint32_t tag)
{
    return Undividedly([&] { return __real_NdisAllocateMemoryWithTag(block, size, tag); });
}

void __wrap_NdisFreeMemory(void* block, uint32_t size, uint32_t flags)
{
    Undividedly([&] { __real_NdisFreeMemory(block, size, flags); });
}

// The kernel's waiting loops (kernel::Backoff).
void __real__ZN6kernel7Backoff4WaitEv(void* self);
void __wrap__ZN6kernel7Backoff4WaitEv(void* self)
{
    if (Self() == nullptr) {
        __real__ZN6kernel7Backoff4WaitEv(self);
    } else {
        Yield(SITE);
    }
}

} // extern "C"
