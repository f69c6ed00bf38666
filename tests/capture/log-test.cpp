// Capture logs, started and stopped by the user program, and read back as any viewer would.
#include <sharing/program.h>
#include <support/captures.h>
#include <support/packet.h>

#include <atomic>
#include <filesystem>
#include <thread>

using namespace support;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

constexpr char kAppToDriver[] = "Application-to-Driver-Io.eth";
constexpr char kDriverToApp[] = "Driver-to-Application-Io.eth";
constexpr char kOwnMacText[] = "02-00-00-00-00-01";
constexpr char kPeerMacText[] = "02-00-00-00-00-02";

std::string LogName(const char* mac, const char* log)
{
    return "Adapter(" + std::string(mac) + ")Ndis" + log + ".eth";
}
const std::string kUpper = LogName(kOwnMacText, "Upper");
const std::string kLower = LogName(kOwnMacText, "Lower");
const std::string kInject = LogName(kOwnMacText, "Inject");

class CaptureTest : public FrameworkTest
{
  protected:
    CaptureTest() : FrameworkTest(WithTrace(0x2)) {}

    void SetUp() override
    {
        std::string name = (std::filesystem::temp_directory_path() / "captureXXXXXX").string();
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        directory = name;
        machine::SetDriveC(directory.string());
        FrameworkTest::SetUp();
        adapter = AddAdapter();
    }
    void TearDown() override
    {
        device.reset();
        FrameworkTest::TearDown();
        machine::SetDriveC("");
        std::filesystem::remove_all(directory);
    }

    void Request(uint32_t code)
    {
        if (device == nullptr) {
            device = OpenDevice();
        }
        EXPECT_EQ(device->Control(code, {}, {}).status, STATUS_SUCCESS);
    }
    void Start()
    {
        Request(IOCTL_NDIS_FILTER_START_ETHRLOG);
        EXPECT_TRUE(machine::WaitIdle());
    }
    void Stop()
    {
        EXPECT_TRUE(machine::WaitIdle()); // what was recorded is written
        Request(IOCTL_NDIS_FILTER_STOP_ETHRLOG);
        EXPECT_TRUE(machine::WaitIdle());
    }

    std::string Path(const std::string& log) const { return (directory / log).string(); }
    std::vector<Bytes> FramesIn(const std::string& log) const
    {
        std::vector<Bytes> frames;
        for (const CapturedFrame& frame : ReadCapture(Path(log))) {
            frames.push_back(frame.bytes);
        }
        return frames;
    }
    std::vector<std::string> Files() const
    {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(directory)) {
            names.push_back(entry.path().filename().string());
        }
        return names;
    }

    void Receive(const Bytes& frame, const hook::FrameOptions& options = {})
    {
        EXPECT_EQ(hook::DeliverReceived(adapter, frame, options), hook::Accepted::Yes);
    }

    std::filesystem::path directory;
    std::unique_ptr<machine::File> device;
    FilterAdapter* adapter = nullptr;
};

