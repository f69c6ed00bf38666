#include "contenders.h"
#include "frames.h"

#include <rte_mbuf.h>
#include <rte_net.h>

void RegisterDpdkParse()
{
    for (const uint32_t size : {64u, 1514u}) {
        const auto run = [size](benchmark::State& state) {
            rte_mbuf buffer = {};
            buffer.nb_segs = 1;
            bench::Frames<bench::PlainPacket>(size).UseAll(state, [&](bench::PlainPacket& packet) -> size_t {
                buffer.buf_addr = packet.m_Data;
                buffer.data_len = static_cast<uint16_t>(size);
                buffer.pkt_len = size;
                rte_net_hdr_lens lengths;
                const uint32_t type = rte_net_get_ptype(&buffer, &lengths, RTE_PTYPE_ALL_MASK);
                return (type & RTE_PTYPE_L4_MASK) == RTE_PTYPE_L4_TCP ? lengths.l2_len + lengths.l3_len : 0u;
            });
        };
        benchmark::RegisterBenchmark(("parse/rte_net_get_ptype/" + std::to_string(size)).c_str(), run);
    }
}
