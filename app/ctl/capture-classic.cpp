// The libpcap format, version 2.4: a header of 24 bytes, then records of a 16-byte header and the frame.
#include "capture-file.h"

#include "session.h"

#include <array>
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

constexpr uint32_t kMicroseconds = 0xA1B2C3D4;
constexpr uint32_t kNanoseconds = 0xA1B23C4D;
constexpr uint32_t kEthernet = 1;
constexpr uint32_t kLongestRecord = 256 * 1024; // the most that libpcap captures of a frame

uint32_t Swap(uint32_t value)
{
    return value << 24 | (value & 0xFF00) << 8 | (value >> 8 & 0xFF00) | value >> 24;
}

struct FileCloser {
    void operator()(FILE* file) const
    {
        if (file != stdin) {
            std::fclose(file);
        }
    }
};

class ClassicReader final : public CaptureReader
{
  public:
    explicit ClassicReader(const std::string& path) : path_(path), file_(Open(path))
    {
        if (file_ == nullptr) {
            throw CtlError(ExitCode::File, fmt::format("{}: {}", path, std::strerror(errno)));
        }
        std::array<uint32_t, 6> header;
        if (std::fread(header.data(), 1, sizeof(header), file_.get()) != sizeof(header)) {
            Fail("no capture file, or cut short");
        }
        swapped_ = header[0] == Swap(kMicroseconds) || header[0] == Swap(kNanoseconds);
        if (Word(header[0]) != kMicroseconds && Word(header[0]) != kNanoseconds) {
            Fail("no capture file in libpcap format; convert it with `editcap -F pcap`");
        }
        // The bits above the link type tell of checksums behind the frames.
        if ((Word(header[5]) & 0xFFFF) != kEthernet) {
            Fail("holds no Ethernet frames");
        }
    }

    bool Next(std::span<const uint8_t>& bytes) override
    {
        std::array<uint32_t, 4> header;
        const size_t read = std::fread(header.data(), 1, sizeof(header), file_.get());
        if (read == 0 && std::feof(file_.get()) != 0) {
            return false;
        }
        const uint32_t length = Word(header[2]);
        if (read != sizeof(header)) {
            Fail("is cut within a frame");
        }
        if (length > kLongestRecord) {
            Fail(fmt::format("is broken: a frame of {} bytes", length));
        }
        frame_.resize(length);
        if (std::fread(frame_.data(), 1, length, file_.get()) != length) {
            Fail("is cut within a frame");
        }
        bytes = frame_;
        return true;
    }

  private:
    static FILE* Open(const std::string& path)
    {
        if (path != "-") {
            return std::fopen(path.c_str(), "rb");
        }
#ifdef _WIN32
        _setmode(_fileno(stdin), _O_BINARY);
#endif
        return stdin;
    }

    uint32_t Word(uint32_t value) const
    {
        return swapped_ ? Swap(value) : value;
    }

    [[noreturn]] void Fail(const std::string& what) const
    {
        throw CtlError(ExitCode::File, fmt::format("{}: {}", path_, what));
    }

    const std::string path_;
    const std::unique_ptr<FILE, FileCloser> file_;
    std::vector<uint8_t> frame_;
    bool swapped_ = false;
};

} // namespace

std::unique_ptr<CaptureReader> OpenClassicCapture(const std::string& path)
{
    return std::make_unique<ClassicReader>(path);
}

#ifdef _WIN32
std::unique_ptr<CaptureReader> OpenCapture(const std::string& path)
{
    return OpenClassicCapture(path);
}
#endif

} // namespace ctl
