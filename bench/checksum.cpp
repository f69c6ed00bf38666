// Checksums: the framework's, which go in place and count their own field as zero, beside DPDK's, which here find that
// field zero and leave the result to their caller. The plain sum is that of an ICMP message.
#include "datagrams.h"
#include "framework.h"
#include "peers/contenders.h"

#include <hostguard.h>

namespace
{

constexpr uint8_t kIcmp = 1, kTcp = 6, kUdp = 17;
constexpr size_t kSizes[] = {20, 64, 576, 1460};

void Framework(benchmark::State& state, ULONG selector, size_t offset, size_t size)
{
    bench::Datagrams datagrams(static_cast<uint8_t>(selector), offset, size);
    datagrams.UseAll(
        state, [&](bench::Datagram& datagram) { Filter_CalculatePacketCheckSum(datagram.Ip(), selector); },
        [&](bench::Datagram& datagram) {
            uint16_t checksum;
            std::memcpy(&checksum, (selector == 0 ? datagram.Ip() + 10 : datagram.Transport() + offset), 2);
            return checksum;
        });
}

// What the host's exception guard takes of a call, which __try does not on Windows: the call alone, and in the guard.
__attribute__((noinline)) void Nothing(void* context)
{
    benchmark::DoNotOptimize(context);
}

void PlainCall(benchmark::State& state)
{
    void (*routine)(void*) = Nothing;
    benchmark::DoNotOptimize(routine);
    bench::SetWork(state, 0);
    for (auto _ : state) {
        routine(&state);
    }
}

void GuardedCall(benchmark::State& state)
{
    void (*routine)(void*) = Nothing;
    benchmark::DoNotOptimize(routine);
    bench::SetWork(state, 0);
    for (auto _ : state) {
        benchmark::DoNotOptimize(HostCallGuarded(&state, routine));
    }
}

// Less than any checksum: 64-bit additions whose carries are lost.
void PlainAdditions(benchmark::State& state, size_t size)
{
    bench::Datagrams datagrams(kIcmp, 2, size);
    datagrams.SumAll(state, [&](bench::Datagram& datagram) {
        const uint8_t* p = datagram.Transport();
        const auto next = [&p] {
            uint64_t word;
            std::memcpy(&word, p, sizeof(word));
            p += sizeof(word);
            return word;
        };
        uint64_t a = 0, b = 0, c = 0, d = 0;
        size_t left = size;
        for (; left >= 32; left -= 32) {
            a += next();
            b += next();
            c += next();
            d += next();
        }
        for (; left >= 8; left -= 8) {
            a += next();
        }
        return static_cast<uint16_t>(a + b + c + d);
    });
}

} // namespace

int main(int argc, char** argv)
{
    bench::LoadFramework();
    benchmark::RegisterBenchmark("header checksum/framework/20", Framework, 0, 2, 0);
    benchmark::RegisterBenchmark("call/plain/empty", PlainCall);
    benchmark::RegisterBenchmark("call/guarded/empty", GuardedCall);
    for (const size_t size : kSizes) {
        const std::string bytes = "/" + std::to_string(size);
        benchmark::RegisterBenchmark(("checksum/framework" + bytes).c_str(), Framework, kIcmp, 2, size);
        benchmark::RegisterBenchmark(("TCP checksum/framework" + bytes).c_str(), Framework, kTcp, 16, size);
        benchmark::RegisterBenchmark(("UDP checksum/framework" + bytes).c_str(), Framework, kUdp, 6, size);
        benchmark::RegisterBenchmark(("read/plain additions" + bytes).c_str(), PlainAdditions, size);
    }
#ifdef HAVE_DPDK
    RegisterDpdkChecksumsO2();
    RegisterDpdkChecksumsO3();
#endif
    const int result = bench::Run(argc, argv);
    bench::UnloadFramework();
    return result;
}
