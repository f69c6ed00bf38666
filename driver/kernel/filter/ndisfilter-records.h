// The records behind the handles of the exported interface, all allocated with Filter_AllocateMemory, and the event
// record, which comes from a lookaside list.
#pragma once

#include "ndisfilter-list.h"

constexpr ULONG FILTER_DRIVER_TAG = 0x54414731;      // "1GAT"
constexpr ULONG EVENT_HANDLER_TAG = 0x54414732;      // "2GAT"
constexpr ULONG PACKET_FILTER_TAG = 0x54414733;      // "3GAT"
constexpr ULONG FILTER_INTERFACE_TAG = 0x54414734;   // "4GAT"
constexpr ULONG INTERFACE_REFERENCE_TAG = 0x54414735; // "5GAT"
constexpr ULONG FILTER_MEMORY_TAG = 0x54414737;      // "7GAT"
constexpr ULONG FILTER_TIMER_TAG = 0x54414738;       // "8GAT"
constexpr ULONG IOCTRL_HANDLER_TAG = 0x54414739;     // "9GAT"
constexpr ULONG IF_EVENT_HANDLER_TAG = 0x54414741;   // "AGAT"

// Pool tags, as the debugger shows them: the bytes in memory order.
constexpr ULONG POOL_TAG_DRIVER = 0x4144664E;    // "NfDA"
constexpr ULONG POOL_TAG_FILTER = 0x4146664E;    // "NfFA"
constexpr ULONG POOL_TAG_ADAPTER = 0x6441664E;   // "NfAd"
constexpr ULONG POOL_TAG_IOCTRL = 0x4349664E;    // "NfIC"
constexpr ULONG POOL_TAG_TIMER = 0x4153664E;     // "NfSA"
constexpr ULONG POOL_TAG_INTERFACE = 0x4946664E; // "NfFI"
constexpr ULONG POOL_TAG_HASH = 0x6148664E;      // "NfHa"
constexpr ULONG POOL_TAG_ETHRLOG = 0x6C45664E;  // "NfEl"
constexpr ULONG POOL_TAG_EVENT = 0x54414736;     // "6GAT"
constexpr ULONG POOL_TAG_MAPPED = 0x4D70614D;    // "MapM"

// A registered client driver. The name's characters lie behind the record in the same block.
struct FilterDriver {
    LIST_ENTRY m_ListEntry; // in m_FilterDriverList
    ULONG m_Tag;            // FILTER_DRIVER_TAG
    STRING m_DriverName;
    PVOID m_pDriverContext;
};

// A client driver's interest in adapter events.
struct EventHandler {
    LIST_ENTRY m_ListEntry; // in m_EventHandlerList
    ULONG m_Tag;            // EVENT_HANDLER_TAG
    FilterDriver* m_hFilterDriver;
    PVOID m_pDriverContext; // the driver's, copied at registration
    FILTER_EVENT_PROC m_pfEventProc;
    PVOID m_pEventContext;
};

// Verdict counters of one processor. They are counted at DISPATCH_LEVEL, so only that processor writes them, and
// they lie on a cache line of their own; sums are taken modulo 2^32 when read. Processors without a slot of their own
// share the last one and count interlocked.
struct alignas(64) PacketFilterCounters {
    ULONG m_PacketProcess; // packets handed to the procedure
    ULONG m_PacketBypass;
    ULONG m_PacketDiscard;
    ULONG m_PacketConsume;
    ULONG m_PacketCapture;
};

constexpr ULONG FILTER_SHARED_SLOT = 64; // of processor 64 and above
constexpr ULONG FILTER_COUNTER_SLOTS = FILTER_SHARED_SLOT + 1;

// A registered packet filter. The counters, one slot a processor, and the name lie behind it in the same block.
struct PacketFilter {
    LIST_ENTRY m_ListEntry; // in the chain of its type
    ULONG m_Tag;            // PACKET_FILTER_TAG
    STRING m_FilterName;
    FilterDriver* m_hFilterDriver;
    PVOID m_pDriverContext; // the driver's, copied at registration
    FILTER_PROC m_pfFilterProc;
    PVOID m_pFilterContext;
    FILTER_TYPE m_FilterType;
    ULONG m_FilterOrder; // FILTER_ORDER as given, compared as unsigned
    PacketFilterCounters* m_pCounters;
};