TEST_F(CaptureTest, EachLogHoldsWhatPassedItsPoint)
{
    const Bytes received = UdpFrame(1, 1), sent = UdpFrame(2, 2), injected = UdpFrame(3, 3),
                indicated = UdpFrame(4, 4);
    const Bytes fromProgram = UdpFrame(5, 5), fromRing = UdpFrame(6, 6), toProgram = UdpFrame(7, 7);
    sharing::SharingProgram program;
    ASSERT_NE(program.Start(), NDIS_FILTER_SHARE_FAILED);
    Start();
    EXPECT_THAT(Files(), testing::UnorderedElementsAre(kUpper, kLower, kInject, kAppToDriver, kDriverToApp));

    Receive(received);
    EXPECT_EQ(hook::DeliverSent(adapter, sent), hook::Accepted::Yes);
    EXPECT_EQ(Filter_InjectPacketToAdapterEx(adapter, MakePacket(adapter, injected)), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_IndicatePacketToProtocolEx(adapter, MakePacket(adapter, indicated)),
              FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_InjectPacketFromApplication(adapter, MakePacket(adapter, fromProgram),
                                                 NDIS_FILTER_DIRECTION_TO_ADAPTER),
              FILTER_STATUS_SUCCESS);
    ASSERT_TRUE(machine::WaitIdle());

    SharedBlock& block = program.NextInput();
    std::memset(&block, 0, sizeof(block));
    ULONG id = 0;
    EXPECT_EQ(Filter_AdapterToId(adapter, &id), FILTER_STATUS_SUCCESS);
    block.m_nAdapterId = id;
    block.m_nDirection = NDIS_FILTER_DIRECTION_TO_PROTOCOL;
    block.m_nPacketSize = static_cast<uint32_t>(fromRing.size());
    std::copy(fromRing.begin(), fromRing.end(), block.m_Data);
    program.Announce();
    ASSERT_TRUE(machine::WaitIdle());
    FilterPacket* packet = MakePacket(adapter, toProgram);
    EXPECT_EQ(Filter_IndicatePacketToApplication(packet, 0, 0), FILTER_STATUS_SUCCESS);
    Filter_ReleasePacket(packet);

    Stop();
    EXPECT_THAT(FramesIn(kLower), ElementsAre(received, sent, injected, fromProgram));
    EXPECT_THAT(FramesIn(kUpper), ElementsAre(received, sent, indicated, fromRing));
    EXPECT_THAT(FramesIn(kInject), ElementsAre(fromProgram));
    EXPECT_THAT(FramesIn(kAppToDriver), ElementsAre(fromRing));
    EXPECT_THAT(FramesIn(kDriverToApp), ElementsAre(toProgram));
    Receive(received); // nobody records any more
    EXPECT_EQ(FramesIn(kLower).size(), 4u);
    EXPECT_EQ(hook::TakeBalance().outstanding, 0u); // every clone has come back
}

