// The road of a received 64-byte TCP frame, from the hook driver's callback to its delivery: the framework beside the
// bare loop, which only parses the headers, calls the same filter procedures directly and hands the packet over.
//
// Ends with the differences that matter: what the framework adds to the bare loop with empty chains, and what each
// further filter that bypasses costs.
#include "machine.h"
#include "medians.h"
#include "ndisfilter.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);

namespace
{

constexpr size_t kPackets = 1000; // 2.5 MB: the second-level cache holds the lines that are touched
constexpr uint32_t kFrameSize = 64;
constexpr int kFilterCounts[] = {0, 1, 3, 10};

struct alignas(64) FilterContext {
    uint64_t bytes = 0;
};

uint64_t g_delivered;
NdisHookAPI g_api;
FilterAdapter g_adapter;
std::vector<std::unique_ptr<FilterPacket>> g_packets;
std::vector<FilterPacket*> g_order;
FilterContext g_contexts[std::size(kFilterCounts) * 10];

// What a filter at the least does: look at a header pointer and pass.
FILTER_RESULT Bypass(FilterDriver*, PVOID, PacketFilter*, PVOID context, FilterPacket* packet)
{
    static_cast<FilterContext*>(context)->bytes += packet->m_pTcp != nullptr ? packet->m_nPacketSize : 0;
    return FILTER_RESULT_BYPASS;
}

ULONG Deliver(FilterAdapter*, FilterPacket* packet)
{
    g_delivered += packet->m_nPacketSize;
    return 0;
}

void MakeFrame(FilterPacket& packet, uint32_t number)
{
    uint8_t* const frame = packet.m_Data;
    std::memset(frame, 0, kFrameSize);
    frame[12] = 0x08; // IPv4
    uint8_t* const ip = frame + 14;
    ip[0] = 0x45;
    ip[3] = kFrameSize - 14;
    ip[8] = 64;
    ip[9] = 6; // TCP
    std::memcpy(ip + 12, &number, sizeof(number));
    ip[20 + 3] = 80;
    packet.m_nPacketSize = kFrameSize;
    packet.m_nBytesRead = kFrameSize;
    packet.m_hAdapter = &g_adapter;
}

void MakePackets()
{
    for (uint32_t i = 0; i < kPackets; i++) {
        g_packets.push_back(std::make_unique<FilterPacket>());
        MakeFrame(*g_packets.back(), i);
        g_order.push_back(g_packets.back().get());
    }
    std::shuffle(g_order.begin(), g_order.end(), std::mt19937(7));
}

[[noreturn]] void Fail(const char* what, long value)
{
    std::fprintf(stderr, "bench-road: %s failed: 0x%lx\n", what, value & 0xFFFFFFFF);
    std::exit(1);
}

void Check(const char* what, long status)
{
    if (status != 0) {
        Fail(what, status);
    }
}

VOID ListAdapters(PVOID list)
{
    static_cast<AdapterList*>(list)->m_nAdapterCount = 0;
}

void Bind()
{
    UNICODE_STRING name;
    WCHAR text[] = NDIS_FILTER_DEVICE_NAME;
    RtlInitUnicodeString(&name, text);
    PFILE_OBJECT file = nullptr;
    PDEVICE_OBJECT device = nullptr;
    Check("IoGetDeviceObjectPointer", IoGetDeviceObjectPointer(&name, GENERIC_READ, &file, &device));
    g_api.m_Size = sizeof(g_api);
    g_api.m_MajorVersion = NDIS_HOOK_MAJOR_VERSION;
    g_api.m_MinorVersion = NDIS_HOOK_MINOR_VERSION;
    g_api.Hook_InjectPacketToProtocol = Deliver;
    g_api.Hook_GetTcpIpBoundAdapters = ListAdapters;
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IO_STATUS_BLOCK result = {};
    const PIRP request =
        IoBuildDeviceIoControlRequest(IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK, device, &g_api, sizeof(g_api), &g_api,
                                      sizeof(g_api), TRUE, &done, &result);
    if (request == nullptr) {
        Fail("IoBuildDeviceIoControlRequest", STATUS_INSUFFICIENT_RESOURCES);
    }
    if (IoCallDriver(device, request) == STATUS_PENDING) {
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    }
    Check("binding", result.Status);
    ObDereferenceObject(file);
}

// The chain holds as many bypassing filters as a benchmark asks for.
class Filters
{
  public:
    explicit Filters(int count)
    {
        Check("Filter_RegisterDriver", Filter_RegisterDriver(Counted("bench").get(), nullptr, 1, 0, &driver_));
        for (int i = 0; i < count; i++) {
            PacketFilter* filter = nullptr;
            Check("Filter_RegisterFilter",
                  Filter_RegisterFilter(driver_, Counted("filter " + std::to_string(i)).get(), Bypass, &g_contexts[i],
                                        FILTER_TYPE_INCOMING_PACKET, FILTER_ORDER_LAST, &filter));
        }
    }
    ~Filters()
    {
        Filter_DeregisterDriver(driver_);
    }
    Filters(const Filters&) = delete;
    Filters& operator=(const Filters&) = delete;

  private:
    // The name lives behind the counted string, in one object.
    struct Name : STRING {
        std::string text;
    };
    static std::unique_ptr<Name> Counted(const std::string& text)
    {
        auto name = std::make_unique<Name>();
        name->text = text;
        name->Buffer = name->text.data();
        name->Length = name->MaximumLength = static_cast<USHORT>(text.size());
        return name;
    }

