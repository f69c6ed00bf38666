// The smallest hook driver: two virtual adapters that loop frames, driven by a program through a control device. It
// shows the whole of the binding without an NDIS adapter below it, as a beginning for a hook driver of your own.
#include <ntddk.h>

#include <ndis.h>

#include "loophook.h"

#include "ndisfilter-hook.h"

namespace
{

constexpr ULONG POOL_TAG = 0x706F6F4C; // "Loop"
constexpr WCHAR DEVICE_NAME[] = L"\\Device\\LoopHook";
constexpr WCHAR LINK_NAME[] = L"\\DosDevices\\LoopHook";

struct Adapter {
    FilterAdapter record; // first: its address is the adapter's handle
    BOOLEAN open;
    LoopAdapterReport report;
};

Adapter adapters[LOOPHOOK_ADAPTERS];
WCHAR adapterName[] = L"LoopHook adapter";

PDEVICE_OBJECT controlDevice;
PFILE_OBJECT filterFile; // of the framework's device, from the first binding request on
PDEVICE_OBJECT filterDevice;
NdisHookAPI api;               // as exchanged
MappedMemory* volatile shared; // the framework's memory while it is mapped
volatile LONG packetsOut;
volatile LONG released;

// Null for a handle that is none of ours: identifiers, by which programs name adapters, outlive them.
Adapter* AdapterOfHandle(FilterAdapter* handle)
{
    for (Adapter& adapter : adapters) {
        if (&adapter.record == handle) {
            return &adapter;
        }
    }
    return nullptr;
}

Adapter* AdapterOfAddress(const UCHAR* address)
{
    for (Adapter& adapter : adapters) {
        if (RtlCompareMemory(adapter.record.m_CurrentAddress, address, 6) == 6) {
            return &adapter;
        }
    }
    return nullptr;
}

// -------------------------------------------------------------------------------------------------- packets

FilterPacket* NewPacket(Adapter* adapter)
{
    auto* packet =
        static_cast<FilterPacket*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(FilterPacket), POOL_TAG));
    if (packet != nullptr) {
        RtlZeroMemory(packet, sizeof(*packet));
        packet->m_hAdapter = &adapter->record;
        InterlockedIncrement(&packetsOut);
    }
    return packet;
}

VOID DeletePacket(FilterPacket* packet)
{
    if (packet->m_pfReleaseCallback != nullptr) {
        packet->m_pfReleaseCallback(packet, packet->m_pReleaseContext);
    }
    ExFreePoolWithTag(packet, POOL_TAG);
    InterlockedDecrement(&packetsOut);
}

// The whole frame lies in the packet; there is no NDIS packet.
FilterPacket* NewFrame(Adapter* adapter, const UCHAR* bytes, ULONG length)
{
    FilterPacket* packet = length <= FILTER_PACKET_DATA_SIZE ? NewPacket(adapter) : nullptr;
    if (packet != nullptr) {
        packet->m_nPacketSize = length;
        packet->m_nBytesRead = length;
        RtlCopyMemory(packet->m_Data, bytes, length);
    }
    return packet;
}

