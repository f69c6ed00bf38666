// Kernel sockets beside plain ones: the same bytes to and from the same echo server, in blocks of 64 KiB, by
// a kernel client that waits for each request, by one that works with completions, and by ordinary programs
// that do the same with blocking calls and with poll. All check every byte. Also: connections opened and
// closed, and the memory that one costs.
#include "machine.h"
#include "support/contest.h"
#include "support/echo-client.h"

#include <algorithm>

#include <malloc.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>

namespace
{

constexpr uint64_t kBytes = 128ull << 20; // each way, in one of the repetitions
constexpr size_t kBlock = 64 * 1024;
constexpr size_t kConnections = 1000;

const echo::Pattern* g_pattern;
const echo::Server* g_server;

[[noreturn]] void Fail(const char* what, long value)
{
    bench::Fail(what + (": " + std::to_string(value)));
}

void Check(const char* what, NTSTATUS status)
{
    bench::Check(what, NT_SUCCESS(status) ? 0 : status);
}

int ConnectSocket()
{
    const int descriptor = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = KS_htons(g_server->tcpPort);
    if (connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        Fail("connect", errno);
    }
    return descriptor;
}

void CheckBytes(const uint8_t* bytes, uint64_t position, size_t count)
{
    if (std::memcmp(bytes, g_pattern->At(position), count) != 0) {
        Fail("other bytes came back than were sent, around byte", static_cast<long>(position));
    }
}

void PlainBlocking()
{
    const int descriptor = ConnectSocket();
    std::vector<uint8_t> out(kBlock);
    std::vector<uint8_t> in(kBlock);
    for (uint64_t sent = 0, received = 0; received < kBytes;) {
        std::memcpy(out.data(), g_pattern->At(sent), kBlock);
        if (send(descriptor, out.data(), kBlock, MSG_NOSIGNAL) != static_cast<ssize_t>(kBlock)) {
            Fail("send", errno);
        }
        sent += kBlock;
        while (received < sent) {
            const ssize_t count = recv(descriptor, in.data(), kBlock, 0);
            if (count <= 0) {
                Fail("recv", errno);
            }
            CheckBytes(in.data(), received, static_cast<size_t>(count));
            received += static_cast<uint64_t>(count);
        }
    }
    close(descriptor);
}

void PlainPolling()
{
    const int descriptor = ConnectSocket();
    std::vector<uint8_t> out(kBlock);
    std::vector<uint8_t> in(kBlock);
    uint64_t sent = 0;
    uint64_t received = 0;
    while (received < kBytes) {
        pollfd one = {descriptor, static_cast<short>(sent < kBytes ? POLLIN | POLLOUT : POLLIN), 0};
        poll(&one, 1, -1);
        if ((one.revents & POLLIN) != 0) {
            const ssize_t count = recv(descriptor, in.data(), kBlock, MSG_DONTWAIT);
            if (count <= 0) {
                Fail("recv", errno);
            }
            CheckBytes(in.data(), received, static_cast<size_t>(count));
            received += static_cast<uint64_t>(count);
        }
        if ((one.revents & POLLOUT) != 0) {
            std::memcpy(out.data(), g_pattern->At(sent), kBlock);
            const ssize_t count = send(descriptor, out.data(), std::min<uint64_t>(kBlock, kBytes - sent),
                                       MSG_DONTWAIT | MSG_NOSIGNAL);
            if (count < 0 && errno != EAGAIN) {
                Fail("send", errno);
            }
            sent += count > 0 ? static_cast<uint64_t>(count) : 0;
        }
    }
    close(descriptor);
}

void KernelExchange(bool callbacks)
{
    echo::Connection connection;
    Check("opening", connection.Open());
    Check("connecting", connection.Connect(g_server->tcpPort));
    const echo::Transfer transfer = callbacks
                                        ? echo::CallbackExchange(connection, *g_pattern, kBytes, kBlock).Run()
                                        : echo::ExchangeWaiting(connection, *g_pattern, kBytes, kBlock);
    connection.Close();
    Check("exchanging", transfer.status);
    if (!transfer.equal || transfer.received != kBytes) {
        Fail("other bytes came back than were sent, of bytes", static_cast<long>(transfer.received));
    }
}

void Exchange(benchmark::State& state, void (*run)())
{
    for (auto _ : state) {
        run();
    }
    bench::SetOperations(state, static_cast<double>(state.iterations()) * (kBytes / kBlock));
    bench::SetWork(state, kBytes); // compared
}

void PlainConnections(benchmark::State& state)
{
    for (auto _ : state) {
        std::vector<int> descriptors(kConnections);
        for (int& descriptor : descriptors) {
            descriptor = ConnectSocket();
        }
        for (const int descriptor : descriptors) {
            close(descriptor);
        }
    }
    bench::SetOperations(state, static_cast<double>(state.iterations()) * kConnections);
    bench::SetWork(state, kConnections);
}

// Memory of this process alone: what stands in the host's sockets is the same for a plain one.
void KernelConnections(benchmark::State& state, bool memory)
{
    double bytes = 0;
    for (auto _ : state) {
        std::vector<echo::Connection> connections(kConnections);
        const size_t before = mallinfo2().uordblks;
        for (echo::Connection& connection : connections) {
            Check("opening", connection.Open());
            Check("connecting", connection.Connect(g_server->tcpPort));
        }
        bytes = static_cast<double>(mallinfo2().uordblks - before);
        for (echo::Connection& connection : connections) {
            connection.Close();
        }
    }
    bench::SetWork(state, kConnections);
    if (memory) {
        bench::SetValue(state, bytes / kConnections);
    } else {
        bench::SetOperations(state, static_cast<double>(state.iterations()) * kConnections);
    }
}

template <class Run>
void Add(const char* name, const Run& run)
{
    benchmark::RegisterBenchmark(name, run)->UseRealTime();
}

} // namespace

int main(int argc, char** argv)
{
    rlimit files;
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
    const echo::Server server;
    const echo::Pattern pattern;
    g_server = &server;
    g_pattern = &pattern;
    if (server.tcpPort == 0) {
        bench::Fail("the echo server did not start");
    }
    Check("LoadTransport", machine::LoadTransport());

    Add("exchange/framework/waiting", [](auto& state) { Exchange(state, [] { KernelExchange(false); }); });
    Add("exchange/plain program/waiting", [](auto& state) { Exchange(state, PlainBlocking); });
    Add("exchange/framework/callbacks", [](auto& state) { Exchange(state, [] { KernelExchange(true); }); });
    Add("exchange/plain program/callbacks", [](auto& state) { Exchange(state, PlainPolling); });
    Add("connection/framework/open and close", [](auto& state) { KernelConnections(state, false); });
    Add("connection/plain program/open and close", [](auto& state) { PlainConnections(state); });
    Add("connection/framework/memory", [](auto& state) { KernelConnections(state, true); });
    const int result = bench::Run(argc, argv);

    Check("UnloadTransport", machine::UnloadTransport());
    for (const machine::Violation& violation : machine::TakeViolations()) {
        bench::Fail(violation.rule + ": " + violation.detail);
    }
    return result;
}
