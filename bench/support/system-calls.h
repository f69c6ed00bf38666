// Tells whether the calling thread makes system calls, by having the kernel hand them back to it (Linux 5.11).
#pragma once

#include <csignal>

#include <sys/prctl.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

namespace bench
{

class SystemCallWatch
{
  public:
    SystemCallWatch()
    {
        struct sigaction action = {};
        action.sa_sigaction = HandBack;
        action.sa_flags = SA_SIGINFO;
        works_ = sigaction(SIGSYS, &action, nullptr) == 0 &&
                 prctl(kSetDispatch, kDispatchOn, 0, 0, &selector_) == 0;
    }
    ~SystemCallWatch() { prctl(kSetDispatch, kDispatchOff, 0, 0, 0); }
    SystemCallWatch(const SystemCallWatch&) = delete;
    SystemCallWatch& operator=(const SystemCallWatch&) = delete;

    bool Works() const { return works_; }
    template <class Action>
    bool MakesSystemCalls(const Action& action)
    {
        selector_ = kBlock;
        action();
        const bool made = selector_ == kAllow;
        selector_ = kAllow;
        return made;
    }

  private:
    // Of linux/prctl.h, which older headers lack.
    static constexpr int kSetDispatch = 59;
    static constexpr unsigned long kDispatchOff = 0;
    static constexpr unsigned long kDispatchOn = 1;
    static constexpr char kAllow = 0;
    static constexpr char kBlock = 1;

    // Makes the call in the thread's place, and lets it make those that follow itself.
    static void HandBack(int, siginfo_t*, void* context)
    {
        selector_ = kAllow;
        greg_t* const registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
        register greg_t r10 asm("r10") = registers[REG_R10];
        register greg_t r8 asm("r8") = registers[REG_R8];
        register greg_t r9 asm("r9") = registers[REG_R9];
        greg_t result = registers[REG_RAX];
        asm volatile("syscall"
                     : "+a"(result)
                     : "D"(registers[REG_RDI]), "S"(registers[REG_RSI]), "d"(registers[REG_RDX]), "r"(r10),
                       "r"(r8), "r"(r9)
                     : "rcx", "r11", "memory");
        registers[REG_RAX] = result;
    }

    static inline volatile char selector_ = kAllow; // one thread at a time
    bool works_ = false;
};

} // namespace bench
