// The exception guard of the host: what a __try/__except block is on Windows.
#pragma once

#include <ntdef.h>

EXTERN_C_START

// Calls routine(context). Answers 0 when it returned, else the code of the exception that ended it: a status
// raised with ExRaiseStatus or ExRaiseAccessViolation, or the code of a fault (0xC0000005 access violation,
// 0xC0000006 in-page error, 0xC0000094 integer division by zero, 0xC000001D illegal instruction). The frames
// below the guard are abandoned: their destructors do not run. Guards nest; the innermost guard of the thread
// takes the exception. A fault outside any guard ends the process as if there were no guards, and so does one in
// code that was built without unwind tables. Any IRQL; the IRQL is not restored.
NTSTATUS HostCallGuarded(void* context, void (*routine)(void* context));

EXTERN_C_END
