// Loading and unloading drivers, and what a driver must not leave behind.
#include "driver.h"

#include "device.h"
#include "irp.h"
#include "machine.h"
#include "process.h"
#include "registry.h"
#include "text.h"
#include "verifier.h"

#include <dlfcn.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <thread>
#include <utility>

namespace kernel
{
namespace
{

struct DriverRecord {
    DRIVER_OBJECT object = {};
    std::string service;
    std::vector<WCHAR> nameText;
    std::vector<WCHAR> pathText;
    void* module = nullptr; // null: linked into the program
    bool loaded = false;    // its entry routine has succeeded
    bool unloadAsked = false;
};

using DriverRef = std::shared_ptr<DriverRecord>;

struct DriverTable {
    std::mutex mutex;
    std::map<std::string, DriverRef> active; // by folded service name; also while the entry routine runs
    std::multimap<std::string, DriverRef> failed;
    machine::Census before; // what was alive when the first driver came
};

DriverTable& Drivers()
{
    static DriverTable& drivers = *new DriverTable; // never destroyed: other threads may still run at exit
    return drivers;
}

DriverRef FindActive(const std::string& service)
{
    DriverTable& drivers = Drivers();
    std::lock_guard lock(drivers.mutex);
    const auto found = drivers.active.find(FoldCase(service));
    return found != drivers.active.end() ? found->second : nullptr;
}

DriverRef NewRecord(const std::string& service, machine::DriverEntry entry, void* module)
{
    auto record = std::make_shared<DriverRecord>();
    record->service = service;
    record->nameText = ToWide("\\Driver\\" + service);
    record->pathText = ToWide(ServiceKeyPath(service));
    record->module = module;
    DRIVER_OBJECT& object = record->object;
    object.Type = IO_TYPE_DRIVER;
    object.Size = static_cast<CSHORT>(sizeof(DRIVER_OBJECT));
    object.DriverName = Counted(record->nameText);
    object.DriverInit = reinterpret_cast<PDRIVER_INITIALIZE>(entry);
    std::fill(std::begin(object.MajorFunction), std::end(object.MajorFunction), RejectRequest);
    return record;
}

// The kinds of things a driver can leave, and the rule that each of them breaks.
struct Kind {
    size_t machine::Census::*count;
    const char* rule;
};
constexpr Kind kKinds[] = {
    {&machine::Census::threads, "thread-left"},
    {&machine::Census::threadHandles, "handle-left"},
    {&machine::Census::poolBlocks, "pool-left"},
    {&machine::Census::lookasideLists, "lookaside-left"},
    {&machine::Census::mdls, "mdl-left"},
    {&machine::Census::views, "view-left"},
    {&machine::Census::processReferences, "process-reference-left"},
    {&machine::Census::devices, "device-left"},
    {&machine::Census::links, "link-left"},
    {&machine::Census::files, "file-left"},
    {&machine::Census::requests, "request-left"},
    {&machine::Census::timers, "timer-left"},
    {&machine::Census::workItems, "work-item-left"},
    {&machine::Census::locksHeld, "lock-left"},
};

// A work item may announce its end to the unload routine in its last instructions; it then needs a moment to return.
void AwaitWorkItems(size_t before)
{
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (Live().workItems > before && std::chrono::steady_clock::now() < limit) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

void ReportLeft(const std::string& service, const machine::Census& before)
{
    const machine::Census now = machine::TakeCensus();
    for (const Kind& kind : kKinds) {
        const size_t had = before.*kind.count;
        if (now.*kind.count > had) {
            machine::Census left;
            left.*kind.count = now.*kind.count - had;
            Report(kind.rule, "DriverUnload", "after the unload of %s: %s", service.c_str(),
                   machine::DescribeCensus(left).c_str());
        }
    }
}

// True when there is code of drivers that may still run, compared with what was alive before.
bool MayStillRun(const machine::Census& before)
{
    const auto& live = Live();
    return live.threads > before.threads || live.timers > before.timers || live.workItems > before.workItems;
}

// Code that may still run keeps its image, so that the report of the leak is what the reader sees, and not a crash.
void DropImage(DriverRecord& record, bool mayStillRun)
{
    if (record.module != nullptr && !mayStillRun) {
        dlclose(record.module);
    }
    record.module = nullptr;
}

// Only the last driver's unload can tell what was left of memory, timers and the like: they do not know their owner.
void FinishUnload(DriverRecord& record)
{
    const ProcessScope system;
    record.object.DriverUnload(&record.object);
    machine::CheckReturnToUser(("DriverUnload of " + record.service).c_str());
    for (const std::string& left : FreeDevices(&record.object)) {
        Report(left.starts_with("device") ? "device-left" : "link-left", "DriverUnload", "%s left %s",
               record.service.c_str(), left.c_str());
    }
    DriverTable& drivers = Drivers();
    bool last = false;
    machine::Census before;
    {
        std::lock_guard lock(drivers.mutex);
        drivers.active.erase(FoldCase(record.service));
        last = drivers.active.empty();
        before = drivers.before;
        --Live().drivers;
    }
    if (last) {
        AwaitWorkItems(before.workItems);
        ReportLeft(record.service, before);
    }
    DropImage(record, last && MayStillRun(before));
}

// Exactly one caller gets to run the unload.
bool ClaimUnload(DriverRecord& record)
{
    std::lock_guard lock(Drivers().mutex);
    return std::exchange(record.unloadAsked, false);
}

machine::Status Start(const std::string& service, machine::DriverEntry entry, void* module)
{
    DriverTable& drivers = Drivers();
    const std::string key = FoldCase(service);
    const DriverRef record = NewRecord(service, entry, module);
    const machine::Census before = machine::TakeCensus();
    {
        std::lock_guard lock(drivers.mutex);
        if (drivers.active.contains(key)) {
            return STATUS_IMAGE_ALREADY_LOADED;
        }
        if (drivers.active.empty()) {
            drivers.before = before;
        }
        drivers.active[key] = record;
    }
    CreateServiceKey(service);
    UNICODE_STRING path = Counted(record->pathText);
    NTSTATUS status;
    {
        const ProcessScope system;
        status = entry(&record->object, &path);
        machine::CheckReturnToUser(("DriverEntry of " + service).c_str());
    }
    std::lock_guard lock(drivers.mutex);
    if (NT_SUCCESS(status)) {
        PublishDevices(&record->object);
        record->loaded = true;
        ++Live().drivers;
        return status;
    }
    drivers.active.erase(key);
    if (record->object.DeviceObject != nullptr) {
        drivers.failed.emplace(key, record); // devices refer to the driver object and to its code
    } else {
        DropImage(*record, MayStillRun(before));
    }
    return status;
}

} // namespace

void ResumeUnload(DRIVER_OBJECT* driver)
{
    DriverRef record;
    {
        DriverTable& drivers = Drivers();
        std::lock_guard lock(drivers.mutex);
        const auto found =
            std::find_if(drivers.active.begin(), drivers.active.end(),
                         [driver](const auto& entry) { return &entry.second->object == driver; });
        if (found == drivers.active.end()) {
            return;
        }
        record = found->second;
    }
    if (RetireDevices(driver) && ClaimUnload(*record)) {
        FinishUnload(*record);
    }
}

} // namespace kernel

namespace machine
{

using namespace kernel;

Status LoadDriver(const std::string& service, DriverEntry entry)
{
    return Start(service, entry, nullptr);
}

Status LoadDriverModule(const std::string& path, std::string* error)
{
    const auto fail = [&](Status status, const std::string& reason) {
        if (error != nullptr) {
            *error = "cannot load the driver " + path + ": " + reason;
        }
        return status;
    };
    std::error_code failure;
    const std::filesystem::path file = std::filesystem::canonical(path, failure);
    if (failure) {
        return fail(STATUS_OBJECT_NAME_NOT_FOUND, failure.message());
    }
    if (!std::filesystem::is_regular_file(file, failure)) {
        return fail(STATUS_INVALID_IMAGE_FORMAT, "not a file");
    }
    const std::string service = std::filesystem::path(path).stem().string();
    if (IsDriverLoaded(service)) {
        return fail(STATUS_IMAGE_ALREADY_LOADED,
                    "a driver of the service name " + service + " is loaded already");
    }
    void* module = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) {
        return fail(STATUS_INVALID_IMAGE_FORMAT, dlerror());
    }
    const auto entry = reinterpret_cast<DriverEntry>(dlsym(module, "DriverEntry"));
    if (entry == nullptr) {
        dlclose(module);
        return fail(STATUS_INVALID_IMAGE_FORMAT, "it exports no DriverEntry");
    }
    const Status status = Start(service, entry, module);
    if (status == STATUS_IMAGE_ALREADY_LOADED) {
        dlclose(module);
    }
    if (!NT_SUCCESS(status)) {
        char code[16];
        snprintf(code, sizeof(code), "0x%08X", static_cast<unsigned>(status));
        return fail(status, std::string("its entry routine failed with status ") + code);
    }
    return status;
}

Status UnloadDriver(const std::string& service)
{
    const DriverRef record = FindActive(service);
    if (record == nullptr || !record->loaded) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    if (record->object.DriverUnload == nullptr) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    {
        std::lock_guard lock(Drivers().mutex);
        record->unloadAsked = true;
    }
    if (!RetireDevices(&record->object)) {
        return STATUS_PENDING;
    }
    if (ClaimUnload(*record)) {
        FinishUnload(*record);
    }
    return STATUS_SUCCESS;
}

size_t DiscardDriver(const std::string& service)
{
    std::vector<DriverRef> records;
    {
        DriverTable& drivers = Drivers();
        std::lock_guard lock(drivers.mutex);
        const auto [first, last] = drivers.failed.equal_range(FoldCase(service));
        for (auto at = first; at != last; ++at) {
            records.push_back(at->second);
        }
        drivers.failed.erase(first, last);
    }
    size_t freed = 0;
    for (const DriverRef& record : records) {
        freed += FreeDevices(&record->object).size();
        DropImage(*record, false);
    }
    return freed;
}

bool IsDriverLoaded(const std::string& service)
{
    const DriverRef record = FindActive(service);
    return record != nullptr && record->loaded;
}

} // namespace machine
