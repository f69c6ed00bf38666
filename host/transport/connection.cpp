#include "connection.h"

#include "statistics.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <netinet/tcp.h>
#include <sys/socket.h>

namespace transport
{
namespace
{

constexpr size_t kLookahead = 65536; // indicated at once

Statistics& Counters()
{
    return StatisticsOf(Kind::Tcp);
}

int PendingError(int socket)
{
    int error = 0;
    socklen_t length = sizeof(error);
    getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &length);
    return error;
}

bool HasPeer(int socket)
{
    sockaddr_in peer;
    socklen_t length = sizeof(peer);
    return getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &length) == 0;
}

} // namespace

Connection::~Connection()
{
    if (state_ == State::Connected) {
        --Counters().openConnections;
    }
}

NTSTATUS Connection::Dispatch(IRP* irp)
{
    switch (MinorOf(irp)) {
    case TDI_ASSOCIATE_ADDRESS:
        return Complete(irp, Associate(irp));
    case TDI_DISASSOCIATE_ADDRESS:
        return Complete(irp, Disassociate());
    case TDI_CONNECT:
        return Submit(kConnect, irp);
    case TDI_DISCONNECT:
        return Disconnect(irp);
    case TDI_SEND:
        return Submit(kSend, irp);
    case TDI_RECEIVE:
        return Submit(kReceive, irp);
    case TDI_QUERY_INFORMATION:
        return Complete(irp, Query(irp));
    case TDI_SET_INFORMATION:
        return Complete(irp, Set(irp));
    default:
        return Complete(irp, {STATUS_INVALID_DEVICE_REQUEST, 0});
    }
}

// A connection that the client did not disconnect is reset.
void Connection::Cleanup()
{
    Channel::Cleanup();
    const std::lock_guard lock(mutex_);
    if (socket_ != nullptr && !localClosed_) {
        socket_->ResetOnClose();
    }
    if (state_ == State::Connected) {
        --Counters().openConnections;
    }
    state_ = State::Idle;
    socket_.reset();
    address_.reset();
}

// ------------------------------------------------------------------------------------------------ associating

Result Connection::Associate(IRP* irp)
{
    const HANDLE handle = ParametersOf<TDI_REQUEST_KERNEL_ASSOCIATE>(irp).AddressHandle;
    FILE_OBJECT* file = nullptr;
    const NTSTATUS status = ObReferenceObjectByHandle(handle, 0, *IoFileObjectType, KernelMode,
                                                      reinterpret_cast<void**>(&file), nullptr);
    if (!NT_SUCCESS(status)) {
        return {status, 0};
    }
    std::shared_ptr<Address> address;
    const bool isAddress = reinterpret_cast<uintptr_t>(file->FsContext2) == TDI_TRANSPORT_ADDRESS_FILE;
    if (isAddress && file->DeviceObject == IoGetCurrentIrpStackLocation(irp)->DeviceObject) {
        address = std::static_pointer_cast<Address>(*static_cast<std::shared_ptr<File>*>(file->FsContext));
    }
    ObDereferenceObject(file);
    if (address == nullptr) {
        return {STATUS_INVALID_HANDLE, 0};
    }
    const std::lock_guard lock(mutex_);
    if (address_ != nullptr) {
        return {STATUS_ADDRESS_ALREADY_ASSOCIATED, 0};
    }
    address_ = std::move(address);
    return {};
}

Result Connection::Disassociate()
{
    const std::lock_guard lock(mutex_);
    if (address_ == nullptr) {
        return {STATUS_ADDRESS_NOT_ASSOCIATED, 0};
    }
    if (state_ != State::Idle) {
        return {STATUS_CONNECTION_ACTIVE, 0};
    }
    address_.reset();
    return {};
}

// ------------------------------------------------------------------------------------------------- connecting

