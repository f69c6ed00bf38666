// Sends the cleanup request that Wine never sends, for the tests under Wine: started behind NdisFilter, this
// driver takes over its close routine and calls the cleanup routine first, with a request of its own for the
// same file. Not quite Windows: there the cleanup comes when the last handle goes, the close when the last
// request is done.
#include <ntddk.h>

extern "C" {
NTSTATUS NTAPI ObReferenceObjectByName(PUNICODE_STRING name, ULONG attributes, PVOID state,
                                       ACCESS_MASK access, POBJECT_TYPE type, KPROCESSOR_MODE mode,
                                       PVOID context, PVOID* object);
extern __declspec(dllimport) POBJECT_TYPE IoDriverObjectType;
}

namespace
{

PDRIVER_OBJECT filter;
PDRIVER_DISPATCH filterClose;

NTSTATUS NTAPI CleanupAndClose(PDEVICE_OBJECT device, PIRP close)
{
    if (const PIRP cleanup = IoAllocateIrp(device->StackSize, FALSE)) {
        const PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(cleanup);
        stack->MajorFunction = IRP_MJ_CLEANUP;
        stack->DeviceObject = device;
        stack->FileObject = IoGetCurrentIrpStackLocation(close)->FileObject;
        IoSetNextIrpStackLocation(cleanup);
        filter->MajorFunction[IRP_MJ_CLEANUP](device, cleanup); // completing frees it
    }
    return filterClose(device, close);
}

VOID NTAPI Unload(PDRIVER_OBJECT)
{
    filter->MajorFunction[IRP_MJ_CLOSE] = filterClose;
    ObDereferenceObject(filter);
}

} // namespace

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, L"\\Driver\\NdisFilter");
    PVOID object = nullptr;
    const NTSTATUS status = ObReferenceObjectByName(&name, OBJ_CASE_INSENSITIVE, nullptr, 0,
                                                    IoDriverObjectType, KernelMode, nullptr, &object);
    if (!NT_SUCCESS(status)) {
        DbgPrint("cleanup-shim: NdisFilter is not there\n");
        return status;
    }
    filter = static_cast<PDRIVER_OBJECT>(object);
    filterClose = filter->MajorFunction[IRP_MJ_CLOSE];
    filter->MajorFunction[IRP_MJ_CLOSE] = CleanupAndClose;
    driver->DriverUnload = Unload;
    return STATUS_SUCCESS;
}
