// The exception guard: runs a callable and answers 0, or the NTSTATUS of the exception that ended it.
//
// A guard runs no destructors of the frames that it abandons, in any build. So nothing that may fault runs inside one
// while a lock or a reference taken inside it is held: locks are taken outside, and code of clients and pointers of
// callers are touched in an inner guard. Where the holder of a lock outlives the guard, a second guard may go on with it
// and release it.
//
// The only place in the driver that knows its platform.
#pragma once

#include "ndisfilter-kernel.h"

#if defined(_WIN32)

// Not inlined: __try reliably covers a call, whatever the compiler makes of plain memory accesses.
inline NTSTATUS CallGuarded(VOID (*routine)(PVOID), PVOID context)
{
    NTSTATUS code = STATUS_SUCCESS;
    __try {
        routine(context);
    } __except (code = GetExceptionCode(), EXCEPTION_EXECUTE_HANDLER) {
    }
    return code;
}

#define FILTER_NOT_INSTRUMENTED

#else

#include <hostguard.h>

inline NTSTATUS CallGuarded(VOID (*routine)(PVOID), PVOID context)
{
    return HostCallGuarded(context, routine);
}

// For code that reads memory which may have been freed: the tag of a stale handle.
#define FILTER_NOT_INSTRUMENTED __attribute__((noinline, no_sanitize("address", "thread", "undefined")))

#endif

template <class Body> __attribute__((noinline)) VOID RunGuardedBody(PVOID body)
{
    (*static_cast<const Body*>(body))();
}

template <class Body> NTSTATUS Guarded(const Body& body)
{
    return CallGuarded(&RunGuardedBody<Body>, const_cast<Body*>(&body));
}
