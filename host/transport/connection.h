// Connection endpoints of TCP.
#pragma once

#include "address.h"

namespace transport
{

class Connection : public Channel
{
  public:
    explicit Connection(void* context) : Channel(Kind::Tcp), context_(context) {}
    ~Connection() override;

    NTSTATUS Dispatch(IRP* irp) override;
    void Cleanup() override;

    // Gives a caller's socket to the endpoint that a TDI_ACCEPT request is for, and completes the request.
    static void Accept(std::shared_ptr<Socket> socket, IRP* request);

  private:
    enum class State { Idle, Connecting, Connected };

    std::optional<Result> Attempt(Lane lane, IRP* irp) override;
    void OnIdle(Lane lane) override;
    void OnCancelled(Lane lane) override;

    Result Associate(IRP* irp);
    Result Disassociate();
    NTSTATUS Disconnect(IRP* irp);
    Result Query(IRP* irp);
    Result Set(IRP* irp);
    std::optional<Result> Connect(IRP* irp);
    std::optional<Result> BeginConnect(IRP* irp);
    std::optional<Result> Send(IRP* irp);
    std::optional<Result> Receive(IRP* irp);
    std::optional<Result> Farewell();

    std::shared_ptr<Socket> Connected(Result* refusal);
    void Established(std::shared_ptr<Socket> socket);
    Result ShutDown();
    void RemoteClosed();
    NTSTATUS Fail(NTSTATUS status);
    void End();
    bool Indicate(const std::shared_ptr<Socket>& socket);
    void TellDisconnect();

    void* const context_; // the client's
    // All under the mutex.
    std::shared_ptr<Address> address_;
    State state_ = State::Idle;
    std::shared_ptr<Socket> socket_;
    bool localClosed_ = false;
    bool remoteClosed_ = false;
    bool told_ = true;                  // the client knows that the peer has disconnected
    NTSTATUS failure_ = STATUS_SUCCESS; // what ended the connection
    std::vector<UCHAR> leftover_;       // read from the socket, indicated, and not taken
    size_t leftoverBegin_ = 0;
    bool refused_ = false; // the client did not take what was indicated: it will ask
};

} // namespace transport
