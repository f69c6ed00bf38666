// Requests of the test's own for the transport. No kernel header stands here beside that of the sockets' library.
#pragma once

#include <tdi-client.h>

namespace support
{

// For a file of the transport's, which gets it next.
inline PIRP NewTdiRequest(PFILE_OBJECT file, UCHAR minor)
{
    const PIRP irp = IoAllocateIrp(IoGetRelatedDeviceObject(file)->StackSize, FALSE);
    const PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    next->MinorFunction = minor;
    next->FileObject = file;
    return irp;
}

// Asks for the port of an open address; 0 when that fails.
inline USHORT AskPort(const KS_TRANSPORT_ADDRESS& address)
{
    struct {
        ULONG activityCount;
        TA_IP_ADDRESS address;
    } info = {};
    const PIRP irp = NewTdiRequest(address.FileObject, TDI_QUERY_INFORMATION);
    reinterpret_cast<TDI_REQUEST_KERNEL_QUERY_INFORMATION&>(IoGetNextIrpStackLocation(irp)->Parameters)
        .QueryType = TDI_QUERY_ADDRESS_INFO;
    const PMDL mdl = KS_AllocateAndProbeMdl(&info, sizeof(info), FALSE, FALSE, irp);
    const NTSTATUS status = KS_MakeSimpleTdiRequest(IoGetRelatedDeviceObject(address.FileObject), irp);
    KS_UnlockAndFreeMdl(mdl);
    IoFreeIrp(irp);
    return NT_SUCCESS(status) ? KS_ntohs(info.address.Address[0].Address[0].sin_port) : USHORT{0};
}

} // namespace support
