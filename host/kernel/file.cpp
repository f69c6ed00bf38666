#include "file.h"

#include "device.h"
#include "irp.h"
#include "object.h"
#include "text.h"
#include "verifier.h"

#include <cstdlib>
#include <cstring>

namespace
{

constexpr ULONG kOpened = 0x00040000; // in FILE_OBJECT.Flags: the driver has accepted the create request

void DestroyFile(void* body);
void CloseFileHandle(void* body);

_OBJECT_TYPE fileType = {"File", DestroyFile, CloseFileHandle};
POBJECT_TYPE fileTypePointer = &fileType;

IO_STATUS_BLOCK SendAndWait(FILE_OBJECT* file, UCHAR major, KPROCESSOR_MODE mode,
                            const kernel::CreateParameters* create = nullptr)
{
    const auto outcome = kernel::SendRequest(
        file->DeviceObject, {.major = major, .file = file, .mode = mode, .create = create});
    outcome->Wait(std::nullopt);
    return outcome->Result();
}

// The name of the file itself, behind that of its device.
bool SetFileName(FILE_OBJECT* file, const std::string& name)
{
    if (name.empty()) {
        return true;
    }
    const std::vector<WCHAR> wide = kernel::ToWide(name);
    const size_t bytes = wide.size() * sizeof(WCHAR);
    file->FileName.Buffer = bytes <= MAXUSHORT ? static_cast<WCHAR*>(std::malloc(bytes)) : nullptr;
    if (file->FileName.Buffer == nullptr) {
        return false;
    }
    std::memcpy(file->FileName.Buffer, wide.data(), bytes);
    file->FileName.Length = static_cast<USHORT>(bytes - sizeof(WCHAR));
    file->FileName.MaximumLength = static_cast<USHORT>(bytes);
    return true;
}

// The extended attributes describe only bytes that are there.
bool IsEaList(const void* list, ULONG length)
{
    const auto* bytes = static_cast<const UCHAR*>(list);
    for (ULONG at = 0; at < length;) {
        FILE_FULL_EA_INFORMATION ea;
        constexpr ULONG kHeader = offsetof(FILE_FULL_EA_INFORMATION, EaName);
        if (length - at < kHeader) {
            return false;
        }
        std::memcpy(&ea, bytes + at, kHeader);
        const ULONG end = kHeader + ea.EaNameLength + 1u + ea.EaValueLength;
        if (length - at < end || bytes[at + kHeader + ea.EaNameLength] != 0) {
            return false;
        }
        if (ea.NextEntryOffset == 0) {
            return true;
        }
        if (ea.NextEntryOffset < end || ea.NextEntryOffset % sizeof(ULONG) != 0) {
            return false;
        }
        at += ea.NextEntryOffset;
    }
    return length == 0;
}

void DestroyFile(void* body)
{
    auto* file = static_cast<FILE_OBJECT*>(body);
    kernel::RequireIrqlAtMost(PASSIVE_LEVEL, "ObDereferenceObject");
    if (file->Flags & kOpened) {
        SendAndWait(file, IRP_MJ_CLOSE, KernelMode);
    }
    std::free(file->FileName.Buffer);
    --kernel::Live().files;
    kernel::CloseDevice(file->DeviceObject);
}

// No handle of the kernel is ever duplicated: this was the only one.
void CloseFileHandle(void* body)
{
    kernel::CleanupFile(static_cast<FILE_OBJECT*>(body));
}

} // namespace

POBJECT_TYPE* IoFileObjectType = &fileTypePointer;

namespace kernel
{
namespace
{

// Takes over the caller's hold on the device, also on failure.
NTSTATUS OpenFileOn(DEVICE_OBJECT* device, const std::string& name, KPROCESSOR_MODE mode,
                    const CreateParameters& parameters, FILE_OBJECT** result, IO_STATUS_BLOCK* answer)
{
    auto* file = static_cast<FILE_OBJECT*>(CreateObject(&fileType, sizeof(FILE_OBJECT)));
    if (file == nullptr) {
        CloseDevice(device);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    ++Live().files;
    file->Type = IO_TYPE_FILE;
    file->Size = static_cast<CSHORT>(sizeof(FILE_OBJECT));
    file->DeviceObject = device;
    *answer = {};
    answer->Status = STATUS_INSUFFICIENT_RESOURCES;
    if (SetFileName(file, name)) {
        *answer = SendAndWait(file, IRP_MJ_CREATE, mode, &parameters);
    }
    if (!NT_SUCCESS(answer->Status)) {
        DereferenceObject(file);
        return answer->Status;
    }
    file->Flags |= kOpened;
    *result = file;
    return answer->Status;
}

} // namespace

NTSTATUS OpenFile(const std::string& name, KPROCESSOR_MODE mode, FILE_OBJECT** result)
{
    DEVICE_OBJECT* device = nullptr;
    IO_STATUS_BLOCK ignored;
    const NTSTATUS status = OpenDevice(name, &device);
    return NT_SUCCESS(status) ? OpenFileOn(device, "", mode, {}, result, &ignored) : status;
}

NTSTATUS OpenFile(const std::string& name, KPROCESSOR_MODE mode, const CreateParameters& parameters,
                  FILE_OBJECT** file, IO_STATUS_BLOCK* result)
{
    DEVICE_OBJECT* device = nullptr;
    std::string rest;
    if (!IsEaList(parameters.ea, parameters.eaLength)) {
        return STATUS_EA_LIST_INCONSISTENT;
    }
    const NTSTATUS status = OpenDevice(name, &device, &rest);
    return NT_SUCCESS(status) ? OpenFileOn(device, rest, mode, parameters, file, result) : status;
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

PDEVICE_OBJECT IoGetRelatedDeviceObject(PFILE_OBJECT file)
{
    return file->DeviceObject; // nothing attaches to a device here
}

NTSTATUS ZwCreateFile(PHANDLE handle, ACCESS_MASK access, POBJECT_ATTRIBUTES attributes, PIO_STATUS_BLOCK result,
                      PLARGE_INTEGER, ULONG fileAttributes, ULONG share, ULONG disposition, ULONG options, PVOID ea,
                      ULONG eaLength)
{
    using namespace kernel;
    RequireIrqlAtMost(PASSIVE_LEVEL, "ZwCreateFile");
    if ((options & FILE_SYNCHRONOUS_IO_NONALERT) != 0 && (access & SYNCHRONIZE) == 0) {
        return STATUS_INVALID_PARAMETER;
    }
    const CreateParameters parameters = {disposition, options, fileAttributes, share, ea, eaLength};
    const std::string name = ToUtf8(*attributes->ObjectName);
    IO_STATUS_BLOCK answer = {};
    NTSTATUS status;
    if (!FoldCase(name).starts_with("\\device\\")) {
        status = CreateDriveFile(name, access, parameters, handle, &answer.Information);
    } else if (Fails(machine::Fault::File)) {
        status = STATUS_INSUFFICIENT_RESOURCES;
    } else {
        FILE_OBJECT* file = nullptr;
        status = OpenFile(name, KernelMode, parameters, &file, &answer);
        if (NT_SUCCESS(status)) {
            *handle = CreateHandle(file);
            DereferenceObject(file); // the handle's reference remains
        }
    }
    result->Status = status;
    result->Information = NT_SUCCESS(status) ? answer.Information : 0;
    return status;
}
