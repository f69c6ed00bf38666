// A Unix socket and messages on it.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <utility>

namespace lab
{

// A socket, closed at the end.
class Socket
{
  public:
    explicit Socket(int descriptor = -1) : descriptor_(descriptor) {}
    Socket(Socket&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
    Socket& operator=(Socket&& other) noexcept
    {
        std::swap(descriptor_, other.descriptor_);
        return *this;
    }
    ~Socket();
    int Get() const { return descriptor_; }
    bool IsOpen() const { return descriptor_ >= 0; }

    // Sends one message with a tail, and a descriptor unless that is negative. False when the connection has
    // ended, or its other end has taken nothing for as long as SO_SNDTIMEO says.
    bool Send(std::span<const uint8_t> message, std::span<const uint8_t> tail = {}, int file = -1) const;
    // Receives one message. Its length, which is more than the buffer's when it did not fit; 0 at the end of
    // the connection. Descriptors that come with it are dropped.
    size_t Receive(std::span<uint8_t> buffer) const;
    // "process 1234", from the kernel's books.
    std::string DescribePeer() const;

  private:
    int descriptor_;
};

template <class Message>
std::span<const uint8_t> BytesOf(const Message& message)
{
    return {reinterpret_cast<const uint8_t*>(&message), sizeof(message)};
}

// The message at the start of some bytes; false when they are too few.
template <class Message>
bool ReadMessage(std::span<const uint8_t> bytes, Message* message)
{
    if (bytes.size() < sizeof(*message)) {
        return false;
    }
    std::memcpy(message, bytes.data(), sizeof(*message));
    return true;
}

} // namespace lab
