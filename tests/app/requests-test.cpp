// Control requests of the client against a driver that answers anything.
#include "fake-device.h"

#include <gmock/gmock.h>

namespace
{

using namespace testing;
using ndisfilter::ControlResult;

constexpr uint8_t kMac[6] = {2, 0, 0, 0, 0, 7};

class RequestsTest : public Test
{
  protected:
    ndisfilter_client* Raw() { return client.Get(); }

    // Every request of the client in turn.
    std::vector<int32_t> AskEverything()
    {
        UserAdapterList adapters;
        UserIPConfig config = {};
        UserEvent event;
        uint32_t id;
        uint8_t value;
        return {ndisfilter_get_version(Raw()),
                ndisfilter_get_adapters(Raw(), &adapters),
                ndisfilter_find_adapter(Raw(), kMac, &id),
                ndisfilter_get_ipconfig(Raw(), 1, &config),
                ndisfilter_set_ipconfig(Raw(), &config),
                ndisfilter_get_media_state(Raw(), kMac, &value),
                ndisfilter_set_media_state(Raw(), kMac, 1),
                ndisfilter_get_packet_dump(Raw(), kMac, &value),
                ndisfilter_set_packet_dump(Raw(), kMac, 1),
                ndisfilter_get_event(Raw(), &event),
                ndisfilter_clear_events(Raw()),
                ndisfilter_start_capture(Raw()),
                ndisfilter_stop_capture(Raw()),
                ndisfilter_reload_debug_flag(Raw()),
                ndisfilter_set_congestion_limit(Raw(), 5),
                ndisfilter_dump_state(Raw()),
                ndisfilter_diagnose(Raw(), "filter", text, sizeof(text))};
    }

    template <typename Record>
    static ControlResult Give(std::span<uint8_t> output, const Record& record)
    {
        EXPECT_GE(output.size(), sizeof(record));
        std::memcpy(output.data(), &record, sizeof(record));
        return {NDISFILTER_SUCCESS, sizeof(record)};
    }

