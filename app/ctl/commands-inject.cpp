// Frames of a capture, sent through the driver.
#include "capture-file.h"
#include "session.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <map>
#include <memory>

#include <fmt/format.h>

namespace ctl
{

namespace
{

constexpr size_t kBatch = 128; // of the 511 blocks that a ring holds, so that what loops back finds room
constexpr size_t kEthernetHeader = 14;
constexpr uint32_t kSliceMs = 100; // how often a wait looks whether Ctrl-C was pressed

const std::map<std::string, uint32_t> kDirections = {{"in", NDIS_FILTER_DIRECTION_TO_PROTOCOL},
                                                     {"out", NDIS_FILTER_DIRECTION_TO_ADAPTER},
                                                     {"loop", NDIS_FILTER_DIRECTION_TO_APPLICATION}};

struct InjectArguments {
    std::string capture;
    std::string adapter;
    std::string direction;
    uint64_t repeat = 1;
    uint32_t timeoutMs = 5000;
};

class Injector
{
  public:
    Injector(Session& session, const InjectArguments& arguments)
        : session_(session), arguments_(arguments), adapterId_(session.AdapterId(arguments.adapter)),
          direction_(kDirections.at(arguments.direction)), loops_(arguments.direction == "loop"),
          room_(kBatch)
    {
        // The driver stops taking frames at one whose adapter it does not know.
        try {
            session.Driver().IPConfig(adapterId_);
        } catch (const ndisfilter::RequestError& error) {
            throw CtlError(ExitCode::Refused,
                           ExplainFailure("send on adapter " + arguments.adapter, "", error.Status()));
        }
    }

    ExitCode Run()
    {
        std::unique_ptr<CaptureReader> capture = OpenCapture(arguments_.capture);
        session_.Driver().StartShare();
        for (uint64_t round = 0; round < arguments_.repeat && !MustEnd(); ++round) {
            if (round > 0) {
                capture = OpenCapture(arguments_.capture);
            }
            SendAll(*capture);
        }
        session_.Driver().StopShare();
        return Report();
    }

  private:
    bool MustEnd() const { return stalled_ > 0 || !broken_.empty() || interrupted; }

    void SendAll(CaptureReader& capture)
    {
        std::vector<std::vector<uint8_t>> batch; // kept until it has come back
        bool more = true;
        while (more && !MustEnd()) {
            batch.clear();
            while (more && batch.size() < kBatch) {
                more = ReadFrame(capture, batch);
            }
            SendBatch(batch);
        }
    }

    // False at the end of the capture, or where it is broken.
    bool ReadFrame(CaptureReader& capture, std::vector<std::vector<uint8_t>>& batch)
    {
        std::span<const uint8_t> bytes;
        try {
            if (!capture.Next(bytes)) {
                return false;
            }
        } catch (const CtlError& error) {
            broken_ = error.what();
            return false;
        }
        if (bytes.size() < kEthernetHeader || bytes.size() > NDIS_FILTER_BLOCK_DATA_SIZE) {
            ++skipped_;
        } else {
            batch.emplace_back(bytes.begin(), bytes.end());
        }
        return true;
    }

    void SendBatch(const std::vector<std::vector<uint8_t>>& batch)
    {
        std::vector<ndisfilter_frame> frames;
        for (const std::vector<uint8_t>& bytes : batch) {
            ndisfilter_frame frame = {};
            frame.adapter_id = adapterId_;
            frame.direction = direction_;
            frame.data = bytes.data();
            frame.size = static_cast<uint32_t>(bytes.size());
            frames.push_back(frame);
        }
        Client& driver = session_.Driver();
        sent_ += driver.Send(frames, arguments_.timeoutMs);
        if (driver.Flush(arguments_.timeoutMs) > 0) {
            stalled_ = driver.Discard();
            sent_ -= stalled_;
        } else if (loops_) {
            Collect(batch);
        }
    }

