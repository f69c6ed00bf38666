#include "mdl.h"

#include "pool.h"
#include "process.h"
#include "verifier.h"

#include <ntddk.h>

#include <sys/mman.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <vector>

namespace kernel
{
namespace
{

constexpr ULONG kMdlTag = 0x206C644D; // "Mdl "

struct View {
    uint32_t process;
    void* address; // what the process was told
    void* pages;   // null when they lie in another program
    size_t length; // of the pages
    MDL* mdl;
};

struct Views {
    std::mutex mutex;
    std::vector<View> list; // at most a handful
};

Views& AllViews()
{
    static Views& views = *new Views; // never destroyed: other threads may still run at exit
    return views;
}

void Unmap(const View& view)
{
    if (view.pages != nullptr) {
        munmap(view.pages, view.length);
    }
    --Live().views;
}

bool MayBeMapped(const MDL* mdl, const char* function)
{
    if (mdl->MdlFlags & (MDL_PAGES_LOCKED | MDL_SOURCE_IS_NONPAGED_POOL)) {
        return true;
    }
    Report("mdl-not-locked", function, "MDL %p describes pages that are neither locked nor non-paged pool",
           static_cast<const void*>(mdl));
    return false;
}

// Kernel memory has its one address already.
void* MapIntoKernel(MDL* mdl, const char* function)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, function);
    if (!MayBeMapped(mdl, function)) {
        return nullptr;
    }
    if (mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA) {
        Report("mdl-mapped-twice", function, "MDL %p is mapped into the system already",
               static_cast<void*>(mdl));
        return mdl->MappedSystemVa;
    }
    mdl->MappedSystemVa = MmGetMdlVirtualAddress(mdl);
    mdl->MdlFlags |= MDL_MAPPED_TO_SYSTEM_VA;
    ++Live().views;
    return mdl->MappedSystemVa;
}

// The same pages at another address; null when they cannot be mapped.
void* MapIntoProcess(MDL* mdl, const char* function)
{
    RequireIrqlAtMost(APC_LEVEL, function);
    if (!MayBeMapped(mdl, function)) {
        return nullptr;
    }
    int file = -1;
    size_t offset = 0;
    void* source = MmGetMdlVirtualAddress(mdl);
    if (!FindShareable(source, mdl->ByteCount, &file, &offset)) {
        Report("view-of-shared-pages", function,
               "%u bytes at %p share their pages with other pool blocks, which the program would see as well",
               mdl->ByteCount, source);
        return nullptr;
    }
    const size_t within = BYTE_OFFSET(source);
    const size_t length =
        static_cast<size_t>(ADDRESS_AND_SIZE_TO_SPAN_PAGES(source, mdl->ByteCount)) * PAGE_SIZE;
    offset -= within;
    const PEPROCESS process = IoGetCurrentProcess();
    void* pages = nullptr;
    uintptr_t begin = 0;
    if (process->mapPages) {
        begin = process->mapPages(file, offset, length);
    } else {
        pages = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, file, static_cast<off_t>(offset));
        begin = pages != MAP_FAILED ? reinterpret_cast<uintptr_t>(pages) : 0;
    }
    // What another program answers is believed for nothing but not being zero.
    void* address = reinterpret_cast<void*>(begin + within);
    if (begin == 0 || address == nullptr) {
        return nullptr;
    }
    mdl->Process = process; // spares the many MDLs without a user view the search when they are freed
    Views& views = AllViews();
    std::lock_guard lock(views.mutex);
    views.list.push_back({process->id, address, pages, length, mdl});
    ++Live().views;
    return address;
}

bool HasView(const MDL* mdl)
{
    Views& views = AllViews();
    std::lock_guard lock(views.mutex);
    return std::any_of(views.list.begin(), views.list.end(),
                       [mdl](const View& view) { return view.mdl == mdl; });
}

void UnmapFromKernel(MDL* mdl)
{
    mdl->MdlFlags &= ~MDL_MAPPED_TO_SYSTEM_VA;
    --Live().views;
}

} // namespace

void EndViews(uint32_t processId, bool handlesLeft)
{
    Views& views = AllViews();
    std::lock_guard lock(views.mutex);
    std::erase_if(views.list, [=](const View& view) {
        if (view.process != processId) {
            return false;
        }
        if (!handlesLeft) {
            Report("view-left-in-process", "process end",
                   "process %u ended with %zu bytes still mapped at %p", processId, view.length,
                   view.address);
        }
        Unmap(view);
        return true;
    });
}

} // namespace kernel

using namespace kernel;

PMDL IoAllocateMdl(PVOID address, ULONG length, BOOLEAN secondary, BOOLEAN chargeQuota, PIRP irp)
{
    (void)chargeQuota;
    RequireIrqlAtMost(DISPATCH_LEVEL, "IoAllocateMdl");
    if (Fails(machine::Fault::Mdl)) {
        return nullptr;
    }
    auto* mdl =
        static_cast<MDL*>(AllocateBlock(sizeof(MDL), kMdlTag, BlockKind::Mdl, __builtin_return_address(0)));
    if (mdl == nullptr) {
        return nullptr;
    }
    *mdl = {};
    mdl->Size = sizeof(MDL);
    mdl->StartVa = PAGE_ALIGN(address);
    mdl->ByteOffset = BYTE_OFFSET(address);
    mdl->ByteCount = length;
    ++Live().mdls;
    if (irp != nullptr) {
        PMDL* end = &irp->MdlAddress;
        while (secondary && *end != nullptr) {
            end = &(*end)->Next;
        }
        *end = mdl;
    }
    return mdl;
}

