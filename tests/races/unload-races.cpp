// The unload of the framework against everything that it has under way.
#include "race.h"

#include <gtest/gtest.h>

#include <optional>
#include <thread>

namespace races
{
namespace
{

VOID OnTimer(FilterDriver*, PVOID, FilterTimer* timer, PVOID)
{
    Require(machine::IsDriverLoaded("NdisFilter"), "no callback comes behind the unload");
    Filter_StartTimer(timer, 5);
    uint8_t signal[NDIS_FILTER_SIGNAL_SIZE] = {};
    Filter_IndicateSignalToApplication(signal);
}

TEST(Races, UnloadAgainstEverything)
{
    std::optional<Client> client;
    std::optional<support::UserProgram> program;
    std::optional<machine::Request> read;
    std::atomic<int> ended;
    const auto layOut = [&](Race& race) {
        LoadDrivers();
        client.emplace("client");
        FilterTimer* timer = nullptr;
        RequireSuccess(Filter_InitializeTimer(client->Handle(), OnTimer, nullptr, TRUE, &timer),
                       "Filter_InitializeTimer");
        Filter_StartTimer(timer, 5);
        program.emplace();
        support::StartShare(*program->device);
        program->device->Control(IOCTL_NDIS_FILTER_START_ETHRLOG, {}, {});
        read.emplace(program->device->Send(IOCTL_NDIS_FILTER_READ_SHARE, {}, 0));
        ended = 0;
        race.threads = {
            [&] { // the adapters' traffic, until the hook driver takes it away
                hook::DeliverReceived(Adapter(), support::UdpFrame());
                if (FilterPacket* const packet = Filter_AllocatePacket(Adapter())) {
                    Filter_InjectPacketFromApplication(Adapter(), packet, NDIS_FILTER_DIRECTION_TO_PROTOCOL);
                }
                hook::Unbind();
                const machine::Status status = machine::UnloadDriver("NdisFilter");
                Require(status == STATUS_SUCCESS || status == STATUS_PENDING, "an unload is done, or waits");
                ++ended;
            },
            [&] { // the program
                read->Cancel();
                program->device->Close();
                ++ended;
            },
            [&] { // the threads of the framework look every 10 ms whether they are to end
                while (ended != 2) {
                    machine::AdvanceClock(5);
                    std::this_thread::yield();
                }
            }};
        race.end = [&] {
            Require(!machine::IsDriverLoaded("NdisFilter"),
                    "the unload is done when the last handle is closed");
            Require(read->IsComplete(), "the parked read is completed");
            client->Forget();
            read.reset();
            program.reset();
            RequireSuccess(hook::Unload(), "unloading the hook driver");
            Require(hook::TakeBalance().IsEven(), "every packet has ended once");
        };
    };
    Search<Race>({.shortly = 0, .fully = 1}, layOut, false, LoadKernel); // shortly by chance alone
}

} // namespace
} // namespace races
