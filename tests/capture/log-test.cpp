// Capture logs, started and stopped by the user program, and read back as any viewer would.
#include <sharing/program.h>
#include <support/captures.h>
#include <support/program.h>

#include <filesystem>

using namespace support;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

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

struct CaptureTest : Loaded<WithTrace, 0x2, sharing::SharingTest> {
    void SetUp() override
    {
        machine::SetDriveC(directory.Path());
        SharingTest::SetUp();
    }
    void TearDown() override
    {
        SharingTest::TearDown();
        machine::SetDriveC("");
    }

    static void Request(uint32_t code)
    {
        EXPECT_EQ(sharing::SharingProgram().Control(code).status, STATUS_SUCCESS);
    }
    static void Start()
    {
        Request(IOCTL_NDIS_FILTER_START_ETHRLOG);
        EXPECT_TRUE(machine::WaitIdle());
    }
    static void Stop()
    {
        EXPECT_TRUE(machine::WaitIdle()); // what was recorded is written
        Request(IOCTL_NDIS_FILTER_STOP_ETHRLOG);
        EXPECT_TRUE(machine::WaitIdle());
    }

    std::string Path(const std::string& log) const { return directory.File(log); }
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
        for (const auto& entry : std::filesystem::directory_iterator(directory.Path())) {
            names.push_back(entry.path().filename().string());
        }
        return names;
    }

    void Receive(const Bytes& frame, const hook::FrameOptions& options = {})
    {
        EXPECT_EQ(hook::DeliverReceived(adapter, frame, options), hook::Accepted::Yes);
    }
    void Inject(const Bytes& frame) // recorded in the lower log alone
    {
        EXPECT_EQ(Filter_InjectPacketToAdapterEx(adapter, MakePacket(adapter, frame)), FILTER_STATUS_SUCCESS);
    }

    TemporaryDirectory directory;
};

TEST_F(CaptureTest, EachLogHoldsWhatPassedItsPoint)
{
    Bytes frames[8];
    for (uint16_t i = 0; i < 8; ++i) {
        frames[i] = UdpFrame(i, i);
    }
    ASSERT_NE(program.Start(), NDIS_FILTER_SHARE_FAILED);
    adapter->m_pLowerEthrLog = Unreadable<void>(); // left of an earlier life of the driver
    Receive(frames[0]);
    Start();
    EXPECT_THAT(Files(), testing::UnorderedElementsAre(kUpper, kLower, kInject, kAppToDriver, kDriverToApp));

    Receive(frames[1]);
    EXPECT_EQ(hook::DeliverSent(adapter, frames[2]), hook::Accepted::Yes);
    Inject(frames[3]);
    EXPECT_EQ(Filter_IndicatePacketToProtocolEx(adapter, MakePacket(adapter, frames[4])),
              FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_InjectPacketFromApplication(adapter, MakePacket(adapter, frames[5]),
                                                 NDIS_FILTER_DIRECTION_TO_ADAPTER),
              FILTER_STATUS_SUCCESS);
    ASSERT_TRUE(machine::WaitIdle());
    Fill(program.NextInput(), NDIS_FILTER_DIRECTION_TO_PROTOCOL, frames[6]);
    program.Pass();
    Indicate(frames[7]);

    Stop();
    EXPECT_THAT(FramesIn(kLower), ElementsAre(frames[1], frames[2], frames[3], frames[5]));
    EXPECT_THAT(FramesIn(kUpper), ElementsAre(frames[1], frames[2], frames[4], frames[6]));
    EXPECT_THAT(FramesIn(kInject), ElementsAre(frames[5]));
    EXPECT_THAT(FramesIn(kAppToDriver), ElementsAre(frames[6]));
    EXPECT_THAT(FramesIn(kDriverToApp), ElementsAre(frames[7]));
    Receive(frames[1]); // nobody records any more
    EXPECT_EQ(FramesIn(kLower).size(), 4u);
}

