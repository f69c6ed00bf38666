// Exception guards. HostCallGuarded costs a call and leaves nothing behind for the case of a fault: as on Windows, the
// fault handler finds the innermost guard by unwinding the stack with the tables that compilers write for every
// function, and puts the faulting context back into it.
//
// The thread sanitizer keeps its own record of calls and signal masks, which only sigsetjmp and siglongjmp
// restore; its build uses those.
#include "guard.h"
#include "sanitizer.h"
#include "verifier.h"

#include <hostguard.h>
#include <ntddk.h>

#include <csetjmp>
#include <csignal>
#include <cstdlib>
#include <ucontext.h>
#include <unwind.h>

namespace
{

struct sigaction g_previous[NSIG];

NTSTATUS CodeOf(int signal)
{
    switch (signal) {
    case SIGFPE:
        return STATUS_INTEGER_DIVIDE_BY_ZERO;
    case SIGILL:
        return STATUS_ILLEGAL_INSTRUCTION;
    case SIGBUS:
        return STATUS_IN_PAGE_ERROR;
    default:
        return STATUS_ACCESS_VIOLATION;
    }
}

// Lets the fault happen again, now under the action that was set before: a core dump or the sanitizer's
// report.
void PassOn(int signal, const siginfo_t* info)
{
    sigaction(signal, &g_previous[signal], nullptr);
    if (info->si_code <= 0) // sent by a process, it would not happen again
        raise(signal);
}

} // namespace

#ifdef KERNEL_TSAN

namespace
{

struct Guard {
    Guard* outer;
    sigjmp_buf jump;
    volatile NTSTATUS code;
};

__thread Guard* t_guard;

// Returns when there is no guard.
void JumpToGuard(NTSTATUS code)
{
    if (t_guard == nullptr)
        return;
    t_guard->code = code;
    siglongjmp(t_guard->jump, 1);
}

void HandleFault(int signal, siginfo_t* info, void*)
{
    if (info->si_code > 0)
        JumpToGuard(CodeOf(signal));
    PassOn(signal, info);
}

} // namespace

NTSTATUS HostCallGuarded(void* context, void (*routine)(void*))
{
    Guard guard;
    guard.outer = t_guard;
    guard.code = 0;
    if (sigsetjmp(guard.jump, 1) == 0) {
        t_guard = &guard;
        routine(context);
    }
    t_guard = guard.outer;
    return guard.code;
}

void kernel::ForgetGuards()
{
    t_guard = nullptr;
}

#else

namespace
{

// What a guard needs to go on: the registers that a callee keeps and its stack pointer. host_guard_resume knows the
// order.
struct GuardFrame {
    uint64_t rbx, rbp, r12, r13, r14, r15, rsp;
};

} // namespace

extern "C" {
// Where the guarded routine returns to, and where an exception goes on: its code in eax, the stack as at the return.
__attribute__((visibility("hidden"))) extern char host_guard_return[];
__attribute__((visibility("hidden"))) extern char host_guard_recover[];
__attribute__((visibility("hidden"), noreturn)) void host_guard_resume(const GuardFrame* frame,
                                                                       NTSTATUS code);
}

asm(R"(
    .text
    .p2align 4
    .globl HostCallGuarded
    .type HostCallGuarded, @function
HostCallGuarded:
    .cfi_startproc
    subq $8, %rsp
    .cfi_adjust_cfa_offset 8
    call *%rsi
    .globl host_guard_return
    .hidden host_guard_return
host_guard_return:
    xorl %eax, %eax
    .globl host_guard_recover
    .hidden host_guard_recover
host_guard_recover:
    addq $8, %rsp
    .cfi_adjust_cfa_offset -8
    ret
    .cfi_endproc
    .size HostCallGuarded, . - HostCallGuarded

    .globl host_guard_resume
    .hidden host_guard_resume
    .type host_guard_resume, @function
host_guard_resume:
    movl %esi, %eax
    movq (%rdi), %rbx
    movq 8(%rdi), %rbp
    movq 16(%rdi), %r12
    movq 24(%rdi), %r13
    movq 32(%rdi), %r14
    movq 40(%rdi), %r15
    movq 48(%rdi), %rsp
    jmp host_guard_recover
    .size host_guard_resume, . - host_guard_resume
)");

