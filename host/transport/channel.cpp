#include "channel.h"

#include "faults.h"

namespace transport
{
namespace
{

constexpr int kTurn = 64; // requests of a lane, until others have their turn

IRP* RequestOf(LIST_ENTRY* entry)
{
    return CONTAINING_RECORD(entry, IRP, Tail.Overlay.ListEntry);
}

void*& OwnerOf(IRP* irp)
{
    return irp->Tail.Overlay.DriverContext[0];
}

size_t& LaneOf(IRP* irp)
{
    return reinterpret_cast<size_t&>(irp->Tail.Overlay.DriverContext[2]);
}

} // namespace

Channel::Channel(Kind kind) : File(kind)
{
    for (Queue& queue : lanes_) {
        InitializeListHead(&queue.requests);
    }
}

// The first request whose cancel routine could be taken back; one that is being cancelled belongs to that
// routine.
IRP* Channel::Take(Queue& queue)
{
    for (LIST_ENTRY* entry = queue.requests.Flink; entry != &queue.requests; entry = entry->Flink) {
        IRP* irp = RequestOf(entry);
        if (IoSetCancelRoutine(irp, nullptr) != nullptr) {
            RemoveEntryList(entry);
            return irp;
        }
    }
    return nullptr;
}

// False: it was cancelled before it could be, and is the caller's to complete.
bool Channel::Park(Lane lane, IRP* irp, bool first)
{
    LaneOf(irp) = lane;
    Queue& queue = lanes_[lane];
    (first ? InsertHeadList : InsertTailList)(&queue.requests, &irp->Tail.Overlay.ListEntry);
    IoSetCancelRoutine(irp, OnCancel);
    if ((irp->Cancel || closing_) && IoSetCancelRoutine(irp, nullptr) != nullptr) {
        RemoveEntryList(&irp->Tail.Overlay.ListEntry);
        return false;
    }
    return true;
}

void Channel::OnCancel(DEVICE_OBJECT*, IRP* irp)
{
    IoReleaseCancelSpinLock(irp->CancelIrql);
    // Cleanup waits for the lane to be empty, so the channel is still there.
    const std::shared_ptr<Channel> channel = static_cast<Channel*>(OwnerOf(irp))->shared_from_this();
    const auto lane = static_cast<Lane>(LaneOf(irp));
    {
        const std::lock_guard lock(channel->mutex_);
        RemoveEntryList(&irp->Tail.Overlay.ListEntry);
        channel->rest_.notify_all();
    }
    channel->OnCancelled(lane);
    Complete(irp, {STATUS_CANCELLED, 0});
}

void Channel::EndTurn(Queue& queue)
{
    queue.busy = false;
    rest_.notify_all();
    if (queue.again) {
        Schedule();
    }
}

NTSTATUS Channel::Submit(Lane lane, IRP* irp)
{
    Queue& queue = lanes_[lane];
    OwnerOf(irp) = this;
    ProgressOf(irp) = 0;
    std::unique_lock lock(mutex_);
    bool first = false;
    if (KeGetCurrentIrql() < DISPATCH_LEVEL && !AlwaysLater() && !closing_ && !queue.busy &&
        IsListEmpty(&queue.requests)) {
        queue.busy = true;
        queue.again = false;
        lock.unlock();
        const std::optional<Result> result = Attempt(lane, irp);
        if (result) {
            Complete(irp, *result);
        }
        lock.lock();
        if (result) {
            EndTurn(queue);
            return result->status;
        }
        first = true;
    }
    IoMarkIrpPending(irp);
    const bool parked = Park(lane, irp, first);
    if (first) {
        EndTurn(queue);
    } else if (queue.busy) {
        queue.again = true;
    } else {
        Schedule();
    }
    lock.unlock();
    if (!parked) {
        OnCancelled(lane);
        Complete(irp, {STATUS_CANCELLED, 0});
    }
    return STATUS_PENDING;
}

void Channel::Pump(Lane lane)
{
    Queue& queue = lanes_[lane];
    std::unique_lock lock(mutex_);
    if (queue.busy) {
        queue.again = true;
        return;
    }
    queue.busy = true;
    int left = kTurn;
    do {
        queue.again = false;
        for (IRP* irp = Take(queue); irp != nullptr; irp = Take(queue)) {
            lock.unlock();
            std::optional<Result> result = Attempt(lane, irp);
            lock.lock();
            if (!result && Park(lane, irp, true)) {
                break;
            }
            lock.unlock();
            if (!result) {
                OnCancelled(lane);
            }
            Complete(irp, result.value_or(Result{STATUS_CANCELLED, 0}));
            lock.lock();
            if (--left == 0) {
                queue.again = true;
                break;
            }
        }
        if (left > 0 && IsListEmpty(&queue.requests)) {
            lock.unlock();
            OnIdle(lane);
            lock.lock();
        }
    } while (queue.again && left > 0);
    EndTurn(queue);
}

void Channel::OnReady()
{
    for (const Lane lane : {kConnect, kSend, kReceive, kFarewell}) {
        Pump(lane);
    }
}

bool Channel::Flush(Lane lane, NTSTATUS status)
{
    std::vector<IRP*> taken;
    {
        const std::lock_guard lock(mutex_);
        while (IRP* irp = Take(lanes_[lane])) {
            taken.push_back(irp);
        }
        rest_.notify_all();
    }
    if (!taken.empty()) {
        OnCancelled(lane);
    }
    for (IRP* irp : taken) {
        Complete(irp, {status, 0});
    }
    return !taken.empty();
}

void Channel::Cleanup()
{
    {
        const std::lock_guard lock(mutex_);
        closing_ = true;
    }
    for (const Lane lane : {kConnect, kSend, kReceive, kFarewell}) {
        Flush(lane, STATUS_CANCELLED);
    }
    std::unique_lock lock(mutex_);
    rest_.wait(lock, [this] {
        for (const Queue& queue : lanes_) {
            if (queue.busy || !IsListEmpty(&queue.requests)) {
                return false;
            }
        }
        return true;
    });
}

} // namespace transport
