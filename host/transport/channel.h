// What addresses and connections have in common: requests wait in lanes, one behind the other, until the
// socket lets them through.
#pragma once

#include "engine.h"
#include "request.h"

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace transport
{

enum class Kind { Tcp, Udp, RawIp };

// An open file of the transport.
class File
{
  public:
    explicit File(Kind kind) : kind_(kind) {}
    virtual ~File() = default;
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    // An internal device control. Completes the request, or marks it pending and answers STATUS_PENDING.
    virtual NTSTATUS Dispatch(IRP* irp) = 0;
    // The last handle is closed: nothing of the file is under way when it returns. PASSIVE_LEVEL.
    virtual void Cleanup() {}

    Kind TheKind() const { return kind_; }

  private:
    const Kind kind_;
};

// Requests are taken one at a time, by the sender's own thread where the lane is free and that thread runs
// below DISPATCH_LEVEL, by the engine's otherwise: so a completion routine that sends the next request never
// nests.
class Channel : public File, public Watcher, public std::enable_shared_from_this<Channel>
{
  public:
    explicit Channel(Kind kind);

    void OnReady() override;
    void Cleanup() override;

  protected:
    enum Lane { kConnect, kSend, kReceive, kFarewell, kLanes };

    // Does what the socket allows at the moment. Nothing: the request has to wait. Never called for two
    // requests of a lane at once.
    virtual std::optional<Result> Attempt(Lane lane, IRP* irp) = 0;
    // No request waits in the lane. On the engine's thread.
    virtual void OnIdle(Lane) {}
    // Waiting requests of the lane are taken off it without having been carried out; they are completed behind it.
    virtual void OnCancelled(Lane) {}

    // Hands a request to its lane. Answers what the dispatch routine answers.
    NTSTATUS Submit(Lane lane, IRP* irp);
    // Completes all that wait; false when there were none.
    bool Flush(Lane lane, NTSTATUS status);
    void Schedule() { TheEngine()->Schedule(shared_from_this()); }

    std::mutex mutex_; // for the lanes and for the state of the derived classes

  private:
    struct Queue {
        LIST_ENTRY requests;
        bool busy = false;  // somebody attempts a request
        bool again = false; // the socket changed or a request came meanwhile
    };

    static void OnCancel(DEVICE_OBJECT* device, IRP* irp);
    IRP* Take(Queue& queue);
    bool Park(Lane lane, IRP* irp, bool first);
    void Pump(Lane lane);
    void EndTurn(Queue& queue);

    Queue lanes_[kLanes];
    std::condition_variable rest_;
    bool closing_ = false;
};

} // namespace transport
