// Hook driver, framework and client drivers together: frames on their way through the chains.
#include "suite.h"

#include "loophook.h"

#include <ndisfilter-user.h>

#include <array>
#include <cstddef>

using namespace suite;

namespace
{

constexpr LoopBinding kBinding = {168, 168, 1, 0};
constexpr wchar_t kHook[] = L"\\\\.\\LoopHook";

// A UDP frame over IPv4 with the given destination port (RFC 768, RFC 791; checksums are nobody's business
// here).
LoopFrame UdpFrame(uint32_t adapter, uint16_t port)
{
    LoopFrame frame = {adapter, 60, {}};
    const std::array<uint8_t, 42> headers = {
        0x02,
        0,
        0,
        0,
        0,
        0x01,
        0x02,
        0,
        0,
        0,
        0,
        0x02,
        0x08,
        0x00, // Ethernet
        0x45,
        0,
        0,
        46,
        0,
        0,
        0,
        0,
        64,
        17,
        0,
        0,
        10,
        0,
        0,
        1,
        10,
        0,
        0,
        2, // IPv4
        0x30,
        0x39,
        static_cast<uint8_t>(port >> 8),
        static_cast<uint8_t>(port),
        0,
        26,
        0,
        0, // UDP
    };
    memcpy(frame.bytes, headers.data(), headers.size());
    for (size_t i = headers.size(); i < frame.length; ++i) {
        frame.bytes[i] = static_cast<uint8_t>(i);
    }
    return frame;
}

// The framework and the hook driver, not bound yet.
class Room
{
  public:
    Room()
    {
        filter.Start();
        loophook.Start();
        hook.emplace(kHook);
    }
    ~Room() { hook.reset(); }

    DWORD Ask(uint32_t code, std::span<const uint8_t> input)
    {
        return hook->Control(code, input, input.size()).error;
    }
    DWORD Bind(const LoopBinding& binding = kBinding) { return Ask(LOOPHOOK_BIND, Bytes(binding)); }
    DWORD Unbind(const LoopBinding& binding = kBinding) { return Ask(LOOPHOOK_UNBIND, Bytes(binding)); }
    DWORD Receive(const LoopFrame& frame) { return Ask(LOOPHOOK_RECEIVE, Bytes(frame)); }
    DWORD Send(const LoopFrame& frame) { return Ask(LOOPHOOK_SEND, Bytes(frame)); }
    void OpenAdapters()
    {
        for (uint32_t adapter = 0; adapter < LOOPHOOK_ADAPTERS; ++adapter) {
            CHECK_EQUAL(Ask(LOOPHOOK_OPEN, Bytes(adapter)), DWORD{ERROR_SUCCESS});
        }
    }
    LoopReport Report()
    {
        return As<LoopReport>(hook->Control(LOOPHOOK_REPORT, {}, sizeof(LoopReport)).bytes);
    }

