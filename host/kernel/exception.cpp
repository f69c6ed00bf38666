// Exception guards. HostCallGuarded is a small routine in assembly that saves the registers a callee must
// keep and links its frame into the thread's guards. A fault handler puts the stack pointer and the
// instruction pointer of the faulting context back to the innermost frame, so that recovery does not depend
// on how the faulting code was built.
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

[[noreturn]] void JumpToGuard(NTSTATUS code)
{
    t_guard->code = code;
    siglongjmp(t_guard->jump, 1);
}

void HandleFault(int signal, siginfo_t* info, void*)
{
    if (t_guard == nullptr || info->si_code <= 0)
        return PassOn(signal, info);
    JumpToGuard(CodeOf(signal));
}

bool IsGuarded()
{
    return t_guard != nullptr;
}

} // namespace

NTSTATUS HostCallGuarded(void (*routine)(void*), void* context)
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

extern "C" {
// The innermost guard's frame: the stack pointer under which the outer guard's frame is saved.
__attribute__((used, visibility("hidden"), tls_model("initial-exec"))) __thread void* host_guard_frame;
__attribute__((visibility("hidden"))) extern char host_guard_recover[];
__attribute__((visibility("hidden"), noreturn)) void host_guard_raise(NTSTATUS code);
}

asm(R"(
    .text
    .p2align 4
    .globl HostCallGuarded
    .type HostCallGuarded, @function
HostCallGuarded:
    .cfi_startproc
    pushq %rbp
    .cfi_adjust_cfa_offset 8
    .cfi_rel_offset %rbp, 0
    pushq %rbx
    .cfi_adjust_cfa_offset 8
    .cfi_rel_offset %rbx, 0
    pushq %r12
    .cfi_adjust_cfa_offset 8
    .cfi_rel_offset %r12, 0
    pushq %r13
    .cfi_adjust_cfa_offset 8
    .cfi_rel_offset %r13, 0
    pushq %r14
    .cfi_adjust_cfa_offset 8
    .cfi_rel_offset %r14, 0
    pushq %r15
    .cfi_adjust_cfa_offset 8
    .cfi_rel_offset %r15, 0
    movq host_guard_frame@gottpoff(%rip), %rdx
    pushq %fs:(%rdx)
    .cfi_adjust_cfa_offset 8
    movq %rsp, %fs:(%rdx)
    movq %rdi, %rax
    movq %rsi, %rdi
    call *%rax
    xorl %eax, %eax
    movq host_guard_frame@gottpoff(%rip), %rdx
    popq %fs:(%rdx)
    .cfi_adjust_cfa_offset -8
    .cfi_remember_state
    addq $48, %rsp
    .cfi_adjust_cfa_offset -48
    ret

    # The code of the exception comes in eax, the frame in rsp.
    .globl host_guard_recover
    .hidden host_guard_recover
host_guard_recover:
    .cfi_restore_state
    .cfi_adjust_cfa_offset 8
    movq host_guard_frame@gottpoff(%rip), %rdx
    popq %fs:(%rdx)
    .cfi_adjust_cfa_offset -8
    popq %r15
    .cfi_adjust_cfa_offset -8
    popq %r14
    .cfi_adjust_cfa_offset -8
    popq %r13
    .cfi_adjust_cfa_offset -8
    popq %r12
    .cfi_adjust_cfa_offset -8
    popq %rbx
    .cfi_adjust_cfa_offset -8
    popq %rbp
    .cfi_adjust_cfa_offset -8
    ret
    .cfi_endproc
    .size HostCallGuarded, . - HostCallGuarded

    .globl host_guard_raise
    .hidden host_guard_raise
    .type host_guard_raise, @function
host_guard_raise:
    movl %edi, %eax
    movq host_guard_frame@gottpoff(%rip), %rdx
    movq %fs:(%rdx), %rsp
    jmp host_guard_recover
    .size host_guard_raise, . - host_guard_raise
)");

namespace
{

[[noreturn]] void JumpToGuard(NTSTATUS code)
{
    kernel::AbandonFrames();
    host_guard_raise(code);
}

void HandleFault(int signal, siginfo_t* info, void* context)
{
    if (host_guard_frame == nullptr || info->si_code <= 0)
        return PassOn(signal, info);
    kernel::AbandonFrames();
    constexpr greg_t kDirectionFlag = 0x400, kAlignmentCheckFlag = 0x40000;
    greg_t* registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
    registers[REG_RAX] = static_cast<greg_t>(static_cast<ULONG>(CodeOf(signal)));
    registers[REG_RSP] = reinterpret_cast<greg_t>(host_guard_frame);
    registers[REG_RIP] = reinterpret_cast<greg_t>(host_guard_recover);
    registers[REG_EFL] &= ~(kDirectionFlag | kAlignmentCheckFlag);
}

bool IsGuarded()
{
    return host_guard_frame != nullptr;
}

} // namespace

void kernel::ForgetGuards()
{
    host_guard_frame = nullptr;
}

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
    if (!IsGuarded()) {
        kernel::Report("unhandled-exception", "ExRaiseStatus", "status %08X", static_cast<ULONG>(Status));
        abort();
    }
    JumpToGuard(Status);
}

VOID ExRaiseAccessViolation(VOID)
{
    ExRaiseStatus(STATUS_ACCESS_VIOLATION);
}
