// Packets that clients hand to the two queues: which queue, in what order, and what the workers make of them.
#include <support/packet.h>

#include <thread>

using namespace support;
using testing::ElementsAre;

namespace
{

Bytes Between(const Ipv4Address& source, const Ipv4Address& destination, uint16_t number = 0)
{
    return EthernetFrame(kEtherTypeIpv4, Ipv4Packet(kProtocolUdp, UdpDatagram(number, 2000),
                                                    {.source = source, .destination = destination}));
}

class QueueTest : public FrameworkTest
{
  protected:
    using FrameworkTest::FrameworkTest;

    void SetUp() override
    {
        FrameworkTest::SetUp();
        adapter = AddAdapter();
    }

    void TearDown() override
    {
        EXPECT_TRUE(Drained());
        EXPECT_TRUE(hook::TakeBalance().IsEven());
        EXPECT_EQ(hook::TakeBalance().outstanding, 0u);
        FrameworkTest::TearDown();
    }

    // Waits until both queues are empty and the workers have done with what they took.
    static bool Drained()
    {
        return Eventually([] { return Filter_GetInjectPacketCount() == 0; }) && machine::WaitIdle();
    }

    FilterAdapter* adapter = nullptr;
};

TEST_F(QueueTest, TheParityOfTheFirstOctetsChoosesTheWorker)
{
    struct Case {
        const char* what;
        Bytes frame;
        int queue;
    };
    const Case cases[] = {
        {"no IP header", EthernetFrame(kEtherTypeArp, Counting(28)), 0},
        {"even and even", Between({10, 0, 0, 1}, {10, 0, 0, 2}), 0},
        {"odd and even", Between({11, 0, 0, 1}, {10, 0, 0, 2}), 1},
        {"its reply", Between({10, 0, 0, 2}, {11, 0, 0, 1}), 1},
        {"odd and odd", Between({255, 255, 255, 255}, {1, 0, 0, 0}), 0},
        {"other octets do not count", Between({10, 1, 1, 1}, {10, 0, 0, 0}), 0},
        {"nor do they here", Between({192, 1, 1, 1}, {1, 0, 1, 0}), 1},
        {"a VLAN tag hides the header", VlanTagged(Between({11, 0, 0, 1}, {10, 0, 0, 2}), 7), 0},
    };
    std::vector<HANDLE> threads; // that ran the filter, in order; one packet is out at a time
    TestDriver driver;
    const TestFilter filter(driver, {}, [&](FilterPacket*) {
        threads.push_back(PsGetCurrentThreadId());
        return FILTER_RESULT_BYPASS;
    });
    for (const Case& test : cases) {
        EXPECT_EQ(Filter_IndicatePacketFromAdapter(adapter, MakePacket(adapter, test.frame)),
                  FILTER_STATUS_SUCCESS);
        ASSERT_TRUE(Drained());
        ASSERT_FALSE(threads.empty());
        EXPECT_EQ(threads.back() == threads.front() ? 0 : 1, test.queue) << test.what;
    }
    EXPECT_NE(threads.front(), PsGetCurrentThreadId());
}

TEST_F(QueueTest, PacketsOfAnAddressPairKeepTheirOrder)
{
    constexpr uint16_t kPackets = 300;                // all of them may be queued at once
    std::map<uint8_t, std::vector<uint16_t>> numbers; // by pair
    std::mutex mutex;
    hook::SetSink(adapter, hook::Side::Adapter, [&](std::span<const uint8_t> frame, const hook::Delivery&) {
        const std::lock_guard lock(mutex);
        numbers[frame[29] | frame[33]].push_back(static_cast<uint16_t>(frame[34] << 8 | frame[35]));
    });
    std::vector<std::thread> producers;
    for (uint8_t pair = 1; pair <= 3; ++pair) {
        producers.emplace_back([this, pair] {
            const Ipv4Address ours = {10, 0, 0, pair}, theirs = {static_cast<uint8_t>(10 + pair), 0, 0, pair};
            for (uint16_t n = 0; n < kPackets; ++n) { // both directions of the pair
                Filter_InjectPacketFromProtocol(
                    adapter,
                    MakePacket(adapter, n % 3 == 0 ? Between(ours, theirs, n) : Between(theirs, ours, n)));
            }
        });
    }
    for (std::thread& producer : producers) {
        producer.join();
    }
    ASSERT_TRUE(Drained());
    hook::SetSink(adapter, hook::Side::Adapter, {});
    EXPECT_EQ(numbers.size(), 3u);
    for (const auto& [pair, sequence] : numbers) {
        EXPECT_EQ(sequence.size(), kPackets);
        EXPECT_TRUE(std::is_sorted(sequence.begin(), sequence.end())) << "pair " << +pair;
    }
}

TEST_F(QueueTest, OriginAndDirectionDecideTheRoad)
{
    TestDriver driver;
    std::string chainsRun;
    std::vector<std::unique_ptr<TestFilter>> filters;
    for (FILTER_TYPE type = 0; type < FILTER_TYPE_COUNT; ++type) {
        filters.push_back(
            std::make_unique<TestFilter>(driver, TestFilter::Options{.type = type}, [&, type](auto*) {
                chainsRun += std::to_string(type);
                return FILTER_RESULT_BYPASS;
            }));
    }
    PacketFilter* const outgoing = filters[1]->Handle();
    struct Case {
        const char* what;
        std::function<FILTER_STATUS(FilterPacket*)> queue;
        ULONG_PTR origin;
        PacketFilter* filter;
        ULONG direction;
        const char* chains;
        uint64_t toAdapter, toProtocols, freed;
    };
    const auto fromApplication = [this](ULONG direction) {
        return [this, direction](FilterPacket* p) {
            return Filter_InjectPacketFromApplication(adapter, p, direction);
        };
    };
    const auto fromFilter = [outgoing](FILTER_METHOD method) {
        return [=](FilterPacket* p) { return Filter_InjectPacketFromFilter(method, outgoing, p); };
    };
    const Case cases[] = {
        {"received", [this](auto* p) { return Filter_IndicatePacketFromAdapter(adapter, p); }, 0, nullptr, 1,
         "0", 0, 1, 0},
        {"sent", [this](auto* p) { return Filter_InjectPacketFromProtocol(adapter, p); }, 0, nullptr, 2, "1",
         1, 0, 0},
        {"program, to protocols", fromApplication(1), 1, nullptr, 1, "3", 0, 1, 0},
        {"program, to adapter", fromApplication(2), 1, nullptr, 2, "2", 1, 0, 0},
        {"program, loop-back", fromApplication(3), 1, nullptr, 3, "", 0, 0, 1},
        {"program, unknown", fromApplication(0), 1, nullptr, 0, "", 0, 0, 1},
        {"program, unknown", fromApplication(4), 1, nullptr, 4, "", 0, 0, 1},
        {"filter, from the first", fromFilter(0), 0x80000000, outgoing, 77, "1", 1, 0, 0},
        {"filter, behind it", fromFilter(4), 0x80000004, outgoing, 77, "", 1, 0, 0},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.what);
        const hook::Balance before = hook::TakeBalance();
        FilterPacket* packet = MakePacket(test.filter != nullptr ? adapter : nullptr, UdpFrame());
        packet->m_nDirection = 77;
        packet->m_InjectOrigin = ~ULONG_PTR{0};
        packet->m_hInjectFilter = reinterpret_cast<PacketFilter*>(~ULONG_PTR{0});
        {
            const machine::ThreadHold hold;
            EXPECT_EQ(test.queue(packet), FILTER_STATUS_SUCCESS);
            EXPECT_EQ(packet->m_InjectOrigin, test.origin);
            EXPECT_EQ(packet->m_hInjectFilter, test.filter);
            EXPECT_EQ(packet->m_nDirection, test.direction);
            EXPECT_EQ(packet->m_hAdapter, adapter);
            EXPECT_EQ(Filter_GetInjectPacketCount(), 1u);
        }
        ASSERT_TRUE(Drained());
        const hook::Balance after = hook::TakeBalance();
        EXPECT_EQ(std::exchange(chainsRun, ""), test.chains);
        EXPECT_EQ(after.deliveredToAdapter - before.deliveredToAdapter, test.toAdapter);
        EXPECT_EQ(after.deliveredToProtocols - before.deliveredToProtocols, test.toProtocols);
        EXPECT_EQ(after.freed - before.freed, test.freed);
    }
}

