// A client driver that changes nothing: it counts received frames by their length and prints the counts when
// it is unloaded.
#include <ntddk.h>

#include <ndis.h>

#include <ndisfilter.h>

namespace
{

constexpr ULONG kLongest[] = {64, 128, 256, 512, 1024, FILTER_PACKET_DATA_SIZE};
constexpr ULONG kClasses = RTL_NUMBER_OF(kLongest);

FilterDriver* driverHandle;
volatile LONG frames[kClasses]; // filter procedures run on several processors at once

FILTER_RESULT CountFrame(FilterDriver*, PVOID, PacketFilter*, PVOID, FilterPacket* pPacket)
{
    for (ULONG i = 0; i < kClasses; ++i) {
        if (pPacket->m_nPacketSize <= kLongest[i]) {
            InterlockedIncrement(&frames[i]);
            break;
        }
    }
    return FILTER_RESULT_BYPASS;
}

VOID NTAPI Unload(PDRIVER_OBJECT)
{
    Filter_DeregisterDriver(driverHandle); // CountFrame does not run any more behind this
    for (ULONG i = 0; i < kClasses; ++i) {
        DbgPrint("sizes: %d frames of up to %u bytes\n", frames[i], kLongest[i]);
    }
}

} // namespace

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    char name[] = "sizes";
    const STRING counted = {sizeof(name) - 1, sizeof(name), name};

    // A handle that stays null behind a success: there was no memory.
    driverHandle = nullptr;
    if (Filter_RegisterDriver(&counted, nullptr, 1, 0, &driverHandle) != FILTER_STATUS_SUCCESS ||
        driverHandle == nullptr) {
        return STATUS_UNSUCCESSFUL;
    }
    PacketFilter* filter = nullptr;
    if (Filter_RegisterFilter(driverHandle, &counted, CountFrame, nullptr, FILTER_TYPE_INCOMING_PACKET,
                              FILTER_ORDER_LAST, &filter) != FILTER_STATUS_SUCCESS ||
        filter == nullptr) {
        Filter_DeregisterDriver(driverHandle);
        return STATUS_UNSUCCESSFUL;
    }
    driver->DriverUnload = Unload;
    return STATUS_SUCCESS;
}
