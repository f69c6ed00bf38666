// Frames through filters that give verdicts by chance, in all four chains, from two threads. The filters count their own
// verdicts; the framework's counters, the chains' course and the packets of the hook driver must agree with them to the
// last frame, and memory must stay what it is.
#include "rounds.h"
#include "world.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <thread>

extern "C" int32_t DriverEntry(_DRIVER_OBJECT* driver, _UNICODE_STRING* registryPath);

namespace stress
{

namespace
{

constexpr uint32_t kThreads = 2;
constexpr uint32_t kFilters = 3; // in each chain
constexpr uint32_t kBatch = 64;
constexpr uint32_t kVerdicts = 5; // the four, and one that is none
constexpr size_t kMostGrowth =
    1 << 20; // of the resident set, in bytes: the C library's, and stacks that deepen

// What a thread's calls of one filter came to.
struct alignas(64) Counts {
    uint64_t of[kVerdicts];
    uint64_t All() const { return of[0] + of[1] + of[2] + of[3] + of[4]; }
    uint64_t Kept() const { return of[FILTER_RESULT_BYPASS] + of[4]; } // for the next filter
};

struct ModelFilter {
    PacketFilter* handle = nullptr;
    Counts counts[kThreads] = {};

    Counts Sum() const
    {
        Counts sum = {};
        for (const Counts& counts_ : counts) {
            for (uint32_t i = 0; i < kVerdicts; ++i) {
                sum.of[i] += counts_.of[i];
            }
        }
        return sum;
    }
};

ModelFilter g_filters[FILTER_TYPE_COUNT][kFilters];
uint64_t g_seed;

constinit thread_local uint32_t t_thread = 0;
constinit thread_local Random* t_verdicts = nullptr;

// Of 256 packets 180 are bypassed.
constexpr auto kVerdictOf = [] {
    std::array<uint8_t, 256> table = {};
    for (uint32_t i = 0; i < 256; ++i) {
        table[i] = static_cast<uint8_t>(i < 180   ? FILTER_RESULT_BYPASS
                                        : i < 205 ? FILTER_RESULT_DISCARD
                                        : i < 225 ? FILTER_RESULT_CONSUME
                                        : i < 245 ? FILTER_RESULT_CAPTURE
                                                  : 4);
    }
    return table;
}();

FILTER_RESULT Decide(FilterDriver*, PVOID, PacketFilter*, PVOID context, FilterPacket* packet)
{
    const uint8_t verdict = kVerdictOf[t_verdicts->Next() >> 56];
    static_cast<ModelFilter*>(context)->counts[t_thread].of[verdict]++;
    if (verdict == FILTER_RESULT_CONSUME) {
        Filter_ReleasePacket(packet); // it is the filter's now
    }
    return verdict;
}

struct alignas(64) Share {
    std::atomic<uint64_t> done{0};
    uint64_t entered[FILTER_TYPE_COUNT] = {};
};
Share g_shares[kThreads];

void RunShare(uint32_t thread, uint64_t frames, FilterAdapter* adapter)
{
    Random verdicts(g_seed, 0, thread);
    t_thread = thread;
    t_verdicts = &verdicts;
    Share& share = g_shares[thread];
    const support::Bytes frame = support::EthernetFrame(
        support::kEtherTypeIpv4,
        support::Ipv4Packet(support::kProtocolTcp, support::TcpSegment(1000, 80, 2, support::Counting(10))));
    const std::vector<std::span<const uint8_t>> batch(kBatch, frame);
    for (uint64_t done = 0; done < frames;) {
        const auto type = static_cast<FILTER_TYPE>(done / kBatch % FILTER_TYPE_COUNT);
        const auto count = static_cast<uint32_t>(std::min<uint64_t>(kBatch, frames - done));
        const hook::Frames part(batch.data(), count);
        if (type <= FILTER_TYPE_OUTGOING_PACKET) {
            const auto deliver =
                type == FILTER_TYPE_INCOMING_PACKET ? hook::DeliverReceivedBatch : hook::DeliverSentBatch;
            share.entered[type] += deliver(adapter, part, {}).accepted;
        } else {
            const auto inject = type == FILTER_TYPE_INJECT_TO_ADAPTER ? Filter_InjectPacketToAdapter
                                                                      : Filter_IndicatePacketToProtocol;
            const machine::AtDispatch raised;
            for (uint32_t i = 0; i < count; ++i) {
                FilterPacket* const packet = Filter_AllocatePacket(adapter);
                if (packet == nullptr) {
                    continue;
                }
                std::copy(frame.begin(), frame.end(), packet->m_Data);
                packet->m_nBytesRead = packet->m_nPacketSize = static_cast<ULONG>(frame.size());
                share.entered[type] += inject(adapter, packet) == FILTER_STATUS_SUCCESS ? 1 : 0;
            }
        }
        done += count;
        share.done.store(done, std::memory_order_relaxed);
    }
}

void Require(bool holds, const std::string& what)
{
    if (!holds) {
        Fail(what);
    }
}

// A filter's counters as its dump shows them: processed, then the four verdicts. They have 32 bits.
void CompareCounters(FILTER_TYPE type, uint32_t place)
{
    const ModelFilter& filter = g_filters[type][place];
    const Counts sum = filter.Sum();
    machine::DebugCapture capture(machine::DebugCapture::Threads::Own);
    Filter_ShowFilter(filter.handle, place);
    const std::string text = capture.Text();
    const std::pair<const char*, uint64_t> rows[] = {{"m_PacketProcess", sum.All()},
                                                     {"m_PacketBypass", sum.of[FILTER_RESULT_BYPASS]},
                                                     {"m_PacketDiscard", sum.of[FILTER_RESULT_DISCARD]},
                                                     {"m_PacketConsume", sum.of[FILTER_RESULT_CONSUME]},
                                                     {"m_PacketCapture", sum.of[FILTER_RESULT_CAPTURE]}};
    for (const auto& [name, expected] : rows) {
        const size_t number = text.find("= ", text.find(name));
        const auto shown =
            number == std::string::npos ? ~0u : static_cast<uint32_t>(std::stoll(text.substr(number + 2)));
        Require(shown == static_cast<uint32_t>(expected),
                fmt::format("chain {}, filter {}: {} is {}, its procedure counted {}", type, place, name,
                            shown, static_cast<uint32_t>(expected)));
    }
}

struct MemorySample {
    size_t poolBlocks = 0;
    size_t poolBytes = 0;
    size_t resident = 0; // bytes
};

MemorySample SampleMemory()
{
    const machine::Census census = machine::TakeCensus();
    size_t pages = 0;
    size_t resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return {census.poolBlocks, census.poolBytes, resident * static_cast<size_t>(sysconf(_SC_PAGESIZE))};
}

uint64_t Done()
{
    uint64_t done = 0;
    for (const Share& share : g_shares) {
        done += share.done.load(std::memory_order_relaxed);
    }
    return done;
}

// Samples behind the first hundredth of the frames, in which the pool of packets grows: first, least and greatest.
struct Watch {
    MemorySample first, least, greatest;
    size_t samples = 0;

