// The smallest useful filter driver: the machine does not answer pings any more.
#include <ntddk.h>

#include <ndis.h>

#include <ndisfilter.h>

namespace
{

constexpr UCHAR ICMP_ECHO_REQUEST = 8; // RFC 792

FilterDriver* driverHandle;

// Runs for every received frame, at DISPATCH_LEVEL, on several processors at once.
FILTER_RESULT DropEchoRequest(FilterDriver*, PVOID, PacketFilter*, PVOID, FilterPacket* pPacket)
{
    const UCHAR* const icmp = pPacket->m_pIcmp; // the framework has found the headers
    return icmp != nullptr && icmp[0] == ICMP_ECHO_REQUEST ? FILTER_RESULT_DISCARD : FILTER_RESULT_BYPASS;
}

VOID NTAPI Unload(PDRIVER_OBJECT)
{
    Filter_DeregisterDriver(
        driverHandle); // takes the filter along; DropEchoRequest does not run any more behind this
}

} // namespace

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    char text[] = "quiet";
    const STRING name = {sizeof(text) - 1, sizeof(text), text};

    driverHandle = nullptr; // stays null where a success means that no memory was left
    Filter_RegisterDriver(&name, nullptr, 1, 0, &driverHandle);
    if (driverHandle == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    PacketFilter* filter = nullptr;
    Filter_RegisterFilter(driverHandle, &name, DropEchoRequest, nullptr, FILTER_TYPE_INCOMING_PACKET,
                          FILTER_ORDER_FIRST, &filter);
    if (filter == nullptr) {
        Filter_DeregisterDriver(driverHandle);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    driver->DriverUnload = Unload;
    return STATUS_SUCCESS;
}
