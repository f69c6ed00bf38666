// Functions of the binding that a test wants to fail.
#include "hook-state.h"

#include <array>

namespace hook
{
namespace
{

constexpr size_t kFunctions = static_cast<size_t>(Function::Count);

struct Plan {
    std::array<std::atomic<uint64_t>, kFunctions> calls{};
    std::atomic<Function> function{Function::Count}; // the one that fails; Count: none
    std::atomic<uint64_t> call{0};                   // which of its calls, counted like `calls`
    std::atomic<Failure> how{Failure::Answered};
    std::atomic<bool> hit{false};
};
Plan g_plan;

// Counts the call. True when it is the one that fails.
bool Fails(Function function)
{
    const uint64_t call = ++g_plan.calls[static_cast<size_t>(function)];
    if (g_plan.function != function || g_plan.call != call) {
        return false;
    }
    g_plan.hit = true;
    return true;
}

// What a function answers that fails.
template <class Answer>
Answer FailureOf(Function)
{
    return Answer(); // nothing, or null
}
template <>
ULONG FailureOf(Function) // of deliveries, and of the version
{
    return static_cast<ULONG>(NDIS_STATUS_FAILURE);
}
template <>
NTSTATUS FailureOf(Function function)
{
    return function == Function::MakeNdisRequest ? NDIS_STATUS_FAILURE : STATUS_INSUFFICIENT_RESOURCES;
}

void FailMapping(PMDL, ULONG, MappedMemory* mapped)
{
    mapped->m_pUserModeVirtualAddress = 0;
}

// What has to be done also when a call fails: a packet is taken over, what is freed or unmapped is gone.
template <Function kFunction, class Answer, class... Arguments>
void DoAllTheSame(Answer (*function)(Arguments...), Arguments... arguments)
{
    if constexpr (kFunction == Function::FreePacket || kFunction == Function::FreeRequest ||
                  kFunction == Function::MmUnmapLockedPages) {
        function(arguments...);
    } else if constexpr (kFunction == Function::GetTcpIpBoundAdapters) {
        if (g_plan.how == Failure::Answered) {
            function(arguments...);
        }
    } else if constexpr (kFunction == Function::InjectPacketToAdapter ||
                         kFunction == Function::InjectPacketToProtocol) {
        RefusePacket(arguments...);
    } else if constexpr (kFunction == Function::MmMapLockedPages) {
        FailMapping(arguments...);
    }
}

// Behind a function of the record.
template <Function kFunction, class Type>
struct Watched;
template <Function kFunction, class Answer, class... Arguments>
struct Watched<kFunction, Answer (*)(Arguments...)> {
    static inline Answer (*function)(Arguments...) = nullptr;

    static Answer Call(Arguments... arguments)
    {
        if (!Fails(kFunction)) {
            return function(arguments...);
        }
        DoAllTheSame<kFunction>(function, arguments...);
        if (g_plan.how == Failure::Raised) {
            ExRaiseStatus(STATUS_ACCESS_VIOLATION);
        }
        return FailureOf<Answer>(kFunction);
    }
};

template <Function kFunction, class Type>
void Put(Type& field)
{
    if (field != nullptr) {
        Watched<kFunction, Type>::function = field;
        field = &Watched<kFunction, Type>::Call;
    }
}

} // namespace

void Watch(NdisHookAPI& api)
{
    Put<Function::GetOsVersion>(api.Hook_GetOsVersion);
    Put<Function::HandleIoControl>(api.Hook_HandleIoControl);
    Put<Function::AllocatePacket>(api.Hook_AllocatePacket);
    Put<Function::FreePacket>(api.Hook_FreePacket);
    Put<Function::InjectPacketToAdapter>(api.Hook_InjectPacketToAdapter);
    Put<Function::InjectPacketToProtocol>(api.Hook_InjectPacketToProtocol);
    Put<Function::AllocateRequest>(api.Hook_AllocateRequest);
    Put<Function::MakeNdisRequest>(api.Hook_MakeNdisRequest);
    Put<Function::FreeRequest>(api.Hook_FreeRequest);
    Put<Function::SetAdapterStatus>(api.Hook_SetAdapterStatus);
    Put<Function::GetAdapterStatus>(api.Hook_GetAdapterStatus);
    Put<Function::GetTcpIpBoundAdapters>(api.Hook_GetTcpIpBoundAdapters);
    Put<Function::MmMapLockedPages>(api.Hook_MmMapLockedPages);
    Put<Function::MmUnmapLockedPages>(api.Hook_MmUnmapLockedPages);
}

void FailCall(Function function, uint64_t n, Failure how)
{
    g_plan.function = Function::Count;
    g_plan.hit = false;
    g_plan.how = how;
    g_plan.call = CallsOf(function) + n;
    g_plan.function = function;
}

void ClearFaults()
{
    g_plan.function = Function::Count;
    g_plan.hit = false;
    for (std::atomic<uint64_t>& calls : g_plan.calls) {
        calls = 0;
    }
}

uint64_t CallsOf(Function function)
{
    return g_plan.calls[static_cast<size_t>(function)];
}

bool FaultHit()
{
    return g_plan.hit;
}

} // namespace hook
