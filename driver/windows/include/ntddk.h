/*
 * The kernel headers of mingw-w64, with what they lack or get wrong mended. In front of the tool chain's own on the
 * include path; a Microsoft driver kit needs none of this, but for the attaching to a process, which is in its ntifs.h.
 */
#ifndef NDISFILTER_WINDOWS_NTDDK_H
#define NDISFILTER_WINDOWS_NTDDK_H

/* Two intrinsics that clang has of its own and wdm.h would define again. */
#define __INTRINSIC_DEFINED_InterlockedBitTestAndSet
#define __INTRINSIC_DEFINED_InterlockedBitTestAndReset

/*
 * wdm.h reads the current thread and processor straight out of the processor's control region. That is right on
 * Windows only; exports are right wherever an NT kernel loads the driver. That of the processor number has another
 * name (Windows 7 and later), as x64 kernels do not export the older one.
 */
#define KeGetCurrentThread KeGetCurrentThread_inline
#define KeGetCurrentProcessorNumber KeGetCurrentProcessorNumber_inline

#include_next <ntddk.h>

#undef KeGetCurrentThread
#undef KeGetCurrentProcessorNumber

#include <stdarg.h>
#include <stddef.h>

#ifndef RTL_QUERY_REGISTRY_TYPECHECK
#define RTL_QUERY_REGISTRY_TYPECHECK 0x00000100
#define RTL_QUERY_REGISTRY_TYPECHECK_SHIFT 24
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Of memory that a program may change at any moment. */
FORCEINLINE ULONG ReadULongAcquire(ULONG const volatile* source)
{
    return __atomic_load_n(source, __ATOMIC_ACQUIRE);
}

FORCEINLINE VOID WriteULongRelease(ULONG volatile* destination, ULONG value)
{
    __atomic_store_n(destination, value, __ATOMIC_RELEASE);
}

/* The fence is the compiler's alone: it makes no second copy out of the source later on. */
FORCEINLINE VOID RtlCopyVolatileMemory(volatile VOID* destination, volatile const VOID* source, SIZE_T length)
{
    RtlCopyMemory((PVOID)destination, (const VOID*)source, length);
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
}

__declspec(dllimport) PKTHREAD NTAPI KeGetCurrentThread(VOID);
__declspec(dllimport) ULONG NTAPI KeGetCurrentProcessorNumberEx(struct _PROCESSOR_NUMBER* number);

FORCEINLINE ULONG KeGetCurrentProcessorNumber(VOID)
{
    return KeGetCurrentProcessorNumberEx(NULL);
}

typedef struct _KAPC_STATE {
    LIST_ENTRY ApcListHead[2];
    PKPROCESS Process;
    BOOLEAN KernelApcInProgress;
    BOOLEAN KernelApcPending;
    BOOLEAN UserApcPending;
} KAPC_STATE, *PKAPC_STATE;

__declspec(dllimport) VOID NTAPI KeStackAttachProcess(PKPROCESS process, PKAPC_STATE state);
__declspec(dllimport) VOID NTAPI KeUnstackDetachProcess(PKAPC_STATE state);

__declspec(dllimport) int __cdecl _vsnprintf(char* buffer, size_t count, const char* format, va_list arguments);
__declspec(dllimport) int __cdecl _snprintf(char* buffer, size_t count, const char* format, ...);

#ifdef __cplusplus
}
#endif

#endif