TEST_F(CaptureTest, FramesAreWholeAndAsTheyWereAtThatPoint)
{
    const Bytes longest = Counting(1648), brief = {1, 2, 3, 4, 5}, changed = UdpFrame(9, 9);
    const Bytes padded = {1, 2, 3, 4, 5, 0, 0, 0, 0, 0, 0, 0, 0, 0};
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
    EXPECT_THAT(ReadCapture(Path(kLower)),
                ElementsAre(CapturedFrame{longest, kTime}, CapturedFrame{Bytes(60, 0xEE), kTime},
                            CapturedFrame{padded, kTime}, CapturedFrame{UdpFrame(1, 1), kTime + 250'000}));
    EXPECT_THAT(FramesIn(kUpper), ElementsAre(longest, Bytes(60, 0xEE), padded, changed));
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
    Stop();
    EXPECT_THAT(FramesIn(LogName(kPeerMacText, "Lower")), ElementsAre(UdpFrame(2, 2)));
    EXPECT_EQ(machine::TakeCensus().files, open - 6);
}

TEST_F(CaptureTest, AnUnloadClosesOpenLogs)
{
    Start();
    Receive(UdpFrame(1, 1));
    EXPECT_TRUE(machine::WaitIdle());
    StopHook();
    StopFramework();
    EXPECT_THAT(FramesIn(kLower), ElementsAre(UdpFrame(1, 1)));
}

TEST_F(CaptureTest, FailuresLeaveALogSilentAndTrafficAlone)
{
    machine::SetDriveC(Path("missing"));
    Start();
    Receive(UdpFrame(1, 1));
    Stop();
    EXPECT_THAT(Files(), IsEmpty());
    machine::SetDriveC(directory.Path());

    const Bytes frame = UdpFrame(1, 1);
    uint64_t delivered = 1;
    for (const machine::Fault kind : {machine::Fault::Thread, machine::Fault::Pool}) {
        bool hit = true;
        for (uint64_t n = 1; hit; ++n) {
            ASSERT_LT(n, 200u);
            machine::FailCall(kind, n);
            Start();
            for (int i = 0; i < 2; ++i) {
                Receive(frame);
                EXPECT_TRUE(machine::WaitIdle()); // the n-th call is always the same
                ++delivered;
            }
            hit = machine::FaultHit(kind);
            machine::ClearFaults();
            Stop();
            for (const std::string& log : Files()) {
                EXPECT_THAT(FramesIn(log), testing::AllOf(SizeIs(testing::Le(2u)), testing::Each(frame)));
                std::filesystem::remove(Path(log));
            }
        }
    }
    EXPECT_EQ(hook::CountersOf(adapter).toProtocols.frames, delivered);
}

TEST_F(CaptureTest, AFailedWriteEndsItsFrameAndTheNextOneFollows)
{
    const Bytes frame = UdpFrame(1, 1);
    const size_t record = 16 + frame.size();
    const size_t written[] = {0, 16, 30}; // before the first, second and third write of a frame
    for (size_t n = 0; n < std::size(written); ++n) {
        Start();
        Inject(frame);
        EXPECT_TRUE(machine::WaitIdle());
        machine::FailCall(machine::Fault::File, n + 1);
        Inject(UdpFrame(2, 2));
        EXPECT_TRUE(machine::WaitIdle());
        EXPECT_TRUE(machine::FaultHit(machine::Fault::File));
        Inject(frame);
        Stop();
        Bytes file = ReadFile(Path(kLower));
        ASSERT_EQ(file.size(), 24 + record + written[n] + record) << n;
        file.erase(file.begin() + 24 + record, file.begin() + 24 + record + written[n]);
        std::string error;
        const auto read = ParseCapture(file, &error);
        ASSERT_EQ(read.size(), 2u) << error;
        EXPECT_EQ(read[0].bytes, frame);
        EXPECT_EQ(read[1].bytes, frame);
    }
}

} // namespace
