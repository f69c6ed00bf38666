// Transport addresses: a local port with its event handlers; datagrams go through them directly.
#pragma once

#include "channel.h"

#include <array>
#include <functional>

namespace transport
{

class Address : public Channel
{
  public:
    // Opens the address that a TRANSPORT_ADDRESS of a create request names; `protocol` is that of a raw
    // address.
    static NTSTATUS Open(Kind kind, int protocol, const void* address, size_t length,
                         std::shared_ptr<Address>* result);
    explicit Address(Kind kind) : Channel(kind) {}

    NTSTATUS Dispatch(IRP* irp) override;
    void Cleanup() override;
    void OnReady() override;

    // A socket bound to the address, for a connection; null with errno set when the host has none.
    std::shared_ptr<Socket> TakeSocket();
    sockaddr_in LocalAddress() const { return local_; }

    // Calls the handler of an event, if there is one, at DISPATCH_LEVEL on the engine's thread. A handler
    // that is being replaced is not called any more once the request that replaces it has completed.
    template <class Handler, class Call>
    bool CallHandler(LONG event, const Call& call)
    {
        void* context = nullptr;
        const auto handler = reinterpret_cast<Handler>(BeginCall(event, &context));
        if (handler == nullptr) {
            return false;
        }
        {
            const Raised raised;
            call(handler, context);
        }
        EndCall();
        return true;
    }
    bool HasHandler(LONG event);

  private:
    struct EventHandler {
        void* routine = nullptr;
        void* context = nullptr;
    };

    std::optional<Result> Attempt(Lane lane, IRP* irp) override;
    void OnIdle(Lane lane) override;
    std::optional<Result> SendDatagram(IRP* irp);
    std::optional<Result> ReceiveDatagram(IRP* irp);
    bool IndicateDatagram(); // false: there is none, or nobody wants it
    void ReadErrors();
    void Accept();
    Result SetHandler(IRP* irp);
    Result Query(IRP* irp);
    void* BeginCall(LONG event, void** context);
    void EndCall();

    sockaddr_in local_ = {};
    std::shared_ptr<Socket> socket_; // of TCP: until a connection takes it
    bool listening_ = false;

    std::mutex handlersMutex_;
    std::condition_variable callsEnded_;
    std::array<EventHandler, TDI_EVENT_RECEIVE_EXPEDITED + 1> handlers_;
    int calls_ = 0;
};

} // namespace transport
