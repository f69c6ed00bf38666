// The machine's object names: devices, and symbolic links that lead to them.
#pragma once

#include <ntddk.h>

#include <string>
#include <vector>

namespace kernel
{

// Finds the device that a kernel name ("\Device\X", "\??\X", "\DosDevices\X") or a Win32 name ("\\.\X") leads to and
// counts one more opener of it. STATUS_OBJECT_NAME_NOT_FOUND: no such name. STATUS_NO_SUCH_DEVICE: the device is not
// ready yet, or on its way out. STATUS_ACCESS_DENIED: exclusive and open already.
// `rest` receives what follows the device's name, as in \Device\X\rest; when it is null there must be nothing.
NTSTATUS OpenDevice(const std::string& name, DEVICE_OBJECT** device, std::string* rest = nullptr);

// Gives back what OpenDevice took. The last opener frees a deleted device and lets a waiting unload of its driver run.
void CloseDevice(DEVICE_OBJECT* device);

// Lets programs open the driver's devices; they cannot before its entry routine has succeeded.
void PublishDevices(DRIVER_OBJECT* driver);

// Refuses every further open of the driver's devices. True when none of them is open now.
bool RetireDevices(DRIVER_OBJECT* driver);

// Frees the devices that a driver left and the links that lead to its devices; returns a line for each of them.
std::vector<std::string> FreeDevices(DRIVER_OBJECT* driver);

std::string DeviceName(DEVICE_OBJECT* device);

} // namespace kernel
