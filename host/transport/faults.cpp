#include "faults.h"

#include "machine.h"
#include "request.h"

#include <algorithm>
#include <array>
#include <vector>

using machine::TransportAnswer;
using machine::TransportRequest;

namespace transport
{
namespace
{

struct Plan {
    uint64_t left = 0; // requests of the kind until the one; 0: none is meant
    TransportAnswer answer = TransportAnswer::AtOnce;
    NTSTATUS status = STATUS_SUCCESS;
};

struct Held {
    IRP* irp;
    NTSTATUS status;
};

struct Plans {
    std::mutex mutex;
    std::array<Plan, static_cast<size_t>(TransportRequest::Count)> plans;
    std::vector<Held> held;
};

Plans& ThePlans()
{
    static Plans& plans = *new Plans; // never destroyed: other threads may still run at exit
    return plans;
}

std::array<std::atomic<uint64_t>, static_cast<size_t>(TransportRequest::Count)> g_requests;
std::atomic<bool> g_anyPlan{false};
std::atomic<bool> g_alwaysLater{false};

TransportRequest KindOf(IRP* irp)
{
    if (IoGetCurrentIrpStackLocation(irp)->MajorFunction == IRP_MJ_CREATE) {
        return TransportRequest::Create;
    }
    switch (MinorOf(irp)) {
    case TDI_ASSOCIATE_ADDRESS:
        return TransportRequest::Associate;
    case TDI_CONNECT:
        return TransportRequest::Connect;
    case TDI_DISCONNECT:
        return TransportRequest::Disconnect;
    case TDI_SEND:
        return TransportRequest::Send;
    case TDI_RECEIVE:
        return TransportRequest::Receive;
    case TDI_SEND_DATAGRAM:
        return TransportRequest::SendDatagram;
    case TDI_RECEIVE_DATAGRAM:
        return TransportRequest::ReceiveDatagram;
    case TDI_SET_EVENT_HANDLER:
        return TransportRequest::SetEventHandler;
    case TDI_QUERY_INFORMATION:
        return TransportRequest::Query;
    case TDI_SET_INFORMATION:
        return TransportRequest::Set;
    default:
        return TransportRequest::Count;
    }
}

std::optional<Plan> TakePlan(TransportRequest kind)
{
    if (kind == TransportRequest::Count) {
        return std::nullopt;
    }
    g_requests[static_cast<size_t>(kind)].fetch_add(1, std::memory_order_relaxed);
    if (!g_anyPlan.load(std::memory_order_relaxed)) {
        return std::nullopt;
    }
    Plans& plans = ThePlans();
    const std::lock_guard lock(plans.mutex);
    Plan& plan = plans.plans[static_cast<size_t>(kind)];
    if (plan.left == 0 || --plan.left != 0) {
        return std::nullopt;
    }
    return plan;
}

class LateAnswer : public Watcher
{
  public:
    LateAnswer(IRP* irp, NTSTATUS status) : irp_(irp), status_(status) {}
    void OnReady() override { Complete(irp_, {status_, 0}); }

  private:
    IRP* const irp_;
    const NTSTATUS status_;
};

void OnCancelHeld(DEVICE_OBJECT*, IRP* irp)
{
    IoReleaseCancelSpinLock(irp->CancelIrql);
    {
        Plans& plans = ThePlans();
        const std::lock_guard lock(plans.mutex);
        std::erase_if(plans.held, [irp](const Held& held) { return held.irp == irp; });
    }
    Complete(irp, {STATUS_CANCELLED, 0});
}

void Hold(IRP* irp, NTSTATUS status)
{
    Plans& plans = ThePlans();
    bool cancelled = false;
    {
        const std::lock_guard lock(plans.mutex);
        IoMarkIrpPending(irp);
        IoSetCancelRoutine(irp, OnCancelHeld);
        cancelled = irp->Cancel && IoSetCancelRoutine(irp, nullptr) != nullptr;
        if (!cancelled) {
            plans.held.push_back({irp, status});
        }
    }
    if (cancelled) {
        Complete(irp, {STATUS_CANCELLED, 0});
    }
}

} // namespace

bool AlwaysLater()
{
    return g_alwaysLater.load(std::memory_order_relaxed);
}

std::optional<NTSTATUS> AnswerOtherwise(IRP* irp)
{
    const std::optional<Plan> plan = TakePlan(KindOf(irp));
    if (!plan) {
        return std::nullopt;
    }
    switch (plan->answer) {
    case TransportAnswer::AtOnce:
        return Complete(irp, {plan->status, 0});
    case TransportAnswer::Twice: {
        Complete(irp, {plan->status, 0});
        const Raised raised;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        return plan->status;
    }
    case TransportAnswer::Later:
        IoMarkIrpPending(irp);
        TheEngine()->Schedule(std::make_shared<LateAnswer>(irp, plan->status));
        return STATUS_PENDING;
    default:
        Hold(irp, plan->status);
        return STATUS_PENDING;
    }
}

} // namespace transport

namespace machine
{

using namespace transport;

void AnswerTransportRequest(TransportRequest kind, uint64_t n, TransportAnswer answer, Status status)
{
    Plans& plans = ThePlans();
    const std::lock_guard lock(plans.mutex);
    plans.plans[static_cast<size_t>(kind)] = {n, answer, status};
    g_anyPlan = true;
}

size_t HeldTransportRequests()
{
    Plans& plans = ThePlans();
    const std::lock_guard lock(plans.mutex);
    return plans.held.size();
}

void ReleaseTransportRequests()
{
    Plans& plans = ThePlans();
    std::vector<Held> held;
    {
        const std::lock_guard lock(plans.mutex);
        // One whose cancel routine is gone is being cancelled and leaves the list by itself.
        std::erase_if(plans.held, [&](const Held& one) {
            const bool mine = IoSetCancelRoutine(one.irp, nullptr) != nullptr;
            if (mine) {
                held.push_back(one);
            }
            return mine;
        });
    }
    for (const Held& one : held) {
        Complete(one.irp, {one.status, 0});
    }
}

void CompleteTransportRequestsLater(bool on)
{
    g_alwaysLater = on;
}

void ClearTransportAnswers()
{
    Plans& plans = ThePlans();
    const std::lock_guard lock(plans.mutex);
    plans.plans = {};
    for (std::atomic<uint64_t>& count : g_requests) {
        count = 0;
    }
    g_anyPlan = false;
    g_alwaysLater = false;
}

uint64_t TransportRequests(TransportRequest kind)
{
    return g_requests[static_cast<size_t>(kind)];
}

} // namespace machine
