// A client filter driver for authors of drivers: a look at what the framework knows, the stations that an adapter hears,
// and one kept frame that can be sent along every road that a packet may take.
//
// Answers diagnostics under the name "framescope"; without words it prints what it knows to do.
#include "framescope.h"

using namespace sample;

Framescope scope;

namespace
{

constexpr char kName[] = "framescope";
constexpr char kPurpose[] = "looks at filters, stations and the roads of a frame";
constexpr ULONG kPoolTag = 0x70736E49; // "Insp"
constexpr ULONG kMacBytes = 6;
constexpr ULONG kMacText = 18;
constexpr USHORT kTypeIpv6 = 0x86DD;
constexpr ULONG kBuckets = 256;
constexpr ULONG kMostStations = 10000; // a stranger may make up addresses

struct Station {
    HashItem Item; // first, for the table
    UCHAR Mac[kMacBytes];
    volatile LONG Frames;
};

// -------------------------------------------------------------------------------------------------------- stations

ULONG HashOf(const UCHAR* mac)
{
    ULONG hash = 0;
    for (ULONG i = 0; i < kMacBytes; ++i) {
        hash = 31 * hash + mac[i];
    }
    return hash;
}

BOOLEAN IsStation(HashItem* pItem, const VOID* pMac)
{
    return RtlCompareMemory(reinterpret_cast<Station*>(pItem)->Mac, pMac, kMacBytes) == kMacBytes;
}

VOID CountStation(const UCHAR* mac)
{
    const ULONG hash = HashOf(mac);
    HashItem* pItem = Filter_FindHashItem(scope.Stations, hash, mac);
    if (pItem == nullptr && Read(&scope.Known) < kMostStations) {
        Station* const pStation = static_cast<Station*>(Filter_AllocateMemory(sizeof(Station), kPoolTag));
        if (pStation == nullptr) {
            return;
        }
        RtlZeroMemory(pStation, sizeof(*pStation));
        RtlCopyMemory(pStation->Mac, mac, kMacBytes);
        pStation->Item.m_HashValue = hash;
        pItem = Filter_InsertHashItem(scope.Stations, &pStation->Item);
        InterlockedIncrement(&scope.Known);
    }
    if (pItem != nullptr) {
        InterlockedIncrement(&reinterpret_cast<Station*>(pItem)->Frames);
        Filter_ReleaseHashItem(pItem);
    }
}

VOID PrintStation(PVOID pDiag, HashItem* pItem)
{
    const Station* const pStation = reinterpret_cast<const Station*>(pItem);
    char text[kMacText];
    Filter_DiagPrint(static_cast<Diag*>(pDiag), "%s %u frames\n",
                     inet_mtoa(pStation->Mac, text, sizeof(text)), Read(&pStation->Frames));
}

// Deleting an item uses up the reference that the enumeration holds.
VOID ForgetPasserBy(PVOID, HashItem* pItem)
{
    if (Read(&reinterpret_cast<Station*>(pItem)->Frames) == 1) {
        Filter_DeleteHashItemEx(pItem);
        InterlockedDecrement(&scope.Known);
    }
}

// Keeps the busiest station so far, which needs a reference of its own: the enumeration's ends with this call.
VOID KeepBusiest(PVOID pBusiest, HashItem* pItem)
{
    Station*& busiest = *static_cast<Station**>(pBusiest);
    Station* const pStation = reinterpret_cast<Station*>(pItem);
    if (busiest != nullptr && Read(&busiest->Frames) >= Read(&pStation->Frames)) {
        return;
    }
    Filter_ReferenceHashItem(pItem);
    if (busiest != nullptr) {
        Filter_ReleaseHashItem(&busiest->Item);
    }
    busiest = pStation;
}

VOID PrintBusiest(Diag* pDiag)
{
    Station* busiest = nullptr;
    Filter_EnumHashTable(scope.Stations, KeepBusiest, &busiest);
    if (busiest != nullptr) {
        Filter_DiagPrint(pDiag, "the busiest: ");
        PrintStation(pDiag, &busiest->Item);
        Filter_ReleaseHashItem(&busiest->Item);
    }
}

VOID AnswerStations(Diag* pDiag)
{
    HashTable* const stations = scope.Stations;
    PCSTR const word = pDiag->m_nArgumentCount > 1 ? pDiag->m_ppszArguments[1] : "";
    ULONG bucket;
    if (IsWord(word, "forget")) {
        Filter_CleanHashTable(stations); // leaves the table's own count
        InterlockedExchange(&scope.Known, 0);
    } else if (IsWord(word, "prune")) {
        Filter_EnumHashTable(stations, ForgetPasserBy, nullptr);
    } else if (ParseNumber(word, kBuckets - 1, &bucket)) {
        Filter_EnumHashTableEx(stations, bucket, PrintStation, pDiag);
    } else {
        Filter_ReferenceHashTable(stations); // it stays until the release, whoever destroys it meanwhile
        Filter_EnumHashTable(stations, PrintStation, pDiag);
        PrintBusiest(pDiag);
        Filter_ReleaseHashTable(stations);
    }
    Filter_DiagPrint(pDiag, "%u stations, %u ever\n", Read(&scope.Known), Filter_GetHashItemCount(stations));
}

// --------------------------------------------------------------------------------------------------------- filters

VOID PrintOwner(Diag* pDiag)
{
    ULONG major = 0;
    ULONG minor = 0;
    PVOID pContext = nullptr;
    STRING* pName = nullptr;
    Filter_GetAPIVersion(&major, &minor);
    Filter_GetDriverContext(scope.Driver, &pContext);
    Filter_GetDriverName(scope.Driver, &pName);
    if (pName != nullptr) {
        Filter_DiagPrint(pDiag, "driver %s, context 0x%p, interface version %u.%u\n", pName->Buffer, pContext,
                         major, minor);
        Filter_FreeMemory(pName);
    }
}

BOOLEAN PrintFilter(PVOID pDiag, PacketFilter* hFilter)
{
    STRING* pName = nullptr;
    PVOID pContext = nullptr;
    FILTER_TYPE nType = FILTER_TYPE_INVALID;
    FILTER_ORDER nOrder = FILTER_ORDER_LAST;
    Filter_GetFilterName(hFilter, &pName);
    Filter_GetFilterContext(hFilter, &pContext);
    Filter_GetFilterType(hFilter, &nType);
    Filter_GetFilterOrder(hFilter, &nOrder);
    if (pName != nullptr) {
        Filter_DiagPrint(static_cast<Diag*>(pDiag), "own filter %s, %s, %s, context 0x%p\n", pName->Buffer,
                         Filter_TypeString(nType), Filter_OrderString(nOrder), pContext);
        Filter_FreeMemory(pName);
    }
    Filter_ShowFilter(hFilter, 0);
    return TRUE;
}

VOID AnswerFilters(Diag* pDiag)
{
    PrintOwner(pDiag);
    for (FILTER_TYPE nType = 0; nType < FILTER_TYPE_COUNT; ++nType) {
        Filter_EnumFilter(scope.Driver, PrintFilter, pDiag, nType);
        Filter_DiagFilter(pDiag, nType);
    }
}

VOID AnswerHandles(Diag* pDiag)
{
    const auto print = [pDiag](PCSTR what, BOOLEAN isValid) {
        Filter_DiagPrint(pDiag, "%s: %s\n", what, isValid ? "valid" : "not valid");
    };
    print("driver", Filter_IsValidDriver(scope.Driver));
    print("filter", Filter_IsValidFilter(scope.Filter));
    print("control requests", Filter_IsValidIoCtrlHandler(scope.Control));
    print("adapter events", Filter_IsValidEventHandler(scope.Events));
    print("interface events", Filter_IsValidIfEventHandler(scope.InterfaceEvents));
    print("interface", Filter_IsValidInterfaceObject(scope.Interface));
    print("timer", Filter_IsValidTimer(scope.Ticker));
    PVOID hRequest = nullptr;
    if (Filter_AllocateNdisRequest(&hRequest) == FILTER_STATUS_SUCCESS) {
        print("NDIS request", Filter_IsValidNdisRequest(hRequest));
        Filter_FreeNdisRequest(hRequest);
    }
}

// ----------------------------------------------------------------------------------------------------------- roads

// A packet that this driver has sent is through, whatever became of it.
VOID CountReturn(FilterPacket*, PVOID)
{
    InterlockedIncrement(&scope.CameBack);
}

// A copy of the kept frame; nullptr when there is none, or no packet.
FilterPacket* CopyKept()
{
    FilterPacket* pCopy = nullptr;
    Filter_AcquireLock(&scope.Lock);
    if (scope.Kept != nullptr && Filter_ClonePacket(scope.Kept, &pCopy) != FILTER_STATUS_SUCCESS) {
        pCopy = nullptr;
    }
    Filter_ReleaseLock(&scope.Lock);
    return pCopy;
}

// Every one of these takes the packet over, also when it fails.
struct Road {
    PCSTR Name;
    FILTER_STATUS (*Send)(FilterPacket* pPacket);
    PCSTR Meaning;
};

constexpr Road ROADS[] = {
    {"adapter", [](FilterPacket* p) { return Filter_InjectPacketToAdapterEx(p->m_hAdapter, p); },
     "straight to the adapter"},
    {"protocol", [](FilterPacket* p) { return Filter_IndicatePacketToProtocolEx(p->m_hAdapter, p); },
     "straight to the protocols"},
    {"from-adapter", [](FilterPacket* p) { return Filter_IndicatePacketFromAdapter(p->m_hAdapter, p); },
     "queued as if the adapter had received it"},
    {"from-protocol", [](FilterPacket* p) { return Filter_InjectPacketFromProtocol(p->m_hAdapter, p); },
     "queued as if a protocol had sent it"},
    {"from-program",
     [](FilterPacket* p) {
         return Filter_InjectPacketFromApplication(p->m_hAdapter, p, NDIS_FILTER_DIRECTION_TO_PROTOCOL);
     },
     "queued as the user program's frames are, towards the protocols"},
    {"chain",
     [](FilterPacket* p) -> FILTER_STATUS {
         Filter_InvokeFilters(FILTER_TYPE_INCOMING_PACKET, p);
         return FILTER_STATUS_SUCCESS;
     },
     "through the incoming chain at once"},
    {"nowhere", [](FilterPacket* p) { return Filter_ReleasePacket(p); }, "released"},
    {"nowhere-silently",
     [](FilterPacket* p) -> FILTER_STATUS {
         Filter_ClearPacketReleaseCallback(p);
         return Filter_ReleasePacket(p);
     },
     "released without being counted as come back"},
};

VOID AnswerSend(Diag* pDiag)
{
    PCSTR const word = pDiag->m_nArgumentCount == 2 ? pDiag->m_ppszArguments[1] : "";
    for (const Road& road : ROADS) {
        if (!IsWord(word, road.Name)) {
            continue;
        }
        FilterPacket* const pCopy = CopyKept();
        if (pCopy == nullptr) {
            Filter_DiagPrint(pDiag, "no frame is kept; first: framescope keep\n");
            return;
        }
        InterlockedIncrement(&scope.Sent);
        Filter_SetPacketReleaseCallback(pCopy, CountReturn, nullptr);
        const FILTER_STATUS status = road.Send(pCopy);
        Filter_DiagPrint(pDiag, "%s: %s; %u sent, %u came back\n", road.Name, Filter_StatusString(status),
                         Read(&scope.Sent), Read(&scope.CameBack));
        return;
    }
    Filter_DiagPrint(pDiag, "send ROAD:\n");
    for (const Road& road : ROADS) {
        Filter_DiagPrint(pDiag, "  %s: %s\n", road.Name, road.Meaning);
    }
}

VOID KeepCopy(FilterPacket* pPacket)
{
    FilterPacket* pCopy = nullptr;
    if (InterlockedExchange(&scope.WantsFrame, 0) == 0 ||
        Filter_ClonePacket(pPacket, &pCopy) != FILTER_STATUS_SUCCESS) {
        return;
    }
    Filter_AcquireLock(&scope.Lock);
    FilterPacket* const pBefore = scope.Kept;
    scope.Kept = pCopy;
    Filter_ReleaseLock(&scope.Lock);
    if (pBefore != nullptr) {
        Filter_ReleasePacket(pBefore);
    }
}

// -------------------------------------------------------------------------------------------------------- commands

VOID AnswerCounts(Diag* pDiag)
{
    Filter_DiagPrint(pDiag,
                     "%u frames received, %u of IPv6, %u with a wrong IPv4 checksum, which was mended\n",
                     Read(&scope.Frames), Read(&scope.Ipv6), Read(&scope.BadChecksums));
    Filter_DiagPrint(pDiag, "%u adapters opened, %u interfaces published, %u seconds on the ticker\n",
                     Read(&scope.Opened), Read(&scope.Published), Read(&scope.Ticks));
}

VOID AnswerNumber(Diag* pDiag, PCSTR what, BOOLEAN (*apply)(ULONG number))
{
    ULONG number;
    const BOOLEAN isDone = pDiag->m_nArgumentCount == 2 &&
                           ParseNumber(pDiag->m_ppszArguments[1], 1000000, &number) && apply(number);
    Filter_DiagPrint(pDiag, isDone ? "%s: done\n" : "%s: give a number up to 1000000\n", what);
}

VOID Answer(Diag* pDiag)
{
    PCSTR const word = pDiag->m_nArgumentCount > 0 ? pDiag->m_ppszArguments[0] : "";
    if (IsWord(word, "adapters")) {
        AnswerAdapters(pDiag);
    } else if (IsWord(word, "adapter")) {
        AnswerAdapter(pDiag);
    } else if (IsWord(word, "system")) {
        AnswerSystem(pDiag);
    } else if (IsWord(word, "note")) {
        // Without a FilterEventHead: the program finds the adapter's identifier written over a part of the text.
        Filter_ReportEvent(0, 0, "a note without a head, as short as it can be: %u frames",
                           Read(&scope.Frames));
        Filter_DiagPrint(pDiag, "an event was reported\n");
    } else if (IsWord(word, "filters")) {
        AnswerFilters(pDiag);
    } else if (IsWord(word, "handles")) {
        AnswerHandles(pDiag);
    } else if (IsWord(word, "stations")) {
        AnswerStations(pDiag);
    } else if (IsWord(word, "counts")) {
        AnswerCounts(pDiag);
    } else if (IsWord(word, "keep")) {
        InterlockedExchange(&scope.WantsFrame, 1);
        Filter_DiagPrint(pDiag, "the next received frame is kept\n");
    } else if (IsWord(word, "send")) {
        AnswerSend(pDiag);
    } else if (IsWord(word, "dump")) {
        AnswerNumber(pDiag, "dump", [](ULONG number) -> BOOLEAN {
            InterlockedExchange(&scope.DumpNext, static_cast<LONG>(number));
            return TRUE;
        });
    } else if (IsWord(word, "limit")) {
        AnswerNumber(pDiag, "limit", [](ULONG number) -> BOOLEAN {
            Filter_SetPendingPacketLimit(number);
            return TRUE;
        });
    } else if (IsWord(word, "ticker")) {
        AnswerNumber(pDiag, "ticker", [](ULONG number) -> BOOLEAN {
            return (number == 0 ? Filter_StopTimer(scope.Ticker) : Filter_StartTimer(scope.Ticker, number)) ==
                   FILTER_STATUS_SUCCESS;
        });
    } else {
        Filter_DiagPrint(pDiag, "adapters [report] - all that is known of them\n"
                                "adapter ID VERB [VALUE] - changes one\n"
                                "system [reload] - versions and settings\n"
                                "note - reports an event without a head\n"
                                "filters - all chains, and more of this driver's own filters\n"
                                "handles - whether this driver's handles are valid\n"
                                "stations [BUCKET|prune|forget] - addresses that frames came from\n"
                                "counts - what was seen\n"
                                "keep - keeps the next received frame\n"
                                "send ROAD - sends a copy of it\n"
                                "dump N - prints the next N received frames to the debugger\n"
                                "limit N - the pending-packet limit\n"
                                "ticker MS - a tick every so many milliseconds; 0 stops it\n");
    }
}

NTSTATUS HandleControl(PVOID pContext, PIRP pIrp, ULONG nControlCode, PVOID pInput, ULONG nInputLength,
                       PVOID pOutput, ULONG nOutputLength, ULONG_PTR* pBytesReturned)
{
    if (nControlCode == IOCTL_NDIS_FILTER_DIAG) {
        return HandleDiag(kName, kPurpose, pInput, nInputLength, pOutput, nOutputLength, Answer);
    }
    return Filter_DefaultIoCtrlHandler(pContext, pIrp, nControlCode, pInput, nInputLength, pOutput,
                                       nOutputLength, pBytesReturned);
}

// ------------------------------------------------------------------------------------------------ what it is told

FILTER_RESULT LookAtPacket(FilterDriver*, PVOID, PacketFilter*, PVOID, FilterPacket* pPacket)
{
    InterlockedIncrement(&scope.Frames);
    Ipv4Frame frame;
    if (LookAt(pPacket, &frame) && !Filter_VerifyPacketCheckSum(pPacket)) {
        InterlockedIncrement(&scope.BadChecksums);
    }
    if (FetchHeaders(pPacket) >= kEthernetHeader) {
        CountStation(pPacket->m_pEthernet + kMacBytes);
        USHORT type;
        RtlCopyMemory(&type, pPacket->m_pEthernet + 2 * kMacBytes, sizeof(type));
        if (ntohs(type) == kTypeIpv6) {
            InterlockedIncrement(&scope.Ipv6);
        }
    }
    KeepCopy(pPacket);
    if (Read(&scope.DumpNext) != 0 && InterlockedDecrement(&scope.DumpNext) >= 0) {
        Filter_DumpPacket("framescope", pPacket);
    }
    return FILTER_RESULT_BYPASS;
}

VOID HandleEvent(FilterDriver*, PVOID, ULONG nEvent, PVOID, FilterAdapter*)
{
    if (nEvent == FILTER_EVENT_ADAPTER_OPENED) {
        InterlockedIncrement(&scope.Opened);
    }
}

VOID HandleInterfaceEvent(FilterDriver*, PVOID, ULONG nEvent, PVOID, const STRING*)
{
    if (nEvent == FILTER_IF_EVENT_REGISTERED) {
        InterlockedIncrement(&scope.Published);
    }
}

VOID Tick(FilterDriver*, PVOID, FilterTimer*, PVOID)
{
    InterlockedIncrement(&scope.Ticks);
}

// --------------------------------------------------------------------------------------------------- start and stop

char driverName[] = "framescope";
char interfaceName[] = "framescope";

struct FramescopeInterface {
    USHORT Length; // of the whole block
    USHORT Version;
};

BOOLEAN Register()
{
    STRING name = CountedName(driverName);
    FILTER_STATUS status = Filter_RegisterDriver(&name, &scope, 1, 0, &scope.Driver);
    if (!IsRegistered(kName, "as a client driver", status, scope.Driver)) {
        return FALSE;
    }
    status =
        Filter_RegisterIfEventHandler(scope.Driver, HandleInterfaceEvent, nullptr, &scope.InterfaceEvents);
    if (!IsRegistered(kName, "interface events", status, scope.InterfaceEvents)) {
        return FALSE;
    }
    STRING published = CountedName(interfaceName);
    const FramescopeInterface block = {sizeof(block), 1};
    status = Filter_RegisterInterface(scope.Driver, &published, &block, &scope.Interface);
    if (!IsRegistered(kName, "an interface", status, scope.Interface)) {
        return FALSE;
    }
    status = Filter_RegisterEventHandler(scope.Driver, HandleEvent, nullptr, &scope.Events);
    if (!IsRegistered(kName, "adapter events", status, scope.Events)) {
        return FALSE;
    }
    status = Filter_InitializeTimer(scope.Driver, Tick, nullptr, TRUE, &scope.Ticker);
    if (!IsRegistered(kName, "a timer", status, scope.Ticker)) {
        return FALSE;
    }
    status = Filter_InitializeTimer(scope.Driver, RunErrand, nullptr, FALSE, &scope.Errand);
    if (!IsRegistered(kName, "a timer", status, scope.Errand)) {
        return FALSE;
    }
    status = Filter_RegisterFilter(scope.Driver, &name, LookAtPacket, nullptr, FILTER_TYPE_INCOMING_PACKET,
                                   FILTER_ORDER_FIRST, &scope.Filter);
    if (!IsRegistered(kName, "a filter", status, scope.Filter)) {
        return FALSE;
    }
    status = Filter_RegisterIoControl(scope.Driver, HandleControl, nullptr, &scope.Control);
    return IsRegistered(kName, "control requests", status, scope.Control);
}

// In an order in which nothing uses what is gone already.
VOID Deregister()
{
    if (scope.Control != nullptr) {
        Filter_DeregisterIoControl(scope.Driver, scope.Control);
    }
    if (scope.Filter != nullptr) {
        Filter_DeregisterFilter(scope.Driver, scope.Filter);
    }
    FilterTimer* const timers[] = {scope.Ticker, scope.Errand};
    for (FilterTimer* hTimer : timers) {
        if (hTimer != nullptr) {
            Filter_FreeTimer(scope.Driver, hTimer);
        }
    }
    if (scope.Interface != nullptr) {
        Filter_DeregisterInterface(scope.Driver, scope.Interface);
    }
    if (scope.InterfaceEvents != nullptr) {
        Filter_DeregisterIfEventHandler(scope.Driver, scope.InterfaceEvents);
    }
    if (scope.Driver != nullptr) {
        Filter_DeregisterDriver(scope.Driver); // and with it its adapter event handler
    }
    if (scope.Kept != nullptr) {
        Filter_ReleasePacket(scope.Kept);
    }
    if (scope.Stations != nullptr) {
        Filter_DestroyHashTable(scope.Stations);
    }
    FreeFrameworkKey();
    Filter_FreeLock(&scope.Lock);
}

VOID NTAPI DriverUnload(PDRIVER_OBJECT)
{
    Deregister();
}

} // namespace

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    scope = {};
    Filter_InitializeLock(&scope.Lock);
    FindFrameworkKey(RegistryPath);
    scope.Stations = Filter_CreateHashTable("station", kBuckets, nullptr, IsStation);
    if (scope.Stations == nullptr || !Register()) {
        Deregister();
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    DriverObject->DriverUnload = DriverUnload;
    return STATUS_SUCCESS;
}
