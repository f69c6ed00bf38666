// Capture files of Ethernet frames.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace ctl
{

// Frames of a capture file, in their order.
class CaptureReader
{
  public:
    virtual ~CaptureReader() = default;
    // False at the end. The bytes, maybe fewer than the frame had, last until the next call. Throws CtlError when
    // the file is broken from here on.
    virtual bool Next(std::span<const uint8_t>& bytes) = 0;
};

// Opens a capture; "-" is standard input. Throws CtlError when it cannot be opened or holds no Ethernet frames.
std::unique_ptr<CaptureReader> OpenCapture(const std::string& path);

// The libpcap format 2.4 only, in either byte order, with times in micro- or nanoseconds: for systems without libpcap.
std::unique_ptr<CaptureReader> OpenClassicCapture(const std::string& path);

// Writes a capture (libpcap format 2.4) that can be read while it grows: each frame is flushed.
class CaptureStream
{
  public:
    explicit CaptureStream(const std::string& path); // "-" is standard output; throws CtlError
    ~CaptureStream();
    CaptureStream(const CaptureStream&) = delete;
    CaptureStream& operator=(const CaptureStream&) = delete;

    // `fullSize`: the length of the frame, of which `bytes` may be a part. False: the reader of the pipe has gone.
    // Throws CtlError when the file cannot be written.
    bool Write(std::chrono::system_clock::time_point time, std::span<const uint8_t> bytes, uint32_t fullSize);

  private:
    bool Flush(const void* bytes, size_t size);

    const std::string path_;
    FILE* file_;
};

} // namespace ctl
