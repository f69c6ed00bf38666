// The two rings between a program and a running lab, two processes on a core each: 64-byte frames a second, beside a
// bare copy of the same blocks and a Unix datagram socket that carries the same frames; and how soon a parked read
// wakes its program. Wall-clock time throughout. A frame that is lost while the ring has room fails the run.
#include "lab-process.h"
#include "medians.h"

#include <ndisfilter-client.hpp>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <numeric>
#include <thread>

#include <pcap/pcap.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "../samples/indicator/indicator.h"

namespace
{

using bench::Fail;
using bench::LabProcess;
using ndisfilter::Client;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kFrameSize = 64;
constexpr size_t kFrames = 1'000'000; // a measurement
constexpr size_t kBatch = 128;
constexpr size_t kBlockBytes = offsetof(SharedBlock, m_Data) + kFrameSize; // of a block, with such a frame
constexpr size_t kWindow = 384; // frames that may be out, of the 511 that a ring holds
constexpr size_t kWakes = 1'000;
constexpr char kRate[] = "frames/s";
const bench::ProcessorPair processors;

double SecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void Count(benchmark::State& state, double seconds, size_t frames)
{
    state.SetIterationTime(seconds);
    state.counters[kRate] = static_cast<double>(frames) / seconds;
}

// An IPv4 frame with a UDP header.
std::vector<uint8_t> MakeFrame()
{
    std::vector<uint8_t> frame(kFrameSize);
    const uint8_t addresses[] = {2, 0, 0, 0, 0, 0x0A, 2, 0, 0, 0, 0, 0x0B};
    std::ranges::copy(addresses, frame.begin());
    frame[12] = 0x08; // IPv4
    frame[14] = 0x45;
    frame[17] = kFrameSize - 14;
    frame[22] = 64;
    frame[23] = 17; // UDP
    frame[39] = kFrameSize - 34;
    return frame;
}

// Frames for the program to send, in one direction.
class Batch
{
  public:
    Batch(uint32_t adapterId, uint32_t direction) : bytes_(MakeFrame()), frames_(kBatch)
    {
        for (ndisfilter_frame& frame : frames_) {
            frame.adapter_id = adapterId;
            frame.direction = direction;
            frame.data = bytes_.data();
            frame.size = kFrameSize;
        }
    }
    // The next frames, numbered.
    std::span<const ndisfilter_frame> Next(uint64_t number, size_t count)
    {
        for (size_t i = 0; i < count; ++i) {
            frames_[i].indicate_value = number + i;
        }
        return std::span(frames_).first(count);
    }

