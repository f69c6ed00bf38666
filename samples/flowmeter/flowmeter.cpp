// A client filter driver that counts the frames of each adapter, follows what happens to the adapters, asks them for
// their own statistics, and offers all that to other drivers through a named interface.
//
// Configuration, read once at start from the driver's registry key:
//   StatisticsMs  REG_DWORD  adapters are asked for their statistics every so many milliseconds (default 1000)
#include "../support/sample.h"
#include "flowmeter-interface.h"
#include "hook-request.h"

using namespace sample;

namespace
{

constexpr char kName[] = "flowmeter";
constexpr ULONG kRetryMs = 10;

// The fields of a reading that are counters, in its order; changed by any processor.
enum Counter {
    ReceivedFrames,
    ReceivedBytes,
    SentFrames,
    SentBytes,
    AdapterReceived,
    AdapterSent,
    Answers,
    CounterCount
};

struct Meter {
    FilterAdapter* Adapter; // of which the meter is; not touched once the adapter is closed
    UCHAR MacAddress[6];
    BOOLEAN Open;
    BOOLEAN Connected;
    ULONG IpAddress;
    volatile LONG64 Counters[CounterCount];
    volatile LONG Asking; // a request for statistics is under way
    LONG64 Answer;        // room for its result
};

struct FlowMeter {
    FilterDriver* Driver;
    EventHandler* Events;
    FilterInterface* Interface;
    FilterTimer* Timer;
    ULONG ContextIndex;
    BOOLEAN HasContext;
    FilterLock Lock; // of the meters, but for their counters and requests
    Meter Meters[FLOWMETER_METERS];
    volatile LONG RequestsUnderWay; // and one that the unload takes away
    KEVENT NoRequests;
};

FlowMeter flowmeter;

// -------------------------------------------------------------------------------------------- adapter events

Meter* FindMeter(const FilterAdapter* hAdapter)
{
    for (Meter& meter : flowmeter.Meters) {
        if (meter.Adapter == hAdapter) {
            return &meter;
        }
    }
    return nullptr;
}

// The adapter's own meter from before, an unused one, or that of an adapter that is closed.
Meter* TakeMeter(FilterAdapter* hAdapter)
{
    Meter* meter = FindMeter(hAdapter);
    if (meter == nullptr) {
        meter = FindMeter(nullptr);
    }
    for (ULONG i = 0; meter == nullptr && i < FLOWMETER_METERS; ++i) {
        if (!flowmeter.Meters[i].Open && Read(&flowmeter.Meters[i].Asking) == 0) {
            meter = &flowmeter.Meters[i];
        }
    }
    if (meter != nullptr && meter->Adapter != hAdapter) {
        RtlZeroMemory(meter, sizeof(*meter));
        meter->Adapter = hAdapter;
    }
    return meter;
}

VOID ReadAddresses(Meter* meter)
{
    IPConfig config;
    Filter_GetAdapterCurrentAddress(meter->Adapter, meter->MacAddress);
    if (Filter_GetIPConfig(meter->Adapter, &config) != nullptr) {
        meter->IpAddress = config.m_nIP != 0 ? config.m_Address[0].IpAddress : 0;
    }
}

VOID Open(FilterAdapter* hAdapter)
{
    ULONG mediaState = 0;
    Meter* const meter = TakeMeter(hAdapter);
    if (meter == nullptr) {
        return; // more adapters than the framework knows
    }
    ReadAddresses(meter);
    Filter_GetAdapterMediaState(hAdapter, &mediaState);
    meter->Connected = mediaState == 0; // NdisMediaStateConnected
    meter->Open = TRUE;
    // From here the filter procedure finds the meter.
    Filter_SetAdapterContext(flowmeter.Driver, hAdapter, flowmeter.ContextIndex, meter);
}

VOID Close(Meter* meter)
{
    Filter_SetAdapterContext(flowmeter.Driver, meter->Adapter, flowmeter.ContextIndex, nullptr);
    meter->Open = FALSE;
}

// Adapters that were open before the driver are reported as opened, maybe a second time.
VOID OnAdapterEvent(FilterDriver*, PVOID, ULONG nEvent, PVOID, FilterAdapter* hAdapter)
{
    Filter_AcquireLock(&flowmeter.Lock);
    Meter* const meter = FindMeter(hAdapter);
    if (nEvent == FILTER_EVENT_ADAPTER_OPENED) {
        Open(hAdapter);
    } else if (meter != nullptr && nEvent == FILTER_EVENT_ADAPTER_CLOSED) {
        Close(meter);
    } else if (meter != nullptr && nEvent == FILTER_EVENT_IPCONFIG_CHANGED) {
        ReadAddresses(meter);
    } else if (meter != nullptr) {
        meter->Connected = nEvent == FILTER_EVENT_MEDIA_CONNECT;
    }
    Filter_ReleaseLock(&flowmeter.Lock);
}

// ------------------------------------------------------------------------------------------------ statistics

VOID EndRequest()
{
    if (InterlockedDecrement(&flowmeter.RequestsUnderWay) == 0) {
        KeSetEvent(&flowmeter.NoRequests, IO_NO_INCREMENT, FALSE);
    }
}

VOID OnAnswer(HookRequest* pRequest, PVOID pMeter);

// FALSE: it was not made, and will not be answered.
BOOLEAN MakeRequest(HookRequest* pRequest, Meter* meter, ULONG oid)
{
    meter->Answer = 0;
    *pRequest = {};
    pRequest->m_nType = kQueryInformation;
    pRequest->m_nOid = oid;
    pRequest->m_pInformation = &meter->Answer;
    pRequest->m_nInformationLength = sizeof(meter->Answer);
    pRequest->m_pfCompleted = OnAnswer;
    return Filter_MakeNdisRequest(meter->Adapter, pRequest, meter) == FILTER_STATUS_SUCCESS;
}

VOID FinishAsking(HookRequest* pRequest, Meter* meter)
{
    Filter_FreeNdisRequest(pRequest);
    InterlockedExchange(&meter->Asking, 0);
    EndRequest();
}

// Asks for the frames received, and when that is answered, with the same request, for the frames sent.
VOID OnAnswer(HookRequest* pRequest, PVOID pMeter)
{
    Meter* const meter = static_cast<Meter*>(pMeter);
    const BOOLEAN received = pRequest->m_nOid == kOidReceived;
    if (pRequest->m_nStatus == 0) {
        InterlockedExchange64(&meter->Counters[received ? AdapterReceived : AdapterSent], meter->Answer);
    }
    if (received && MakeRequest(pRequest, meter, kOidTransmitted)) {
        return;
    }
    if (!received && pRequest->m_nStatus == 0) {
        InterlockedIncrement64(&meter->Counters[Answers]);
    }
    FinishAsking(pRequest, meter);
}

// FALSE: the adapter is not open, or has not answered the last question.
BOOLEAN BeginAsking(Meter* meter)
{
    Filter_AcquireLock(&flowmeter.Lock); // against a meter that is given to another adapter
    const BOOLEAN begun = meter->Open && InterlockedCompareExchange(&meter->Asking, 1, 0) == 0;
    Filter_ReleaseLock(&flowmeter.Lock);
    return begun;
}

VOID AskForStatistics(Meter* meter)
{
    PVOID handle = nullptr;
    if (!BeginAsking(meter)) {
        return;
    }
    InterlockedIncrement(&flowmeter.RequestsUnderWay);
    if (Filter_AllocateNdisRequest(&handle) != FILTER_STATUS_SUCCESS) {
        InterlockedExchange(&meter->Asking, 0);
        EndRequest();
    } else if (!MakeRequest(static_cast<HookRequest*>(handle), meter, kOidReceived)) {
        FinishAsking(static_cast<HookRequest*>(handle), meter);
    }
}

VOID OnTimer(FilterDriver*, PVOID, FilterTimer*, PVOID)
{
    for (Meter& meter : flowmeter.Meters) {
        AskForStatistics(&meter);
    }
}

// ------------------------------------------------------------------------------------------------ the filter

FILTER_RESULT CountFrame(FilterDriver*, PVOID, PacketFilter*, PVOID, FilterPacket* pPacket)
{
    PVOID context = nullptr;
    Filter_GetAdapterContext(pPacket->m_hAdapter, flowmeter.ContextIndex, &context);
    if (context != nullptr) {
        volatile LONG64* const counters = static_cast<Meter*>(context)->Counters;
        const BOOLEAN received = pPacket->m_nDirection == NDIS_FILTER_DIRECTION_TO_PROTOCOL;
        InterlockedIncrement64(&counters[received ? ReceivedFrames : SentFrames]);
        InterlockedExchangeAdd64(&counters[received ? ReceivedBytes : SentBytes], pPacket->m_nPacketSize);
    }
    return FILTER_RESULT_BYPASS;
}

// --------------------------------------------------------------------------------------------- the interface

LONG64 ReadCounter(Meter& meter, Counter counter)
{
    return InterlockedCompareExchange64(&meter.Counters[counter], 0, 0);
}

BOOLEAN ReadMeter(ULONG nMeter, FlowMeterReading* pReading)
{
    if (nMeter >= FLOWMETER_METERS) {
        return FALSE;
    }
    Meter& meter = flowmeter.Meters[nMeter];
    Filter_AcquireLock(&flowmeter.Lock);
    const BOOLEAN inUse = meter.Adapter != nullptr;
    if (inUse) {
        RtlCopyMemory(pReading->m_MacAddress, meter.MacAddress, sizeof(meter.MacAddress));
        pReading->m_bOpen = meter.Open;
        pReading->m_bConnected = meter.Connected;
        pReading->m_nIpAddress = meter.IpAddress;
        pReading->m_nReceivedFrames = ReadCounter(meter, ReceivedFrames);
        pReading->m_nReceivedBytes = ReadCounter(meter, ReceivedBytes);
        pReading->m_nSentFrames = ReadCounter(meter, SentFrames);
        pReading->m_nSentBytes = ReadCounter(meter, SentBytes);
        pReading->m_nAdapterReceived = ReadCounter(meter, AdapterReceived);
        pReading->m_nAdapterSent = ReadCounter(meter, AdapterSent);
        pReading->m_nStatisticsAnswered = static_cast<ULONG>(ReadCounter(meter, Answers));
    }
    Filter_ReleaseLock(&flowmeter.Lock);
    return inUse;
}

char driverName[] = "flowmeter";
char incomingName[] = "flowmeter-incoming";
char outgoingName[] = "flowmeter-outgoing";
char interfaceName[] = FLOWMETER_INTERFACE_NAME;

BOOLEAN Publish()
{
    const STRING name = CountedName(interfaceName);
    const FlowMeterInterface block = {sizeof(FlowMeterInterface), FLOWMETER_INTERFACE_VERSION, ReadMeter};
    const FILTER_STATUS status =
        Filter_RegisterInterface(flowmeter.Driver, &name, &block, &flowmeter.Interface);
    return IsRegistered(kName, "its interface", status, flowmeter.Interface);
}

// Others call ReadMeter as long as they hold a reference, so the driver must stay until then.
VOID Withdraw()
{
    if (flowmeter.Interface == nullptr) {
        return;
    }
    if (Filter_DeregisterInterface(flowmeter.Driver, flowmeter.Interface) !=
        FILTER_ERROR_INTERFACE_ARE_REFERENCED) {
        return;
    }
    DbgPrint("flowmeter: the interface is in use, waiting for its users\n");
    const STRING name = CountedName(interfaceName);
    LARGE_INTEGER interval;
    interval.QuadPart = -10000LL * kRetryMs;
    PVOID other;
    FILTER_STATUS status;
    while ((status = Filter_QueryInterface(flowmeter.Driver, &name, &other)) == FILTER_ERROR_INTERFACE_ARE_INVALID) {
        KeDelayExecutionThread(KernelMode, FALSE, &interval); // the last release frees it, and its name
    }
    if (status == FILTER_STATUS_SUCCESS) { // another driver has taken the name
        Filter_ReleaseInterface(flowmeter.Driver, other);
    }
}

// -------------------------------------------------------------------------------------------- start and stop

BOOLEAN RegisterFilter(STRING name, FILTER_TYPE nType)
{
    PacketFilter* hFilter = nullptr;
    const FILTER_STATUS status = Filter_RegisterFilter(flowmeter.Driver, &name, CountFrame, nullptr, nType,
                                                       FILTER_ORDER_FIRST, &hFilter);
    return IsRegistered(kName, name.Buffer, status, hFilter);
}

BOOLEAN AcquireContext()
{
    const FILTER_STATUS status = Filter_AcquireAdapterContext(flowmeter.Driver, &flowmeter.ContextIndex);
    flowmeter.HasContext = status == FILTER_STATUS_SUCCESS;
    return IsRegistered(kName, "an adapter context", status, &flowmeter.ContextIndex);
}

BOOLEAN RegisterEvents()
{
    const FILTER_STATUS status =
        Filter_RegisterEventHandler(flowmeter.Driver, OnAdapterEvent, nullptr, &flowmeter.Events);
    return IsRegistered(kName, "for adapter events", status, flowmeter.Events);
}

BOOLEAN StartTimer(ULONG milliseconds)
{
    const FILTER_STATUS status =
        Filter_InitializeTimer(flowmeter.Driver, OnTimer, nullptr, TRUE, &flowmeter.Timer);
    return IsRegistered(kName, "its timer", status, flowmeter.Timer) &&
           Filter_StartTimer(flowmeter.Timer, milliseconds) == FILTER_STATUS_SUCCESS;
}

BOOLEAN Start(ULONG statisticsMs)
{
    STRING name = CountedName(driverName);
    const FILTER_STATUS status = Filter_RegisterDriver(&name, &flowmeter, 1, 0, &flowmeter.Driver);
    if (!IsRegistered(kName, "as a client driver", status, flowmeter.Driver) || !AcquireContext() ||
        !RegisterEvents()) {
        return FALSE;
    }
    Filter_EnumOpenedAdapter(); // for those that are open already
    return RegisterFilter(CountedName(incomingName), FILTER_TYPE_INCOMING_PACKET) &&
           RegisterFilter(CountedName(outgoingName), FILTER_TYPE_OUTGOING_PACKET) && Publish() &&
           StartTimer(statisticsMs);
}

VOID ReleaseContext()
{
    // Who gets the slot next finds what is left in it.
    for (Meter& meter : flowmeter.Meters) {
        if (meter.Open) {
            Close(&meter);
        }
    }
    Filter_ReleaseAdapterContext(flowmeter.Driver, flowmeter.ContextIndex);
}

// In the opposite order: first what calls in from elsewhere, the context behind the filters that read it.
VOID Stop()
{
    if (flowmeter.Driver == nullptr) {
        return;
    }
    if (flowmeter.Timer != nullptr) {
        Filter_FreeTimer(flowmeter.Driver, flowmeter.Timer); // no more request is begun
    }
    EndRequest();
    KeWaitForSingleObject(&flowmeter.NoRequests, Executive, KernelMode, FALSE, nullptr);
    Withdraw();
    if (flowmeter.Events != nullptr) {
        Filter_DeregisterEventHandler(flowmeter.Driver, flowmeter.Events);
    }
    if (flowmeter.HasContext) {
        ReleaseContext();
    }
    Filter_DeregisterDriver(flowmeter.Driver);
}

VOID DriverUnload(PDRIVER_OBJECT)
{
    Stop();
    FlowMeterReading reading;
    for (ULONG i = 0; i < FLOWMETER_METERS; ++i) {
        if (ReadMeter(i, &reading)) {
            const UCHAR* const mac = reading.m_MacAddress;
            DbgPrint("flowmeter: %2.2x:%2.2x:%2.2x:%2.2x:%2.2x:%2.2x received %I64d frames, sent %I64d\n", mac[0],
                     mac[1], mac[2], mac[3], mac[4], mac[5], reading.m_nReceivedFrames, reading.m_nSentFrames);
        }
    }
}

} // namespace

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    RtlZeroMemory(&flowmeter, sizeof(flowmeter));
    Filter_InitializeLock(&flowmeter.Lock);
    flowmeter.RequestsUnderWay = 1;
    KeInitializeEvent(&flowmeter.NoRequests, NotificationEvent, FALSE);
    DriverObject->DriverUnload = DriverUnload;
    if (!Start(Filter_RegGetDwordValue(RegistryPath, L"StatisticsMs", 1000))) {
        Stop();
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return STATUS_SUCCESS;
}