// A client driver's timer. The record outlives its place in the list until no deferred call and no callback can touch
// it any more.
struct FilterTimer {
    LIST_ENTRY m_ListEntry; // in m_FilterTimerList
    ULONG m_Tag;            // FILTER_TIMER_TAG
    NDIS_TIMER m_Timer;
    FilterDriver* m_hFilterDriver;
    PVOID m_pDriverContext; // the driver's, copied at creation
    FILTER_TIMER_PROC m_pfTimerProc;
    PVOID m_pTimerContext;
    BOOLEAN m_bRepeatTimer;
    ULONG m_MsToDelay;       // period given by the last start, 0 until then
    LONG m_nPendingCallback; // callbacks queued to a worker and not finished
    KEVENT m_CallbackEvent;  // set when the pending count falls to 0
    KSPIN_LOCK m_Lock;       // guards writes of the period, the pending count with its event, and the next three
    BOOLEAN m_bRunning;      // started and not stopped since: a repeating timer is set again when it expires
    BOOLEAN m_bStopped;      // for good: it is neither set nor queues a callback any more; stays in the freed record
    BOOLEAN m_bReleased;     // the record goes with the last pending callback
    WORK_QUEUE_ITEM m_FreeItem;
    FilterTimer* m_pNextStopped; // of those that are freed together
};

// A named block of data that one client driver offers to others. Name and block lie behind the record.
struct FilterInterface {
    LIST_ENTRY m_ListEntry; // in m_InterfaceList
    ULONG m_Tag;            // FILTER_INTERFACE_TAG
    STRING m_InterfaceName;
    FilterDriver* m_hFilterDriver;
    BOOLEAN m_bActive;        // may be queried
    BOOLEAN m_bDeregistering; // its deregistration is in progress
    PVOID m_pInterface;       // the copy of the block
    NDIS_RW_LOCK m_ReferenceLock;
    RecordList<struct InterfaceReference> m_ReferenceList;
    USHORT m_nInterfaceLength; // bytes of the block
};

// One reference that a query handed out; the copy of the block lies behind it.
struct InterfaceReference {
    LIST_ENTRY m_ListEntry; // in the interface's reference list
    ULONG m_Tag;            // INTERFACE_REFERENCE_TAG
    FilterDriver* m_hFilterDriver;
    FilterInterface* m_pFilterInterface;
    BOOLEAN m_bValid;
};
static_assert(sizeof(InterfaceReference) % sizeof(PVOID) == 0); // the copy is aligned as the block's pointers are

// A client driver's interest in interfaces coming and going.
struct IfEventHandler {
    LIST_ENTRY m_ListEntry; // in m_IfEventHandlerList
    ULONG m_Tag;            // IF_EVENT_HANDLER_TAG
    FilterDriver* m_hFilterDriver;
    PVOID m_pDriverContext;
    FILTER_IF_EVENT_PROC m_pfIfEventProc;
    PVOID m_pIfEventContext;
};

// A client driver's handler of control requests.
struct IoCtrlHandler {
    LIST_ENTRY m_ListEntry; // in m_IoCtrlHandlerList
    ULONG m_Tag;            // IOCTRL_HANDLER_TAG
    FilterDriver* m_hFilterDriver;
    FILTER_IOCTRL_PROC m_pfIoCtrlProc;
    PVOID m_pIoCtrlContext;
};

// A hash table of client drivers. The buckets lie behind it, and one to spare for its enumeration.
struct HashTable {
    ULONG HashTableSize; // buckets; even
    ULONG m_HashMask;    // HashTableSize - 1, a power of two or not
    ULONG m_RefCount;    // the creator's, one an item, one a walk that is under way
    PCSTR pItemName;     // the creator's; for messages only
    FILTER_FREE_HASH_ITEM pfnFreeItem;
    FILTER_COMPARE_HASH_ITEM pfnCompItem;
    LONG m_bEnumerating;      // set behind the two identifiers: whoever sees it sees them
    HANDLE m_hEnumProcess;    // of the enumerating thread
    HANDLE m_hEnumThread;     //
    HashItem* m_pCurrentItem; // whose callback is running; nullptr once the item is deleted or freed
    ULONG m_nItemCount;
    NDIS_RW_LOCK m_Lock;
    LIST_ENTRY m_ItemList; // all items, in the order of insertion
    LIST_ENTRY m_Buckets[1];
};
static_assert(offsetof(HashTable, pItemName) == 16 && offsetof(HashTable, m_Lock) == 80);
static_assert(offsetof(HashTable, m_ItemList) == 80 + sizeof(NDIS_RW_LOCK));
static_assert(offsetof(HashTable, m_Buckets) == offsetof(HashTable, m_ItemList) + sizeof(LIST_ENTRY));

// A queued event: comes from m_LogLookasideList. What user mode gets starts at m_Event.
struct FilterEventRecord {
    LIST_ENTRY m_ListEntry; // in m_FilterLogList
    UserEvent m_Event;
};
static_assert(sizeof(FilterEventRecord) == 1056 && sizeof(UserEvent) == 1036);
