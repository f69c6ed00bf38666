// Hook driver, framework and client drivers together: frames on their way through the chains.
#include "suite.h"

#include <cstddef>
#include <filesystem>

using namespace suite;

namespace
{

bool SameFrame(const LoopFrame& a, const LoopFrame& b)
{
    return a.adapter == b.adapter && a.length == b.length && memcmp(a.bytes, b.bytes, a.length) == 0;
}

TEST(packets, BindingIsCheckedExchangedAndUndone)
{
    Room room;
    EXPECT_EQ(room.Bind({168, 160, 1, 0}), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(room.Report().bound, 0u);
    EXPECT_EQ(room.Bind(), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(room.Report().bound, 1u);

    Device device;
    const Answer answer = device.Control(LOOPHOOK_FOREIGN_CODE, {}, 16);
    EXPECT_EQ(std::string(answer.bytes.begin(), answer.bytes.end()), std::string("loop", 5));

    EXPECT_EQ(room.Unbind(), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(room.Report().bound, 0u);
    EXPECT_EQ(device.Control(LOOPHOOK_FOREIGN_CODE, {}, 16).error, DWORD{ERROR_NOT_SUPPORTED});
    EXPECT_EQ(room.Bind(), DWORD{ERROR_SUCCESS});
}

TEST(packets, FramesPassTheChainsAndTheBlockerCounts)
{
    Room room;
    room.Open();
    Service blocker(L"blocker");
    blocker.SetText(L"BlockPorts", L"53,4000");
    const DebugOutput output;
    blocker.Start();

    constexpr uint32_t kRounds = 20;
    for (uint32_t i = 0; i < kRounds; ++i) {
        EXPECT_EQ(room.Receive(UdpFrame(0, 80)), DWORD{ERROR_SUCCESS});
        EXPECT_EQ(room.Receive(UdpFrame(0, 53)), DWORD{ERROR_SUCCESS}); // dropped
        EXPECT_EQ(room.Send(UdpFrame(1, 81)), DWORD{ERROR_SUCCESS});    // comes back as received
        EXPECT_EQ(room.Send(UdpFrame(1, 4000)), DWORD{ERROR_SUCCESS});  // dropped
    }
    const LoopReport report = room.Report();
    EXPECT_EQ(report.adapters[0].toProtocols, kRounds);
    EXPECT_EQ(report.adapters[0].toAdapter, 0u);
    EXPECT_EQ(report.adapters[1].toAdapter, kRounds);
    EXPECT_EQ(report.adapters[1].toProtocols, kRounds);
    EXPECT_TRUE(SameFrame(report.adapters[0].last, UdpFrame(0, 80)));
    EXPECT_TRUE(SameFrame(report.adapters[1].last, UdpFrame(1, 81)));
    EXPECT_EQ(report.released, 2 * kRounds);
    EXPECT_EQ(report.packetsOut, 0u);

    blocker.Stop();
    EXPECT_TRUE(output.Shows("blocker: port 53: 20 frames blocked\n"));
    EXPECT_TRUE(output.Shows("blocker: port 4000: 20 frames blocked\n"));
    room.Receive(UdpFrame(0, 53)); // nobody drops it any more
    EXPECT_EQ(room.Report().adapters[0].toProtocols, kRounds + 1);
    room.Ask(LOOPHOOK_CLOSE, Bytes(uint32_t{0}));
    EXPECT_EQ(room.Receive(UdpFrame(0, 80)), DWORD{ERROR_NOT_READY});
}

TEST(packets, AFilterThatFaultsIsContained)
{
    Room room;
    room.Open();
    Service probe(L"probe"), blocker(L"blocker");
    blocker.SetText(L"BlockPorts", L"53");
    const DebugOutput output;
    blocker.Start();
    probe.Start(); // the newest first filter, so in front of the blocker

    constexpr uint32_t kRounds = 10;
    for (uint32_t i = 0; i < kRounds; ++i) {
        room.Receive(UdpFrame(0, 80));
        room.Receive(UdpFrame(0, 53));
    }
    EXPECT_EQ(room.Report().adapters[0].toProtocols, kRounds);
    EXPECT_EQ(room.Report().packetsOut, 0u);
    probe.Stop();
    blocker.Stop();
    EXPECT_TRUE(output.Shows("probe: 20 faults\n"));
    EXPECT_TRUE(output.Shows("blocker: port 53: 10 frames blocked\n"));
    EXPECT_EQ(output.Count(": exception, code = -1073741819"), size_t{kRounds}); // access violation
    EXPECT_EQ(output.Count(": exception, code = -1073741795"), size_t{kRounds}); // invalid instruction
}

TEST(packets, TheExampleOfTheDistributionLoadsAndCounts)
{
    if (!std::filesystem::exists(options.drivers + L"\\sizes.sys")) {
        GTEST_SKIP() << "sizes.sys is not built; scripts/check-client-example does";
    }
    Room room;
    room.Open();
    Service sizes(L"sizes");
    sizes.Start();
    LoopFrame frame = UdpFrame(0, 80);
    for (const uint32_t length : {60u, 64u, 65u, 1514u}) {
        frame.length = length;
        room.Receive(frame);
    }
    const DebugOutput output;
    sizes.Stop();
    EXPECT_TRUE(output.Shows("sizes: 2 frames of up to 64 bytes\n"));
    EXPECT_TRUE(output.Shows("sizes: 1 frames of up to 128 bytes\n"));
    EXPECT_TRUE(output.Shows("sizes: 0 frames of up to 1024 bytes\n"));
    EXPECT_TRUE(output.Shows("sizes: 1 frames of up to 1648 bytes\n"));
}

constexpr size_t kShared = offsetof(MappedMemory, m_SharedMemory);
constexpr size_t kOutput = kShared + offsetof(SharedMemory, KernelModeOutput);
constexpr size_t kInput = kShared + offsetof(SharedMemory, KernelModeInput);
constexpr size_t kOutputBlocks = kShared + offsetof(SharedMemory, m_OutputBlocks);
constexpr size_t kInputBlocks = kShared + offsetof(SharedMemory, m_InputBlocks);

// The program's part of the rings, played through the hook driver.
template <class Record>
Record ReadShared(Room& room, size_t offset)
{
    const LoopWindow window = {static_cast<uint32_t>(offset), sizeof(Record)};
    return As<Record>(room.hook->Control(LOOPHOOK_READ_SHARED, Bytes(window), sizeof(Record)).bytes);
}

template <class Record>
void WriteShared(Room& room, size_t offset, const Record& record)
{
    const LoopWindow window = {static_cast<uint32_t>(offset), sizeof(Record)};
    std::vector<uint8_t> input(sizeof(window) + sizeof(record));
    memcpy(input.data(), &window, sizeof(window));
    memcpy(input.data() + sizeof(window), &record, sizeof(record));
    EXPECT_EQ(room.Ask(LOOPHOOK_WRITE_SHARED, input), DWORD{ERROR_SUCCESS});
}

SharedBlock BlockOf(const LoopFrame& frame, uint32_t direction)
{
    SharedBlock block = {};
    block.m_nAdapterId = frame.adapter + 1; // in the order in which they were asked for
    block.m_nDirection = direction;
    block.m_nPacketSize = frame.length;
    memcpy(block.m_Data, frame.bytes, frame.length);
    return block;
}

TEST(packets, RingsCarryFramesBothWays)
{
    Room room;
    room.Open();
    Device device;
    device.Control(IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES, {},
                   sizeof(UserAdapterList)); // gives them identifiers
    device.StartShare();
    Request read(device, IOCTL_NDIS_FILTER_READ_SHARE, {}, 0);
    EXPECT_TRUE(read.IsPending());

    EXPECT_EQ(ReadShared<int32_t>(room, kInput + offsetof(SharedRing, m_iBlockCount)),
              NDIS_FILTER_BLOCK_COUNT);
    const LoopFrame frames[] = {UdpFrame(0, 1), UdpFrame(1, 2), UdpFrame(1, 3)};
    const uint32_t directions[] = {NDIS_FILTER_DIRECTION_TO_PROTOCOL, NDIS_FILTER_DIRECTION_TO_ADAPTER,
                                   NDIS_FILTER_DIRECTION_TO_APPLICATION};
    for (size_t i = 0; i < std::size(frames); ++i) {
        WriteShared(room, kInputBlocks + i * sizeof(SharedBlock), BlockOf(frames[i], directions[i]));
    }
    WriteShared(room, kInput + offsetof(SharedRing, m_iWrite), int32_t{3});
    EXPECT_EQ(device.Control(IOCTL_NDIS_FILTER_WRITE_SHARE).error, DWORD{ERROR_SUCCESS});

    EXPECT_EQ(read.Wait().error, DWORD{ERROR_SUCCESS}); // the last block came back as an output block
    EXPECT_EQ(ReadShared<int32_t>(room, kInput + offsetof(SharedRing, m_iRead)), 3);
    EXPECT_EQ(ReadShared<int32_t>(room, kOutput + offsetof(SharedRing, m_iWrite)), 1);
    const SharedBlock back = ReadShared<SharedBlock>(room, kOutputBlocks);
    EXPECT_EQ(back.m_nAdapterId, 2u);
    EXPECT_EQ(back.m_nPacketSize, frames[2].length);
    EXPECT_TRUE(memcmp(back.m_Data, frames[2].bytes, frames[2].length) == 0);

    const LoopReport report = room.Report();
    EXPECT_TRUE(SameFrame(report.adapters[0].last, frames[0]));
    EXPECT_EQ(report.adapters[1].toAdapter, 1u);
    EXPECT_TRUE(SameFrame(report.adapters[1].last, frames[1]));
    EXPECT_EQ(device.Control(IOCTL_NDIS_FILTER_READ_SHARE).error,
              DWORD{ERROR_SUCCESS}); // not empty: not parked
}

} // namespace
