// Drivers and filters that go, against the packets that are on their way to them.
#include "race.h"

#include <gtest/gtest.h>

namespace races
{
namespace
{

// A filter of the incoming packets, and one behind it of another driver, which sees them all.
class FilterRace : public Race
{
  protected:
    void Begin() override
    {
        client_ = std::make_unique<Client>("leaving");
        other_ = std::make_unique<Client>("staying");
        filter_ = Register(*client_, "leaving", FILTER_ORDER_FIRST);
        Register(*other_, "staying", FILTER_ORDER_LAST);
        before_ = hook::TakeBalance();
    }
    void End() override
    {
        const hook::Balance after = hook::TakeBalance();
        Require(after.IsEven() && after.outstanding == before_.outstanding, "every packet has ended once");
        Require(passed_ == received_, "a filter that stays sees every packet once");
        client_.reset();
        other_.reset();
    }

    PacketFilter* Register(Client& client, std::string name, FILTER_ORDER order)
    {
        const auto length = static_cast<USHORT>(name.size());
        const STRING counted = {length, length, name.data()};
        PacketFilter* filter = nullptr;
        RequireSuccess(Filter_RegisterFilter(client.Handle(), &counted, Procedure, this,
                                             FILTER_TYPE_INCOMING_PACKET, order, &filter),
                       "Filter_RegisterFilter");
        return filter;
    }

    void Receive()
    {
        Require(hook::DeliverReceived(Adapter(), support::UdpFrame()) == hook::Accepted::Yes,
                "a frame is accepted");
        ++received_;
    }

    static FILTER_RESULT Procedure(FilterDriver*, PVOID driver, PacketFilter*, PVOID context, FilterPacket*)
    {
        auto& race = *static_cast<FilterRace*>(context);
        if (driver == race.other_.get()) {
            ++race.passed_;
        } else {
            Require(!race.gone_, "no procedure runs behind its deregistration");
        }
        return FILTER_RESULT_BYPASS;
    }

    std::unique_ptr<Client> client_, other_;
    PacketFilter* filter_ = nullptr;
    std::atomic<bool> gone_{false};
    std::atomic<int> received_{0}, passed_{0};
    hook::Balance before_;
};

class DeregisterDriver : public FilterRace
{
    Bodies Threads() override
    {
        return {[this] {
                    Receive();
                    Receive();
                },
                [this] {
                    client_->Deregister();
                    gone_ = true;
                },
                [this] { Receive(); }};
    }
};

TEST(Races, DriverDeregistrationAgainstInvocation)
{
    Search<DeregisterDriver>({.shortly = 2, .fully = 3});
}

// A packet waits for the filter in a queue while that goes; another filter may come to its place in memory.
class QueuedForFilter : public FilterRace
{
    Bodies Threads() override
    {
        return {[this] {
                    FilterPacket* const packet = Filter_AllocatePacket(Adapter());
                    packet->m_nDirection = NDIS_FILTER_DIRECTION_TO_PROTOCOL;
                    ++received_;
                    Filter_InjectPacketFromFilter(FILTER_METHOD_START_FROM_THIS_FILTER, filter_, packet);
                },
                [this] {
                    RequireSuccess(Filter_DeregisterFilter(client_->Handle(), filter_),
                                   "Filter_DeregisterFilter");
                    gone_ = true;
                }};
    }
    void End() override
    {
        Require(passed_ <= 1, "a packet passes a filter once");
        received_ = passed_.load(); // of a filter that is gone it is dropped or goes on
        FilterRace::End();
    }
};

TEST(Races, QueuedPacketAgainstFilterDeregistration)
{
    Search<QueuedForFilter>({.shortly = 1, .fully = 2});
}

class OneName : public Race
{
    Bodies Threads() override
    {
        const auto add = [this](FilterDriver*& driver) {
            char name[] = "one";
            const STRING counted = {3, 3, name};
            const FILTER_STATUS status = Filter_RegisterDriver(&counted, nullptr, 1, 0, &driver);
            Require(status == FILTER_STATUS_SUCCESS || status == FILTER_ERROR_DRIVER_ALREADY_REGISTERED,
                    "a name is new or known");
            Require((status == FILTER_STATUS_SUCCESS) == (driver != nullptr), "a handle comes with success");
        };
        return {[this, add] { add(first_); }, [this, add] { add(second_); }};
    }
    void End() override
    {
        Require((first_ == nullptr) != (second_ == nullptr), "of two registrations of one name one succeeds");
        Filter_DeregisterDriver(first_ != nullptr ? first_ : second_);
    }
    FilterDriver* first_ = nullptr;
    FilterDriver* second_ = nullptr;
};

TEST(Races, RegistrationAgainstRegistration)
{
    Search<OneName>({.shortly = 3, .fully = 4});
}

} // namespace
} // namespace races
