// The client's side of the rings against a driver that the test plays.
#include "fake-device.h"

#include <support/eventually.h>

#include <climits>
#include <random>
#include <thread>

#include <gmock/gmock.h>

namespace
{

using namespace testing;
using support::Load, support::Store, support::StartRingAt;

constexpr uint32_t kLong = 20'000; // milliseconds until a test gives up
constexpr int kBlocks = NDIS_FILTER_BLOCK_COUNT;
constexpr int32_t kBadIndexes[] = {-1, kBlocks, kBlocks + 1, INT_MAX, INT_MIN};

class ShareTest : public Test
{
  protected:
    ndisfilter_client* Raw() { return client.Get(); }

    size_t Send(size_t wanted, uint32_t timeoutMs, int32_t expected)
    {
        const std::vector<ndisfilter_frame> frames(wanted, Frame(payload));
        size_t sent = SIZE_MAX;
        EXPECT_EQ(ndisfilter_send(Raw(), frames.data(), frames.size(), timeoutMs, &sent), expected);
        return sent;
    }
    static ndisfilter_frame Frame(const std::vector<uint8_t>& bytes)
    {
        ndisfilter_frame frame = {};
        frame.adapter_id = 7;
        frame.direction = NDIS_FILTER_DIRECTION_TO_ADAPTER;
        frame.data = bytes.data();
        frame.size = static_cast<uint32_t>(bytes.size());
        return frame;
    }
    int32_t Receive(uint32_t timeoutMs)
    {
        return ndisfilter_receive(Raw(), blocks.data(), blocks.size(), timeoutMs, &count);
    }

