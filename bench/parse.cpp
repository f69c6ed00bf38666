// Finding the headers of a frame: the framework's parser beside a hand-written one without trace lines and guard,
// DPDK's, libpcap's filter for TCP to port 80, and libtins.
#include "framework.h"
#include "frames.h"
#include "parse-by-hand.h"
#include "peers/contenders.h"
namespace
{

void Framework(benchmark::State& state, uint32_t size)
{
    bench::Frames<FilterPacket>(size).UseAll(state, [](FilterPacket& packet) {
        Filter_InitPacketHeader(&packet, nullptr);
        return packet.m_pTcp - packet.m_pEthernet;
    });
}

void ByHand(benchmark::State& state, uint32_t size)
{
    bench::Frames<FilterPacket>(size).UseAll(state, [](FilterPacket& packet) {
        bench::ParseByHand(packet);
        benchmark::ClobberMemory();
        return packet.m_pTcp - packet.m_pEthernet;
    });
}

} // namespace

int main(int argc, char** argv)
{
    bench::LoadFramework();
    for (const uint32_t size : {64u, 1514u}) {
        const std::string parameters = "/" + std::to_string(size);
        benchmark::RegisterBenchmark(("parse/framework" + parameters).c_str(), Framework, size);
        benchmark::RegisterBenchmark(("parse/by hand" + parameters).c_str(), ByHand, size);
    }
    RegisterPcapParse();
#ifdef HAVE_DPDK
    RegisterDpdkParse();
#endif
#ifdef HAVE_TINS
    RegisterTinsParse();
#endif
    const int result = bench::Run(argc, argv);
    bench::UnloadFramework();
    return result;
}
