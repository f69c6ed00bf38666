// Frames through filters that give verdicts by chance, in all four chains, from two threads. The filters count their own
// verdicts; the framework's counters, the chains' course and the packets of the hook driver must agree with them to the
// last frame, and memory must stay what it is.
#include "world.h"

#include <fmt/format.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <thread>

namespace stress
{

namespace
{

constexpr uint32_t kThreads = 2;
constexpr uint32_t kFilters = 3; // in each chain
constexpr uint32_t kBatch = 64;
constexpr uint32_t kNone = 4;           // a verdict that is none of the four
constexpr size_t kMostGrowth = 1 << 20; // of the resident set: the C library's, and stacks that deepen

struct ModelFilter {
    PacketFilter* handle = nullptr;
    uint64_t verdicts[kThreads][8] = {}; // a cache line for each thread
} g_filters[FILTER_TYPE_COUNT][kFilters];

struct alignas(64) Share {
    std::atomic<uint64_t> done{0};
    uint64_t entered[FILTER_TYPE_COUNT] = {};
} g_shares[kThreads];

constinit thread_local uint32_t t_thread = 0;
constinit thread_local Random* t_verdicts = nullptr;

FILTER_RESULT Decide(FilterDriver*, PVOID, PacketFilter*, PVOID context, FilterPacket* packet)
{
    static constexpr FILTER_RESULT kOf[16] = {FILTER_RESULT_DISCARD, FILTER_RESULT_DISCARD,
                                              FILTER_RESULT_CONSUME, FILTER_RESULT_CAPTURE,
                                              kNone}; // else bypassed
    const FILTER_RESULT verdict = kOf[t_verdicts->Next() >> 60];
    static_cast<ModelFilter*>(context)->verdicts[t_thread][verdict]++;
    if (verdict == FILTER_RESULT_CONSUME) {
        Filter_ReleasePacket(packet); // it is the filter's now
    }
    return verdict;
}

void RunShare(uint32_t thread, uint64_t seed, uint64_t frames, FilterAdapter* adapter)
{
    Random verdicts(seed, 0, thread);
    t_thread = thread;
    t_verdicts = &verdicts;
    Share& share = g_shares[thread];
    const support::Bytes frame = support::UdpFrame();
    const std::vector<std::span<const uint8_t>> batch(kBatch, frame);
    for (uint64_t done = 0; done < frames;) {
        const auto type = static_cast<FILTER_TYPE>(done / kBatch % FILTER_TYPE_COUNT);
        const auto count = static_cast<uint32_t>(std::min<uint64_t>(kBatch, frames - done));
        if (type <= FILTER_TYPE_OUTGOING_PACKET) {
            const auto deliver = type == 0 ? hook::DeliverReceivedBatch : hook::DeliverSentBatch;
            share.entered[type] += deliver(adapter, {batch.data(), count}, {}).accepted;
        }
        const machine::AtDispatch raised;
        for (uint32_t i = 0; i < count && type > FILTER_TYPE_OUTGOING_PACKET; ++i) {
            if (FilterPacket* const packet = Filter_AllocatePacket(adapter)) {
                std::copy(frame.begin(), frame.end(), packet->m_Data);
                packet->m_nBytesRead = packet->m_nPacketSize = static_cast<ULONG>(frame.size());
                share.entered[type] += (type == FILTER_TYPE_INJECT_TO_ADAPTER
                                            ? Filter_InjectPacketToAdapter
                                            : Filter_IndicatePacketToProtocol)(adapter, packet) == 0;
            }
        }
        done += count;
        share.done.store(done, std::memory_order_relaxed);
    }
}

// A filter's verdicts, which its counters of 32 bits repeat in its dump. Answers how many it left to the next filter.
uint64_t CheckFilter(const ModelFilter& filter, uint64_t came, const std::string& where)
{
    machine::DebugCapture capture(machine::DebugCapture::Threads::Own);
    Filter_ShowFilter(filter.handle, 0);
    const std::string text = capture.Text();
    const auto check = [&](const char* name, uint64_t expected) {
        const size_t number = text.find("= ", text.find(name));
        Require(number != std::string::npos && static_cast<uint32_t>(std::stoll(text.substr(number + 2))) ==
                                                   static_cast<uint32_t>(expected),
                fmt::format("{}: {} is not {}, as its procedure counted", where, name, expected));
    };
    uint64_t of[kNone + 1] = {};
    uint64_t all = 0;
    for (uint32_t verdict = 0; verdict <= kNone; ++verdict) {
        of[verdict] = filter.verdicts[0][verdict] + filter.verdicts[1][verdict];
        all += of[verdict];
    }
    Require(all == came, fmt::format("{}: {} packets came, {} were to", where, all, came));
    check("m_PacketProcess", all);
    check("m_PacketBypass", of[FILTER_RESULT_BYPASS]);
    check("m_PacketDiscard", of[FILTER_RESULT_DISCARD]);
    check("m_PacketConsume", of[FILTER_RESULT_CONSUME]);
    check("m_PacketCapture", of[FILTER_RESULT_CAPTURE]);
    return of[FILTER_RESULT_BYPASS] + of[kNone];
}

void CheckCounters(uint64_t frames)
{
    uint64_t kept[FILTER_TYPE_COUNT] = {};
    uint64_t entered[FILTER_TYPE_COUNT] = {};
    for (FILTER_TYPE type = 0; type < FILTER_TYPE_COUNT; ++type) {
        kept[type] = entered[type] = g_shares[0].entered[type] + g_shares[1].entered[type];
        for (const ModelFilter& filter : g_filters[type]) {
            kept[type] = CheckFilter(filter, kept[type], fmt::format("a filter of chain {}", type));
        }
    }
    const uint64_t all = entered[0] + entered[1] + entered[2] + entered[3];
    Require(all == frames, fmt::format("{} frames entered, not {}", all, frames));
    const hook::Balance expected = {.received = entered[FILTER_TYPE_INCOMING_PACKET],
                                    .sent = entered[FILTER_TYPE_OUTGOING_PACKET],
                                    .allocated = entered[2] + entered[3],
                                    .deliveredToAdapter = kept[1] + kept[FILTER_TYPE_INJECT_TO_ADAPTER],
                                    .deliveredToProtocols = kept[0] + kept[FILTER_TYPE_INJECT_TO_PROTOCOL],
                                    .freed = all - kept[0] - kept[1] - kept[2] - kept[3]};
    Require(hook::TakeBalance() == expected, "the hook driver's counters are not what the filters counted");
}

// The least and the most of samples, which begin behind the first hundredth: by then the pool of packets has grown.
struct Range {
    size_t least = SIZE_MAX;
    size_t most = 0;
    void Take(size_t value)
    {
        least = std::min(least, value);
        most = std::max(most, value);
    }
} g_pool, g_resident;

void SampleMemory()
{
    size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> pages;
    g_pool.Take(machine::TakeCensus().poolBytes);
    g_resident.Take(pages * static_cast<size_t>(sysconf(_SC_PAGESIZE)));
}

} // namespace

int RunFrames(uint64_t frames, uint64_t seed)
{
    const machine::Census before = machine::TakeCensus();
    Load();
    FilterAdapter* const adapter = hook::AddAdapter(AdapterOptionsOf(0));
    hook::OpenAdapter(adapter);
    CHAR text[] = "0";
    const STRING name = {1, 1, text};
    FilterDriver* driver = nullptr;
    RequireSuccess(Filter_RegisterDriver(&name, nullptr, 1, 0, &driver), "registration");
    for (uint32_t i = 0; i < FILTER_TYPE_COUNT * kFilters; ++i) {
        ModelFilter& filter = g_filters[i / kFilters][i % kFilters];
        text[0] = static_cast<CHAR>('0' + i);
        RequireSuccess(Filter_RegisterFilter(driver, &name, Decide, &filter,
                                             static_cast<FILTER_TYPE>(i / kFilters),
                                             static_cast<FILTER_ORDER>(i % kFilters + 1), &filter.handle),
                       "registration of a filter");
    }

    const auto begin = std::chrono::steady_clock::now();
    double seconds = 0;
    double told = 0;
    std::vector<std::jthread> threads;
    for (uint32_t i = 0; i < kThreads; ++i) {
        const uint64_t share = frames / kThreads + (i < frames % kThreads ? 1 : 0);
        threads.emplace_back([=] { RunShare(i, seed, share, adapter); });
    }
    for (uint64_t done = 0; done < frames;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        done = g_shares[0].done + g_shares[1].done;
        seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        if (done >= frames / 100) {
            SampleMemory();
        }
        if (seconds - told > 10) {
            told = seconds;
            fmt::print(stderr, "frames: {:.0f} s, {} frames, {} failures\n", told, done, g_failures.load());
        }
    }
    threads.clear();
    CheckCounters(frames);
    Require(g_pool.most == g_pool.least, "the pool did not stay as it was");
    Require(g_resident.most - g_resident.least <= kMostGrowth, "the resident set grew");
    RequireSuccess(Filter_DeregisterDriver(driver), "deregistration");
    Unload();
    CheckNothingIsLeft(before);

    fmt::print("{} frames in {:.0f} s, {:.0f} a second, seed {}: pool {} bytes, grown by {}; resident {} "
               "bytes, grown by "
               "{}; {} failures\n",
               frames, seconds, static_cast<double>(frames) / seconds, seed, g_pool.most,
               g_pool.most - g_pool.least, g_resident.most, g_resident.most - g_resident.least,
               g_failures.load());
    return g_failures.load() == 0 ? 0 : 1;
}

} // namespace stress
