// A client driver of the tests: calls those functions of the kernel sockets that use the system without a transport, and
// the others with one that is absent. It starts only when each answers as it should; what did not is in the debug output.
#include <ntddk.h>

#include "tdi-client.h"

namespace
{

constexpr PCWSTR NoTransport = L"\\Device\\NoTransport";
WCHAR deviceText[] = L"\\Device\\SocketProbe";
PDEVICE_OBJECT probeDevice;
PIO_WORKITEM lateItem;

BOOLEAN Links()
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, deviceText);
    UNICODE_STRING tooShort = name;
    tooShort.Length = 16;
    return KS_CreateSymbolicLink(&tooShort, TRUE) == STATUS_UNSUCCESSFUL &&
           NT_SUCCESS(KS_CreateSymbolicLink(&name, TRUE)) &&
           NT_SUCCESS(KS_CreateSymbolicLink(&name, FALSE)) &&
           !NT_SUCCESS(KS_CreateSymbolicLink(&name, FALSE));
}

// Windows keeps the name in the process object, and this runs in the system process. A process object elsewhere may
// have none.
BOOLEAN ProcessNames()
{
    CHAR name[KS_PROCESS_NAME_SIZE] = {};
    if (KS_GetCurrentProcessName(name) || RtlCompareMemory(name, "???", 4) != 4) {
        return FALSE;
    }
    KS_InitProcessNameOffset();
    return KS_GetCurrentProcessName(name)
               ? RtlCompareMemory(name, "System", 6) == 6 && name[KS_PROCESS_NAME_SIZE - 1] == 0
               : RtlCompareMemory(name, "???", 4) == 4;
}

// Wine locks no pages, but describes them. It has no packet pools: packets with buffers are freed on the host only.
BOOLEAN MemoryDescriptions()
{
    static UCHAR data[PAGE_SIZE];
    const PIRP irp = IoAllocateIrp(1, FALSE);
    const PMDL alone = KS_AllocateAndProbeMdl(data, sizeof(data), FALSE, FALSE, nullptr);
    const PMDL first = KS_AllocateAndProbeMdl(data, 10, FALSE, FALSE, irp);
    const BOOLEAN right = MmGetMdlByteCount(alone) == sizeof(data) && MmGetMdlVirtualAddress(alone) == data &&
                          irp->MdlAddress == first && first->Next == nullptr;
    irp->MdlAddress = nullptr;
    KS_UnlockAndFreeMdl(alone);
    KS_UnlockAndFreeMdl(first);
    IoFreeIrp(irp);
    KS_FreePacketAndBuffers(nullptr);
    return right;
}

VOID NTAPI CompleteLate(PDEVICE_OBJECT, PVOID context)
{
    const PIRP irp = static_cast<PIRP>(context);
    irp->IoStatus.Status = STATUS_SUCCESS;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
}

// The device of this driver: completes with the status that the minor function stands for, later where that is 0.
NTSTATUS NTAPI Answer(PDEVICE_OBJECT, PIRP irp)
{
    const UCHAR minor = IoGetCurrentIrpStackLocation(irp)->MinorFunction;
    if (minor == 0) {
        IoMarkIrpPending(irp);
        IoQueueWorkItem(lateItem, CompleteLate, DelayedWorkQueue, irp);
        return STATUS_PENDING;
    }
    const NTSTATUS status = minor == 1 ? STATUS_SUCCESS : STATUS_INVALID_CONNECTION;
    irp->IoStatus.Status = status;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

BOOLEAN SimpleRequests()
{
    constexpr NTSTATUS Answers[] = {STATUS_SUCCESS, STATUS_SUCCESS, STATUS_INVALID_CONNECTION};
    BOOLEAN right = TRUE;
    for (UCHAR minor = 0; minor < 3; ++minor) {
        const PIRP irp = IoAllocateIrp(probeDevice->StackSize, FALSE);
        const PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
        next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
        next->MinorFunction = minor;
        const NTSTATUS status = KS_MakeSimpleTdiRequest(probeDevice, irp);
        right = right && status == Answers[minor] && irp->IoStatus.Status == status;
        IoFreeIrp(irp);
    }
    return right;
}

BOOLEAN AbsentTransport()
{
    constexpr NTSTATUS Absent = STATUS_OBJECT_NAME_NOT_FOUND;
    TA_IP_ADDRESS local;
    KS_TRANSPORT_ADDRESS address;
    KS_CONNECTION_ENDPOINT endpoint;
    KS_CONTROL_CHANNEL channel;
    UCHAR buffer[KS_PROVIDER_STATISTICS_SIZE];
    KS_InitIPAddress(&local, 0, 0);
    const NTSTATUS opened =
        KS_OpenTransportAddress(NoTransport, reinterpret_cast<PTRANSPORT_ADDRESS>(&local), &address);
    return opened == Absent && address.Status == opened && address.Count == 0 &&
           KS_CloseTransportAddress(&address) == STATUS_SUCCESS &&
           KS_OpenConnectionEndpoint(NoTransport, &address, &endpoint, nullptr) == Absent &&
           endpoint.Status == Absent && endpoint.AssociateStatus == Absent && endpoint.Count == 0 &&
           KS_CloseConnectionEndpoint(&endpoint) == STATUS_SUCCESS &&
           KS_OpenControlChannel(NoTransport, &channel) == Absent &&
           KS_QueryProviderInfo(NoTransport, buffer) == Absent &&
           KS_QueryProviderStatistics(NoTransport, buffer) == Absent;
}

struct Row {
    PCSTR Name;
    BOOLEAN (*IsRight)();
};
constexpr Row Rows[] = {
    {"links", Links},
    {"process names", ProcessNames},
    {"memory descriptions", MemoryDescriptions},
    {"simple requests", SimpleRequests},
    {"absent transport", AbsentTransport},
};

VOID NTAPI Unload(PDRIVER_OBJECT)
{
    IoDeleteDevice(probeDevice);
}

} // namespace

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, deviceText);
    NTSTATUS status = IoCreateDevice(driver, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &probeDevice);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    lateItem = IoAllocateWorkItem(probeDevice);
    driver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = Answer;
    for (const Row& row : Rows) {
        if (!row.IsRight()) {
            DbgPrint("socket-probe: %s: wrong\n", row.Name);
            status = STATUS_UNSUCCESSFUL;
        }
    }
    DbgPrint("socket-probe: %u rows\n", static_cast<ULONG>(sizeof(Rows) / sizeof(Rows[0])));
    IoFreeWorkItem(lateItem);
    driver->DriverUnload = Unload;
    if (!NT_SUCCESS(status)) {
        IoDeleteDevice(probeDevice);
    }
    return status;
}
