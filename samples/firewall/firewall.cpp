// A client filter driver that blocks new connections by rules and lets established ones go on.
//
// Configuration, read once at start from the driver's registry key:
//   IdleSeconds     REG_DWORD  a connection without frames is forgotten after so many seconds (default 120)
//   MaxConnections  REG_DWORD  connections that are remembered at most (default 65536)
#include "../support/sample.h"
#include "firewall.h"

using namespace sample;

namespace
{

constexpr char kName[] = "firewall";
constexpr ULONG kTableSize = 16384;
constexpr ULONG kClosedSeconds = 5;   // a connection that one side has closed
constexpr ULONG kTickMs = 1000;       // of the timer that forgets connections
constexpr ULONG kPoolTag = 0x6C577746; // "FwWl"

// Both directions of a connection have one key: the lesser end stands first.
struct Key {
    ULONG Addresses[2]; // network order
    USHORT Ports[2];
    UCHAR Protocol;
};

struct Connection {
    HashItem Head; // first: see HashItem
    Key Ends;
    volatile LONG Frames;
    volatile LONG Closed;
};

struct Firewall {
    FilterDriver* Driver;
    HashTable* Connections;
    FilterTimer* Timer;
    ULONG IdleSeconds;
    ULONG MaxConnections;
    FilterLock RuleLock;
    ULONG RuleCount;
    FirewallRule Rules[FIREWALL_MAX_RULES];
    volatile LONG Opened;
    volatile LONG Blocked;
    volatile LONG Untracked;
    volatile LONG EventsLeft; // of this second
};

Firewall firewall;

// ----------------------------------------------------------------------------------------------- connections

Key KeyOf(const Ipv4Frame& frame)
{
    const USHORT ports[] = {frame.Transport != nullptr ? frame.SourcePort : USHORT{0},
                            frame.Transport != nullptr ? frame.DestinationPort : USHORT{0}};
    const BOOLEAN swap = frame.Source > frame.Destination || (frame.Source == frame.Destination && ports[0] > ports[1]);
    if (swap) {
        return {{frame.Destination, frame.Source}, {ports[1], ports[0]}, frame.Protocol};
    }
    return {{frame.Source, frame.Destination}, {ports[0], ports[1]}, frame.Protocol};
}

// The table takes the low bits, so all bits must have a say in them.
ULONG HashOf(const Key& key)
{
    ULONGLONG value = key.Addresses[0] * 0x9E3779B97F4A7C15ull;
    value = (value ^ key.Addresses[1]) * 0xC2B2AE3D27D4EB4Full;
    value = (value ^ (ULONGLONG{key.Ports[0]} << 24 | ULONGLONG{key.Ports[1]} << 8 | key.Protocol)) *
            0x9E3779B97F4A7C15ull;
    return static_cast<ULONG>(value >> 32);
}

BOOLEAN HasKey(HashItem* pItem, const VOID* pKey)
{
    const Key& a = reinterpret_cast<Connection*>(pItem)->Ends;
    const Key& b = *static_cast<const Key*>(pKey);
    return a.Addresses[0] == b.Addresses[0] && a.Addresses[1] == b.Addresses[1] && a.Ports[0] == b.Ports[0] &&
           a.Ports[1] == b.Ports[1] && a.Protocol == b.Protocol;
}

// Counts a frame of a connection that is in the table, and gives the reference back.
VOID NoteFrame(HashItem* pItem, const Ipv4Frame& frame)
{
    Connection* const connection = reinterpret_cast<Connection*>(pItem);
    InterlockedIncrement(&connection->Frames);
    if ((frame.TcpFlags & (kTcpFin | kTcpRst)) != 0) {
        InterlockedExchange(&connection->Closed, 1);
    }
    Filter_ReleaseHashItem(pItem);
}

// Another processor may have seen a frame of the same connection meanwhile: looking and inserting is one step under the
// table's lock. nullptr: no memory.
HashItem* InsertConnection(const Key& key, ULONG hash)
{
    Connection* const fresh = static_cast<Connection*>(Filter_AllocateMemory(sizeof(Connection), kPoolTag));
    if (fresh == nullptr) {
        return nullptr;
    }
    RtlZeroMemory(fresh, sizeof(*fresh));
    fresh->Head.m_HashValue = hash;
    fresh->Ends = key;
    LOCK_STATE state;
    Filter_LockHashTable(firewall.Connections, &state);
    HashItem* item = Filter_FindHashItemEx(firewall.Connections, hash, &key);
    const BOOLEAN isFresh = item == nullptr;
    if (isFresh) {
        item = Filter_InsertHashItemEx(firewall.Connections, &fresh->Head);
    }
    Filter_UnLockHashTable(firewall.Connections, &state);
    if (isFresh) {
        InterlockedIncrement(&firewall.Opened);
    } else {
        Filter_FreeMemory(fresh);
    }
    return item;
}

// A find has set the item's time to the present second. The deletion uses up the enumeration's reference; the table
// has no free routine, so the item goes back to Filter_FreeMemory.
VOID ForgetIdle(PVOID pNow, HashItem* pItem)
{
    Connection* const connection = reinterpret_cast<Connection*>(pItem);
    const ULONG limit = Read(&connection->Closed) != 0 ? kClosedSeconds : firewall.IdleSeconds;
    const ULONG idle = *static_cast<const ULONG*>(pNow) - pItem->m_nTime; // right beyond a wrap of the clock, too
    if (idle >= limit) {
        Filter_DeleteHashItem(pItem);
    }
}

VOID OnTick(FilterDriver*, PVOID, FilterTimer*, PVOID)
{
    InterlockedExchange(&firewall.EventsLeft, FIREWALL_EVENTS_PER_SECOND);
    ULONG now = static_cast<ULONG>(Filter_GetSystemTime());
    Filter_EnumHashTable(firewall.Connections, ForgetIdle, &now);
}

// ----------------------------------------------------------------------------------------------------- rules

BOOLEAN IsInNet(ULONG address, const FirewallRule& rule)
{
    const ULONG mask = rule.m_nMask != 0 ? rule.m_nMask : 0xFFFFFFFF;
    return ((address ^ rule.m_nAddress) & mask) == 0;
}

// The first frame of a connection goes to the port that is connected to. Of a TCP connection that was there before the
// driver a frame of either side may come first.
BOOLEAN HasPort(const Ipv4Frame& frame, USHORT port)
{
    if (frame.Transport == nullptr) {
        return FALSE;
    }
    const BOOLEAN underWay =
        frame.Protocol == kProtocolTcp && (frame.TcpFlags & (kTcpSyn | kTcpAck)) != kTcpSyn;
    return frame.DestinationPort == port || (underWay && frame.SourcePort == port);
}

BOOLEAN Matches(const FirewallRule& rule, const Ipv4Frame& frame)
{
    return (rule.m_nProtocol == 0 || rule.m_nProtocol == frame.Protocol) &&
           (rule.m_nPort == 0 || HasPort(frame, rule.m_nPort)) &&
           (rule.m_nAddress == 0 || IsInNet(frame.Source, rule) || IsInNet(frame.Destination, rule));
}

// The first rule that blocks the frame, copied. FALSE: none does.
BOOLEAN FindRule(const Ipv4Frame& frame, FirewallRule* found)
{
    BOOLEAN blocked = FALSE;
    Filter_AcquireLock(&firewall.RuleLock);
    for (ULONG i = 0; i < firewall.RuleCount && !blocked; ++i) {
        if (Matches(firewall.Rules[i], frame)) {
            *found = firewall.Rules[i];
            blocked = TRUE;
        }
    }
    Filter_ReleaseLock(&firewall.RuleLock);
    return blocked;
}

NTSTATUS AddRule(const FirewallRule& rule)
{
    if (rule.m_nAction > FIREWALL_REJECT) {
        return STATUS_INVALID_PARAMETER;
    }
    NTSTATUS status = STATUS_INSUFFICIENT_RESOURCES;
    Filter_AcquireLock(&firewall.RuleLock);
    if (firewall.RuleCount < FIREWALL_MAX_RULES) {
        firewall.Rules[firewall.RuleCount++] = rule;
        status = STATUS_SUCCESS;
    }
    Filter_ReleaseLock(&firewall.RuleLock);
    return status;
}

VOID ClearRules()
{
    Filter_AcquireLock(&firewall.RuleLock);
    firewall.RuleCount = 0;
    Filter_ReleaseLock(&firewall.RuleLock);
}

// -------------------------------------------------------------------------------------------- blocked frames

VOID ReportBlocked(const FilterPacket* pPacket, const Ipv4Frame& frame)
{
    if (InterlockedDecrement(&firewall.EventsLeft) < 0) {
        return;
    }
    struct {
        FilterEventHead Head;
        char Text[96];
    } data = {};
    char source[16], destination[16];
    const ULONG sourcePort = frame.Transport != nullptr ? frame.SourcePort : 0;
    const ULONG destinationPort = frame.Transport != nullptr ? frame.DestinationPort : 0;
    data.Head.m_nValue1 = frame.Protocol;
    data.Head.m_hAdapter = pPacket->m_hAdapter;
    data.Head.m_nValue2 = sourcePort << 16 | destinationPort;
    data.Head.m_nValue5 = frame.Source;
    data.Head.m_nValue6 = frame.Destination;
    _snprintf(data.Text, sizeof(data.Text) - 1, "blocked: protocol %u, %s:%u to %s:%u", frame.Protocol,
              inet_ntoa(frame.Source, source, sizeof(source)), sourcePort,
              inet_ntoa(frame.Destination, destination, sizeof(destination)), destinationPort);
    Filter_ReportEventEx(FIREWALL_EVENT_BLOCKED, 0, sizeof(data), &data);
}

ULONG ReadSequence(const UCHAR* bytes)
{
    return htonl(ReadAddress(bytes));
}

VOID WriteSequence(UCHAR* bytes, ULONG value)
{
    const ULONG swapped = htonl(value);
    RtlCopyMemory(bytes, &swapped, sizeof(swapped));
}

// Answers a TCP segment with a reset, as the other side would for a port that nobody listens on (RFC 9293, 3.5.2).
VOID Reject(FilterPacket* pPacket, const Ipv4Frame& frame)
{
    if (frame.Transport == nullptr || frame.Protocol != kProtocolTcp || (frame.TcpFlags & kTcpRst) != 0) {
        return;
    }
    const ULONG tcpHeader = 4u * (frame.Transport[12] >> 4);
    const ULONG segment = frame.TotalLength - frame.HeaderLength;
    FilterPacket* const pReset =
        tcpHeader >= kTcpHeader && tcpHeader <= segment ? Filter_AllocatePacket(pPacket->m_hAdapter) : nullptr;
    if (pReset == nullptr) {
        return;
    }
    UCHAR* const pEthernet = pReset->m_Data;
    UCHAR* const pIp = pEthernet + kEthernetHeader;
    UCHAR* const pTcp = pIp + kIpHeader;
    pReset->m_nPacketSize = kEthernetHeader + kIpHeader + kTcpHeader;
    pReset->m_nBytesRead = pReset->m_nPacketSize;
    RtlZeroMemory(pEthernet, pReset->m_nPacketSize);
    RtlCopyMemory(pEthernet, pPacket->m_pEthernet + 6, 6); // to whom the segment came from, as whom it went to
    RtlCopyMemory(pEthernet + 6, pPacket->m_pEthernet, 6);
    WriteUshort(pEthernet + 12, 0x0800);
    pIp[0] = 0x45;
    WriteUshort(pIp + kIpTotalLength, kIpHeader + kTcpHeader);
    pIp[8] = 64; // hops
    pIp[kIpProtocol] = kProtocolTcp;
    RtlCopyMemory(pIp + kIpSource, &frame.Destination, 4);
    RtlCopyMemory(pIp + kIpDestination, &frame.Source, 4);
    WriteUshort(pTcp, frame.DestinationPort);
    WriteUshort(pTcp + 2, frame.SourcePort);
    pTcp[12] = kTcpHeader / 4 << 4;
    if ((frame.TcpFlags & kTcpAck) != 0) {
        WriteSequence(pTcp + 4, ReadSequence(frame.Transport + 8));
        pTcp[kTcpFlags] = kTcpRst;
    } else {
        const ULONG length = segment - tcpHeader + ((frame.TcpFlags & kTcpSyn) != 0) +
                             ((frame.TcpFlags & kTcpFin) != 0);
        WriteSequence(pTcp + 8, ReadSequence(frame.Transport + 4) + length);
        pTcp[kTcpFlags] = kTcpRst | kTcpAck;
    }
    Filter_InitPacketHeader(pReset, nullptr);
    Filter_CalculatePacketCheckSum(pIp, 0); // lengths are ours, so they are right
    Filter_CalculatePacketCheckSum(pIp, kProtocolTcp);
    // Back where the segment came from, through the other filters of that way but not through this one.
    if (pPacket->m_nDirection == NDIS_FILTER_DIRECTION_TO_PROTOCOL) {
        Filter_InjectPacketToAdapter(pPacket->m_hAdapter, pReset);
    } else {
        Filter_IndicatePacketToProtocol(pPacket->m_hAdapter, pReset);
    }
}

// ------------------------------------------------------------------------------------------------ the filter

FILTER_RESULT FilterPacketByState(FilterDriver*, PVOID, PacketFilter*, PVOID, FilterPacket* pPacket)
{
    Ipv4Frame frame;
    if (!LookAt(pPacket, &frame)) {
        return FILTER_RESULT_BYPASS;
    }
    const BOOLEAN isLaterFragment = frame.IsFragment && frame.Transport == nullptr;
    if (isLaterFragment) {
        return FILTER_RESULT_BYPASS; // good for nothing without the first one
    }
    const Key key = KeyOf(frame);
    const ULONG hash = HashOf(key);
    HashItem* item = Filter_FindHashItem(firewall.Connections, hash, &key);
    if (item == nullptr) {
        FirewallRule rule;
        if (FindRule(frame, &rule)) {
            InterlockedIncrement(&firewall.Blocked);
            ReportBlocked(pPacket, frame);
            if (rule.m_nAction == FIREWALL_REJECT) {
                Reject(pPacket, frame);
            }
            return FILTER_RESULT_DISCARD;
        }
        if (Filter_GetHashItemCount(firewall.Connections) < firewall.MaxConnections) {
            item = InsertConnection(key, hash);
        }
    }
    if (item != nullptr) {
        NoteFrame(item, frame);
    } else {
        InterlockedIncrement(&firewall.Untracked);
    }
    return FILTER_RESULT_BYPASS;
}

// ------------------------------------------------------------------------------------------ control requests

FirewallCounters Counters()
{
    return {Filter_GetHashItemCount(firewall.Connections), Read(&firewall.Opened), Read(&firewall.Blocked),
            Read(&firewall.Untracked)};
}

VOID PrintRules(Diag* pDiag)
{
    FirewallRule rules[FIREWALL_MAX_RULES];
    Filter_AcquireLock(&firewall.RuleLock);
    const ULONG count = firewall.RuleCount;
    RtlCopyMemory(rules, firewall.Rules, count * sizeof(FirewallRule));
    Filter_ReleaseLock(&firewall.RuleLock);
    for (ULONG i = 0; i < count; ++i) {
        char address[16], mask[16];
        Filter_DiagPrint(pDiag, "%s protocol %u, port %u, address %s/%s\n",
                         rules[i].m_nAction == FIREWALL_REJECT ? "reject" : "drop", ULONG{rules[i].m_nProtocol},
                         ULONG{rules[i].m_nPort}, inet_ntoa(rules[i].m_nAddress, address, sizeof(address)),
                         inet_ntoa(rules[i].m_nMask, mask, sizeof(mask)));
    }
}

VOID PrintConnection(PVOID pDiag, HashItem* pItem)
{
    Connection* const connection = reinterpret_cast<Connection*>(pItem);
    const Key& ends = connection->Ends;
    char addresses[2][16];
    Filter_DiagPrint(static_cast<Diag*>(pDiag), "protocol %u, %s:%u - %s:%u, %u frames%s\n", ULONG{ends.Protocol},
                     inet_ntoa(ends.Addresses[0], addresses[0], 16), ULONG{ends.Ports[0]},
                     inet_ntoa(ends.Addresses[1], addresses[1], 16), ULONG{ends.Ports[1]},
                     Read(&connection->Frames), Read(&connection->Closed) != 0 ? ", closed" : "");
}

// "drop tcp 80", "reject tcp 80", "drop udp 53".
BOOLEAN ParseRule(PCHAR const* words, LONG count, FirewallRule* rule)
{
    ULONG port;
    *rule = {};
    if (count != 3 || !ParseNumber(words[2], 65535, &port)) {
        return FALSE;
    }
    rule->m_nAction = IsWord(words[0], "reject") ? FIREWALL_REJECT : FIREWALL_DROP;
    rule->m_nProtocol = IsWord(words[1], "tcp") ? kProtocolTcp : kProtocolUdp;
    rule->m_nPort = static_cast<USHORT>(port);
    return (rule->m_nAction == FIREWALL_REJECT || IsWord(words[0], "drop")) &&
           (rule->m_nProtocol == kProtocolTcp || IsWord(words[1], "udp"));
}

VOID Answer(Diag* pDiag)
{
    PCHAR const* const words = pDiag->m_ppszArguments;
    const LONG count = pDiag->m_nArgumentCount;
    FirewallRule rule;
    if (count == 1 && IsWord(words[0], "rules")) {
        PrintRules(pDiag);
    } else if (count == 1 && IsWord(words[0], "connections")) {
        Filter_EnumHashTable(firewall.Connections, PrintConnection, pDiag);
    } else if (count == 1 && IsWord(words[0], "counters")) {
        const FirewallCounters counters = Counters();
        Filter_DiagPrint(pDiag, "%u connections, %u opened, %u frames blocked, %u frames untracked\n",
                         counters.m_nConnections, counters.m_nOpened, counters.m_nBlocked, counters.m_nUntracked);
    } else if (count == 1 && IsWord(words[0], "clear")) {
        ClearRules();
        Filter_DiagPrint(pDiag, "no rules\n");
    } else if (ParseRule(words, count, &rule)) {
        Filter_DiagPrint(pDiag, NT_SUCCESS(AddRule(rule)) ? "rule added\n" : "there are too many rules\n");
    } else {
        Filter_DiagPrint(pDiag, "counters, connections, rules   - show them\n"
                                "drop tcp|udp PORT              - block new connections to a port\n"
                                "reject tcp|udp PORT            - the same, and reset those of TCP\n"
                                "clear                          - remove all rules\n");
    }
}

NTSTATUS HandleControl(PVOID pContext, PIRP pIrp, ULONG nControlCode, PVOID pInput, ULONG nInputLength,
                       PVOID pOutput, ULONG nOutputLength, ULONG_PTR* pBytesReturned)
{
    switch (nControlCode) {
    case IOCTL_FIREWALL_ADD_RULE: {
        FirewallRule rule;
        if (nInputLength < sizeof(rule)) {
            return STATUS_BUFFER_TOO_SMALL;
        }
        RtlCopyMemory(&rule, pInput, sizeof(rule));
        return AddRule(rule);
    }
    case IOCTL_FIREWALL_CLEAR_RULES:
        ClearRules();
        return STATUS_SUCCESS;
    case IOCTL_FIREWALL_GET_COUNTERS: {
        const FirewallCounters counters = Counters();
        if (nOutputLength < sizeof(counters)) {
            return STATUS_BUFFER_TOO_SMALL;
        }
        RtlCopyMemory(pOutput, &counters, sizeof(counters));
        *pBytesReturned = sizeof(counters);
        return STATUS_SUCCESS;
    }
    case IOCTL_NDIS_FILTER_DIAG:
        return HandleDiag(kName, "blocks new connections by rules", pInput, nInputLength, pOutput, nOutputLength,
                          Answer);
    default:
        return Filter_DefaultIoCtrlHandler(pContext, pIrp, nControlCode, pInput, nInputLength, pOutput,
                                           nOutputLength, pBytesReturned);
    }
}

// -------------------------------------------------------------------------------------------- start and stop

char driverName[] = "firewall";
char incomingName[] = "firewall-incoming";
char outgoingName[] = "firewall-outgoing";

BOOLEAN RegisterFilter(STRING name, FILTER_TYPE nType)
{
    PacketFilter* hFilter = nullptr;
    const FILTER_STATUS status = Filter_RegisterFilter(firewall.Driver, &name, FilterPacketByState, nullptr, nType,
                                                       FILTER_ORDER_FIRST, &hFilter);
    return IsRegistered(kName, name.Buffer, status, hFilter);
}

BOOLEAN RegisterHandler()
{
    IoCtrlHandler* hHandler = nullptr;
    const FILTER_STATUS status = Filter_RegisterIoControl(firewall.Driver, HandleControl, nullptr, &hHandler);
    return IsRegistered(kName, "its control requests", status, hHandler);
}

BOOLEAN StartTimer()
{
    const FILTER_STATUS status =
        Filter_InitializeTimer(firewall.Driver, OnTick, nullptr, TRUE, &firewall.Timer);
    return IsRegistered(kName, "its timer", status, firewall.Timer) &&
           Filter_StartTimer(firewall.Timer, kTickMs) == FILTER_STATUS_SUCCESS;
}

// Timers first, as freeing them waits for their callbacks; the table last, when nobody uses it any more.
VOID Stop()
{
    if (firewall.Timer != nullptr) {
        Filter_FreeTimer(firewall.Driver, firewall.Timer);
    }
    if (firewall.Driver != nullptr) {
        Filter_DeregisterDriver(firewall.Driver);
    }
    Filter_DestroyHashTable(firewall.Connections);
    Filter_FreeLock(&firewall.RuleLock);
}

BOOLEAN Start()
{
    Filter_InitializeLock(&firewall.RuleLock);
    firewall.Connections = Filter_CreateHashTable("firewall connection", kTableSize, nullptr, HasKey);
    if (firewall.Connections == nullptr) {
        DbgPrint("firewall: no memory for the table of connections\n");
        return FALSE;
    }
    STRING name = CountedName(driverName);
    const FILTER_STATUS status = Filter_RegisterDriver(&name, &firewall, 1, 0, &firewall.Driver);
    return IsRegistered(kName, "as a client driver", status, firewall.Driver) && StartTimer() && RegisterHandler() &&
           RegisterFilter(CountedName(incomingName), FILTER_TYPE_INCOMING_PACKET) &&
           RegisterFilter(CountedName(outgoingName), FILTER_TYPE_OUTGOING_PACKET);
}

VOID DriverUnload(PDRIVER_OBJECT)
{
    Stop();
    DbgPrint("firewall: %u connections opened, %u frames blocked, %u untracked\n", Read(&firewall.Opened),
             Read(&firewall.Blocked), Read(&firewall.Untracked));
}

} // namespace

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    firewall = {};
    firewall.IdleSeconds = Filter_RegGetDwordValue(RegistryPath, L"IdleSeconds", 120);
    firewall.MaxConnections = Filter_RegGetDwordValue(RegistryPath, L"MaxConnections", 65536);
    firewall.EventsLeft = FIREWALL_EVENTS_PER_SECOND;
    DriverObject->DriverUnload = DriverUnload;
    if (!Start()) {
        Stop();
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return STATUS_SUCCESS;
}
