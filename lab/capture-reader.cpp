#include "capture-reader.h"

#include "lab-error.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <utility>

#include <fmt/format.h>
#include <stdio_ext.h>

namespace lab
{
namespace
{

constexpr size_t kFirstFrames = 1000;    // looked at for the adapter's address
constexpr size_t kReadAhead = 64 * 1024; // bytes that are read at once

[[noreturn]] void Fail(const std::string& path, const std::string& message)
{
    throw LabError(ExitCode::Capture, fmt::format("{}: {}", path, message));
}

// Whether a capture file keeps its times in microseconds: libpcap 2.4 does under one of its two magic
// numbers.
bool HasMicrosecondMagic(FILE* file)
{
    uint32_t magic = 0;
    const bool read = std::fread(&magic, sizeof(magic), 1, file) == 1;
    std::rewind(file);
    return read && (magic == 0xA1B2C3D4 || magic == 0xD4C3B2A1);
}

} // namespace

FrameBatch::FrameBatch(size_t capacity)
    : memory_(capacity * kLongestFrame), frames_(capacity), times_(capacity)
{}

void FrameBatch::Add(std::span<const uint8_t> bytes, uint64_t time)
{
    uint8_t* const place = memory_.data() + used_; // one behind the other: what is small stays in the caches
    if (!bytes.empty()) {
        std::memcpy(place, bytes.data(), bytes.size());
    }
    used_ += bytes.size();
    frames_[count_] = {place, bytes.size()};
    times_[count_] = time;
    ++count_;
}

CaptureReader::CaptureReader(std::string path) : path_(std::move(path)), pcap_(nullptr, pcap_close)
{
    Open();
}

void CaptureReader::Open()
{
    FILE* file = std::fopen(path_.c_str(), "rb");
    if (file == nullptr) {
        Fail(path_, fmt::format("cannot open it: {}", std::strerror(errno)));
    }
    std::setvbuf(file, nullptr, _IOFBF, kReadAhead);
    __fsetlocking(file, FSETLOCKING_BYCALLER); // one thread at a time reads; libpcap reads two pieces a frame
    std::error_code error;
    if (std::filesystem::is_directory(path_, error)) {
        std::fclose(file);
        Fail(path_, "is a directory; name a capture file in it");
    }
    regular_ = std::filesystem::is_regular_file(path_, error);
    fileSize_ = regular_ ? std::filesystem::file_size(path_, error) : 0;
    nanoseconds_ = !(regular_ && HasMicrosecondMagic(file));

    char message[PCAP_ERRBUF_SIZE] = "";
    pcap_.reset(pcap_fopen_offline_with_tstamp_precision(file, PCAP_TSTAMP_PRECISION_NANO, message));
    if (pcap_ == nullptr) {
        std::fclose(file);
        Fail(path_, fmt::format("not a capture that can be read ({}); give a pcap or pcapng file", message));
    }
    const int linkType = pcap_datalink(pcap_.get());
    if (linkType != DLT_EN10MB) {
        const char* name = pcap_datalink_val_to_name(linkType);
        Fail(path_, fmt::format(
                        "link type {} ({}) is not Ethernet; only captures of Ethernet frames can be replayed",
                        linkType, name != nullptr ? name : "unknown"));
    }
}

bool CaptureReader::ReadFrame(std::span<const uint8_t>* bytes, uint64_t* time)
{
    while (!broken_.has_value()) {
        pcap_pkthdr* header = nullptr;
        const u_char* data = nullptr;
        const int result = pcap_next_ex(pcap_.get(), &header, &data);
        if (result == PCAP_ERROR_BREAK) {
            return false;
        }
        if (result != 1) {
            broken_ = pcap_geterr(pcap_.get());
            return false;
        }
        if (header->len > kLongestFrame || header->caplen > kLongestFrame) {
            ++tooLong_;
            continue;
        }
        if (header->caplen < header->len) {
            ++cutShort_;
        }
        // With nanosecond precision libpcap keeps nanoseconds in tv_usec.
        *time = static_cast<uint64_t>(header->ts.tv_sec) * 1'000'000'000 +
                static_cast<uint64_t>(header->ts.tv_usec);
        *bytes = {data, header->caplen};
        return true;
    }
    return false;
}

std::optional<MacAddress> CaptureReader::MostFrequentAddress()
{
    std::span<const uint8_t> bytes;
    uint64_t time = 0;
    while (first_.size() < kFirstFrames && ReadFrame(&bytes, &time)) {
        first_.push_back({{bytes.begin(), bytes.end()}, time});
    }
    std::vector<std::pair<MacAddress, size_t>> occurrences; // in the order of their first
    const auto count = [&](const uint8_t* address) {
        MacAddress mac;
        std::copy_n(address, mac.size(), mac.begin());
        if ((mac[0] & 1) != 0 || mac == MacAddress{}) {
            return; // a group, or none
        }
        auto found = std::ranges::find(occurrences, mac, &std::pair<MacAddress, size_t>::first);
        if (found == occurrences.end()) {
            found = occurrences.insert(found, {mac, 0});
        }
        ++found->second;
    };
    for (const StoredFrame& frame : first_) {
        if (frame.bytes.size() >= 12) {
            count(&frame.bytes[6]); // the source
            count(&frame.bytes[0]);
        }
    }
    // Of two hosts that only talk to one another both occur in every frame: the one that was seen first wins.
    const auto best = std::ranges::max_element(occurrences, {}, &std::pair<MacAddress, size_t>::second);
    return best != occurrences.end() ? std::optional(best->first) : std::nullopt;
}

bool CaptureReader::Read(FrameBatch& batch)
{
    for (; !first_.empty() && !batch.IsFull(); first_.pop_front()) {
        batch.Add(first_.front().bytes, first_.front().time);
    }
    std::span<const uint8_t> bytes;
    uint64_t time = 0;
    while (!batch.IsFull()) {
        if (!ReadFrame(&bytes, &time)) {
            return false;
        }
        batch.Add(bytes, time);
    }
    return true;
}

void CaptureReader::Rewind()
{
    first_.clear();
    Open();
}

uint64_t CaptureReader::Position() const
{
    const off_t position = regular_ ? ftello(pcap_file(pcap_.get())) : 0;
    return position > 0 ? static_cast<uint64_t>(position) : 0;
}

} // namespace lab
