// The scenario: a machine with the framework, the hook driver, a transport and one user program, in which every export
// and every control request is used once along its successful road. A run goes on behind whatever failed, as careful
// callers do: without what a failed call was to bring about, and never twice.
#pragma once

#include "journal.h"

#include <support/client.h>
#include <support/rings.h>

#include <hook/virtual-adapters.h>
#include <machine.h>

#include <ntddk.h>

#include <ndis.h>

#include <ndisfilter.h>

#include <memory>
#include <string>

namespace faults
{

struct World {
    std::string directory; // drive C
    FilterAdapter* adapter = nullptr;
    FilterAdapter* second = nullptr;
    FilterDriver* driver = nullptr;
    FilterDriver* other = nullptr;
    PacketFilter* filters[FILTER_TYPE_COUNT] = {};
    std::unique_ptr<support::UserProgram> program = nullptr;
};

// Start-up: the framework, the hook driver, its adapters, the binding. False: the framework could not be loaded.
bool StartUp(World& world);
void UseEverything(World& world);
// What still has to work behind any fault.
void UseAgain(World& world);
void ShutDown(World& world);

// The parts of UseEverything, in its order.
void UseServices();
void UseClients(World& world); // leaves two drivers, and a filter of each type
void StartRequests(World& world);
void UsePackets(World& world);
void UseRequests(World& world);
void DeregisterClients(World& world);
void UseSockets();

FilterPacket* NewPacket(World& world); // null without one
// A filter keeps the next packet that comes to one; it is the caller's then, or there was none.
void KeepNext();
FilterPacket* TakeKept();

inline machine::Request::Result Ask(const char* name, World& world, uint32_t code,
                                    std::span<const uint8_t> input = {}, std::span<uint8_t> output = {})
{
    g_journal.Begin(name);
    const machine::Request::Result result = world.program->device->Control(code, input, output);
    g_journal.End(result.status < 0 ? result.status : static_cast<int64_t>(result.information));
    return result;
}
// A control request under the name of its code.
#define REQUEST(Code, ...) faults::Ask(#Code, world, Code __VA_OPT__(, ) __VA_ARGS__)

using support::CountedString;
using support::In;
using support::Out;

} // namespace faults
