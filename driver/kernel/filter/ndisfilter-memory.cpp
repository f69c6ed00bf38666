// Tagged non-paged memory that can be verified before it is freed, and the spin lock that remembers its level.
#include "ndisfilter-handle.h"
#include "ndisfilter-internal.h"

namespace
{

// Stands in front of every block.
struct FilterMemory {
    ULONG m_Size; // of the whole allocation
    ULONG m_Tag;  // FILTER_MEMORY_TAG while the block is live, then 0
};

constexpr ULONG FilterMemoryOverhead = 12; // the header, and four spare bytes behind the caller's block
static_assert(sizeof(FilterMemory) == 8);

FilterMemory* AllocateTagged(ULONG size, ULONG tag)
{
    const ULONG whole = size + FilterMemoryOverhead;
    PVOID block = nullptr;
    if (whole < size || NdisAllocateMemoryWithTag(&block, whole, tag) == NDIS_STATUS_FAILURE ||
        block == nullptr) {
        Trace(TRACE_SERVICE, "  NdisAllocateMemory(size=%d) fails\n", whole);
        return nullptr;
    }
    FilterMemory* memory = static_cast<FilterMemory*>(block);
    memory->m_Size = whole;
    memory->m_Tag = FILTER_MEMORY_TAG;
    return memory;
}

} // namespace

PVOID Filter_AllocateMemory(ULONG nSize, ULONG nTag)
{
    Trace(TRACE_SERVICE, "Enter Filter_AllocateMemory\n");
    FilterMemory* memory = AllocateTagged(nSize, nTag);
    PVOID block = memory != nullptr ? memory + 1 : nullptr;
    Trace(TRACE_SERVICE, "Leave Filter_AllocateMemory, 0x%p\n", block);
    return block;
}

PVOID AllocateZeroed(SIZE_T size, ULONG tag)
{
    if (size > MAXULONG) {
        return nullptr;
    }
    PVOID block = Filter_AllocateMemory(static_cast<ULONG>(size), tag);
    if (block != nullptr) {
        RtlZeroMemory(block, size);
    }
    return block;
}

FILTER_STATUS Filter_FreeMemory(PVOID pVirtualAddress)
{
    return TracedCall({"Filter_FreeMemory", TRACE_SERVICE}, [&]() -> FILTER_STATUS {
        if (pVirtualAddress == nullptr) {
            Trace(TRACE_SERVICE, "  ppVirtualAddress == NULL\n");
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        // As a number: what was passed may be no block at all.
        const ULONG_PTR header = reinterpret_cast<ULONG_PTR>(pVirtualAddress) - sizeof(FilterMemory);
        FilterMemory* memory = reinterpret_cast<FilterMemory*>(header);
        const ULONG_PTR tagAddress = header + offsetof(FilterMemory, m_Tag);
        if (ReadUntrustedWord(reinterpret_cast<const volatile VOID*>(tagAddress)) != FILTER_MEMORY_TAG) {
            Trace(TRACE_SERVICE, "  pFilterMemory->m_Tag != FILTER_MEMORY_TAG\n");
            return FILTER_ERROR_INVALID_MEMORY_POINTER;
        }
        memory->m_Tag = 0;
        NdisFreeMemory(memory, memory->m_Size, 0);
        return FILTER_STATUS_SUCCESS;
    });
}

FILTER_STATUS Filter_InitializeLock(FilterLock* pLock)
{
    return TracedCall({"Filter_InitializeLock", TRACE_SERVICE}, [&]() -> FILTER_STATUS {
        if (pLock == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        KeInitializeSpinLock(&pLock->m_SpinLock);
        return FILTER_STATUS_SUCCESS;
    });
}

FILTER_STATUS Filter_AcquireLock(FilterLock* pLock)
{
    return TracedCall({"Filter_AcquireLock", TRACE_SERVICE}, [&]() -> FILTER_STATUS {
        if (pLock == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        // A pointer that cannot be read faults here, before the level is raised.
        LoadRelaxed(pLock->m_SpinLock);
        LoadRelaxed(pLock->m_OldIrql);
        const KIRQL oldIrql = KeAcquireSpinLockRaiseToDpc(&pLock->m_SpinLock);
        StoreRelaxed(pLock->m_OldIrql, oldIrql);
        return FILTER_STATUS_SUCCESS;
    });
}

FILTER_STATUS Filter_ReleaseLock(FilterLock* pLock)
{
    return TracedCall({"Filter_ReleaseLock", TRACE_SERVICE}, [&]() -> FILTER_STATUS {
        if (pLock == nullptr) {
            return FILTER_ERROR_INVALID_ARGUMENT;
        }
        KeReleaseSpinLock(&pLock->m_SpinLock, LoadRelaxed(pLock->m_OldIrql));
        return FILTER_STATUS_SUCCESS;
    });
}

FILTER_STATUS Filter_FreeLock(FilterLock* pLock)
{
    return TracedCall({"Filter_FreeLock", TRACE_SERVICE}, [&]() -> FILTER_STATUS {
        return pLock != nullptr ? FILTER_STATUS_SUCCESS : FILTER_ERROR_INVALID_ARGUMENT;
    });
}