namespace
{

_Unwind_Reason_Code LookForGuard(_Unwind_Context* context, void* found)
{
    const uintptr_t instruction = _Unwind_GetIP(context),
                    guard = reinterpret_cast<uintptr_t>(host_guard_return);
    if (instruction != guard && instruction != guard - 1) // within its call: see ReturnFromNowhere
        return _URC_NO_REASON;
    // The numbers of the System V ABI for x86-64.
    *static_cast<GuardFrame*>(found) = {
        .rbx = _Unwind_GetGR(context, 3),
        .rbp = _Unwind_GetGR(context, 6),
        .r12 = _Unwind_GetGR(context, 12),
        .r13 = _Unwind_GetGR(context, 13),
        .r14 = _Unwind_GetGR(context, 14),
        .r15 = _Unwind_GetGR(context, 15),
        .rsp = _Unwind_GetCFA(context),
    };
    return _URC_NORMAL_STOP;
}

// The innermost guard among the callers. A fault handler's callers are those of the faulting instruction.
bool FindGuard(GuardFrame* frame)
{
    frame->rsp = 0;
    _Unwind_Backtrace(LookForGuard, frame);
    return frame->rsp != 0;
}

// A call to where there is no code faults in no function at all; such a context is put back into its call, the last byte
// of which has the same tables.
void ReturnFromNowhere(greg_t* registers)
{
    if (_Unwind_FindEnclosingFunction(reinterpret_cast<void*>(registers[REG_RIP] + 1)) != nullptr)
        return;
    registers[REG_RIP] = *reinterpret_cast<const greg_t*>(registers[REG_RSP]) - 1;
    registers[REG_RSP] += 8;
}

// Returns when there is no guard.
void JumpToGuard(NTSTATUS code)
{
    GuardFrame frame;
    if (!FindGuard(&frame))
        return;
    kernel::AbandonFrames();
    host_guard_resume(&frame, code);
}

void HandleFault(int signal, siginfo_t* info, void* context)
{
    greg_t* registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
    const greg_t instruction = registers[REG_RIP], stack = registers[REG_RSP];
    if (info->si_code <= 0)
        return PassOn(signal, info);
    ReturnFromNowhere(registers);
    GuardFrame frame;
    if (!FindGuard(&frame)) {
        registers[REG_RIP] = instruction;
        registers[REG_RSP] = stack;
        return PassOn(signal, info);
    }
    kernel::AbandonFrames();
    constexpr greg_t kDirectionFlag = 0x400, kAlignmentCheckFlag = 0x40000;
    registers[REG_RBX] = static_cast<greg_t>(frame.rbx);
    registers[REG_RBP] = static_cast<greg_t>(frame.rbp);
    registers[REG_R12] = static_cast<greg_t>(frame.r12);
    registers[REG_R13] = static_cast<greg_t>(frame.r13);
    registers[REG_R14] = static_cast<greg_t>(frame.r14);
    registers[REG_R15] = static_cast<greg_t>(frame.r15);
    registers[REG_RSP] = static_cast<greg_t>(frame.rsp);
    registers[REG_RAX] = static_cast<greg_t>(static_cast<ULONG>(CodeOf(signal)));
    registers[REG_RIP] = reinterpret_cast<greg_t>(host_guard_recover);
    registers[REG_EFL] &= ~(kDirectionFlag | kAlignmentCheckFlag);
}

} // namespace

void kernel::ForgetGuards() {}

#endif

namespace
{

// SA_ONSTACK: a sanitizer's threads have a stack of their own for signals, which reports of stack overflows
// need.
__attribute__((constructor)) void InstallFaultHandlers()
{
    struct sigaction action = {};
    action.sa_sigaction = HandleFault;
    action.sa_flags = SA_SIGINFO | SA_NODEFER | SA_ONSTACK;
    for (int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL})
        sigaction(signal, &action, &g_previous[signal]);
}

} // namespace

VOID ExRaiseStatus(NTSTATUS Status)
{
    JumpToGuard(Status);
    kernel::Report("unhandled-exception", "ExRaiseStatus", "status %08X", static_cast<ULONG>(Status));
    abort();
}

VOID ExRaiseAccessViolation(VOID)
{
    ExRaiseStatus(STATUS_ACCESS_VIOLATION);
}
