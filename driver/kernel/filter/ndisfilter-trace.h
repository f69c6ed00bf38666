// Debug output, and the wrapper that gives every exported function its trace lines and its exception guard.
#pragma once

#include "ndisfilter-atomic.h"
#include "ndisfilter-guard.h"

// Areas of the debug mask.
constexpr ULONG TRACE_ADAPTER = 0x1;
constexpr ULONG TRACE_HOOK = 0x2; // hook callbacks, capture log
constexpr ULONG TRACE_DRIVER = 0x4;
constexpr ULONG TRACE_EVENT = 0x10;
constexpr ULONG TRACE_FILTER = 0x20;
constexpr ULONG TRACE_INTERFACE = 0x40;
constexpr ULONG TRACE_IOCTL = 0x80;
constexpr ULONG TRACE_CORE = 0x100;
constexpr ULONG TRACE_PACKET = 0x200;
constexpr ULONG TRACE_SHARE = 0x400;
constexpr ULONG TRACE_SERVICE = 0x800;
constexpr ULONG TRACE_HASH = 0x1000;

// The debug mask: registry value of the same name.
extern volatile ULONG GlobalDebugFlag;

inline BOOLEAN TraceEnabled(ULONG area)
{
    return __builtin_expect((LoadRelaxed(GlobalDebugFlag) & area) != 0, 0);
}

template <class... Arguments> VOID Trace(ULONG area, PCSTR format, Arguments... arguments)
{
    if (TraceEnabled(area)) {
        DbgPrint(format, arguments...);
    }
}

// For the addresses of functions, which no conversion of the formatter is made for.
template <class Function>
PVOID AddressOf(Function* function)
{
    return reinterpret_cast<PVOID>(function);
}

inline PCSTR BooleanText(BOOLEAN value)
{
    return value ? "TRUE" : "FALSE";
}

inline VOID PrintException(PCSTR name, NTSTATUS code)
{
    DbgPrint("%s: exception, code = %d\n", name, code);
}

// For an exception that was taken inside a lock's scope: reports it as TracedCall does.
inline FILTER_STATUS ExceptionStatus(PCSTR name, NTSTATUS code)
{
    PrintException(name, code);
    return FILTER_ERROR_EXCEPTION;
}

// How a function announces its success.
enum class SuccessTrace {
    Leave,         // "Leave NAME, 0-FILTER_STATUS_SUCCESS"
    ErrorAndLeave, // the error line with 0, then the leave line
    ErrorOnly,     // the error line with 0 and no leave line
};

// What an exported function prints. `Enter` differs from "Enter NAME\n" where a function says more; it then gets
// `Subject` as its only argument. `Leave` prints the leave line of a function that has its own.
struct CallTrace {
    PCSTR Name;
    ULONG Area;
    PCSTR Enter = nullptr;
    PVOID Subject = nullptr;
    SuccessTrace Success = SuccessTrace::Leave;
    PCSTR ExceptionName = nullptr; // where the exception line carries another name
    VOID (*Leave)(FILTER_STATUS status, PVOID subject) = nullptr;
};

// They print whatever the mask says: the caller has looked at it.
VOID PrintError(FILTER_STATUS status);
VOID PrintEnter(const CallTrace& trace);
VOID PrintLeave(const CallTrace& trace, FILTER_STATUS status);

// The body of an exported function, as its guard runs it: with all it needs in one place.
template <class Body>
struct GuardedCall {
    Body Run;
    FILTER_STATUS Status;
};

template <class Body>
__attribute__((noinline)) VOID RunGuardedCall(PVOID context)
{
    GuardedCall<Body>& call = *static_cast<GuardedCall<Body>*>(context);
    call.Status = call.Run();
}

// Runs the body of an exported function, a callable that answers a FILTER_STATUS, inside an exception guard and
// between its trace lines. The body runs without destructors when it faults: see the guard. The trace is copied where
// it is needed, so that a call without trace lines does not build it.
template <class Body>
__attribute__((always_inline)) inline FILTER_STATUS TracedCall(const CallTrace& trace, const Body& body)
{
    GuardedCall<Body> call = {body, FILTER_ERROR_EXCEPTION};
    if (TraceEnabled(trace.Area)) {
        PrintEnter(CallTrace(trace));
    }
    const NTSTATUS code = CallGuarded(RunGuardedCall<Body>, &call);
    if (__builtin_expect(code != 0, 0)) {
        call.Status =
            ExceptionStatus(trace.ExceptionName != nullptr ? trace.ExceptionName : trace.Name, code);
    }
    if (TraceEnabled(trace.Area)) {
        PrintLeave(CallTrace(trace), call.Status);
    }
    return call.Status;
}
