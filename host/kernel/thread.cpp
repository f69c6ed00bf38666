#include "thread.h"

#include "dispatcher.h"
#include "guard.h"
#include "irql.h"
#include "object.h"
#include "sanitizer.h"
#include "verifier.h"

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <dlfcn.h>
#include <mutex>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

using namespace kernel;

// A thread object: of a system thread, or of any host thread that asked for its own.
struct _KTHREAD {
    DISPATCHER_HEADER Header; // signalled when the thread has ended
    uint32_t id;
    KPRIORITY priority;
    PKSTART_ROUTINE start;
    void* context;
    sigjmp_buf* exit; // where PsTerminateSystemThread goes
};

namespace
{

constexpr KPRIORITY kDefaultPriority = 8;
constexpr uintptr_t kSystemProcessId = 4;

_OBJECT_TYPE g_threadType = {"Thread", nullptr};
POBJECT_TYPE g_threadTypePointer = &g_threadType;

struct ThreadList {
    std::mutex mutex;
    std::vector<ThreadState*> threads;
};

ThreadList& Threads()
{
    static ThreadList& list = *new ThreadList; // never destroyed: other threads may still run at exit
    return list;
}

// Runs when a thread ends that was registered.
struct ThreadEnd {
    ~ThreadEnd()
    {
        ThreadState& thread = t_thread;
        if (!thread.registered)
            return;
        CheckReturn(PASSIVE_LEVEL, "host thread", nullptr);
        {
            std::lock_guard lock(Threads().mutex);
            std::erase(Threads().threads, &thread);
        }
        thread.registered = false;
        if (thread.thread != nullptr)
            DereferenceObject(thread.thread);
        thread.thread = nullptr;
    }
};

uint32_t HostThreadId()
{
    return static_cast<uint32_t>(syscall(SYS_gettid));
}

PKTHREAD NewThreadObject()
{
    auto* thread = static_cast<PKTHREAD>(CreateObject(&g_threadType, sizeof(_KTHREAD)));
    if (thread == nullptr)
        return nullptr;
    InitializeHeader(&thread->Header, kThreadObject, sizeof(DISPATCHER_HEADER), false);
    thread->priority = kDefaultPriority;
    return thread;
}

void* RunSystemThread(void* argument)
{
    auto* object = static_cast<PKTHREAD>(argument);
    ThreadState& thread = t_thread;
    thread.thread = object; // takes over the reference of the creation
    thread.systemThread = true;
    RegisterThread(thread);
    __atomic_store_n(&object->id, HostThreadId(), __ATOMIC_RELAXED);
    pthread_setname_np(pthread_self(), "kernel-thread");
    sigjmp_buf exit;
    object->exit = &exit;
    if (sigsetjmp(exit, 0) == 0)
        object->start(object->context);
    CheckReturn(PASSIVE_LEVEL, "system thread", reinterpret_cast<const void*>(object->start));

    Dispatcher& dispatcher = TheDispatcher();
    std::lock_guard lock(dispatcher.mutex);
    thread.systemThread = false;
    dispatcher.runningThreads--;
    Live().threads--;
    Signal(&object->Header);
    dispatcher.idle.notify_all();
    return nullptr;
}

void ForgetStart(Dispatcher& dispatcher)
{
    std::lock_guard lock(dispatcher.mutex);
    dispatcher.runningThreads--;
    Live().threads--;
    dispatcher.idle.notify_all();
}

} // namespace

POBJECT_TYPE* PsThreadType = &g_threadTypePointer;

namespace kernel
{

__thread ThreadState t_thread;

void RegisterThread(ThreadState& thread)
{
    if (thread.registered)
        return;
    thread.registered = true;
    static thread_local ThreadEnd end;
    (void)&end;
    std::lock_guard lock(Threads().mutex);
    Threads().threads.push_back(&thread);
}

size_t LocksHeldByAll()
{
    std::lock_guard lock(Threads().mutex);
    size_t count = 0;
    for (const ThreadState* thread : Threads().threads)
        count += __atomic_load_n(&thread->heldCount, __ATOMIC_RELAXED);
    return count;
}

void CheckReturn(KIRQL expected, const char* what, const void* routine)
{
    ThreadState& thread = t_thread;
    if (__builtin_expect(thread.heldCount == 0 && thread.irql == expected && thread.criticalRegions == 0 &&
                             thread.attachment == nullptr,
                         1))
        return;
    if (thread.attachment != nullptr) {
        Report("process-left-attached", what, "attached to a process, routine %s",
               DescribeSite(routine).text);
        thread.attachment = nullptr;
    }
    if (expected == PASSIVE_LEVEL && thread.criticalRegions != 0) {
        Report("critical-region-left", what, "%u regions not left, routine %s", thread.criticalRegions,
               DescribeSite(routine).text);
        thread.criticalRegions = 0;
    }
    for (uint32_t i = 0; i < thread.heldCount; i++)
        Report("lock-left-held", what, "lock %p acquired at %s, routine %s", thread.held[i].lock,
               DescribeSite(thread.held[i].site).text, DescribeSite(routine).text);
    __atomic_store_n(&thread.heldCount, 0, __ATOMIC_RELAXED);
    if (thread.irql != expected) {
        Report("irql-changed", what, "left at IRQL %u instead of %u, routine %s", thread.irql, expected,
               DescribeSite(routine).text);
        if (thread.irql > expected)
            LowerTo(thread, expected, what);
        else if (expected >= DISPATCH_LEVEL)
            RaiseToDispatch(thread);
    }
}

SiteText DescribeSite(const void* address)
{
    SiteText site;
    Dl_info info;
    if (address == nullptr) {
        snprintf(site.text, sizeof(site.text), "an unknown place");
    } else if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) {
        snprintf(site.text, sizeof(site.text), "%p", address);
    } else {
        const char* slash = strrchr(info.dli_fname, '/');
        const char* file = slash != nullptr ? slash + 1 : info.dli_fname;
        const void* base = info.dli_sname != nullptr ? info.dli_saddr : info.dli_fbase;
        auto offset = static_cast<size_t>(static_cast<const char*>(address) - static_cast<const char*>(base));
        snprintf(site.text, sizeof(site.text), "%s+0x%zx (%s)",
                 info.dli_sname != nullptr ? info.dli_sname : "image", offset, file);
    }
    return site;
}

} // namespace kernel

