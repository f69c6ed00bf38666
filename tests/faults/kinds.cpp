#include "kinds.h"

#include <hook/virtual-adapters.h>
#include <machine.h>

#include <algorithm>

using machine::TransportAnswer;

namespace faults
{
namespace
{

constexpr const char* kKernel[] = {"pool",    "lookaside", "mdl",        "lock-pages", "map-pages",
                                   "thread",  "device",    "link",       "registry",   "file",
                                   "request", "object",    "ndis-packet"};
constexpr const char* kHook[] = {"GetOsVersion",     "HandleIoControl",       "AllocatePacket",
                                 "FreePacket",       "InjectPacketToAdapter", "InjectPacketToProtocol",
                                 "AllocateRequest",  "MakeNdisRequest",       "FreeRequest",
                                 "SetAdapterStatus", "GetAdapterStatus",      "GetTcpIpBoundAdapters",
                                 "MmMapLockedPages", "MmUnmapLockedPages"};
constexpr const char* kTransport[] = {
    "Create",  "Associate",    "SetEventHandler", "Connect", "Disconnect", "Send",
    "Receive", "SendDatagram", "ReceiveDatagram", "Query",   "Set"};
constexpr size_t kKernelKinds = std::size(kKernel);
constexpr size_t kHookKinds = 2 * std::size(kHook);
constexpr size_t kTransportKinds = 2 * std::size(kTransport);
static_assert(kKernelKinds == static_cast<size_t>(machine::Fault::Count));
static_assert(std::size(kHook) == static_cast<size_t>(hook::Function::Count));
static_assert(std::size(kTransport) == static_cast<size_t>(machine::TransportRequest::Count));

constexpr machine::Status kNoResources = static_cast<machine::Status>(0xC000009A);

machine::Fault KernelKind(size_t kind)
{
    return static_cast<machine::Fault>(kind);
}

bool IsHookKind(size_t kind)
{
    return kind >= kKernelKinds && kind < kKernelKinds + kHookKinds;
}

hook::Function FunctionOf(size_t kind)
{
    return static_cast<hook::Function>((kind - kKernelKinds) / 2);
}

machine::TransportRequest RequestOf(size_t kind)
{
    return static_cast<machine::TransportRequest>((kind - kKernelKinds - kHookKinds) / 2);
}

bool IsSecondWay(size_t kind) // raised, later
{
    return (kind - kKernelKinds) % 2 != 0;
}

} // namespace

size_t KindCount()
{
    return kKernelKinds + kHookKinds + kTransportKinds;
}

bool IsKernelKind(size_t kind)
{
    return kind < kKernelKinds;
}

std::string NameOf(size_t kind)
{
    if (IsKernelKind(kind)) {
        return kKernel[kind];
    }
    if (IsHookKind(kind)) {
        return std::string("hook-") + kHook[static_cast<size_t>(FunctionOf(kind))] +
               (IsSecondWay(kind) ? "-raised" : "");
    }
    return std::string("transport-") + kTransport[static_cast<size_t>(RequestOf(kind))] +
           (IsSecondWay(kind) ? "-later" : "");
}

size_t KindNamed(const std::string& name)
{
    size_t kind = 0;
    while (kind < KindCount() && NameOf(kind) != name) {
        ++kind;
    }
    return kind;
}

uint64_t CallsOf(size_t kind)
{
    if (IsHookKind(kind) && IsSecondWay(kind) && FunctionOf(kind) == hook::Function::MmUnmapLockedPages) {
        return 0; // the one call of the hook driver that the framework does not guard: a contract
    }
    return IsKernelKind(kind) ? machine::FaultCalls(KernelKind(kind))
           : IsHookKind(kind) ? hook::CallsOf(FunctionOf(kind))
                              : machine::TransportRequests(RequestOf(kind));
}

void Arm(const std::vector<Point>& points)
{
    for (size_t i = 0; i < points.size(); ++i) {
        const auto [kind, n] = points[i];
        if (IsHookKind(kind)) {
            hook::FailCall(FunctionOf(kind), n,
                           IsSecondWay(kind) ? hook::Failure::Raised : hook::Failure::Answered);
        } else if (!IsKernelKind(kind)) {
            machine::AnswerTransportRequest(
                RequestOf(kind), n, IsSecondWay(kind) ? TransportAnswer::Later : TransportAnswer::AtOnce,
                kNoResources);
        } else if (i + 1 < points.size() && points[i + 1].kind == kind) {
            machine::FailCalls(KernelKind(kind), n, points[++i].n);
        } else {
            machine::FailCall(KernelKind(kind), n);
        }
    }
}

bool IsHit(const Point& point)
{
    return IsKernelKind(point.kind) ? machine::FaultHit(KernelKind(point.kind))
           : IsHookKind(point.kind) ? hook::FaultHit()
                                    : machine::TransportRequests(RequestOf(point.kind)) >= point.n;
}

void DisarmAll()
{
    machine::ClearFaults();
    machine::ClearTransportAnswers();
    hook::ClearFaults();
}

std::vector<std::string> TraceOf(const Point& point)
{
    std::vector<std::string> trace;
    if (IsKernelKind(point.kind)) {
        trace = machine::FaultTrace(KernelKind(point.kind));
        const auto own = [](const std::string& name) { return name.find("6faults") != std::string::npos; };
        trace.erase(std::find_if(trace.begin(), trace.end(), own),
                    trace.end()); // the scenario, and who runs it
    }
    return trace;
}

} // namespace faults
