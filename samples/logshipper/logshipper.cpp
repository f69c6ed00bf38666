// A client driver that ships log lines from the kernel to a log server: one for each adapter event and for
// each TCP connection that a frame begins. They go as UDP datagrams or over one TCP connection.
//
// Configuration, read once at start from the driver's registry key:
//   LogAddress  REG_DWORD  IPv4 address of the server, 0x7F000001 for 127.0.0.1 (default)
//   LogPort     REG_DWORD  its port, 514 (default)
//   LogStream   REG_DWORD  0 (default): datagrams, a line each; else: TCP, each line ends with a line feed
#include <ntddk.h>
#include <ndis.h>

#include "ndisfilter.h"
#include "tdi-client.h"

namespace
{

constexpr ULONG kMaxPort = 65535;
constexpr ULONG kEvents = 256; // that wait to be shipped
constexpr ULONG kLine = 128;
constexpr LONGLONG kMillisecond = -10'000;       // from now, in 100-ns units
constexpr LONGLONG kRetry = 1000 * kMillisecond; // after a failure

constexpr ULONG kIpSource = 12; // offsets in the IPv4 header: RFC 791
constexpr ULONG kIpDestination = 16;
constexpr ULONG kTcpFlags = 13; // RFC 9293
constexpr UCHAR kSyn = 0x02;
constexpr UCHAR kAck = 0x10;

struct Event {
    ULONG Kind; // FILTER_EVENT_..., or kConnection
    ULONG Adapter;
    ULONG Source; // addresses and ports in network order
    ULONG Destination;
    USHORT SourcePort;
    USHORT DestinationPort;
};
constexpr ULONG kConnection = 1000;

struct Shipper {
    FilterDriver* Driver;
    ULONG ServerAddress; // network order
    USHORT ServerPort;   // network order
    BOOLEAN Stream;
    ULONG Patience; // milliseconds for what the server has to take

    KSPIN_LOCK Lock; // for the ring
    Event Ring[kEvents];
    ULONG First;
    ULONG Count;
    ULONG Dropped; // the ring was full

    KEVENT Started;
    KEVENT Work;
    volatile LONG Stop;
    PVOID Thread;

