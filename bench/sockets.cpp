// Kernel sockets beside plain ones: the same bytes to and from the same echo server, in blocks of 64 KiB, by
// a kernel client that waits for each request, by one that works with completions, and by ordinary programs
// that do the same with blocking calls and with poll. All check every byte. Also: connections opened and
// closed, and the memory that one costs.
//
// Ends with the ratios. Exits with 1 when a byte was wrong or a request failed.
#include "machine.h"
#include "support/echo-client.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <map>

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
std::map<std::string, std::vector<double>> g_seconds;

[[noreturn]] void Fail(const char* what, long value)
{
    std::fprintf(stderr, "bench-sockets: %s: 0x%lx\n", what, value & 0xFFFFFFFF);
    std::exit(1);
}

void Check(const char* what, NTSTATUS status)
{
    if (!NT_SUCCESS(status)) {
        Fail(what, status);
    }
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

void Exchange(benchmark::State& state, const char* name, void (*run)())
{
    for (auto _ : state) {
        LARGE_INTEGER frequency;
        const LARGE_INTEGER begin = KeQueryPerformanceCounter(&frequency);
        run();
        const LARGE_INTEGER end = KeQueryPerformanceCounter(nullptr);
        const double seconds =
            static_cast<double>(end.QuadPart - begin.QuadPart) / static_cast<double>(frequency.QuadPart);
        state.SetIterationTime(seconds);
        g_seconds[name].push_back(seconds);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBytes));
}

double Median(std::vector<double> values)
{
    const auto middle = values.begin() + static_cast<ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
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
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kConnections));
}

// Memory of this process alone: what stands in the host's sockets is the same for a plain one.
void KernelConnections(benchmark::State& state)
{
    size_t memory = 0;
    size_t pool = 0;
    for (auto _ : state) {
        std::vector<echo::Connection> connections(kConnections);
        const size_t before = mallinfo2().uordblks;
        const size_t poolBefore = machine::TakeCensus().poolBytes;
        for (echo::Connection& connection : connections) {
            Check("opening", connection.Open());
            Check("connecting", connection.Connect(g_server->tcpPort));
        }
        memory = mallinfo2().uordblks - before;
        pool = machine::TakeCensus().poolBytes - poolBefore;
        for (echo::Connection& connection : connections) {
            connection.Close();
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kConnections));
    state.counters["heap/connection"] = static_cast<double>(memory) / kConnections;
    state.counters["pool/connection"] = static_cast<double>(pool) / kConnections;
    state.counters["records"] = sizeof(KS_TRANSPORT_ADDRESS) + sizeof(KS_CONNECTION_ENDPOINT);
}

} // namespace

int main(int argc, char** argv)
{
    // Repetitions in random order, so that a disturbed second falls on all; the command line may say
    // otherwise.
    std::vector<char*> arguments(argv, argv + argc);
    std::string defaults[] = {"--benchmark_repetitions=9", "--benchmark_enable_random_interleaving=true",
                              "--benchmark_report_aggregates_only=true", "--benchmark_min_time=0.05"};
    int position = 1;
    for (std::string& argument : defaults) {
        arguments.insert(arguments.begin() + position++, argument.data());
    }
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
        return 2;
    }
    rlimit files;
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
    const echo::Server server;
    const echo::Pattern pattern;
    g_server = &server;
    g_pattern = &pattern;
    if (server.tcpPort == 0) {
        Fail("the echo server did not start", 0);
    }
    Check("LoadTransport", machine::LoadTransport());

    struct Subject {
        const char* name;
        void (*run)();
    };
    const Subject subjects[] = {{"plain, blocking", PlainBlocking},
                                {"kernel, waiting", [] { KernelExchange(false); }},
                                {"plain, poll", PlainPolling},
                                {"kernel, callbacks", [] { KernelExchange(true); }}};
    for (const Subject& subject : subjects) {
        benchmark::RegisterBenchmark(subject.name, Exchange, subject.name, subject.run)
            ->Iterations(1)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
    }
    benchmark::RegisterBenchmark("plain, 1000 connections", PlainConnections)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("kernel, 1000 connections", KernelConnections)
        ->Unit(benchmark::kMillisecond);
    benchmark::RunSpecifiedBenchmarks();

    for (const auto& [kernel, plain] :
         {std::pair{"kernel, waiting", "plain, blocking"}, std::pair{"kernel, callbacks", "plain, poll"}}) {
        if (g_seconds.contains(kernel) && g_seconds.contains(plain)) {
            const double megabytes = static_cast<double>(kBytes) / 1e6;
            const double kernelTime = Median(g_seconds[kernel]);
            const double plainTime = Median(g_seconds[plain]);
            std::printf("%s: %.0f MB/s each way, %.2f times the throughput of %s, %.0f MB/s (medians)\n",
                        kernel, megabytes / kernelTime, plainTime / kernelTime, plain, megabytes / plainTime);
        }
    }
    Check("UnloadTransport", machine::UnloadTransport());
    for (const machine::Violation& violation : machine::TakeViolations()) {
        std::fprintf(stderr, "bench-sockets: %s: %s\n", violation.rule.c_str(), violation.detail.c_str());
        return 1;
    }
    return 0;
}
