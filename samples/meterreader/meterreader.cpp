// A client driver without packet filters: reads the meters of the sample driver "flowmeter" through its interface, and
// shows them on the diagnostic command "meterreader". The two may come and go in any order.
#include "../support/sample.h"
#include "../flowmeter/flowmeter-interface.h"

using namespace sample;

namespace
{

constexpr char kName[] = "meterreader";

struct Reader {
    FilterDriver* Driver;
    IfEventHandler* Events;
    FilterLock Lock; // held while the interface is called: its owner's departure waits
    FlowMeterInterface* Meters;
};

Reader reader;

char driverName[] = "meterreader";
char interfaceName[] = FLOWMETER_INTERFACE_NAME;

VOID Release(PVOID pInterface)
{
    if (pInterface != nullptr) {
        Filter_ReleaseInterface(reader.Driver, pInterface);
    }
}

// Gives the reference back, when there is one.
VOID Disconnect()
{
    Filter_AcquireLock(&reader.Lock);
    FlowMeterInterface* const meters = reader.Meters;
    reader.Meters = nullptr;
    Filter_ReleaseLock(&reader.Lock);
    Release(meters);
}

// Nothing happens when there is no such interface yet: an event tells of it.
VOID Connect()
{
    const STRING name = CountedName(interfaceName);
    PVOID copy = nullptr;
    if (Filter_QueryInterface(reader.Driver, &name, &copy) != FILTER_STATUS_SUCCESS) {
        return;
    }
    PVOID surplus = copy; // unless it is kept
    FlowMeterInterface* const meters = static_cast<FlowMeterInterface*>(copy);
    if (meters->m_nLength >= sizeof(FlowMeterInterface) && meters->m_nVersion == FLOWMETER_INTERFACE_VERSION) {
        Filter_AcquireLock(&reader.Lock);
        if (reader.Meters == nullptr) {
            reader.Meters = meters;
            surplus = nullptr;
        }
        Filter_ReleaseLock(&reader.Lock);
    }
    Release(surplus);
}

VOID OnInterfaceEvent(FilterDriver*, PVOID, ULONG nEvent, PVOID, const STRING* pName)
{
    const STRING name = CountedName(interfaceName);
    if (Filter_CompareString(pName, &name) != 0) {
        return;
    }
    if (nEvent == FILTER_IF_EVENT_REGISTERED) {
        Connect();
    } else if (nEvent == FILTER_IF_EVENT_DEREGISTERING) {
        Disconnect();
    }
}

VOID PrintReading(Diag* pDiag, const FlowMeterReading& reading)
{
    const UCHAR* const mac = reading.m_MacAddress;
    char address[16];
    Filter_DiagPrint(pDiag, "%2.2x:%2.2x:%2.2x:%2.2x:%2.2x:%2.2x %s %s%s\n", mac[0], mac[1], mac[2], mac[3], mac[4],
                     mac[5], inet_ntoa(reading.m_nIpAddress, address, sizeof(address)),
                     reading.m_bOpen ? "open" : "closed", reading.m_bConnected ? "" : ", no link");
    Filter_DiagPrint(pDiag, "  received %I64d frames, %I64d bytes; sent %I64d frames, %I64d bytes\n",
                     reading.m_nReceivedFrames, reading.m_nReceivedBytes, reading.m_nSentFrames,
                     reading.m_nSentBytes);
    Filter_DiagPrint(pDiag, "  the adapter itself: received %I64d frames, sent %I64d, asked %u times\n",
                     reading.m_nAdapterReceived, reading.m_nAdapterSent, reading.m_nStatisticsAnswered);
}

VOID Answer(Diag* pDiag)
{
    Filter_AcquireLock(&reader.Lock);
    if (reader.Meters == nullptr || !Filter_IsValidInterface(reader.Meters)) {
        Filter_DiagPrint(pDiag, "no flow meter is there\n");
    } else {
        FlowMeterReading reading;
        for (ULONG i = 0; i < FLOWMETER_METERS; ++i) {
            if (reader.Meters->m_pfRead(i, &reading)) {
                PrintReading(pDiag, reading);
            }
        }
    }
    Filter_ReleaseLock(&reader.Lock);
}

NTSTATUS HandleControl(PVOID pContext, PIRP pIrp, ULONG nControlCode, PVOID pInput, ULONG nInputLength,
                       PVOID pOutput, ULONG nOutputLength, ULONG_PTR* pBytesReturned)
{
    if (nControlCode == IOCTL_NDIS_FILTER_DIAG) {
        return HandleDiag(kName, "reads the flow meter", pInput, nInputLength, pOutput, nOutputLength, Answer);
    }
    return Filter_DefaultIoCtrlHandler(pContext, pIrp, nControlCode, pInput, nInputLength, pOutput, nOutputLength,
                                       pBytesReturned);
}

BOOLEAN RegisterEvents()
{
    const FILTER_STATUS status =
        Filter_RegisterIfEventHandler(reader.Driver, OnInterfaceEvent, nullptr, &reader.Events);
    return IsRegistered(kName, "for interface events", status, reader.Events);
}

BOOLEAN RegisterHandler()
{
    IoCtrlHandler* hHandler = nullptr;
    const FILTER_STATUS status = Filter_RegisterIoControl(reader.Driver, HandleControl, nullptr, &hHandler);
    return IsRegistered(kName, "its control requests", status, hHandler);
}

// The event handler is there before the query: an interface that comes between the two is not missed.
BOOLEAN Start()
{
    Filter_InitializeLock(&reader.Lock);
    STRING name = CountedName(driverName);
    const FILTER_STATUS status = Filter_RegisterDriver(&name, &reader, 1, 0, &reader.Driver);
    if (!IsRegistered(kName, "as a client driver", status, reader.Driver) || !RegisterEvents() ||
        !RegisterHandler()) {
        return FALSE;
    }
    Connect();
    return TRUE;
}

// Deregistering the driver removes neither its interface event handler nor its references.
VOID Stop()
{
    if (reader.Driver == nullptr) {
        return;
    }
    if (reader.Events != nullptr) {
        Filter_DeregisterIfEventHandler(reader.Driver, reader.Events);
    }
    Disconnect();
    Filter_DeregisterDriver(reader.Driver);
}

VOID DriverUnload(PDRIVER_OBJECT)
{
    Stop();
}

} // namespace

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING)
{
    reader = {};
    DriverObject->DriverUnload = DriverUnload;
    if (!Start()) {
        Stop();
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return STATUS_SUCCESS;
}
