// What a thread does on a processor at DISPATCH_LEVEL, and how others wait for its end.
#pragma once

#include <ntddk.h>

#include <atomic>
#include <cstdint>

namespace hook
{

struct HookState;

// The driver's state; null while it is not loaded.
extern std::atomic<HookState*> g_state;

// At DISPATCH_LEVEL a thread owns its processor, so depth needs no protection.
struct alignas(64) ProcessorUse {
    std::atomic<uint64_t> sequence{0}; // odd while a scope is open there
    uint32_t depth = 0; // scopes open there; they nest when a delivery leads back into the driver
};
extern ProcessorUse g_processorUse[MAXIMUM_PROCESSORS];

// Raises to DISPATCH_LEVEL and holds the driver's state and callbacks in place. Whoever takes one of them
// away stores null first and then calls WaitForProcessors: either the scope's seq_cst loads see the null, or
// the waiter sees the scope's sequence.
class ProcessorScope
{
  public:
    ProcessorScope() : oldIrql_(KeRaiseIrqlToDpcLevel()), number_(KeGetCurrentProcessorNumber())
    {
        ProcessorUse& use = g_processorUse[number_];
        if (use.depth++ == 0) {
            use.sequence.store(use.sequence.load(std::memory_order_relaxed) + 1, std::memory_order_seq_cst);
        }
    }
    ~ProcessorScope()
    {
        ProcessorUse& use = g_processorUse[number_];
        if (--use.depth == 0) {
            use.sequence.store(use.sequence.load(std::memory_order_relaxed) + 1, std::memory_order_release);
        }
        if (oldIrql_ < DISPATCH_LEVEL) {
            KeLowerIrql(oldIrql_);
        }
    }
    ProcessorScope(const ProcessorScope&) = delete;
    ProcessorScope& operator=(const ProcessorScope&) = delete;

    HookState* State() const { return g_state.load(std::memory_order_seq_cst); }
    uint32_t Number() const { return number_; }
    bool IsOutermost() const { return g_processorUse[number_].depth == 1; }
    bool MayWait() const { return oldIrql_ < DISPATCH_LEVEL; } // behind its end

  private:
    KIRQL oldIrql_;
    uint32_t number_;
};

// Waits until every scope open at this moment has been left. Not from inside a scope.
void WaitForProcessors();

// A counter that one processor writes and anybody reads.
inline void Add(std::atomic<uint64_t>& counter, uint64_t amount)
{
    counter.store(counter.load(std::memory_order_relaxed) + amount, std::memory_order_relaxed);
}

} // namespace hook
