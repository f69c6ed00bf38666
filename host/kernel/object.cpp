#include "object.h"

#include "verifier.h"

#include <cstdlib>
#include <mutex>
#include <vector>

namespace kernel
{

namespace
{

constexpr uint64_t kObject = 0x7463656A624F7350;

struct alignas(16) ObjectHeader {
    uint64_t magic;
    POBJECT_TYPE type;
    std::atomic<LONG_PTR> references;
};

ObjectHeader* HeaderOf(const void* body)
{
    return const_cast<ObjectHeader*>(static_cast<const ObjectHeader*>(body)) - 1;
}

struct HandleTable {
    std::mutex mutex;
    std::vector<void*> bodies; // null: free
};

HandleTable& Handles()
{
    static HandleTable& table = *new HandleTable; // never destroyed: other threads may still run at exit
    return table;
}

// Handle values are multiples of four, as those of a real kernel.
HANDLE HandleOf(size_t index)
{
    return reinterpret_cast<HANDLE>((index + 1) * 4);
}

void** SlotOf(HandleTable& table, HANDLE handle)
{
    auto value = reinterpret_cast<uintptr_t>(handle);
    size_t index = value / 4 - 1;
    if (value == 0 || value % 4 != 0 || index >= table.bodies.size() || table.bodies[index] == nullptr)
        return nullptr;
    return &table.bodies[index];
}

} // namespace

void* CreateObject(POBJECT_TYPE type, size_t bodySize)
{
    size_t size = (sizeof(ObjectHeader) + bodySize + 15) & ~static_cast<size_t>(15);
    void* memory = std::aligned_alloc(16, size);
    if (memory == nullptr)
        return nullptr;
    memset(memory, 0, size);
    auto* header = new (memory) ObjectHeader{kObject, type, 1};
    return header + 1;
}

POBJECT_TYPE TypeOfObject(const void* body, const char* function)
{
    if (body == nullptr || (reinterpret_cast<uintptr_t>(body) & 15) != 0 ||
        HeaderOf(body)->magic != kObject) {
        Report("not-an-object", function, "address %p", body);
        return nullptr;
    }
    return HeaderOf(body)->type;
}

LONG_PTR ReferenceObject(void* body)
{
    return HeaderOf(body)->references.fetch_add(1, std::memory_order_relaxed) + 1;
}

LONG_PTR DereferenceObject(void* body)
{
    POBJECT_TYPE type = HeaderOf(body)->type;
    LONG_PTR left = HeaderOf(body)->references.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left == 0) {
        if (type->destroy != nullptr)
            type->destroy(body);
        HeaderOf(body)->magic = 0;
        std::free(HeaderOf(body));
    }
    return left;
}

HANDLE CreateHandle(void* body)
{
    ReferenceObject(body);
    HandleTable& table = Handles();
    std::lock_guard lock(table.mutex);
    if (HeaderOf(body)->type == *PsThreadType)
        Live().threadHandles++;
    for (size_t i = 0; i < table.bodies.size(); i++) {
        if (table.bodies[i] == nullptr) {
            table.bodies[i] = body;
            return HandleOf(i);
        }
    }
    table.bodies.push_back(body);
    return HandleOf(table.bodies.size() - 1);
}

NTSTATUS FindObject(HANDLE handle, POBJECT_TYPE type, void** body)
{
    *body = nullptr;
    HandleTable& table = Handles();
    std::lock_guard lock(table.mutex);
    void** slot = SlotOf(table, handle);
    if (slot == nullptr)
        return STATUS_INVALID_HANDLE;
    if (type != nullptr && HeaderOf(*slot)->type != type)
        return STATUS_OBJECT_TYPE_MISMATCH;
    ReferenceObject(*slot);
    *body = *slot;
    return STATUS_SUCCESS;
}

} // namespace kernel

using namespace kernel;

LONG_PTR ObfReferenceObject(PVOID Object)
{
    POBJECT_TYPE type = TypeOfObject(Object, "ObReferenceObject");
    if (type == nullptr)
        return 0;
    if (type->countsReferences)
        Live().processReferences++;
    return ReferenceObject(Object);
}

LONG_PTR ObfDereferenceObject(PVOID Object)
{
    POBJECT_TYPE type = TypeOfObject(Object, "ObDereferenceObject");
    if (type == nullptr)
        return 0;
    if (type->countsReferences)
        Live().processReferences--;
    return DereferenceObject(Object);
}

NTSTATUS ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK, POBJECT_TYPE ObjectType, KPROCESSOR_MODE,
                                   PVOID* Object, POBJECT_HANDLE_INFORMATION)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "ObReferenceObjectByHandle");
    if (Fails(machine::Fault::Object)) {
        *Object = nullptr;
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return FindObject(Handle, ObjectType, Object);
}

NTSTATUS ZwClose(HANDLE Handle)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "ZwClose");
    HandleTable& table = Handles();
    void* body = nullptr;
    {
        std::lock_guard lock(table.mutex);
        void** slot = SlotOf(table, Handle);
        if (slot != nullptr) {
            body = *slot;
            *slot = nullptr;
            if (HeaderOf(body)->type == *PsThreadType)
                Live().threadHandles--;
        }
    }
    if (body == nullptr) {
        Report("invalid-handle", "ZwClose", "handle %p", Handle);
        return STATUS_INVALID_HANDLE;
    }
    if (HeaderOf(body)->type->handleClosed != nullptr)
        HeaderOf(body)->type->handleClosed(body);
    DereferenceObject(body);
    return STATUS_SUCCESS;
}
