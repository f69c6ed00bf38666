#include "contenders.h"
#include "frames.h"

#include <pcap/pcap.h>

// It tells only whether a frame is such a one, not where its headers are.
void RegisterPcapParse()
{
    for (const uint32_t size : {64u, 1514u}) {
        const auto run = [size](benchmark::State& state) {
            pcap_t* const nowhere = pcap_open_dead(DLT_EN10MB, 65535);
            bpf_program program = {};
            if (pcap_compile(nowhere, &program, "ip and tcp dst port 80", 1, PCAP_NETMASK_UNKNOWN) != 0) {
                bench::Fail(std::string("pcap_compile: ") + pcap_geterr(nowhere));
            }
            bench::Frames<bench::PlainPacket>(size).UseAll(state, [&](bench::PlainPacket& packet) {
                return bpf_filter(program.bf_insns, packet.m_Data, size, size) != 0 ? bench::kTcpOffset : 0;
            });
            pcap_freecode(&program);
            pcap_close(nowhere);
        };
        benchmark::RegisterBenchmark(("parse/libpcap filter/" + std::to_string(size)).c_str(), run);
    }
}
