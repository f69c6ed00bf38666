#include "control-connection.h"

#include <lab-protocol.h>

#include <chrono>

#include <fmt/format.h>
#include <sys/socket.h>

namespace lab
{
namespace
{

using labprotocol::MessageType;

constexpr char kDevice[] = "\\\\.\\NdisFilter";
constexpr int32_t kStatusInsufficientResources = static_cast<int32_t>(0xC000009A);
constexpr auto kMapPatience = std::chrono::seconds(5);
constexpr auto kReplyPatience = std::chrono::seconds(1);
constexpr uint32_t kLookMs = 60'000; // a request may take for ever: how long one wait for it is

} // namespace

ControlConnection::ControlConnection(Socket socket, std::function<void(const std::string&)> complain)
    : socket_(std::move(socket)), complain_(std::move(complain)),
      process_([this](int file, uint64_t offset, size_t length) { return MapPages(file, offset, length); }),
      buffer_(labprotocol::kLongestMessage)
{
    // A program that takes no messages must not hold the lab's threads for ever.
    const timeval patience = {.tv_sec = kMapPatience.count(), .tv_usec = 0};
    setsockopt(socket_.Get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
    std::lock_guard lock(mutex_);
    StartThread();
}

ControlConnection::~ControlConnection()
{
    Stop();
    // Each thread was started by one before it in the list, before that one ended.
    for (size_t i = 0;; ++i) {
        std::thread thread;
        {
            std::lock_guard lock(mutex_);
            if (i == threads_.size()) {
                break;
            }
            thread = std::move(threads_[i]);
        }
        thread.join();
    }
}

void ControlConnection::Stop()
{
    shutdown(socket_.Get(), SHUT_RD);
}

void ControlConnection::StartThread()
{
    ++idle_;
    threads_.emplace_back([this] { Work(); });
}

void ControlConnection::Work()
{
    Turn turn;
    do {
        Underway underway;
        {
            std::lock_guard receive(receiveMutex_);
            turn = ReceiveNext(&underway);
            if (turn == Turn::Request) {
                std::lock_guard lock(mutex_);
                ++busy_;
                if (--idle_ == 0) {
                    StartThread();
                }
            }
        }
        if (turn == Turn::Request) {
            CarryOut(underway);
            std::lock_guard lock(mutex_);
            --busy_;
            ++idle_;
            changed_.notify_all();
        }
    } while (turn != Turn::End);
}

ControlConnection::Turn ControlConnection::ReceiveNext(Underway* underway)
{
    {
        std::lock_guard lock(mutex_);
        if (ending_) {
            return Turn::End;
        }
    }
    const size_t length = socket_.Receive(buffer_);
    Turn turn = Turn::End;
    if (length > buffer_.size()) {
        complain_(fmt::format("{} was disconnected: a message of {} bytes, {} are allowed",
                              socket_.DescribePeer(), length, buffer_.size()));
    } else if (length > 0) {
        turn = Handle({buffer_.data(), length}, underway);
    }
    if (turn == Turn::End) {
        End();
    }
    return turn;
}

ControlConnection::Turn ControlConnection::Handle(std::span<const uint8_t> message, Underway* underway)
{
    if (file_ == nullptr) {
        return HandleHello(message);
    }
    MessageType type = {};
    if (!ReadMessage(message, &type)) {
        return Reject(message, "too short");
    }
    switch (type) {
    case MessageType::Control:
        return HandleControl(message, underway);
    case MessageType::Cancel:
        return HandleCancel(message);
    case MessageType::Mapped:
        return HandleMapped(message);
    case MessageType::Close:
        return message.size() == sizeof(labprotocol::Close) ? Turn::End
                                                            : Reject(message, "of a wrong length");
    default:
        return Reject(message, "of an unknown type");
    }
}

ControlConnection::Turn ControlConnection::Reject(std::span<const uint8_t> message, const char* problem)
{
    complain_(fmt::format("{} was disconnected: a message {}, {} bytes", socket_.DescribePeer(), problem,
                          message.size()));
    return Turn::End;
}

ControlConnection::Turn ControlConnection::HandleHello(std::span<const uint8_t> message)
{
    labprotocol::Hello hello;
    if (message.size() != sizeof(hello) || !ReadMessage(message, &hello) ||
        hello.type != MessageType::Hello || hello.magic != labprotocol::kMagic) {
        return Reject(message, "that is no greeting");
    }
    labprotocol::Welcome welcome;
    if (hello.version == welcome.version) {
        file_ = process_.Open(kDevice, &welcome.status);
    }
    return socket_.Send(BytesOf(welcome)) && file_ != nullptr ? Turn::Done : Turn::End;
}

ControlConnection::Turn ControlConnection::HandleControl(std::span<const uint8_t> message, Underway* underway)
{
    labprotocol::Control control;
    if (!ReadMessage(message, &control) || message.size() - sizeof(control) != control.inputLength ||
        control.outputLength > labprotocol::kLongestTransfer) {
        return Reject(message, "of a wrong length");
    }
    const auto input = message.subspan(sizeof(control));
    underway->code = control.code;
    underway->id = control.id;
    underway->input.assign(input.begin(), input.end());
    underway->outputLength = control.outputLength;
    {
        std::lock_guard lock(mutex_);
        if (requests_.size() < labprotocol::kMostRequests) {
            return requests_.emplace(control.id, underway).second
                       ? Turn::Request
                       : Reject(message, "with the number of another request");
        }
    }
    Reply(control.id, kStatusInsufficientResources, {});
    return Turn::Done;
}

ControlConnection::Turn ControlConnection::HandleCancel(std::span<const uint8_t> message)
{
    labprotocol::Cancel cancel;
    if (message.size() != sizeof(cancel) || !ReadMessage(message, &cancel)) {
        return Reject(message, "of a wrong length");
    }
    std::lock_guard lock(mutex_);
    const auto found = requests_.find(cancel.id);
    if (found != requests_.end()) {
        found->second->cancelled = true;
        if (found->second->request != nullptr) {
            found->second->request->Cancel();
        }
    }
    return Turn::Done;
}

ControlConnection::Turn ControlConnection::HandleMapped(std::span<const uint8_t> message)
{
    labprotocol::Mapped mapped;
    if (message.size() != sizeof(mapped) || !ReadMessage(message, &mapped)) {
        return Reject(message, "of a wrong length");
    }
    std::lock_guard lock(mutex_);
    const auto found = maps_.find(mapped.id);
    if (found != maps_.end()) { // else it comes too late
        found->second = mapped.address;
        changed_.notify_all();
    }
    return Turn::Done;
}

void ControlConnection::CarryOut(Underway& underway)
{
    machine::Request request = file_->Send(underway.code, underway.input, underway.outputLength);
    {
        std::lock_guard lock(mutex_);
        underway.request = &request;
        if (underway.cancelled) {
            request.Cancel();
        }
    }
    std::optional<machine::Request::Result> result;
    while (!result.has_value()) {
        result = request.Wait(kLookMs);
    }
    {
        std::lock_guard lock(mutex_);
        requests_.erase(underway.id); // before the reply, behind which the program may use the number again
    }
    Reply(underway.id, result->status, request.Output());
}

void ControlConnection::Reply(uint64_t id, int32_t status, std::span<const uint8_t> output)
{
    labprotocol::Reply reply;
    reply.id = id;
    reply.status = status;
    if (!socket_.Send(BytesOf(reply), output)) {
        Stop();
    }
}

uint64_t ControlConnection::MapPages(int file, uint64_t offset, size_t length)
{
    labprotocol::Map map;
    map.offset = offset;
    map.length = length;
    {
        std::lock_guard lock(mutex_);
        if (ending_) {
            return 0; // nobody would end the share that this begins
        }
        map.id = nextMap_++;
        maps_[map.id] = std::nullopt;
    }
    if (!socket_.Send(BytesOf(map), {}, file)) {
        Stop();
    }
    std::unique_lock lock(mutex_);
    const auto& answer = maps_[map.id];
    changed_.wait_for(lock, kMapPatience, [&] { return ending_ || answer.has_value(); });
    const uint64_t address = ending_ ? 0 : answer.value_or(0);
    maps_.erase(map.id);
    return address;
}

void ControlConnection::End()
{
    {
        std::lock_guard lock(mutex_);
        ending_ = true;
        changed_.notify_all();
    }
    if (file_ != nullptr) {
        file_->Close();
        // Requests are complete now; their replies go out as long as the program takes them.
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, kReplyPatience, [this] { return busy_ == 0; });
    }
    shutdown(socket_.Get(), SHUT_RDWR);
    over_ = true;
}

} // namespace lab