    Service filter{L"ndisfilter"};
    Service loophook{L"loophook"};
    std::optional<Device> hook;
};

bool SameFrame(const LoopFrame& a, const LoopFrame& b)
{
    return a.adapter == b.adapter && a.length == b.length && memcmp(a.bytes, b.bytes, a.length) == 0;
}

TEST(packets, BindingIsCheckedExchangedAndUndone)
{
    Room room;
    CHECK_EQUAL(room.Bind({167, 168, 1, 0}), DWORD{ERROR_INSUFFICIENT_BUFFER});
    CHECK_EQUAL(room.Bind({168, 160, 1, 0}), DWORD{ERROR_INVALID_PARAMETER});
    CHECK_EQUAL(room.Bind({168, 168, 2, 0}), DWORD{ERROR_INVALID_PARAMETER});
    CHECK_EQUAL(room.Bind({168, 168, 1, 1}), DWORD{ERROR_INVALID_PARAMETER});
    CHECK_EQUAL(room.Report().bound, 0u);
    CHECK_EQUAL(room.Bind(), DWORD{ERROR_SUCCESS});
    CHECK_EQUAL(room.Report().bound, 1u);

    Device device;
    const Answer answer = device.Control(LOOPHOOK_FOREIGN_CODE, {}, 16);
    CHECK_EQUAL(std::string(answer.bytes.begin(), answer.bytes.end()), std::string("loop", 5));

    CHECK_EQUAL(room.Unbind({168, 160, 1, 0}), DWORD{ERROR_INVALID_PARAMETER});
    CHECK_EQUAL(room.Unbind(), DWORD{ERROR_SUCCESS});
    CHECK_EQUAL(room.Report().bound, 0u);
    CHECK_EQUAL(device.Control(LOOPHOOK_FOREIGN_CODE, {}, 16).error, DWORD{ERROR_NOT_SUPPORTED});
    CHECK_EQUAL(room.Bind(), DWORD{ERROR_SUCCESS});
}

TEST(packets, AdaptersAppearToClients)
{
    Room room;
    room.OpenAdapters();
    room.Bind(); // reports those that are open
    const DebugOutput output;
    Service probe(L"probe");
    probe.Start();
    CHECK(output.ShowsExactly("probe: adapter 1, 02-00-00-00-00-01, mtu 1500"));
    CHECK(output.ShowsExactly("probe: adapter 2, 02-00-00-00-00-02, mtu 1500"));
    CHECK_EQUAL(output.Count("probe: adapter"), size_t{2});
}

TEST(packets, FramesPassTheChainsAndTheBlockerCounts)
{
    Room room;
    room.OpenAdapters();
    room.Bind();
    Service blocker(L"blocker");
    blocker.SetText(L"BlockPorts", L"53,4000");
    const DebugOutput output;
    blocker.Start();

    constexpr uint32_t kRounds = 20;
    for (uint32_t i = 0; i < kRounds; ++i) {
        CHECK_EQUAL(room.Receive(UdpFrame(0, 80)), DWORD{ERROR_SUCCESS});
        CHECK_EQUAL(room.Receive(UdpFrame(0, 53)), DWORD{ERROR_SUCCESS}); // dropped
        CHECK_EQUAL(room.Send(UdpFrame(1, 81)), DWORD{ERROR_SUCCESS});    // comes back as received
        CHECK_EQUAL(room.Send(UdpFrame(1, 4000)), DWORD{ERROR_SUCCESS});  // dropped
    }
    const LoopReport report = room.Report();
    CHECK_EQUAL(report.adapters[0].toProtocols, kRounds);
    CHECK_EQUAL(report.adapters[0].toAdapter, 0u);
    CHECK_EQUAL(report.adapters[1].toAdapter, kRounds);
    CHECK_EQUAL(report.adapters[1].toProtocols, kRounds);
    CHECK(SameFrame(report.adapters[0].last, UdpFrame(0, 80)));
    CHECK(SameFrame(report.adapters[1].last, UdpFrame(1, 81)));
    CHECK_EQUAL(report.released, 2 * kRounds);
    CHECK_EQUAL(report.packetsOut, 0u);

    blocker.Stop();
    CHECK(output.ShowsExactly("blocker: port 53: 20 frames blocked"));
    CHECK(output.ShowsExactly("blocker: port 4000: 20 frames blocked"));
    room.Receive(UdpFrame(0, 53)); // nobody drops it any more
    CHECK_EQUAL(room.Report().adapters[0].toProtocols, kRounds + 1);
}

TEST(packets, AFilterThatFaultsIsContained)
{
    Room room;
    room.OpenAdapters();
    room.Bind();
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
    CHECK_EQUAL(room.Report().adapters[0].toProtocols, kRounds);
    CHECK_EQUAL(room.Report().packetsOut, 0u);
    probe.Stop();
    blocker.Stop();
    CHECK(output.ShowsExactly("probe: 20 faults"));
    CHECK(output.ShowsExactly("blocker: port 53: 10 frames blocked"));
    CHECK_EQUAL(output.Count(": exception, code = -1073741819"), size_t{kRounds}); // access violation
    CHECK_EQUAL(output.Count(": exception, code = -1073741795"), size_t{kRounds}); // invalid instruction
}

TEST(packets, TheExampleOfTheDistributionLoadsAndCounts)
{
    if (!Exists(options.drivers + L"\\sizes.sys")) {
        throw Skipped("sizes.sys is not built; scripts/check-client-example does");
    }
    Room room;
    room.OpenAdapters();
    room.Bind();
    Service sizes(L"sizes");
    sizes.Start();
    LoopFrame frame = UdpFrame(0, 80);
    for (const uint32_t length : {60u, 64u, 65u, 1514u}) {
        frame.length = length;
        room.Receive(frame);
    }
    const DebugOutput output;
    sizes.Stop();
    CHECK(output.ShowsExactly("sizes: 2 frames of up to 64 bytes"));
    CHECK(output.ShowsExactly("sizes: 1 frames of up to 128 bytes"));
    CHECK(output.ShowsExactly("sizes: 0 frames of up to 1024 bytes"));
    CHECK(output.ShowsExactly("sizes: 1 frames of up to 1648 bytes"));
}

// The program's part of the rings, played through the hook driver.
class Rings
{
  public:
    explicit Rings(Room& room) : room_(room) {}

