// Memory that several processors touch without a lock, and the order they rely on.
#pragma once

#include "ndisfilter-kernel.h"

template <class T> T LoadRelaxed(const volatile T& value)
{
    return __atomic_load_n(&value, __ATOMIC_RELAXED);
}

template <class T, class V> VOID StoreRelaxed(volatile T& value, V desired)
{
    const T converted = desired;
    __atomic_store_n(&value, converted, __ATOMIC_RELAXED);
}

template <class T> T LoadAcquire(const volatile T& value)
{
    return __atomic_load_n(&value, __ATOMIC_ACQUIRE);
}

template <class T, class V> VOID StoreRelease(volatile T& value, V desired)
{
    const T converted = desired;
    __atomic_store_n(&value, converted, __ATOMIC_RELEASE);
}

constexpr SIZE_T CACHE_LINE = 64;

// Asks for memory that will be read soon, and that another processor has written. Any address will do.
inline VOID FetchAhead(const volatile VOID* memory, SIZE_T size)
{
    for (SIZE_T offset = 0; offset < size; offset += CACHE_LINE) {
        __builtin_prefetch(const_cast<const CHAR*>(static_cast<const volatile CHAR*>(memory) + offset));
    }
}

// The same for memory that will be written.
inline VOID FetchAheadForWriting(volatile VOID* memory, SIZE_T size)
{
    for (SIZE_T offset = 0; offset < size; offset += CACHE_LINE) {
        __builtin_prefetch(const_cast<CHAR*>(static_cast<volatile CHAR*>(memory) + offset), 1);
    }
}

// Copies out of memory that another driver or program may be writing. Every byte is read once; aligned words of eight
// bytes are read whole.
inline VOID CopyRelaxed(PVOID destination, const volatile VOID* source, SIZE_T size)
{
    constexpr SIZE_T WordSize = sizeof(ULONGLONG);
    PUCHAR to = static_cast<PUCHAR>(destination);
    const volatile UCHAR* from = static_cast<const volatile UCHAR*>(source);
    while (size != 0) {
        if (size >= WordSize && reinterpret_cast<ULONG_PTR>(from) % WordSize == 0) {
            const ULONGLONG word = LoadRelaxed(*reinterpret_cast<const volatile ULONGLONG*>(from));
            RtlCopyMemory(to, &word, WordSize);
            to += WordSize;
            from += WordSize;
            size -= WordSize;
        } else {
            *to++ = LoadRelaxed(*from++);
            size--;
        }
    }
}

// The way back: for memory that others read meanwhile. Every byte is written once; aligned words of eight bytes are
// written whole.
inline VOID StoreBytesRelaxed(volatile VOID* destination, const VOID* source, SIZE_T size)
{
    constexpr SIZE_T WordSize = sizeof(ULONGLONG);
    volatile UCHAR* to = static_cast<volatile UCHAR*>(destination);
    const UCHAR* from = static_cast<const UCHAR*>(source);
    while (size != 0) {
        if (size >= WordSize && reinterpret_cast<ULONG_PTR>(to) % WordSize == 0) {
            ULONGLONG word;
            RtlCopyMemory(&word, from, WordSize);
            StoreRelaxed(*reinterpret_cast<volatile ULONGLONG*>(to), word);
            to += WordSize;
            from += WordSize;
            size -= WordSize;
        } else {
            StoreRelaxed(*to++, *from++);
            size--;
        }
    }
}
