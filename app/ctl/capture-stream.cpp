#include "capture-file.h"

#include "session.h"

#include <cerrno>
#include <cstring>

#include <fmt/format.h>
#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#endif

namespace ctl
{

namespace
{

struct FileHeader {
    uint32_t magic = 0xA1B2C3D4; // times in microseconds; written in the byte order of the machine
    uint16_t majorVersion = 2;
    uint16_t minorVersion = 4;
    uint32_t timeZone = 0;
    uint32_t accuracy = 0;
    uint32_t snapshotLength = 65535;
    uint32_t linkType = 1; // Ethernet
};
static_assert(sizeof(FileHeader) == 24);

struct FrameHeader {
    uint32_t seconds;
    uint32_t microseconds;
    uint32_t capturedLength;
    uint32_t fullLength;
};

FILE* OpenForWriting(const std::string& path)
{
    if (path != "-") {
        return std::fopen(path.c_str(), "wb");
    }
#ifdef _WIN32
    _setmode(_fileno(stdout), _O_BINARY);
#endif
    return stdout;
}

} // namespace

CaptureStream::CaptureStream(const std::string& path) : path_(path), file_(OpenForWriting(path))
{
    const FileHeader header;
    if (file_ == nullptr) {
        throw CtlError(ExitCode::File, fmt::format("{}: cannot be written: {}", path, std::strerror(errno)));
    }
    Flush(&header, sizeof(header));
}

CaptureStream::~CaptureStream()
{
    if (file_ != nullptr && file_ != stdout) {
        std::fclose(file_);
    }
}

bool CaptureStream::Flush(const void* bytes, size_t size)
{
    if (std::fwrite(bytes, 1, size, file_) == size && std::fflush(file_) == 0) {
        return true;
    }
    if (file_ == stdout && IsReaderGone()) {
        return false;
    }
    throw CtlError(ExitCode::File, fmt::format("{}: cannot be written: {}", path_, std::strerror(errno)));
}

bool CaptureStream::Write(std::chrono::system_clock::time_point time, std::span<const uint8_t> bytes,
                          uint32_t fullSize)
{
    using namespace std::chrono;
    const auto since1970 = duration_cast<microseconds>(time.time_since_epoch()).count();
    const FrameHeader header = {static_cast<uint32_t>(since1970 / 1'000'000),
                                static_cast<uint32_t>(since1970 % 1'000'000),
                                static_cast<uint32_t>(bytes.size()), fullSize};
    std::vector<uint8_t> record(sizeof(header) + bytes.size());
    std::memcpy(record.data(), &header, sizeof(header));
    std::memcpy(record.data() + sizeof(header), bytes.data(), bytes.size());
    return Flush(record.data(), record.size());
}

} // namespace ctl
