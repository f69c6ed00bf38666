// The unload of the framework against everything that it has under way.
#include "race.h"

#include <gtest/gtest.h>

#include <optional>
#include <thread>

namespace races
{
namespace
{

class Unload : public Race
{
  protected:
    void Begin() override
    {
        LoadDrivers();
        client_.emplace("client");
        RequireSuccess(Filter_InitializeTimer(client_->Handle(), Callback, nullptr, TRUE, &timer_),
                       "Filter_InitializeTimer");
        Filter_StartTimer(timer_, 5);
        process_ = std::make_unique<machine::Process>();
        file_ = process_->Open("\\\\.\\NdisFilter");
        uint32_t value = 1;
        uint64_t address = 0;
        file_->Control(IOCTL_NDIS_FILTER_START_SHARE, support::In(value), support::Out(address));
        file_->Control(IOCTL_NDIS_FILTER_START_ETHRLOG, {}, {});
        read_.emplace(file_->Send(IOCTL_NDIS_FILTER_READ_SHARE, {}, 0));
    }

    Bodies Threads() override
    {
        return {
            [this] { // the adapters' traffic, until the hook driver takes it away
                hook::DeliverReceived(Adapter(), support::UdpFrame());
                if (FilterPacket* const packet = Filter_AllocatePacket(Adapter())) {
                    Filter_InjectPacketFromApplication(Adapter(), packet, NDIS_FILTER_DIRECTION_TO_PROTOCOL);
                }
                hook::Unbind();
                const machine::Status status = machine::UnloadDriver("NdisFilter");
                Require(status == STATUS_SUCCESS || status == STATUS_PENDING, "an unload is done, or waits");
                ++ended_;
            },
            [this] { // the program
                read_->Cancel();
                file_->Close();
                ++ended_;
            },
            [this] { // the threads of the framework look every 10 ms whether they are to end
                while (ended_ != 2) {
                    machine::AdvanceClock(5);
                    std::this_thread::yield();
                }
            }};
    }

    void End() override
    {
        Require(!machine::IsDriverLoaded("NdisFilter"), "the unload is done when the last handle is closed");
        Require(read_->IsComplete(), "the parked read is completed");
        client_->Forget();
        read_.reset();
        file_.reset();
        process_.reset();
        RequireSuccess(hook::Unload(), "unloading the hook driver");
        Require(hook::TakeBalance().IsEven(), "every packet has ended once");
    }

    static VOID Callback(FilterDriver*, PVOID, FilterTimer* timer, PVOID)
    {
        Require(machine::IsDriverLoaded("NdisFilter"), "no callback comes behind the unload");
        Filter_StartTimer(timer, 5);
        uint8_t signal[NDIS_FILTER_SIGNAL_SIZE] = {};
        Filter_IndicateSignalToApplication(signal);
    }

    std::optional<Client> client_;
    FilterTimer* timer_ = nullptr;
    std::unique_ptr<machine::Process> process_;
    std::unique_ptr<machine::File> file_;
    std::optional<machine::Request> read_;
    std::atomic<int> ended_{0};
};

TEST(Races, UnloadAgainstEverything)
{
    Search({.load = LoadKernel, .make = [] { return std::make_unique<Unload>(); }},
           {.shortly = 0, .fully = 1}); // shortly by chance alone
}

} // namespace
} // namespace races