TEST_F(QueueTest, BadArgumentsReleaseThePacket)
{
    EXPECT_EQ(Filter_IndicatePacketFromAdapter(adapter, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Filter_InjectPacketFromProtocol(adapter, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Filter_InjectPacketFromApplication(adapter, nullptr, 1), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Filter_InjectPacketFromFilter(0, nullptr, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Filter_IndicatePacketToApplication(nullptr, 1, 2), FILTER_ERROR_INVALID_ARGUMENT);
    const auto packet = [this] { return MakePacket(adapter, UdpFrame()); };
    EXPECT_EQ(Filter_IndicatePacketFromAdapter(nullptr, packet()), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Filter_InjectPacketFromProtocol(nullptr, packet()), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Filter_InjectPacketFromApplication(nullptr, packet(), 1), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Filter_InjectPacketFromFilter(0, nullptr, packet()), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(hook::TakeBalance().freed, 4u);
}

TEST_F(QueueTest, AFilterHandsAPacketBackBehindItself)
{
    std::string runs;
    TestDriver driver;
    const auto note = [&](char name) {
        return [&runs, name](FilterPacket*) {
            runs += name;
            return FILTER_RESULT_BYPASS;
        };
    };
    const TestFilter a(driver, {.order = 1}, note('a'));
    TestFilter* self = nullptr;
    TestFilter b(driver, {.order = 2}, [&](FilterPacket* packet) {
        runs += 'b';
        Filter_InjectPacketFromFilter(FILTER_METHOD_START_AFTER_THIS_FILTER, self->Handle(), packet);
        return FILTER_RESULT_CONSUME;
    });
    self = &b;
    const TestFilter c(driver, {.order = 3}, note('c'));
    const Collector up(adapter, hook::Side::Protocols);
    hook::DeliverReceived(adapter, UdpFrame());
    ASSERT_TRUE(Drained());
    EXPECT_EQ(runs, "abc");
    EXPECT_THAT(up.Frames(), ElementsAre(UdpFrame()));
}

TEST_F(QueueTest, APacketWhoseFilterHasGoneIsReleased)
{
    TestDriver driver;
    TestFilter filter(driver, {.order = 2});
    const TestFilter other(driver, {.order = 1});
    {
        const machine::ThreadHold hold;
        for (FILTER_METHOD method = 0; method <= 5; ++method) {
            Filter_InjectPacketFromFilter(method, filter.Handle(), MakePacket(adapter, UdpFrame()));
        }
        EXPECT_EQ(filter.Deregister(), FILTER_STATUS_SUCCESS);
    }
    ASSERT_TRUE(Drained());
    EXPECT_EQ(other.CallCount(), 0u);
    EXPECT_EQ(hook::TakeBalance().freed, 6u);
}

TEST_F(QueueTest, TheCountIsOfPacketsOnBothQueuesAndNoLimitRefusesOne)
{
    Filter_SetPendingPacketLimit(1);
    {
        const machine::ThreadHold hold;
        for (uint32_t n = 1; n <= 600; ++n) {
            const Bytes frame = Between({static_cast<uint8_t>(n % 4), 0, 0, 1}, {10, 0, 0, 2});
            EXPECT_EQ(Filter_IndicatePacketFromAdapter(adapter, MakePacket(adapter, frame)),
                      FILTER_STATUS_SUCCESS);
            ASSERT_EQ(Filter_GetInjectPacketCount(), n);
        }
    }
    ASSERT_TRUE(Drained());
    EXPECT_EQ(hook::TakeBalance().deliveredToProtocols, 600u);
}

// Without worker threads everything stays queued until the framework goes.
class LeftInQueueTest : public QueueTest
{
  protected:
    LeftInQueueTest() : QueueTest(WithTrace(0x200))
    {
        plan_.loadFramework = plan_.loadHook = plan_.bind = false;
    }

    void SetUp() override
    {
        FrameworkTest::SetUp();
        machine::FailAllFrom(machine::Fault::Thread, 1);
        ASSERT_EQ(LoadFramework(), STATUS_SUCCESS);
        machine::ClearFaults();
        ASSERT_EQ(hook::Load(), STATUS_SUCCESS);
        ASSERT_EQ(hook::Bind(), STATUS_SUCCESS);
        adapter = AddAdapter();
    }

    void TearDown() override { FrameworkTest::TearDown(); }
};

TEST_F(LeftInQueueTest, IsReleasedAtUnload)
{
    for (uint8_t n = 0; n < 5; ++n) {
        Filter_IndicatePacketFromAdapter(adapter, MakePacket(adapter, Between({n, 0, 0, 1}, {10, 0, 0, 2})));
    }
    EXPECT_EQ(Filter_GetInjectPacketCount(), 5u);
    ASSERT_EQ(hook::Unbind(), STATUS_SUCCESS);
    Debug().Take();
    StopFramework();
    const std::string text = Debug().Take();
    size_t releases = 0;
    for (size_t at = text.find("Enter Filter_ReleasePacket"); at != std::string::npos;
         at = text.find("Enter Filter_ReleasePacket", at + 1)) {
        ++releases;
    }
    EXPECT_EQ(releases, 5u);
    EXPECT_EQ(hook::TakeBalance().outstanding, 5u); // nobody was bound to take them
    StopHook();
    EXPECT_EQ(hook::TakeBalance().stranded, 5u);
}

} // namespace