VOID IoFreeMdl(PMDL mdl)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "IoFreeMdl");
    if (mdl->MdlFlags & MDL_PAGES_LOCKED) {
        Report("mdl-freed-locked", "IoFreeMdl", "MDL %p still has its pages locked", static_cast<void*>(mdl));
    }
    if ((mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA) || (mdl->Process != nullptr && HasView(mdl))) {
        Report("mdl-freed-mapped", "IoFreeMdl", "MDL %p is still mapped", static_cast<void*>(mdl));
    }
    if (FreeBlock(mdl, BlockKind::Mdl, "IoFreeMdl")) {
        --Live().mdls;
    }
}

VOID MmBuildMdlForNonPagedPool(PMDL mdl)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "MmBuildMdlForNonPagedPool");
    mdl->MdlFlags |= MDL_SOURCE_IS_NONPAGED_POOL;
    mdl->MappedSystemVa = MmGetMdlVirtualAddress(mdl);
}

VOID MmProbeAndLockPages(PMDL mdl, KPROCESSOR_MODE mode, LOCK_OPERATION operation)
{
    (void)mode;
    (void)operation;
    RequireIrqlAtMost(DISPATCH_LEVEL, "MmProbeAndLockPages");
    if (mdl->MdlFlags & (MDL_PAGES_LOCKED | MDL_SOURCE_IS_NONPAGED_POOL)) {
        Report("mdl-locked-twice", "MmProbeAndLockPages",
               "MDL %p has its pages locked already, or is non-paged pool", static_cast<void*>(mdl));
        return;
    }
    if (Fails(machine::Fault::LockPages)) {
        ExRaiseStatus(STATUS_ACCESS_VIOLATION);
    }
    mdl->MdlFlags |= MDL_PAGES_LOCKED;
}

VOID MmUnlockPages(PMDL mdl)
{
    RequireIrqlAtMost(DISPATCH_LEVEL, "MmUnlockPages");
    if (!(mdl->MdlFlags & MDL_PAGES_LOCKED)) {
        Report("mdl-not-locked", "MmUnlockPages", "MDL %p has no locked pages", static_cast<void*>(mdl));
        return;
    }
    if (mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA) { // a system mapping ends with the lock
        UnmapFromKernel(mdl);
    }
    mdl->MdlFlags &= ~MDL_PAGES_LOCKED;
}

PVOID MmMapLockedPages(PMDL mdl, KPROCESSOR_MODE mode)
{
    if (mode == KernelMode) {
        return MapIntoKernel(mdl, "MmMapLockedPages");
    }
    void* address = Fails(machine::Fault::MapPages) ? nullptr : MapIntoProcess(mdl, "MmMapLockedPages");
    if (address == nullptr) {
        ExRaiseStatus(STATUS_INSUFFICIENT_RESOURCES);
    }
    return address;
}

PVOID MmMapLockedPagesSpecifyCache(PMDL mdl, KPROCESSOR_MODE mode, MEMORY_CACHING_TYPE cacheType,
                                   PVOID requested, ULONG bugCheckOnFailure, ULONG priority)
{
    (void)cacheType;
    (void)requested; // a wish, and no program here has one
    (void)bugCheckOnFailure;
    (void)priority;
    if (mode != KernelMode) {
        return MmMapLockedPages(mdl, mode);
    }
    return Fails(machine::Fault::MapPages) ? nullptr : MapIntoKernel(mdl, "MmMapLockedPagesSpecifyCache");
}

VOID MmUnmapLockedPages(PVOID address, PMDL mdl)
{
    Views& views = AllViews();
    {
        std::lock_guard lock(views.mutex);
        const auto view = std::find_if(views.list.begin(), views.list.end(), [=](const View& candidate) {
            return candidate.address == address && candidate.mdl == mdl;
        });
        if (view != views.list.end()) {
            RequireIrqlAtMost(APC_LEVEL, "MmUnmapLockedPages");
            if (view->process != CurrentProcessId()) {
                Report("view-of-other-process", "MmUnmapLockedPages",
                       "%p belongs to process %u, the caller runs in process %u", address, view->process,
                       CurrentProcessId());
            }
            Unmap(*view);
            views.list.erase(view);
            return;
        }
    }
    RequireIrqlAtMost(DISPATCH_LEVEL, "MmUnmapLockedPages");
    if (!(mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA) || address != mdl->MappedSystemVa) {
        Report("view-not-mapped", "MmUnmapLockedPages", "MDL %p is not mapped at %p", static_cast<void*>(mdl),
               address);
        return;
    }
    UnmapFromKernel(mdl);
}

// By asking the host to read the byte for us.
BOOLEAN MmIsAddressValid(PVOID address)
{
    char byte;
    const iovec to = {&byte, 1};
    const iovec from = {address, 1};
    return process_vm_readv(getpid(), &to, 1, &from, 1, 0) == 1;
}
