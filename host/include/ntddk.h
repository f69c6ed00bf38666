// What a driver includes: the executive (wdm.h) and the I/O manager. Names, signatures and meaning are those
// of the Windows driver kit; only what drivers here use is present.
#pragma once

#include <wdm.h>
#include <ntio.h>
