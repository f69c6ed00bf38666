// A virtual adapter, and the capture whose frames go through it.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <hook/virtual-adapters.h>

#include "capture-reader.h"
#include "capture-writer.h"
#include "read-ahead.h"
#include "report.h"

namespace lab
{

// Which way the frames of a capture go.
enum class Direction {
    Auto,     // sent when their source is the adapter's address, else received
    Received, // all from the adapter to the protocols
    Sent      // all from the protocols to the adapter
};

struct LaneOptions {
    std::string name;                  // of the adapter and of the captures written
    std::string capture;               // empty: none
    std::optional<MacAddress> address; // of the adapter; nothing: found in the capture
    Direction direction = Direction::Auto;
    uint64_t rounds = 1; // how often the capture is replayed
};

std::string FormatMacAddress(const MacAddress& address);

class Lane
{
  public:
    explicit Lane(const LaneOptions& options); // throws LabError when the capture cannot be replayed
    const std::string& Name() const { return options_.name; }
    const MacAddress& Address() const { return address_; }
    const std::string& AddressOrigin() const { return addressOrigin_; } // in words

    // Captures of what comes out, one a side. Throws LabError.
    void CreateWriters(const std::filesystem::path& directory);
    void CloseWriters();
    // Makes the adapter; the hook driver must be bound. Throws LabError.
    void OpenAdapter();

    // Starts to read the capture, on a thread of its own. Before the first batch is taken.
    void StartReading();
    // Exchanges the batch for the next frames, from any worker. False when the capture is through.
    bool TakeBatch(FrameBatch& batch);
    void EndReading(); // when no worker is left
    // Hands a frame to the framework, from any worker.
    hook::BatchResult Deliver(const FrameBatch& batch, size_t first, size_t most,
                              const hook::FrameOptions& options);

    // Where frames go that come out of a side, besides the capture written; runs at DISPATCH_LEVEL, on several
    // threads at once. The adapter is open.
    using Outlet = std::function<void(std::span<const uint8_t> frame)>;
    void SetOutlet(hook::Side side, Outlet outlet);
    // Hands frames to the framework that came in at a side, from any worker; none waits for a packet. Answers how
    // many the framework has got.
    size_t DeliverBatch(hook::Side side, hook::Frames frames);

    // For the progress line, from any thread.
    uint64_t FileSize() const { return fileSize_; } // as it was at first; 0: none, or no file
    uint64_t Position() const
    {
        return position_.load(std::memory_order_relaxed);
    } // bytes read, of all rounds
    uint64_t FramesTaken() const { return framesTaken_.load(std::memory_order_relaxed); }

    // When the reading has ended.
    const std::optional<std::string>& Failure() const
    {
        return failure_;
    } // why the capture was not read to its end
    AdapterReport Describe() const;
    void AddNotes(std::vector<std::string>& notes) const;

  private:
    bool Fill(FrameBatch& batch);
    bool StartNextRound();
    bool IsSent(std::span<const uint8_t> frame) const;
    bool IsWritten() const { return writers_[0] != nullptr || writers_[1] != nullptr; }
    void ConnectSink(hook::Side side);
    uint64_t TimeOfDelivery() const; // nanoseconds since 1 January 1970, for the captures written

    LaneOptions options_;
    MacAddress address_ = {};
    std::string addressOrigin_;
    FilterAdapter* adapter_ = nullptr;
    std::unique_ptr<CaptureWriter> writers_[2]; // by hook::Side
    Outlet outlets_[2];                         // by hook::Side
    uint64_t fileSize_ = 0;
    std::atomic<uint64_t> time_ = 0;            // of the frame replayed last
    std::atomic<uint64_t> position_ = 0;
    std::atomic<uint64_t> framesTaken_ = 0;

    // The thread's while it reads.
    std::optional<CaptureReader> reader_; // nothing: there is no capture
    bool finished_ = false;
    uint64_t roundsLeft_;
    uint64_t roundFrames_ = 0; // read in this round
    std::optional<std::string> failure_;

    std::optional<ReadAhead> readAhead_; // last: it uses the rest
};

} // namespace lab
