// Packets that clients hand to the two queues: which queue, in what order, and what the workers make of them.
#include <support/adapter-test.h>

#include <thread>

using namespace support;

namespace
{

Bytes Between(const Ipv4Address& source, const Ipv4Address& destination, uint16_t number = 0)
{
    return EthernetFrame(kEtherTypeIpv4, Ipv4Packet(kProtocolUdp, UdpDatagram(number, 2000),
                                                    {.source = source, .destination = destination}));
}

// Waits until both queues are empty and the workers have done with what they took.
bool Drained()
{
    return Eventually([] { return Filter_GetInjectPacketCount() == 0; }) && machine::WaitIdle();
}

struct QueueTest : AdapterTest {
    FILTER_STATUS QueueReceived(const Bytes& frame)
    {
        return Filter_IndicatePacketFromAdapter(adapter, MakePacket(adapter, frame));
    }

    void TearDown() override
    {
        EXPECT_TRUE(Drained());
        AdapterTest::TearDown();
    }
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
        {"a VLAN tag hides the header", VlanTagged(Between({11, 0, 0, 1}, {10, 0, 0, 2}), 7), 0},
    };
    std::vector<HANDLE> threads; // that ran the filter, in order; one packet is out at a time
    const EveryChain filters([&](auto...) { threads.push_back(PsGetCurrentThreadId()); });
    for (const Case& test : cases) {
        EXPECT_EQ(QueueReceived(test.frame), FILTER_STATUS_SUCCESS);
        ASSERT_TRUE(Drained());
        ASSERT_FALSE(threads.empty());
        EXPECT_EQ(threads.back() == threads.front() ? 0 : 1, test.queue) << test.what;
    }
    EXPECT_NE(threads.front(), PsGetCurrentThreadId());
}

TEST_F(QueueTest, PacketsOfAnAddressPairKeepTheirOrder)
{
    constexpr uint16_t kPackets = 300; // all of them may be queued at once
    const Collector down(adapter, hook::Side::Adapter);
    {
        std::vector<std::jthread> producers;
        for (uint8_t pair = 1; pair <= 3; ++pair) {
            producers.emplace_back([this, pair] {
                const Ipv4Address ours = {10, 0, 0, pair},
                                  theirs = {static_cast<uint8_t>(10 + pair), 0, 0, pair};
                for (uint16_t n = 0; n < kPackets; ++n) { // both directions of the pair
                    const Bytes frame = n % 3 == 0 ? Between(ours, theirs, n) : Between(theirs, ours, n);
                    Filter_InjectPacketFromProtocol(adapter, MakePacket(adapter, frame));
                }
            });
        }
    }
    ASSERT_TRUE(Drained());
    std::map<uint8_t, int> next; // by pair
    for (const Bytes& frame : down.Frames()) {
        EXPECT_EQ(frame[34] << 8 | frame[35], next[frame[29]]++) << "pair " << +frame[29];
    }
    EXPECT_EQ(next, (std::map<uint8_t, int>{{1, kPackets}, {2, kPackets}, {3, kPackets}}));
}

TEST_F(QueueTest, APacketTellsItsOriginAndDirection)
{
    TestDriver driver;
    const TestFilter filter(driver, {});
    const auto fromApplication = [this](ULONG direction) {
        return [=, this](auto* p) { return Filter_InjectPacketFromApplication(adapter, p, direction); };
    };
    const auto fromFilter = [handle = filter.Handle()](FILTER_METHOD method) {
        return [=](FilterPacket* p) { return Filter_InjectPacketFromFilter(method, handle, p); };
    };
    const auto received = [this](auto* p) { return Filter_IndicatePacketFromAdapter(adapter, p); };
    const auto sent = [this](auto* p) { return Filter_InjectPacketFromProtocol(adapter, p); };
    struct Case {
        std::function<FILTER_STATUS(FilterPacket*)> queue;
        ULONG_PTR origin;
        PacketFilter* filter;
        ULONG direction;
    };
    const Case cases[] = {
        {received, 0, nullptr, 1},
        {sent, 0, nullptr, 2},
        {fromApplication(1), 1, nullptr, 1},
        {fromApplication(4), 1, nullptr, 4},
        {fromFilter(0), 0x80000000, filter.Handle(), 77},
        {fromFilter(4), 0x80000004, filter.Handle(), 77},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(testing::Message() << "origin " << test.origin << " direction " << test.direction);
        FilterPacket* packet = MakePacket(test.filter != nullptr ? adapter : nullptr, UdpFrame());
        packet->m_nDirection = 77;
        packet->m_InjectOrigin = ~ULONG_PTR{0};
        packet->m_hInjectFilter = Unreadable<PacketFilter>();
        const machine::ThreadHold hold;
        EXPECT_EQ(test.queue(packet), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(packet->m_InjectOrigin, test.origin);
        EXPECT_EQ(packet->m_hInjectFilter, test.filter);
        EXPECT_EQ(packet->m_nDirection, test.direction);
        EXPECT_EQ(packet->m_hAdapter, adapter);
    }
}

TEST_F(QueueTest, BadArgumentsReleaseThePacket)
{
    EXPECT_EQ(Filter_IndicatePacketToApplication(nullptr, 1, 2), FILTER_ERROR_INVALID_ARGUMENT);
    for (FilterAdapter* const target : {adapter, static_cast<FilterAdapter*>(nullptr)}) {
        const auto packet = [&] { return target != nullptr ? nullptr : MakePacket(nullptr, UdpFrame()); };
        for (const FILTER_STATUS status : {Filter_IndicatePacketFromAdapter(target, packet()),
                                           Filter_InjectPacketFromProtocol(target, packet()),
                                           Filter_InjectPacketFromApplication(target, packet(), 1),
                                           Filter_InjectPacketFromFilter(0, nullptr, packet())}) {
            EXPECT_EQ(status, FILTER_ERROR_INVALID_ARGUMENT);
        }
    }
    EXPECT_EQ(hook::TakeBalance().freed, 4u);
}

TEST_F(QueueTest, APacketWhoseFilterHasGoneIsReleased)
{
    TestDriver driver;
    TestFilter filter(driver, {.order = 2});
    const TestFilter other(driver, {.order = 1});
    {
        const machine::ThreadHold hold;
        for (FILTER_METHOD method = 0; method <= 5; ++method) {
            Filter_InjectPacketFromFilter(method, filter.Handle(), AnyPacket());
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
            EXPECT_EQ(QueueReceived(Between({static_cast<uint8_t>(n), 0, 0, 1}, {10, 0, 0, 2})),
                      FILTER_STATUS_SUCCESS);
            ASSERT_EQ(Filter_GetInjectPacketCount(), n);
        }
    }
    ASSERT_TRUE(Drained());
    EXPECT_EQ(hook::TakeBalance().deliveredToProtocols, 600u);
}

} // namespace
