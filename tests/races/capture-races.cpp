// Capture logs that are opened and closed while frames are recorded.
#include "race.h"

#include <gtest/gtest.h>

#include <filesystem>

#include <sys/stat.h>

namespace races
{
namespace
{

class CaptureRace : public Race
{
  protected:
    void Begin() override
    {
        std::filesystem::remove(LowerLog());
        process_ = std::make_unique<machine::Process>();
        file_ = process_->Open("\\\\.\\NdisFilter");
        outstanding_ = hook::TakeBalance().outstanding;
    }
    void End() override
    {
        Control(IOCTL_NDIS_FILTER_STOP_ETHRLOG);
        file_.reset();
        process_.reset();
        Require(machine::WaitIdle(), "the logs are closed");
        const hook::Balance balance = hook::TakeBalance();
        Require(balance.IsEven() && balance.outstanding - outstanding_ <= 2 * received_,
                "what is out is what the closing logs left");
        struct stat info = {};
        if (stat(LowerLog().c_str(), &info) == 0 && info.st_size != 0) {
            constexpr off_t kFileHeader = 24, kFrameHeader = 16;
            const auto record = kFrameHeader + static_cast<off_t>(support::UdpFrame().size());
            Require((info.st_size - kFileHeader) % record == 0 &&
                        info.st_size <= kFileHeader + static_cast<off_t>(received_) * record,
                    "a file holds whole frames, each once");
        }
        if (balance.outstanding != outstanding_) {
            ReloadHook(); // takes back what the logs left
        }
    }

    static std::string LowerLog() { return DriveC() + "/Adapter(02-00-00-00-00-01)NdisLower.eth"; }

    void Control(uint32_t code) { RequireSuccess(file_->Control(code, {}, {}).status, "a request"); }
    void Start() { Control(IOCTL_NDIS_FILTER_START_ETHRLOG); }
    void Stop() { Control(IOCTL_NDIS_FILTER_STOP_ETHRLOG); }
    void Receive()
    {
        received_ += hook::DeliverReceived(Adapter(), support::UdpFrame()) == hook::Accepted::Yes;
    }

    std::unique_ptr<machine::Process> process_;
    std::unique_ptr<machine::File> file_;
    uint64_t outstanding_ = 0;
    uint64_t received_ = 0;
};

class CloseAndRecord : public CaptureRace
{
    void Begin() override
    {
        CaptureRace::Begin();
        Start();
    }
    Bodies Threads() override
    {
        return {[this] {
                    Receive();
                    Receive();
                },
                [this] { Stop(); }};
    }
};

TEST(Races, CaptureCloseAgainstRecording)
{
    Search<CloseAndRecord>({.shortly = 1, .fully = 2});
}

// A stop right behind a start may come first, then the log goes on until the next stop; and none is opened for good.
class OpenAndClose : public CaptureRace
{
    Bodies Threads() override
    {
        return {[this] { Start(); }, [this] { Stop(); }, [this] { Receive(); }};
    }
};

TEST(Races, CaptureOpenAgainstClose)
{
    Search<OpenAndClose>({.shortly = 1, .fully = 2});
}

class AdapterClose : public CaptureRace
{
    void Begin() override
    {
        CaptureRace::Begin();
        Start();
    }
    Bodies Threads() override
    {
        return {[this] { Receive(); }, [] { hook::CloseAdapter(Adapter()); }, [this] { Stop(); }};
    }
    void End() override
    {
        hook::OpenAdapter(Adapter());
        CaptureRace::End();
    }
};

TEST(Races, AdapterCloseAgainstRecording)
{
    Search<AdapterClose>({.shortly = 1, .fully = 2});
}

} // namespace
} // namespace races
