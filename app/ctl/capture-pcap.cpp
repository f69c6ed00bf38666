// Captures through libpcap: pcap and pcapng.
#include "capture-file.h"

#include "session.h"

#include <array>

#include <fmt/format.h>
#include <pcap/pcap.h>

namespace ctl
{

namespace
{

class PcapReader final : public CaptureReader
{
  public:
    explicit PcapReader(const std::string& path) : path_(path), pcap_(nullptr, &pcap_close)
    {
        std::array<char, PCAP_ERRBUF_SIZE> error = {};
        pcap_.reset(pcap_open_offline(path.c_str(), error.data()));
        if (pcap_ == nullptr) {
            const std::string text = error.data();
            throw CtlError(ExitCode::File, text.starts_with(path) ? text : fmt::format("{}: {}", path, text));
        }
        if (pcap_datalink(pcap_.get()) != DLT_EN10MB) {
            throw CtlError(ExitCode::File, fmt::format("{}: holds no Ethernet frames", path));
        }
    }

    bool Next(std::span<const uint8_t>& bytes) override
    {
        pcap_pkthdr* header;
        const u_char* data;
        switch (pcap_next_ex(pcap_.get(), &header, &data)) {
        case 1:
            bytes = {data, header->caplen};
            return true;
        case PCAP_ERROR_BREAK:
            return false;
        default:
            throw CtlError(ExitCode::File, fmt::format("{}: {}", path_, pcap_geterr(pcap_.get())));
        }
    }

  private:
    const std::string path_;
    std::unique_ptr<pcap_t, decltype(&pcap_close)> pcap_;
};

} // namespace

std::unique_ptr<CaptureReader> OpenCapture(const std::string& path)
{
    return std::make_unique<PcapReader>(path);
}

} // namespace ctl
