#include "contenders.h"
#include "frames.h"

#include <tins/tins.h>

void RegisterTinsParse()
{
    for (const uint32_t size : {64u, 1514u}) {
        const auto run = [size](benchmark::State& state) {
            bench::Frames<bench::PlainPacket>(size).UseAll(state, [&](bench::PlainPacket& packet) -> size_t {
                const Tins::EthernetII frame(packet.m_Data, size);
                const auto* const ip = frame.find_pdu<Tins::IP>();
                const auto* const tcp = frame.find_pdu<Tins::TCP>();
                return ip != nullptr && tcp != nullptr ? frame.header_size() + ip->header_size() : 0;
            });
        };
        benchmark::RegisterBenchmark(("parse/libtins/" + std::to_string(size)).c_str(), run);
    }
}
