// The shared rings under a program that changes any field at any moment: just before the driver's n-th read of the
// shared memory, as the input says, or all the time from a second thread. Whatever it does, nothing is touched outside
// of the area, no packet is lost, no read request stays, and other traffic passes whole.
#include "support/fuzz.h"

#include <support/rings.h>

#include <array>
#include <atomic>
#include <cstring>
#include <memory>
#include <optional>
#include <sched.h>
#include <semaphore>
#include <thread>

using namespace fuzz;

namespace
{

constexpr size_t kSteps = 6, kMostChanges = 12;
constexpr uint32_t kBlocks = NDIS_FILTER_BLOCK_COUNT;
constexpr uint32_t kStarts[] = {0, 1, 255, 509, 510, 511};
constexpr uint32_t kWords[] = {0, 1, 2, 3, 4, 6, 7, 9, 41}; // of a block: its fields, and bytes of its frame
constexpr uint32_t kHeaderWords = offsetof(SharedMemory, m_OutputBlocks) / 4;
constexpr uint32_t kValues[] = {0,    1,    2,     3,          4,          13,         14,        60,   510,
                                511,  512,  513,   1519,       1520,       1521,       1648,      1649, 1684,
                                2496, 4096, 65535, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0xFFFFFE00};

struct Change {
    uint32_t access = 0; // just before this access of the driver, counted from 1
    uint32_t* word = nullptr;
    uint32_t value = 0;
};

struct Plan {
    std::array<Change, kMostChanges> changes;
    size_t count = 0;
    std::atomic<uint32_t> accesses = 0;
} plan;

void Apply(const Change& change)
{
    __atomic_store_n(change.word, change.value, __ATOMIC_RELAXED);
}

void OnAccess(machine::SharedAccess, const volatile void*, size_t)
{
    const uint32_t access = ++plan.accesses;
    for (size_t i = 0; i < plan.count; ++i) {
        if (plan.changes[i].access == access) {
            Apply(plan.changes[i]);
        }
    }
}

// The second thread of the program. It is started once and waits between the inputs. All others share a processor, where
// they would leave it no moment in between.
class Scribbler
{
  public:
    Scribbler()
    {
        std::thread([this] {
            cpu_set_t processors;
            std::memset(&processors, 0xFF, sizeof(processors));
            Require(sched_setaffinity(0, sizeof(processors), &processors) == 0, "any processor");
            for (;;) {
                go_.acquire();
                for (uint32_t i = 0; !stop_.load(std::memory_order_acquire); ++i) {
                    Apply(plan.changes[i % plan.count]);
                }
                stopped_.release();
            }
        }).detach();
    }
    void Start()
    {
        stop_ = false;
        go_.release();
    }
    void Stop()
    {
        stop_ = true;
        stopped_.acquire();
    }

  private:
    std::binary_semaphore go_{0}, stopped_{0};
    std::atomic<bool> stop_ = false;
};

class Fixture : public Machine
{
  public:
    Fixture()
    {
        Require(machine::ChecksSharedAccess(), "a build that checks the driver's reads");
        Require(memory_ != nullptr, "a share");
        const auto begin =
            uint64_t{memory_->KernelModeOutput.m_pkBlockBase} - offsetof(SharedMemory, m_OutputBlocks);
        ForbidPlainLoads(reinterpret_cast<const void*>(begin), sizeof(SharedMemory));
        hook::SetSink(adapters[0], hook::Side::Protocols,
                      [this](std::span<const uint8_t> frame, const hook::Delivery& delivery) {
                          whole_ += delivery.origin == hook::Origin::Received &&
                                    frame.size() == frame_.size() &&
                                    std::equal(frame.begin(), frame.end(), frame_.begin());
                      });
        machine::ObserveSharedAccess(OnAccess);
        Announce();
        AwaitRest();
        Accept();
    }

    void Run(Input input)
    {
        first_ = input.OneOf(kStarts);
        for (SharedRing* ring : {&memory_->KernelModeInput, &memory_->KernelModeOutput}) {
            support::StartRingAt(*ring, static_cast<int32_t>(first_));
        }
        scribbles_ = ReadPlan(input);
        if (scribbles_) {
            scribbler_.Start();
        }
        for (size_t step = 0; step < kSteps && !input.IsEmpty(); ++step) {
            Step(input);
        }
        if (scribbles_) {
            scribbler_.Stop();
        }
        PutBack();
        CheckAtRest();
    }

  private:
    bool ReadPlan(Input& input)
    {
        const uint32_t choice = input.Below(16);
        plan.count = choice % kMostChanges;
        const bool scribbles = choice == 15;
        uint32_t access = 0;
        for (size_t i = 0; i < plan.count; ++i) {
            const uint32_t place = input.Byte();
            uint32_t* const words = reinterpret_cast<uint32_t*>(memory_);
            access += 1 + input.Byte() % 24;
            const uint32_t value = input.Byte();
            plan.changes[i] = {scribbles ? 0 : access,
                               place < kHeaderWords
                                   ? words + place
                                   : WordOf(place % 2 != 0 ? memory_->m_InputBlocks : memory_->m_OutputBlocks,
                                            place / 2 % 4, kWords[place / 8 % std::size(kWords)]),
                               value < std::size(kValues) ? kValues[value] : first_ + value % 8};
        }
        plan.accesses = 0;
        return scribbles && plan.count != 0;
    }

    uint32_t* WordOf(SharedBlock* blocks, uint32_t index, uint32_t word) const
    {
        return reinterpret_cast<uint32_t*>(&blocks[(first_ + index) % kBlocks]) + word;
    }

