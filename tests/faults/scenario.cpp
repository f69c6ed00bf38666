#include "scenario.h"

#include <support/loading.h>

namespace faults
{
namespace
{

constexpr uint32_t kTraceEverything = 0xFFFFFFFF;
constexpr uint32_t kPackets = 25; // made all at once: which processor takes one changes nothing

} // namespace

bool StartUp(World& world)
{
    machine::SetDriveC(world.directory);
    machine::SetRegistryDword(support::kFrameworkService, "GlobalDebugFlag", kTraceEverything);
    machine::SetRegistryDword(support::kFrameworkService, "PendingPacketLimit", 1000);
    machine::SetRegistryDword(support::kFrameworkService, "Number", 5);
    machine::SetRegistryString(support::kFrameworkService, "Text", "a text");
    if (Recorded("DriverEntry", [] { return support::LoadFramework(); }) < 0) {
        return false;
    }
    const int32_t hookStatus =
        Recorded("HookDriverEntry", [] { return hook::Load({.packetLimit = kPackets}); });
    if (hookStatus >= 0) {
        Recorded("a first adapter", [&] {
            world.adapter = hook::AddAdapter({.name = "{ADAPTER-1} first", .address = support::kOwnMac});
            return world.adapter;
        });
        if (world.adapter != nullptr) {
            hook::OpenAdapter(world.adapter);
        }
        Recorded("IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK", [] { return hook::Bind({.watched = true}); });
        Recorded("a second adapter", [&] {
            world.second = hook::AddAdapter({.name = "{ADAPTER-2} second", .address = support::kPeerMac});
            if (world.second != nullptr) {
                hook::OpenAdapter(world.second);
            }
            return world.second;
        });
    }
    world.program = std::make_unique<support::UserProgram>();
    g_journal.startsUp = false;
    return world.program->device != nullptr;
}

void UseEverything(World& world)
{
    UseServices();
    UseClients(world);
    StartRequests(world);
    UsePackets(world);
    UseRequests(world);
    DeregisterClients(world);
    UseSockets();
}

void UseAgain(World& world)
{
    UseClients(world);
    UsePackets(world);
    UseRequests(world);
    DeregisterClients(world);
}

void ShutDown(World& world)
{
    world.program.reset();
    if (hook::IsBound()) {
        for (FilterAdapter* adapter : {world.adapter, world.second}) {
            if (adapter != nullptr) {
                Recorded("an adapter closes", [&] { hook::CloseAdapter(adapter); });
            }
        }
        Recorded("IOCTL_NDIS_FILTER_INTERNAL_UNBIND_NDIS_HOOK", [] { return hook::Unbind(); });
    }
    // Before the hook driver, whose packets may be in the framework's queues.
    if (machine::IsDriverLoaded(support::kFrameworkService)) {
        Recorded("DriverUnload", [] { return machine::UnloadDriver(support::kFrameworkService); });
    }
    if (hook::IsLoaded()) {
        Recorded("the hook driver's unload", [] { return hook::Unload(); });
    }
    world = {.directory = world.directory};
}

} // namespace faults
