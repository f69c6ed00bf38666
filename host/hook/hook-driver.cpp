// The driver itself: its life, the binding with the framework, and the functions that belong to no adapter or
// packet.
#include "hook-state.h"

#include <hostguard.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <thread>
#include <utility>

namespace hook
{

std::atomic<HookState*> g_state{nullptr};
ProcessorUse g_processorUse[MAXIMUM_PROCESSORS];

namespace
{

constexpr ULONG kDefaultPacketLimit = 8192;

struct Books {
    std::mutex mutex;
    std::vector<std::string> misuses;
    Balance lastBalance; // of the load before
    std::shared_ptr<IoControlHandler> ioControlHandler;
};

Books& TheBooks()
{
    static Books books;
    return books;
}

Balance SumBalance(HookState& state)
{
    Balance balance;
    ForEachAdapter(state, [&](VirtualAdapter& adapter) {
        const AdapterCounters counters = CountersOf(&adapter.record);
        balance.received += counters.received.frames;
        balance.sent += counters.sent.frames;
        balance.deliveredToAdapter += counters.toAdapter.frames;
        balance.deliveredToProtocols += counters.toProtocols.frames;
    });
    for (const PacketCounts& counts : state.counts) {
        balance.allocated += counts.allocated.load(std::memory_order_relaxed);
        balance.freed += counts.freed.load(std::memory_order_relaxed);
        balance.refused += counts.refused.load(std::memory_order_relaxed);
    }
    state.pool.ForEachOut([&](PacketHeader*) { ++balance.outstanding; });
    return balance;
}

// ------------------------------------------------------------------------------- functions for the framework

ULONG HookGetOsVersion(PULONG major, PULONG minor, PULONG build, PULONG servicePack)
{
    const ULONG version[] = {10, 0, 19045, 0};
    PULONG const targets[] = {major, minor, build, servicePack};
    for (size_t i = 0; i < RTL_NUMBER_OF(version); ++i) {
        if (targets[i] != nullptr) {
            *targets[i] = version[i];
        }
    }
    return 0;
}

NTSTATUS HookHandleIoControl(ULONG code, PVOID input, ULONG inputLength, PVOID output, ULONG outputLength,
                             PULONG bytesReturned)
{
    std::shared_ptr<IoControlHandler> handler;
    {
        std::lock_guard lock(TheBooks().mutex);
        handler = TheBooks().ioControlHandler;
    }
    return handler != nullptr ? (*handler)(code, input, inputLength, output, outputLength, bytesReturned)
                              : STATUS_NOT_SUPPORTED;
}

// Mapping for a program raises an exception when it fails.
VOID HookMmMapLockedPages(PMDL mdl, ULONG, MappedMemory* mappedMemory)
{
    struct Mapping {
        PMDL mdl;
        PVOID address;
    } mapping = {mdl, nullptr};
    const NTSTATUS code = HostCallGuarded(&mapping, [](void* context) {
        auto* job = static_cast<Mapping*>(context);
        job->address =
            MmMapLockedPagesSpecifyCache(job->mdl, UserMode, MmCached, nullptr, FALSE, NormalPagePriority);
    });
    mappedMemory->m_pUserModeVirtualAddress =
        code == STATUS_SUCCESS ? reinterpret_cast<ULONG_PTR>(mapping.address) : 0;
}

VOID HookMmUnmapLockedPages(PMDL mdl, PVOID userAddress)
{
    MmUnmapLockedPages(userAddress, mdl);
}

// --------------------------------------------------------------------------------------------------- binding

NdisHookAPI MakeRecord(const BindOptions& options)
{
    const auto give = [&](Function which, auto function) {
        const auto& without = options.without;
        return std::find(without.begin(), without.end(), which) == without.end() ? function : nullptr;
    };
    NdisHookAPI api = {};
    api.m_Size = options.size;
    api.m_MajorVersion = options.majorVersion;
    api.m_MinorVersion = options.minorVersion;
    api.Hook_GetOsVersion = give(Function::GetOsVersion, &HookGetOsVersion);
    api.Hook_HandleIoControl = give(Function::HandleIoControl, &HookHandleIoControl);
    api.Hook_AllocatePacket = give(Function::AllocatePacket, &HookAllocatePacket);
    api.Hook_FreePacket = give(Function::FreePacket, &HookFreePacket);
    api.Hook_InjectPacketToAdapter = give(Function::InjectPacketToAdapter, &HookInjectPacketToAdapter);
    api.Hook_InjectPacketToProtocol = give(Function::InjectPacketToProtocol, &HookInjectPacketToProtocol);
    api.Hook_AllocateRequest = give(Function::AllocateRequest, &HookAllocateRequest);
    api.Hook_MakeNdisRequest = give(Function::MakeNdisRequest, &HookMakeNdisRequest);
    api.Hook_FreeRequest = give(Function::FreeRequest, &HookFreeRequest);
    api.Hook_SetAdapterStatus = give(Function::SetAdapterStatus, &HookSetAdapterStatus);
    api.Hook_GetAdapterStatus = give(Function::GetAdapterStatus, &HookGetAdapterStatus);
    api.Hook_GetTcpIpBoundAdapters = give(Function::GetTcpIpBoundAdapters, &HookGetTcpIpBoundAdapters);
    api.Hook_MmMapLockedPages = give(Function::MmMapLockedPages, &HookMmMapLockedPages);
    api.Hook_MmUnmapLockedPages = give(Function::MmUnmapLockedPages, &HookMmUnmapLockedPages);
    if (options.watched) {
        Watch(api);
    }
    return api;
}

NTSTATUS OpenFramework(HookState& state)
{
    if (state.frameworkFile != nullptr) {
        return STATUS_SUCCESS;
    }
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, NDIS_FILTER_DEVICE_NAME);
    return IoGetDeviceObjectPointer(&name, FILE_ALL_ACCESS, &state.frameworkFile, &state.frameworkDevice);
}

void CloseFramework(HookState& state)
{
    ObDereferenceObject(state.frameworkFile);
    state.frameworkFile = nullptr;
    state.frameworkDevice = nullptr;
}

NTSTATUS SendRecord(HookState& state, ULONG code, const BindOptions& options, NdisHookAPI* api)
{
    std::vector<UCHAR> buffer(
        std::max({sizeof(*api), size_t{options.inputLength}, size_t{options.outputLength}}));
    RtlCopyMemory(buffer.data(), api, sizeof(*api));
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IO_STATUS_BLOCK result = {};
    PIRP irp = IoBuildDeviceIoControlRequest(code, state.frameworkDevice, buffer.data(), options.inputLength,
                                             buffer.data(), options.outputLength, TRUE, &done, &result);
    if (irp == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS status = IoCallDriver(state.frameworkDevice, irp);
    if (status == STATUS_PENDING) {
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
        status = result.Status;
    }
    RtlCopyMemory(api, buffer.data(), sizeof(*api));
    return status;
}

bool HasCallbacks(HookState& state)
{
    return state.callbacks.received.load() != nullptr;
}

NTSTATUS BindTo(HookState& state, const BindOptions& options)
{
    const bool wasBound = HasCallbacks(state);
    NTSTATUS status = OpenFramework(state);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    NdisHookAPI api = MakeRecord(options);
    status = SendRecord(state, IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK, options, &api);
    if (NT_SUCCESS(status) && (api.m_Flags & NDIS_HOOK_FLAG_BOUND)) {
        state.callbacks.Set(api);
    } else if (!wasBound) {
        CloseFramework(state);
    }
    return status;
}

NTSTATUS UnbindFrom(HookState& state, UnbindMode mode, const BindOptions& options)
{
    NTSTATUS status = OpenFramework(state);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    NdisHookAPI bound = {};
    bound.Filter_AdapterOpened = state.callbacks.opened.load();
    bound.Filter_AdapterStatusChanged = state.callbacks.statusChanged.load();
    bound.Filter_AdapterClosed = state.callbacks.closed.load();
    bound.Filter_FilterReceivedPacket = state.callbacks.received.load();
    bound.Filter_FilterSendPacket = state.callbacks.send.load();
    state.callbacks.Set(NdisHookAPI{});
    if (mode == UnbindMode::Drained) {
        WaitForProcessors();
    }
    NdisHookAPI api = MakeRecord(options);
    status = SendRecord(state, IOCTL_NDIS_FILTER_INTERNAL_UNBIND_NDIS_HOOK, options, &api);
    if (!NT_SUCCESS(status) && bound.Filter_FilterReceivedPacket != nullptr) {
        state.callbacks.Set(bound);
        return status;
    }
    WaitForProcessors(); // the framework may be unloaded once its file is closed
    CloseFramework(state);
    return status;
}

// ------------------------------------------------------------------------------------------------------ life

ULONG ReadPacketLimit(PUNICODE_STRING registryPath)
{
    std::vector<WCHAR> path(registryPath->Buffer,
                            registryPath->Buffer + registryPath->Length / sizeof(WCHAR));
    path.push_back(0);
    WCHAR name[] = L"PacketLimit";
    ULONG limit = kDefaultPacketLimit;
    ULONG preset = kDefaultPacketLimit;
    RTL_QUERY_REGISTRY_TABLE table[2] = {};
    table[0].Flags = RTL_QUERY_REGISTRY_DIRECT;
    table[0].Name = name;
    table[0].EntryContext = &limit;
    table[0].DefaultType = REG_DWORD;
    table[0].DefaultData = &preset;
    table[0].DefaultLength = sizeof(preset);
    const NTSTATUS status =
        RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, path.data(), table, nullptr, nullptr);
    return NT_SUCCESS(status) && limit != 0 ? limit : kDefaultPacketLimit;
}

VOID HookUnload(PDRIVER_OBJECT)
{
    std::lock_guard control(ControlMutex());
    HookState* state = g_state.load();
    CloseAllAdapters(*state);
    if (HasCallbacks(*state)) {
        UnbindFrom(*state, UnbindMode::Drained, {});
    }
    StopWorker(*state);
    g_state.store(nullptr);
    WaitForProcessors();
    state->pool.SendWaitersAway();
    FreeLeftRequests(*state);

    Balance balance = SumBalance(*state);
    balance.stranded = std::exchange(balance.outstanding, 0);
    state->pool.ForEachOut([](PacketHeader* header) {
        if (header->ndisPacket != nullptr) {
            DetachNdisPacket(PacketOf(header));
        }
    });
    delete state;
    std::lock_guard lock(TheBooks().mutex);
    TheBooks().lastBalance = balance;
    TheBooks().ioControlHandler = nullptr;
}

NTSTATUS LoadDriver(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath)
{
    std::lock_guard control(ControlMutex());
    if (g_state.load() != nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    auto state = std::make_unique<HookState>(ReadPacketLimit(registryPath));
    if (!StartWorker(*state)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    driver->DriverUnload = HookUnload;
    g_state.store(state.release());
    return STATUS_SUCCESS;
}

} // namespace

std::mutex& ControlMutex()
{
    static std::mutex mutex;
    return mutex;
}

void WaitForProcessors()
{
    for (ProcessorUse& use : g_processorUse) {
        const uint64_t seen = use.sequence.load();
        while (seen % 2 != 0 && use.sequence.load() == seen) {
            std::this_thread::yield();
        }
    }
}

HookState::HookState(uint32_t packetLimit) : pool(packetLimit)
{
    InitializeListHead(&adapters);
    InitializeListHead(&removed);
}

HookState::~HookState()
{
    FreeAllAdapters(*this);
    if (ndisPackets != nullptr) {
        NdisFreePacketPool(ndisPackets);
    }
    if (ndisBuffers != nullptr) {
        NdisFreeBufferPool(ndisBuffers);
    }
}

void Callbacks::Set(const NdisHookAPI& api)
{
    opened.store(api.Filter_AdapterOpened);
    statusChanged.store(api.Filter_AdapterStatusChanged);
    closed.store(api.Filter_AdapterClosed);
    received.store(api.Filter_FilterReceivedPacket);
    send.store(api.Filter_FilterSendPacket);
}

void ReportMisuse(const char* format, ...)
{
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    fprintf(stderr, "hook driver: %s\n", text);
    std::lock_guard lock(TheBooks().mutex);
    TheBooks().misuses.emplace_back(text);
}

std::string DescribePlace(PCSTR file, ULONG line)
{
    if (file == nullptr) {
        return "the hook driver";
    }
    struct Reading {
        PCSTR from;
        char text[200];
    } reading = {file, {}};
    const NTSTATUS code = HostCallGuarded(&reading, [](void* context) {
        auto* job = static_cast<Reading*>(context);
        for (size_t i = 0; i + 1 < sizeof(job->text) && job->from[i] != 0; ++i) {
            job->text[i] = job->from[i];
        }
    });
    if (code != STATUS_SUCCESS) {
        return "a module that is unloaded, line " + std::to_string(line);
    }
    return line != 0 ? std::string(reading.text) + ":" + std::to_string(line) : reading.text;
}

Status Load(const LoadOptions& options)
{
    machine::SetRegistryDword(kServiceName, "PacketLimit", options.packetLimit);
    return machine::LoadDriver(kServiceName, &HookDriverEntry);
}

Status Unload()
{
    return machine::UnloadDriver(kServiceName);
}

bool IsLoaded()
{
    return g_state.load() != nullptr;
}

Status Bind(const BindOptions& options)
{
    std::lock_guard control(ControlMutex());
    HookState* state = g_state.load();
    return state != nullptr ? BindTo(*state, options) : STATUS_DEVICE_NOT_READY;
}

Status Unbind(UnbindMode mode, const BindOptions& options)
{
    std::lock_guard control(ControlMutex());
    HookState* state = g_state.load();
    return state != nullptr ? UnbindFrom(*state, mode, options) : STATUS_DEVICE_NOT_READY;
}

bool IsBound()
{
    std::lock_guard control(ControlMutex());
    HookState* state = g_state.load();
    return state != nullptr && HasCallbacks(*state);
}

Balance TakeBalance()
{
    std::lock_guard control(ControlMutex());
    if (HookState* state = g_state.load(); state != nullptr) {
        return SumBalance(*state);
    }
    std::lock_guard lock(TheBooks().mutex);
    return TheBooks().lastBalance;
}

std::vector<std::string> Outstanding()
{
    std::lock_guard control(ControlMutex());
    std::vector<std::string> lines;
    if (HookState* state = g_state.load(); state != nullptr) {
        state->pool.ForEachOut([&](PacketHeader* header) {
            char address[32];
            snprintf(address, sizeof(address), "packet %p, ", static_cast<void*>(header));
            lines.push_back(address + (header->origin == Origin::Received ? "received"
                                       : header->origin == Origin::Sent
                                           ? "sent"
                                           : "allocated at " + DescribePlace(header->file, header->line)));
        });
    }
    return lines;
}

uint32_t PacketsInPool()
{
    std::lock_guard control(ControlMutex());
    HookState* state = g_state.load();
    return state != nullptr ? state->pool.Size() : 0;
}

std::vector<std::string> TakeMisuses()
{
    std::lock_guard lock(TheBooks().mutex);
    return std::exchange(TheBooks().misuses, {});
}

void SetIoControlHandler(IoControlHandler handler)
{
    auto shared = handler ? std::make_shared<IoControlHandler>(std::move(handler)) : nullptr;
    std::lock_guard lock(TheBooks().mutex);
    TheBooks().ioControlHandler = std::move(shared);
}

} // namespace hook

int32_t HookDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath)
{
    return hook::LoadDriver(driver, registryPath);
}