    FakeDriver driver;
    ndisfilter::Client client = OpenFake(driver);
    char text[128] = "";
};

TEST_F(RequestsTest, SendsTheRecordsThatTheDriverReads)
{
    std::vector<std::pair<uint32_t, std::vector<uint8_t>>> seen;
    std::vector<size_t> room;
    driver.answer = [&](uint32_t code, std::span<const uint8_t> input, std::span<uint8_t> output) {
        seen.emplace_back(code, std::vector<uint8_t>(input.begin(), input.end()));
        room.push_back(output.size());
        return ControlResult{};
    };
    AskEverything();
    const std::vector<uint8_t> mac(kMac, kMac + 6);
    const auto macWith = [&](uint8_t value) {
        std::vector<uint8_t> bytes = mac;
        bytes.push_back(value);
        return bytes;
    };
    const std::vector<uint8_t> none;
    const char* const filter = "filter";
    EXPECT_THAT(seen,
                ElementsAre(Pair(0x80002320, none), Pair(0x80002334, none), Pair(0x80002364, mac),
                            Pair(0x8000234C, ElementsAre(1, 0, 0, 0)),
                            Pair(0x80002348, std::vector<uint8_t>(224)), Pair(0x80002354, macWith(0)),
                            Pair(0x80002350, macWith(1)), Pair(0x80002360, macWith(0)),
                            Pair(0x8000235C, macWith(1)), Pair(0x80002338, none), Pair(0x8000233C, none),
                            Pair(0x80002340, none), Pair(0x80002344, none), Pair(0x80002358, none),
                            Pair(0x8000237C, ElementsAre(5, 0, 0, 0)), Pair(0x80002378, none),
                            Pair(0x80002008, std::vector<uint8_t>(filter, filter + 6))));
    EXPECT_THAT(room, ElementsAre(2, 9028, 10, 224, 0, 7, 0, 7, 0, 1036, 0, 0, 0, 0, 0, 0, Ge(40u)));
}

TEST_F(RequestsTest, PassesFailuresOnAndRefusesAnswersOfAnotherLength)
{
    constexpr auto refused = static_cast<int32_t>(0xC0010006);
    driver.answer = [](auto...) { return ControlResult{refused, 0}; };
    EXPECT_THAT(AskEverything(), Each(refused));

    for (const bool tooShort : {true, false}) {
        driver.answer = [&](uint32_t, auto, std::span<uint8_t> output) {
            return ControlResult{NDISFILTER_SUCCESS, tooShort ? size_t{1} : output.size() + 1};
        };
        const std::vector<int32_t> statuses = AskEverything();
        for (const size_t withOutput : {1, 2, 3, 5, 7, 9, 16}) {
            EXPECT_EQ(statuses[withOutput], NDISFILTER_BAD_ANSWER) << "request " << withOutput;
        }
    }
}

TEST_F(RequestsTest, AdapterListsStayWithinTheirBounds)
{
    UserAdapterList list = {};
    std::memset(list.m_Adapters[0].m_szAdapterName, 'x', sizeof(list.m_Adapters[0].m_szAdapterName));
    driver.answer = [&](uint32_t, auto, std::span<uint8_t> output) { return Give(output, list); };
    for (const uint32_t count : {33u, UINT32_MAX}) {
        list.m_nAdapterCount = count;
        UserAdapterList adapters;
        EXPECT_EQ(ndisfilter_get_adapters(Raw(), &adapters), NDISFILTER_BAD_ANSWER);
    }
    list.m_nAdapterCount = 32;
    EXPECT_EQ(client.Adapters().size(), 32u);
    EXPECT_EQ(std::strlen(client.Adapters()[0].m_szAdapterName), 255u);
}

TEST_F(RequestsTest, IPConfigurationsAreNotSetWithMoreThanTheyHold)
{
    for (uint32_t UserIPConfig::*const count :
         {&UserIPConfig::m_nIP, &UserIPConfig::m_nGW, &UserIPConfig::m_nDHCP, &UserIPConfig::m_nDNS}) {
        UserIPConfig config = {};
        config.*count = 9;
        EXPECT_EQ(ndisfilter_set_ipconfig(Raw(), &config), NDISFILTER_INVALID_PARAMETER);
    }
}

TEST_F(RequestsTest, NoEventIsTold)
{
    driver.answer = [](auto...) { return ControlResult{}; };
    UserEvent event;
    EXPECT_EQ(ndisfilter_get_event(Raw(), &event), NDISFILTER_NO_EVENT);
    EXPECT_FALSE(client.NextEvent());
}

TEST_F(RequestsTest, DiagnosticTextIsWhatTheDriverHasWritten)
{
    UserDiag header = {};
    std::string written = "first line\nsecond line\n";
    size_t returned = 0;
    driver.answer = [&](uint32_t, auto, std::span<uint8_t> output) {
        std::memcpy(output.data(), &header, sizeof(header));
        std::copy_n(written.begin(), std::min(written.size(), output.size() - 33), output.begin() + 33);
        return ControlResult{NDISFILTER_SUCCESS, std::min(returned, output.size())};
    };
    header.m_BufferUsed = static_cast<uint32_t>(written.size());
    returned = 40 + written.size();
    EXPECT_EQ(client.Diagnose("filter help"), written);

    // More than there is room for, a count below zero, a count that lies.
    written = std::string(500, 'y');
    header.m_BufferUsed = 500;
    returned = 540;
    EXPECT_EQ(client.Diagnose("filter help", 100), std::string(99, 'y'));
    header.m_BufferUsed = UINT32_MAX;
    returned = 39;
    EXPECT_EQ(client.Diagnose("filter help"), "");
    header.m_BufferUsed = INT32_MAX;
    returned = 60;
    EXPECT_EQ(client.Diagnose("filter help"), std::string(27, 'y'));
    returned = 0;
    EXPECT_EQ(client.Diagnose("filter help"), std::nullopt);
}

TEST_F(RequestsTest, DiagnosticsOfUnfitLengthAreNotSent)
{
    driver.answer = [](auto...) { return ControlResult{}; };
    EXPECT_EQ(ndisfilter_diagnose(Raw(), "", text, sizeof(text)), NDISFILTER_INVALID_PARAMETER);
    EXPECT_EQ(ndisfilter_diagnose(Raw(), "filter", text, 63), NDISFILTER_INVALID_PARAMETER);
    EXPECT_EQ(ndisfilter_diagnose(Raw(), std::string(1024, 'a').c_str(), text, 64),
              NDISFILTER_INVALID_PARAMETER);
    EXPECT_EQ(ndisfilter_diagnose(Raw(), std::string(1023, 'a').c_str(), text, 64), NDISFILTER_DIAG_BUSY);
}

TEST(EventTest, IsTakenApartWhateverItsLengthSays)
{
    UserEvent event = {};
    event.m_nEvent1 = 11;
    event.m_nEvent2 = 12;
    UserEventHead head = {1, 2, 3, 4, 5, 6, 7};
    std::memcpy(event.m_Text, &head, sizeof(head));
    std::memcpy(event.m_Text + 38, "message", 7);
    struct {
        int32_t length;
        size_t head;
        size_t message;
    } const cases[] = {{45, 38, 7},     {38, 38, 0},          {37, 0, 37},         {-1, 38, 986},
                       {1025, 38, 986}, {INT32_MAX, 38, 986}, {INT32_MIN, 38, 986}};
    for (const auto& wanted : cases) {
        SCOPED_TRACE(wanted.length);
        event.m_nLength = wanted.length;
        ndisfilter_event decoded;
        ndisfilter_decode_event(&event, &decoded);
        EXPECT_EQ(decoded.event1, 11u);
        EXPECT_EQ(decoded.event2, 12u);
        EXPECT_EQ(decoded.has_head, wanted.head != 0 ? 1 : 0);
        EXPECT_EQ(decoded.message, reinterpret_cast<const char*>(event.m_Text) + wanted.head);
        EXPECT_EQ(decoded.message_size, wanted.message);
        if (wanted.head != 0) {
            EXPECT_EQ(std::memcmp(&decoded.head, &head, sizeof(head)), 0);
        }
    }
}

} // namespace
