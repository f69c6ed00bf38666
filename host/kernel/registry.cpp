#include "registry.h"

#include "machine.h"
#include "text.h"
#include "verifier.h"

#include <ntddk.h>

#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <variant>

namespace kernel
{
namespace
{

constexpr char kServices[] = "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\";
constexpr ULONG kStringTag = 0x76715252; // "RRqv": strings allocated for the caller

using Value = std::variant<ULONG, std::vector<WCHAR>>; // strings keep their terminator, as REG_SZ data does
using Key = std::map<std::string, Value>;              // by folded name

struct Registry {
    std::mutex mutex;
    std::map<std::string, Key> keys; // by folded path
    std::set<std::string> deleted;   // keys that a driver's load must not bring back
};

Registry& TheRegistry()
{
    static Registry& registry = *new Registry; // never destroyed: other threads may still run at exit
    return registry;
}

void SetValue(const std::string& service, const std::string& name, Value value)
{
    const std::string path = FoldCase(ServiceKeyPath(service));
    Registry& registry = TheRegistry();
    std::lock_guard lock(registry.mutex);
    registry.deleted.erase(path);
    registry.keys[path][FoldCase(name)] = std::move(value);
}

bool IsString(ULONG type)
{
    return type == REG_SZ || type == REG_EXPAND_SZ;
}

size_t LengthWithTerminator(const WCHAR* text)
{
    size_t units = 0;
    while (text[units] != 0) {
        ++units;
    }
    return (units + 1) * sizeof(WCHAR);
}

NTSTATUS StoreString(UNICODE_STRING* target, const void* data, size_t length)
{
    if (length > 0xFFFE) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (target->Buffer == nullptr) {
        target->Buffer = static_cast<WCHAR*>(ExAllocatePoolWithTag(PagedPool, length, kStringTag));
        if (target->Buffer == nullptr) {
            return STATUS_NO_MEMORY;
        }
        target->MaximumLength = static_cast<USHORT>(length);
    } else if (target->MaximumLength < length) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    std::memcpy(target->Buffer, data, length);
    target->Length = static_cast<USHORT>(length - sizeof(WCHAR));
    return STATUS_SUCCESS;
}

// A direct query without a type check trusts the registry: a string that arrives where a number is expected (or the
// reverse) is written over whatever lies behind the caller's variable. Both forms are refused here, the unchecked
// one as a broken rule.
bool TypeMatches(const RTL_QUERY_REGISTRY_TABLE& entry, ULONG type)
{
    if (entry.Flags & RTL_QUERY_REGISTRY_TYPECHECK) {
        return entry.DefaultType >> RTL_QUERY_REGISTRY_TYPECHECK_SHIFT == type;
    }
    const ULONG expected = entry.DefaultType & 0xFF;
    if (expected == REG_NONE || IsString(expected) == IsString(type)) {
        return true;
    }
    Report("registry-type-mismatch", "RtlQueryRegistryValues",
           "value %s has type %u, the direct query expects %u", ToUtf8(entry.Name).c_str(), type, expected);
    return false;
}

NTSTATUS Deliver(const RTL_QUERY_REGISTRY_TABLE& entry, ULONG type, const void* data, ULONG length,
                 void* context)
{
    if (!(entry.Flags & RTL_QUERY_REGISTRY_DIRECT)) {
        return entry.QueryRoutine(entry.Name, type, const_cast<void*>(data), length, context,
                                  entry.EntryContext);
    }
    if (IsString(type)) {
        return StoreString(static_cast<UNICODE_STRING*>(entry.EntryContext), data, length);
    }
    std::memcpy(entry.EntryContext, data, length);
    return STATUS_SUCCESS;
}

NTSTATUS DeliverDefault(const RTL_QUERY_REGISTRY_TABLE& entry, void* context)
{
    if (entry.Flags & RTL_QUERY_REGISTRY_REQUIRED) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    const ULONG type = entry.DefaultType & 0xFF;
    if (type == REG_NONE) {
        return STATUS_SUCCESS;
    }
    ULONG length = entry.DefaultLength;
    if (length == 0 && IsString(type)) {
        length = static_cast<ULONG>(LengthWithTerminator(static_cast<const WCHAR*>(entry.DefaultData)));
    }
    if (type == REG_DWORD && length > sizeof(ULONG)) {
        return STATUS_INVALID_PARAMETER;
    }
    return Deliver(entry, type, entry.DefaultData, length, context);
}

NTSTATUS QueryEntry(const RTL_QUERY_REGISTRY_TABLE& entry, const Key& key, void* context)
{
    const bool direct = (entry.Flags & RTL_QUERY_REGISTRY_DIRECT) != 0;
    if (entry.Name == nullptr || (direct && entry.QueryRoutine != nullptr)) {
        return STATUS_INVALID_PARAMETER;
    }
    const auto found = key.find(FoldCase(ToUtf8(entry.Name)));
    if (found == key.end()) {
        return DeliverDefault(entry, context);
    }
    const auto* number = std::get_if<ULONG>(&found->second);
    const ULONG type = number != nullptr ? REG_DWORD : REG_SZ;
    if (direct && !TypeMatches(entry, type)) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    if (number != nullptr) {
        return Deliver(entry, type, number, sizeof(*number), context);
    }
    const auto& text = std::get<std::vector<WCHAR>>(found->second);
    return Deliver(entry, type, text.data(), static_cast<ULONG>(text.size() * sizeof(WCHAR)), context);
}

} // namespace

std::string ServiceKeyPath(const std::string& service)
{
    return kServices + service;
}

void CreateServiceKey(const std::string& service)
{
    const std::string path = FoldCase(ServiceKeyPath(service));
    Registry& registry = TheRegistry();
    std::lock_guard lock(registry.mutex);
    if (!registry.deleted.contains(path)) {
        registry.keys.try_emplace(path);
    }
}

} // namespace kernel

