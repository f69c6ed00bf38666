// What the kernel knows about a host thread: IRQL, processor, locks held, its process, its thread object.
#pragma once

#include <ntddk.h>

#include <atomic>
#include <cstdint>

namespace kernel
{

enum class LockKind : uint8_t { Spin, Read, Write };

struct alignas(32) HeldLock {
    const void* lock;
    const void* site; // where it was acquired
    LockKind kind;
    bool refused; // a recursive acquisition that was reported and not carried out: its release does nothing
#ifndef NDEBUG
    uint32_t operation; // that began with it
#endif
};

constexpr uint32_t kMaxHeldLocks = 64;

struct ThreadState {
    KIRQL irql;
    uint8_t criticalRegions; // entered and not left
    bool registered;
    bool systemThread;  // made by PsCreateSystemThread
    int processor;      // number + 1 of the processor it owns (at DISPATCH_LEVEL) or owned last; 0: none yet
    uint32_t heldCount; // read by the census from other threads
    HeldLock held[kMaxHeldLocks];
#ifndef NDEBUG
    uint32_t operations; // begun: with each lock taken and each request sent
#endif
    PKTHREAD thread;   // created when first asked for
    PEPROCESS process; // set by the I/O manager while it acts for a user process; null: the system process
    PKAPC_STATE attachment; // of KeStackAttachProcess, the innermost one; null: not attached
    PEPROCESS attached;     // the process attached to
};

extern __thread ThreadState t_thread __attribute__((tls_model("initial-exec")));

// What a driver reads of memory that programs may change, it reads once in an operation: see shared-access.cpp.
inline void BeginOperation([[maybe_unused]] ThreadState& thread)
{
#ifndef NDEBUG
    ++thread.operations;
#endif
}

// Enters the thread in the list of threads that may hold locks; it leaves it when it ends.
void RegisterThread(ThreadState& thread);

size_t LocksHeldByAll();

// After a routine of a driver has returned: reports an IRQL other than `expected` and locks still held, and
// puts the thread back in order.
void CheckReturn(KIRQL expected, const char* what, const void* routine);

// Names an address of code for reports: "function+0x12 (module)".
struct SiteText {
    char text[160];
};
SiteText DescribeSite(const void* address);

} // namespace kernel
