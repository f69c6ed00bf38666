#include "lane.h"

#include "lab-error.h"

#include <algorithm>
#include <chrono>

#include <fmt/format.h>

namespace lab
{
namespace
{

constexpr MacAddress kDefaultAddress = {0x02, 0, 0, 0, 0, 0x01};
constexpr size_t kBatchFrames = 512; // enough to be worth the hand-over between two threads
constexpr size_t kPipeBatchFrames = 64;

// The frame that this thread is handing to the framework, where times matter. What comes out meanwhile on the same
// thread is that frame.
struct FrameUnderWay {
    const Lane* lane = nullptr;
    uint64_t time = 0;
};
thread_local FrameUnderWay frameUnderWay;

} // namespace

std::string FormatMacAddress(const MacAddress& address)
{
    return fmt::format("{:02x}", fmt::join(address, ":"));
}

Lane::Lane(const LaneOptions& options) : options_(options), roundsLeft_(options.rounds)
{
    if (options.capture.empty()) {
        address_ = options.address.value_or(kDefaultAddress);
        addressOrigin_ = "without a capture";
        return;
    }
    reader_.emplace(options.capture);
    fileSize_ = reader_->FileSize();
    if (options.rounds > 1 && !reader_->IsRegularFile()) {
        throw LabError(ExitCode::Usage,
                       fmt::format("{}: cannot be read more than once (--repeat, --loop), it is not a file",
                                   options.capture));
    }
    if (options.address.has_value()) {
        address_ = *options.address;
        addressOrigin_ = "as told";
    } else if (const std::optional<MacAddress> found = reader_->MostFrequentAddress()) {
        address_ = *found;
        addressOrigin_ = "the most frequent address in " + options.capture;
    } else {
        address_ = kDefaultAddress;
        addressOrigin_ = "as there is no address in " + options.capture;
    }
}

void Lane::CreateWriters(const std::filesystem::path& directory)
{
    for (const hook::Side side : {hook::Side::Adapter, hook::Side::Protocols}) {
        const char* suffix = side == hook::Side::Adapter ? "to-adapter" : "to-protocols";
        const std::filesystem::path file = directory / fmt::format("{}-{}.pcap", options_.name, suffix);
        writers_[static_cast<size_t>(side)] =
            std::make_unique<CaptureWriter>(file.string(), !reader_.has_value() || reader_->HasNanoseconds());
    }
}

void Lane::CloseWriters()
{
    for (auto& writer : writers_) {
        if (writer != nullptr) {
            writer->Close();
        }
    }
}

void Lane::ConnectSink(hook::Side side)
{
    CaptureWriter* const writer = writers_[static_cast<size_t>(side)].get();
    const Outlet& outlet = outlets_[static_cast<size_t>(side)];
    if (writer == nullptr && !outlet) {
        return;
    }
    hook::SetSink(adapter_, side,
                  [this, writer, outlet](std::span<const uint8_t> frame, const hook::Delivery&) {
                      if (writer != nullptr) {
                          writer->Write(frame, TimeOfDelivery());
                      }
                      if (outlet) {
                          outlet(frame);
                      }
                  });
}

void Lane::SetOutlet(hook::Side side, Outlet outlet)
{
    outlets_[static_cast<size_t>(side)] = std::move(outlet);
    ConnectSink(side);
}

// A frame that a filter or a queue held back comes out at the time that the replay has reached; where nothing
// was replayed, at the time of day.
uint64_t Lane::TimeOfDelivery() const
{
    if (frameUnderWay.lane == this) {
        return frameUnderWay.time;
    }
    const uint64_t reached = time_.load(std::memory_order_relaxed);
    return reached != 0 ? reached
                        : static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                                    std::chrono::system_clock::now().time_since_epoch())
                                                    .count());
}

void Lane::OpenAdapter()
{
    hook::AdapterOptions options;
    options.name = options_.name;
    options.address = address_;
    adapter_ = hook::AddAdapter(options);
    if (adapter_ == nullptr) {
        throw LabError(ExitCode::BrokenRule,
                       fmt::format("{}: the hook driver has made no adapter", options_.name));
    }
    ConnectSink(hook::Side::Adapter);
    ConnectSink(hook::Side::Protocols);
    hook::OpenAdapter(adapter_);
}

