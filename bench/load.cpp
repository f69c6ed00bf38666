// From nothing to a framework that is bound to its hook driver, with an adapter that is open and a client driver's filter
// in the chain; and the pool memory that is taken then, beyond what is mapped into programs and the hook driver's own.
#include "framework.h"

#include "hook/virtual-adapters.h"

#include <chrono>

namespace
{

FILTER_RESULT Bypass(FilterDriver*, PVOID, PacketFilter*, PVOID, FilterPacket*)
{
    return FILTER_RESULT_BYPASS;
}

size_t PoolBytes()
{
    return machine::TakeCensus().poolBytes;
}

struct Loaded {
    double seconds = 0;
    size_t bytes = 0;
};

Loaded LoadAndUnload()
{
    Loaded loaded;
    const auto begin = std::chrono::steady_clock::now();
    bench::LoadFramework();
    const size_t before = PoolBytes();
    bench::Check("loading the hook driver", hook::Load());
    const size_t hook = PoolBytes() - before;
    bench::Check("binding", hook::Bind());
    hook::OpenAdapter(hook::AddAdapter({.name = "adapter", .address = {2, 0, 0, 0, 0, 1}}));
    char text[] = "bench";
    const STRING name = {5, 6, text};
    FilterDriver* driver = nullptr;
    PacketFilter* filter = nullptr;
    bench::Check("Filter_RegisterDriver", Filter_RegisterDriver(&name, nullptr, 1, 0, &driver));
    bench::Check("Filter_RegisterFilter",
                 Filter_RegisterFilter(driver, &name, Bypass, nullptr, FILTER_TYPE_INCOMING_PACKET,
                                       FILTER_ORDER_LAST, &filter));
    loaded.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    loaded.bytes = PoolBytes() - hook - NDIS_FILTER_MAPPED_MEMORY_SIZE;
    bench::Check("Filter_DeregisterDriver", Filter_DeregisterDriver(driver));
    bench::Check("unloading the hook driver", hook::Unload());
    bench::UnloadFramework();
    return loaded;
}

void Time(benchmark::State& state)
{
    for (auto _ : state) {
        state.SetIterationTime(LoadAndUnload().seconds);
    }
}

void Memory(benchmark::State& state)
{
    Loaded loaded;
    for (auto _ : state) {
        loaded = LoadAndUnload();
        state.SetIterationTime(loaded.seconds);
    }
    bench::SetValue(state, static_cast<double>(loaded.bytes) / 1e6);
}

} // namespace

int main(int argc, char** argv)
{
    benchmark::RegisterBenchmark("load/framework/time", Time)->UseManualTime();
    benchmark::RegisterBenchmark("load/framework/memory", Memory)->UseManualTime();
    return bench::Run(argc, argv);
}
