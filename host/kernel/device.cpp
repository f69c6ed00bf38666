#include "device.h"

#include "driver.h"
#include "text.h"
#include "verifier.h"

#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <set>

namespace kernel
{
namespace
{

constexpr std::align_val_t kExtensionAlignment{64};
constexpr int kLinkDepth = 8; // links may lead to links, but not around in a circle

// The extension follows at the next multiple of its alignment.
struct DeviceRecord {
    DEVICE_OBJECT device = {};
    std::string name;
    bool deleted = false; // IoDeleteDevice came while somebody had it open
    bool retired = false; // its driver is about to be unloaded
    bool exclusive = false;
};

struct Link {
    std::string target;
    DRIVER_OBJECT* driver = nullptr; // owner of the device it led to when it was made
};

struct ObjectNames {
    std::mutex mutex;
    std::set<DeviceRecord*> devices; // all, with and without a name
    std::map<std::string, DeviceRecord*> named;
    std::map<std::string, Link> links;
};

ObjectNames& Names()
{
    static ObjectNames& names = *new ObjectNames; // never destroyed: other threads may still run at exit
    return names;
}

DeviceRecord* RecordOf(DEVICE_OBJECT* device)
{
    return reinterpret_cast<DeviceRecord*>(device); // the first member
}

// One spelling for every name: folded, Win32 and \DosDevices names under \??.
std::string Canonical(std::string_view name)
{
    const std::string folded = FoldCase(name);
    for (const std::string_view prefix : {"\\\\.\\", "\\dosdevices\\"}) {
        if (folded.starts_with(prefix)) {
            return "\\??\\" + folded.substr(prefix.size());
        }
    }
    return folded;
}

DeviceRecord* Resolve(ObjectNames& names, std::string name)
{
    for (int depth = 0; depth < kLinkDepth; ++depth) {
        if (const auto device = names.named.find(name); device != names.named.end()) {
            return device->second;
        }
        const auto link = names.links.find(name);
        if (link == names.links.end()) {
            return nullptr;
        }
        name = link->second.target;
    }
    return nullptr;
}

size_t ExtensionOffset()
{
    const auto alignment = static_cast<size_t>(kExtensionAlignment);
    return (sizeof(DeviceRecord) + alignment - 1) / alignment * alignment;
}

void Destroy(DeviceRecord* record)
{
    record->~DeviceRecord();
    ::operator delete(record, kExtensionAlignment);
    --Live().devices;
}

void Unchain(DeviceRecord* record)
{
    DEVICE_OBJECT** at = &record->device.DriverObject->DeviceObject;
    while (*at != nullptr && *at != &record->device) {
        at = &(*at)->NextDevice;
    }
    if (*at != nullptr) {
        *at = record->device.NextDevice;
    }
}

// Takes the device out of every list; the name is free at once, as for any temporary object.
void Forget(ObjectNames& names, DeviceRecord* record)
{
    if (const auto named = names.named.find(Canonical(record->name));
        named != names.named.end() && named->second == record) {
        names.named.erase(named);
    }
    Unchain(record);
    names.devices.erase(record);
}

} // namespace

NTSTATUS OpenDevice(const std::string& name, DEVICE_OBJECT** device, std::string* rest)
{
    ObjectNames& names = Names();
    std::lock_guard lock(names.mutex);
    DeviceRecord* record = Resolve(names, Canonical(name));
    for (size_t end = name.size(); record == nullptr && rest != nullptr && end != 0 && end != std::string::npos;) {
        end = name.rfind('\\', end - 1);
        if (end != std::string::npos) {
            record = Resolve(names, Canonical(name.substr(0, end)));
            *rest = name.substr(end);
        }
    }
    if (record == nullptr) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    if (record->deleted || record->retired || (record->device.Flags & DO_DEVICE_INITIALIZING)) {
        return STATUS_NO_SUCH_DEVICE;
    }
    if (record->exclusive && record->device.ReferenceCount != 0) {
        return STATUS_ACCESS_DENIED;
    }
    ++record->device.ReferenceCount;
    *device = &record->device;
    return STATUS_SUCCESS;
}

void CloseDevice(DEVICE_OBJECT* device)
{
    DRIVER_OBJECT* driver = device->DriverObject;
    DeviceRecord* record = RecordOf(device);
    ObjectNames& names = Names();
    bool unloadWaits = false;
    {
        std::lock_guard lock(names.mutex);
        const bool last = --record->device.ReferenceCount == 0;
        unloadWaits = last && record->retired;
        if (last && record->deleted) {
            Forget(names, record);
            Destroy(record);
        }
    }
    if (unloadWaits) {
        ResumeUnload(driver);
    }
}

void PublishDevices(DRIVER_OBJECT* driver)
{
    std::lock_guard lock(Names().mutex);
    for (DEVICE_OBJECT* device = driver->DeviceObject; device != nullptr; device = device->NextDevice) {
        device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    }
}

bool RetireDevices(DRIVER_OBJECT* driver)
{
    std::lock_guard lock(Names().mutex);
    bool idle = true;
    for (DEVICE_OBJECT* device = driver->DeviceObject; device != nullptr; device = device->NextDevice) {
        RecordOf(device)->retired = true;
        idle = idle && device->ReferenceCount == 0;
    }
    return idle;
}

std::vector<std::string> FreeDevices(DRIVER_OBJECT* driver)
{
    ObjectNames& names = Names();
    std::lock_guard lock(names.mutex);
    std::vector<std::string> freed;
    for (auto link = names.links.begin(); link != names.links.end();) {
        if (link->second.driver == driver) {
            freed.push_back("symbolic link " + link->first + " -> " + link->second.target);
            link = names.links.erase(link);
            --Live().links;
        } else {
            ++link;
        }
    }
    while (driver->DeviceObject != nullptr) {
        DeviceRecord* record = RecordOf(driver->DeviceObject);
        freed.push_back("device " + (record->name.empty() ? "without a name" : record->name));
        Forget(names, record);
        Destroy(record);
    }
    return freed;
}

std::string DeviceName(DEVICE_OBJECT* device)
{
    std::lock_guard lock(Names().mutex);
    return RecordOf(device)->name;
}

} // namespace kernel

