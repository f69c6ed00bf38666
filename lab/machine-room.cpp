#include "machine-room.h"

#include "lab-error.h"

#include <fmt/format.h>
#include <hook/virtual-adapters.h>
#include <machine.h>

// The entry routine of the framework, which is linked into the lab.
extern "C" int32_t DriverEntry(_DRIVER_OBJECT* driver, _UNICODE_STRING* registryPath);

namespace lab
{
namespace
{

void Check(machine::Status status, const char* what)
{
    if (status < 0) {
        throw LabError(ExitCode::BrokenRule,
                       fmt::format("{} failed with status 0x{:08X}; --debug-mask 0xFFFFFFFF "
                                   "shows how far it came",
                                   what, static_cast<uint32_t>(status)));
    }
}

void SetRegistry(const std::vector<Setting>& settings)
{
    for (const Setting& setting : settings) {
        if (setting.isNumber) {
            machine::SetRegistryDword(setting.service, setting.name, setting.number);
        } else {
            machine::SetRegistryString(setting.service, setting.name, setting.text);
        }
    }
}

} // namespace

MachineRoom::MachineRoom(const std::vector<Setting>& settings, uint32_t packetLimit, bool sockets)
    : sockets_(sockets)
{
    machine::PrintViolations(false); // they are part of the report
    SetRegistry(settings);
    Check(machine::LoadDriver(kFrameworkService, DriverEntry), "loading the framework");
    try {
        if (sockets_) {
            Check(machine::LoadTransport(), "loading the transport");
        }
        Check(hook::Load({.packetLimit = packetLimit}), "loading the hook driver");
        Check(hook::Bind(), "binding the hook driver to the framework");
    } catch (const LabError&) {
        Stop();
        throw;
    }
}

MachineRoom::~MachineRoom()
{
    Stop();
}

void MachineRoom::Stop()
{
    if (running_) {
        hook::Unload();
        if (sockets_) {
            machine::UnloadTransport();
        }
        machine::UnloadDriver(kFrameworkService);
        running_ = false;
    }
}

} // namespace lab