NTSTATUS PsCreateSystemThread(PHANDLE ThreadHandle, ULONG, POBJECT_ATTRIBUTES, HANDLE, PCLIENT_ID ClientId,
                              PKSTART_ROUTINE StartRoutine, PVOID StartContext)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "PsCreateSystemThread");
    if (Fails(machine::Fault::Thread))
        return STATUS_INSUFFICIENT_RESOURCES;
    PKTHREAD thread = NewThreadObject();
    if (thread == nullptr)
        return STATUS_INSUFFICIENT_RESOURCES;
    thread->start = StartRoutine;
    thread->context = StartContext;
    ReferenceObject(thread); // of the new thread, until it has ended; the first one is this function's

    Dispatcher& dispatcher = TheDispatcher();
    {
        std::lock_guard lock(dispatcher.mutex);
        dispatcher.runningThreads++;
        Live().threads++;
    }
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t host;
    int error = pthread_create(&host, &attributes, RunSystemThread, thread);
    pthread_attr_destroy(&attributes);
    if (error != 0) {
        ForgetStart(dispatcher);
        DereferenceObject(thread);
        DereferenceObject(thread);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    *ThreadHandle = CreateHandle(thread);
    if (ClientId != nullptr)
        *ClientId = {reinterpret_cast<HANDLE>(kSystemProcessId), nullptr};
    DereferenceObject(thread);
    return STATUS_SUCCESS;
}

NTSTATUS PsTerminateSystemThread(NTSTATUS)
{
    ThreadState& thread = t_thread;
    if (!thread.systemThread)
        return STATUS_INVALID_PARAMETER;
    RequireIrqlAtMost(PASSIVE_LEVEL, "PsTerminateSystemThread");
    ForgetGuards();
    AbandonFrames();
    siglongjmp(*thread.thread->exit, 1);
}

KPRIORITY KeSetPriorityThread(PKTHREAD Thread, KPRIORITY Priority)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "KeSetPriorityThread");
    if (Priority <= LOW_PRIORITY || Priority > HIGH_PRIORITY)
        Report("invalid-priority", "KeSetPriorityThread", "priority %d", Priority);
    return __atomic_exchange_n(&Thread->priority, Priority, __ATOMIC_RELAXED);
}

KPRIORITY KeQueryPriorityThread(PKTHREAD Thread)
{
    return __atomic_load_n(&Thread->priority, __ATOMIC_RELAXED);
}

PKTHREAD KeGetCurrentThread(VOID)
{
    ThreadState& thread = t_thread;
    if (thread.thread == nullptr) {
        RegisterThread(thread);
        thread.thread = NewThreadObject();
    }
    return thread.thread;
}

VOID KeEnterCriticalRegion(VOID)
{
    RequireIrqlAtMost(APC_LEVEL, "KeEnterCriticalRegion");
    t_thread.criticalRegions++;
}

VOID KeLeaveCriticalRegion(VOID)
{
    RequireIrqlAtMost(APC_LEVEL, "KeLeaveCriticalRegion");
    if (t_thread.criticalRegions == 0) {
        Report("critical-region-not-entered", "KeLeaveCriticalRegion", "the thread is in none");
        return;
    }
    t_thread.criticalRegions--;
}

HANDLE PsGetCurrentThreadId(VOID)
{
    return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(HostThreadId()));
}

namespace machine
{

ThreadHold::ThreadHold()
{
    Dispatcher& dispatcher = TheDispatcher();
    std::unique_lock lock(dispatcher.mutex);
    dispatcher.threadHolds++;
    dispatcher.idle.wait(lock, [&] { return dispatcher.runningThreads == 0; });
}

ThreadHold::~ThreadHold()
{
    Dispatcher& dispatcher = TheDispatcher();
    std::lock_guard lock(dispatcher.mutex);
    if (--dispatcher.threadHolds != 0)
        return;
    dispatcher.runningThreads += dispatcher.heldThreads;
    dispatcher.heldThreads = 0;
    dispatcher.threadReleases++;
    dispatcher.threadRelease.notify_all();
}

bool WaitIdle(uint32_t timeoutMs)
{
    Dispatcher& dispatcher = TheDispatcher();
    std::unique_lock lock(dispatcher.mutex);
    return dispatcher.idle.wait_for(lock, std::chrono::milliseconds(timeoutMs), EverythingAtRest);
}

} // namespace machine
