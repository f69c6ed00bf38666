// The shared memory: parked reads, and the rings.
#include "race.h"

#include <scheduler/memory.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <optional>

namespace races
{
namespace
{

using Result = machine::Request::Result;

// A program that owns the share.
class SharingRace : public Race
{
  protected:
    void Begin() override
    {
        process_ = std::make_unique<machine::Process>();
        file_ = process_->Open("\\\\.\\NdisFilter");
        uint32_t value = 1;
        uint64_t address = 0;
        file_->Control(IOCTL_NDIS_FILTER_START_SHARE, support::In(value), support::Out(address));
        Require(address > NDIS_FILTER_SHARE_FAILED, "the memory is mapped");
        memory_ = reinterpret_cast<SharedMemory*>(address);
        // The program's view and the framework's are one memory.
        kernelView_ = reinterpret_cast<uint8_t*>(memory_->KernelModeOutput.m_pkBlockBase) -
                      offsetof(SharedMemory, m_OutputBlocks);
        scheduler::Alias(memory_, sizeof(SharedMemory), kernelView_);
        for (SharedRing* ring : {&memory_->KernelModeInput, &memory_->KernelModeOutput}) {
            Store(ring->m_iRead, 0);
            Store(ring->m_iWrite, 0);
        }
        Filter_AdapterToId(Adapter(), &adapterId_);
        before_ = hook::TakeBalance();
    }
    void End() override
    {
        scheduler::ForgetAliases();
        scheduler::ForgetRanges();
        file_.reset();
        process_.reset();
        const hook::Balance after = hook::TakeBalance();
        Require(after.IsEven() && after.outstanding == before_.outstanding, "every packet has ended once");
    }

    static int32_t Load(const int32_t& index) { return __atomic_load_n(&index, __ATOMIC_SEQ_CST); }
    static void Store(int32_t& index, int32_t value) { __atomic_store_n(&index, value, __ATOMIC_SEQ_CST); }
    int32_t Control(uint32_t code) { return file_->Control(code, {}, {}).status; }
    void Park() { read_.emplace(file_->Send(IOCTL_NDIS_FILTER_READ_SHARE, {}, 0)); }

    // What the parked read came to; whoever completes it twice is reported by the kernel.
    int32_t ReadResult()
    {
        const std::optional<Result> result = read_->Wait(0);
        Require(result.has_value(), "a parked read is completed");
        return result->status;
    }

    void Signal()
    {
        uint8_t signal[NDIS_FILTER_SIGNAL_SIZE] = {};
        RequireSuccess(Filter_IndicateSignalToApplication(signal), "Filter_IndicateSignalToApplication");
    }

    // Fills the next input block and announces it.
    void Announce(uint32_t direction)
    {
        const int32_t at = Load(memory_->KernelModeInput.m_iWrite);
        SharedBlock& block = memory_->m_InputBlocks[at];
        const support::Bytes frame = support::UdpFrame();
        block.m_nAdapterId = adapterId_;
        block.m_nDirection = direction;
        block.m_nPacketSize = static_cast<uint32_t>(frame.size());
        memcpy(reinterpret_cast<uint8_t*>(&block) + offsetof(SharedBlock, m_Data), frame.data(),
               frame.size());
        Store(memory_->KernelModeInput.m_iWrite, (at + 1) % NDIS_FILTER_BLOCK_COUNT);
        RequireSuccess(Control(IOCTL_NDIS_FILTER_WRITE_SHARE), "WRITE_SHARE");
    }

