// A client filter driver for authors of drivers: a look at what the framework knows, the stations that an adapter hears,
// and one kept frame that can be sent along every road that a packet may take.
//
// Answers diagnostics under the name "inspector"; without words it prints what it knows to do.
#include "../support/sample.h"

using namespace sample;

namespace
{

constexpr char kName[] = "inspector";
constexpr char kPurpose[] = "looks at filters, stations and the roads of a frame";
constexpr ULONG kPoolTag = 0x70736E49; // "Insp"
constexpr ULONG kMacBytes = 6;
constexpr ULONG kMacText = 18;
constexpr ULONG kBuckets = 256;
constexpr ULONG kMostStations = 10000; // a stranger may make up addresses

struct Station {
    HashItem Item; // first, for the table
    UCHAR Mac[kMacBytes];
    volatile LONG Frames;
};

struct Inspector {
    FilterDriver* Driver;
    PacketFilter* Filters[FILTER_TYPE_COUNT];
    IoCtrlHandler* Control;
    EventHandler* Events;
    IfEventHandler* InterfaceEvents;
    FilterInterface* Interface;
    FilterTimer* Ticker;
    HashTable* Stations;

    FilterLock Lock; // of the next
    FilterPacket* Kept;
    volatile LONG WantsFrame; // the next received one is kept
    volatile LONG DumpNext;   // frames that are still to be dumped
    volatile LONG Frames;
    volatile LONG BadChecksums;
    volatile LONG Opened;
    volatile LONG Published; // interfaces
    volatile LONG Ticks;
    volatile LONG Sent;
    volatile LONG CameBack;
};

Inspector inspector;

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
    HashItem* pItem = Filter_FindHashItem(inspector.Stations, hash, mac);
    if (pItem == nullptr && Filter_GetHashItemCount(inspector.Stations) < kMostStations) {
        Station* const pStation = static_cast<Station*>(Filter_AllocateMemory(sizeof(Station), kPoolTag));
        if (pStation == nullptr) {
            return;
        }
        RtlZeroMemory(pStation, sizeof(*pStation));
        RtlCopyMemory(pStation->Mac, mac, kMacBytes);
        pStation->Item.m_HashValue = hash;
        pItem = Filter_InsertHashItem(inspector.Stations, &pStation->Item);
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
    Filter_DiagPrint(static_cast<Diag*>(pDiag), "%s %u frames\n", inet_mtoa(pStation->Mac, text, sizeof(text)),
                     Read(&pStation->Frames));
}

// Takes a station out that was heard only once. It gets a reference first: deleting gives one back.
VOID ForgetPasserBy(PVOID, HashItem* pItem)
{
    if (Read(&reinterpret_cast<Station*>(pItem)->Frames) == 1) {
        Filter_ReferenceHashItem(pItem);
        Filter_DeleteHashItemEx(pItem);
    }
}

VOID AnswerStations(Diag* pDiag)
{
    HashTable* const stations = inspector.Stations;
    if (pDiag->m_nArgumentCount == 1) {
        Filter_EnumHashTable(stations, PrintStation, pDiag);
        Filter_DiagPrint(pDiag, "%u stations\n", Filter_GetHashItemCount(stations));
        return;
    }
    PCSTR const word = pDiag->m_ppszArguments[1];
    ULONG bucket;
    if (IsWord(word, "forget")) {
        Filter_CleanHashTable(stations);
    } else if (IsWord(word, "prune")) {
        Filter_EnumHashTable(stations, ForgetPasserBy, nullptr);
    } else if (ParseNumber(word, kBuckets - 1, &bucket)) {
        Filter_EnumHashTableEx(stations, bucket, PrintStation, pDiag);
        return;
    } else {
        Filter_DiagPrint(pDiag, "stations: forget, prune, or a bucket, 0 to %u\n", kBuckets - 1);
        return;
    }
    Filter_DiagPrint(pDiag, "%u stations left\n", Filter_GetHashItemCount(stations));
}

// --------------------------------------------------------------------------------------------------------- filters

VOID PrintOwner(Diag* pDiag)
{
    ULONG major = 0;
    ULONG minor = 0;
    PVOID pContext = nullptr;
    STRING* pName = nullptr;
    Filter_GetAPIVersion(&major, &minor);
    Filter_GetDriverContext(inspector.Driver, &pContext);
    Filter_GetDriverName(inspector.Driver, &pName);
    if (pName != nullptr) {
        Filter_DiagPrint(pDiag, "driver %s, context 0x%p, interface version %u.%u\n", pName->Buffer, pContext, major,
                         minor);
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
        Filter_EnumFilter(inspector.Driver, PrintFilter, pDiag, nType);
        Filter_DiagFilter(pDiag, nType);
    }
}

VOID AnswerHandles(Diag* pDiag)
{
    const auto print = [pDiag](PCSTR what, BOOLEAN isValid) {
        Filter_DiagPrint(pDiag, "%s: %s\n", what, isValid ? "valid" : "not valid");
    };
    print("driver", Filter_IsValidDriver(inspector.Driver));
    print("filter", Filter_IsValidFilter(inspector.Filters[FILTER_TYPE_INCOMING_PACKET]));
    print("control requests", Filter_IsValidIoCtrlHandler(inspector.Control));
    print("adapter events", Filter_IsValidEventHandler(inspector.Events));
    print("interface events", Filter_IsValidIfEventHandler(inspector.InterfaceEvents));
    print("interface", Filter_IsValidInterfaceObject(inspector.Interface));
    print("timer", Filter_IsValidTimer(inspector.Ticker));
}

// ----------------------------------------------------------------------------------------------------------- roads

// A packet that this driver has sent is through, whatever became of it.
VOID CountReturn(FilterPacket*, PVOID)
{
    InterlockedIncrement(&inspector.CameBack);
}

// A copy of the kept frame; nullptr when there is none, or no packet.
FilterPacket* CopyKept()
{
    FilterPacket* pCopy = nullptr;
    Filter_AcquireLock(&inspector.Lock);
    if (inspector.Kept != nullptr && Filter_ClonePacket(inspector.Kept, &pCopy) != FILTER_STATUS_SUCCESS) {
        pCopy = nullptr;
    }
    Filter_ReleaseLock(&inspector.Lock);
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
            Filter_DiagPrint(pDiag, "no frame is kept; first: inspector keep\n");
            return;
        }
        InterlockedIncrement(&inspector.Sent);
        Filter_SetPacketReleaseCallback(pCopy, CountReturn, nullptr);
        const FILTER_STATUS status = road.Send(pCopy);
        Filter_DiagPrint(pDiag, "%s: %s; %u sent, %u came back\n", road.Name, Filter_StatusString(status),
                         Read(&inspector.Sent), Read(&inspector.CameBack));
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
    if (InterlockedExchange(&inspector.WantsFrame, 0) == 0 ||
        Filter_ClonePacket(pPacket, &pCopy) != FILTER_STATUS_SUCCESS) {
        return;
    }
    Filter_AcquireLock(&inspector.Lock);
    FilterPacket* const pBefore = inspector.Kept;
    inspector.Kept = pCopy;
    Filter_ReleaseLock(&inspector.Lock);
    if (pBefore != nullptr) {
        Filter_ReleasePacket(pBefore);
    }
}

