#include "control-server.h"

#include "lab-error.h"

#include <cerrno>
#include <cstring>

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace lab
{
namespace
{

constexpr size_t kMostConnections = 64;
constexpr int kBacklog = 16;
constexpr int kLookMs = 100; // between two looks at what has ended

LabError Problem(const std::string& path, const std::string& text)
{
    return LabError(ExitCode::Socket, fmt::format("--socket {}: {}", path, text));
}

Socket NewSocket(const std::string& path)
{
    Socket socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!socket.IsOpen()) {
        throw Problem(path, fmt::format("no socket: {}", std::strerror(errno)));
    }
    return socket;
}

// A socket that a lab left behind when it was killed answers no connection.
void RemoveStaleSocket(const std::string& path, const sockaddr_un& address)
{
    struct stat status;
    if (lstat(path.c_str(), &status) != 0) {
        return;
    }
    if (!S_ISSOCK(status.st_mode)) {
        throw Problem(path, "there is something else; name another path");
    }
    const Socket probe = NewSocket(path);
    if (connect(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
        throw Problem(path, "another lab serves there; end it, or name another path");
    }
    if (errno == ECONNREFUSED) {
        unlink(path.c_str());
    }
}

} // namespace

ControlServer::ControlServer(const std::string& path) : path_(path), socket_(NewSocket(path))
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        throw Problem(path, fmt::format("too long, at most {} bytes", sizeof(address.sun_path) - 1));
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    RemoveStaleSocket(path, address);
    // The path gets the socket's mode at once, so that nobody else can connect in between.
    if (fchmod(socket_.Get(), S_IRUSR | S_IWUSR) != 0 ||
        bind(socket_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        throw Problem(path, fmt::format("cannot make the socket: {}", std::strerror(errno)));
    }
    if (listen(socket_.Get(), kBacklog) != 0) {
        const int code = errno;
        unlink(path.c_str());
        throw Problem(path, fmt::format("cannot listen: {}", std::strerror(code)));
    }
}

ControlServer::~ControlServer()
{
    unlink(path_.c_str());
}

void ControlServer::Serve(const std::atomic<bool>& stop,
                          const std::function<void(const std::string&)>& complain)
{
    std::vector<std::unique_ptr<ControlConnection>> connections;
    while (!stop) {
        pollfd ready = {.fd = socket_.Get(), .events = POLLIN, .revents = 0};
        if (poll(&ready, 1, kLookMs) > 0) {
            Socket socket(accept4(socket_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (socket.IsOpen() && connections.size() == kMostConnections) {
                complain(fmt::format("{} was disconnected: {} programs are connected already",
                                     socket.DescribePeer(), kMostConnections));
            } else if (socket.IsOpen()) {
                ++programs_;
                connections.push_back(std::make_unique<ControlConnection>(std::move(socket), complain));
            }
        }
        std::erase_if(connections, [](const auto& connection) { return connection->IsOver(); });
    }
    for (const auto& connection : connections) {
        connection->Stop();
    }
}

} // namespace lab
