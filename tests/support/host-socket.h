// Sockets of ordinary programs. This file includes libc's network headers, which may define htons and its kin as
// macros.
#pragma once

#include <string>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace support
{

// A socket of an ordinary program; all its calls wait a minute at most.
class HostSocket
{
  public:
    // A stream socket listens, with a queue for so many callers and one; whoever calls a full one waits for minutes.
    // With kRefuses it holds its port and refuses who calls it.
    static constexpr int kRefuses = -1;
    explicit HostSocket(int type, int callers = SOMAXCONN) : descriptor_(socket(AF_INET, type | SOCK_CLOEXEC, 0))
    {
        const sockaddr_in address = Loopback(0);
        bind(descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
        if (type == SOCK_STREAM && callers != kRefuses) {
            listen(descriptor_, callers);
        }
    }
    // Who calls a listening one.
    explicit HostSocket(const HostSocket& listener)
        : descriptor_(listener.IsReadable() ? accept(listener.descriptor_, nullptr, nullptr) : -1)
    {}
    ~HostSocket() { close(descriptor_); }

    uint16_t Port() const
    {
        sockaddr_in address = {};
        socklen_t length = sizeof(address);
        getsockname(descriptor_, reinterpret_cast<sockaddr*>(&address), &length);
        return ntohs(address.sin_port);
    }
    void Connect(uint16_t port) const
    {
        const sockaddr_in address = Loopback(port);
        connect(descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    }
    bool IsReadable() const { return Poll(60'000); }
    bool HasMore() const { return Poll(0); } // now
    void Send(const std::string& text) const { send(descriptor_, text.data(), text.size(), MSG_NOSIGNAL); }
    // "<end>" at the end of the stream, "<reset>" when it was reset.
    std::string Receive() const
    {
        char buffer[4096];
        const ssize_t count = IsReadable() ? recv(descriptor_, buffer, sizeof(buffer), 0) : -1;
        return count > 0 ? std::string(buffer, static_cast<size_t>(count)) : count == 0 ? "<end>" : "<reset>";
    }
    // Takes one datagram, and sends the text back.
    void Answer(const std::string& text, int times) const
    {
        sockaddr_in from = {};
        socklen_t length = sizeof(from);
        const auto sender = reinterpret_cast<sockaddr*>(&from);
        if (IsReadable() && recvfrom(descriptor_, nullptr, 0, 0, sender, &length) >= 0) {
            for (; times > 0; --times) {
                sendto(descriptor_, text.data(), text.size(), 0, sender, length);
            }
        }
    }
    // Of a listening one: small buffers and segments at both ends of the connections to come.
    void TakeLittle() const
    {
        const int buffer = 2304;
        const int segment = 88;
        setsockopt(descriptor_, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof(buffer));
        setsockopt(descriptor_, IPPROTO_TCP, TCP_MAXSEG, &segment, sizeof(segment));
    }
    void EndSending() const { shutdown(descriptor_, SHUT_WR); }
    void ResetOnClose() const
    {
        const linger reset = {1, 0};
        setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    }

  private:
    static sockaddr_in Loopback(uint16_t port)
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }
    bool Poll(int milliseconds) const
    {
        pollfd one = {descriptor_, POLLIN, 0};
        return poll(&one, 1, milliseconds) == 1;
    }

    const int descriptor_;
};

} // namespace support
