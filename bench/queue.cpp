// Handing packets over to a worker: the framework's injection queue, whose worker sends each packet through an empty
// chain to the hook driver, beside lists with a worker that only counts. One producer, one worker, a core for each.
//
// What is measured: packets through the queue as fast as they go; how soon a worker wakes that has slept; and system
// calls of the producer while the worker is at work.
#include "hook.h"
#include "processors.h"
#include "system-calls.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <immintrin.h>
#include <linux/futex.h>
#include <sys/eventfd.h>

namespace
{

using Clock = std::chrono::steady_clock;

constexpr uint64_t kOnTheWay = 512; // packets that may be
constexpr size_t kPackets = 1024;
constexpr int kWakes = 300;
constexpr auto kIdle = std::chrono::microseconds(200); // so long a worker has slept
constexpr int kInjections = 400;

const bench::ProcessorPair processors;
FilterAdapter g_adapter;

// What has come out at the end.
struct Delivered {
    std::atomic<uint64_t> count{0};
    uint64_t work = 0; // the order
    std::atomic<bool> hold{false};
    std::atomic<bool> held{false};
    std::atomic<bool> stamp{false};
    Clock::time_point time;

    void Take(const FilterPacket& packet)
    {
        if (stamp.load(std::memory_order_relaxed)) {
            time = Clock::now();
        }
        work = bench::Mix(work, packet.m_nIndicateValue);
        count.store(count.load(std::memory_order_relaxed) + 1, std::memory_order_release);
        while (hold.load(std::memory_order_relaxed)) {
            held.store(true, std::memory_order_relaxed);
            _mm_pause();
        }
    }
};
Delivered g_delivered;

ULONG Deliver(FilterAdapter*, FilterPacket* packet)
{
    g_delivered.Take(*packet);
    return 0;
}

class Packets
{
  public:
    Packets() : packets_(std::make_unique<FilterPacket[]>(kPackets))
    {
        for (size_t i = 0; i < kPackets; ++i) {
            packets_[i].m_nPacketSize = packets_[i].m_nBytesRead = 64;
            packets_[i].m_Data[12] = 0x88; // no IP: all go into the first queue
            packets_[i].m_Data[13] = 0xB5;
            packets_[i].m_nIndicateValue = i;
        }
    }
    FilterPacket* Next() { return &packets_[next_++ % kPackets]; }
    uint64_t Given() const { return next_; }

  private:
    std::unique_ptr<FilterPacket[]> packets_;
    uint64_t next_ = 0;
};

void WaitForAll(const Packets& packets)
{
    while (g_delivered.count.load(std::memory_order_acquire) != packets.Given()) {
        _mm_pause();
    }
}

// ------------------------------------------------------------------------------------------------------ the contenders

class Framework
{
  public:
    void Push(FilterPacket* packet) { Filter_IndicatePacketFromAdapter(&g_adapter, packet); }
};

// The packets on their way to a worker, linked through themselves. The caller serialises.
class Chain
{
  public:
    bool Append(FilterPacket* packet) // true: it is the first
    {
        packet->m_InjectLink.Flink = nullptr;
        const bool first = head_ == nullptr;
        (first ? head_ : last_->m_InjectLink.Flink) = &packet->m_InjectLink;
        last_ = packet;
        return first;
    }
    FilterPacket* TakeFirst()
    {
        if (head_ == nullptr) {
            return nullptr;
        }
        FilterPacket* const packet = CONTAINING_RECORD(head_, FilterPacket, m_InjectLink);
        head_ = head_->Flink;
        return packet;
    }
    bool IsEmpty() const { return head_ == nullptr; }

  private:
    LIST_ENTRY* head_ = nullptr;
    FilterPacket* last_ = nullptr;
};

// A list whose worker a condition variable wakes: at each packet, or only for the first.
template <bool Each>
class SignalledList
{
  public:
    SignalledList() : worker_([this] { Work(); }) {}
    ~SignalledList()
    {
        {
            const std::lock_guard lock(mutex_);
            stop_ = true;
        }
        wake_.notify_one();
        worker_.join();
    }
    void Push(FilterPacket* packet)
    {
        bool first;
        {
            const std::lock_guard lock(mutex_);
            first = chain_.Append(packet);
        }
        if (Each || first) {
            wake_.notify_one();
        }
    }

