// The shared memory: parked reads, and the rings.
#include "race.h"

#include <scheduler/memory.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <optional>

namespace races
{
namespace
{

// A program that owns the share.
struct SharingRace : Race {
    void Begin() override
    {
        program.emplace();
        memory = support::StartShare(*program->device);
        Require(memory != nullptr, "the memory is mapped");
        // The program's view and the framework's are one memory.
        kernelView = reinterpret_cast<uint8_t*>(memory->KernelModeOutput.m_pkBlockBase) -
                     offsetof(SharedMemory, m_OutputBlocks);
        scheduler::Alias(memory, sizeof(SharedMemory), kernelView);
        support::StartRingAt(memory->KernelModeInput, 0);
        support::StartRingAt(memory->KernelModeOutput, 0);
        Filter_AdapterToId(Adapter(), &adapterId);
        before = hook::TakeBalance();
    }
    void End() override
    {
        scheduler::ForgetAliases();
        scheduler::ForgetRanges();
        program.reset();
        const hook::Balance after = hook::TakeBalance();
        Require(after.IsEven() && after.outstanding == before.outstanding, "every packet has ended once");
    }

    int32_t Control(uint32_t code) { return program->device->Control(code, {}, {}).status; }
    void Park() { read.emplace(program->device->Send(IOCTL_NDIS_FILTER_READ_SHARE, {}, 0)); }

    // What the parked read came to; whoever completes it twice is reported by the kernel.
    void RequireRead(std::initializer_list<int32_t> results)
    {
        const std::optional<machine::Request::Result> result = read->Wait(0);
        Require(result.has_value(), "a parked read is completed");
        Require(std::find(results.begin(), results.end(), result->status) != results.end(),
                "a parked read ends as what came to it says");
    }

    void Signal()
    {
        uint8_t signal[NDIS_FILTER_SIGNAL_SIZE] = {};
        RequireSuccess(Filter_IndicateSignalToApplication(signal), "Filter_IndicateSignalToApplication");
    }

    // Fills the next input block and announces it.
    void Announce(uint32_t direction)
    {
        support::Fill(support::NextInput(*memory), adapterId, direction, support::UdpFrame());
        support::Advance(memory->KernelModeInput.m_iWrite);
        RequireSuccess(Control(IOCTL_NDIS_FILTER_WRITE_SHARE), "WRITE_SHARE");
    }

    std::optional<support::UserProgram> program;
    SharedMemory* memory = nullptr;
    uint8_t* kernelView = nullptr; // of the same memory
    ULONG adapterId = 0;
    std::optional<machine::Request> read;
    hook::Balance before;
};

TEST(Races, CompleteReadAgainstCancelAgainstStopShare)
{
    Search<SharingRace>({.shortly = 2, .fully = 3}, [](SharingRace& race) {
        race.Park();
        race.threads = {[&] { race.Signal(); }, [&] { race.read->Cancel(); },
                        [&] { RequireSuccess(race.Control(IOCTL_NDIS_FILTER_STOP_SHARE), "STOP_SHARE"); }};
        race.end = [&] { race.RequireRead({STATUS_SUCCESS, STATUS_CANCELLED}); };
    });
}

// A read comes to be parked while a block is written.
TEST(Races, ParkingAgainstWriting)
{
    Search<SharingRace>({.shortly = 2, .fully = 4}, [](SharingRace& race) {
        race.threads = {[&] { race.Park(); }, [&] { race.Signal(); }};
        race.end = [&] { race.RequireRead({STATUS_SUCCESS}); };
    });
}

TEST(Races, SecondReadAgainstCancel)
{
    Search<SharingRace>({.shortly = 2, .fully = 3}, [](SharingRace& race) {
        race.Park();
        race.threads = {[&] { // refused while the first one is there
                            const int32_t second = race.Control(IOCTL_NDIS_FILTER_READ_SHARE);
                            Require(second == STATUS_UNSUCCESSFUL || second == STATUS_SUCCESS,
                                    "a second read is refused, or finds a block");
                        },
                        [&] { race.read->Cancel(); }, [&] { race.Signal(); }};
        race.end = [&] { race.RequireRead({STATUS_SUCCESS, STATUS_CANCELLED}); };
    });
}

// The share ends while a read is being parked.
TEST(Races, ParkingAgainstStopShare)
{
    Search<SharingRace>({.shortly = 1, .fully = 2}, [](SharingRace& race) {
        const auto stop = [&] { race.Control(IOCTL_NDIS_FILTER_STOP_SHARE); };
        race.threads = {[&] { race.Park(); }, stop, stop};
        race.end = [&] { race.RequireRead({STATUS_SUCCESS, STATUS_UNSUCCESSFUL}); };
    });
}

// No time passes: a block that its announcement does not bring to the thread stays where it is.
TEST(Races, WriteShareAgainstResetOfItsEvent)
{
    Search<SharingRace>({.shortly = 2, .fully = 4}, [](SharingRace& race) {
        race.threads = {[&] {
            race.Announce(NDIS_FILTER_DIRECTION_TO_PROTOCOL);
            race.Announce(NDIS_FILTER_DIRECTION_TO_APPLICATION);
            race.Announce(NDIS_FILTER_DIRECTION_TO_ADAPTER);
        }};
        race.end = [&] {
            Require(support::Load(race.memory->KernelModeInput.m_iRead) == 3,
                    "every announced block is served");
            Require(support::Load(race.memory->KernelModeOutput.m_iWrite) == 1, "a frame looped back");
            const hook::Balance after = hook::TakeBalance();
            Require(after.deliveredToProtocols == race.before.deliveredToProtocols + 1 &&
                        after.deliveredToAdapter == race.before.deliveredToAdapter + 1,
                    "each frame goes its way once");
        };
    });
}

// The program reads blocks as soon as the index shows them.
TEST(Races, BlockBeforeItsIndex)
{
    static constexpr ULONG kMark = 0x5A17;
    Search<SharingRace>({.shortly = 2, .fully = 4}, [](SharingRace& race) {
        memset(&race.memory->m_OutputBlocks[0], 0, sizeof(SharedBlock));
        scheduler::WatchRange(race.memory, sizeof(SharedMemory));
        scheduler::WatchRange(race.kernelView, sizeof(SharedMemory));
        race.threads = {[] {
                            FilterPacket* const packet = Filter_AllocatePacket(Adapter());
                            const support::Bytes frame = support::UdpFrame();
                            std::copy(frame.begin(), frame.end(), packet->m_Data);
                            packet->m_nPacketSize = packet->m_nBytesRead = static_cast<ULONG>(frame.size());
                            RequireSuccess(Filter_IndicatePacketToApplication(packet, kMark, 0),
                                           "Filter_IndicatePacketToApplication");
                            Filter_ReleasePacket(packet);
                        },
                        [&] {
                            if (support::Load(race.memory->KernelModeOutput.m_iWrite) == 0) {
                                return;
                            }
                            const SharedBlock& block = race.memory->m_OutputBlocks[0];
                            const support::Bytes frame = support::UdpFrame();
                            Require(block.m_nIndicateCode == kMark && block.m_nPacketSize == frame.size() &&
                                        memcmp(block.m_Data, frame.data(), frame.size()) == 0,
                                    "the block is there before its index");
                        }};
    });
}

} // namespace
} // namespace races