    template <class Record>
    Record Read(size_t offset)
    {
        const LoopWindow window = {static_cast<uint32_t>(offset), sizeof(Record)};
        return As<Record>(room_.hook->Control(LOOPHOOK_READ_SHARED, Bytes(window), sizeof(Record)).bytes);
    }
    template <class Record>
    void Write(size_t offset, const Record& record)
    {
        const LoopWindow window = {static_cast<uint32_t>(offset), sizeof(Record)};
        std::vector<uint8_t> input(sizeof(window) + sizeof(record));
        memcpy(input.data(), &window, sizeof(window));
        memcpy(input.data() + sizeof(window), &record, sizeof(record));
        CHECK_EQUAL(room_.Ask(LOOPHOOK_WRITE_SHARED, input), DWORD{ERROR_SUCCESS});
    }

  private:
    Room& room_;
};

constexpr size_t kShared = offsetof(MappedMemory, m_SharedMemory);
constexpr size_t kOutput = kShared + offsetof(SharedMemory, KernelModeOutput);
constexpr size_t kInput = kShared + offsetof(SharedMemory, KernelModeInput);
constexpr size_t kOutputBlocks = kShared + offsetof(SharedMemory, m_OutputBlocks);
constexpr size_t kInputBlocks = kShared + offsetof(SharedMemory, m_InputBlocks);

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
    room.OpenAdapters();
    room.Bind();
    Service probe(L"probe"); // asks for the identifiers of both adapters: 1 and 2
    probe.Start();
    probe.Stop();
    Device device;
    device.Control(IOCTL_NDIS_FILTER_START_SHARE, Bytes(uint32_t{1}), 8);
    Request read(device, IOCTL_NDIS_FILTER_READ_SHARE, {}, 0);
    CHECK(read.IsPending());

    Rings rings(room);
    CHECK_EQUAL(rings.Read<int32_t>(kInput + offsetof(SharedRing, m_iBlockCount)), NDIS_FILTER_BLOCK_COUNT);
    const LoopFrame frames[] = {UdpFrame(0, 1), UdpFrame(1, 2), UdpFrame(1, 3)};
    const uint32_t directions[] = {NDIS_FILTER_DIRECTION_TO_PROTOCOL, NDIS_FILTER_DIRECTION_TO_ADAPTER,
                                   NDIS_FILTER_DIRECTION_TO_APPLICATION};
    for (size_t i = 0; i < std::size(frames); ++i) {
        rings.Write(kInputBlocks + i * sizeof(SharedBlock), BlockOf(frames[i], directions[i]));
    }
    rings.Write(kInput + offsetof(SharedRing, m_iWrite), int32_t{3});
    CHECK_EQUAL(device.Control(IOCTL_NDIS_FILTER_WRITE_SHARE).error, DWORD{ERROR_SUCCESS});

    CHECK_EQUAL(read.Wait().error, DWORD{ERROR_SUCCESS}); // the last block came back as an output block
    CHECK_EQUAL(rings.Read<int32_t>(kInput + offsetof(SharedRing, m_iRead)), 3);
    CHECK_EQUAL(rings.Read<int32_t>(kOutput + offsetof(SharedRing, m_iWrite)), 1);
    const SharedBlock back = rings.Read<SharedBlock>(kOutputBlocks);
    CHECK_EQUAL(back.m_nAdapterId, 2u);
    CHECK_EQUAL(back.m_nPacketSize, frames[2].length);
    CHECK(memcmp(back.m_Data, frames[2].bytes, frames[2].length) == 0);

    const LoopReport report = room.Report();
    CHECK(SameFrame(report.adapters[0].last, frames[0]));
    CHECK_EQUAL(report.adapters[1].toAdapter, 1u);
    CHECK(SameFrame(report.adapters[1].last, frames[1]));
    CHECK_EQUAL(device.Control(IOCTL_NDIS_FILTER_READ_SHARE).error,
                DWORD{ERROR_SUCCESS}); // not empty: not parked
}

TEST(packets, UnboundNothingPasses)
{
    Room room;
    room.OpenAdapters();
    CHECK_EQUAL(room.Receive(UdpFrame(0, 80)), DWORD{ERROR_NOT_READY});
    room.Bind();
    CHECK_EQUAL(room.Receive(UdpFrame(0, 80)), DWORD{ERROR_SUCCESS});
    const uint32_t closed = 0;
    room.Ask(LOOPHOOK_CLOSE, Bytes(closed));
    CHECK_EQUAL(room.Receive(UdpFrame(0, 80)), DWORD{ERROR_NOT_READY});
    CHECK_EQUAL(room.Receive(UdpFrame(1, 80)), DWORD{ERROR_SUCCESS});
    room.Unbind();
    CHECK_EQUAL(room.Receive(UdpFrame(1, 80)), DWORD{ERROR_NOT_READY});
    CHECK_EQUAL(room.Report().adapters[0].toProtocols, 1u);
    CHECK_EQUAL(room.Report().adapters[1].toProtocols, 1u);
}

} // namespace