  private:
    void Work()
    {
        bench::RunOn(processors.lab);
        std::unique_lock lock(mutex_);
        for (;;) {
            wake_.wait(lock, [this] { return stop_ || !chain_.IsEmpty(); });
            if (stop_) {
                return;
            }
            Chain taken;
            if constexpr (Each) {
                taken.Append(chain_.TakeFirst());
            } else {
                taken = chain_;
                chain_ = Chain();
            }
            lock.unlock();
            while (FilterPacket* const packet = taken.TakeFirst()) {
                g_delivered.Take(*packet);
            }
            lock.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    Chain chain_;
    bool stop_ = false;
    std::thread worker_;
};

// A list whose worker reads an eventfd that is written at each packet.
class EventfdList
{
  public:
    EventfdList() : event_(eventfd(0, 0)), worker_([this] { Work(); }) {}
    ~EventfdList()
    {
        stop_ = true;
        Signal();
        worker_.join();
        close(event_);
    }
    void Push(FilterPacket* packet)
    {
        {
            const std::lock_guard lock(mutex_);
            chain_.Append(packet);
        }
        Signal();
    }

  private:
    void Signal()
    {
        const uint64_t one = 1;
        if (write(event_, &one, sizeof(one)) != sizeof(one)) {
            bench::Fail("the eventfd");
        }
    }
    FilterPacket* Take()
    {
        const std::lock_guard lock(mutex_);
        return chain_.TakeFirst();
    }
    void Work()
    {
        bench::RunOn(processors.lab);
        uint64_t count;
        while (read(event_, &count, sizeof(count)) == sizeof(count) && !stop_) {
            while (FilterPacket* const packet = Take()) {
                g_delivered.Take(*packet);
            }
        }
    }

    const int event_;
    std::mutex mutex_;
    Chain chain_;
    std::atomic<bool> stop_ = false;
    std::thread worker_;
};

// One place for a packet, and a futex: for the wake-up alone.
class PlainFutex
{
  public:
    PlainFutex() : worker_([this] { Work(); }) {}
    ~PlainFutex()
    {
        Push(nullptr);
        worker_.join();
    }
    void Push(FilterPacket* packet)
    {
        packet_ = packet;
        word_.store(1);
        syscall(SYS_futex, &word_, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    }

  private:
    void Work()
    {
        bench::RunOn(processors.lab);
        for (;;) {
            while (word_.exchange(0) == 0) {
                syscall(SYS_futex, &word_, FUTEX_WAIT_PRIVATE, 0, nullptr, nullptr, 0);
            }
            if (packet_ == nullptr) {
                return;
            }
            g_delivered.Take(*packet_);
        }
    }

    std::atomic<uint32_t> word_ = 0;
    FilterPacket* packet_ = nullptr;
    std::thread worker_;
};

// ---------------------------------------------------------------------------------------------------- the measurements

void StartAnew()
{
    g_delivered.count = 0;
    g_delivered.work = 0;
}

template <class Queue>
void HandOver(benchmark::State& state)
{
    StartAnew();
    Queue queue;
    Packets packets;
    const auto push = [&] {
        while (packets.Given() - g_delivered.count.load(std::memory_order_acquire) >= kOnTheWay) {
            _mm_pause();
        }
        queue.Push(packets.Next());
    };
    for (size_t i = 0; i < 2 * kPackets; ++i) {
        push();
    }
    WaitForAll(packets);
    bench::SetWork(state, g_delivered.work);
    for (auto _ : state) {
        push();
    }
    WaitForAll(packets);
}

template <class Queue>
void WakeUp(benchmark::State& state)
{
    StartAnew();
    Queue queue;
    Packets packets;
    std::vector<double> times;
    g_delivered.stamp = true;
    for (auto _ : state) {
        const auto start = Clock::now();
        while (Clock::now() - start < kIdle) {
            _mm_pause();
        }
        const auto before = Clock::now();
        queue.Push(packets.Next());
        WaitForAll(packets);
        times.push_back(std::chrono::duration<double, std::nano>(g_delivered.time - before).count());
    }
    g_delivered.stamp = false;
    bench::SetWork(state, g_delivered.work);
    std::nth_element(times.begin(), times.begin() + times.size() / 2, times.end());
    bench::SetValue(state, times[times.size() / 2]);
}

// Packets that the producer made a system call for while the worker was at work on another.
template <class Queue>
void SystemCalls(benchmark::State& state)
{
    StartAnew();
    Queue queue;
    Packets packets;
    bench::SystemCallWatch watch;
    for (auto _ : state) {
        g_delivered.held = false;
        g_delivered.hold = true;
        queue.Push(packets.Next());
        while (!g_delivered.held) {
            _mm_pause();
        }
        int calls = 0;
        for (int i = 0; i < kInjections; ++i) {
            calls += watch.MakesSystemCalls([&] { queue.Push(packets.Next()); }) ? 1 : 0;
        }
        g_delivered.hold = false;
        WaitForAll(packets);
        bench::SetValue(state, static_cast<double>(calls) / kInjections);
    }
    bench::SetWork(state, g_delivered.work);
    if (!watch.Works()) {
        state.SkipWithError("this kernel does not let a thread watch its system calls");
    }
}

template <class Queue>
void Register(const std::string& name)
{
    benchmark::RegisterBenchmark(("hand-over/" + name + "/1 producer").c_str(), HandOver<Queue>)
        ->UseRealTime();
    benchmark::RegisterBenchmark(("wake-up/" + name + "/after 200 us").c_str(), WakeUp<Queue>)
        ->Iterations(kWakes);
    benchmark::RegisterBenchmark(("system calls/" + name + "/worker at work").c_str(), SystemCalls<Queue>)
        ->Iterations(1);
}

} // namespace

int main(int argc, char** argv)
{
    bench::RunOn(processors.lab); // as the framework's workers will
    bench::LoadFramework();
    bench::RunOn(processors.program);
    NdisHookAPI hook = {};
    hook.Hook_InjectPacketToProtocol = Deliver;
    bench::BindHook(hook);
    Register<Framework>("framework");
    Register<SignalledList<true>>("signalled each time");
    Register<SignalledList<false>>("signalled when empty");
    Register<EventfdList>("eventfd each time");
    benchmark::RegisterBenchmark("wake-up/futex/after 200 us", WakeUp<PlainFutex>)->Iterations(kWakes);
    const int result = bench::Run(argc, argv);
    bench::UnloadFramework();
    return result;
}