    void Step(Input& input)
    {
        switch (input.Below(8)) {
        case 0:
        case 1:
        case 2:
            FillAndAnnounce(input);
            break;
        case 3: {
            FilterPacket* packet = MakePacket(adapters[input.Below(kAdapters)], input.Take(input.Byte()));
            packet->m_nPacketSize = input.Flag() ? input.OneOf(kValues) : packet->m_nPacketSize;
            Filter_IndicatePacketToApplication(packet, input.Byte(), 2);
            Filter_ReleasePacket(packet);
            break;
        }
        case 4: {
            const std::unique_ptr<uint8_t[]> signal(new uint8_t[NDIS_FILTER_SIGNAL_SIZE]());
            Filter_IndicateSignalToApplication(signal.get());
            break;
        }
        case 5:
            if (read_) {
                read_->Cancel();
            }
            read_.reset();
            read_ = program_.device->Send(IOCTL_NDIS_FILTER_READ_SHARE, {}, 0);
            break;
        case 6:
            whole_ = 0;
            Require(hook::DeliverReceived(adapters[0], frame_) == hook::Accepted::Yes,
                    "other traffic is taken");
            RequireEqual(whole_.load(), 1u, "other traffic that passes whole");
            break;
        default:
            Manage(input);
            break;
        }
    }

    // The rarer requests.
    void Manage(Input& input)
    {
        switch (input.Below(4)) {
        case 0:
            program_.device->Control(IOCTL_NDIS_FILTER_DUMP_DEVICE_EXTENSION, {}, {});
            break;
        case 1: {
            static constexpr std::string_view kLine = "filter show shmem";
            support::Bytes output(2000);
            program_.device->Control(IOCTL_NDIS_FILTER_DIAG,
                                     {reinterpret_cast<const uint8_t*>(kLine.data()), kLine.size()}, output);
            break;
        }
        case 2:
            if (read_) {
                read_->Cancel();
            }
            break;
        default:
            Announce();
            break;
        }
    }

    // Some blocks in a row, mostly good ones.
    void FillAndAnnounce(Input& input)
    {
        const uint32_t count = 1 + input.Below(3);
        const auto write = static_cast<uint32_t>(memory_->KernelModeInput.m_iWrite);
        uint32_t good = 0;
        bool allGood = true;
        bool spills =
            false; // on its way back a long frame reaches into the next block: behind the last one, a block of ours
        for (uint32_t i = 0; i < count; ++i) {
            SharedBlock& block = memory_->m_InputBlocks[(write + i) % kBlocks];
            block.m_nAdapterId = input.Below(8) == 0 ? input.Byte() : adapterIds[input.Below(kAdapters)];
            block.m_nDirection = input.Below(5);
            block.m_nPacketSize = input.Flag() ? input.OneOf(kValues) : input.Byte();
            const auto frame = input.Take(input.Byte() % 64);
            std::copy(frame.begin(), frame.end(),
                      reinterpret_cast<uint8_t*>(&block) + offsetof(SharedBlock, m_Data));
            spills = spills || (block.m_nDirection == NDIS_FILTER_DIRECTION_TO_APPLICATION &&
                                block.m_nPacketSize > sizeof(SharedBlock) - offsetof(SharedBlock, m_Data));
            allGood = allGood && IsGood(block);
            good += allGood ? 1 : 0;
        }
        __atomic_store_n(&memory_->KernelModeInput.m_iWrite, static_cast<int32_t>((write + count) % kBlocks),
                         __ATOMIC_RELEASE);
        const bool inOrder =
            plan.count == 0 && memory_->KernelModeInput.m_iRead == static_cast<int32_t>(write % kBlocks);
        Announce();
        if (scribbles_) {
            return; // the thread may find new blocks for ever
        }
        AwaitRest();
        if (inOrder && !spills) { // up to the first that is refused
            RequireEqual(static_cast<uint32_t>(memory_->KernelModeInput.m_iRead), (write + good) % kBlocks,
                         "blocks that are taken");
        }
    }

    bool IsGood(const SharedBlock& block) const
    {
        return (block.m_nAdapterId == adapterIds[0] || block.m_nAdapterId == adapterIds[1]) &&
               block.m_nPacketSize <= FILTER_PACKET_DATA_SIZE;
    }

    void Announce()
    {
        RequireEqual(program_.device->Control(IOCTL_NDIS_FILTER_WRITE_SHARE, {}, {}).status, STATUS_SUCCESS,
                     "announcing");
    }

    // Blocks are made nobody's again: an index that goes astray in the next input ends at the first of them.
    void PutBack()
    {
        plan.count = 0;
        if (read_) {
            read_->Cancel();
            Require(read_->Wait().has_value(), "a read that is cancelled ends");
            read_.reset();
        }
        AwaitRest();
        for (uint32_t i = 0; i < kSteps * 3 + 4; ++i) {
            memory_->m_InputBlocks[(first_ + i) % kBlocks].m_nAdapterId = 0;
        }
        memory_->m_InputBlocks[0].m_nAdapterId = 0; // signals reach into it
    }

    support::UserProgram program_;
    SharedMemory* const memory_ = support::StartShare(*program_.device);
    std::optional<machine::Request> read_;
    Scribbler scribbler_;
    bool scribbles_ = false;
    uint32_t first_ = 0;
    const support::Bytes frame_ = support::UdpFrame();
    std::atomic<uint32_t> whole_ = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return RunOn<Fixture>(data, size);
}