NTSTATUS RtlQueryRegistryValues(ULONG relativeTo, PCWSTR path, PRTL_QUERY_REGISTRY_TABLE table, PVOID context,
                                PVOID environment)
{
    using namespace kernel;
    (void)environment;
    RequireIrqlAtMost(PASSIVE_LEVEL, "RtlQueryRegistryValues");
    if (Fails(machine::Fault::Registry)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (relativeTo != RTL_REGISTRY_ABSOLUTE && relativeTo != RTL_REGISTRY_SERVICES) {
        return STATUS_INVALID_PARAMETER;
    }
    const std::string name = (relativeTo == RTL_REGISTRY_SERVICES ? kServices : "") + ToUtf8(path);
    Key key; // a copy: query routines run without the registry's lock
    {
        Registry& registry = TheRegistry();
        std::lock_guard lock(registry.mutex);
        const auto found = registry.keys.find(FoldCase(name));
        if (found == registry.keys.end()) {
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        key = found->second;
    }
    NTSTATUS status = STATUS_SUCCESS;
    for (;
         NT_SUCCESS(status) && (table->QueryRoutine != nullptr || (table->Flags & RTL_QUERY_REGISTRY_DIRECT));
         ++table) {
        status = QueryEntry(*table, key, context);
    }
    return status;
}

namespace machine
{

void SetRegistryDword(const std::string& service, const std::string& name, uint32_t value)
{
    kernel::SetValue(service, name, ULONG{value});
}

void SetRegistryString(const std::string& service, const std::string& name, const std::string& value)
{
    kernel::SetValue(service, name, kernel::ToWide(value));
}

void DeleteRegistryKey(const std::string& service)
{
    const std::string path = kernel::FoldCase(kernel::ServiceKeyPath(service));
    kernel::Registry& registry = kernel::TheRegistry();
    std::lock_guard lock(registry.mutex);
    registry.keys.erase(path);
    registry.deleted.insert(path);
}

} // namespace machine