    FilterDriver* driver_ = nullptr;
};

// Each iteration sends every packet once down the road, at DISPATCH_LEVEL as an adapter's interrupt path does.
template <class Road> void SendAll(benchmark::State& state, const Road& road)
{
    const machine::AtDispatch raised;
    g_delivered = 0;
    for (auto _ : state) {
        for (FilterPacket* packet : g_order) {
            road(*packet);
        }
    }
    const uint64_t packets = static_cast<uint64_t>(state.iterations()) * kPackets;
    if (g_delivered != packets * kFrameSize) {
        state.SkipWithError("not every packet was delivered whole");
    }
    state.counters["per packet"] = benchmark::Counter(static_cast<double>(packets),
                                                      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void FrameworkRoad(benchmark::State& state)
{
    const Filters filters(static_cast<int>(state.range(0)));
    SendAll(state, [](FilterPacket& packet) { g_api.Filter_FilterReceivedPacket(&packet); });
}

uint32_t Be16(const uint8_t* p)
{
    return static_cast<uint32_t>(p[0]) << 8 | p[1];
}

// The least that finds all headers of a frame.
void BareParse(FilterPacket& packet)
{
    uint8_t* const frame = packet.m_Data;
    uint8_t *arp = nullptr, *ip = nullptr, *tcp = nullptr, *udp = nullptr, *icmp = nullptr;
    switch (Be16(frame + 12)) {
    case 0x0806:
        arp = frame + 14;
        break;
    case 0x0800: {
        ip = frame + 14;
        uint8_t* const transport = ip + 4 * (ip[0] & 0xF);
        packet.m_nProtocol = ip[9];
        if ((Be16(ip + 6) & 0x1FFF) == 0) {
            (ip[9] == 6 ? tcp : ip[9] == 17 ? udp : icmp) = transport;
        }
        break;
    }
    default:
        break;
    }
    packet.m_pEthernet = frame;
    packet.m_pArp = arp;
    packet.m_pIp = ip;
    packet.m_pTcp = tcp;
    packet.m_pUdp = udp;
    packet.m_pIcmp = icmp;
    packet.m_pDhcp = nullptr;
    packet.m_pDns = nullptr;
}

struct BareFilter {
    BareFilter* next;
    FILTER_PROC procedure;
    PVOID context;
};

void BareLoop(benchmark::State& state)
{
    std::vector<BareFilter> filters(static_cast<size_t>(state.range(0)));
    BareFilter* first = nullptr;
    for (size_t i = filters.size(); i-- > 0;) {
        filters[i] = {first, Bypass, &g_contexts[i]};
        first = &filters[i];
    }
    benchmark::DoNotOptimize(first);
    HOOK_INJECT_PACKET deliver = Deliver;
    benchmark::DoNotOptimize(deliver);
    SendAll(state, [&](FilterPacket& packet) {
        BareParse(packet);
        for (const BareFilter* filter = first; filter != nullptr; filter = filter->next) {
            if (filter->procedure(nullptr, nullptr, nullptr, filter->context, &packet) != FILTER_RESULT_BYPASS) {
                return;
            }
        }
        deliver(packet.m_hAdapter, &packet);
    });
}

void PrintSummary(const bench::Medians& medians)
{
    const auto of = [&](const std::string& name, int filters) { // nanoseconds
        return medians.Of(name + "/" + std::to_string(filters)) * 1e9;
    };
    if (medians.Count() != 2 * std::size(kFilterCounts)) {
        return; // a filter on the command line chose some only, or a run failed
    }
    const double added = of("framework", 0) - of("bare loop", 0);
    const double filter = (of("framework", 10) - of("framework", 0)) / 10;
    std::printf("\nempty chains: framework %.1f ns, bare loop %.1f ns a packet: adds %.1f ns\n",
                of("framework", 0), of("bare loop", 0), added);
    std::printf("each further bypassing filter: %.1f ns\n", filter);
    std::printf("3 filters: %.1f ns, %.2f times the bare loop (%.1f ns), %.1f million frames a second\n",
                of("framework", 3), of("framework", 3) / of("bare loop", 3), of("bare loop", 3),
                1e3 / of("framework", 3));
}

} // namespace

int main(int argc, char** argv)
{
    if (!bench::Initialize(argc, argv, 9)) {
        return 2;
    }
    const auto entry = [](void* driver, void* path) {
        return DriverEntry(static_cast<PDRIVER_OBJECT>(driver), static_cast<PUNICODE_STRING>(path));
    };
    Check("loading the framework", machine::LoadDriver("NdisFilter", entry));
    MakePackets();
    Bind();
    for (const int filters : kFilterCounts) {
        benchmark::RegisterBenchmark("bare loop", BareLoop)->Arg(filters);
        benchmark::RegisterBenchmark("framework", FrameworkRoad)->Arg(filters);
    }
    bench::Medians medians("per packet");
    benchmark::RunSpecifiedBenchmarks(&medians);
    PrintSummary(medians);
    Check("unloading the framework", machine::UnloadDriver("NdisFilter"));
    for (const machine::Violation& violation : machine::TakeViolations()) {
        std::fprintf(stderr, "bench-road: %s: %s %s\n", violation.rule.c_str(), violation.function.c_str(),
                     violation.detail.c_str());
        return 1;
    }
    return 0;
}
