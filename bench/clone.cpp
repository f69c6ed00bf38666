// Cloning a packet with a 64-byte frame, and the steps that it takes, measured singly: a packet from the hook driver,
// which takes it back, the copy, what is cleared, the parse.
#include "framework.h"
#include "frames.h"

#include "hook/virtual-adapters.h"

namespace
{

constexpr size_t kCopied = 2324, kCleared = 384; // bytes of a packet
constexpr size_t kCopyFrom = sizeof(FilterPacket) - kCopied;

FilterPacket* g_source;

void Clone(benchmark::State& state)
{
    for (auto _ : state) {
        FilterPacket* clone = nullptr;
        Filter_ClonePacket(g_source, &clone);
        benchmark::DoNotOptimize(clone->m_pTcp);
        Filter_ReleasePacket(clone);
    }
    FilterPacket* clone = nullptr;
    bench::Check("cloning", Filter_ClonePacket(g_source, &clone));
    if (std::memcmp(clone->m_Data, g_source->m_Data, sizeof(clone->m_Data)) != 0 ||
        clone->m_pTcp != clone->m_Data + bench::kTcpOffset) {
        state.SkipWithError("the clone is no copy");
    }
    Filter_ReleasePacket(clone);
}

void Allocate(benchmark::State& state)
{
    for (auto _ : state) {
        FilterPacket* const packet = Filter_AllocatePacket(g_source->m_hAdapter);
        benchmark::DoNotOptimize(packet);
        Filter_ReleasePacket(packet);
    }
}

// A step on a packet of its own.
template <class Step>
void OnPacket(benchmark::State& state, const Step& step)
{
    FilterPacket* const packet = Filter_AllocatePacket(g_source->m_hAdapter);
    bench::FillFrame(packet->m_Data, 64, 0);
    for (auto _ : state) {
        step(reinterpret_cast<uint8_t*>(packet), packet);
        benchmark::ClobberMemory();
    }
    Filter_ReleasePacket(packet);
}

void Copy(benchmark::State& state)
{
    const auto* const source = reinterpret_cast<const uint8_t*>(g_source);
    OnPacket(state, [&](uint8_t* bytes, FilterPacket*) {
        std::memcpy(bytes + kCopyFrom, source + kCopyFrom, kCopied);
    });
}

void Clear(benchmark::State& state)
{
    OnPacket(state, [](uint8_t* bytes, FilterPacket*) {
        std::memset(bytes + offsetof(FilterPacket, m_InjectOrigin), 0, kCleared);
    });
}

void Parse(benchmark::State& state)
{
    OnPacket(state, [](uint8_t*, FilterPacket* packet) { Filter_InitPacketHeader(packet, nullptr); });
}

} // namespace

int main(int argc, char** argv)
{
    bench::LoadFramework();
    bench::Check("loading the hook driver", hook::Load());
    bench::Check("binding", hook::Bind());
    FilterAdapter* const adapter = hook::AddAdapter({.name = "clones", .address = {2, 0, 0, 0, 0, 1}});
    hook::OpenAdapter(adapter);
    g_source = Filter_AllocatePacket(adapter);
    bench::FillFrame(g_source->m_Data, 64, 0);
    g_source->m_nPacketSize = g_source->m_nBytesRead = 64;
    Filter_InitPacketHeader(g_source, nullptr);

    benchmark::RegisterBenchmark("clone/framework/64", Clone);
    benchmark::RegisterBenchmark("clone step/allocate/64", Allocate);
    benchmark::RegisterBenchmark("clone step/copy/64", Copy);
    benchmark::RegisterBenchmark("clone step/clear/64", Clear);
    benchmark::RegisterBenchmark("clone step/parse/64", Parse);
    const int result = bench::Run(argc, argv);

    Filter_ReleasePacket(g_source);
    bench::Check("unloading the hook driver", hook::Unload());
    bench::UnloadFramework();
    return result;
}
