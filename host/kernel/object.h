// Reference-counted kernel objects (threads, file objects, processes). The body that drivers see follows a hidden
// header, so that one ObDereferenceObject serves all of them.
#pragma once

#include <ntddk.h>

// What POBJECT_TYPE points to.
struct _OBJECT_TYPE {
    const char* name;
    void (*destroy)(void* body); // releases what the body owns, just before its memory is freed; may be null
    void (*handleClosed)(void* body) = nullptr; // its handle was closed; the reference of the handle is still there
    bool countsReferences = false; // those that drivers take are in the census
};

namespace kernel
{

// A new object with one reference and a zeroed body (16-byte aligned), or null without memory.
void* CreateObject(POBJECT_TYPE type, size_t bodySize);

// The type of an object body. Reports "not-an-object" and answers null for anything else.
POBJECT_TYPE TypeOfObject(const void* body, const char* function);

// Both answer the count of references after the call.
LONG_PTR ReferenceObject(void* body);
LONG_PTR DereferenceObject(void* body); // the last one destroys the object

// Opens a handle that holds a reference of its own. Closed by ZwClose.
HANDLE CreateHandle(void* body);
// The object of a handle, referenced. `type` null: of any type.
NTSTATUS FindObject(HANDLE handle, POBJECT_TYPE type, void** body);

} // namespace kernel