TEST_F(CaptureTest, FramesAreWholeAndAsTheyWereAtThatPoint)
{
    const Bytes longest = Counting(1648);
    const Bytes brief = {1, 2, 3, 4, 5};
    Bytes padded = brief;
    padded.resize(14);
    const Bytes changed = UdpFrame(9, 9);
    TestDriver driver;
    const TestFilter filter(driver, {}, [&](FilterPacket* packet) {
        if (packet->m_nPacketSize == changed.size()) {
            Filter_ModifyPacket(packet);
            std::copy(changed.begin(), changed.end(), packet->m_Data);
        }
        return FILTER_RESULT_BYPASS;
    });
    constexpr int64_t kTime = 1'700'000'000'123'456;
    constexpr int64_t kUnixEpoch = 116'444'736'000'000'000;
    machine::StopClock(kTime * 10 + 9 + kUnixEpoch);
    Start();
    Receive(longest, {.presentBytes = 14, .pieces = {1, 700}});
    Receive(Bytes(60, 0xEE));
    Receive(brief);
    machine::AdvanceClock(250);
    Receive(UdpFrame(1, 1), {.presentBytes = 60});
    Stop();
    machine::StartClock();
    const std::vector<CapturedFrame> lower = ReadCapture(Path(kLower));
    EXPECT_EQ(
        lower,
        (std::vector<CapturedFrame>{
            {longest, kTime}, {Bytes(60, 0xEE), kTime}, {padded, kTime}, {UdpFrame(1, 1), kTime + 250'000}}));
    EXPECT_THAT(FramesIn(kUpper), ElementsAre(longest, Bytes(60, 0xEE), padded, changed));
}

TEST_F(CaptureTest, AFileCutAnywhereIsReadableUpToThere)
{
    Start();
    const std::vector<Bytes> frames = {UdpFrame(1, 1), Counting(14), Counting(15), UdpFrame(2, 2)};
    std::vector<size_t> ends = {24};
    for (const Bytes& frame : frames) {
        Receive(frame);
        ends.push_back(ends.back() + 16 + frame.size());
    }
    Stop();
    const Bytes file = ReadFile(Path(kLower));
    ASSERT_EQ(file.size(), ends.back());
    for (size_t size = 24; size <= file.size(); ++size) {
        std::string error;
        const std::vector<CapturedFrame> read =
            ParseCapture(Bytes(file.begin(), file.begin() + size), &error);
        const size_t whole = std::upper_bound(ends.begin(), ends.end(), size) - ends.begin() - 1;
        ASSERT_EQ(read.size(), whole) << size;
        EXPECT_EQ(error.empty(), size == ends[whole]) << size << ": " << error;
        for (size_t i = 0; i < whole; ++i) {
            EXPECT_EQ(read[i].bytes, frames[i]);
        }
    }
}

TEST_F(CaptureTest, ASecondStartIsRefusedAndAnotherOneReplacesTheFiles)
{
    Start();
    Receive(UdpFrame(1, 1));
    Debug().Take();
    Start();
    EXPECT_TRUE(
        Debug().Contains("Enter NdisFilter_StartEthrLog\nEnter NdisFilter_StartAdapterEthrLog\n"
                         "AdapterName={ADAPTER-1} Test\nEthrlog is opened already!"
                         "Leave NdisFilter_StartAdapterEthrLog, FALSE\nLeave NdisFilter_StartEthrLog\n"));
    Receive(UdpFrame(2, 2));
    EXPECT_TRUE(machine::WaitIdle());
    EXPECT_THAT(FramesIn(kLower), ElementsAre(UdpFrame(1, 1), UdpFrame(2, 2)));
    {
        const machine::WorkItemHold hold; // closing and opening wait side by side
        Request(IOCTL_NDIS_FILTER_STOP_ETHRLOG);
        Request(IOCTL_NDIS_FILTER_START_ETHRLOG);
        Receive(UdpFrame(3, 3)); // not open yet
    }
    EXPECT_TRUE(machine::WaitIdle());
    Receive(UdpFrame(4, 4));
    Debug().Take();
    Stop();
    EXPECT_TRUE(Debug().Contains("Enter NdisFilter_StopEthrLog\nEnter NdisFilter_StopAdapterEthrLog\n"
                                 "AdapterName={ADAPTER-1} Test\nLeave NdisFilter_StopAdapterEthrLog, TRUE\n"
                                 "Leave NdisFilter_StopEthrLog\n"));
    EXPECT_THAT(FramesIn(kLower), ElementsAre(UdpFrame(4, 4)));
    EXPECT_THAT(FramesIn(kUpper), ElementsAre(UdpFrame(4, 4)));
}

TEST_F(CaptureTest, AClosedAdaptersLogsAreClosed)
{
    FilterAdapter* other = AddAdapter("{ADAPTER-2} Test", kPeerMac);
    Start();
    Receive(UdpFrame(1, 1));
    EXPECT_TRUE(machine::WaitIdle());
    const size_t open = machine::TakeCensus().files;
    hook::CloseAdapter(adapter);
    EXPECT_TRUE(machine::WaitIdle());
    EXPECT_EQ(machine::TakeCensus().files, open - 3);
    EXPECT_EQ(adapter->m_pLowerEthrLog, nullptr);
    EXPECT_THAT(FramesIn(kLower), ElementsAre(UdpFrame(1, 1)));
    EXPECT_EQ(hook::DeliverReceived(other, UdpFrame(2, 2)), hook::Accepted::Yes);
    EXPECT_TRUE(machine::WaitIdle());

    // Without adapters nothing is stopped, and what is still open is closed by the unload: the fixture looks.
    hook::CloseAdapter(other);
    Request(IOCTL_NDIS_FILTER_STOP_ETHRLOG);
    EXPECT_TRUE(machine::WaitIdle());
    EXPECT_THAT(FramesIn(LogName(kPeerMacText, "Lower")), ElementsAre(UdpFrame(2, 2)));
    EXPECT_EQ(machine::TakeCensus().files, open - 6);
}

TEST_F(CaptureTest, AnUnloadClosesOpenLogs)
{
    Start();
    Receive(UdpFrame(1, 1));
    EXPECT_TRUE(machine::WaitIdle());
    device.reset();
    StopHook();
    StopFramework();
    EXPECT_THAT(FramesIn(kLower), ElementsAre(UdpFrame(1, 1)));

    // Adapters may live on, so a slot may keep what it held: the next life of the driver does not take it for a log.
    ASSERT_EQ(LoadFramework(), STATUS_SUCCESS);
    ASSERT_EQ(hook::Load(), STATUS_SUCCESS);
    ASSERT_EQ(hook::Bind(), STATUS_SUCCESS);
    adapter = AddAdapter();
    Bytes freed(64);
    adapter->m_pLowerEthrLog = freed.data();
    Receive(UdpFrame(2, 2));
    Start();
    Receive(UdpFrame(3, 3));
    Stop();
    EXPECT_THAT(FramesIn(kLower), ElementsAre(UdpFrame(3, 3)));
}

TEST_F(CaptureTest, FailuresLeaveALogSilentAndTrafficAlone)
{
    machine::SetDriveC((directory / "missing").string());
    Start();
    Receive(UdpFrame(1, 1));
    Stop();
    EXPECT_THAT(Files(), IsEmpty());
    machine::SetDriveC(directory.string());

    uint64_t delivered = 1;
    for (const machine::Fault kind : {machine::Fault::File, machine::Fault::Thread, machine::Fault::Pool}) {
        for (uint64_t n = 1;; ++n) {
            machine::FailCall(kind, n);
            Start();
            for (int i = 0; i < 2; ++i) {
                Receive(UdpFrame(1, 1));
                EXPECT_TRUE(
                    machine::WaitIdle()); // one writer after the other: the n-th call is always the same
                ++delivered;
            }
            const bool hit = machine::FaultHit(kind);
            machine::ClearFaults();
            Stop();
            for (const std::string& log : Files()) {
                std::string error;
                const auto frames = ParseCapture(ReadFile(Path(log)), &error);
                EXPECT_LE(frames.size(), 2u);
                for (const CapturedFrame& frame : frames) {
                    EXPECT_EQ(frame.bytes, UdpFrame(1, 1));
                }
                std::filesystem::remove(Path(log));
            }
            if (!hit) {
                break;
            }
            ASSERT_LT(n, 200u);
        }
    }
    EXPECT_EQ(hook::CountersOf(adapter).toProtocols.frames, delivered);
    EXPECT_EQ(hook::TakeBalance().outstanding, 0u);
}

TEST_F(CaptureTest, AHalfWrittenFrameIsTheLast)
{
    Start();
    Receive(UdpFrame(1, 1));
    EXPECT_TRUE(machine::WaitIdle());
    machine::FailCall(machine::Fault::File, 3); // the data behind both headers, of the lower log
    EXPECT_EQ(Filter_InjectPacketToAdapterEx(adapter, MakePacket(adapter, UdpFrame(2, 2))),
              FILTER_STATUS_SUCCESS);
    EXPECT_TRUE(machine::WaitIdle());
    EXPECT_TRUE(machine::FaultHit(machine::Fault::File));
    Receive(UdpFrame(3, 3));
    Stop();
    std::string error;
    const auto lower = ParseCapture(ReadFile(Path(kLower)), &error);
    ASSERT_EQ(lower.size(), 1u);
    EXPECT_EQ(lower[0].bytes, UdpFrame(1, 1));
    EXPECT_NE(error, "");
    EXPECT_THAT(FramesIn(kUpper), ElementsAre(UdpFrame(1, 1), UdpFrame(3, 3)));
}

TEST_F(CaptureTest, StartsAndStopsWhileFramesPassAndAdaptersClose)
{
    FilterAdapter* other = AddAdapter("{ADAPTER-2} Test", kPeerMac);
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&, i] {
            while (!stop) {
                hook::DeliverReceived(i == 0 ? adapter : other, UdpFrame(1, 1), {.waitMs = 1});
            }
        });
    }
    threads.emplace_back([&] {
        while (!stop) {
            hook::CloseAdapter(other);
            hook::OpenAdapter(other);
        }
    });
    threads.emplace_back([&] {
        machine::Process process;
        const auto file = process.Open(kDeviceName);
        while (!stop) {
            file->Control(IOCTL_NDIS_FILTER_START_ETHRLOG, {}, {});
        }
    });
    for (int i = 0; i < 100; ++i) {
        Request(i % 2 == 0 ? IOCTL_NDIS_FILTER_START_ETHRLOG : IOCTL_NDIS_FILTER_STOP_ETHRLOG);
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    Stop();
    EXPECT_TRUE(hook::TakeBalance().IsEven());
    for (const std::string& log : Files()) {
        for (const CapturedFrame& frame : ReadCapture(Path(log))) {
            ASSERT_EQ(frame.bytes, UdpFrame(1, 1)) << log;
        }
    }
}

} // namespace
