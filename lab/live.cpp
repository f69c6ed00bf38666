#include "live.h"

#include "control-server.h"
#include "interface.h"
#include "packet-socket.h"

#include <chrono>
#include <thread>

#include <fmt/format.h>

namespace lab
{
namespace
{

constexpr size_t kBatchFrames = 64;
constexpr int kStopLatencyMs = 100;

// A thread that takes frames from a ring sends what comes of them together, when the batch is through.
thread_local bool sendsLater = false;

class Road
{
  public:
    Road(const Interface& wire, const Interface& protocols)
        : ends_{PacketSocket(wire), PacketSocket(protocols)}, names_{wire.Name(), protocols.Name()}
    {}

    // What the framework delivers on the lane's adapter goes out from now on.
    void Connect(Lane& lane)
    {
        lane_ = &lane;
        for (const hook::Side side : {hook::Side::Adapter, hook::Side::Protocols}) {
            lane.SetOutlet(side, [&end = End(side)](std::span<const uint8_t> frame) {
                end.Send(frame);
                if (!sendsLater) {
                    end.Flush();
                }
            });
        }
    }

    void Run(const std::atomic<bool>& stop)
    {
        const std::jthread protocols([&] { Carry(hook::Side::Protocols, stop); });
        Carry(hook::Side::Adapter, stop);
    }

    void AddNotes(std::vector<std::string>& notes)
    {
        for (const hook::Side side : {hook::Side::Adapter, hook::Side::Protocols}) {
            const PacketSocket::Counters counters = End(side).Count();
            const auto note = [&](uint64_t count, const char* what) {
                if (count != 0) {
                    notes.push_back(
                        fmt::format("{}: {} frames {}", names_[static_cast<size_t>(side)], count, what));
                }
            };
            note(counters.completedChecksums, "came without their checksum, which was added");
            note(counters.tooLong,
                 "were too long and left out; their sender must switch segmentation offload off");
            note(counters.lostReceived, "were lost before the lab took them");
            note(counters.lostSent, "were lost as the interface took no more");
        }
        if (refused_ != 0) {
            notes.push_back(fmt::format("{} frames were lost as all packets were out", refused_.load()));
        }
    }

  private:
    PacketSocket& End(hook::Side side) { return ends_[static_cast<size_t>(side)]; }

    // Takes what one interface receives to the framework.
    void Carry(hook::Side side, const std::atomic<bool>& stop)
    {
        PacketSocket& end = End(side);
        sendsLater = true;
        while (!stop) {
            const auto frames = end.Receive(kBatchFrames);
            if (!frames.empty()) {
                refused_ += frames.size() - lane_->DeliverBatch(side, frames);
            }
            end.Release();
            for (PacketSocket& other : ends_) {
                other.Flush();
            }
            if (frames.empty()) {
                end.Wait(kStopLatencyMs);
            }
        }
    }

    PacketSocket ends_[2]; // by hook::Side
    std::string names_[2];
    Lane* lane_ = nullptr;
    std::atomic<uint64_t> refused_ = 0;
};

void SwitchOffloadsOff(Interface& interface, bool quiet)
{
    const std::vector<std::string> names = interface.SwitchOffloadsOff();
    if (!quiet && !names.empty()) {
        fmt::print(stderr, "{}: switched off until the end: {}\n", interface.Name(), fmt::join(names, ", "));
    }
}

} // namespace

Report Live(const LabOptions& options, const LiveOptions& live, const std::atomic<bool>& stop)
{
    if (live.wire == live.protocols) {
        throw LabError(ExitCode::Usage, fmt::format("{}: give two interfaces", live.wire));
    }
    Interface wire(live.wire);
    Interface protocols(live.protocols);
    for (Interface* interface : {&wire, &protocols}) {
        interface->CheckMtu();
        SwitchOffloadsOff(*interface, options.quiet);
    }
    Road road(wire, protocols);
    ControlServer server(live.socketPath);
    LabOptions session = options;
    session.adapters.push_back({live.wire, wire.Address()});
    return RunSession(session, [&](Lanes& lanes, Report& report) {
        road.Connect(*lanes.front());
        using Clock = std::chrono::steady_clock;
        const auto start = Clock::now();
        report.started = true;
        std::atomic<bool> ended = false;
        const auto say = [&](const std::string& line) {
            if (!options.quiet) {
                fmt::print(stderr, "{}\n", line);
            }
        };
        say(fmt::format("live: {} is the wire, {} the protocols' side; serving on {}", live.wire,
                        live.protocols, live.socketPath));
        {
            const std::jthread traffic([&] { road.Run(ended); });
            const std::jthread clock([&] {
                const auto isOver = [&] {
                    return live.seconds != 0 && Clock::now() - start >= std::chrono::seconds(live.seconds);
                };
                while (!stop && !isOver()) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(kStopLatencyMs));
                }
                ended = true;
            });
            server.Serve(ended, say);
        }
        report.seconds = std::chrono::duration<double>(Clock::now() - start).count();
        road.AddNotes(report.notes);
    });
}

} // namespace lab
