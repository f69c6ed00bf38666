// The two rings between a program and a running lab, two processes on a core each: 64-byte frames beside bare rings of
// the same blocks between two processes and Unix datagrams that carry the same frames; and how soon a parked read wakes
// its program. Wall-clock time throughout. A frame that is lost while the ring has room fails the run.
#include "contest.h"
#include "lab-process.h"

#include <ndisfilter-client.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <numeric>
#include <thread>

#include <pcap/pcap.h>
#include <sys/mman.h>
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
const bench::ProcessorPair processors;

double SecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// `frames` have come out at the other end.
void Count(benchmark::State& state, double seconds, size_t frames)
{
    state.SetIterationTime(seconds);
    bench::SetOperations(state, static_cast<double>(frames));
    bench::SetWork(state, frames);
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

// Runs a function in a process of its own, on the lab's processor; it answers whether all was as it should be.
template <class Work>
class OtherProcess
{
  public:
    explicit OtherProcess(const Work& work) : process_(fork())
    {
        if (process_ == 0) {
            bench::RunOn(processors.lab);
            _exit(work() ? 0 : 1);
        }
    }
    ~OtherProcess()
    {
        int status = -1;
        waitpid(process_, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            Fail("the other process");
        }
    }
    OtherProcess(const OtherProcess&) = delete;
    OtherProcess& operator=(const OtherProcess&) = delete;

  private:
    const pid_t process_;
};

// As little as a ring of such blocks between two processes can do with: each frame is copied into a block, and out of
// it again. Both sides keep the other's index and look anew only when it is used up.
class BareRing
{
  public:
    BareRing()
        : shared_(static_cast<Shared*>(
              mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)))
    {
        if (shared_ == MAP_FAILED) {
            Fail("memory for a ring");
        }
    }
    ~BareRing() { munmap(shared_, sizeof(Shared)); }
    BareRing(const BareRing&) = delete;
    BareRing& operator=(const BareRing&) = delete;

    // Puts as many of the frames as there is room for.
    size_t Put(const SharedBlock& head, const uint8_t* frame, uint64_t number, size_t count)
    {
        uint64_t write = shared_->write.load(std::memory_order_relaxed);
        if (write + count - read_ >= NDIS_FILTER_BLOCK_COUNT) {
            read_ = shared_->read.load(std::memory_order_acquire);
        }
        count = std::min<size_t>(count, NDIS_FILTER_BLOCK_COUNT - 1 - (write - read_));
        for (size_t i = 0; i < count; ++i) {
            SharedBlock& block = shared_->blocks[write++ % NDIS_FILTER_BLOCK_COUNT];
            std::memcpy(static_cast<void*>(&block), &head, offsetof(SharedBlock, m_Data));
            block.m_nIndicateValue = number + i;
            std::memcpy(block.m_Data, frame, kFrameSize);
        }
        shared_->write.store(write, std::memory_order_release);
        return count;
    }
    // Takes what is there, up to `most`; adds to `wrong` the frames that do not follow `number`.
    size_t Take(SharedBlock& block, uint64_t number, size_t most, size_t* wrong)
    {
        uint64_t read = shared_->read.load(std::memory_order_relaxed);
        if (write_ == read) {
            write_ = shared_->write.load(std::memory_order_acquire);
        }
        const size_t count = std::min<size_t>(most, write_ - read);
        for (size_t i = 0; i < count; ++i) {
            std::memcpy(static_cast<void*>(&block), &shared_->blocks[read++ % NDIS_FILTER_BLOCK_COUNT],
                        kBlockBytes);
            benchmark::DoNotOptimize(block);
            *wrong += block.m_nIndicateValue != number + i ? 1 : 0;
        }
        shared_->read.store(read, std::memory_order_release);
        return count;
    }

  private:
    struct Shared {
        alignas(64) std::atomic<uint64_t> write;
        alignas(64) std::atomic<uint64_t> read;
        SharedBlock blocks[NDIS_FILTER_BLOCK_COUNT];
    };

    Shared* const shared_;
    uint64_t read_ = 0;  // of the other side, at the last look
    uint64_t write_ = 0; //
};

void BareOneWay(benchmark::State& state)
{
    const std::vector<uint8_t> frame = MakeFrame();
    for (auto _ : state) {
        BareRing ring;
        size_t sent = 0;
        const auto start = Clock::now();
        {
            const OtherProcess reader([&] {
                SharedBlock block;
                size_t wrong = 0;
                for (size_t taken = 0; taken < kFrames;) {
                    taken += ring.Take(block, taken, kBatch, &wrong);
                }
                return wrong == 0;
            });
            for (const SharedBlock head = {}; sent < kFrames;) {
                sent += ring.Put(head, frame.data(), sent, std::min(kBatch, kFrames - sent));
            }
        }
        Count(state, SecondsSince(start), sent);
    }
}

