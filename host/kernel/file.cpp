#include "file.h"

#include "device.h"
#include "irp.h"
#include "object.h"
#include "text.h"
#include "verifier.h"

namespace
{

constexpr ULONG kOpened = 0x00040000; // in FILE_OBJECT.Flags: the driver has accepted the create request

void DestroyFile(void* body);

_OBJECT_TYPE fileType = {"File", DestroyFile};
POBJECT_TYPE fileTypePointer = &fileType;

NTSTATUS SendAndWait(FILE_OBJECT* file, UCHAR major, KPROCESSOR_MODE mode)
{
    const auto outcome =
        kernel::SendRequest(file->DeviceObject, {.major = major, .file = file, .mode = mode});
    outcome->Wait(std::nullopt);
    return outcome->Result().Status;
}

void DestroyFile(void* body)
{
    auto* file = static_cast<FILE_OBJECT*>(body);
    kernel::RequireIrqlAtMost(PASSIVE_LEVEL, "ObDereferenceObject");
    if (file->Flags & kOpened) {
        SendAndWait(file, IRP_MJ_CLOSE, KernelMode);
    }
    --kernel::Live().files;
    kernel::CloseDevice(file->DeviceObject);
}

} // namespace

POBJECT_TYPE* IoFileObjectType = &fileTypePointer;

namespace kernel
{

NTSTATUS OpenFile(const std::string& name, KPROCESSOR_MODE mode, FILE_OBJECT** result)
{
    DEVICE_OBJECT* device = nullptr;
    NTSTATUS status = OpenDevice(name, &device);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    auto* file = static_cast<FILE_OBJECT*>(CreateObject(&fileType, sizeof(FILE_OBJECT)));
    if (file == nullptr) {
        CloseDevice(device);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    ++Live().files;
    file->Type = IO_TYPE_FILE;
    file->Size = static_cast<CSHORT>(sizeof(FILE_OBJECT));
    file->DeviceObject = device;
    status = SendAndWait(file, IRP_MJ_CREATE, mode);
    if (!NT_SUCCESS(status)) {
        DereferenceObject(file);
        return status;
    }
    file->Flags |= kOpened;
    *result = file;
    return status;
}

void CleanupFile(FILE_OBJECT* file)
{
    SendAndWait(file, IRP_MJ_CLEANUP, KernelMode);
}

} // namespace kernel

// As documented, the file is opened and its handle closed again, so the driver sees a cleanup request at once and the
// close request with the last reference.
NTSTATUS IoGetDeviceObjectPointer(PUNICODE_STRING name, ACCESS_MASK desiredAccess, PFILE_OBJECT* file,
                                  PDEVICE_OBJECT* device)
{
    using namespace kernel;
    (void)desiredAccess;
    RequireIrqlAtMost(PASSIVE_LEVEL, "IoGetDeviceObjectPointer");
    if (Fails(machine::Fault::File)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const NTSTATUS status = OpenFile(ToUtf8(*name), KernelMode, file);
    if (NT_SUCCESS(status)) {
        CleanupFile(*file);
        *device = (*file)->DeviceObject;
    }
    return status;
}
