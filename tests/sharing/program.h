// A user program that shares memory with the framework, and the fixture it runs in.
#pragma once

#include <support/adapter-test.h>

namespace sharing
{

using Result = machine::Request::Result;

// What a request came to; one that nobody completes is cancelled.
inline Result ResultOf(machine::Request& request)
{
    const auto result = request.Wait();
    if (!result) {
        request.Cancel();
    }
    return result.value_or(Result{STATUS_PENDING, 0});
}

class SharingProgram
{
  public:
    // What START_SHARE answers: the address of the memory, or NDIS_FILTER_SHARE_FAILED.
    uint64_t Start(uint32_t value = 1)
    {
        uint64_t address = 0;
        const Result result =
            Device().Control(IOCTL_NDIS_FILTER_START_SHARE, support::In(value), support::Out(address));
        EXPECT_EQ(result.status, STATUS_SUCCESS);
        EXPECT_EQ(result.information, 8u);
        if (address != NDIS_FILTER_SHARE_FAILED) {
            memory_ = reinterpret_cast<SharedMemory*>(address);
        }
        return address;
    }
    Result Control(uint32_t code) { return Device().Control(code, {}, {}); }
    Result Stop() { return Control(IOCTL_NDIS_FILTER_STOP_SHARE); }
    Result AnnounceOnly() { return Control(IOCTL_NDIS_FILTER_WRITE_SHARE); }
    machine::Request Read() { return Device().Send(IOCTL_NDIS_FILTER_READ_SHARE, {}, 0); }
    // What a read comes to that need not wait.
    NTSTATUS ReadNow()
    {
        machine::Request read = Read();
        return ResultOf(read).status;
    }
    void Close()
    {
        if (file_ != nullptr) {
            file_->Close();
        }
    }
    // The other's handle, too: as given to a child, or by DuplicateHandle.
    void TakeHandleOf(SharingProgram& other) { file_ = other.Device().DuplicateFor(process_); }

    SharedMemory& Memory() { return *memory_; }
    SharedRing& In() { return memory_->KernelModeInput; }
    SharedRing& Out() { return memory_->KernelModeOutput; }
    MappedMemory& Mapping()
    {
        return *reinterpret_cast<MappedMemory*>(reinterpret_cast<uint8_t*>(memory_) -
                                                offsetof(MappedMemory, m_SharedMemory));
    }

    // Where the program fills the next block, and its hand-over to the framework.
    SharedBlock& NextInput() { return support::NextInput(*memory_); }
    void Announce()
    {
        support::Advance(In().m_iWrite);
        EXPECT_EQ(AnnounceOnly().status, STATUS_SUCCESS);
    }
    bool IsInputTaken()
    {
        return support::Eventually([&] { return support::IsEmpty(In()); });
    }
    // Announces the next block and waits until the framework has taken it and done with it.
    void Pass()
    {
        Announce();
        EXPECT_TRUE(IsInputTaken());
        EXPECT_TRUE(machine::WaitIdle());
    }

    bool IsOutputEmpty() { return support::IsEmpty(Out()); }
    // Waits for a block as programs do, with a read parked; false when none comes.
    bool WaitForOutput()
    {
        while (IsOutputEmpty()) {
            if (ReadNow() != STATUS_SUCCESS) {
                return false;
            }
        }
        return true;
    }
    SharedBlock& NextOutput() { return support::NextOutput(*memory_); }
    void TakeOutput() { support::Advance(Out().m_iRead); }

  private:
    // Opened when it is first needed: the fixture's program is older than the framework.
    machine::File& Device()
    {
        if (file_ == nullptr) {
            file_ = process_.Open(support::kDeviceName);
        }
        return *file_;
    }

    machine::Process process_;
    std::unique_ptr<machine::File> file_;
    SharedMemory* memory_ = nullptr;
};

using Signal = std::array<uint8_t, NDIS_FILTER_SIGNAL_SIZE>;

inline FILTER_STATUS SendSignal(uint8_t content = 0x77)
{
    Signal signal;
    signal.fill(content);
    return Filter_IndicateSignalToApplication(signal.data());
}

struct SharingTest : support::AdapterTest {
    void SetUp() override
    {
        AdapterTest::SetUp();
        adapterId = support::IdOf(adapter);
        ASSERT_TRUE(machine::WaitIdle()); // the share's thread has looked at the ring for the first time
    }

    void TearDown() override
    {
        program.Close();
        AdapterTest::TearDown();
    }

    void Fill(SharedBlock& block, uint32_t direction, const support::Bytes& frame) const
    {
        support::Fill(block, adapterId, direction, frame);
    }

    // A frame of the program comes straight back to it.
    void ExpectLoopBack(SharingProgram& sender, const support::Bytes& frame = support::UdpFrame())
    {
        Fill(sender.NextInput(), NDIS_FILTER_DIRECTION_TO_APPLICATION, frame);
        sender.Announce();
        ASSERT_TRUE(sender.WaitForOutput());
        const SharedBlock& block = sender.NextOutput();
        EXPECT_EQ(support::Bytes(block.m_Data, block.m_Data + block.m_nPacketSize), frame);
        sender.TakeOutput();
        ASSERT_TRUE(machine::WaitIdle()); // the thread has released the packet
    }

    // A client indicates a frame to the program.
    void Indicate(const support::Bytes& frame = support::UdpFrame())
    {
        FilterPacket* packet = support::MakePacket(adapter, frame);
        EXPECT_EQ(Filter_IndicatePacketToApplication(packet, 0, 0), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(Filter_ReleasePacket(packet), FILTER_STATUS_SUCCESS);
    }

    uint32_t adapterId = 0;
    SharingProgram program;
};

// `program` owns the share.
struct SharedTest : SharingTest {
    void SetUp() override
    {
        SharingTest::SetUp();
        ASSERT_NE(program.Start(), NDIS_FILTER_SHARE_FAILED);
    }

    void StartRingsAt(int32_t index)
    {
        support::StartRingAt(program.In(), index);
        support::StartRingAt(program.Out(), index);
    }
};

} // namespace sharing