    // Waits for the frames of a batch; they come in the order they were sent. Other blocks that come are a filter's.
    void Collect(const std::vector<std::vector<uint8_t>>& batch)
    {
        size_t next = 0;
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(arguments_.timeoutMs);
        while (next < batch.size() && std::chrono::steady_clock::now() < end && !interrupted) {
            for (const ndisfilter_block& block : session_.Driver().Receive(room_, kSliceMs)) {
                if (block.is_signal == 0 && next < batch.size() &&
                    block.content.frame.m_nDirection == NDIS_FILTER_DIRECTION_TO_APPLICATION &&
                    std::ranges::equal(batch[next], std::span(block.content.frame.m_Data, block.size))) {
                    ++next;
                }
            }
        }
        returned_ += next;
    }

    ExitCode Report() const
    {
        if (session_.json) {
            Json json = {{"sent", sent_}, {"skipped", skipped_}, {"not_taken", stalled_}};
            if (loops_) {
                json["returned"] = returned_;
            }
            fmt::print("{}\n", FormatJson(json));
        } else {
            fmt::print("{} frames sent", sent_);
            if (loops_) {
                fmt::print(", {} came back unchanged", returned_);
            }
            fmt::print("\n");
        }
        if (skipped_ > 0) {
            PrintRemark(fmt::format("{} frames skipped: not of {} to {} bytes", skipped_, kEthernetHeader,
                                    NDIS_FILTER_BLOCK_DATA_SIZE));
        }
        if (interrupted) {
            return ExitCode::Interrupted;
        }
        if (!broken_.empty()) {
            PrintRemark(broken_ + "; only the frames before that were sent");
            return ExitCode::File;
        }
        if (stalled_ > 0) {
            PrintRemark(
                fmt::format("the driver has not taken {} frames within {} ms, they were taken back; is the "
                            "adapter still open, and are packets free?",
                            stalled_, arguments_.timeoutMs));
            return ExitCode::Unanswered;
        }
        if (loops_ && returned_ < sent_) {
            PrintRemark(
                fmt::format("{} frames did not come back within {} ms; see `ndisfilterctl diag filter show "
                            "shmem`",
                            sent_ - returned_, arguments_.timeoutMs));
            return ExitCode::Unanswered;
        }
        return ExitCode::Success;
    }

    Session& session_;
    const InjectArguments& arguments_;
    const uint32_t adapterId_;
    const uint32_t direction_;
    const bool loops_;
    std::vector<ndisfilter_block> room_;
    std::string broken_; // what is wrong with the capture
    uint64_t sent_ = 0;
    uint64_t skipped_ = 0;
    uint64_t stalled_ = 0;
    uint64_t returned_ = 0;
};

} // namespace

void AddInjectCommand(CLI::App& app, Session& session)
{
    CLI::App* const inject = app.add_subcommand("inject", "Send the frames of a capture through the driver");
    const auto arguments = std::make_shared<InjectArguments>();
    inject->add_option("CAPTURE", arguments->capture, "Capture file of Ethernet frames; - is standard input")
        ->required();
    inject->add_option("--adapter", arguments->adapter, "Identifier, MAC address or name of the adapter")
        ->required();
    inject
        ->add_option(
            "--direction", arguments->direction,
            "in: to the protocols, through the filters for that; out: to the adapter; loop: back to this "
            "program")
        ->required()
        ->check(CLI::IsMember({"in", "out", "loop"}))
        ->option_text("in|out|loop REQUIRED");
    inject->add_option("--repeat", arguments->repeat, "Send the capture so often")
        ->check(CLI::Range(uint64_t{1}, uint64_t{1'000'000'000}))
        ->option_text("N");
    inject
        ->add_option("--timeout", arguments->timeoutMs,
                     "Give up when the driver takes nothing for so long (5000)")
        ->option_text("MS");
    inject->footer("One program at a time can send.\n\nExample:\n"
                   "  ndisfilterctl inject session.pcap --adapter 1 --direction in");
    inject->callback([&session, arguments] {
        session.run = [&session, arguments] {
            if (arguments->repeat > 1 && arguments->capture == "-") {
                throw CtlError(ExitCode::Usage,
                               "--repeat: standard input can be read once only; give a file");
            }
            return Injector(session, *arguments).Run();
        };
    });
}

} // namespace ctl
