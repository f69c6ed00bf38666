// An ordinary echo server for TCP and UDP on 127.0.0.1, which knows nothing of drivers. Prints its two ports
// and runs until its standard input ends.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr size_t kBlock = 256 * 1024;

struct Connection {
    std::vector<char> unsent;
    bool ended = false; // the peer's direction
};

int poller;
std::map<int, Connection> connections;

void Check(bool good, const char* what)
{
    if (!good) {
        std::perror(what);
        std::exit(1);
    }
}

int NewSocket(int type)
{
    const int descriptor = socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Check(descriptor >= 0 && bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0,
          "bind");
    return descriptor;
}

int PortOf(int descriptor)
{
    sockaddr_in address;
    socklen_t length = sizeof(address);
    getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

void Poll(int operation, int descriptor, uint32_t events)
{
    epoll_event event = {};
    event.events = events;
    event.data.fd = descriptor;
    Check(epoll_ctl(poller, operation, descriptor, &event) == 0, "epoll_ctl");
}

void Accept(int listener)
{
    for (int descriptor;
         (descriptor = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) >= 0;) {
        const int on = 1;
        setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        connections[descriptor] = {};
        Poll(EPOLL_CTL_ADD, descriptor, EPOLLIN);
    }
}

// Reads on only when everything read before has been sent. False: the connection is over.
bool Echo(int descriptor, Connection& connection)
{
    static char block[kBlock];
    while (connection.unsent.empty() && !connection.ended) {
        const ssize_t count = read(descriptor, block, sizeof(block));
        if (count < 0) {
            return errno == EAGAIN;
        }
        connection.ended = count == 0;
        const ssize_t sent =
            count > 0 ? send(descriptor, block, static_cast<size_t>(count), MSG_NOSIGNAL) : 0;
        if (sent < 0 && errno != EAGAIN) {
            return false;
        }
        connection.unsent.assign(block + (sent > 0 ? sent : 0), block + count);
    }
    if (!connection.unsent.empty()) {
        const ssize_t sent =
            send(descriptor, connection.unsent.data(), connection.unsent.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno != EAGAIN) {
            return false;
        }
        connection.unsent.erase(connection.unsent.begin(), connection.unsent.begin() + (sent > 0 ? sent : 0));
    }
    if (connection.unsent.empty() && connection.ended) {
        return false;
    }
    Poll(EPOLL_CTL_MOD, descriptor, connection.unsent.empty() ? EPOLLIN : EPOLLOUT);
    return true;
}

void EchoDatagrams(int descriptor)
{
    static char block[65536];
    sockaddr_in from;
    for (;;) {
        socklen_t length = sizeof(from);
        const ssize_t count =
            recvfrom(descriptor, block, sizeof(block), 0, reinterpret_cast<sockaddr*>(&from), &length);
        if (count < 0) {
            return;
        }
        sendto(descriptor, block, static_cast<size_t>(count), 0, reinterpret_cast<sockaddr*>(&from), length);
    }
}

} // namespace

int main()
{
    rlimit files;
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);

    poller = epoll_create1(EPOLL_CLOEXEC);
    const int listener = NewSocket(SOCK_STREAM);
    const int datagrams = NewSocket(SOCK_DGRAM);
    const int buffer = 4 * 1024 * 1024;
    setsockopt(datagrams, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof(buffer));
    Check(listen(listener, SOMAXCONN) == 0, "listen");
    for (const int descriptor : {listener, datagrams, STDIN_FILENO}) {
        Poll(EPOLL_CTL_ADD, descriptor, EPOLLIN);
    }
    std::printf("%d %d\n", PortOf(listener), PortOf(datagrams));
    std::fflush(stdout);
    for (;;) {
        epoll_event events[64];
        const int count = epoll_wait(poller, events, 64, -1);
        for (int i = 0; i < count; ++i) {
            const int descriptor = events[i].data.fd;
            if (descriptor == STDIN_FILENO) {
                return 0; // nothing is ever sent there: it has ended
            } else if (descriptor == listener) {
                Accept(listener);
            } else if (descriptor == datagrams) {
                EchoDatagrams(datagrams);
            } else if (!Echo(descriptor, connections[descriptor])) {
                connections.erase(descriptor);
                close(descriptor);
            }
        }
    }
}
