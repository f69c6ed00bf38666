#include "address.h"

#include "connection.h"
#include "statistics.h"

#include <cerrno>
#include <cstring>

#include <linux/errqueue.h>
#include <sys/socket.h>

namespace transport
{
namespace
{

constexpr size_t kMaxDatagram = 65535;
constexpr int kDatagramBuffer = 4 * 1024 * 1024; // of the socket, as far as the host grants it

int NewSocket(Kind kind, int protocol)
{
    constexpr int kFlags = SOCK_NONBLOCK | SOCK_CLOEXEC;
    switch (kind) {
    case Kind::Tcp:
        return socket(AF_INET, SOCK_STREAM | kFlags, 0);
    case Kind::Udp:
        return socket(AF_INET, SOCK_DGRAM | kFlags, 0);
    default:
        return socket(AF_INET, SOCK_RAW | kFlags, protocol);
    }
}

void SetOption(int socket, int level, int name, int value)
{
    setsockopt(socket, level, name, &value, sizeof(value));
}

// Bound to `local`, whose port is filled in. Null with errno set.
std::shared_ptr<Socket> NewBoundSocket(Kind kind, int protocol, sockaddr_in* local)
{
    const int descriptor = NewSocket(kind, protocol);
    if (descriptor < 0) {
        return nullptr;
    }
    auto result = std::make_shared<Socket>(descriptor);
    if (kind == Kind::Tcp && local->sin_port != 0) {
        // More than one connection of an address, and connections of a former one that linger.
        SetOption(descriptor, SOL_SOCKET, SO_REUSEADDR, 1);
    } else if (kind != Kind::Tcp) {
        SetOption(descriptor, SOL_SOCKET, SO_RCVBUF, kDatagramBuffer);
        SetOption(descriptor, IPPROTO_IP, IP_RECVERR, 1);
    }
    socklen_t length = sizeof(*local);
    if (bind(descriptor, reinterpret_cast<sockaddr*>(local), length) != 0) {
        return nullptr;
    }
    getsockname(descriptor, reinterpret_cast<sockaddr*>(local), &length);
    if (kind == Kind::Tcp) {
        SetOption(descriptor, SOL_SOCKET, SO_REUSEADDR, 1);
    }
    return result;
}

} // namespace

NTSTATUS Address::Open(Kind kind, int protocol, const void* transportAddress, size_t length,
                       std::shared_ptr<Address>* result)
{
    std::optional<sockaddr_in> local = ToSocketAddress(transportAddress, length);
    if (!local) {
        return STATUS_INVALID_ADDRESS_COMPONENT;
    }
    if (CheckLoopback(&*local) != STATUS_SUCCESS) {
        return STATUS_INVALID_ADDRESS_COMPONENT; // it is none of this computer's that may be used
    }
    auto address = std::make_shared<Address>(kind);
    address->socket_ = NewBoundSocket(kind, protocol, &*local);
    if (address->socket_ == nullptr) {
        return StatusOfError(errno);
    }
    address->local_ = *local;
    if (kind != Kind::Tcp) {
        address->socket_->Watch(address);
    }
    *result = std::move(address);
    return STATUS_SUCCESS;
}

std::shared_ptr<Socket> Address::TakeSocket()
{
    {
        const std::lock_guard lock(mutex_);
        if (socket_ != nullptr && !listening_) {
            return std::move(socket_);
        }
    }
    sockaddr_in local = local_;
    return NewBoundSocket(TheKind(), 0, &local);
}

// Nobody calls the handlers any more, and the port is free.
void Address::Cleanup()
{
    {
        std::unique_lock lock(handlersMutex_);
        handlers_ = {};
        callsEnded_.wait(lock, [this] { return calls_ == 0; });
    }
    Channel::Cleanup();
    const std::lock_guard lock(mutex_);
    socket_.reset();
}

// --------------------------------------------------------------------------------------------------- requests

NTSTATUS Address::Dispatch(IRP* irp)
{
    const bool datagrams = TheKind() != Kind::Tcp;
    switch (MinorOf(irp)) {
    case TDI_SEND_DATAGRAM:
        return datagrams ? Submit(kSend, irp) : Complete(irp, {STATUS_INVALID_DEVICE_REQUEST, 0});
    case TDI_RECEIVE_DATAGRAM:
        return datagrams ? Submit(kReceive, irp) : Complete(irp, {STATUS_INVALID_DEVICE_REQUEST, 0});
    case TDI_SET_EVENT_HANDLER:
        return Complete(irp, SetHandler(irp));
    case TDI_QUERY_INFORMATION:
        return Complete(irp, Query(irp));
    default:
        return Complete(irp, {STATUS_INVALID_DEVICE_REQUEST, 0});
    }
}

Result Address::Query(IRP* irp)
{
    if (ParametersOf<TDI_REQUEST_KERNEL_QUERY_INFORMATION>(irp).QueryType != TDI_QUERY_ADDRESS_INFO) {
        return QueryProvider(TheKind(), irp);
    }
    struct {
        ULONG activityCount = 1;
        TA_IP_ADDRESS address;
    } answer;
    answer.address = ToTransportAddress(local_);
    return Answer(irp, &answer, sizeof(answer.activityCount) + sizeof(answer.address));
}

std::optional<Result> Address::Attempt(Lane lane, IRP* irp)
{
    return lane == kSend ? SendDatagram(irp) : ReceiveDatagram(irp);
}

std::optional<Result> Address::SendDatagram(IRP* irp)
{
    const auto& parameters = ParametersOf<TDI_REQUEST_KERNEL_SENDDG>(irp);
    const TDI_CONNECTION_INFORMATION* to = parameters.SendDatagramInformation;
    std::optional<sockaddr_in> remote;
    if (to != nullptr && to->RemoteAddressLength > 0) {
        remote = ToSocketAddress(to->RemoteAddress, static_cast<size_t>(to->RemoteAddressLength));
    }
    if (!remote) {
        return Result{STATUS_INVALID_ADDRESS_COMPONENT, 0};
    }
    if (const NTSTATUS status = CheckLoopback(&*remote); status != STATUS_SUCCESS) {
        return Result{status, 0};
    }
    if (TheKind() == Kind::RawIp) {
        remote->sin_port = 0;
    }
    Memory memory(irp, 0, parameters.SendLength);
    if (!memory.IsMapped()) {
        return Result{STATUS_INSUFFICIENT_RESOURCES, 0};
    }
    if (memory.Size() != parameters.SendLength) {
        return Result{STATUS_INVALID_PARAMETER,
                      0}; // longer than its memory, or in too many pieces for a datagram
    }
    msghdr message = {};
    message.msg_name = &*remote;
    message.msg_namelen = sizeof(*remote);
    message.msg_iov = memory.Parts();
    message.msg_iovlen = memory.Count();
    ssize_t sent = sendmsg(socket_->Descriptor(), &message, MSG_NOSIGNAL);
    if (sent < 0 && errno == ECONNREFUSED) {
        sent =
            sendmsg(socket_->Descriptor(), &message, MSG_NOSIGNAL); // that was the error of a former datagram
    }
    if (sent < 0) {
        return errno == EAGAIN ? std::nullopt : std::optional(Result{StatusOfError(errno), 0});
    }
    Statistics& statistics = StatisticsOf(TheKind());
    ++statistics.datagramsSent;
    statistics.datagramBytesSent += static_cast<uint64_t>(sent);
    return Result{STATUS_SUCCESS, static_cast<ULONG_PTR>(sent)};
}

std::optional<Result> Address::ReceiveDatagram(IRP* irp)
{
    const auto& parameters = ParametersOf<TDI_REQUEST_KERNEL_RECEIVEDG>(irp);
    Memory memory(irp, 0, parameters.ReceiveLength);
    if (!memory.IsMapped()) {
        return Result{STATUS_INSUFFICIENT_RESOURCES, 0};
    }
    sockaddr_in source = {};
    msghdr message = {};
    message.msg_name = &source;
    message.msg_namelen = sizeof(source);
    message.msg_iov = memory.Parts();
    message.msg_iovlen = memory.Count();
    ssize_t received;
    do {
        received = recvmsg(socket_->Descriptor(), &message, 0);
    } while (received < 0 && errno == ECONNREFUSED); // of a former datagram; ReadErrors reports it
    if (received < 0) {
        return errno == EAGAIN ? std::nullopt : std::optional(Result{StatusOfError(errno), 0});
    }
    Statistics& statistics = StatisticsOf(TheKind());
    ++statistics.datagramsReceived;
    statistics.datagramBytesReceived += static_cast<uint64_t>(received);
    TDI_CONNECTION_INFORMATION* from = parameters.ReturnDatagramInformation;
    if (from != nullptr) {
        const TA_IP_ADDRESS address = ToTransportAddress(source);
        if (from->RemoteAddress != nullptr &&
            from->RemoteAddressLength >= static_cast<LONG>(sizeof(address))) {
            std::memcpy(from->RemoteAddress, &address, sizeof(address));
            from->RemoteAddressLength = sizeof(address);
        }
    }
    const bool cut = (message.msg_flags & MSG_TRUNC) != 0;
    return Result{cut ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS, static_cast<ULONG_PTR>(received)};
}

// ----------------------------------------------------------------------------------------------------- events

Result Address::SetHandler(IRP* irp)
{
    const auto& parameters = ParametersOf<TDI_REQUEST_KERNEL_SET_EVENT>(irp);
    if (parameters.EventType < 0 || parameters.EventType >= static_cast<LONG>(handlers_.size())) {
        return {STATUS_INVALID_PARAMETER, 0};
    }
    {
        std::unique_lock lock(handlersMutex_);
        handlers_[static_cast<size_t>(parameters.EventType)] = {parameters.EventHandler,
                                                                parameters.EventContext};
        if (!TheEngine()->IsThisThread()) {
            callsEnded_.wait(lock, [this] { return calls_ == 0; });
        }
    }
    if (TheKind() == Kind::Tcp && parameters.EventType == TDI_EVENT_CONNECT &&
        parameters.EventHandler != nullptr) {
        const std::lock_guard lock(mutex_);
        if (socket_ == nullptr) {
            sockaddr_in local = local_;
            socket_ = NewBoundSocket(Kind::Tcp, 0, &local);
        }
        if (socket_ == nullptr || (!listening_ && listen(socket_->Descriptor(), SOMAXCONN) != 0)) {
            return {StatusOfError(errno), 0};
        }
        if (!listening_) {
            listening_ = true;
            socket_->Watch(std::static_pointer_cast<Address>(shared_from_this()));
        }
    }
    Schedule(); // there may be something to tell already
    return {};
}

void* Address::BeginCall(LONG event, void** context)
{
    const std::lock_guard lock(handlersMutex_);
    const EventHandler& handler = handlers_[static_cast<size_t>(event)];
    if (handler.routine != nullptr) {
        ++calls_;
        *context = handler.context;
    }
    return handler.routine;
}

void Address::EndCall()
{
    const std::lock_guard lock(handlersMutex_);
    --calls_;
    callsEnded_.notify_all();
}

bool Address::HasHandler(LONG event)
{
    const std::lock_guard lock(handlersMutex_);
    return handlers_[static_cast<size_t>(event)].routine != nullptr;
}

void Address::OnReady()
{
    if (TheKind() == Kind::Tcp) {
        Accept();
        return;
    }
    ReadErrors();
    Channel::OnReady();
}

void Address::OnIdle(Lane lane)
{
    if (lane == kReceive && TheKind() != Kind::Tcp) {
        while (IndicateDatagram()) {
        }
    }
}

// One that nobody receives stays in the socket, until that is full.
bool Address::IndicateDatagram()
{
    if (!HasHandler(TDI_EVENT_RECEIVE_DATAGRAM)) {
        return false;
    }
    static thread_local UCHAR buffer[kMaxDatagram];
    std::shared_ptr<Socket> socket;
    {
        const std::lock_guard lock(mutex_);
        socket = socket_;
    }
    sockaddr_in source = {};
    socklen_t length = sizeof(source);
    const ssize_t received = socket != nullptr ? recvfrom(socket->Descriptor(), buffer, sizeof(buffer), 0,
                                                          reinterpret_cast<sockaddr*>(&source), &length)
                                               : -1;
    if (received < 0) {
        return socket != nullptr && errno == ECONNREFUSED;
    }
    Statistics& statistics = StatisticsOf(TheKind());
    ++statistics.datagramsReceived;
    statistics.datagramBytesReceived += static_cast<uint64_t>(received);
    TA_IP_ADDRESS from = ToTransportAddress(source);
    const auto bytes = static_cast<ULONG>(received);
    CallHandler<PTDI_IND_RECEIVE_DATAGRAM>(TDI_EVENT_RECEIVE_DATAGRAM, [&](auto handler, void* context) {
        ULONG taken = 0;
        IRP* request = nullptr;
        const NTSTATUS status =
            handler(context, sizeof(from), &from, 0, nullptr, TDI_RECEIVE_NORMAL | TDI_RECEIVE_COPY_LOOKAHEAD,
                    bytes, bytes, &taken, buffer, &request);
        if (status == STATUS_MORE_PROCESSING_REQUIRED && request != nullptr) {
            const size_t rest = taken < bytes ? bytes - taken : 0;
            Memory memory(request, 0, ParametersOf<TDI_REQUEST_KERNEL_RECEIVEDG>(request).ReceiveLength);
            const size_t copied = memory.CopyIn(buffer + (bytes - rest), rest);
            Complete(request, {copied < rest ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS, copied});
        }
    });
    return true;
}

// What the network said of datagrams sent before: nobody listens at that port.
void Address::ReadErrors()
{
    for (;;) {
        std::shared_ptr<Socket> socket;
        {
            const std::lock_guard lock(mutex_);
            socket = socket_;
        }
        UCHAR data[1];
        alignas(cmsghdr) UCHAR control[512];
        iovec part = {data, sizeof(data)};
        msghdr message = {};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        if (socket == nullptr || recvmsg(socket->Descriptor(), &message, MSG_ERRQUEUE) < 0) {
            return;
        }
        for (cmsghdr* one = CMSG_FIRSTHDR(&message); one != nullptr; one = CMSG_NXTHDR(&message, one)) {
            if (one->cmsg_level == IPPROTO_IP && one->cmsg_type == IP_RECVERR) {
                sock_extended_err error;
                std::memcpy(&error, CMSG_DATA(one), sizeof(error));
                const NTSTATUS status = error.ee_errno == ECONNREFUSED
                                            ? STATUS_PORT_UNREACHABLE
                                            : StatusOfError(static_cast<int>(error.ee_errno));
                CallHandler<PTDI_IND_ERROR>(TDI_EVENT_ERROR,
                                            [&](auto handler, void* context) { handler(context, status); });
            }
        }
    }
}

// Every caller is shown to the client, which accepts with a request for one of its connections; others are
// reset.
void Address::Accept()
{
    for (;;) {
        std::shared_ptr<Socket> listener;
        {
            const std::lock_guard lock(mutex_);
            listener = listening_ ? socket_ : nullptr;
        }
        sockaddr_in remote = {};
        socklen_t length = sizeof(remote);
        const int descriptor = listener != nullptr
                                   ? accept4(listener->Descriptor(), reinterpret_cast<sockaddr*>(&remote),
                                             &length, SOCK_NONBLOCK | SOCK_CLOEXEC)
                                   : -1;
        if (descriptor < 0) {
            return;
        }
        auto socket = std::make_shared<Socket>(descriptor);
        TA_IP_ADDRESS from = ToTransportAddress(remote);
        IRP* request = nullptr;
        CallHandler<PTDI_IND_CONNECT>(TDI_EVENT_CONNECT, [&](auto handler, void* context) {
            CONNECTION_CONTEXT connection = nullptr;
            const NTSTATUS status =
                handler(context, sizeof(from), &from, 0, nullptr, 0, nullptr, &connection, &request);
            request = status == STATUS_MORE_PROCESSING_REQUIRED ? request : nullptr;
        });
        if (request == nullptr) {
            socket->ResetOnClose();
        } else {
            Connection::Accept(std::move(socket), request);
        }
    }
}

} // namespace transport
