// Open files: what connects a handle, or a driver's reference, with a device.
#pragma once

#include <ntddk.h>

#include <string>

namespace kernel
{

// What a create request carries besides the name.
struct CreateParameters {
    ULONG disposition = FILE_OPEN;
    ULONG options = 0;
    ULONG attributes = 0;
    ULONG share = 0;
    const void* ea = nullptr; // extended attributes
    ULONG eaLength = 0;
};

// Opens a device by name and sends it the create request. The file has one reference, given back with
// DereferenceObject; the last one sends the close request. The errors are those of OpenDevice and of the driver.
NTSTATUS OpenFile(const std::string& name, KPROCESSOR_MODE mode, FILE_OBJECT** file);
// The same with parameters, and with a name that may go on behind the device's. `result` is the driver's.
NTSTATUS OpenFile(const std::string& name, KPROCESSOR_MODE mode, const CreateParameters& parameters,
                  FILE_OBJECT** file, IO_STATUS_BLOCK* result);

// The last handle of the file is gone: sends the cleanup request.
void CleanupFile(FILE_OBJECT* file);

// Creates a file on drive C and a handle to it.
NTSTATUS CreateDriveFile(const std::string& name, ACCESS_MASK access, const CreateParameters& parameters,
                         HANDLE* handle, ULONG_PTR* information);

} // namespace kernel