  private:
    std::vector<uint8_t> bytes_;
    std::vector<ndisfilter_frame> frames_;
};

const std::vector<std::string> kIdleLab = {"--adapter", "lan0=02:00:00:00:00:0a"};

// ---------------------------------------------------------------------------------------------------------- the peers

// What a ring cannot do without: each frame is copied into a block, and out of it again.
void CopyBlocks(benchmark::State& state)
{
    std::vector<SharedBlock> ring(NDIS_FILTER_BLOCK_COUNT);
    const std::vector<uint8_t> from(kBlockBytes, 1);
    std::vector<uint8_t> to(kBlockBytes);
    for (auto _ : state) {
        const auto start = Clock::now();
        for (size_t frame = 0; frame < kFrames; frame += kBatch) {
            for (size_t i = 0; i < kBatch; ++i) {
                std::memcpy(static_cast<void*>(&ring[(frame + i) % ring.size()]), from.data(), kBlockBytes);
            }
            benchmark::ClobberMemory();
            for (size_t i = 0; i < kBatch; ++i) {
                std::memcpy(to.data(), &ring[(frame + i) % ring.size()], kBlockBytes);
                benchmark::DoNotOptimize(to.data());
            }
        }
        Count(state, SecondsSince(start), kFrames);
    }
}

void SendDatagrams(benchmark::State& state)
{
    const std::vector<uint8_t> frame = MakeFrame();
    for (auto _ : state) {
        int sockets[2];
        if (socketpair(AF_UNIX, SOCK_DGRAM, 0, sockets) != 0) {
            Fail("socketpair");
        }
        const pid_t reader = fork();
        if (reader == 0) {
            bench::RunOn(processors.lab);
            std::vector<uint8_t> room(kFrameSize);
            size_t received = 0;
            while (received < kFrames && read(sockets[1], room.data(), room.size()) == kFrameSize) {
                ++received;
            }
            _exit(write(sockets[1], room.data(), 1) == 1 ? 0 : 1);
        }
        close(sockets[1]);
        const auto start = Clock::now();
        for (size_t i = 0; i < kFrames; ++i) {
            if (write(sockets[0], frame.data(), frame.size()) != kFrameSize) {
                Fail("the datagram socket");
            }
        }
        uint8_t done;
        if (read(sockets[0], &done, 1) != 1) {
            Fail("the reader of the datagram socket");
        }
        Count(state, SecondsSince(start), kFrames);
        close(sockets[0]);
        waitpid(reader, nullptr, 0);
    }
}

// ---------------------------------------------------------------------------------------------------------- the rings

// The program sends; the lab takes each frame through the chain and delivers it to the protocols.
void ToDriver(benchmark::State& state)
{
    for (auto _ : state) {
        LabProcess lab(processors.lab, kIdleLab);
        Client client(lab.Socket());
        Batch batch(client.Adapters().at(0).m_nAdapterId, NDIS_FILTER_DIRECTION_TO_PROTOCOL);
        client.StartShare();
        const auto start = Clock::now();
        size_t sent = 0;
        while (sent < kFrames) {
            sent += client.Send(batch.Next(sent, kBatch));
        }
        client.Flush();
        Count(state, SecondsSince(start), sent);
        client.StopShare();
        const auto delivered = lab.Stop()["adapters"][0]["received"]["framesOut"].get<uint64_t>();
        if (delivered != sent) {
            Fail(std::to_string(sent - delivered) + " frames were lost on the way to the driver");
        }
    }
}

std::string WriteCapture(const bench::Directory& directory)
{
    const std::string path = directory.File("frames.pcap");
    pcap_t* const pcap = pcap_open_dead(DLT_EN10MB, kFrameSize);
    pcap_dumper_t* const dumper = pcap_dump_open(pcap, path.c_str());
    if (dumper == nullptr) {
        Fail(pcap_geterr(pcap));
    }
    const std::vector<uint8_t> frame = MakeFrame();
    pcap_pkthdr header = {};
    header.caplen = header.len = kFrameSize;
    for (int i = 0; i < 100'000; ++i) {
        pcap_dump(reinterpret_cast<u_char*>(dumper), &header, frame.data());
    }
    pcap_dump_close(dumper);
    pcap_close(pcap);
    return path;
}

IndicatorCounters CountersOf(Client& client)
{
    IndicatorCounters counters = {};
    ndisfilter_control(client.Get(), IOCTL_INDICATOR_GET_COUNTERS, nullptr, 0, &counters, sizeof(counters),
                       nullptr);
    return counters;
}

// While the program takes nothing the lab must go on, and its filter must be told that the ring is full.
void CheckThatNothingBlocks(Client& client)
{
    const IndicatorCounters before = CountersOf(client);
    for (const auto start = Clock::now(); SecondsSince(start) < 10; std::this_thread::yield()) {
        const IndicatorCounters now = CountersOf(client);
        if (now.m_nIndicated - before.m_nIndicated > 100'000 &&
            now.m_nSignalsRefused > before.m_nSignalsRefused) {
            return;
        }
    }
    Fail("the lab stands still, or is not told, when the program does not take its frames");
}

// Takes the frames that the lab's filter numbers. A number that is missing was indicated while the ring was full, or it
// was lost: the ring is full when it holds all blocks but one from where the reader has come to, which is where one of
// its looks has ended.
class NumberedReader
{
  public:
    explicit NumberedReader(Client& client) : client_(client), room_(NDIS_FILTER_BLOCK_COUNT), ends_(1024) {}

    size_t Take(size_t frames)
    {
        size_t taken = 0;
        while (taken < frames) {
            for (const ndisfilter_block& block : client_.Receive(room_)) {
                if (block.is_signal == 0) {
                    Look(static_cast<uint32_t>(block.content.frame.m_nIndicateValue));
                    ++taken;
                }
                ++position_;
            }
            ends_[position_ % ends_.size()] = position_;
        }
        return taken;
    }
    uint64_t Refused() const { return refused_; }

  private:
    void Look(uint32_t number)
    {
        constexpr uint64_t kFull = NDIS_FILTER_BLOCK_COUNT - 1;
        const uint32_t missing = position_ > 0 ? number - last_ - 1 : 0;
        if (missing > 0) {
            // A signal may have taken the last place in front of it.
            const uint64_t end = position_ - kFull;
            if (position_ < kFull ||
                (ends_[end % ends_.size()] != end && ends_[(end - 1) % ends_.size()] != end - 1)) {
                Fail(std::to_string(missing) + " frames were lost although the ring had room");
            }
            refused_ += missing;
        }
        last_ = number;
    }

