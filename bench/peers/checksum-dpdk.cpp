// Compiled once for each optimization level: DPDK's sums are inline functions.
#include "contenders.h"
#include "datagrams.h"

#include <rte_ip.h>

namespace
{

constexpr size_t kSizes[] = {20, 64, 576, 1460};

const rte_ipv4_hdr* HeaderOf(bench::Datagram& datagram)
{
    return reinterpret_cast<const rte_ipv4_hdr*>(datagram.Ip());
}

void Header(benchmark::State& state)
{
    bench::Datagrams(0, 2, 0).SumAll(
        state, [](bench::Datagram& datagram) { return rte_ipv4_cksum(HeaderOf(datagram)); });
}

void Raw(benchmark::State& state, size_t size)
{
    bench::Datagrams(1, 2, size).SumAll(state, [&](bench::Datagram& datagram) {
        return static_cast<uint16_t>(~rte_raw_cksum(datagram.Transport(), size));
    });
}

void Transport(benchmark::State& state, uint8_t protocol, size_t offset, size_t size)
{
    bench::Datagrams(protocol, offset, size).SumAll(state, [](bench::Datagram& datagram) {
        return rte_ipv4_udptcp_cksum(HeaderOf(datagram), datagram.Transport());
    });
}

void Register(const std::string& level)
{
    const auto name = [&](const char* function, const char* operation, size_t size) {
        return std::string(operation) + "/" + function + " " + level + "/" + std::to_string(size);
    };
    benchmark::RegisterBenchmark(name("rte_ipv4_cksum", "header checksum", 20).c_str(), Header);
    for (const size_t size : kSizes) {
        benchmark::RegisterBenchmark(name("rte_raw_cksum", "checksum", size).c_str(), Raw, size);
        benchmark::RegisterBenchmark(name("rte_ipv4_udptcp_cksum", "TCP checksum", size).c_str(), Transport,
                                     6, 16, size);
        benchmark::RegisterBenchmark(name("rte_ipv4_udptcp_cksum", "UDP checksum", size).c_str(), Transport,
                                     17, 6, size);
    }
}

} // namespace

void REGISTER_FUNCTION()
{
    Register(OPTIMIZATION_LEVEL);
}