std::optional<Result> Connection::BeginConnect(IRP* irp)
{
    const TDI_CONNECTION_INFORMATION* to =
        ParametersOf<TDI_REQUEST_KERNEL_CONNECT>(irp).RequestConnectionInformation;
    std::optional<sockaddr_in> remote;
    if (to != nullptr && to->RemoteAddressLength > 0) {
        remote = ToSocketAddress(to->RemoteAddress, static_cast<size_t>(to->RemoteAddressLength));
    }
    if (!remote || remote->sin_port == 0) {
        return Result{STATUS_INVALID_ADDRESS_COMPONENT, 0};
    }
    if (const NTSTATUS status = CheckLoopback(&*remote); status != STATUS_SUCCESS) {
        return Result{status, 0};
    }
    std::shared_ptr<Address> address;
    {
        const std::lock_guard lock(mutex_);
        if (state_ != State::Idle) {
            return Result{STATUS_CONNECTION_ACTIVE, 0};
        }
        address = address_;
    }
    if (address == nullptr) {
        return Result{STATUS_ADDRESS_NOT_ASSOCIATED, 0};
    }
    std::shared_ptr<Socket> socket = address->TakeSocket();
    if (socket == nullptr) {
        return Result{StatusOfError(errno), 0};
    }
    const bool done =
        connect(socket->Descriptor(), reinterpret_cast<const sockaddr*>(&*remote), sizeof(*remote)) == 0;
    if (!done && errno != EINPROGRESS) {
        ++Counters().connectFailures;
        return Result{StatusOfError(errno), 0};
    }
    if (done) {
        Established(std::move(socket));
        return Result{};
    }
    const std::lock_guard lock(mutex_);
    state_ = State::Connecting;
    socket_ = socket;
    socket->Watch(std::static_pointer_cast<Connection>(shared_from_this()));
    return std::nullopt;
}

std::optional<Result> Connection::Connect(IRP* irp)
{
    std::shared_ptr<Socket> socket;
    {
        const std::lock_guard lock(mutex_);
        socket = state_ == State::Connecting ? socket_ : nullptr;
    }
    if (socket == nullptr) {
        return BeginConnect(irp);
    }
    if (const int error = PendingError(socket->Descriptor()); error != 0) {
        ++Counters().connectFailures;
        const std::lock_guard lock(mutex_);
        state_ = State::Idle;
        socket_.reset();
        return Result{StatusOfError(error), 0};
    }
    if (!HasPeer(socket->Descriptor())) {
        return std::nullopt;
    }
    Established(std::move(socket));
    return Result{};
}