    // The thread's own.
    BOOLEAN Open;
    KS_TRANSPORT_ADDRESS Address;
    KS_CONNECTION_ENDPOINT Endpoint;
    PMDL Mdl; // of Line
    CHAR Line[kLine];
    ULONG Number;
    ULONG Shipped; // taken by the transport
    ULONG Lost;    // not: no connection, no transport
};

Shipper shipper;

// -------------------------------------------------------------------------------------------------- gathering

// From adapters' threads, at DISPATCH_LEVEL.
VOID Note(const Event& event)
{
    KIRQL irql;
    KeAcquireSpinLock(&shipper.Lock, &irql);
    if (shipper.Count < kEvents) {
        shipper.Ring[(shipper.First + shipper.Count++) % kEvents] = event;
    } else {
        ++shipper.Dropped;
    }
    KeReleaseSpinLock(&shipper.Lock, irql);
    KeSetEvent(&shipper.Work, IO_NO_INCREMENT, FALSE);
}

BOOLEAN TakeEvent(Event* event)
{
    KIRQL irql;
    KeAcquireSpinLock(&shipper.Lock, &irql);
    const BOOLEAN any = shipper.Count != 0;
    if (any) {
        *event = shipper.Ring[shipper.First];
        shipper.First = (shipper.First + 1) % kEvents;
        --shipper.Count;
    }
    KeReleaseSpinLock(&shipper.Lock, irql);
    return any;
}

VOID OnAdapterEvent(FilterDriver*, PVOID, ULONG nEvent, PVOID, FilterAdapter* hAdapter)
{
    Event event = {};
    event.Kind = nEvent;
    Filter_AdapterToId(hAdapter, &event.Adapter);
    Note(event);
}

// The first segment of a connection. The parser looks at no length: its pointers may lie behind what is
// there.
FILTER_RESULT OnPacket(FilterDriver*, PVOID, PacketFilter*, PVOID, FilterPacket* pPacket)
{
    const UCHAR* pIp = pPacket->m_pIp;
    const UCHAR* pTcp = pPacket->m_pTcp;
    const ULONG present = pPacket->m_bDirty ? pPacket->m_nPacketSize : pPacket->m_nBytesRead;
    if (pIp == nullptr || pTcp == nullptr ||
        static_cast<ULONG_PTR>(pTcp - pPacket->m_pEthernet) + kTcpFlags >= present ||
        (pTcp[kTcpFlags] & (kSyn | kAck)) != kSyn) {
        return FILTER_RESULT_BYPASS;
    }
    Event event = {};
    event.Kind = kConnection;
    Filter_AdapterToId(pPacket->m_hAdapter, &event.Adapter);
    RtlCopyMemory(&event.Source, pIp + kIpSource, sizeof(event.Source));
    RtlCopyMemory(&event.Destination, pIp + kIpDestination, sizeof(event.Destination));
    RtlCopyMemory(&event.SourcePort, pTcp, sizeof(event.SourcePort));
    RtlCopyMemory(&event.DestinationPort, pTcp + 2, sizeof(event.DestinationPort));
    // Its own connections would be a reason to connect.
    if (event.Destination != shipper.ServerAddress || event.DestinationPort != shipper.ServerPort) {
        Note(event);
    }
    return FILTER_RESULT_BYPASS;
}

// --------------------------------------------------------------------------------------------------- shipping

PCSTR EventName(ULONG kind)
{
    constexpr PCSTR Names[] = {"opened", "media connected", "media disconnected", "closed",
                               "IP configuration changed"};
    return kind < sizeof(Names) / sizeof(Names[0]) ? Names[kind] : "event";
}

// A line with the priority of RFC 3164, facility local0, severity informational. Answers its length.
ULONG FormatLine(const Event& event)
{
    CHAR source[16];
    CHAR destination[16];
    const ULONG number = ++shipper.Number;
    int length;
    if (event.Kind == kConnection) {
        length = _snprintf(
            shipper.Line, kLine - 1, "<134>logshipper: %u adapter %u connection %s:%u > %s:%u", number,
            event.Adapter, inet_ntoa(event.Source, source, sizeof(source)), KS_ntohs(event.SourcePort),
            inet_ntoa(event.Destination, destination, sizeof(destination)), KS_ntohs(event.DestinationPort));
    } else {
        length = _snprintf(shipper.Line, kLine - 1, "<134>logshipper: %u adapter %u %s", number,
                           event.Adapter, EventName(event.Kind));
    }
    const ULONG used = length < 0 ? kLine - 1 : static_cast<ULONG>(length);
    if (shipper.Stream) {
        shipper.Line[used] = '\n';
    }
    return shipper.Stream ? used + 1 : used;
}

// What a request on the connection came to that was sent in event mode. A server that does not take what it is sent
// would hold it, and with it the unload, without end: the connection is reset then, which completes it.
NTSTATUS Await(NTSTATUS status, PKEVENT done, const IO_STATUS_BLOCK* result)
{
    if (status != STATUS_PENDING) {
        return status;
    }
    LARGE_INTEGER patience;
    patience.QuadPart = kMillisecond * shipper.Patience;
    while (KeWaitForSingleObject(done, Executive, KernelMode, FALSE, &patience) == STATUS_TIMEOUT) {
        KS_Disconnect(&shipper.Endpoint, nullptr, nullptr, nullptr, nullptr, TDI_DISCONNECT_ABORT);
    }
    return result->Status;
}

VOID CloseSockets()
{
    KEVENT done;
    IO_STATUS_BLOCK result;
    if (shipper.Open) {
        if (shipper.Stream) {
            KeInitializeEvent(&done, NotificationEvent, FALSE);
            Await(KS_Disconnect(&shipper.Endpoint, &done, nullptr, nullptr, &result, TDI_DISCONNECT_RELEASE),
                  &done, &result);
            KS_CloseConnectionEndpoint(&shipper.Endpoint);
        }
        KS_CloseTransportAddress(&shipper.Address);
        shipper.Open = FALSE;
    }
}

NTSTATUS OpenSockets()
{
    const PCWSTR device = shipper.Stream ? L"\\Device\\Tcp" : L"\\Device\\Udp";
    TA_IP_ADDRESS local;
    TA_IP_ADDRESS server;
    KS_InitIPAddress(&local, 0, 0);
    KS_InitIPAddress(&server, shipper.ServerAddress, shipper.ServerPort);
    NTSTATUS status =
        KS_OpenTransportAddress(device, reinterpret_cast<PTRANSPORT_ADDRESS>(&local), &shipper.Address);
    if (!NT_SUCCESS(status) || !shipper.Stream) {
        shipper.Open = NT_SUCCESS(status);
        return status;
    }
    status = KS_OpenConnectionEndpoint(device, &shipper.Address, &shipper.Endpoint, nullptr);
    if (NT_SUCCESS(status)) {
        status = KS_Connect(&shipper.Endpoint, &server);
        if (!NT_SUCCESS(status)) {
            KS_CloseConnectionEndpoint(&shipper.Endpoint);
        }
    }
    if (!NT_SUCCESS(status)) {
        KS_CloseTransportAddress(&shipper.Address);
    }
    shipper.Open = NT_SUCCESS(status);
    return status;
}

NTSTATUS Send(ULONG length)
{
    shipper.Mdl->ByteCount = length; // the line is shorter than what the MDL was made for
    if (shipper.Stream) {
        KEVENT done;
        IO_STATUS_BLOCK result;
        KeInitializeEvent(&done, NotificationEvent, FALSE);
        return Await(KS_SendOnEndpoint(&shipper.Endpoint, &done, nullptr, nullptr, &result, shipper.Mdl, 0),
                     &done, &result);
    }
    TA_IP_ADDRESS server;
    KS_InitIPAddress(&server, shipper.ServerAddress, shipper.ServerPort);
    TDI_CONNECTION_INFORMATION to = {};
    to.RemoteAddressLength = sizeof(server);
    to.RemoteAddress = &server;
    return KS_SendDatagramOnAddress(&shipper.Address, nullptr, nullptr, nullptr, nullptr, shipper.Mdl, &to);
}

BOOLEAN IsStopping()
{
    return InterlockedCompareExchange(&shipper.Stop, 0, 0) != 0;
}

// Waits a moment after a failure, or the server would be asked again for each line. FALSE: the line is lost.
BOOLEAN Ship(const Event& event)
{
    const ULONG length = FormatLine(event);
    NTSTATUS status = shipper.Open ? STATUS_SUCCESS : OpenSockets();
    if (NT_SUCCESS(status)) {
        status = Send(length);
    }
    if (NT_SUCCESS(status)) {
        ++shipper.Shipped;
        return TRUE;
    }
    if (shipper.Lost++ == 0) {
        DbgPrint("logshipper: cannot reach the log server, status 0x%08X\n", status);
    }
    CloseSockets();
    LARGE_INTEGER retry;
    retry.QuadPart = kRetry;
    if (!IsStopping()) {
        KeDelayExecutionThread(KernelMode, FALSE, &retry);
    }
    return FALSE;
}

VOID NTAPI ShipEvents(PVOID)
{
    shipper.Thread = PsGetCurrentThread();
    ObReferenceObject(shipper.Thread);
    KeSetEvent(&shipper.Started, IO_NO_INCREMENT, FALSE);

    BOOLEAN reachable = TRUE;
    BOOLEAN stopping;
    do {
        KeWaitForSingleObject(&shipper.Work, Executive, KernelMode, FALSE, nullptr);
        stopping = IsStopping(); // before the last look at the ring
        for (Event event; TakeEvent(&event);) {
            if (reachable || !IsStopping()) {
                reachable = Ship(event);
            } else {
                ++shipper.Lost; // the unload does not wait for one time-out after the other
            }
        }
    } while (!stopping);
    CloseSockets();
    PsTerminateSystemThread(STATUS_SUCCESS);
}

// --------------------------------------------------------------------------------------------- start and stop

char driverName[] = "logshipper";
char incomingName[] = "logshipper-incoming";
char outgoingName[] = "logshipper-outgoing";

template <size_t Size>
STRING CountedName(char (&text)[Size])
{
    return {static_cast<USHORT>(Size - 1), static_cast<USHORT>(Size), text};
}

// The thread takes the reference that its end is awaited with itself: that cannot fail once it runs.
NTSTATUS StartThread()
{
    HANDLE handle = nullptr;
    const NTSTATUS status =
        PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, ShipEvents, nullptr);
    if (NT_SUCCESS(status)) {
        KeWaitForSingleObject(&shipper.Started, Executive, KernelMode, FALSE, nullptr);
        ZwClose(handle);
    }
    return status;
}

