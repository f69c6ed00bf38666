// Opening and closing: addresses, connection endpoints, control channels.
#include "tdi-internal.h"

using namespace tdi;

namespace
{

constexpr ACCESS_MASK FileAccess = GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE;
constexpr ACCESS_MASK ChannelAccess = GENERIC_READ | GENERIC_WRITE;

// What an open gives: a handle and the file object behind it.
struct OpenedFile {
    HANDLE Handle;
    PFILE_OBJECT FileObject;
};

VOID CloseFile(const OpenedFile* file)
{
    ObDereferenceObject(file->FileObject);
    ZwClose(file->Handle);
}

// `ea` may be null. Nothing stays open on failure.
NTSTATUS OpenFile(PCWSTR deviceName, ACCESS_MASK access, PFILE_FULL_EA_INFORMATION ea, ULONG eaLength,
                  OpenedFile* file)
{
    UNICODE_STRING name;
    OBJECT_ATTRIBUTES attributes;
    IO_STATUS_BLOCK result;
    RtlInitUnicodeString(&name, deviceName);
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    NTSTATUS status = ZwCreateFile(&file->Handle, access, &attributes, &result, nullptr,
                                   FILE_ATTRIBUTE_NORMAL, FILE_SHARE_READ, FILE_OPEN_IF, 0, ea, eaLength);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PVOID object = nullptr;
    status = ObReferenceObjectByHandle(file->Handle, 0, nullptr, KernelMode, &object, nullptr);
    if (!NT_SUCCESS(status)) {
        ZwClose(file->Handle);
        return status;
    }
    file->FileObject = static_cast<PFILE_OBJECT>(object);
    return STATUS_SUCCESS;
}

// The attribute tells the transport what the file is to be.
NTSTATUS OpenFileAs(PCWSTR deviceName, PCSTR attribute, ULONG attributeLength, const VOID* value,
                    ULONG valueLength, OpenedFile* file)
{
    PFILE_FULL_EA_INFORMATION ea = nullptr;
    ULONG eaLength = 0;
    NTSTATUS status = KS_BuildEaBuffer(attributeLength, attribute, valueLength, value, &ea, &eaLength);
    if (NT_SUCCESS(status)) {
        status = OpenFile(deviceName, FileAccess, ea, eaLength, file);
        ExFreePool(ea);
    }
    return status;
}

// The record is complete but for its place in the list: on an address that listens the transport may hand the
// endpoint to a caller from now on.
NTSTATUS Associate(PKS_CONNECTION_ENDPOINT endpoint)
{
    const PKS_TRANSPORT_ADDRESS address = endpoint->Address;
    const AddressRequest request(address, endpoint->FileObject);
    if (!NT_SUCCESS(request.Status())) {
        return request.Status();
    }
    request.Prepare<TDI_REQUEST_KERNEL_ASSOCIATE>(TDI_ASSOCIATE_ADDRESS)->AddressHandle = address->Handle;
    const NTSTATUS status = request.Send();
    if (NT_SUCCESS(status)) {
        Reference(address); // beside that of the request, so it cannot be refused
        Append(endpoint);
    }
    return status;
}

} // namespace

NTSTATUS KS_OpenTransportAddress(PCWSTR DeviceName, PTRANSPORT_ADDRESS Address, PKS_TRANSPORT_ADDRESS Record)
{
    OpenedFile file;
    RtlZeroMemory(Record, sizeof(*Record));
    InitializeListHead(&Record->Endpoints);
    Record->Status = STATUS_UNSUCCESSFUL;
    NTSTATUS status = OpenFileAs(DeviceName, TdiTransportAddress, TDI_TRANSPORT_ADDRESS_LENGTH, Address,
                                 KS_TransportAddressLength(Address), &file);
    if (NT_SUCCESS(status)) {
        Record->Irp = AllocateRequest(DeviceOf(file.FileObject));
        if (Record->Irp != nullptr) {
            Record->Handle = file.Handle;
            Record->FileObject = file.FileObject;
            Record->Count = 1;
        } else {
            CloseFile(&file);
            status = STATUS_INSUFFICIENT_RESOURCES;
        }
    }
    Record->Status = status;
    return status;
}

NTSTATUS KS_CloseTransportAddress(PKS_TRANSPORT_ADDRESS Record)
{
    Closings closings = {};
    Release(Record, &closings);
    Close(&closings);
    return STATUS_SUCCESS;
}

NTSTATUS KS_OpenConnectionEndpoint(PCWSTR DeviceName, PKS_TRANSPORT_ADDRESS Address,
                                   PKS_CONNECTION_ENDPOINT Record, PVOID ConnectionContext)
{
    OpenedFile file;
    RtlZeroMemory(Record, sizeof(*Record));
    Record->Status = STATUS_UNSUCCESSFUL;
    NTSTATUS status = OpenFileAs(DeviceName, TdiConnectionContext, TDI_CONNECTION_CONTEXT_LENGTH,
                                 &ConnectionContext, sizeof(ConnectionContext), &file);
    Record->Status = status;
    Record->AssociateStatus = status;
    if (!NT_SUCCESS(status)) {
        return status;
    }
    Record->Handle = file.Handle;
    Record->FileObject = file.FileObject;
    Record->Address = Address;
    Record->Count = 1;
    const Held<KS_CONNECTION_ENDPOINT> held(Record); // a caller's connection may end before it is in the list
    status = Associate(Record);
    Record->AssociateStatus = status;
    if (!NT_SUCCESS(status)) {
        CloseFile(&file);
        Record->Handle = nullptr;
        Record->FileObject = nullptr;
        Record->Address = nullptr;
        Record->Count = 0;
    }
    return status;
}

NTSTATUS KS_CloseConnectionEndpoint(PKS_CONNECTION_ENDPOINT Record)
{
    Closings closings = {};
    Release(Record, &closings);
    Close(&closings);
    return STATUS_SUCCESS;
}

NTSTATUS KS_OpenControlChannel(PCWSTR DeviceName, PKS_CONTROL_CHANNEL Channel)
{
    OpenedFile file;
    const NTSTATUS status = OpenFile(DeviceName, ChannelAccess, nullptr, 0, &file);
    if (NT_SUCCESS(status)) {
        Channel->Handle = file.Handle;
        Channel->FileObject = file.FileObject;
    }
    return status;
}

NTSTATUS KS_CloseControlChannel(PKS_CONTROL_CHANNEL Channel)
{
    const OpenedFile file = {Channel->Handle, Channel->FileObject};
    CloseFile(&file);
    return STATUS_SUCCESS;
}