// -------------------------------------------------------------------------------------------------------- commands

VOID AnswerCounts(Diag* pDiag)
{
    Filter_DiagPrint(pDiag, "%u frames received, %u with a wrong IP checksum, which was mended\n",
                     Read(&inspector.Frames), Read(&inspector.BadChecksums));
    Filter_DiagPrint(pDiag, "%u adapters opened, %u interfaces published, %u seconds on the ticker\n",
                     Read(&inspector.Opened), Read(&inspector.Published), Read(&inspector.Ticks));
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
    if (IsWord(word, "filters")) {
        AnswerFilters(pDiag);
    } else if (IsWord(word, "handles")) {
        AnswerHandles(pDiag);
    } else if (IsWord(word, "stations")) {
        AnswerStations(pDiag);
    } else if (IsWord(word, "counts")) {
        AnswerCounts(pDiag);
    } else if (IsWord(word, "keep")) {
        InterlockedExchange(&inspector.WantsFrame, 1);
        Filter_DiagPrint(pDiag, "the next received frame is kept\n");
    } else if (IsWord(word, "send")) {
        AnswerSend(pDiag);
    } else if (IsWord(word, "dump")) {
        AnswerNumber(pDiag, "dump", [](ULONG number) -> BOOLEAN {
            InterlockedExchange(&inspector.DumpNext, static_cast<LONG>(number));
            return TRUE;
        });
    } else if (IsWord(word, "limit")) {
        AnswerNumber(pDiag, "limit", [](ULONG number) -> BOOLEAN {
            Filter_SetPendingPacketLimit(number);
            return TRUE;
        });
    } else if (IsWord(word, "ticker")) {
        AnswerNumber(pDiag, "ticker", [](ULONG number) -> BOOLEAN {
            return (number == 0 ? Filter_StopTimer(inspector.Ticker) : Filter_StartTimer(inspector.Ticker, number)) ==
                   FILTER_STATUS_SUCCESS;
        });
    } else {
        Filter_DiagPrint(pDiag, "filters - all chains, and more of this driver's own filters\n"
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

NTSTATUS HandleControl(PVOID pContext, PIRP pIrp, ULONG nControlCode, PVOID pInput, ULONG nInputLength, PVOID pOutput,
                       ULONG nOutputLength, ULONG_PTR* pBytesReturned)
{
    if (nControlCode == IOCTL_NDIS_FILTER_DIAG) {
        return HandleDiag(kName, kPurpose, pInput, nInputLength, pOutput, nOutputLength, Answer);
    }
    return Filter_DefaultIoCtrlHandler(pContext, pIrp, nControlCode, pInput, nInputLength, pOutput, nOutputLength,
                                       pBytesReturned);
}

// ------------------------------------------------------------------------------------------------ what it is told

FILTER_RESULT LookAtPacket(FilterDriver*, PVOID, PacketFilter*, PVOID, FilterPacket* pPacket)
{
    InterlockedIncrement(&inspector.Frames);
    Ipv4Frame frame;
    if (LookAt(pPacket, &frame) && !Filter_VerifyPacketCheckSum(pPacket)) {
        InterlockedIncrement(&inspector.BadChecksums);
    }
    if (FetchHeaders(pPacket) >= kEthernetHeader) {
        CountStation(pPacket->m_pEthernet + kMacBytes);
    }
    KeepCopy(pPacket);
    if (Read(&inspector.DumpNext) != 0 && InterlockedDecrement(&inspector.DumpNext) >= 0) {
        Filter_DumpPacket("inspector", pPacket);
    }
    return FILTER_RESULT_BYPASS;
}

VOID HandleEvent(FilterDriver*, PVOID, ULONG nEvent, PVOID, FilterAdapter*)
{
    if (nEvent == FILTER_EVENT_ADAPTER_OPENED) {
        InterlockedIncrement(&inspector.Opened);
    }
}

VOID HandleInterfaceEvent(FilterDriver*, PVOID, ULONG nEvent, PVOID, const STRING*)
{
    if (nEvent == FILTER_IF_EVENT_REGISTERED) {
        InterlockedIncrement(&inspector.Published);
    }
}

VOID Tick(FilterDriver*, PVOID, FilterTimer*, PVOID)
{
    InterlockedIncrement(&inspector.Ticks);
}

// --------------------------------------------------------------------------------------------------- start and stop

char driverName[] = "inspector";
char interfaceName[] = "inspector";

struct InspectorInterface {
    USHORT Length; // of the whole block
    USHORT Version;
};

BOOLEAN Register()
{
    STRING name = CountedName(driverName);
    FILTER_STATUS status = Filter_RegisterDriver(&name, &inspector, 1, 0, &inspector.Driver);
    if (!IsRegistered(kName, "as a client driver", status, inspector.Driver)) {
        return FALSE;
    }
    status = Filter_RegisterIfEventHandler(inspector.Driver, HandleInterfaceEvent, nullptr,
                                           &inspector.InterfaceEvents);
    if (!IsRegistered(kName, "interface events", status, inspector.InterfaceEvents)) {
        return FALSE;
    }
    STRING published = CountedName(interfaceName);
    const InspectorInterface block = {sizeof(block), 1};
    status = Filter_RegisterInterface(inspector.Driver, &published, &block, &inspector.Interface);
    if (!IsRegistered(kName, "an interface", status, inspector.Interface)) {
        return FALSE;
    }
    status = Filter_RegisterEventHandler(inspector.Driver, HandleEvent, nullptr, &inspector.Events);
    if (!IsRegistered(kName, "adapter events", status, inspector.Events)) {
        return FALSE;
    }
    status = Filter_InitializeTimer(inspector.Driver, Tick, nullptr, TRUE, &inspector.Ticker);
    if (!IsRegistered(kName, "a timer", status, inspector.Ticker)) {
        return FALSE;
    }
    status = Filter_RegisterFilter(inspector.Driver, &name, LookAtPacket, nullptr, FILTER_TYPE_INCOMING_PACKET,
                                   FILTER_ORDER_FIRST, &inspector.Filters[FILTER_TYPE_INCOMING_PACKET]);
    if (!IsRegistered(kName, "a filter", status, inspector.Filters[FILTER_TYPE_INCOMING_PACKET])) {
        return FALSE;
    }
    status = Filter_RegisterIoControl(inspector.Driver, HandleControl, nullptr, &inspector.Control);
    return IsRegistered(kName, "control requests", status, inspector.Control);
}

// In an order in which nothing uses what is gone already.
VOID Deregister()
{
    if (inspector.Control != nullptr) {
        Filter_DeregisterIoControl(inspector.Driver, inspector.Control);
    }
    if (inspector.Filters[FILTER_TYPE_INCOMING_PACKET] != nullptr) {
        Filter_DeregisterFilter(inspector.Driver, inspector.Filters[FILTER_TYPE_INCOMING_PACKET]);
    }
    if (inspector.Ticker != nullptr) {
        Filter_FreeTimer(inspector.Driver, inspector.Ticker);
    }
    if (inspector.Interface != nullptr) {
        Filter_DeregisterInterface(inspector.Driver, inspector.Interface);
    }
    if (inspector.InterfaceEvents != nullptr) {
        Filter_DeregisterIfEventHandler(inspector.Driver, inspector.InterfaceEvents);
    }
    if (inspector.Driver != nullptr) {
        Filter_DeregisterDriver(inspector.Driver); // and with it its adapter event handler
    }
    if (inspector.Kept != nullptr) {
        Filter_ReleasePacket(inspector.Kept);
    }
    if (inspector.Stations != nullptr) {
        Filter_DestroyHashTable(inspector.Stations);
    }
    Filter_FreeLock(&inspector.Lock);
}

VOID NTAPI DriverUnload(PDRIVER_OBJECT)
{
    Deregister();
}

} // namespace

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING)
{
    inspector = {};
    Filter_InitializeLock(&inspector.Lock);
    inspector.Stations = Filter_CreateHashTable("station", kBuckets, nullptr, IsStation);
    if (inspector.Stations == nullptr || !Register()) {
        Deregister();
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    DriverObject->DriverUnload = DriverUnload;
    return STATUS_SUCCESS;
}