// Behind the deregistration: nothing is noted any more. What is in the ring is still shipped, up to a failure.
VOID StopThread()
{
    InterlockedExchange(&shipper.Stop, TRUE);
    KeSetEvent(&shipper.Work, IO_NO_INCREMENT, FALSE);
    KeWaitForSingleObject(shipper.Thread, Executive, KernelMode, FALSE, nullptr);
    ObDereferenceObject(shipper.Thread);
    IoFreeMdl(shipper.Mdl);
}

// Success without a handle means that the framework had no memory.
NTSTATUS Register()
{
    STRING name = CountedName(driverName);
    STRING incoming = CountedName(incomingName);
    STRING outgoing = CountedName(outgoingName);
    EventHandler* hHandler = nullptr;
    PacketFilter* hIncoming = nullptr;
    PacketFilter* hOutgoing = nullptr;
    Filter_RegisterDriver(&name, &shipper, 1, 0, &shipper.Driver);
    if (shipper.Driver == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    Filter_RegisterEventHandler(shipper.Driver, OnAdapterEvent, nullptr, &hHandler);
    Filter_RegisterFilter(shipper.Driver, &incoming, OnPacket, nullptr, FILTER_TYPE_INCOMING_PACKET,
                          FILTER_ORDER_FIRST, &hIncoming);
    Filter_RegisterFilter(shipper.Driver, &outgoing, OnPacket, nullptr, FILTER_TYPE_OUTGOING_PACKET,
                          FILTER_ORDER_FIRST, &hOutgoing);
    if (hHandler == nullptr || hIncoming == nullptr || hOutgoing == nullptr) {
        Filter_DeregisterDriver(shipper.Driver); // and with it what is there
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return STATUS_SUCCESS;
}

VOID NTAPI DriverUnload(PDRIVER_OBJECT)
{
    Filter_DeregisterDriver(shipper.Driver);
    StopThread();
    DbgPrint("logshipper: %u lines handed to the transport, %u lost, %u dropped\n", shipper.Shipped,
             shipper.Lost, shipper.Dropped);
}

} // namespace

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    constexpr ULONG kDefaultAddress = 0x7F000001;
    constexpr ULONG kDefaultPort = 514;
    constexpr ULONG kDefaultPatience = 5000;
    RtlZeroMemory(&shipper, sizeof(shipper));
    const ULONG port = Filter_RegGetDwordValue(RegistryPath, L"LogPort", kDefaultPort);
    if (port == 0 || port > kMaxPort) {
        DbgPrint("logshipper: LogPort %u is no port\n", port);
        return STATUS_INVALID_PARAMETER;
    }
    shipper.ServerAddress = KS_htonl(Filter_RegGetDwordValue(RegistryPath, L"LogAddress", kDefaultAddress));
    shipper.ServerPort = KS_htons(static_cast<USHORT>(port));
    shipper.Patience = Filter_RegGetDwordValue(RegistryPath, L"LogPatience", kDefaultPatience);
    shipper.Stream = Filter_RegGetDwordValue(RegistryPath, L"LogStream", 0) != 0;
    KeInitializeSpinLock(&shipper.Lock);
    KeInitializeEvent(&shipper.Started, NotificationEvent, FALSE);
    KeInitializeEvent(&shipper.Work, SynchronizationEvent, FALSE);
    shipper.Mdl = IoAllocateMdl(shipper.Line, kLine, FALSE, FALSE, nullptr);
    if (shipper.Mdl == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    MmBuildMdlForNonPagedPool(shipper.Mdl); // a driver's data lies in non-paged memory
    NTSTATUS status = StartThread();
    if (!NT_SUCCESS(status)) {
        IoFreeMdl(shipper.Mdl);
        return status;
    }
    status = Register();
    if (!NT_SUCCESS(status)) {
        StopThread();
        return status;
    }
    DriverObject->DriverUnload = DriverUnload;
    return STATUS_SUCCESS;
}
