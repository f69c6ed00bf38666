#include "capture-writer.h"

#include "lab-error.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fmt/format.h>

namespace lab
{
namespace
{

constexpr int kSnapLength = 65535; // what the file claims as the longest frame

} // namespace

CaptureWriter::CaptureWriter(std::string path, bool nanoseconds)
    : path_(std::move(path)), nanoseconds_(nanoseconds), format_(nullptr, pcap_close),
      file_(nullptr, pcap_dump_close)
{
    format_.reset(pcap_open_dead_with_tstamp_precision(
        DLT_EN10MB, kSnapLength, nanoseconds ? PCAP_TSTAMP_PRECISION_NANO : PCAP_TSTAMP_PRECISION_MICRO));
    file_.reset(pcap_dump_open(format_.get(), path_.c_str()));
    if (file_ == nullptr) {
        throw LabError(ExitCode::Capture,
                       fmt::format("cannot create a capture: {}", pcap_geterr(format_.get())));
    }
}

void CaptureWriter::Write(std::span<const uint8_t> frame, uint64_t time)
{
    pcap_pkthdr header = {};
    header.ts.tv_sec = static_cast<time_t>(time / 1'000'000'000);
    header.ts.tv_usec = static_cast<suseconds_t>(time % 1'000'000'000 / (nanoseconds_ ? 1 : 1000));
    header.caplen = static_cast<bpf_u_int32>(frame.size());
    header.len = header.caplen;
    std::lock_guard lock(mutex_);
    pcap_dump(reinterpret_cast<u_char*>(file_.get()), &header, frame.data());
}

void CaptureWriter::Close()
{
    std::lock_guard lock(mutex_);
    if (file_ == nullptr) {
        return;
    }
    errno = 0;
    // libpcap drops the results of its writes; the stream remembers that one has failed.
    const bool failed = pcap_dump_flush(file_.get()) != 0 || std::ferror(pcap_dump_file(file_.get())) != 0;
    const int error = errno;
    file_.reset();
    if (failed) {
        throw LabError(ExitCode::Capture, fmt::format("{}: cannot write all frames: {}", path_,
                                                      error != 0 ? std::strerror(error) : "write error"));
    }
}

} // namespace lab