using namespace kernel;

NTSTATUS IoCreateDevice(PDRIVER_OBJECT driver, ULONG extensionSize, PUNICODE_STRING name, DEVICE_TYPE type,
                        ULONG characteristics, BOOLEAN exclusive, PDEVICE_OBJECT* result)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "IoCreateDevice");
    *result = nullptr;
    if (Fails(machine::Fault::Device)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const std::string text = name != nullptr ? ToUtf8(*name) : std::string();
    ObjectNames& names = Names();
    std::lock_guard lock(names.mutex);
    if (!text.empty() && (names.named.contains(Canonical(text)) || names.links.contains(Canonical(text)))) {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    void* block = ::operator new(ExtensionOffset() + extensionSize, kExtensionAlignment);
    auto* record = new (block) DeviceRecord;
    record->name = text;
    record->exclusive = exclusive != FALSE;

    DEVICE_OBJECT& device = record->device;
    device.Type = IO_TYPE_DEVICE;
    device.Size = static_cast<USHORT>(sizeof(DEVICE_OBJECT));
    device.DriverObject = driver;
    device.NextDevice = driver->DeviceObject;
    device.Flags = DO_DEVICE_INITIALIZING | (exclusive ? DO_EXCLUSIVE : 0);
    device.Characteristics = characteristics;
    device.DeviceType = type;
    device.StackSize = 1;
    if (extensionSize != 0) {
        device.DeviceExtension = static_cast<UCHAR*>(block) + ExtensionOffset();
        std::memset(device.DeviceExtension, 0, extensionSize);
    }

    driver->DeviceObject = &device;
    names.devices.insert(record);
    if (!text.empty()) {
        names.named[Canonical(text)] = record;
    }
    ++Live().devices;
    *result = &device;
    return STATUS_SUCCESS;
}

VOID IoDeleteDevice(PDEVICE_OBJECT device)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "IoDeleteDevice");
    ObjectNames& names = Names();
    std::lock_guard lock(names.mutex);
    DeviceRecord* record = RecordOf(device);
    if (!names.devices.contains(record) || record->deleted) {
        Report("device-not-live", "IoDeleteDevice", "%p is no device, or was deleted before",
               static_cast<void*>(device));
        return;
    }
    if (device->ReferenceCount == 0) {
        Forget(names, record);
        Destroy(record);
        return;
    }
    record->deleted = true;
    names.named.erase(Canonical(record->name));
}

NTSTATUS IoCreateSymbolicLink(PUNICODE_STRING link, PUNICODE_STRING target)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "IoCreateSymbolicLink");
    if (Fails(machine::Fault::SymbolicLink)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const std::string name = Canonical(ToUtf8(*link));
    const std::string to = Canonical(ToUtf8(*target));
    ObjectNames& names = Names();
    std::lock_guard lock(names.mutex);
    if (names.links.contains(name) || names.named.contains(name)) {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    DeviceRecord* record = Resolve(names, to);
    names.links[name] = {to, record != nullptr ? record->device.DriverObject : nullptr};
    ++Live().links;
    return STATUS_SUCCESS;
}

NTSTATUS IoDeleteSymbolicLink(PUNICODE_STRING link)
{
    RequireIrqlAtMost(PASSIVE_LEVEL, "IoDeleteSymbolicLink");
    ObjectNames& names = Names();
    std::lock_guard lock(names.mutex);
    if (names.links.erase(Canonical(ToUtf8(*link))) == 0) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    --Live().links;
    return STATUS_SUCCESS;
}
