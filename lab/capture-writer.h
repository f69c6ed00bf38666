// Writes frames to a capture file (libpcap 2.4).
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>

#include <pcap/pcap.h>

namespace lab
{

// May be used by several threads at once.
class CaptureWriter
{
  public:
    // Creates the file; throws LabError when that fails. Times are kept in nanoseconds or microseconds.
    CaptureWriter(std::string path, bool nanoseconds);
    // `time` in nanoseconds since 1 January 1970. A failure shows in Close.
    void Write(std::span<const uint8_t> frame, uint64_t time);
    // Throws LabError when not everything could be written. Nothing is written behind it.
    void Close();

  private:
    std::string path_;
    bool nanoseconds_;
    std::mutex mutex_;
    std::unique_ptr<pcap_t, decltype(&pcap_close)> format_;
    std::unique_ptr<pcap_dumper_t, decltype(&pcap_dump_close)> file_;
};

} // namespace lab
