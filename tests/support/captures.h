// Reading captures as any viewer does, with libpcap.
#pragma once

#include "frames.h"

#include <string>

namespace support
{

struct CapturedFrame {
    Bytes bytes;
    int64_t microseconds = 0; // since 1 January 1970
    bool operator==(const CapturedFrame&) const = default;
};

// What the bytes of a capture file hold. `error` gets what libpcap said at the end: "" when the file ends behind a
// frame.
std::vector<CapturedFrame> ParseCapture(const Bytes& file, std::string* error);

// The frames of a file; fails the test when it is no capture, or not read to its end.
std::vector<CapturedFrame> ReadCapture(const std::string& path);

inline constexpr int kLinkTypeEthernet = 1, kLinkTypeRaw = 12; // DLT_EN10MB and DLT_RAW of libpcap

// Writes frames one millisecond apart.
void WriteCapture(const std::string& path, const std::vector<Bytes>& frames,
                  int linkType = kLinkTypeEthernet);

Bytes ReadFile(const std::string& path); // empty when there is none

} // namespace support