    FakeDriver driver;
    ndisfilter::Client client = OpenFake(driver);
    std::vector<uint8_t> payload = std::vector<uint8_t>(60, 0xA5);
    std::vector<ndisfilter_block> blocks = std::vector<ndisfilter_block>(16);
    size_t count = 0;
};

TEST_F(ShareTest, SendsEveryFieldInOrderAcrossTheEndOfTheRing)
{
    StartRingAt(driver.Input(), kBlocks - 3);
    client.StartShare();
    uint8_t applicationData[NDIS_FILTER_APPLICATION_DATA_SIZE];
    std::memset(applicationData, 0x3C, sizeof(applicationData));
    std::vector<SharedBlock> expected(10);
    for (uint32_t number = 0; number < 10; ++number) {
        std::vector<uint8_t> bytes(number == 9 ? NDIS_FILTER_BLOCK_DATA_SIZE : 1 + number,
                                   static_cast<uint8_t>(number));
        ndisfilter_frame frame = Frame(bytes);
        SharedBlock& block = expected[number];
        block.m_nAdapterId = 7;
        block.m_nDirection = NDIS_FILTER_DIRECTION_TO_ADAPTER;
        block.m_nPacketSize = frame.size;
        block.m_nCarried[0] = frame.carried[0] = number;
        block.m_nCarried[1] = frame.carried[1] = ~number;
        block.m_nIndicateCode = frame.indicate_code = number * 3;
        block.m_nIndicateValue = frame.indicate_value = number + (uint64_t{1} << 40);
        std::ranges::copy(bytes, block.m_Data);
        if (number % 2 == 0) {
            frame.application_data = applicationData;
            std::ranges::copy(applicationData, block.m_ApplicationData);
        }
        EXPECT_EQ(client.Send({&frame, 1}), 1u);
    }
    driver.Drain();
    ASSERT_EQ(driver.taken.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(std::memcmp(&driver.taken[i], &expected[i], sizeof(SharedBlock)), 0) << i;
    }
    EXPECT_EQ(client.Flush(0), 0u);
}

// The first announcements reach a driver that does not hear them, as when it is about to reset its event.
TEST_F(ShareTest, AnnouncesAgainUntilTheDriverHasTakenEverything)
{
    driver.onAnnounce = [this] {
        if (driver.announcements == 4 || driver.announcements == 6) {
            driver.Drain(2);
        }
    };
    client.StartShare();
    EXPECT_EQ(Send(4, kLong, NDISFILTER_SUCCESS), 4u);
    EXPECT_EQ(client.Flush(kLong), 0u);
    EXPECT_GE(driver.announcements, 6);
    client.StopShare();
    EXPECT_EQ(driver.taken.size(), 4u);
}

TEST_F(ShareTest, AFullRingKeepsFramesBackUntilThereIsRoomOrTheyAreTakenBack)
{
    std::atomic<bool> drains = false;
    driver.onAnnounce = [&] {
        if (drains) {
            driver.Drain();
        }
    };
    client.StartShare();
    EXPECT_EQ(Send(600, 0, NDISFILTER_TIMEOUT), 511u);
    EXPECT_EQ(Send(1, 5, NDISFILTER_TIMEOUT), 0u);
    EXPECT_EQ(client.Flush(1), 511u);
    driver.Drain(10);
    EXPECT_EQ(Send(20, 0, NDISFILTER_TIMEOUT), 10u);
    EXPECT_EQ(client.Discard(), 511u);
    EXPECT_EQ(Load(driver.Input().m_iWrite), 10);
    EXPECT_EQ(client.Flush(0), 0u);

    // Room that the driver makes while the call waits is used.
    driver.taken.clear();
    drains = true;
    EXPECT_EQ(Send(1500, kLong, NDISFILTER_SUCCESS), 1500u);
    EXPECT_EQ(client.Flush(kLong), 0u);
    client.StopShare();
    EXPECT_EQ(driver.taken.size(), 1500u);
}

TEST_F(ShareTest, RefusesFramesThatFitNoBlock)
{
    client.StartShare();
    const std::vector<uint8_t> longest(NDIS_FILTER_BLOCK_DATA_SIZE + 1);
    for (const uint32_t size : {0u, NDIS_FILTER_BLOCK_DATA_SIZE + 1u, UINT32_MAX}) {
        ndisfilter_frame frames[] = {Frame(payload), Frame(longest), Frame(payload)};
        frames[1].size = size;
        size_t sent = 0;
        EXPECT_EQ(ndisfilter_send(Raw(), frames, 3, 0, &sent), NDISFILTER_BAD_FRAME_SIZE);
        EXPECT_EQ(sent, 1u);
    }
    ndisfilter_frame frame = Frame(payload);
    frame.data = nullptr;
    size_t sent = 1;
    EXPECT_EQ(ndisfilter_send(Raw(), &frame, 1, 0, &sent), NDISFILTER_INVALID_PARAMETER);
    EXPECT_EQ(sent, 0u);
}

TEST_F(ShareTest, ReceivesInOrderAcrossTheEndOfTheRing)
{
    StartRingAt(driver.Output(), kBlocks - 3);
    client.StartShare();
    for (uint32_t number = 1; number <= 20; ++number) {
        driver.WriteFrame(number, 60 + number);
    }
    for (uint32_t number = 1; number <= 20; number += static_cast<uint32_t>(count)) {
        ASSERT_EQ(Receive(0), NDISFILTER_SUCCESS);
        EXPECT_EQ(count, number == 1 ? 16u : 4u);
        for (uint32_t i = 0; i < count; ++i) {
            EXPECT_EQ(blocks[i].content.frame.m_nAdapterId, number + i);
            EXPECT_EQ(blocks[i].size, 60 + number + i);
            EXPECT_EQ(blocks[i].content.frame.m_Data[blocks[i].size - 1], number + i);
        }
    }
    EXPECT_TRUE(support::IsEmpty(driver.Output()));
    EXPECT_EQ(Receive(0), NDISFILTER_TIMEOUT);
}

TEST_F(ShareTest, CutsFramesLongerThanABlock)
{
    client.StartShare();
    for (const uint32_t size : {1520u, 1521u, 1648u, UINT32_MAX}) {
        driver.WriteFrame(3, size);
        ASSERT_EQ(Receive(0), NDISFILTER_SUCCESS);
        EXPECT_EQ(blocks[0].size, 1520u);
        EXPECT_EQ(blocks[0].full_size, size);
    }
}

// A signal is longer than a block; from the last one it reaches into the input blocks.
TEST_F(ShareTest, ReceivesWholeSignalsAlsoFromTheLastBlock)
{
    StartRingAt(driver.Output(), kBlocks - 2);
    client.StartShare();
    uint8_t signal[NDIS_FILTER_SIGNAL_SIZE];
    for (const uint8_t value : {0x11, 0x22, 0x33}) {
        std::memset(signal, value, sizeof(signal));
        std::memset(signal + offsetof(SharedBlock, m_nPacketSize), 0, sizeof(uint32_t));
        driver.WriteBlock(signal, sizeof(signal));
        ASSERT_EQ(Receive(0), NDISFILTER_SUCCESS);
        EXPECT_EQ(blocks[0].is_signal, 1);
        EXPECT_EQ(blocks[0].size, sizeof(signal));
        EXPECT_EQ(std::memcmp(blocks[0].content.signal, signal, sizeof(signal)), 0);
    }
}

TEST_F(ShareTest, AWaitingReceiveEndsWithABlockTheTimeOrACancel)
{
    client.StartShare();
    // A millisecond may be over before the read is sent.
    const auto parksARead = [this] { return Receive(1) == NDISFILTER_TIMEOUT && driver.HasParkedRead(); };
    EXPECT_TRUE(support::Eventually(parksARead)); // it stays outstanding

    std::thread writer([this] { driver.WriteFrame(9, 60); });
    EXPECT_EQ(Receive(kLong), NDISFILTER_SUCCESS);
    EXPECT_EQ(count, 1u);
    writer.join();

    std::thread canceller([this] {
        EXPECT_TRUE(support::Eventually([this] { return driver.HasParkedRead(); }));
        client.CancelReceive();
    });
    EXPECT_EQ(Receive(kLong), NDISFILTER_CANCELLED);
    canceller.join();

    // Before the wait it ends the next one, and only that.
    client.CancelReceive();
    EXPECT_EQ(Receive(kLong), NDISFILTER_CANCELLED);
    EXPECT_EQ(Receive(1), NDISFILTER_TIMEOUT);

    // A read that the system takes back is sent again.
    driver.CompleteRead(NDISFILTER_CANCELLED);
    EXPECT_TRUE(support::Eventually(parksARead));

    constexpr auto gone = static_cast<int32_t>(0xC000009D);
    driver.CompleteRead(gone);
    EXPECT_EQ(Receive(kLong), gone);
}

// The driver answers reads although nothing is there, as it does when it sees a spoilt index.
TEST_F(ShareTest, ReadsThatComeBackForNothingAreWaitedOut)
{
    driver.readsAnswerAtOnce = true;
    client.StartShare();
    Store(driver.Output().m_iRead, 77); // the program's own index, spoilt
    EXPECT_EQ(Receive(20), NDISFILTER_TIMEOUT);
    EXPECT_EQ(Load(driver.Output().m_iRead), 0);
}

TEST_F(ShareTest, StoppingEndsWaitingCalls)
{
    client.StartShare();
    EXPECT_EQ(Send(511, 0, NDISFILTER_SUCCESS), 511u);
    std::thread receiver([this] { EXPECT_EQ(Receive(NDISFILTER_FOREVER), NDISFILTER_NO_SHARE); });
    std::thread sender([this] { EXPECT_EQ(Send(1, NDISFILTER_FOREVER, NDISFILTER_NO_SHARE), 0u); });
    EXPECT_TRUE(support::Eventually([this] { return driver.HasParkedRead(); }));
    client.StopShare();
    receiver.join();
    sender.join();
    EXPECT_EQ(driver.stops, 1);
    EXPECT_EQ(Receive(0), NDISFILTER_NO_SHARE);
    client.StopShare();
    EXPECT_EQ(driver.stops, 1);
}

TEST_F(ShareTest, AShareThatCannotBeHadIsSaid)
{
    EXPECT_EQ(Receive(0), NDISFILTER_NO_SHARE);
    EXPECT_EQ(Send(1, 0, NDISFILTER_NO_SHARE), 0u);
    EXPECT_EQ(ndisfilter_cancel_receive(Raw()), NDISFILTER_NO_SHARE);
    driver.sizeAnswered = 4096;
    EXPECT_EQ(ndisfilter_share_start(Raw()), NDISFILTER_BAD_ANSWER);
    driver.sizeAnswered = NDIS_FILTER_MAPPED_MEMORY_SIZE;
    driver.refusesShare = true;
    EXPECT_EQ(ndisfilter_share_start(Raw()), NDISFILTER_SHARE_TAKEN);
    driver.refusesShare = false;
    EXPECT_EQ(ndisfilter_share_start(Raw()), NDISFILTER_SUCCESS);
    EXPECT_EQ(ndisfilter_share_start(Raw()), NDISFILTER_SHARE_TAKEN);
}

TEST_F(ShareTest, DropsWhatAnEarlierOwnerLeft)
{
    Store(driver.Input().m_iRead, 2);
    Store(driver.Input().m_iWrite, 5);
    Store(driver.Output().m_iRead, 500);
    Store(driver.Output().m_iWrite, 3);
    client.StartShare();
    EXPECT_EQ(Load(driver.Input().m_iWrite), 2);
    EXPECT_EQ(Load(driver.Output().m_iRead), 3);
    EXPECT_EQ(Receive(0), NDISFILTER_TIMEOUT);
    EXPECT_EQ(client.Flush(0), 0u);
}

TEST_F(ShareTest, ASpoiltIndexIsReportedAndMendedByTheNextStart)
{
    for (const int32_t bad : kBadIndexes) {
        client.StartShare();
        Store(driver.Output().m_iWrite, bad);
        Store(driver.Input().m_iRead, bad);
        EXPECT_EQ(Receive(kLong), NDISFILTER_BAD_RING);
        EXPECT_EQ(Send(1, kLong, NDISFILTER_BAD_RING), 0u);
        EXPECT_EQ(ndisfilter_flush(Raw(), kLong, nullptr), NDISFILTER_BAD_RING);
        EXPECT_EQ(ndisfilter_discard(Raw(), nullptr), NDISFILTER_BAD_RING);
        Store(driver.Output().m_iRead, bad);
        Store(driver.Input().m_iWrite, bad);
        client.StopShare();

        client.StartShare();
        driver.WriteFrame(4, 60);
        EXPECT_EQ(Receive(0), NDISFILTER_SUCCESS);
        EXPECT_EQ(Send(3, 0, NDISFILTER_SUCCESS), 3u);
        driver.taken.clear();
        driver.Drain();
        EXPECT_EQ(driver.taken.size(), 3u);
        client.StopShare();
    }
}

// Whatever stands in the memory: every call returns, and touches nothing outside (address sanitizer).
TEST_F(ShareTest, EndsEveryCallOnMemoryFullOfNonsense)
{
    std::minstd_rand random(20240229);
    for (int round = 0; round < 300; ++round) {
        if (round % 10 == 0) {
            client.StopShare();
            client.StartShare();
        }
        for (int word = 0; word < 400; ++word) {
            const size_t place = word < 20 ? random() % 20 : random() % driver.storage.size();
            const auto value = static_cast<int32_t>(word % 2 == 0 ? random() % 600 : random() * 3u);
            Store(reinterpret_cast<int32_t&>(driver.storage[place]), value);
        }
        EXPECT_THAT(Receive(0), AnyOf(NDISFILTER_SUCCESS, NDISFILTER_TIMEOUT, NDISFILTER_BAD_RING));
        EXPECT_LE(count, blocks.size());
        const std::vector<ndisfilter_frame> frames(40, Frame(payload));
        size_t sent = 0;
        EXPECT_THAT(ndisfilter_send(Raw(), frames.data(), frames.size(), 0, &sent),
                    AnyOf(NDISFILTER_SUCCESS, NDISFILTER_TIMEOUT, NDISFILTER_BAD_RING));
        EXPECT_LE(sent, frames.size());
        EXPECT_THAT(ndisfilter_flush(Raw(), 0, nullptr),
                    AnyOf(NDISFILTER_SUCCESS, NDISFILTER_TIMEOUT, NDISFILTER_BAD_RING));
    }
}

} // namespace
