// Capture logs that are opened and closed while frames are recorded.
#include "race.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>

#include <sys/stat.h>

namespace races
{
namespace
{

struct CaptureRace : Race {
    void Begin() override
    {
        std::filesystem::remove(LowerLog());
        program.emplace();
        outstanding = hook::TakeBalance().outstanding;
    }
    void End() override
    {
        Control(IOCTL_NDIS_FILTER_STOP_ETHRLOG);
        program.reset();
        Require(machine::WaitIdle(), "the logs are closed");
        const hook::Balance balance = hook::TakeBalance();
        Require(balance.IsEven() && balance.outstanding - outstanding <= 2 * received,
                "what is out is what the closing logs left");
        struct stat info = {};
        if (stat(LowerLog().c_str(), &info) == 0 && info.st_size != 0) {
            constexpr off_t kFileHeader = 24, kFrameHeader = 16;
            const auto record = kFrameHeader + static_cast<off_t>(support::UdpFrame().size());
            Require((info.st_size - kFileHeader) % record == 0 &&
                        info.st_size <= kFileHeader + static_cast<off_t>(received) * record,
                    "a file holds whole frames, each once");
        }
        if (balance.outstanding != outstanding) {
            ReloadHook(); // takes back what the logs left
        }
    }

    static std::string LowerLog() { return DriveC() + "/Adapter(02-00-00-00-00-01)NdisLower.eth"; }

    void Control(uint32_t code)
    {
        RequireSuccess(program->device->Control(code, {}, {}).status, "a request");
    }
    void Start() { Control(IOCTL_NDIS_FILTER_START_ETHRLOG); }
    void Stop() { Control(IOCTL_NDIS_FILTER_STOP_ETHRLOG); }
    void Receive()
    {
        received += hook::DeliverReceived(Adapter(), support::UdpFrame()) == hook::Accepted::Yes;
    }

    std::optional<support::UserProgram> program;
    uint64_t outstanding = 0;
    uint64_t received = 0;
};

TEST(Races, CaptureCloseAgainstRecording)
{
    Search<CaptureRace>({.shortly = 1, .fully = 2}, [](CaptureRace& race) {
        race.Start();
        race.threads = {[&] {
                            race.Receive();
                            race.Receive();
                        },
                        [&] { race.Stop(); }};
    });
}

// A stop right behind a start may come first, then the log goes on until the next stop; and none is opened for good.
TEST(Races, CaptureOpenAgainstClose)
{
    Search<CaptureRace>({.shortly = 1, .fully = 2}, [](CaptureRace& race) {
        race.threads = {[&] { race.Start(); }, [&] { race.Stop(); }, [&] { race.Receive(); }};
    });
}

TEST(Races, AdapterCloseAgainstRecording)
{
    Search<CaptureRace>({.shortly = 1, .fully = 2}, [](CaptureRace& race) {
        race.Start();
        race.threads = {[&] { race.Receive(); }, [] { hook::CloseAdapter(Adapter()); }, [&] { race.Stop(); }};
        race.end = [] { hook::OpenAdapter(Adapter()); };
    });
}

} // namespace
} // namespace races
