// Reads the frames of a capture file (pcap or pcapng) in a stream: memory does not grow with the file.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <pcap/pcap.h>

namespace lab
{

using MacAddress = std::array<uint8_t, 6>;

// The longest frame that is replayed: 1,500 bytes of payload, Ethernet header and one VLAN tag or checksum.
constexpr uint32_t kLongestFrame = 1518;

// Frames in the order of the capture, in one block of memory that is used again and again.
class FrameBatch
{
  public:
    struct Frame {
        std::span<const uint8_t> bytes;
        uint64_t time = 0; // nanoseconds since 1 January 1970
    };
    explicit FrameBatch(size_t capacity);
    FrameBatch(FrameBatch&&) = default;
    FrameBatch& operator=(FrameBatch&&) = default;
    size_t Capacity() const { return times_.size(); }
    bool IsFull() const { return count_ == Capacity(); }
    size_t Size() const { return count_; }
    void Clear() { count_ = used_ = 0; }
    void Add(std::span<const uint8_t> bytes, uint64_t time); // at most kLongestFrame bytes; not when full
    Frame operator[](size_t index) const { return {frames_[index], times_[index]}; }
    // Those from `first` on; what their times are is left out.
    std::span<const std::span<const uint8_t>> From(size_t first) const
    {
        return std::span(frames_).subspan(first, count_ - first);
    }

  private:
    size_t count_ = 0;
    size_t used_ = 0; // bytes of the memory
    std::vector<uint8_t> memory_;
    std::vector<std::span<const uint8_t>> frames_; // in that memory
    std::vector<uint64_t> times_;
};

// Used by one thread at a time.
class CaptureReader
{
  public:
    // Opens the file. Throws LabError when it is missing, no capture, or not one of Ethernet frames.
    explicit CaptureReader(std::string path);

    // The unicast address that most of the first frames come from or go to; nothing when they have none.
    std::optional<MacAddress> MostFrequentAddress();

    // Fills the batch as far as there are frames. False when the end is reached or the file is broken from
    // here on; the batch may hold frames also then.
    bool Read(FrameBatch& batch);

    // Starts anew with the first frame. Throws LabError when the file cannot be opened again.
    void Rewind();

    const std::string& Path() const { return path_; }
    bool IsRegularFile() const { return regular_; }
    uint64_t FileSize() const { return fileSize_; }      // 0 when it is not a regular file
    uint64_t Position() const;                           // bytes of the file read so far
    bool HasNanoseconds() const { return nanoseconds_; } // times may be finer than microseconds
    uint64_t TooLong() const { return tooLong_; }        // frames skipped: longer than kLongestFrame
    uint64_t CutShort() const { return cutShort_; }      // frames of which the capture holds only a part
    const std::optional<std::string>& Broken() const { return broken_; } // why reading ended before the end

  private:
    struct StoredFrame {
        std::vector<uint8_t> bytes;
        uint64_t time;
    };
    void Open();
    // The next frame that can be replayed, from the file; false at the end.
    bool ReadFrame(std::span<const uint8_t>* bytes, uint64_t* time);

    std::string path_;
    std::unique_ptr<pcap_t, decltype(&pcap_close)> pcap_;
    std::deque<StoredFrame> first_; // frames that were looked at already, to be given out first
    bool regular_ = false;
    bool nanoseconds_ = true;
    uint64_t fileSize_ = 0;
    uint64_t tooLong_ = 0;
    uint64_t cutShort_ = 0;
    std::optional<std::string> broken_;
};

} // namespace lab