// The capture's end was reached, or it is broken. False when that was all.
bool Lane::StartNextRound()
{
    if (reader_->Broken().has_value()) {
        failure_ = fmt::format("{}: broken behind {} frames: {}; the frames before were replayed",
                               reader_->Path(), roundFrames_, *reader_->Broken());
        return false;
    }
    if (--roundsLeft_ == 0 || roundFrames_ == 0) {
        return false;
    }
    roundFrames_ = 0;
    try {
        reader_->Rewind();
    } catch (const LabError& error) {
        failure_ = error.what();
        return false;
    }
    return true;
}

// The thread's: the next frames, of as many rounds as are asked for.
bool Lane::Fill(FrameBatch& batch)
{
    while (!finished_ && !batch.IsFull()) {
        const size_t before = batch.Size();
        const bool more = reader_->Read(batch);
        roundFrames_ += batch.Size() - before;
        if (!more) {
            finished_ = !StartNextRound();
        }
    }
    const uint64_t roundsDone = options_.rounds - roundsLeft_;
    position_.store(roundsDone * reader_->FileSize() + (finished_ ? 0 : reader_->Position()),
                    std::memory_order_relaxed);
    return batch.Size() > 0;
}

void Lane::StartReading()
{
    if (reader_.has_value()) {
        // Whoever feeds a pipe waits for what comes out of it.
        readAhead_.emplace([this](FrameBatch& batch) { return Fill(batch); },
                           reader_->IsRegularFile() ? kBatchFrames : kPipeBatchFrames);
    }
}

bool Lane::TakeBatch(FrameBatch& batch)
{
    if (!readAhead_.has_value() || !readAhead_->Take(batch)) {
        return false;
    }
    framesTaken_ += batch.Size();
    return true;
}

void Lane::EndReading()
{
    readAhead_.reset();
}

bool Lane::IsSent(std::span<const uint8_t> frame) const
{
    constexpr size_t kSource = 6; // offset of the source address
    if (options_.direction != Direction::Auto) {
        return options_.direction == Direction::Sent;
    }
    return frame.size() >= kSource + address_.size() &&
           std::equal(address_.begin(), address_.end(), frame.begin() + kSource);
}

hook::BatchResult Lane::Deliver(const FrameBatch& batch, size_t first, size_t most,
                                const hook::FrameOptions& options)
{
    const hook::Frames left = batch.From(first);
    const bool sent = IsSent(left[0]);
    size_t count = 1;
    if (!IsWritten()) { // nobody asks when a frame comes out
        while (count < std::min(most, left.size()) && IsSent(left[count]) == sent) {
            ++count;
        }
    }
    const uint64_t time = batch[first + count - 1].time;
    time_.store(time, std::memory_order_relaxed);
    frameUnderWay = {this, time};
    const hook::Frames frames = left.first(count);
    const hook::BatchResult result = sent ? hook::DeliverSentBatch(adapter_, frames, options)
                                          : hook::DeliverReceivedBatch(adapter_, frames, options);
    frameUnderWay = {};
    return result;
}

size_t Lane::DeliverBatch(hook::Side side, hook::Frames frames)
{
    const hook::FrameOptions options = {.waitMs = 0};
    return (side == hook::Side::Adapter ? hook::DeliverReceivedBatch(adapter_, frames, options)
                                        : hook::DeliverSentBatch(adapter_, frames, options))
        .accepted;
}

AdapterReport Lane::Describe() const
{
    AdapterReport report;
    report.name = options_.name;
    report.capture = options_.capture;
    report.mac = FormatMacAddress(address_);
    if (reader_.has_value()) {
        report.tooLong = reader_->TooLong();
        report.cutShort = reader_->CutShort();
    }
    if (adapter_ != nullptr) {
        const hook::AdapterCounters counters = hook::CountersOf(adapter_);
        report.received = {counters.received.frames, counters.received.bytes, counters.toProtocols.frames,
                           counters.toProtocols.bytes};
        report.sent = {counters.sent.frames, counters.sent.bytes, counters.toAdapter.frames,
                       counters.toAdapter.bytes};
    }
    return report;
}

void Lane::AddNotes(std::vector<std::string>& notes) const
{
    if (!reader_.has_value()) {
        return;
    }
    if (reader_->TooLong() != 0) {
        notes.push_back(fmt::format("{}: {} frames too long, skipped: more than {} bytes", options_.capture,
                                    reader_->TooLong(), kLongestFrame));
    }
    if (reader_->CutShort() != 0) {
        notes.push_back(fmt::format("{}: {} frames are cut short in the capture, replayed as far as they go",
                                    options_.capture, reader_->CutShort()));
    }
    if (framesTaken_ == 0 && !failure_.has_value()) {
        notes.push_back(fmt::format("{}: no frame in it that can be replayed", options_.capture));
    }
}

} // namespace lab
