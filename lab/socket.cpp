#include "socket.h"

#include <cerrno>
#include <iterator>

#include <sys/socket.h>
#include <unistd.h>

namespace lab
{

Socket::~Socket()
{
    if (descriptor_ >= 0) {
        close(descriptor_);
    }
}

bool Socket::Send(std::span<const uint8_t> message, std::span<const uint8_t> tail, int file) const
{
    iovec vectors[] = {{const_cast<uint8_t*>(message.data()), message.size()},
                       {const_cast<uint8_t*>(tail.data()), tail.size()}};
    msghdr header = {};
    header.msg_iov = vectors;
    header.msg_iovlen = std::size(vectors);
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(file))] = {};
    if (file >= 0) {
        header.msg_control = control;
        header.msg_controllen = sizeof(control);
        cmsghdr* rights = CMSG_FIRSTHDR(&header);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(sizeof(file));
        std::memcpy(CMSG_DATA(rights), &file, sizeof(file));
    }
    ssize_t sent;
    do {
        sent = sendmsg(descriptor_, &header, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent >= 0;
}

size_t Socket::Receive(std::span<uint8_t> buffer) const
{
    ssize_t length;
    do {
        length = recv(descriptor_, buffer.data(), buffer.size(), MSG_TRUNC);
    } while (length < 0 && errno == EINTR);
    return length > 0 ? static_cast<size_t>(length) : 0;
}

std::string Socket::DescribePeer() const
{
    ucred peer = {};
    socklen_t length = sizeof(peer);
    if (getsockopt(descriptor_, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
        return "an unknown process";
    }
    return "process " + std::to_string(peer.pid);
}

} // namespace lab
