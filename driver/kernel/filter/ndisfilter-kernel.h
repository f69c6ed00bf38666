// The kernel and the framework's public interface, as every file of the driver sees them.
#pragma once

extern "C" {
#include <ntddk.h>

#include <ndis.h>

#include <stdarg.h>
#include <stdio.h>
}

#include "ndisfilter-layout.h"
#include "ndisfilter.h"
