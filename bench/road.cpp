// The road of a received frame, from the hook driver's callback to its delivery: the framework beside the bare loop,
// which only parses the headers, calls the same filter procedures directly and hands the packet over, and beside what
// one would build of the standard library's parts: a pthread_rwlock, shared atomic counters and sigsetjmp guards.
#include "framework.h"
#include "parse-by-hand.h"

#include <hostguard.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <csetjmp>
#include <cstring>
#include <memory>
#include <pthread.h>
#include <random>
#include <span>

namespace
{

constexpr size_t kPackets = 1000; // 2.5 MB: the second-level cache holds the lines that are touched
constexpr size_t kMostThreads = 2;
constexpr size_t kPacketsEach = kPackets / kMostThreads; // of one thread, where threads are compared
constexpr size_t kMostFilters = 64;
constexpr size_t kMostAdapters = 32;

struct alignas(64) FilterContext {
    uint64_t bytes = 0;
};

struct Load {
    size_t filters = 3;
    uint32_t frameSize = 64;
    size_t adapters = 1;
    size_t threads = 0; // 0: one, with filters that count in their contexts; else they share no memory
};

NdisHookAPI g_api;
FilterAdapter g_adapters[kMostAdapters];
std::vector<std::unique_ptr<FilterPacket>> g_packets;
std::vector<FilterPacket*> g_order;
FilterContext g_contexts[kMostFilters];
constinit thread_local uint64_t t_delivered = 0; // bytes
constinit thread_local uint64_t t_seen = 0;      // bytes that filters have seen

// What a filter at the least does: look at a header pointer and pass.
FILTER_RESULT Bypass(FilterDriver*, PVOID, PacketFilter*, PVOID context, FilterPacket* packet)
{
    static_cast<FilterContext*>(context)->bytes += packet->m_pTcp != nullptr ? packet->m_nPacketSize : 0;
    return FILTER_RESULT_BYPASS;
}

// The same with a count of the thread's own.
FILTER_RESULT BypassAlone(FilterDriver*, PVOID, PacketFilter*, PVOID, FilterPacket* packet)
{
    t_seen += packet->m_pTcp != nullptr ? packet->m_nPacketSize : 0;
    return FILTER_RESULT_BYPASS;
}

FILTER_PROC ProcedureOf(const Load& load)
{
    return load.threads == 0 ? Bypass : BypassAlone;
}

ULONG Deliver(FilterAdapter*, FilterPacket* packet)
{
    t_delivered += packet->m_nPacketSize;
    return 0;
}

void MakeFrame(FilterPacket& packet, uint32_t number, const Load& load)
{
    uint8_t* const frame = packet.m_Data;
    std::memset(frame, 0, load.frameSize);
    frame[12] = 0x08; // IPv4
    uint8_t* const ip = frame + 14;
    ip[0] = 0x45;
    ip[2] = static_cast<uint8_t>((load.frameSize - 14) >> 8);
    ip[3] = static_cast<uint8_t>(load.frameSize - 14);
    ip[8] = 64;
    ip[9] = 6; // TCP
    std::memcpy(ip + 12, &number, sizeof(number));
    ip[20 + 3] = 80;
    packet.m_nPacketSize = load.frameSize;
    packet.m_nBytesRead = load.frameSize;
    packet.m_hAdapter = &g_adapters[number % load.adapters];
}

void MakePackets(const Load& load)
{
    if (g_packets.empty()) {
        for (size_t i = 0; i < kPackets; i++) {
            g_packets.push_back(std::make_unique<FilterPacket>());
            g_order.push_back(g_packets.back().get());
        }
        std::mt19937 random(7);
        for (size_t first = 0; first < kPackets;
             first += kPacketsEach) { // no thread gets a neighbour's packet
            const auto begin = g_order.begin() + static_cast<ptrdiff_t>(first);
            std::shuffle(begin, begin + static_cast<ptrdiff_t>(kPacketsEach), random);
        }
    }
    for (uint32_t i = 0; i < kPackets; i++) {
        MakeFrame(*g_packets[i], i, load);
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
    bench::Check("IoGetDeviceObjectPointer", IoGetDeviceObjectPointer(&name, GENERIC_READ, &file, &device));
    g_api.m_Size = sizeof(g_api);
    g_api.m_MajorVersion = NDIS_HOOK_MAJOR_VERSION;
    g_api.m_MinorVersion = NDIS_HOOK_MINOR_VERSION;
    g_api.Hook_InjectPacketToProtocol = Deliver;
    g_api.Hook_GetTcpIpBoundAdapters = ListAdapters;
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IO_STATUS_BLOCK result = {};
    const PIRP request =
        IoBuildDeviceIoControlRequest(IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK, device, &g_api,
                                      sizeof(g_api), &g_api, sizeof(g_api), TRUE, &done, &result);
    if (request == nullptr) {
        bench::Fail("IoBuildDeviceIoControlRequest: no memory");
    }
    if (IoCallDriver(device, request) == STATUS_PENDING) {
        KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    }
    bench::Check("binding", result.Status);
    ObDereferenceObject(file);
}

// ------------------------------------------------------------------------------------------------ the contenders

// Registers filters of its kind for a load and sends a packet down its road.
class Framework
{
  public:
    explicit Framework(const Load& load)
    {
        std::string name = "bench";
        STRING driver = Counted(name);
        bench::Check("Filter_RegisterDriver", Filter_RegisterDriver(&driver, nullptr, 1, 0, &driver_));
        for (size_t i = load.filters; i-- > 0;) { // of those that are to be last the newest is first
            PacketFilter* filter = nullptr;
            name = "filter " + std::to_string(i);
            STRING text = Counted(name);
            bench::Check("Filter_RegisterFilter",
                         Filter_RegisterFilter(driver_, &text, ProcedureOf(load), &g_contexts[i],
                                               FILTER_TYPE_INCOMING_PACKET, FILTER_ORDER_LAST, &filter));
        }
    }
    ~Framework() { Filter_DeregisterDriver(driver_); }
    Framework(const Framework&) = delete;
    Framework& operator=(const Framework&) = delete;

    void Send(FilterPacket& packet) const { g_api.Filter_FilterReceivedPacket(&packet); }

  private:
    static STRING Counted(std::string& text)
    {
        const auto length = static_cast<USHORT>(text.size());
        return {length, length, text.data()};
    }

    FilterDriver* driver_ = nullptr;
};

struct BareFilter {
    BareFilter* next;
    FILTER_PROC procedure;
    PVOID context;
};

// Filters in a list, in the order of their contexts.
template <class Filter>
class FilterList
{
  public:
    explicit FilterList(const Load& load) : filters_(load.filters)
    {
        for (size_t i = load.filters; i-- > 0;) {
            filters_[i].next = first_;
            filters_[i].procedure = ProcedureOf(load);
            filters_[i].context = &g_contexts[i];
            first_ = &filters_[i];
        }
        benchmark::DoNotOptimize(first_);
        benchmark::DoNotOptimize(deliver_);
    }

  protected:
    Filter* First() const { return first_; }
    void HandOver(FilterPacket& packet) const { deliver_(packet.m_hAdapter, &packet); }

  private:
    std::vector<Filter> filters_;
    Filter* first_ = nullptr;
    HOOK_INJECT_PACKET deliver_ = Deliver;
};

class BareLoop : FilterList<BareFilter>
{
  public:
    using FilterList::FilterList;
    void Send(FilterPacket& packet) const
    {
        bench::ParseByHand(packet);
        for (const BareFilter* filter = First(); filter != nullptr; filter = filter->next) {
            if (filter->procedure(nullptr, nullptr, nullptr, filter->context, &packet) !=
                FILTER_RESULT_BYPASS) {
                return;
            }
        }
        HandOver(packet);
    }
};

struct SharedFilter {
    SharedFilter* next;
    FILTER_PROC procedure;
    PVOID context;
    alignas(64) std::atomic<uint32_t> processed;
    std::atomic<uint32_t> bypassed;
};

// A handler of faults would jump to the innermost one.
struct JumpGuard {
    JumpGuard* outer;
    sigjmp_buf jump;
};
constinit thread_local JumpGuard* t_jumpGuard = nullptr;

class SharedLoop : FilterList<SharedFilter>
{
  public:
    using FilterList::FilterList;
    ~SharedLoop() { pthread_rwlock_destroy(&lock_); }
    SharedLoop(const SharedLoop&) = delete;
    SharedLoop& operator=(const SharedLoop&) = delete;

    void Send(FilterPacket& packet)
    {
        bench::ParseByHand(packet);
        bool pass = true;
        pthread_rwlock_rdlock(&lock_);
        for (SharedFilter* filter = First(); filter != nullptr && pass; filter = filter->next) {
            filter->processed.fetch_add(1);
            pass = RunGuarded(*filter, packet) == FILTER_RESULT_BYPASS;
            if (pass) {
                filter->bypassed.fetch_add(1);
            }
        }
        pthread_rwlock_unlock(&lock_);
        if (pass) {
            HandOver(packet);
        }
    }

  private:
    [[gnu::noinline]] static FILTER_RESULT RunGuarded(const SharedFilter& filter, FilterPacket& packet)
    {
        JumpGuard guard;
        guard.outer = t_jumpGuard;
        FILTER_RESULT result = FILTER_RESULT_BYPASS; // also of a filter that faults
        if (sigsetjmp(guard.jump, 0) == 0) {
            t_jumpGuard = &guard;
            result = filter.procedure(nullptr, nullptr, nullptr, filter.context, &packet);
        }
        t_jumpGuard = guard.outer;
        return result;
    }

    pthread_rwlock_t lock_ = PTHREAD_RWLOCK_INITIALIZER;
};

// ----------------------------------------------------------------------------------------------------- the races

// One pass over the packets, as a number that all contenders must reach.
template <class Contender>
uint64_t WorkOf(Contender& contender, const Load& load, std::span<FilterPacket* const> packets)
{
    const uint64_t delivered = t_delivered;
    const uint64_t seen = t_seen;
    std::vector<uint64_t> bytes;
    for (size_t i = 0; i < load.filters; i++) {
        bytes.push_back(load.threads == 0 ? g_contexts[i].bytes : 0);
    }
    for (FilterPacket* packet : packets) {
        packet->m_pTcp = nullptr;
        contender.Send(*packet);
    }
    uint64_t work = bench::Mix(t_delivered - delivered, t_seen - seen);
    for (size_t i = 0; i < load.filters; i++) {
        work = bench::Mix(work, load.threads == 0 ? g_contexts[i].bytes - bytes[i] : 0);
    }
    return work;
}

// Each iteration sends every packet once down the road, at DISPATCH_LEVEL as an adapter's interrupt path does.
template <class Contender>
void Race(benchmark::State& state, Contender& contender, const Load& load,
          std::span<FilterPacket* const> packets)
{
    const machine::AtDispatch raised;
    bench::SetWork(state, WorkOf(contender, load, packets));
    for (auto _ : state) {
        for (FilterPacket* packet : packets) {
            contender.Send(*packet);
        }
    }
    bench::SetOperations(state,
                         static_cast<double>(state.iterations()) * static_cast<double>(packets.size()));
}

template <class Contender>
void Register(const std::string& operation, const std::string& contender, const std::string& params,
              const Load& load)
{
    const std::string name = operation + "/" + contender + "/" + params;
    if (load.threads == 0) {
        benchmark::RegisterBenchmark(name.c_str(), [load](benchmark::State& state) {
            MakePackets(load);
            Contender road(load);
            Race(state, road, load, g_order);
        });
        return;
    }
    // All threads send through one contender, each its own packets.
    struct Shared {
        explicit Shared(size_t threads) : meeting(static_cast<ptrdiff_t>(threads)) {}
        std::barrier<> meeting;
        std::unique_ptr<Contender> road;
    };
    const auto shared = std::make_shared<Shared>(load.threads);
    const auto body = [load, shared](benchmark::State& state) {
        const auto thread = static_cast<size_t>(state.thread_index());
        if (thread == 0) {
            MakePackets(load);
            shared->road = std::make_unique<Contender>(load);
        }
        shared->meeting.arrive_and_wait();
        Race(state, *shared->road, load, std::span(g_order).subspan(thread * kPacketsEach, kPacketsEach));
        shared->meeting.arrive_and_wait();
        if (thread == 0) {
            shared->road.reset();
        }
    };
    benchmark::RegisterBenchmark(name.c_str(), body)->Threads(static_cast<int>(load.threads))->UseRealTime();
}

void RegisterAll(const std::string& operation, const std::string& params, const Load& load)
{
    Register<Framework>(operation, "framework", params, load);
    Register<BareLoop>(operation, "bare loop", params, load);
    Register<SharedLoop>(operation, "rwlock, atomics, sigsetjmp", params, load);
}

// ------------------------------------------------------------------------------------ what the host kernel costs

template <class Body>
void RegisterPart(const std::string& part, const Body& body)
{
    benchmark::RegisterBenchmark(("host kernel/" + part + "/a packet").c_str(),
                                 [body](benchmark::State& state) {
                                     const machine::AtDispatch raised;
                                     bench::SetWork(state, 1);
                                     for (auto _ : state) {
                                         body();
                                     }
                                 });
}

NDIS_RW_LOCK g_lock;

// A read lock as a kernel would have it that cannot tell whether a processor's slot is only its owner's.
struct alignas(64) InterlockedSlot {
    std::atomic<uint32_t> readers;
    alignas(64) std::atomic<uint32_t> writer;
} g_slot;

void RegisterHostKernel()
{
    NdisInitializeReadWriteLock(&g_lock);
    RegisterPart("read lock", [] {
        LOCK_STATE lockState;
        NdisAcquireReadWriteLock(&g_lock, FALSE, &lockState);
        NdisReleaseReadWriteLock(&g_lock, &lockState);
    });
    RegisterPart("interlocked both ways", [] {
        g_slot.readers.fetch_add(1);
        benchmark::DoNotOptimize(g_slot.writer.load(std::memory_order_acquire));
        g_slot.readers.fetch_sub(1);
    });
    RegisterPart("guard", [] { HostCallGuarded(nullptr, [](void*) {}); });
    RegisterPart("processor number", [] { benchmark::DoNotOptimize(KeGetCurrentProcessorNumber()); });
}

} // namespace

int main(int argc, char** argv)
{
    bench::LoadFramework();
    Bind();
    for (const size_t filters : {0, 1, 2, 3, 4, 8, 16, 32, 64}) {
        RegisterAll("road", std::to_string(filters) + " filters", {.filters = filters});
    }
    for (const uint32_t size : {64, 576, 1514}) {
        RegisterAll("road", std::to_string(size) + " bytes", {.frameSize = size});
    }
    for (const size_t adapters : {1, 2, 4, 8, 16, 32}) {
        RegisterAll("road", std::to_string(adapters) + " adapters", {.adapters = adapters});
    }
    for (const size_t threads : {1, 2}) {
        RegisterAll("road", std::to_string(threads) + " threads", {.threads = threads});
    }
    RegisterHostKernel();
    const int result = bench::Run(argc, argv);
    bench::UnloadFramework();
    return result;
}