NTSTATUS Deliver(const LoopFrame* frame, FILTER_RECEIVED_PACKET deliver)
{
    if (frame->adapter >= LOOPHOOK_ADAPTERS || !adapters[frame->adapter].open || deliver == nullptr) {
        return STATUS_DEVICE_NOT_READY;
    }
    FilterPacket* packet = NewFrame(&adapters[frame->adapter], frame->bytes, frame->length);
    if (packet == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    deliver(packet);
    return STATUS_SUCCESS;
}

// ------------------------------------------------------------------------------- functions for the framework

ULONG GetOsVersion(PULONG major, PULONG minor, PULONG build, PULONG platform)
{
    PULONG const results[] = {major, minor, build, platform};
    for (PULONG result : results) {
        if (result != nullptr) {
            *result = 0;
        }
    }
    return 0;
}

NTSTATUS HandleIoControl(ULONG code, PVOID, ULONG, PVOID output, ULONG outputLength, PULONG returned)
{
    constexpr char answer[] = "loop";
    if (code != LOOPHOOK_FOREIGN_CODE) {
        return STATUS_NOT_SUPPORTED;
    }
    if (output == nullptr || outputLength < sizeof(answer)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    RtlCopyMemory(output, answer, sizeof(answer));
    *returned = sizeof(answer);
    return STATUS_SUCCESS;
}

FilterPacket* AllocatePacket(FilterAdapter* handle, PCSTR, ULONG)
{
    Adapter* adapter = AdapterOfHandle(handle);
    return adapter != nullptr ? NewPacket(adapter) : nullptr;
}

VOID FreePacket(FilterPacket* packet, PCSTR, ULONG)
{
    InterlockedIncrement(&released);
    DeletePacket(packet);
}

ULONG InjectPacketToAdapter(FilterAdapter* record, FilterPacket* packet)
{
    auto* adapter = reinterpret_cast<Adapter*>(record);
    const FILTER_RECEIVED_PACKET receive = api.Filter_FilterReceivedPacket;
    ++adapter->report.toAdapter;
    FilterPacket* looped = NewFrame(adapter, packet->m_Data, packet->m_nPacketSize);
    DeletePacket(packet);
    if (looped != nullptr && receive != nullptr && adapter->open) {
        receive(looped);
    } else if (looped != nullptr) {
        DeletePacket(looped);
    }
    return 0;
}

ULONG InjectPacketToProtocol(FilterAdapter* record, FilterPacket* packet)
{
    LoopAdapterReport& report = reinterpret_cast<Adapter*>(record)->report;
    ++report.toProtocols;
    report.last.length = packet->m_nPacketSize;
    RtlCopyMemory(report.last.bytes, packet->m_Data, packet->m_nPacketSize);
    DeletePacket(packet);
    return 0;
}

PVOID AllocateRequest()
{
    return nullptr;
}

NTSTATUS MakeNdisRequest(FilterAdapter*, PVOID, PVOID)
{
    return STATUS_NOT_SUPPORTED;
}

VOID FreeRequest(PVOID) {}

// Keeps the state. With an adapter below it a hook driver also forces it there, and reports the change to the
// framework with Filter_AdapterStatusChanged.
NTSTATUS SetAdapterStatus(const UCHAR* address, ULONG state)
{
    Adapter* adapter = AdapterOfAddress(address);
    if (adapter == nullptr) {
        return NDIS_STATUS_ADAPTER_NOT_FOUND;
    }
    adapter->record.m_nAdapterMediaState = state;
    return STATUS_SUCCESS;
}

// One byte: the control request hands in the last byte of its buffer.
NTSTATUS GetAdapterStatus(const UCHAR* address, PVOID state)
{
    const Adapter* adapter = AdapterOfAddress(address);
    if (adapter == nullptr) {
        return NDIS_STATUS_ADAPTER_NOT_FOUND;
    }
    *static_cast<PUCHAR>(state) = static_cast<UCHAR>(adapter->record.m_nAdapterMediaState);
    return STATUS_SUCCESS;
}

VOID GetTcpIpBoundAdapters(PVOID buffer)
{
    auto* list = static_cast<AdapterList*>(buffer);
    ULONG count = 0;
    for (Adapter& adapter : adapters) {
        if (!adapter.open) {
            continue;
        }
        AdapterInfo& info = list->m_Adapters[count++];
        RtlZeroMemory(&info, sizeof(info));
        info.m_hAdapter = &adapter.record;
        info.m_usMTU = adapter.record.m_usMTU;
        info.m_dwAdapterState = adapter.record.m_nAdapterMediaState;
        RtlCopyMemory(info.m_PermanentAddress, adapter.record.m_PermanentAddress,
                      sizeof(info.m_PermanentAddress));
        RtlCopyMemory(info.m_CurrentAddress, adapter.record.m_CurrentAddress, sizeof(info.m_CurrentAddress));
        for (ULONG i = 0; adapterName[i] != 0; ++i) {
            info.m_szAdapterName[i] = static_cast<CHAR>(adapterName[i]);
        }
    }
    list->m_nAdapterCount = count;
}

VOID MapShared(PMDL mdl, ULONG, MappedMemory* mapped)
{
    const PVOID address = MmMapLockedPages(mdl, UserMode);
    mapped->m_pUserModeVirtualAddress = reinterpret_cast<ULONG_PTR>(address);
    shared = address != nullptr ? static_cast<MappedMemory*>(MmGetMdlVirtualAddress(mdl)) : nullptr;
}

VOID UnmapShared(PMDL mdl, PVOID userAddress)
{
    shared = nullptr;
    MmUnmapLockedPages(userAddress, mdl);
}

// -------------------------------------------------------------------------------------------------- binding

VOID FillFunctions(NdisHookAPI* record)
{
    record->Hook_GetOsVersion = GetOsVersion;
    record->Hook_HandleIoControl = HandleIoControl;
    record->Hook_AllocatePacket = AllocatePacket;
    record->Hook_FreePacket = FreePacket;
    record->Hook_InjectPacketToAdapter = InjectPacketToAdapter;
    record->Hook_InjectPacketToProtocol = InjectPacketToProtocol;
    record->Hook_AllocateRequest = AllocateRequest;
    record->Hook_MakeNdisRequest = MakeNdisRequest;
    record->Hook_FreeRequest = FreeRequest;
    record->Hook_SetAdapterStatus = SetAdapterStatus;
    record->Hook_GetAdapterStatus = GetAdapterStatus;
    record->Hook_GetTcpIpBoundAdapters = GetTcpIpBoundAdapters;
    record->Hook_MmMapLockedPages = MapShared;
    record->Hook_MmUnmapLockedPages = UnmapShared;
}

// Sends a binding request with one record as input and output; what comes back is the binding from then on.
NTSTATUS ExchangeBinding(ULONG code, const LoopBinding& binding)
{
    if (filterFile == nullptr) {
        UNICODE_STRING name;
        RtlInitUnicodeString(&name, NDIS_FILTER_DEVICE_NAME);
        const NTSTATUS status = IoGetDeviceObjectPointer(&name, FILE_READ_DATA, &filterFile, &filterDevice);
        if (!NT_SUCCESS(status)) {
            filterFile = nullptr;
            return status;
        }
    }
    NdisHookAPI record = {};
    record.m_Size = binding.size;
    record.m_MajorVersion = binding.majorVersion;
    record.m_MinorVersion = binding.minorVersion;
    FillFunctions(&record);

    KEVENT done;
    IO_STATUS_BLOCK result = {};
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    const PIRP irp = IoBuildDeviceIoControlRequest(code, filterDevice, &record, binding.length, &record,
                                                   binding.length, TRUE, &done, &result);
    if (irp == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS status = IoCallDriver(filterDevice, irp);
    if (status == STATUS_PENDING) {
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
        status = result.Status;
    }
    if (NT_SUCCESS(status)) {
        api = record;
    }
    return status;
}

NTSTATUS Bind(const LoopBinding& binding)
{
    const NTSTATUS status = ExchangeBinding(IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK, binding);
    if (!NT_SUCCESS(status) && api.Filter_AdapterOpened == nullptr && filterFile != nullptr) {
        ObDereferenceObject(filterFile);
        filterFile = nullptr;
    }
    return status;
}

NTSTATUS Unbind(const LoopBinding& binding)
{
    const NTSTATUS status = ExchangeBinding(IOCTL_NDIS_FILTER_INTERNAL_UNBIND_NDIS_HOOK, binding);
    if (NT_SUCCESS(status)) {
        ObDereferenceObject(filterFile);
        filterFile = nullptr;
    }
    return status;
}

// ------------------------------------------------------------------------------------------- control device

NTSTATUS SetOpen(ULONG number, BOOLEAN open)
{
    if (number >= LOOPHOOK_ADAPTERS) {
        return STATUS_INVALID_PARAMETER;
    }
    Adapter& adapter = adapters[number];
    adapter.open = open;
    const FILTER_ADAPTER_OPENED report = open ? api.Filter_AdapterOpened : api.Filter_AdapterClosed;
    if (report != nullptr) {
        report(&adapter.record);
    }
    return STATUS_SUCCESS;
}

NTSTATUS AccessShared(const LoopWindow& window, PUCHAR buffer, ULONG length, bool write)
{
    MappedMemory* mapped = shared;
    if (mapped == nullptr) {
        return STATUS_DEVICE_NOT_READY;
    }
    if (window.length > length || window.offset > sizeof(MappedMemory) ||
        window.length > sizeof(MappedMemory) - window.offset) {
        return STATUS_INVALID_PARAMETER;
    }
    PUCHAR place = reinterpret_cast<PUCHAR>(mapped) + window.offset;
    RtlCopyMemory(write ? place : buffer, write ? buffer : place, window.length);
    return STATUS_SUCCESS;
}

VOID FillReport(LoopReport* report)
{
    report->bound = (api.m_Flags & NDIS_HOOK_FLAG_BOUND) != 0;
    report->packetsOut = static_cast<ULONG>(packetsOut);
    report->released = static_cast<ULONG>(released);
    for (ULONG i = 0; i < LOOPHOOK_ADAPTERS; ++i) {
        report->adapters[i] = adapters[i].report;
    }
}

struct Request {
    ULONG code;
    PUCHAR buffer;
    ULONG inputLength;
    ULONG outputLength;
    ULONG_PTR returned;
};

template <class Record>
const Record* Input(const Request& request)
{
    return request.inputLength >= sizeof(Record) ? reinterpret_cast<const Record*>(request.buffer) : nullptr;
}

NTSTATUS PerformShared(Request& request)
{
    const LoopWindow* window = Input<LoopWindow>(request);
    if (window == nullptr) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    const LoopWindow copy = *window; // a read overwrites it
    if (request.code == LOOPHOOK_WRITE_SHARED) {
        return AccessShared(copy, request.buffer + sizeof(LoopWindow),
                            request.inputLength - sizeof(LoopWindow), true);
    }
    const NTSTATUS status = AccessShared(copy, request.buffer, request.outputLength, false);
    request.returned = NT_SUCCESS(status) ? copy.length : 0;
    return status;
}

NTSTATUS Perform(Request& request)
{
    const auto* number = Input<ULONG>(request);
    const auto* binding = Input<LoopBinding>(request);
    const auto* frame = Input<LoopFrame>(request);
    switch (request.code) {
    case LOOPHOOK_BIND:
        return binding != nullptr ? Bind(*binding) : STATUS_BUFFER_TOO_SMALL;
    case LOOPHOOK_UNBIND:
        return binding != nullptr ? Unbind(*binding) : STATUS_BUFFER_TOO_SMALL;
    case LOOPHOOK_OPEN:
    case LOOPHOOK_CLOSE:
        return number != nullptr ? SetOpen(*number, request.code == LOOPHOOK_OPEN) : STATUS_BUFFER_TOO_SMALL;
    case LOOPHOOK_RECEIVE:
        return frame != nullptr ? Deliver(frame, api.Filter_FilterReceivedPacket) : STATUS_BUFFER_TOO_SMALL;
    case LOOPHOOK_SEND:
        return frame != nullptr ? Deliver(frame, api.Filter_FilterSendPacket) : STATUS_BUFFER_TOO_SMALL;
    case LOOPHOOK_REPORT:
        if (request.outputLength < sizeof(LoopReport)) {
            return STATUS_BUFFER_TOO_SMALL;
        }
        FillReport(reinterpret_cast<LoopReport*>(request.buffer));
        request.returned = sizeof(LoopReport);
        return STATUS_SUCCESS;
    case LOOPHOOK_READ_SHARED:
    case LOOPHOOK_WRITE_SHARED:
        return PerformShared(request);
    default:
        return STATUS_INVALID_DEVICE_REQUEST;
    }
}

NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR returned)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = returned;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS NTAPI OpenClose(PDEVICE_OBJECT, PIRP irp)
{
    return Complete(irp, STATUS_SUCCESS, 0);
}

NTSTATUS NTAPI Control(PDEVICE_OBJECT, PIRP irp)
{
    const auto& parameters = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
    Request request = {parameters.IoControlCode, static_cast<PUCHAR>(irp->AssociatedIrp.SystemBuffer),
                       parameters.InputBufferLength, parameters.OutputBufferLength, 0};
    const NTSTATUS status = Perform(request);
    return Complete(irp, status, request.returned);
}

VOID NTAPI Unload(PDRIVER_OBJECT)
{
    if ((api.m_Flags & NDIS_HOOK_FLAG_BOUND) != 0) {
        Unbind({sizeof(NdisHookAPI), sizeof(NdisHookAPI), NDIS_HOOK_MAJOR_VERSION, NDIS_HOOK_MINOR_VERSION});
    }
    UNICODE_STRING link;
    RtlInitUnicodeString(&link, LINK_NAME);
    IoDeleteSymbolicLink(&link);
    IoDeleteDevice(controlDevice);
    DbgPrint("loophook: unloaded, %d packets out\n", packetsOut);
}

VOID InitializeAdapters()
{
    for (ULONG i = 0; i < LOOPHOOK_ADAPTERS; ++i) {
        Adapter& adapter = adapters[i];
        adapter = {};
        const UCHAR address[6] = {0x02, 0, 0, 0, 0, static_cast<UCHAR>(i + 1)}; // locally administered
        RtlCopyMemory(adapter.record.m_CurrentAddress, address, sizeof(address));
        RtlCopyMemory(adapter.record.m_PermanentAddress, address, sizeof(address));
        adapter.record.m_usMTU = 1500;
        RtlInitUnicodeString(&adapter.record.m_AdapterName, adapterName);
        adapter.report.last.adapter = i;
    }
}

} // namespace

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    UNICODE_STRING name, link;
    RtlInitUnicodeString(&name, DEVICE_NAME);
    RtlInitUnicodeString(&link, LINK_NAME);
    NTSTATUS status = IoCreateDevice(driver, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &controlDevice);
    if (!NT_SUCCESS(status)) {
        DbgPrint("loophook: no device, status 0x%x\n", status);
        return status;
    }
    status = IoCreateSymbolicLink(&link, &name);
    if (!NT_SUCCESS(status)) {
        DbgPrint("loophook: no symbolic link, status 0x%x\n", status);
        IoDeleteDevice(controlDevice);
        return status;
    }
    InitializeAdapters();
    driver->MajorFunction[IRP_MJ_CREATE] = OpenClose;
    driver->MajorFunction[IRP_MJ_CLOSE] = OpenClose;
    driver->MajorFunction[IRP_MJ_CLEANUP] = OpenClose;
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = Control;
    driver->DriverUnload = Unload;
    return STATUS_SUCCESS;
}