    Client& client_;
    std::vector<ndisfilter_block> room_;
    std::vector<uint64_t> ends_; // of the latest looks, by position
    uint64_t position_ = 0;      // blocks taken
    uint32_t last_ = 0;
    uint64_t refused_ = 0;
};

// The lab replays as fast as it goes, and its filter indicates every frame; the program takes what it can.
void FromDriver(benchmark::State& state)
{
    const bench::Directory directory;
    const std::string capture = WriteCapture(directory);
    for (auto _ : state) {
        LabProcess lab(processors.lab, {capture, "--loop", "--filter", "indicator", "--set-dword",
                                        "indicator.SignalEvery=1000"});
        Client client(lab.Socket());
        client.StartShare();
        NumberedReader reader(client);
        reader.Take(10'000); // what has waited, and some more
        const uint64_t refused = reader.Refused();
        const auto start = Clock::now();
        const size_t received = reader.Take(kFrames);
        Count(state, SecondsSince(start), received);
        state.counters["refused"] = static_cast<double>(reader.Refused() - refused);
        CheckThatNothingBlocks(client);
    }
}

// Both rings at once: the lab writes each frame straight back. The program has no more out than a ring holds, so none
// may be lost.
void BothWays(benchmark::State& state)
{
    for (auto _ : state) {
        LabProcess lab(processors.lab, kIdleLab);
        Client client(lab.Socket());
        Batch batch(client.Adapters().at(0).m_nAdapterId, NDIS_FILTER_DIRECTION_TO_APPLICATION);
        client.StartShare();
        std::vector<ndisfilter_block> room(NDIS_FILTER_BLOCK_COUNT);
        uint64_t sent = 0;
        uint64_t received = 0;
        const auto start = Clock::now();
        while (received < kFrames) {
            if (sent < kFrames && sent - received <= kWindow - kBatch) {
                sent += client.Send(batch.Next(sent, std::min<size_t>(kBatch, kFrames - sent)));
            }
            const bool mustWait = sent == kFrames || sent - received > kWindow - kBatch;
            for (const ndisfilter_block& block : client.Receive(room, mustWait ? 5000 : 0)) {
                if (block.content.frame.m_nIndicateValue != received++) {
                    Fail("a frame was lost on the way there and back, behind " +
                         std::to_string(received - 1));
                }
            }
        }
        Count(state, SecondsSince(start), received);
    }
}

// From before a frame is sent that comes straight back, to the return of the call that waits in a parked read.
void WakeUp(benchmark::State& state)
{
    for (auto _ : state) {
        LabProcess lab(processors.lab, kIdleLab);
        Client client(lab.Socket());
        Batch batch(client.Adapters().at(0).m_nAdapterId, NDIS_FILTER_DIRECTION_TO_APPLICATION);
        client.StartShare();
        std::vector<double> microseconds;
        Clock::time_point sent;
        for (size_t wake = 0; wake < kWakes; ++wake) {
            std::thread waiter([&] {
                ndisfilter_block block;
                if (client.Receive({&block, 1}, 5000).size() == 1) {
                    microseconds.push_back(SecondsSince(sent) * 1e6);
                }
            });
            while (client.Diagnose("filter show shmem")->find("m_pPendingReadIrp = 0x0000000000000000") !=
                   std::string::npos) {
            }
            sent = Clock::now();
            client.Send(batch.Next(wake, 1));
            waiter.join();
        }
        if (microseconds.size() != kWakes) {
            Fail("a parked read did not wake");
        }
        std::ranges::sort(microseconds);
        state.SetIterationTime(std::accumulate(microseconds.begin(), microseconds.end(), 0.0) / 1e6);
        state.counters["median us"] = microseconds[kWakes / 2];
        state.counters["99% us"] = microseconds[kWakes * 99 / 100];
    }
}

void PrintSummary(const bench::Medians& medians)
{
    const double copy = medians.Of("memcpy");
    const double datagrams = medians.Of("unix datagrams");
    for (const char* name : {"to the driver", "from the driver", "both ways"}) {
        const double rate = medians.Of(name);
        if (rate > 0 && copy > 0 && datagrams > 0) {
            std::printf("%-15s  %.2f million frames a second, %.1f times as many as datagrams; a frame takes "
                        "%.1f times "
                        "as long as its copies\n",
                        name, rate / 1e6, rate / datagrams, copy / rate);
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (!bench::Initialize(argc, argv, 5)) {
        return 2;
    }
    bench::RunOn(processors.program);
    const std::pair<const char*, void (*)(benchmark::State&)> all[] = {
        {"memcpy", CopyBlocks},          {"unix datagrams", SendDatagrams}, {"to the driver", ToDriver},
        {"from the driver", FromDriver}, {"both ways", BothWays},           {"wake-up", WakeUp}};
    for (const auto& [name, function] : all) {
        benchmark::RegisterBenchmark(name, function)
            ->UseManualTime()
            ->Iterations(1)
            ->Unit(benchmark::kMillisecond);
    }
    bench::Medians medians(kRate);
    benchmark::RunSpecifiedBenchmarks(&medians);
    PrintSummary(medians);
    return medians.HasFailed() ? 1 : 0;
}
