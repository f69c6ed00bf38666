// A client driver of the tests: calls functions of the kernel sockets whose answer is the system's. It starts only when
// each answers as it should; what did not is in the debug output.
#include <ntddk.h>

#include "tdi-client.h"

namespace
{

WCHAR deviceText[] = L"\\Device\\SocketProbe";
PDEVICE_OBJECT probeDevice;
PIO_WORKITEM lateItem;

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

VOID NTAPI Unload(PDRIVER_OBJECT)
{
    IoDeleteDevice(probeDevice);
}

} // namespace

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, deviceText);
    const NTSTATUS status = IoCreateDevice(driver, 0, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &probeDevice);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    lateItem = IoAllocateWorkItem(probeDevice);
    driver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = Answer;
    const BOOLEAN names = ProcessNames(), requests = SimpleRequests();
    DbgPrint("socket-probe: process names %s, simple requests %s\n", names ? "right" : "wrong",
             requests ? "right" : "wrong");
    IoFreeWorkItem(lateItem);
    driver->DriverUnload = Unload;
    if (!names || !requests) {
        IoDeleteDevice(probeDevice);
        return STATUS_UNSUCCESSFUL;
    }
    return STATUS_SUCCESS;
}
