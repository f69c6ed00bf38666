// Drivers that are loaded into the machine.
#pragma once

#include <ntddk.h>

namespace kernel
{

// The last opener of one of the driver's retired devices has left: an unload that waited for it runs now.
void ResumeUnload(DRIVER_OBJECT* driver);

} // namespace kernel
