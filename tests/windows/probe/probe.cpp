// A client driver of the tests: its filter faults on every received packet, by a write through a null pointer or an
// invalid instruction in turn.
#include <ntddk.h>

#include <ndis.h>

#include "ndisfilter.h"

namespace
{

FilterDriver* driverHandle;
ULONG calls;

FILTER_RESULT Fault(FilterDriver*, PVOID, PacketFilter*, PVOID, FilterPacket*)
{
    if (++calls % 2 == 0) {
        __asm__ volatile("ud2");
    }
    *static_cast<volatile ULONG*>(nullptr) = calls;
    return FILTER_RESULT_DISCARD;
}

VOID NTAPI Unload(PDRIVER_OBJECT)
{
    Filter_DeregisterDriver(driverHandle);
    DbgPrint("probe: %u faults\n", calls);
}

} // namespace

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    char name[] = "probe";
    const STRING counted = {sizeof(name) - 1, sizeof(name), name};
    PacketFilter* filter = nullptr;
    driverHandle = nullptr;
    calls = 0;
    Filter_RegisterDriver(&counted, nullptr, 1, 0, &driverHandle);
    Filter_RegisterFilter(driverHandle, &counted, Fault, nullptr, FILTER_TYPE_INCOMING_PACKET,
                          FILTER_ORDER_FIRST, &filter);
    driver->DriverUnload = Unload;
    return filter != nullptr ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}
