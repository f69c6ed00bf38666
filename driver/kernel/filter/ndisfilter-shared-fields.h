// Fields of the shared memory that the program may change at any moment. One operation, be it taking a block, writing one
// or a read request, reads each of them once and goes by what it has read. All that the framework reads there goes
// through these functions, and so does what tells the program of a block; a checking kernel looks at what they do.
#pragma once

#include "ndisfilter-kernel.h"

inline ULONG FetchField(const uint32_t& field)
{
    return ReadULongAcquire(reinterpret_cast<const volatile ULONG*>(&field));
}

inline ULONG FetchField(const int32_t& field)
{
    return ReadULongAcquire(reinterpret_cast<const volatile ULONG*>(&field));
}

// Everything written before is there for a program that reads the field.
inline VOID PublishField(int32_t& field, ULONG value)
{
    WriteULongRelease(reinterpret_cast<volatile ULONG*>(&field), value);
}

inline VOID FetchBytes(PVOID destination, const VOID* source, SIZE_T size)
{
    RtlCopyVolatileMemory(destination, source, size);
}
