// A number of operations for callgrind to count the instructions of: what one costs is the difference between two runs
// with other numbers, divided by that of the numbers. scripts/count-instructions runs it.
//
//   bench-instructions OPERATION TIMES
#include "framework.h"
#include "frames.h"

#include "hook/virtual-adapters.h"

#include <functional>
#include <map>

namespace
{

FilterAdapter* g_adapter;
FilterPacket* g_packet; // with a TCP frame of 64 bytes
uint8_t g_datagram[1480];
uint64_t g_bytes;

FILTER_RESULT Bypass(FilterDriver*, PVOID, PacketFilter*, PVOID, FilterPacket* packet)
{
    g_bytes += packet->m_pTcp != nullptr ? packet->m_nPacketSize : 0;
    return FILTER_RESULT_BYPASS;
}

void MakeDatagram(size_t size, uint8_t protocol)
{
    g_datagram[0] = 0x45;
    g_datagram[2] = static_cast<uint8_t>((20 + size) >> 8);
    g_datagram[3] = static_cast<uint8_t>(20 + size);
    g_datagram[9] = protocol;
    for (size_t i = 12; i < sizeof(g_datagram); i++) {
        g_datagram[i] = static_cast<uint8_t>(7 * i);
    }
}

// From the hook driver's batch over the filters to its delivery: the hook driver's own part is in it.
void Road(uint64_t times, int filters)
{
    char text[] = "bench";
    const STRING name = {5, 6, text};
    FilterDriver* driver = nullptr;
    bench::Check("Filter_RegisterDriver", Filter_RegisterDriver(&name, nullptr, 1, 0, &driver));
    for (int i = 0; i < filters; i++) {
        char number[] = {static_cast<char>('0' + i), 0};
        const STRING filterName = {1, 2, number};
        PacketFilter* filter = nullptr;
        bench::Check("Filter_RegisterFilter",
                     Filter_RegisterFilter(driver, &filterName, Bypass, nullptr, FILTER_TYPE_INCOMING_PACKET,
                                           FILTER_ORDER_LAST, &filter));
    }
    const std::vector<std::span<const uint8_t>> frames(64, std::span<const uint8_t>(g_packet->m_Data, 64));
    for (uint64_t done = 0; done < times; done += frames.size()) {
        if (hook::DeliverReceivedBatch(g_adapter, frames).accepted != frames.size()) {
            bench::Fail("a frame was not accepted");
        }
    }
    if (g_bytes < times * 64 * static_cast<unsigned>(filters)) {
        bench::Fail("a filter has not seen every frame");
    }
    bench::Check("Filter_DeregisterDriver", Filter_DeregisterDriver(driver));
}

void Checksum(uint64_t times, size_t size, uint8_t selector)
{
    MakeDatagram(size, selector);
    for (uint64_t i = 0; i < times; i++) {
        Filter_CalculatePacketCheckSum(g_datagram, selector);
    }
}

void Parse(uint64_t times)
{
    for (uint64_t i = 0; i < times; i++) {
        Filter_InitPacketHeader(g_packet, nullptr);
    }
}

void Clone(uint64_t times)
{
    for (uint64_t i = 0; i < times; i++) {
        FilterPacket* clone = nullptr;
        Filter_ClonePacket(g_packet, &clone);
        Filter_ReleasePacket(clone);
    }
}

const std::map<std::string, std::function<void(uint64_t)>> kOperations = {
    {"road-0-filters", [](uint64_t times) { Road(times, 0); }},
    {"road-3-filters", [](uint64_t times) { Road(times, 3); }},
    {"road-10-filters", [](uint64_t times) { Road(times, 10); }},
    {"parse-tcp", Parse},
    {"checksum-header", [](uint64_t times) { Checksum(times, 0, 0); }},
    {"checksum-64", [](uint64_t times) { Checksum(times, 64, 1); }},
    {"checksum-1460", [](uint64_t times) { Checksum(times, 1460, 1); }},
    {"checksum-tcp-1460", [](uint64_t times) { Checksum(times, 1460, 6); }},
    {"clone-64", Clone},
};

} // namespace

int main(int argc, char** argv)
{
    const auto operation = kOperations.find(argc > 1 ? argv[1] : "");
    if (argc != 3 || operation == kOperations.end()) {
        for (const auto& [name, run] : kOperations) {
            std::puts(name.c_str());
        }
        return argc == 1 ? 0 : 2;
    }
    bench::LoadFramework();
    bench::Check("loading the hook driver", hook::Load());
    bench::Check("binding", hook::Bind());
    g_adapter = hook::AddAdapter({.name = "adapter", .address = {2, 0, 0, 0, 0, 1}});
    hook::OpenAdapter(g_adapter);
    g_packet = Filter_AllocatePacket(g_adapter);
    bench::FillFrame(g_packet->m_Data, 64, 0);
    g_packet->m_nPacketSize = g_packet->m_nBytesRead = 64;
    Filter_InitPacketHeader(g_packet, nullptr);

    operation->second(std::strtoull(argv[2], nullptr, 10));

    Filter_ReleasePacket(g_packet);
    bench::Check("unloading the hook driver", hook::Unload());
    bench::UnloadFramework();
    return 0;
}
