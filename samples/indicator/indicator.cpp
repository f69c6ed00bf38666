// A client filter driver that shows a user program the frames of a port, both ways, and lets all frames pass.
//
// Configuration, read once at start from the driver's registry key:
//   IndicatePort  REG_DWORD  TCP or UDP port, 0 (default): every frame
//   SignalEvery   REG_DWORD  a signal goes out after so many frames (default 100), 0: none
#include <ntddk.h>
#include <ndis.h>

#include "ndisfilter.h"

#include "indicator.h"

namespace
{

constexpr ULONG kMaxPort = 65535;
constexpr ULONG kPorts = 4; // TCP and UDP begin with source and destination port: RFC 9293, RFC 768

struct Indicator {
    FilterDriver* Driver;
    ULONG SignalEvery;
    volatile LONG Port; // set by a control request while frames pass
    volatile LONG Indicated;
    volatile LONG Signals;
    volatile LONG SignalsRefused;
};

Indicator indicator;

// A value that another processor may be changing.
ULONG Read(volatile LONG* value)
{
    return static_cast<ULONG>(InterlockedCompareExchange(value, 0, 0));
}

// ---------------------------------------------------------------------------------------------- the filter

USHORT ReadPort(const UCHAR* bytes)
{
    return static_cast<USHORT>(bytes[0] << 8 | bytes[1]);
}

// A frame is indicated from the packet's buffer, so the whole of it must be there.
VOID FetchFrame(FilterPacket* pPacket)
{
    const BOOLEAN lazy =
        !pPacket->m_bDirty && pPacket->m_nBytesRead < pPacket->m_nPacketSize &&
        (pPacket->m_pIncomingNdisPacket != nullptr || pPacket->m_pOutgoingNdisPacket != nullptr);
    if (lazy) {
        Filter_TransferPacketData(pPacket);
        Filter_InitPacketHeader(pPacket, nullptr);
    }
}

// Whether a frame comes from or goes to the port. The parser looks at no length, so its pointers may lie
// behind the end of a short frame; of a fragmented datagram only the first fragment has ports.
BOOLEAN HasPort(const FilterPacket* pPacket, ULONG port)
{
    const UCHAR* pTransport = pPacket->m_pTcp != nullptr ? pPacket->m_pTcp : pPacket->m_pUdp;
    if (pTransport == nullptr ||
        static_cast<ULONG_PTR>(pTransport - pPacket->m_pEthernet) + kPorts > pPacket->m_nPacketSize) {
        return FALSE;
    }
    return ReadPort(pTransport) == port || ReadPort(pTransport + 2) == port;
}

// A full ring refuses a signal: the program does not keep up.
VOID SendSignal(ULONG indicated)
{
    union {
        IndicatorSignal Signal;
        UCHAR Bytes[NDIS_FILTER_SIGNAL_SIZE];
    } record;
    RtlZeroMemory(&record, sizeof(record));
    record.Signal.m_nSignature = INDICATOR_SIGNATURE;
    record.Signal.m_nNumber = Read(&indicator.Signals) + Read(&indicator.SignalsRefused) + 1;
    record.Signal.m_nIndicated = indicated;
    _snprintf(record.Signal.m_Text, sizeof(record.Signal.m_Text) - 1, "%u frames indicated", indicated);
    if (Filter_IndicateSignalToApplication(&record) == FILTER_STATUS_SUCCESS) {
        InterlockedIncrement(&indicator.Signals);
    } else {
        InterlockedIncrement(&indicator.SignalsRefused);
    }
}

FILTER_RESULT IndicatePacket(FilterDriver*, PVOID, PacketFilter*, PVOID, FilterPacket* pPacket)
{
    const ULONG port = Read(&indicator.Port);
    FetchFrame(pPacket);
    if (port != 0 && !HasPort(pPacket, port)) {
        return FILTER_RESULT_BYPASS;
    }
    const ULONG number = static_cast<ULONG>(InterlockedIncrement(&indicator.Indicated));
    // The program gets a copy; the packet goes its way.
    Filter_IndicatePacketToApplication(pPacket,
                                       pPacket->m_nDirection == NDIS_FILTER_DIRECTION_TO_PROTOCOL
                                           ? INDICATOR_CODE_RECEIVED
                                           : INDICATOR_CODE_SENT,
                                       number);
    if (indicator.SignalEvery != 0 && number % indicator.SignalEvery == 0) {
        SendSignal(number);
    }
    return FILTER_RESULT_BYPASS;
}

// ------------------------------------------------------------------------------- the port and its event

// The head goes in front of the text: it is what the framework rewrites when the program takes the event.
VOID ReportPort(ULONG port)
{
    struct {
        FilterEventHead Head;
        CHAR Text[48];
    } event;
    RtlZeroMemory(&event, sizeof(event));
    event.Head.m_nValue1 = port;
    const int length = port != 0 ? _snprintf(event.Text, sizeof(event.Text) - 1, "port %u is indicated", port)
                                 : _snprintf(event.Text, sizeof(event.Text) - 1, "every frame is indicated");
    // A full queue refuses it: nobody takes events.
    Filter_ReportEventEx(INDICATOR_EVENT_PORT, port, sizeof(event.Head) + static_cast<ULONG>(length), &event);
}

VOID ChangePort(ULONG port)
{
    InterlockedExchange(&indicator.Port, static_cast<LONG>(port));
    ReportPort(port);
}

// ----------------------------------------------------------------------------------------- control requests

NTSTATUS GetCounters(PVOID pOutput, ULONG nOutputLength, ULONG_PTR* pBytesReturned)
{
    if (nOutputLength < sizeof(IndicatorCounters)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    const IndicatorCounters counters = {Read(&indicator.Port), Read(&indicator.Indicated),
                                        Read(&indicator.Signals), Read(&indicator.SignalsRefused)};
    RtlCopyMemory(pOutput, &counters, sizeof(counters));
    *pBytesReturned = sizeof(counters);
    return STATUS_SUCCESS;
}

NTSTATUS SetPort(const VOID* pInput, ULONG nInputLength)
{
    ULONG port;
    if (nInputLength < sizeof(port)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    RtlCopyMemory(&port, pInput, sizeof(port));
    if (port > kMaxPort) {
        return STATUS_INVALID_PARAMETER;
    }
    ChangePort(port);
    return STATUS_SUCCESS;
}

// --------------------------------------------------------------------------------------------- diagnostics

// Compares a word of a command with a lower-case one.
BOOLEAN IsWord(PCSTR text, PCSTR word)
{
    for (; *text != 0 && *word != 0; ++text, ++word) {
        const CHAR lower = *text >= 'A' && *text <= 'Z' ? static_cast<CHAR>(*text - 'A' + 'a') : *text;
        if (lower != *word) {
            return FALSE;
        }
    }
    return *text == *word;
}

// A decimal number of at most kMaxPort.
BOOLEAN ParsePort(PCSTR text, ULONG* port)
{
    ULONG value = 0;
    const PCSTR begin = text;
    for (; *text >= '0' && *text <= '9' && value <= kMaxPort; ++text) {
        value = value * 10 + static_cast<ULONG>(*text - '0');
    }
    *port = value;
    return text != begin && *text == 0 && value <= kMaxPort;
}

VOID Answer(Diag* pDiag)
{
    const LONG count = pDiag->m_nArgumentCount;
    const PCHAR* const words = pDiag->m_ppszArguments;
    ULONG port;
    if (count == 0 || (count == 1 && IsWord(words[0], "counters"))) {
        Filter_DiagPrint(pDiag, "port %u, %u frames indicated, %u signals sent, %u signals refused\n",
                         Read(&indicator.Port), Read(&indicator.Indicated), Read(&indicator.Signals),
                         Read(&indicator.SignalsRefused));
    } else if (count == 2 && IsWord(words[0], "port") && ParsePort(words[1], &port)) {
        ChangePort(port);
        Filter_DiagPrint(pDiag, "port %u\n", port);
    } else {
        Filter_DiagPrint(pDiag, "counters - show what was indicated\n"
                                "port N   - indicate TCP and UDP port N, 0: every frame\n");
    }
}

// "driver" without words asks every driver who it is; then the next one must be asked, too. The framework
// returns what was printed.
NTSTATUS HandleDiag(const VOID* pInput, ULONG nInputLength, PVOID pOutput, ULONG nOutputLength)
{
    Diag* pDiag = nullptr;
    if (Filter_BeginDiag(pInput, nInputLength, pOutput, nOutputLength, &pDiag) != FILTER_STATUS_SUCCESS) {
        return STATUS_NOT_SUPPORTED;
    }
    if (IsWord(pDiag->m_pszDriverName, "indicator")) {
        Answer(pDiag);
        return STATUS_SUCCESS;
    }
    if (IsWord(pDiag->m_pszDriverName, "driver") && pDiag->m_nArgumentCount == 0) {
        Filter_DiagPrint(pDiag, "indicator - shows frames to the user program\n");
    }
    return STATUS_NOT_SUPPORTED;
}

NTSTATUS HandleControl(PVOID pContext, PIRP pIrp, ULONG nControlCode, PVOID pInput, ULONG nInputLength,
                       PVOID pOutput, ULONG nOutputLength, ULONG_PTR* pBytesReturned)
{
    switch (nControlCode) {
    case IOCTL_INDICATOR_GET_COUNTERS:
        return GetCounters(pOutput, nOutputLength, pBytesReturned);
    case IOCTL_INDICATOR_SET_PORT:
        return SetPort(pInput, nInputLength);
    case IOCTL_NDIS_FILTER_DIAG:
        return HandleDiag(pInput, nInputLength, pOutput, nOutputLength);
    default:
        return Filter_DefaultIoCtrlHandler(pContext, pIrp, nControlCode, pInput, nInputLength, pOutput,
                                           nOutputLength, pBytesReturned);
    }
}

// ------------------------------------------------------------------------------------------ start and stop

char driverName[] = "indicator";
char incomingName[] = "indicator-incoming";
char outgoingName[] = "indicator-outgoing";

template <size_t Size>
STRING CountedName(char (&text)[Size])
{
    return {static_cast<USHORT>(Size - 1), static_cast<USHORT>(Size), text};
}

// Success without a handle means that the framework had no memory.
BOOLEAN IsRegistered(PCSTR what, FILTER_STATUS status, const VOID* handle)
{
    if (status == FILTER_STATUS_SUCCESS && handle != nullptr) {
        return TRUE;
    }
    DbgPrint("indicator: cannot register %s: %s\n", what,
             status != FILTER_STATUS_SUCCESS ? Filter_StatusString(status) : "no memory");
    return FALSE;
}

BOOLEAN RegisterFilter(STRING name, FILTER_TYPE nType)
{
    PacketFilter* hFilter = nullptr;
    const FILTER_STATUS status = Filter_RegisterFilter(indicator.Driver, &name, IndicatePacket, nullptr,
                                                       nType, FILTER_ORDER_LAST, &hFilter);
    return IsRegistered(name.Buffer, status, hFilter);
}

BOOLEAN RegisterHandler()
{
    IoCtrlHandler* hHandler = nullptr;
    const FILTER_STATUS status =
        Filter_RegisterIoControl(indicator.Driver, HandleControl, nullptr, &hHandler);
    return IsRegistered("its control requests", status, hHandler);
}

NTSTATUS Register()
{
    STRING name = CountedName(driverName);
    const FILTER_STATUS status = Filter_RegisterDriver(&name, &indicator, 1, 0, &indicator.Driver);
    if (!IsRegistered("as a client driver", status, indicator.Driver)) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (RegisterHandler() && RegisterFilter(CountedName(incomingName), FILTER_TYPE_INCOMING_PACKET) &&
        RegisterFilter(CountedName(outgoingName), FILTER_TYPE_OUTGOING_PACKET)) {
        return STATUS_SUCCESS;
    }
    Filter_DeregisterDriver(indicator.Driver); // and with it what is there
    return STATUS_INSUFFICIENT_RESOURCES;
}

VOID DriverUnload(PDRIVER_OBJECT)
{
    Filter_DeregisterDriver(indicator.Driver);
    DbgPrint("indicator: %u frames indicated, %u signals sent, %u refused\n", Read(&indicator.Indicated),
             Read(&indicator.Signals), Read(&indicator.SignalsRefused));
}

} // namespace

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    indicator = {};
    indicator.SignalEvery = Filter_RegGetDwordValue(RegistryPath, L"SignalEvery", 100);
    const ULONG port = Filter_RegGetDwordValue(RegistryPath, L"IndicatePort", 0);
    if (port > kMaxPort) {
        DbgPrint("indicator: IndicatePort %u is no port, every frame is indicated\n", port);
    } else {
        indicator.Port = static_cast<LONG>(port);
    }
    DriverObject->DriverUnload = DriverUnload;
    return Register();
}