    void Take()
    {
        const MemorySample sample = SampleMemory();
        if (samples++ == 0) {
            first = least = greatest = sample;
        }
        for (const auto field :
             {&MemorySample::poolBlocks, &MemorySample::poolBytes, &MemorySample::resident}) {
            least.*field = std::min(least.*field, sample.*field);
            greatest.*field = std::max(greatest.*field, sample.*field);
        }
    }
};

void Compare(uint64_t frames, const hook::Balance& balance)
{
    uint64_t kept[FILTER_TYPE_COUNT] = {};
    uint64_t entered[FILTER_TYPE_COUNT] = {};
    uint64_t all = 0;
    for (FILTER_TYPE type = 0; type < FILTER_TYPE_COUNT; ++type) {
        for (const Share& share : g_shares) {
            entered[type] += share.entered[type];
        }
        all += entered[type];
        uint64_t expected = entered[type];
        for (uint32_t place = 0; place < kFilters; ++place) {
            const Counts sum = g_filters[type][place].Sum();
            Require(sum.All() == expected, fmt::format("chain {}, filter {}: {} packets came, {} were to",
                                                       type, place, sum.All(), expected));
            CompareCounters(type, place);
            expected = sum.Kept();
        }
        kept[type] = expected;
    }
    Require(all == frames, fmt::format("{} frames entered, not {}", all, frames));
    const hook::Balance expected = {
        .received = entered[FILTER_TYPE_INCOMING_PACKET],
        .sent = entered[FILTER_TYPE_OUTGOING_PACKET],
        .allocated = entered[FILTER_TYPE_INJECT_TO_ADAPTER] + entered[FILTER_TYPE_INJECT_TO_PROTOCOL],
        .deliveredToAdapter = kept[FILTER_TYPE_OUTGOING_PACKET] + kept[FILTER_TYPE_INJECT_TO_ADAPTER],
        .deliveredToProtocols = kept[FILTER_TYPE_INCOMING_PACKET] + kept[FILTER_TYPE_INJECT_TO_PROTOCOL],
        .freed = all - kept[0] - kept[1] - kept[2] - kept[3]};
    Require(balance == expected, "the hook driver's counters are not what the filters counted");
}

void RequireSuccess(int64_t status, const char* what)
{
    Require(status == 0, fmt::format("{}: {}", what, status));
}

} // namespace

int RunFrames(uint64_t frames, uint64_t seed, bool json)
{
    g_seed = seed;
    const machine::Census before = machine::TakeCensus();
    RequireSuccess(machine::LoadDriver("NdisFilter", DriverEntry), "load of the framework");
    RequireSuccess(hook::Load({.packetLimit = 2048}), "load of the hook driver");
    RequireSuccess(hook::Bind(), "binding");
    FilterAdapter* const adapter = hook::AddAdapter(AdapterOptionsOf(0));
    hook::OpenAdapter(adapter);
    FilterDriver* driver = nullptr;
    RequireSuccess(Filter_RegisterDriver(Counted("frames").Get(), nullptr, 1, 0, &driver), "registration");
    for (FILTER_TYPE type = 0; type < FILTER_TYPE_COUNT; ++type) {
        for (uint32_t place = 0; place < kFilters; ++place) {
            ModelFilter& filter = g_filters[type][place];
            const Counted name(std::to_string(place));
            RequireSuccess(Filter_RegisterFilter(driver, name.Get(), Decide, &filter, type,
                                                 static_cast<FILTER_ORDER>(place + 1), &filter.handle),
                           "registration of a filter");
        }
    }

    using Clock = std::chrono::steady_clock;
    const auto begin = Clock::now();
    const auto elapsed = [&] { return std::chrono::duration<double>(Clock::now() - begin).count(); };
    Watch watch;
    {
        std::vector<std::jthread> threads;
        for (uint32_t i = 0; i < kThreads; ++i) {
            const uint64_t share = frames / kThreads + (i < frames % kThreads ? 1 : 0);
            threads.emplace_back([=] { RunShare(i, share, adapter); });
        }
        double told = 0;
        for (uint64_t done = 0; (done = Done()) < frames;) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            if (done >= frames / 100) {
                watch.Take();
            }
            if (elapsed() - told > 10) {
                told = elapsed();
                fmt::print(stderr, "frames: {:.0f} s, {:.1f} %, {:.2f} million a second\n", told,
                           100.0 * static_cast<double>(done) / static_cast<double>(frames),
                           static_cast<double>(done) / told / 1e6);
            }
        }
    }
    watch.Take();
    const double seconds = elapsed();
    Compare(frames, hook::TakeBalance());
    const size_t growth = watch.greatest.resident - watch.first.resident;
    Require(watch.greatest.poolBytes == watch.least.poolBytes &&
                watch.greatest.poolBlocks == watch.least.poolBlocks,
            fmt::format("the pool did not stay as it was: {} to {} bytes", watch.least.poolBytes,
                        watch.greatest.poolBytes));
    Require(growth <= kMostGrowth, fmt::format("the resident set grew by {} bytes", growth));
    RequireSuccess(Filter_DeregisterDriver(driver), "deregistration");
    RequireSuccess(hook::Unload(), "unload of the hook driver");
    RequireSuccess(machine::UnloadDriver("NdisFilter"), "unload of the framework");
    Require(machine::TakeCensus() == before,
            "left behind: " + machine::DescribeCensus(machine::TakeCensus()));
    Require(machine::TakeViolations().empty() && hook::TakeMisuses().empty(), "rules were broken");

    const double rate = static_cast<double>(frames) / seconds;
    if (json) {
        fmt::print("{}\n", nlohmann::json{{"frames", frames},
                                          {"seconds", seconds},
                                          {"framesPerSecond", rate},
                                          {"seed", seed},
                                          {"poolBytes", watch.greatest.poolBytes},
                                          {"poolGrowth", watch.greatest.poolBytes - watch.least.poolBytes},
                                          {"residentBytes", watch.greatest.resident},
                                          {"residentGrowth", growth},
                                          {"memorySamples", watch.samples},
                                          {"failures", Failures()}}
                               .dump(2));
    } else {
        fmt::print("{} frames in {:.1f} s, {:.2f} million a second, seed {}; pool {} bytes, {} more at most; "
                   "resident {} "
                   "bytes, {} more at most ({} samples); {} failures\n",
                   frames, seconds, rate / 1e6, seed, watch.first.poolBytes,
                   watch.greatest.poolBytes - watch.least.poolBytes, watch.first.resident, growth,
                   watch.samples, Failures());
    }
    return Failures() == 0 ? 0 : 1;
}

} // namespace stress
