// What filters indicate to the program: frames and signals.
#include "block-text.h"
#include "capture-file.h"
#include "session.h"

#include <chrono>
#include <memory>

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace ctl
{

namespace
{

constexpr uint32_t kSliceMs = 100; // how often a wait looks whether Ctrl-C was pressed
constexpr size_t kBatch = 64;

struct WatchArguments {
    std::string writePath;
    std::string adapter;
    uint64_t count = UINT64_MAX;
    double seconds = 0;
    bool quiet = false;
};

std::string FormatTime(std::chrono::system_clock::time_point time)
{
    using namespace std::chrono;
    const auto microsecond = duration_cast<microseconds>(time.time_since_epoch()).count() % 1'000'000;
    return fmt::format("{:%H:%M:%S}.{:06}", fmt::localtime(system_clock::to_time_t(time)), microsecond);
}

class Watcher
{
  public:
    Watcher(Session& session, const WatchArguments& arguments) : session_(session), arguments_(arguments)
    {
        if (!arguments.writePath.empty()) {
            if (session.json && arguments.writePath == "-") {
                throw CtlError(ExitCode::Usage, "--write -: standard output is taken by --json; give a file");
            }
            stream_.emplace(arguments.writePath);
        }
        if (!arguments.adapter.empty()) {
            adapterId_ = session.AdapterId(arguments.adapter);
        }
    }

    void Run()
    {
        session_.Driver().StartShare();
        Remark("watching; Ctrl-C ends it");
        const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(arguments_.seconds);
        std::vector<ndisfilter_block> room(kBatch);
        while (!interrupted && !finished_ &&
               (arguments_.seconds == 0 || std::chrono::steady_clock::now() < end)) {
            const std::span<ndisfilter_block> blocks = session_.Driver().Receive(room, kSliceMs);
            const auto now = std::chrono::system_clock::now();
            for (const ndisfilter_block& block : blocks) {
                Show(block, now);
            }
            finished_ = finished_ || (!blocks.empty() && !FlushOutput());
        }
        session_.Driver().StopShare();
        finished_ = !FlushOutput();
        Remark(fmt::format("{} frames, {} signals", frames_, signals_));
    }

  private:
    void Remark(const std::string& text) const
    {
        if (!arguments_.quiet) {
            PrintRemark(text);
        }
    }

    void Show(const ndisfilter_block& block, std::chrono::system_clock::time_point now)
    {
        if (finished_ ||
            (adapterId_ && (block.is_signal != 0 || block.content.frame.m_nAdapterId != *adapterId_))) {
            return;
        }
        ++(block.is_signal != 0 ? signals_ : frames_);
        if (!stream_) {
            Print(block, now);
        } else if (block.is_signal != 0) {
            Remark(FormatTime(now) + " " + FormatBlock(block)); // a capture has no place for it
        } else {
            finished_ = !stream_->Write(now, {block.content.frame.m_Data, block.size}, block.full_size);
        }
        finished_ = finished_ || frames_ + signals_ >= arguments_.count;
    }

    void Print(const ndisfilter_block& block, std::chrono::system_clock::time_point now) const
    {
        if (session_.json) {
            Json json = BlockToJson(block);
            json["time"] = std::chrono::duration<double>(now.time_since_epoch()).count();
            fmt::print("{}\n", FormatJson(json, -1));
        } else {
            fmt::print("{} {}\n", FormatTime(now), FormatBlock(block));
        }
    }

    Session& session_;
    const WatchArguments& arguments_;
    std::optional<CaptureStream> stream_;
    std::optional<uint32_t> adapterId_;
    uint64_t frames_ = 0;
    uint64_t signals_ = 0;
    bool finished_ = false;
};

} // namespace

void AddWatchCommand(CLI::App& app, Session& session)
{
    CLI::App* const watch =
        app.add_subcommand("watch", "Print the frames and signals that filters indicate to programs");
    const auto arguments = std::make_shared<WatchArguments>();
    watch
        ->add_option("--write", arguments->writePath,
                     "Write frames as a capture instead, flushed one by one; - is standard output")
        ->option_text("FILE|-");
    watch->add_option("--adapter", arguments->adapter,
                      "Frames of this adapter only: identifier, MAC address or name");
    watch->add_option("--count", arguments->count, "End behind so many frames and signals")
        ->check(CLI::Range(uint64_t{1}, UINT64_MAX).description(""))
        ->option_text("N");
    watch->add_option("--seconds", arguments->seconds, "End after so long")
        ->option_text("N")
        ->check([](const std::string& text) {
            double seconds = 0;
            return CLI::detail::lexical_cast(text, seconds) && seconds > 0 ? ""
                                                                           : text + " is no time above 0";
        });
    watch->add_flag("--quiet", arguments->quiet, "No remarks on standard error");
    watch->footer(
        "One program at a time gets what filters indicate.\n\nExamples:\n  ndisfilterctl watch --count 10\n"
        "  ndisfilterctl watch --write - | tshark -r -");
    watch->callback([&session, arguments] {
        session.run = [&session, arguments] {
            Watcher(session, *arguments).Run();
            return ExitCode::Success;
        };
    });
}

} // namespace ctl