void Connection::Established(std::shared_ptr<Socket> socket)
{
    const int on = 1;
    setsockopt(socket->Descriptor(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    ++Counters().connections;
    ++Counters().openConnections;
    bool watched;
    {
        const std::lock_guard lock(mutex_);
        watched = state_ == State::Connecting;
        state_ = State::Connected;
        socket_ = socket;
        localClosed_ = false;
        remoteClosed_ = false;
        told_ = false;
        failure_ = STATUS_SUCCESS;
        leftover_ = {};
        leftoverBegin_ = 0;
        refused_ = false;
    }
    if (!watched) {
        socket->Watch(std::static_pointer_cast<Connection>(shared_from_this()));
    }
}

void Connection::OnCancelled(Lane lane)
{
    if (lane == kConnect) {
        ++Counters().cancelledConnections;
        const std::lock_guard lock(mutex_);
        if (state_ == State::Connecting) {
            state_ = State::Idle;
            socket_.reset();
        }
    }
}

void Connection::Accept(std::shared_ptr<Socket> socket, IRP* request)
{
    const FILE_OBJECT* file = IoGetCurrentIrpStackLocation(request)->FileObject;
    NTSTATUS status = STATUS_INVALID_CONNECTION;
    if (reinterpret_cast<uintptr_t>(file->FsContext2) == TDI_CONNECTION_FILE) {
        const auto connection =
            std::static_pointer_cast<Connection>(*static_cast<std::shared_ptr<File>*>(file->FsContext));
        bool idle;
        {
            const std::lock_guard lock(connection->mutex_);
            idle = connection->state_ == State::Idle && connection->address_ != nullptr;
        }
        if (idle) {
            connection->Established(socket);
            status = STATUS_SUCCESS;
        }
    }
    if (status != STATUS_SUCCESS) {
        socket->ResetOnClose();
    }
    Complete(request, {status, 0});
}

// ------------------------------------------------------------------------------------------------ moving data

std::optional<Result> Connection::Attempt(Lane lane, IRP* irp)
{
    switch (lane) {
    case kConnect:
        return Connect(irp);
    case kSend:
        return MinorOf(irp) == TDI_DISCONNECT ? ShutDown() : Send(irp);
    case kReceive:
        return Receive(irp);
    default:
        return Farewell();
    }
}

std::shared_ptr<Socket> Connection::Connected(Result* refusal)
{
    const std::lock_guard lock(mutex_);
    if (failure_ != STATUS_SUCCESS) {
        refusal->status = failure_;
        return nullptr;
    }
    refusal->status = STATUS_INVALID_CONNECTION;
    return state_ == State::Connected ? socket_ : nullptr;
}

std::optional<Result> Connection::Send(IRP* irp)
{
    const auto& parameters = ParametersOf<TDI_REQUEST_KERNEL_SEND>(irp);
    Result result;
    const std::shared_ptr<Socket> socket = Connected(&result);
    if (socket == nullptr || (parameters.SendFlags & TDI_SEND_EXPEDITED) != 0) {
        return socket != nullptr ? Result{STATUS_NOT_SUPPORTED, 0} : result;
    }
    {
        const std::lock_guard lock(mutex_);
        if (localClosed_) {
            return Result{STATUS_INVALID_CONNECTION, 0};
        }
    }
    size_t& sent = ProgressOf(irp);
    while (sent < parameters.SendLength) {
        Memory memory(irp, sent, parameters.SendLength - sent);
        if (!memory.IsMapped()) {
            return Result{STATUS_INSUFFICIENT_RESOURCES, sent};
        }
        if (memory.Size() == 0) {
            return Result{STATUS_INVALID_PARAMETER, sent}; // longer than its memory
        }
        msghdr message = {};
        message.msg_iov = memory.Parts();
        message.msg_iovlen = memory.Count();
        const ssize_t count = sendmsg(socket->Descriptor(), &message, MSG_NOSIGNAL);
        if (count < 0) {
            return errno == EAGAIN ? std::nullopt : std::optional(Result{Fail(StatusOfError(errno)), sent});
        }
        sent += static_cast<size_t>(count);
        Counters().bytesSent += static_cast<uint64_t>(count);
    }
    ++Counters().sends;
    if ((parameters.SendFlags & TDI_SEND_AND_DISCONNECT) != 0) {
        ShutDown();
    }
    return Result{STATUS_SUCCESS, sent};
}

std::optional<Result> Connection::Receive(IRP* irp)
{
    const size_t length = ParametersOf<TDI_REQUEST_KERNEL_RECEIVE>(irp).ReceiveLength;
    Memory memory(irp, 0, length);
    if (!memory.IsMapped()) {
        return Result{STATUS_INSUFFICIENT_RESOURCES, 0};
    }
    Result result;
    std::shared_ptr<Socket> socket;
    {
        const std::lock_guard lock(mutex_);
        refused_ = false;
        if (leftoverBegin_ < leftover_.size()) {
            const size_t copied =
                memory.CopyIn(leftover_.data() + leftoverBegin_, leftover_.size() - leftoverBegin_);
            leftoverBegin_ += copied;
            if (leftoverBegin_ == leftover_.size()) {
                leftover_ = {};
                leftoverBegin_ = 0;
            }
            return Result{STATUS_SUCCESS, copied};
        }
        if (remoteClosed_) {
            return Result{STATUS_GRACEFUL_DISCONNECT, 0};
        }
    }
    socket = Connected(&result);
    if (socket == nullptr || memory.Size() == 0) {
        return socket != nullptr ? Result{} : result;
    }
    msghdr message = {};
    message.msg_iov = memory.Parts();
    message.msg_iovlen = memory.Count();
    const ssize_t count = recvmsg(socket->Descriptor(), &message, 0);
    if (count < 0) {
        return errno == EAGAIN ? std::nullopt : std::optional(Result{Fail(StatusOfError(errno)), 0});
    }
    if (count == 0) {
        RemoteClosed();
        return Result{STATUS_GRACEFUL_DISCONNECT, 0};
    }
    ++Counters().receives;
    Counters().bytesReceived += static_cast<uint64_t>(count);
    return Result{STATUS_SUCCESS, static_cast<ULONG_PTR>(count)};
}

// ---------------------------------------------------------------------------------------------- disconnecting

NTSTATUS Connection::Disconnect(IRP* irp)
{
    const ULONG_PTR flags = ParametersOf<TDI_REQUEST_KERNEL_DISCONNECT>(irp).RequestFlags;
    if ((flags & TDI_DISCONNECT_WAIT) != 0) {
        return Submit(kFarewell, irp);
    }
    if ((flags & TDI_DISCONNECT_ABORT) == 0) {
        return Submit(kSend, irp); // behind the data
    }
    if (Flush(kConnect, STATUS_CONNECTION_ABORTED)) {
        return Complete(irp, {});
    }
    Result result;
    if (const std::shared_ptr<Socket> socket = Connected(&result); socket != nullptr) {
        socket->ResetOnClose();
        {
            const std::lock_guard lock(mutex_);
            told_ = true; // the client itself did it
        }
        ++Counters().localDisconnects;
        Fail(STATUS_CONNECTION_ABORTED);
        result.status = STATUS_SUCCESS;
    }
    return Complete(irp, result);
}

Result Connection::ShutDown()
{
    Result result;
    const std::shared_ptr<Socket> socket = Connected(&result);
    if (socket == nullptr) {
        return result;
    }
    bool both;
    {
        const std::lock_guard lock(mutex_);
        if (localClosed_) {
            return {STATUS_INVALID_CONNECTION, 0};
        }
        localClosed_ = true;
        both = remoteClosed_;
    }
    shutdown(socket->Descriptor(), SHUT_WR);
    ++Counters().localDisconnects;
    if (both) {
        End();
    }
    return {};
}

// Waits for the peer.
std::optional<Result> Connection::Farewell()
{
    const std::lock_guard lock(mutex_);
    if (failure_ != STATUS_SUCCESS) {
        return Result{failure_, 0};
    }
    if (remoteClosed_) {
        return Result{};
    }
    return state_ == State::Connected ? std::nullopt : std::optional(Result{STATUS_INVALID_CONNECTION, 0});
}

void Connection::RemoteClosed()
{
    bool both;
    {
        const std::lock_guard lock(mutex_);
        if (remoteClosed_) {
            return;
        }
        remoteClosed_ = true;
        both = localClosed_;
    }
    ++Counters().remoteDisconnects;
    if (both) {
        End();
    }
    Schedule(); // the client is told on the engine's thread
}

// The connection is over at once, whatever is under way. Answers what ended it: a former failure stays.
NTSTATUS Connection::Fail(NTSTATUS status)
{
    {
        const std::lock_guard lock(mutex_);
        if (failure_ != STATUS_SUCCESS) {
            return failure_;
        }
        failure_ = status;
    }
    End();
    Flush(kSend, status);
    Flush(kReceive, status);
    Flush(kFarewell, status);
    Schedule();
    return status;
}

void Connection::End()
{
    std::shared_ptr<Socket> socket;
    const std::lock_guard lock(mutex_);
    if (state_ == State::Connected) {
        --Counters().openConnections;
        state_ = State::Idle;
        socket = std::move(socket_);
    }
}

// ----------------------------------------------------------------------------------------------------- events

void Connection::OnIdle(Lane lane)
{
    if (lane != kReceive) {
        return;
    }
    Result ignored;
    for (;;) {
        const std::shared_ptr<Socket> socket = Connected(&ignored);
        {
            const std::lock_guard lock(mutex_);
            if (refused_ || leftoverBegin_ < leftover_.size()) {
                return;
            }
            if (socket == nullptr || remoteClosed_) {
                break;
            }
        }
        if (!Indicate(socket)) {
            break;
        }
    }
    TellDisconnect();
}

// Shows the client what has come in, or sees that the peer has disconnected. False when there is no more.
bool Connection::Indicate(const std::shared_ptr<Socket>& socket)
{
    static thread_local UCHAR buffer[kLookahead];
    std::shared_ptr<Address> address;
    {
        const std::lock_guard lock(mutex_);
        address = address_;
    }
    const bool wanted = address != nullptr && address->HasHandler(TDI_EVENT_RECEIVE);
    const ssize_t count =
        recv(socket->Descriptor(), buffer, wanted ? sizeof(buffer) : 1, wanted ? 0 : MSG_PEEK);
    if (count < 0) {
        if (errno != EAGAIN) {
            Fail(StatusOfError(errno));
        }
        return false;
    }
    if (count == 0) {
        RemoteClosed();
        return false;
    }
    if (!wanted) {
        return false;
    }
    Counters().bytesReceived += static_cast<uint64_t>(count);
    ++Counters().receives;
    const auto bytes = static_cast<ULONG>(count);
    ULONG taken = 0;
    IRP* request = nullptr;
    NTSTATUS status = STATUS_DATA_NOT_ACCEPTED;
    address->CallHandler<PTDI_IND_RECEIVE>(TDI_EVENT_RECEIVE, [&](auto handler, void* context) {
        status = handler(context, context_, TDI_RECEIVE_NORMAL | TDI_RECEIVE_COPY_LOOKAHEAD, bytes, bytes,
                         &taken, buffer, &request);
    });
    const bool used = status == STATUS_SUCCESS || status == STATUS_MORE_PROCESSING_REQUIRED;
    size_t begin = used ? std::min(taken, bytes) : 0;
    if (status == STATUS_MORE_PROCESSING_REQUIRED && request != nullptr) {
        Memory memory(request, 0, ParametersOf<TDI_REQUEST_KERNEL_RECEIVE>(request).ReceiveLength);
        const size_t copied = memory.CopyIn(buffer + begin, bytes - begin);
        begin += copied;
        Complete(request, {STATUS_SUCCESS, copied});
    }
    if (begin == bytes) {
        return true;
    }
    const std::lock_guard lock(mutex_);
    leftover_.assign(buffer + begin, buffer + bytes);
    leftoverBegin_ = 0;
    refused_ = true;
    return false;
}

void Connection::TellDisconnect()
{
    std::shared_ptr<Address> address;
    ULONG flags = TDI_DISCONNECT_RELEASE;
    {
        const std::lock_guard lock(mutex_);
        if (told_ || (!remoteClosed_ && failure_ == STATUS_SUCCESS)) {
            return;
        }
        told_ = true;
        flags = failure_ != STATUS_SUCCESS ? TDI_DISCONNECT_ABORT : TDI_DISCONNECT_RELEASE;
        address = address_;
    }
    if (address != nullptr) {
        address->CallHandler<PTDI_IND_DISCONNECT>(TDI_EVENT_DISCONNECT, [&](auto handler, void* context) {
            handler(context, context_, 0, nullptr, 0, nullptr, flags);
        });
    }
}

// ---------------------------------------------------------------------------------------------------- queries

Result Connection::Query(IRP* irp)
{
    if (ParametersOf<TDI_REQUEST_KERNEL_QUERY_INFORMATION>(irp).QueryType != TDI_QUERY_CONNECTION_INFO) {
        return QueryProvider(Kind::Tcp, irp);
    }
    Result result;
    const std::shared_ptr<Socket> socket = Connected(&result);
    if (socket == nullptr) {
        return result;
    }
    TDI_CONNECTION_INFO info = {};
    socklen_t length = sizeof(info.SendBufferSize);
    getsockopt(socket->Descriptor(), SOL_SOCKET, SO_SNDBUF, &info.SendBufferSize, &length);
    getsockopt(socket->Descriptor(), SOL_SOCKET, SO_RCVBUF, &info.ReceiveBufferSize, &length);
    return Answer(irp, &info, sizeof(info));
}

// The sizes of the buffers can be set; 0 leaves them as they are.
Result Connection::Set(IRP* irp)
{
    if (ParametersOf<TDI_REQUEST_KERNEL_SET_INFORMATION>(irp).SetType != TDI_QUERY_CONNECTION_INFO) {
        return {STATUS_NOT_SUPPORTED, 0};
    }
    Memory memory(irp, 0, sizeof(TDI_CONNECTION_INFO));
    if (!memory.IsMapped() || memory.Count() != 1 || memory.Size() != sizeof(TDI_CONNECTION_INFO)) {
        return {STATUS_INVALID_PARAMETER, 0};
    }
    Result result;
    const std::shared_ptr<Socket> socket = Connected(&result);
    if (socket == nullptr) {
        return result;
    }
    TDI_CONNECTION_INFO info;
    std::memcpy(&info, memory.Parts()->iov_base, sizeof(info));
    if (info.SendBufferSize != 0) {
        setsockopt(socket->Descriptor(), SOL_SOCKET, SO_SNDBUF, &info.SendBufferSize,
                   sizeof(info.SendBufferSize));
    }
    if (info.ReceiveBufferSize != 0) {
        setsockopt(socket->Descriptor(), SOL_SOCKET, SO_RCVBUF, &info.ReceiveBufferSize,
                   sizeof(info.ReceiveBufferSize));
    }
    return {};
}

} // namespace transport