void BareBothWays(benchmark::State& state)
{
    for (auto _ : state) {
        const std::vector<uint8_t> frame = MakeFrame();
        BareRing there;
        BareRing back;
        size_t sent = 0;
        size_t received = 0;
        size_t wrong = 0;
        const auto start = Clock::now();
        {
            const OtherProcess echo([&] {
                SharedBlock block;
                size_t mistakes = 0;
                for (size_t taken = 0; taken < kFrames;) {
                    if (there.Take(block, taken, 1, &mistakes) == 1) {
                        while (back.Put(block, block.m_Data, taken, 1) == 0) {
                        }
                        ++taken;
                    }
                }
                return mistakes == 0;
            });
            SharedBlock block;
            for (const SharedBlock head = {}; received < kFrames;) {
                if (sent < kFrames && sent - received <= kWindow - kBatch) {
                    sent += there.Put(head, frame.data(), sent, std::min(kBatch, kFrames - sent));
                }
                received += back.Take(block, received, NDIS_FILTER_BLOCK_COUNT, &wrong);
            }
        }
        if (wrong != 0) {
            state.SkipWithError("frames came back out of order");
        }
        Count(state, SecondsSince(start), received);
    }
}

class SocketPair
{
  public:
    SocketPair()
    {
        if (socketpair(AF_UNIX, SOCK_DGRAM, 0, ends_) != 0) {
            Fail("socketpair");
        }
    }
    ~SocketPair()
    {
        close(ends_[0]);
        close(ends_[1]);
    }
    SocketPair(const SocketPair&) = delete;
    SocketPair& operator=(const SocketPair&) = delete;
    static bool Write(int end, const std::vector<uint8_t>& frame)
    {
        return write(end, frame.data(), kFrameSize) == kFrameSize;
    }
    static bool Read(int end, std::vector<uint8_t>& room)
    {
        return read(end, room.data(), kFrameSize) == kFrameSize;
    }
    int Ours() const { return ends_[0]; }
    int Theirs() const { return ends_[1]; }

  private:
    int ends_[2];
};

void DatagramsOneWay(benchmark::State& state)
{
    const std::vector<uint8_t> frame = MakeFrame();
    for (auto _ : state) {
        const SocketPair sockets;
        size_t sent = 0;
        const auto start = Clock::now();
        {
            const OtherProcess reader([&] {
                std::vector<uint8_t> room(kFrameSize);
                size_t received = 0;
                while (received < kFrames && SocketPair::Read(sockets.Theirs(), room)) {
                    ++received;
                }
                return received == kFrames;
            });
            while (sent < kFrames && SocketPair::Write(sockets.Ours(), frame)) {
                ++sent;
            }
        }
        Count(state, SecondsSince(start), sent);
    }
}

// As many are on their way as the socket's queue takes for sure.
void DatagramsBothWays(benchmark::State& state)
{
    constexpr size_t kMost = 8;
    for (auto _ : state) {
        const SocketPair sockets;
        std::vector<uint8_t> room = MakeFrame();
        size_t sent = 0;
        size_t received = 0;
        const auto start = Clock::now();
        {
            const OtherProcess echo([&] {
                size_t echoed = 0;
                while (echoed < kFrames && SocketPair::Read(sockets.Theirs(), room) &&
                       SocketPair::Write(sockets.Theirs(), room)) {
                    ++echoed;
                }
                return echoed == kFrames;
            });
            while (received < kFrames) {
                while (sent < kFrames && sent - received < kMost && SocketPair::Write(sockets.Ours(), room)) {
                    ++sent;
                }
                received += SocketPair::Read(sockets.Ours(), room) ? 1 : 0;
            }
        }
        Count(state, SecondsSince(start), received);
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
            sent += client.Send(batch.Next(sent, std::min<size_t>(kBatch, kFrames - sent)));
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
            const size_t most = std::min(room_.size(), frames - taken); // no more than the others take
            for (const ndisfilter_block& block : client_.Receive(std::span(room_).first(most))) {
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
        bench::SetValue(state, microseconds[kWakes / 2]);
        bench::SetWork(state, microseconds.size());
        state.counters["99% us"] = microseconds[kWakes * 99 / 100];
    }
}

} // namespace

int main(int argc, char** argv)
{
    bench::RunOn(processors.program);
    const std::pair<const char*, void (*)(benchmark::State&)> all[] = {
        {"frames to the driver/framework/64 bytes", ToDriver},
        {"frames to the driver/bare ring/64 bytes", BareOneWay},
        {"frames to the driver/unix datagrams/64 bytes", DatagramsOneWay},
        {"frames from the driver/framework/64 bytes", FromDriver},
        {"frames from the driver/bare ring/64 bytes", BareOneWay},
        {"frames from the driver/unix datagrams/64 bytes", DatagramsOneWay},
        {"frames there and back/framework/64 bytes", BothWays},
        {"frames there and back/bare rings/64 bytes", BareBothWays},
        {"frames there and back/unix datagrams/64 bytes", DatagramsBothWays},
        {"parked read/framework/wake-up", WakeUp}};
    for (const auto& [name, function] : all) {
        benchmark::RegisterBenchmark(name, function)
            ->UseManualTime()
            ->Iterations(1)
            ->Unit(benchmark::kMillisecond);
    }
    return bench::Run(argc, argv);
}