    std::unique_ptr<machine::Process> process_;
    std::unique_ptr<machine::File> file_;
    SharedMemory* memory_ = nullptr;
    uint8_t* kernelView_ = nullptr; // of the same memory
    ULONG adapterId_ = 0;
    std::optional<machine::Request> read_;
    hook::Balance before_;
};

class CompleteCancelStop : public SharingRace
{
    void Begin() override
    {
        SharingRace::Begin();
        Park();
    }
    Bodies Threads() override
    {
        return {[this] { Signal(); }, [this] { read_->Cancel(); },
                [this] { RequireSuccess(Control(IOCTL_NDIS_FILTER_STOP_SHARE), "STOP_SHARE"); }};
    }
    void End() override
    {
        Require(ReadResult() == STATUS_SUCCESS || ReadResult() == STATUS_CANCELLED,
                "a parked read succeeds, or is cancelled");
        SharingRace::End();
    }
};

TEST(Races, CompleteReadAgainstCancelAgainstStopShare)
{
    Search<CompleteCancelStop>({.shortly = 2, .fully = 3});
}

// A read comes to be parked while a block is written.
class ParkAndWrite : public SharingRace
{
    Bodies Threads() override
    {
        return {[this] { Park(); }, [this] { Signal(); }};
    }
    void End() override
    {
        RequireSuccess(ReadResult(), "a read beside a block");
        SharingRace::End();
    }
};

TEST(Races, ParkingAgainstWriting)
{
    Search<ParkAndWrite>({.shortly = 2, .fully = 4});
}

class ParkAndCancel : public SharingRace
{
    void Begin() override
    {
        SharingRace::Begin();
        Park();
    }
    Bodies Threads() override
    {
        return {[this] { // refused while the first one is there
                    const Result second = file_->Control(IOCTL_NDIS_FILTER_READ_SHARE, {}, {});
                    Require(second.status == STATUS_UNSUCCESSFUL || second.status == STATUS_SUCCESS,
                            "a second read is refused, or finds a block");
                },
                [this] { read_->Cancel(); }, [this] { Signal(); }};
    }
    void End() override
    {
        Require(ReadResult() == STATUS_SUCCESS || ReadResult() == STATUS_CANCELLED, "a parked read ends");
        SharingRace::End();
    }
};

TEST(Races, SecondReadAgainstCancel)
{
    Search<ParkAndCancel>({.shortly = 2, .fully = 3});
}

// The handle goes while its read is being parked.
class ParkAndClose : public SharingRace
{
    Bodies Threads() override
    {
        const auto stop = [this] { Control(IOCTL_NDIS_FILTER_STOP_SHARE); };
        return {[this] { Park(); }, stop, stop};
    }
    void End() override
    {
        Require(ReadResult() == STATUS_SUCCESS || ReadResult() == STATUS_UNSUCCESSFUL,
                "a read of a share that ends is completed");
        SharingRace::End();
    }
};

TEST(Races, ParkingAgainstStopShare)
{
    Search<ParkAndClose>({.shortly = 1, .fully = 2});
}

// No time passes: a block that its announcement does not bring to the thread stays where it is.
class AnnounceAndReset : public SharingRace
{
    Bodies Threads() override
    {
        return {[this] {
            Announce(NDIS_FILTER_DIRECTION_TO_PROTOCOL);
            Announce(NDIS_FILTER_DIRECTION_TO_APPLICATION);
            Announce(NDIS_FILTER_DIRECTION_TO_ADAPTER);
        }};
    }
    void End() override
    {
        Require(Load(memory_->KernelModeInput.m_iRead) == 3, "every announced block is served");
        Require(Load(memory_->KernelModeOutput.m_iWrite) == 1, "a frame looped back");
        const hook::Balance after = hook::TakeBalance();
        Require(after.deliveredToProtocols == before_.deliveredToProtocols + 1 &&
                    after.deliveredToAdapter == before_.deliveredToAdapter + 1,
                "each frame goes its way once");
        SharingRace::End();
    }
};

TEST(Races, WriteShareAgainstResetOfItsEvent)
{
    Search<AnnounceAndReset>({.shortly = 2, .fully = 4});
}

// The program reads blocks as soon as the index shows them.
class BlockBeforeIndex : public SharingRace
{
    static constexpr ULONG kMark = 0x5A17;
    void Begin() override
    {
        SharingRace::Begin();
        memset(&memory_->m_OutputBlocks[0], 0, sizeof(SharedBlock));
        scheduler::WatchRange(memory_, sizeof(SharedMemory));
        scheduler::WatchRange(kernelView_, sizeof(SharedMemory));
    }
    Bodies Threads() override
    {
        return {[this] {
                    FilterPacket* const packet = Filter_AllocatePacket(Adapter());
                    const support::Bytes frame = support::UdpFrame();
                    std::copy(frame.begin(), frame.end(), packet->m_Data);
                    packet->m_nPacketSize = packet->m_nBytesRead = static_cast<ULONG>(frame.size());
                    RequireSuccess(Filter_IndicatePacketToApplication(packet, kMark, 0),
                                   "Filter_IndicatePacketToApplication");
                    Filter_ReleasePacket(packet);
                },
                [this] {
                    if (Load(memory_->KernelModeOutput.m_iWrite) == 0) {
                        return;
                    }
                    const SharedBlock& block = memory_->m_OutputBlocks[0];
                    const support::Bytes frame = support::UdpFrame();
                    Require(block.m_nIndicateCode == kMark && block.m_nPacketSize == frame.size() &&
                                memcmp(block.m_Data, frame.data(), frame.size()) == 0,
                            "the block is there before its index");
                }};
    }
};

TEST(Races, BlockBeforeItsIndex)
{
    Search<BlockBeforeIndex>({.shortly = 2, .fully = 4});
}

} // namespace
} // namespace races
