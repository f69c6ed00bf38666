// Open files: what connects a handle, or a driver's reference, with a device.
#pragma once

#include <ntddk.h>

#include <string>

namespace kernel
{

// Opens a device by name and sends it the create request. The file has one reference, given back with
// DereferenceObject; the last one sends the close request. The errors are those of OpenDevice and of the driver.
NTSTATUS OpenFile(const std::string& name, KPROCESSOR_MODE mode, FILE_OBJECT** file);

// The last handle of the file is gone: sends the cleanup request.
void CleanupFile(FILE_OBJECT* file);

} // namespace kernel
