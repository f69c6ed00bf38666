// Drivers and filters that go, against the packets that are on their way to them.
#include "race.h"

#include <gtest/gtest.h>

namespace races
{
namespace
{

// A filter of the incoming packets, and one behind it of another driver, which sees them all.
struct FilterRace : Race {
    void Begin() override
    {
        client = std::make_unique<Client>("leaving");
        other = std::make_unique<Client>("staying");
        filter = Register(*client, "leaving", FILTER_ORDER_FIRST);
        Register(*other, "staying", FILTER_ORDER_LAST);
        before = hook::TakeBalance();
    }
    void End() override
    {
        const hook::Balance after = hook::TakeBalance();
        Require(after.IsEven() && after.outstanding == before.outstanding, "every packet has ended once");
        Require(passed == received, "a filter that stays sees every packet once");
        client.reset();
        other.reset();
    }

    PacketFilter* Register(Client& owner, std::string name, FILTER_ORDER order)
    {
        const auto length = static_cast<USHORT>(name.size());
        const STRING counted = {length, length, name.data()};
        PacketFilter* handle = nullptr;
        RequireSuccess(Filter_RegisterFilter(owner.Handle(), &counted, Procedure, this,
                                             FILTER_TYPE_INCOMING_PACKET, order, &handle),
                       "Filter_RegisterFilter");
        return handle;
    }

    void Receive()
    {
        Require(hook::DeliverReceived(Adapter(), support::UdpFrame()) == hook::Accepted::Yes,
                "a frame is accepted");
        ++received;
    }

    static FILTER_RESULT Procedure(FilterDriver*, PVOID driver, PacketFilter*, PVOID context, FilterPacket*)
    {
        auto& race = *static_cast<FilterRace*>(context);
        if (driver == race.other.get()) {
            ++race.passed;
        } else {
            Require(!race.gone, "no procedure runs behind its deregistration");
        }
        return FILTER_RESULT_BYPASS;
    }

    std::unique_ptr<Client> client, other;
    PacketFilter* filter = nullptr;
    std::atomic<bool> gone{false};
    std::atomic<int> received{0}, passed{0};
    hook::Balance before;
};

TEST(Races, DriverDeregistrationAgainstInvocation)
{
    Search<FilterRace>({.shortly = 2, .fully = 3}, [](FilterRace& race) {
        race.threads = {[&] {
                            race.Receive();
                            race.Receive();
                        },
                        [&] {
                            race.client->Deregister();
                            race.gone = true;
                        },
                        [&] { race.Receive(); }};
    });
}

// A packet waits for the filter in a queue while that goes; another filter may come to its place in memory.
TEST(Races, QueuedPacketAgainstFilterDeregistration)
{
    Search<FilterRace>({.shortly = 1, .fully = 2}, [](FilterRace& race) {
        race.threads = {[&] {
                            FilterPacket* const packet = Filter_AllocatePacket(Adapter());
                            packet->m_nDirection = NDIS_FILTER_DIRECTION_TO_PROTOCOL;
                            Filter_InjectPacketFromFilter(FILTER_METHOD_START_FROM_THIS_FILTER, race.filter,
                                                          packet);
                        },
                        [&] {
                            RequireSuccess(Filter_DeregisterFilter(race.client->Handle(), race.filter),
                                           "Filter_DeregisterFilter");
                            race.gone = true;
                        }};
        race.end = [&] {
            Require(race.passed <= 1, "a packet passes a filter once");
            race.received = race.passed.load(); // of a filter that is gone it is dropped or goes on
        };
    });
}

TEST(Races, RegistrationAgainstRegistration)
{
    FilterDriver* drivers[2];
    Search<Race>({.shortly = 3, .fully = 4}, [&](Race& race) {
        const auto add = [](FilterDriver*& driver) {
            char name[] = "one";
            const STRING counted = {3, 3, name};
            driver = nullptr;
            const FILTER_STATUS status = Filter_RegisterDriver(&counted, nullptr, 1, 0, &driver);
            Require(status == FILTER_STATUS_SUCCESS || status == FILTER_ERROR_DRIVER_ALREADY_REGISTERED,
                    "a name is new or known");
            Require((status == FILTER_STATUS_SUCCESS) == (driver != nullptr), "a handle comes with success");
        };
        race.threads = {[&, add] { add(drivers[0]); }, [&, add] { add(drivers[1]); }};
        race.end = [&] {
            Require((drivers[0] == nullptr) != (drivers[1] == nullptr),
                    "of two registrations of one name one succeeds");
            Filter_DeregisterDriver(drivers[0] != nullptr ? drivers[0] : drivers[1]);
        };
    });
}

} // namespace
} // namespace races
