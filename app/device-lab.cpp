// The control device of a running lab, over its Unix socket.
//
// Any thread sends; one thread of the device receives, maps memory when it is asked to, and hands replies to
// those who wait for them.
#include "device.h"

#include "lab-protocol.h"

#include <ndisfilter-user.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace ndisfilter
{
namespace
{

using labprotocol::MessageType;

constexpr int32_t kStatusSuccess = 0;
constexpr int32_t kStatusInvalidParameter = static_cast<int32_t>(0xC000000D);
constexpr int32_t kStatusDeviceNotConnected = static_cast<int32_t>(0xC000009D); // the lab has ended

constexpr auto kPatience = std::chrono::seconds(10); // for a lab that is to answer at once
constexpr size_t kSharedOffset = offsetof(MappedMemory, m_SharedMemory);

// A descriptor, closed at the end.
class Descriptor
{
  public:
    explicit Descriptor(int value = -1) : value_(value) {}
    Descriptor(Descriptor&& other) noexcept : value_(std::exchange(other.value_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        std::swap(value_, other.value_);
        return *this;
    }
    ~Descriptor()
    {
        if (value_ >= 0) {
            close(value_);
        }
    }
    int Get() const { return value_; }

  private:
    int value_;
};

// Sends a message and what follows it; false when the connection has ended.
template <class Message>
bool SendMessage(int socket, const Message& message, std::span<const uint8_t> tail = {})
{
    iovec vectors[] = {{const_cast<Message*>(&message), sizeof(message)},
                       {const_cast<uint8_t*>(tail.data()), tail.size()}};
    msghdr header = {};
    header.msg_iov = vectors;
    header.msg_iovlen = std::size(vectors);
    ssize_t sent;
    do {
        sent = sendmsg(socket, &header, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent >= 0;
}

// Receives one message and the descriptor that comes with it; nothing when the connection has ended.
std::optional<std::span<const uint8_t>> ReceiveMessage(int socket, std::vector<uint8_t>& buffer,
                                                       Descriptor* file)
{
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    iovec vector = {buffer.data(), buffer.size()};
    msghdr message = {};
    message.msg_iov = &vector;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    ssize_t length;
    do {
        length = recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
    } while (length < 0 && errno == EINTR);
    if (length <= 0) {
        return std::nullopt;
    }
    const cmsghdr* header = CMSG_FIRSTHDR(&message);
    if (header != nullptr && header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS &&
        header->cmsg_len == CMSG_LEN(sizeof(int))) {
        int value;
        std::memcpy(&value, CMSG_DATA(header), sizeof(value));
        *file = Descriptor(value);
    }
    if ((message.msg_flags & MSG_TRUNC) != 0) {
        return std::nullopt;
    }
    return std::span<const uint8_t>(buffer.data(), static_cast<size_t>(length));
}

// A message of exactly its type's length, or at least that when a tail is expected.
template <class Message>
bool Read(std::span<const uint8_t> bytes, Message* message, std::span<const uint8_t>* tail = nullptr)
{
    if (tail == nullptr ? bytes.size() != sizeof(*message) : bytes.size() < sizeof(*message)) {
        return false;
    }
    const MessageType wanted = message->type;
    std::memcpy(message, bytes.data(), sizeof(*message));
    if (tail != nullptr) {
        *tail = bytes.subspan(sizeof(*message));
    }
    return message->type == wanted;
}

// Pages of the lab in this process.
class Mapping
{
  public:
    Mapping() = default;
    Mapping(int file, uint64_t offset, uint64_t length) : length_(length)
    {
        void* address =
            mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, file, static_cast<off_t>(offset));
        address_ = address != MAP_FAILED ? address : nullptr;
    }
    Mapping(Mapping&& other) noexcept
        : address_(std::exchange(other.address_, nullptr)), length_(other.length_)
    {}
    Mapping& operator=(Mapping&& other) noexcept
    {
        Mapping old(std::move(*this));
        std::swap(address_, other.address_);
        std::swap(length_, other.length_);
        return *this;
    }
    ~Mapping()
    {
        if (address_ != nullptr) {
            munmap(address_, length_);
        }
    }
    void* Address() const { return address_; }

  private:
    void* address_ = nullptr;
    size_t length_ = 0;
};

// A request on its way; shared by its sender and the receiving thread.
struct Exchange {
    explicit Exchange(std::span<uint8_t> target) : output(target) {}

    void Complete(int32_t status, std::span<const uint8_t> bytes)
    {
        std::lock_guard lock(mutex);
        const size_t length = std::min(bytes.size(), output.size());
        if (length != 0) {
            std::memcpy(output.data(), bytes.data(), length);
        }
        result = ControlResult{status, length};
        completed.notify_all();
    }

    std::optional<ControlResult> Wait(std::optional<uint32_t> timeoutMs)
    {
        std::unique_lock lock(mutex);
        const auto isComplete = [this] { return result.has_value(); };
        if (timeoutMs) {
            completed.wait_for(lock, std::chrono::milliseconds(*timeoutMs), isComplete);
        } else {
            completed.wait(lock, isComplete);
        }
        return result;
    }

    std::mutex mutex;
    std::condition_variable completed;
    const std::span<uint8_t> output; // of the sender, who waits as long as it lives
    std::optional<ControlResult> result;
};

// The connection; requests may outlive the device.
class Connection
{
  public:
    explicit Connection(Descriptor socket) : socket_(std::move(socket)), receiver_([this] { Receive(); }) {}
    ~Connection()
    {
        shutdown(socket_.Get(), SHUT_RDWR);
        receiver_.join();
    }

    // The request, complete already when it cannot be sent.
    std::pair<uint64_t, std::shared_ptr<Exchange>> Send(uint32_t code, std::span<const uint8_t> input,
                                                        std::span<uint8_t> output);
    void Cancel(uint64_t id)
    {
        labprotocol::Cancel message;
        message.id = id;
        SendMessage(socket_.Get(), message);
    }

    // Requests that start or end a share come one at a time, so that it is known which mapping is whose.
    ControlResult ControlShare(uint32_t code, std::span<const uint8_t> input, std::span<uint8_t> output);

    // Closes the device's handle and waits until that is done; pending requests are cancelled by it.
    void Close();

  private:
    void Receive();
    bool Handle(std::span<const uint8_t> message, Descriptor file);
    bool HandleReply(std::span<const uint8_t> message);
    bool HandleMap(std::span<const uint8_t> message, const Descriptor& file);

    const Descriptor socket_;
    std::mutex shareMutex_;

    std::mutex mutex_; // of the rest
    std::condition_variable endedChanged_;
    bool ended_ = false;
    uint64_t nextId_ = 1;
    std::map<uint64_t, std::shared_ptr<Exchange>> outstanding_;
    bool mapAllowed_ = false; // a request that maps is outstanding
    Mapping mapping_;         // the newest; kept until its share has ended

    std::thread receiver_; // last: it uses the others
};

std::pair<uint64_t, std::shared_ptr<Exchange>> Connection::Send(uint32_t code, std::span<const uint8_t> input,
                                                                std::span<uint8_t> output)
{
    auto exchange = std::make_shared<Exchange>(output);
    if (input.size() > labprotocol::kLongestTransfer || output.size() > labprotocol::kLongestTransfer) {
        exchange->Complete(kStatusInvalidParameter, {});
        return {0, std::move(exchange)};
    }
    labprotocol::Control message;
    message.code = code;
    message.inputLength = static_cast<uint32_t>(input.size());
    message.outputLength = static_cast<uint32_t>(output.size());
    bool ended;
    {
        std::lock_guard lock(mutex_);
        message.id = nextId_++;
        ended = ended_;
        if (!ended) {
            outstanding_[message.id] = exchange;
        }
    }
    // When sending fails the connection has ended, and the receiving thread completes what is outstanding.
    if (ended) {
        exchange->Complete(kStatusDeviceNotConnected, {});
    } else if (!SendMessage(socket_.Get(), message, input)) {
        shutdown(socket_.Get(), SHUT_RDWR);
    }
    return {message.id, std::move(exchange)};
}

ControlResult Connection::ControlShare(uint32_t code, std::span<const uint8_t> input,
                                       std::span<uint8_t> output)
{
    std::lock_guard shareLock(shareMutex_);
    const bool starts = code == IOCTL_NDIS_FILTER_START_SHARE;
    Mapping before; // of a share that this handle has already
    {
        std::lock_guard lock(mutex_);
        mapAllowed_ = starts;
        before = std::move(mapping_);
    }
    const ControlResult result = *Send(code, input, output).second->Wait(std::nullopt);
    uint64_t answered = 0;
    if (result.status == kStatusSuccess && result.returned == sizeof(answered)) {
        std::memcpy(&answered, output.data(), sizeof(answered));
    }
    std::lock_guard lock(mutex_);
    mapAllowed_ = false;
    const bool mapped = mapping_.Address() != nullptr &&
                        answered == reinterpret_cast<uintptr_t>(mapping_.Address()) + kSharedOffset;
    const bool stopped = !starts && result.status == kStatusSuccess;
    if (!mapped) {
        mapping_ = stopped ? Mapping() : std::move(before);
    }
    return result;
}

void Connection::Close()
{
    if (!SendMessage(socket_.Get(), labprotocol::Close())) {
        return;
    }
    std::unique_lock lock(mutex_);
    endedChanged_.wait_for(lock, kPatience, [this] { return ended_; });
}

void Connection::Receive()
{
    std::vector<uint8_t> buffer(labprotocol::kLongestMessage);
    while (true) {
        Descriptor file;
        const auto message = ReceiveMessage(socket_.Get(), buffer, &file);
        if (!message.has_value() || !Handle(*message, std::move(file))) {
            break;
        }
    }
    shutdown(socket_.Get(), SHUT_RDWR); // after a message that made no sense
    std::map<uint64_t, std::shared_ptr<Exchange>> left;
    {
        std::lock_guard lock(mutex_);
        ended_ = true;
        left.swap(outstanding_);
        endedChanged_.notify_all();
    }
    for (const auto& [id, exchange] : left) {
        exchange->Complete(kStatusDeviceNotConnected, {});
    }
}

bool Connection::Handle(std::span<const uint8_t> message, Descriptor file)
{
    MessageType type;
    if (message.size() < sizeof(type)) {
        return false;
    }
    std::memcpy(&type, message.data(), sizeof(type));
    switch (type) {
    case MessageType::Reply:
        return HandleReply(message);
    case MessageType::Map:
        return HandleMap(message, file);
    default:
        return false;
    }
}

bool Connection::HandleReply(std::span<const uint8_t> message)
{
    labprotocol::Reply reply;
    std::span<const uint8_t> output;
    if (!Read(message, &reply, &output)) {
        return false;
    }
    std::shared_ptr<Exchange> exchange;
    {
        std::lock_guard lock(mutex_);
        const auto found = outstanding_.find(reply.id);
        if (found == outstanding_.end()) {
            return false;
        }
        exchange = std::move(found->second);
        outstanding_.erase(found);
    }
    exchange->Complete(reply.status, output);
    return true;
}

bool Connection::HandleMap(std::span<const uint8_t> message, const Descriptor& file)
{
    labprotocol::Map map;
    if (!Read(message, &map) || file.Get() < 0) {
        return false;
    }
    labprotocol::Mapped mapped;
    mapped.id = map.id;
    {
        std::lock_guard lock(mutex_);
        // The file must hold what is to be mapped, or looking at it would end this program.
        struct stat status;
        const bool fits = fstat(file.Get(), &status) == 0 && map.length >= NDIS_FILTER_MAPPED_MEMORY_SIZE &&
                          map.offset <= static_cast<uint64_t>(status.st_size) &&
                          map.length <= static_cast<uint64_t>(status.st_size) - map.offset;
        if (mapAllowed_ && fits && mapping_.Address() == nullptr) {
            mapping_ = Mapping(file.Get(), map.offset, map.length);
            mapped.address = reinterpret_cast<uintptr_t>(mapping_.Address());
        }
    }
    return SendMessage(socket_.Get(), mapped);
}

class LabRequest : public PendingControl
{
  public:
    LabRequest(std::shared_ptr<Connection> connection, uint32_t code) : connection_(std::move(connection))
    {
        std::tie(id_, exchange_) = connection_->Send(code, {}, {});
    }
    ~LabRequest() override
    {
        Cancel();
        exchange_->Wait(std::nullopt);
    }
    std::optional<ControlResult> Wait(std::optional<uint32_t> timeoutMs) override
    {
        return exchange_->Wait(timeoutMs);
    }
    void Cancel() override
    {
        if (!exchange_->Wait(0)) {
            connection_->Cancel(id_);
        }
    }

  private:
    std::shared_ptr<Connection> connection_;
    std::shared_ptr<Exchange> exchange_;
    uint64_t id_ = 0;
};

class LabDevice : public Device
{
  public:
    explicit LabDevice(Descriptor socket) : connection_(std::make_shared<Connection>(std::move(socket))) {}
    ~LabDevice() override { connection_->Close(); }

    ControlResult Control(uint32_t code, std::span<const uint8_t> input, std::span<uint8_t> output) override
    {
        if (code == IOCTL_NDIS_FILTER_START_SHARE || code == IOCTL_NDIS_FILTER_STOP_SHARE) {
            return connection_->ControlShare(code, input, output);
        }
        return *connection_->Send(code, input, output).second->Wait(std::nullopt);
    }

    std::unique_ptr<PendingControl> Send(uint32_t code) override
    {
        return std::make_unique<LabRequest>(connection_, code);
    }

    void* StartShare(uint32_t value, int32_t* status) override
    {
        uint8_t input[sizeof(value)];
        std::memcpy(input, &value, sizeof(value));
        uint8_t output[sizeof(uint64_t)];
        const ControlResult result = Control(IOCTL_NDIS_FILTER_START_SHARE, input, output);
        uint64_t address = NDIS_FILTER_SHARE_FAILED;
        if (result.returned == sizeof(address)) {
            std::memcpy(&address, output, sizeof(address));
        }
        *status = result.status;
        return result.status == kStatusSuccess && address != NDIS_FILTER_SHARE_FAILED
                   ? reinterpret_cast<void*>(address)
                   : nullptr;
    }

    ControlResult StopShare() override { return Control(IOCTL_NDIS_FILTER_STOP_SHARE, {}, {}); }

  private:
    std::shared_ptr<Connection> connection_;
};

std::string Explain(const std::string& path, const std::string& problem)
{
    return path + ": " + problem;
}

// Connects to the lab of the same user (or of root): who else listens there could feed this program anything.
Descriptor Connect(const std::string& path, std::string* error)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        *error = Explain(path, "too long for a socket, " + std::to_string(sizeof(address.sun_path) - 1) +
                                   " bytes at most; name another");
        return Descriptor();
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    Descriptor socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (socket.Get() < 0 ||
        connect(socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        const int code = errno;
        *error =
            Explain(path, code == ENOENT || code == ECONNREFUSED
                              ? "no lab is running there; start `ndisfilter-lab serve`, or name its socket"
                              : std::string("cannot connect to the lab: ") + std::strerror(code));
        return Descriptor();
    }
    ucred peer = {};
    socklen_t length = sizeof(peer);
    if (getsockopt(socket.Get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 ||
        (peer.uid != geteuid() && peer.uid != 0)) {
        *error = Explain(path, "belongs to another user (" + std::to_string(peer.uid) +
                                   "); name your own lab's socket");
        return Descriptor();
    }
    return socket;
}

// Introduces the program; empty with *error set when the lab does not want it.
bool Greet(int socket, const std::string& path, std::string* error)
{
    std::vector<uint8_t> buffer(labprotocol::kLongestMessage);
    labprotocol::Welcome welcome;
    Descriptor file;
    const auto answer =
        SendMessage(socket, labprotocol::Hello()) ? ReceiveMessage(socket, buffer, &file) : std::nullopt;
    if (!answer.has_value()) {
        *error = Explain(path, "the lab has ended the connection; it may be starting or stopping, try again");
        return false;
    }
    if (!Read(*answer, &welcome) || welcome.magic != labprotocol::kMagic) {
        *error = Explain(path, "what listens there is no lab; name the socket of `ndisfilter-lab serve`");
        return false;
    }
    if (welcome.version != labprotocol::kVersion) {
        *error = Explain(path, "the lab speaks version " + std::to_string(welcome.version) +
                                   " of the protocol, this program version " +
                                   std::to_string(labprotocol::kVersion) + "; use both of one release");
        return false;
    }
    if (welcome.status != kStatusSuccess) {
        char status[16];
        std::snprintf(status, sizeof(status), "0x%08X", static_cast<uint32_t>(welcome.status));
        *error = Explain(path, std::string("the lab cannot open the control device: status ") + status);
        return false;
    }
    return true;
}

} // namespace

std::unique_ptr<Device> OpenDevice(const std::string& name, std::string* error)
{
    const std::string path = name.empty() ? labprotocol::DefaultSocketPath() : name;
    Descriptor socket = Connect(path, error);
    if (socket.Get() < 0 || !Greet(socket.Get(), path, error)) {
        return nullptr;
    }
    return std::make_unique<LabDevice>(std::move(socket));
}

} // namespace ndisfilter
