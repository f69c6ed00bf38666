#include "kinds.h"

#include <support/faults.h>

#include <hook/virtual-adapters.h>
#include <machine.h>

#include <algorithm>

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
static_assert(std::size(kKernel) == static_cast<size_t>(machine::Fault::Count));
static_assert(std::size(kHook) == static_cast<size_t>(hook::Function::Count));
static_assert(std::size(kTransport) == static_cast<size_t>(machine::TransportRequest::Count));

constexpr auto kNoResources = static_cast<machine::Status>(0xC000009A);
constexpr auto kOdd = static_cast<machine::Status>(0xC0001234); // no transport of this world answers that

machine::Fault KernelKind(size_t kind)
{
    return static_cast<machine::Fault>(kind);
}

int64_t ToldOf(machine::Fault fault)
{
    using machine::Fault;
    return fault == Fault::LockPages  ? support::kAccessViolation
           : fault == Fault::MapPages ? 0 // also told by no address
                                      : kNoResources;
}

std::vector<Kind> MakeKinds()
{
    std::vector<Kind> kinds;
    for (size_t i = 0; i < std::size(kKernel); ++i) {
        const machine::Fault fault = KernelKind(i);
        kinds.push_back({kKernel[i], [=] { return machine::FaultCalls(fault); },
                         [=](uint64_t n) { machine::FailCall(fault, n); },
                         [=](uint64_t) { return machine::FaultHit(fault); }, ToldOf(fault)});
    }
    for (size_t i = 0; i < std::size(kHook); ++i) {
        const auto function = static_cast<hook::Function>(i);
        for (const hook::Failure failure : {hook::Failure::Answered, hook::Failure::Raised}) {
            const bool raised = failure == hook::Failure::Raised;
            // The one call of the hook driver that the framework does not guard: a contract.
            const bool never = raised && function == hook::Function::MmUnmapLockedPages;
            kinds.push_back({std::string("hook-") + kHook[i] + (raised ? "-raised" : ""),
                             [=] { return never ? 0 : hook::CallsOf(function); },
                             [=](uint64_t n) { hook::FailCall(function, n, failure); },
                             [](uint64_t) { return hook::FaultHit(); }, 0});
        }
    }
    for (size_t i = 0; i < std::size(kTransport); ++i) {
        const auto request = static_cast<machine::TransportRequest>(i);
        for (const auto when : {machine::TransportAnswer::AtOnce, machine::TransportAnswer::Later}) {
            const bool later = when == machine::TransportAnswer::Later;
            kinds.push_back({std::string("transport-") + kTransport[i] + (later ? "-later" : ""),
                             [=] { return machine::TransportRequests(request); },
                             [=](uint64_t n) { machine::AnswerTransportRequest(request, n, when, kOdd); },
                             [=](uint64_t n) { return machine::TransportRequests(request) >= n; }, kOdd});
        }
    }
    return kinds;
}

} // namespace

const std::vector<Kind>& Kinds()
{
    static const std::vector<Kind> kinds = MakeKinds();
    return kinds;
}

bool IsKernelKind(size_t kind)
{
    return kind < std::size(kKernel);
}

void Arm(const std::vector<Point>& points)
{
    if (points.size() == 2 && points[0].kind == points[1].kind) {
        machine::FailCalls(KernelKind(points[0].kind), points[0].n, points[1].n);
        return;
    }
    for (const auto [kind, n] : points) {
        Kinds()[kind].fail(n);
    }
}

void DisarmAll()
{
    machine::ClearFaults();
    machine::ClearTransportAnswers();
    hook::ClearFaults();
}

std::vector<std::string> TraceOf(const Point& point)
{
    if (!IsKernelKind(point.kind)) {
        return {};
    }
    std::vector<std::string> trace = machine::FaultTrace(KernelKind(point.kind));
    const auto own = [](const std::string& name) { return name.find("6faults") != std::string::npos; };
    trace.erase(std::find_if(trace.begin(), trace.end(), own), trace.end()); // the scenario, and who runs it
    return trace;
}

} // namespace faults
