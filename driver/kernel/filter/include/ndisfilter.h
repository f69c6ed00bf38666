/*
 * NdisFilter: the interface for client drivers.
 *
 * A client driver registers itself with Filter_RegisterDriver, places packet filters in the four chains with
 * Filter_RegisterFilter, and inspects, changes, keeps and injects packets. It includes <ntddk.h> and <ndis.h>;
 * include no other header that declares htons or inet_ntoa beside it.
 *
 * Conventions
 * - Functions answer a FILTER_STATUS; results go through pointers, which are written on success only. Everything that
 *   is pointed to, names and outputs too, lies in non-paged memory when a function is called above PASSIVE_LEVEL.
 * - A handle is the address of a record. A null handle is an invalid argument; a handle of the wrong kind, and at
 *   PASSIVE_LEVEL one in the user range, is refused with a line in the debug output. A wild kernel address is not.
 * - Registrations and name getters answer FILTER_STATUS_SUCCESS and leave the output unwritten when no memory is
 *   left: set the output to null beforehand and test it.
 * - Every function that answers a FILTER_STATUS may answer FILTER_ERROR_EXCEPTION when a pointer it was given faults.
 * - Handing a packet to an invocation, injection or delivery hands it over, also on failure. Only
 *   Filter_IndicatePacketToApplication leaves it with its caller.
 * - "IRQL <= DISPATCH" means PASSIVE_LEVEL to DISPATCH_LEVEL.
 */
#ifndef NDISFILTER_H
#define NDISFILTER_H

#include "ndisfilter-hook.h"

/* A kernel whose C library declares names of this header binds them elsewhere; on Windows they are plain exports. */
#ifndef HOST_LINK_NAME
#define HOST_LINK_NAME(Name)
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------------------------------------- enumerations */

typedef LONG FILTER_STATUS;

#define FILTER_STATUS_SUCCESS 0
#define FILTER_ERROR_INVALID_ARGUMENT (-1)
#define FILTER_ERROR_INVALID_HANDLE (-2)
#define FILTER_ERROR_ADAPTER_NOT_OPEN (-3)
#define FILTER_ERROR_INTERNAL_ERROR (-4)
#define FILTER_ERROR_NO_FREE_ADAPTER_CONTEXT (-5)
#define FILTER_ERROR_INVALID_ADAPTER_CONTEXT (-6)
#define FILTER_ERROR_INVALID_ADAPTER_HANDLE (-7)
#define FILTER_ERROR_UNSUPPORTED_API_VERSION (-8)
#define FILTER_ERROR_DRIVER_ALREADY_REGISTERED (-9)
#define FILTER_ERROR_INVALID_DRIVER_HANDLE (-10)
#define FILTER_ERROR_BUFFER_TOO_SMALL (-11)
#define FILTER_ERROR_DRIVER_NOT_FOUND (-12)
#define FILTER_ERROR_EVENT_HANDLER_ALREADY_REGISTERED (-13)
#define FILTER_ERROR_EVENT_HANDLER_NOT_FOUND (-14)
#define FILTER_ERROR_INVALID_EVENT_HANDLER_OWNER (-15)
#define FILTER_ERROR_INVALID_CONTEXT_OWNER (-16)
#define FILTER_ERROR_INVALID_EVENT_HANDLER (-17)
#define FILTER_ERROR_ADAPTER_NOT_FOUND (-18)
#define FILTER_ERROR_INTERFACE_NOT_ACTIVE (-19)
#define FILTER_ERROR_OUT_OF_MEMORY (-20)
#define FILTER_ERROR_INVALID_NDIS_REQUEST (-21)
#define FILTER_ERROR_EXCEPTION (-22)
#define FILTER_ERROR_FILTER_ALREADY_REGISTERED (-23)
#define FILTER_ERROR_INVALID_PACKET_FILTER (-24)
#define FILTER_ERROR_FILTER_NOT_FOUND (-25)
#define FILTER_ERROR_INVALID_FILTER_OWNER (-26)
#define FILTER_ERROR_INTERFACE_ALREADY_REGISTERED (-27)
#define FILTER_ERROR_INTERFACE_NOT_FOUND (-28)
#define FILTER_ERROR_INVALID_FILTER_INTERFACE (-29)
#define FILTER_ERROR_INVALID_INTERFACE_REFERENCE_OWNER (-30)
#define FILTER_ERROR_INTERFACE_REFERENCE_NOT_FOUND (-31)
#define FILTER_ERROR_INVALID_INTERFACE_OWNER (-32)
#define FILTER_ERROR_INTERFACE_ARE_REFERENCED (-33)
#define FILTER_ERROR_INTERFACE_ARE_INVALID (-34)
#define FILTER_ERROR_INVALID_MEMORY_POINTER (-35)
#define FILTER_ERROR_INVALID_TIMER_HANDLE (-36)
#define FILTER_ERROR_INVALID_TIMER_HANDLER_OWNER (-37)
#define FILTER_ERROR_TIMER_HANDLER_NOT_FOUND (-38)
#define FILTER_ERROR_IOCTL_HANDLER_ALREADY_REGISTERED (-39)
#define FILTER_ERROR_INVALID_IOCTL_HANDLER (-40)
#define FILTER_ERROR_INVALID_IOCTL_HANDLER_OWNER (-41)
#define FILTER_ERROR_IOCTL_HANDLER_NOT_FOUND (-42)
#define FILTER_ERROR_UNSUPPORTED_PROTOCOL (-43)
#define FILTER_ERROR_INVALID_FILTER_TYPE (-44)
#define FILTER_ERROR_DRIVER_DIAG_IN_PROGRESS (-45)

/* Verdict of a packet filter. Any other value counts as no verdict: the next filter runs. */
typedef ULONG FILTER_RESULT;

#define FILTER_RESULT_BYPASS 0u  /* the next filter runs; behind the last the packet is delivered */
#define FILTER_RESULT_DISCARD 1u /* the packet is released */
#define FILTER_RESULT_CONSUME 2u /* the filter keeps the packet; it now belongs to the filter */
#define FILTER_RESULT_CAPTURE 3u /* as DISCARD, counted apart and not dumped: the filter has copied what it wants */

/* A point in the packet path; indexes the four chains. */
typedef LONG FILTER_TYPE;

#define FILTER_TYPE_INVALID (-1)
#define FILTER_TYPE_INCOMING_PACKET 0    /* received from an adapter */
#define FILTER_TYPE_OUTGOING_PACKET 1    /* sent by a protocol */
#define FILTER_TYPE_INJECT_TO_ADAPTER 2  /* injected towards an adapter */
#define FILTER_TYPE_INJECT_TO_PROTOCOL 3 /* injected towards the protocols */
#define FILTER_TYPE_COUNT 4

/*
 * Place in a chain, sorted ascending as an unsigned number. A filter goes in front of those of equal order, so the
 * newest FIRST filter runs first and the oldest LAST filter runs last. Values 1 to 0xFFFFFFFD are fixed positions.
 */
typedef LONG FILTER_ORDER;

#define FILTER_ORDER_NEXT (-2)
#define FILTER_ORDER_LAST (-1)
#define FILTER_ORDER_FIRST 0

/* Which filters of a chain Filter_InvokeFiltersEx runs, relative to the given one. Other values: as FROM_THIS. */
typedef ULONG FILTER_METHOD;

#define FILTER_METHOD_START_FROM_FIRST_FILTER 0u /* the whole chain */
#define FILTER_METHOD_START_UNTIL_THIS_FILTER 1u /* from the first up to and including the given one */
#define FILTER_METHOD_STOP_AT_THIS_FILTER 2u     /* from the first up to but excluding the given one */
#define FILTER_METHOD_START_FROM_THIS_FILTER 3u  /* from the given one to the last */
#define FILTER_METHOD_START_AFTER_THIS_FILTER 4u /* from its successor to the last */

/* m_InjectOrigin of a queued packet. */
#define FILTER_INJECT_FROM_HOOK 0u
#define FILTER_INJECT_FROM_APPLICATION 1u
#define FILTER_INJECT_FROM_FILTER 0x80000000u /* ORed with a FILTER_METHOD */

/* Adapter events. */
#define FILTER_EVENT_ADAPTER_OPENED 0u      /* open; may come again for an adapter that is open already */
#define FILTER_EVENT_MEDIA_CONNECT 1u       /* its medium is connected */
#define FILTER_EVENT_MEDIA_DISCONNECT 2u    /* its medium is disconnected */
#define FILTER_EVENT_ADAPTER_CLOSED 3u      /* closed: drop the handle, which goes on to pass Filter_IsValidAdapter */
#define FILTER_EVENT_IPCONFIG_CHANGED 4u    /* Filter_SetIPConfig or the user program has changed its addresses */

/* Interface events. */
#define FILTER_IF_EVENT_REGISTERED 0u    /* a new interface can be queried */
#define FILTER_IF_EVENT_DEREGISTERING 1u /* its owner deregisters it; references can still be released */
#define FILTER_IF_EVENT_DEREGISTERED 2u  /* it is gone: nothing referenced it any more */

typedef struct FilterDriver FilterDriver; /* handle of a registered client driver */
typedef struct PacketFilter PacketFilter; /* handle of a registered packet filter */
typedef struct EventHandler EventHandler; /* handle of a registered adapter event handler */
typedef struct IoCtrlHandler IoCtrlHandler; /* handle of a registered handler of control requests */
typedef struct FilterTimer FilterTimer; /* handle of a timer */
typedef struct FilterInterface FilterInterface; /* handle of a registered interface */
typedef struct IfEventHandler IfEventHandler; /* handle of a registered interface event handler */
typedef struct HashTable HashTable; /* a hash table */

/* ------------------------------------------------------------------------------------------- status and names */

/*
 * Names of values, for traces: pointers to constant texts that live as long as the driver. Any IRQL. Unlisted values
 * give "Unknown"; Filter_OrderString gives "FILTER_ORDER_FIXED" for every value that is not one of the named three.
 */
PCSTR Filter_StatusString(FILTER_STATUS nStatus);
PCSTR Filter_ResultString(FILTER_RESULT nResult);
PCSTR Filter_TypeString(FILTER_TYPE nType);
PCSTR Filter_OrderString(FILTER_ORDER nOrder);
PCSTR Filter_MethodString(FILTER_METHOD nMethod);

/* ----------------------------------------------------------------------------------------------------- memory */

/*
 * Allocates nSize bytes of non-paged pool under a pool tag and remembers size and validity in front of the block.
 * The block is not zeroed and aligned to 8 bytes. NULL when no memory is left. IRQL <= DISPATCH. The caller owns the
 * block and gives it back with Filter_FreeMemory.
 */
PVOID Filter_AllocateMemory(ULONG nSize, ULONG nTag);

/*
 * Frees a block of Filter_AllocateMemory, or one that a name getter handed out. IRQL <= DISPATCH.
 * FILTER_ERROR_INVALID_ARGUMENT: NULL. FILTER_ERROR_INVALID_MEMORY_POINTER: not such a block, or freed already (as
 * far as its memory has not been used again); nothing is freed.
 */
FILTER_STATUS Filter_FreeMemory(PVOID pVirtualAddress);

/* ------------------------------------------------------------------------------------------------------ locks */

/* A spin lock that remembers the level it raised from. The caller owns the storage, in non-paged memory. */
typedef struct FilterLock {
    KSPIN_LOCK m_SpinLock; /* 0 when free */
    KIRQL m_OldIrql;       /* level that Filter_AcquireLock raised from */
} FilterLock;

/*
 * Filter_InitializeLock before the first use, Filter_FreeLock behind the last (it only checks its argument). Acquire
 * raises to DISPATCH_LEVEL and waits for the lock, which must not be held by this thread; Release lowers to the level
 * before. IRQL <= DISPATCH; Release at DISPATCH_LEVEL. FILTER_ERROR_INVALID_ARGUMENT: NULL.
 */
FILTER_STATUS Filter_InitializeLock(FilterLock* pLock);
FILTER_STATUS Filter_AcquireLock(FilterLock* pLock);
FILTER_STATUS Filter_ReleaseLock(FilterLock* pLock);
FILTER_STATUS Filter_FreeLock(FilterLock* pLock);

/* --------------------------------------------------------------------------------------------- settings, time */

/*
 * Asks the hook driver for its four version numbers; the pointers are handed on as they are. IRQL <= DISPATCH.
 * FILTER_ERROR_INVALID_ARGUMENT: all four are NULL. FILTER_ERROR_INTERFACE_NOT_ACTIVE: no hook driver is bound, or
 * it gives none. FILTER_ERROR_INTERNAL_ERROR: the hook driver refused.
 */
FILTER_STATUS Filter_GetOsVersion(PULONG p1, PULONG p2, PULONG p3, PULONG p4);

/*
 * Copies a registry path into a new block of non-paged pool with a terminating zero; *pDestination's buffer belongs
 * to the caller, who frees it with ExFreePool. PASSIVE_LEVEL. STATUS_INVALID_PARAMETER: a NULL argument.
 * STATUS_INSUFFICIENT_RESOURCES: no memory.
 */
NTSTATUS Filter_SaveDriverRegistryPath(PUNICODE_STRING pSource, PUNICODE_STRING pDestination);

/* The same with the last characters overwritten by a tail, which is not longer than the source. */
NTSTATUS Filter_ReplaceDriverRegistryPath(PUNICODE_STRING pSource, PUNICODE_STRING pTail,
                                          PUNICODE_STRING pDestination);

/*
 * Read a value under an absolute registry path (zero-terminated). PASSIVE_LEVEL. The DWORD readers answer the default
 * when the value or the key is missing, the value is of another type or no memory is left. Filter_RegGetStringValue
 * answers TRUE when it was read; a missing value is read as an empty text, one of another type is not read. A pValue
 * whose Buffer is NULL gets a buffer from the registry (free it with ExFreePool), otherwise its own is filled.
 */
ULONG Filter_RegGetDwordValue(PUNICODE_STRING pRegistryPath, PCWSTR pszName, ULONG nDefault);
BOOLEAN Filter_RegGetStringValue(PUNICODE_STRING pRegistryPath, PCWSTR pszName, PUNICODE_STRING pValue);
ULONG Filter_GetGlobalDebugFlag(PUNICODE_STRING pRegistryPath, ULONG nDefault);
ULONG Filter_GetPendingPacketLimit(PUNICODE_STRING pRegistryPath, ULONG nDefault);

/*
 * Reads GlobalDebugFlag in a worker thread and stores it through pResult, for callers above PASSIVE_LEVEL. Path and
 * result must stay until then. Nothing happens when no memory is left. IRQL <= DISPATCH.
 */
VOID Filter_SafeGetGlobalDebugFlag(PUNICODE_STRING pRegistryPath, ULONG nDefault, PULONG pResult);

/* The system time in seconds and milliseconds since 1 January 1601 (UTC). Any IRQL. */
LONGLONG Filter_GetSystemTime(VOID);
LONGLONG Filter_GetSystemTimeMs(VOID);

/* ----------------------------------------------------------------------------------------------------- events */

/*
 * Queues an event for the user program: two values and a formatted text of at most 1,024 bytes, or none when the
 * format is NULL. A text of 1,024 characters or more is cut and stored with length -1 and without a terminating zero.
 * IRQL <= DISPATCH (wide texts: PASSIVE_LEVEL). FILTER_ERROR_OUT_OF_MEMORY: 1,023 events are queued already, or no
 * memory is left; the event is dropped.
 */
FILTER_STATUS Filter_ReportEvent(ULONG nEvent1, ULONG nEvent2, PCSTR pszFormat, ...);

/*
 * The same with nLength bytes of data, binary or text; more than 1,024 are cut, NULL data means none. The data of an
 * event that the user program is to read begins with a FilterEventHead, the message follows it.
 */
FILTER_STATUS Filter_ReportEventEx(ULONG nEvent1, ULONG nEvent2, ULONG nLength, const VOID* pData);

#pragma pack(push, 1)

/*
 * Head of an event's data: 38 bytes. When the program collects the event, the framework replaces the adapter handle by
 * the adapter's identifier (see UserEventHead). It does so with every event, whatever its data are, and an unknown
 * handle gets one of the 32 identifiers: put the same handle into all events that concern no adapter, NULL.
 */
typedef struct FilterEventHead {
    ULONG m_nValue1;           /*  0  the values are the reporting driver's */
    FilterAdapter* m_hAdapter; /*  4 */
    ULONGLONG m_nValue2;       /* 12 */
    ULONGLONG m_nValue3;       /* 20 */
    USHORT m_nValue4;          /* 28 */
    ULONG m_nValue5;           /* 30 */
    ULONG m_nValue6;           /* 34 */
} FilterEventHead;

#pragma pack(pop)

/* ------------------------------------------------------------------------------------------ addresses and text */

/* Byte order. Any IRQL; no function of this section takes a lock. */
USHORT htons(USHORT nValue) HOST_LINK_NAME("htons");
USHORT ntohs(USHORT nValue) HOST_LINK_NAME("htons");
ULONG htonl(ULONG nValue) HOST_LINK_NAME("htonl");
ULONG ntohl(ULONG nValue) HOST_LINK_NAME("htonl");

/*
 * The dotted text of an IPv4 address in network order. Writes at most 16 bytes into the caller's buffer and returns
 * it; a NULL buffer or a size below 16 gives a constant empty text. Any IRQL.
 */
PCSTR inet_ntoa(ULONG nAddress, PCHAR pBuffer, ULONG nSize) HOST_LINK_NAME("inet_ntoa");

/* The text 00-1A-2B-3C-4D-5E of a MAC address. Writes 18 bytes; the size is not looked at. Any IRQL. */
PCHAR inet_mtoa(const UCHAR* pMacAddress, PCHAR pBuffer, ULONG nSize) HOST_LINK_NAME("inet_mtoa");

/* (address AND mask) OR NOT mask. Any IRQL. */
ULONG SubnetBroadcastAddress(ULONG nAddress, ULONG nMask);

/* TRUE when the last octet of an address in network order is 255; knows no mask. Any IRQL. */
BOOLEAN IsBroadcastAddress(ULONG nAddress);

/*
 * 0 when two counted strings are equal byte for byte. -1: an argument is NULL or a is shorter. 1: a is longer, or
 * lengths are equal and bytes differ (this is no ordering). Any IRQL.
 */
LONG Filter_CompareString(const STRING* pA, const STRING* pB);

/* --------------------------------------------------------------------------------------------------- adapters */

/* Called by Filter_EnumAdapter at DISPATCH_LEVEL with the adapter table locked for reading; FALSE ends the walk. */
typedef BOOLEAN (*FILTER_ENUM_ADAPTER)(PVOID pContext, FilterAdapter* hAdapter);

/* TRUE when the handle carries the adapter tag; says so in the debug output otherwise. IRQL <= DISPATCH. It stays
   TRUE behind the adapter's close, as long as the hook driver keeps the memory. */
BOOLEAN Filter_IsValidAdapter(FilterAdapter* hAdapter);

/*
 * The 32-bit identifier by which user mode names an adapter, issued from 1 in the order of asking and never reused.
 * The handle is not examined. IRQL <= DISPATCH. FILTER_ERROR_INTERNAL_ERROR: 32 other handles have one already.
 */
FILTER_STATUS Filter_AdapterToId(FilterAdapter* hAdapter, PULONG pId);

/* The way back. FILTER_ERROR_INVALID_ARGUMENT: no such identifier was issued. IRQL <= DISPATCH. */
FILTER_STATUS Filter_IdToAdapter(ULONG nId, FilterAdapter** phAdapter);

/* The first adapter of the table, NULL when it is empty. Any IRQL. */
FilterAdapter* Filter_GetFirstAdapter(VOID);

/*
 * Calls a procedure for each adapter of the table. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: NULL driver or
 * procedure. FILTER_ERROR_INVALID_DRIVER_HANDLE.
 */
FILTER_STATUS Filter_EnumAdapter(FilterDriver* hFilterDriver, FILTER_ENUM_ADAPTER pfEnumProc, PVOID pContext);

/* Finds an adapter by its current MAC address (6 bytes), or by the beginning of its name (case-sensitive, not
   empty). IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT, FILTER_ERROR_ADAPTER_NOT_FOUND. */
FILTER_STATUS Filter_FindAdapterByMacAddress(const UCHAR* pMacAddress, FilterAdapter** phAdapter);
FILTER_STATUS Filter_FindAdapterByNetCfgInstanceId(PCSTR pszInstanceId, FilterAdapter** phAdapter);

/* Refreshes the table from the hook driver and reports every adapter in it as opened to all event handlers, which run
   at DISPATCH_LEVEL under the handler list's lock: not from inside such a handler. IRQL <= DISPATCH. */
VOID Filter_EnumOpenedAdapter(VOID);

/* ------------------------------------------------------------------------------------------- adapter properties */

/*
 * Read one property of an adapter through the second pointer: MAC addresses of 6 bytes, the media state as the hook
 * driver keeps it, the NDIS_MEDIUM, and whether it is an NDISWAN (PPP) adapter (nonzero). IRQL <= DISPATCH.
 * FILTER_ERROR_INVALID_ARGUMENT: a NULL pointer. FILTER_ERROR_INVALID_ADAPTER_HANDLE.
 */
FILTER_STATUS Filter_GetAdapterCurrentAddress(FilterAdapter* hAdapter, UCHAR* pMacAddress);
FILTER_STATUS Filter_GetAdapterPermentAddress(FilterAdapter* hAdapter, UCHAR* pMacAddress);
FILTER_STATUS Filter_GetAdapterMediaState(FilterAdapter* hAdapter, PULONG pnMediaState);
FILTER_STATUS Filter_GetAdapterMediumType(FilterAdapter* hAdapter, PULONG pnMedium);
FILTER_STATUS Filter_IsNdisWanAdapter(FilterAdapter* hAdapter, PBOOLEAN pbNdisWan);

/*
 * The bytes of payload that a frame of the adapter takes. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ADAPTER_HANDLE: also
 * for NULL, and before the other pointer is looked at. FILTER_ERROR_INVALID_ARGUMENT: pusMtu is NULL.
 */
FILTER_STATUS Filter_GetAdapterMtu(FilterAdapter* hAdapter, PUSHORT pusMtu);

/*
 * A copy of the adapter's name, with a terminating zero, in a block that the caller frees with Filter_FreeMemory.
 * IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: a NULL pointer. FILTER_ERROR_INVALID_ADAPTER_HANDLE. No memory:
 * success, *ppName unwritten.
 */
FILTER_STATUS Filter_GetAdapterName(FilterAdapter* hAdapter, UNICODE_STRING** ppName);

/*
 * The MAC addresses (6 bytes) that a filter gives to the Ethernet headers of a PPP adapter; all zero until they have
 * been set. Setting prints the address to the debug output. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: a NULL
 * pointer. FILTER_ERROR_INVALID_ADAPTER_HANDLE. FILTER_ERROR_ADAPTER_NOT_OPEN: getters only, the address is all zero;
 * it has been copied all the same.
 */
FILTER_STATUS Filter_GetAdapterPPPSrcMacAddress(FilterAdapter* hAdapter, UCHAR* pMacAddress);
FILTER_STATUS Filter_GetAdapterPPPDstMacAddress(FilterAdapter* hAdapter, UCHAR* pMacAddress);
FILTER_STATUS Filter_SetAdapterPPPSrcMacAddress(FilterAdapter* hAdapter, const UCHAR* pMacAddress);
FILTER_STATUS Filter_SetAdapterPPPDstMacAddress(FilterAdapter* hAdapter, const UCHAR* pMacAddress);

/*
 * Stores the adapter's congestion-control switch as given; the hook driver acts on it. IRQL <= DISPATCH.
 * FILTER_ERROR_INVALID_ARGUMENT: NULL adapter. FILTER_ERROR_INVALID_ADAPTER_HANDLE.
 */
FILTER_STATUS Filter_SetAdapterCongestionControl(FilterAdapter* hAdapter, BOOLEAN bEnable);

/*
 * Read and set whether the packets of an adapter are printed to the debug output (Filter_DumpPacket). The adapter is
 * named by its current MAC address, 6 bytes. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: a NULL pointer.
 * FILTER_ERROR_ADAPTER_NOT_FOUND: no adapter of the table has this address.
 */
FILTER_STATUS Filter_GetAdapterPacketDump(const UCHAR* pMacAddress, PBOOLEAN pbEnabled);
FILTER_STATUS Filter_SetAdapterPacketDump(const UCHAR* pMacAddress, BOOLEAN bEnable);

/*
 * Has the hook driver fill a list of the adapters bound to TCP/IP, with the whole AdapterList as its room. The
 * framework's own table is not touched. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: NULL.
 * FILTER_ERROR_INTERFACE_NOT_ACTIVE: no hook driver is bound, or it has no such function.
 */
FILTER_STATUS Filter_GetTcpIpBoundAdapters(AdapterList* pAdapterList);

/*
 * Stores the IP configuration of the adapter that pConfig->hAdapter names and reports FILTER_EVENT_IPCONFIG_CHANGED to
 * all event handlers, which run at DISPATCH_LEVEL under the handler list's lock: not from inside such a handler.
 * Before that it replaces Broadcast of the first m_nIP triples in the caller's record by what address and mask give. A
 * record equal to the stored one, so computed, reports nothing. Keep the counts at 8 or below: a greater m_nIP reaches
 * into the fields behind the triples. The record stays the caller's. Two that set one adapter at once may mix their
 * records. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: NULL. FILTER_ERROR_INVALID_ADAPTER_HANDLE.
 * FILTER_ERROR_EXCEPTION: pConfig faulted, or a handler did, and then the record is stored.
 */
FILTER_STATUS Filter_SetIPConfig(IPConfig* pConfig);

/*
 * The adapter's own IP configuration, for reading in place as long as the adapter is there; NULL when the handle is
 * not valid or pConfig faults. It is copied to pConfig, too, unless that is NULL. A setting meanwhile may show half
 * done. IRQL <= DISPATCH.
 */
IPConfig* Filter_GetIPConfig(FilterAdapter* hAdapter, IPConfig* pConfig);

/*
 * Have the hook driver read, or force, the media state of the adapter with a MAC address (6 bytes). What the values
 * mean and how many bytes it writes to pState, at most 8, is the hook driver's matter. PASSIVE_LEVEL, unless it
 * promises more. FILTER_ERROR_INVALID_ARGUMENT: a NULL pointer. FILTER_ERROR_INTERFACE_NOT_ACTIVE: no hook driver is
 * bound, or it has no such function. FILTER_ERROR_ADAPTER_NOT_FOUND, FILTER_ERROR_OUT_OF_MEMORY: the hook driver says
 * so; any other answer of it is success.
 */
FILTER_STATUS Filter_GetAdapterMediaStateByMac(const UCHAR* pMacAddress, PVOID pState);
FILTER_STATUS Filter_SetAdapterMediaStateByMac(const UCHAR* pMacAddress, UCHAR nState);

/* --------------------------------------------------------------------------------------------- adapter contexts */

/*
 * Reserves one of the 16 context slots that every adapter has for a driver; the driver's slot when it has one already.
 * *pnIndex is its index. The slot stays the driver's until it releases it, even behind its deregistration. The values
 * in it are what the slot's owner before has left. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: a NULL pointer.
 * FILTER_ERROR_INVALID_DRIVER_HANDLE. FILTER_ERROR_NO_FREE_ADAPTER_CONTEXT: all slots are taken.
 */
FILTER_STATUS Filter_AcquireAdapterContext(FilterDriver* hFilterDriver, PULONG pnIndex);

/*
 * Stores a value in the driver's slot of an adapter. The value is not interpreted, nor freed. IRQL <= DISPATCH.
 * FILTER_ERROR_INVALID_ARGUMENT: NULL driver or adapter. FILTER_ERROR_INVALID_DRIVER_HANDLE,
 * FILTER_ERROR_INVALID_ADAPTER_HANDLE. FILTER_ERROR_INVALID_ADAPTER_CONTEXT: the index is above 15.
 * FILTER_ERROR_INVALID_CONTEXT_OWNER: the slot is not this driver's.
 */
FILTER_STATUS Filter_SetAdapterContext(FilterDriver* hFilterDriver, FilterAdapter* hAdapter, ULONG nIndex,
                                       PVOID pContext);

/*
 * Reads the value in any slot of an adapter, whoever owns it; NULL until set. IRQL <= DISPATCH.
 * FILTER_ERROR_INVALID_ARGUMENT: a NULL pointer. FILTER_ERROR_INVALID_ADAPTER_HANDLE.
 * FILTER_ERROR_INVALID_ADAPTER_CONTEXT: the index is above 15.
 */
FILTER_STATUS Filter_GetAdapterContext(FilterAdapter* hAdapter, ULONG nIndex, PVOID* ppContext);

/*
 * Gives a slot back. The values in it stay, for its next owner to find; clear them before. IRQL <= DISPATCH.
 * FILTER_ERROR_INVALID_ARGUMENT: NULL driver. FILTER_ERROR_INVALID_DRIVER_HANDLE.
 * FILTER_ERROR_INVALID_ADAPTER_CONTEXT: the index is above 15. FILTER_ERROR_INVALID_CONTEXT_OWNER.
 */
FILTER_STATUS Filter_ReleaseAdapterContext(FilterDriver* hFilterDriver, ULONG nIndex);

/* ----------------------------------------------------------------------------------------------- adapter events */

/*
 * An adapter event handler: told of an event (FILTER_EVENT_*) of an adapter, with the contexts of the driver and of
 * the registration. Runs at DISPATCH_LEVEL under the handler list's lock: it must not block, nor register or
 * deregister handlers or drivers, set an IP configuration or enumerate opened adapters. An exception is contained; the
 * handlers behind it are then not told.
 */
typedef VOID (*FILTER_EVENT_PROC)(FilterDriver* hFilterDriver, PVOID pDriverContext, ULONG nEvent,
                                  PVOID pEventContext, FilterAdapter* hAdapter);

/*
 * Registers the one event handler of a driver, for all adapters; it is called behind those registered before. It hears
 * of adapters that are open already from Filter_EnumOpenedAdapter. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT:
 * NULL driver, procedure or output. FILTER_ERROR_INVALID_DRIVER_HANDLE. FILTER_ERROR_EVENT_HANDLER_ALREADY_REGISTERED:
 * the driver has one. No memory: success, *phEventHandler unwritten.
 */
FILTER_STATUS Filter_RegisterEventHandler(FilterDriver* hFilterDriver, FILTER_EVENT_PROC pfEventProc,
                                          PVOID pEventContext, EventHandler** phEventHandler);

/* TRUE when the handle carries the handler tag; says so in the debug output otherwise. IRQL <= DISPATCH. */
BOOLEAN Filter_IsValidEventHandler(EventHandler* hEventHandler);

/*
 * Removes a handler; it is not running any more when this returns. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: a
 * NULL pointer. FILTER_ERROR_INVALID_DRIVER_HANDLE, FILTER_ERROR_INVALID_EVENT_HANDLER,
 * FILTER_ERROR_EVENT_HANDLER_NOT_FOUND. FILTER_ERROR_INVALID_EVENT_HANDLER_OWNER: it belongs to another driver.
 */
FILTER_STATUS Filter_DeregisterEventHandler(FilterDriver* hFilterDriver, EventHandler* hEventHandler);

/* --------------------------------------------------------------------------------------------- filter drivers */

/* The version of this interface: 1 and 0. Any IRQL. FILTER_ERROR_INVALID_ARGUMENT: a NULL pointer. */
FILTER_STATUS Filter_GetAPIVersion(PULONG pMajor, PULONG pMinor);

/*
 * Registers a client driver under a name, which is copied and must be unique byte for byte. The context is handed to
 * all its callbacks. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: NULL name or output.
 * FILTER_ERROR_UNSUPPORTED_API_VERSION: not 1.0. FILTER_ERROR_DRIVER_ALREADY_REGISTERED.
 * FILTER_ERROR_INTERFACE_NOT_ACTIVE: the framework's own service has not been started. No memory: success, with
 * *phFilterDriver unwritten.
 */
FILTER_STATUS Filter_RegisterDriver(const STRING* pDriverName, PVOID pDriverContext, ULONG nMajor, ULONG nMinor,
                                    FilterDriver** phFilterDriver);

/* TRUE when the handle carries the driver tag; says so in the debug output otherwise. IRQL <= DISPATCH. */
BOOLEAN Filter_IsValidDriver(FilterDriver* hFilterDriver);

/*
 * A copy of the name in a block that the caller frees with Filter_FreeMemory. IRQL <= DISPATCH.
 * FILTER_ERROR_INVALID_ARGUMENT, FILTER_ERROR_INVALID_DRIVER_HANDLE. No memory: success, *ppName unwritten.
 */
FILTER_STATUS Filter_GetDriverName(FilterDriver* hFilterDriver, STRING** ppName);
FILTER_STATUS Filter_GetDriverContext(FilterDriver* hFilterDriver, PVOID* ppDriverContext);

/*
 * Removes a driver with its timers, adapter event handlers, packet filters, interfaces and IOCTL handlers. Adapter
 * contexts, interface event handlers, references to others' interfaces, hash tables and NDIS requests stay: release
 * them before. Callbacks of timers that are queued or running are not waited for, and must not create anything with the
 * handle, which is dead afterwards: free the timers before. An interface that is still referenced stays listed under
 * its name, inactive, until the framework unloads: its references are invalid from now on and can no longer be
 * released. No interface event is delivered.
 * IRQL <= DISPATCH, with no lock of the framework held (not from inside a filter procedure or handler).
 * FILTER_ERROR_INVALID_ARGUMENT, FILTER_ERROR_INVALID_DRIVER_HANDLE, FILTER_ERROR_DRIVER_NOT_FOUND.
 */
FILTER_STATUS Filter_DeregisterDriver(FilterDriver* hFilterDriver);

/* --------------------------------------------------------------------------------------------- packet filters */

/*
 * A filter procedure: looks at one packet and gives its verdict. Runs at DISPATCH_LEVEL with its chain locked for
 * reading: it must not block, nor register or deregister filters of that chain. The packet is the procedure's to
 * read and change; it keeps it only by answering FILTER_RESULT_CONSUME. An exception is contained and counts as no
 * verdict.
 */
typedef FILTER_RESULT (*FILTER_PROC)(FilterDriver* hFilterDriver, PVOID pDriverContext, PacketFilter* hPacketFilter,
                                     PVOID pFilterContext, FilterPacket* pPacket);

/* Called by Filter_EnumFilter at DISPATCH_LEVEL with the chain locked for reading: it must not register or deregister
   filters of that chain. Its result is ignored. */
typedef BOOLEAN (*FILTER_ENUM_FILTER)(PVOID pContext, PacketFilter* hPacketFilter);

/*
 * Places a filter in the chain of nType at nOrder; its name is copied and must be unique in that chain. It may be
 * called at once. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: NULL driver, name, procedure or output.
 * FILTER_ERROR_INVALID_DRIVER_HANDLE, FILTER_ERROR_INVALID_FILTER_TYPE, FILTER_ERROR_FILTER_ALREADY_REGISTERED. No
 * memory: success, with *phPacketFilter unwritten.
 */
FILTER_STATUS Filter_RegisterFilter(FilterDriver* hFilterDriver, const STRING* pFilterName, FILTER_PROC pfFilterProc,
                                    PVOID pFilterContext, FILTER_TYPE nType, FILTER_ORDER nOrder,
                                    PacketFilter** phPacketFilter);

/* TRUE when the handle carries the filter tag and a valid type; says so in the debug output otherwise.
   IRQL <= DISPATCH. */
BOOLEAN Filter_IsValidFilter(PacketFilter* hPacketFilter);

/*
 * Removes a filter; its procedure is not running any more when this returns. IRQL <= DISPATCH.
 * FILTER_ERROR_INVALID_ARGUMENT, FILTER_ERROR_INVALID_DRIVER_HANDLE, FILTER_ERROR_INVALID_PACKET_FILTER,
 * FILTER_ERROR_FILTER_NOT_FOUND, FILTER_ERROR_INVALID_FILTER_OWNER: it belongs to another driver.
 */
FILTER_STATUS Filter_DeregisterFilter(FilterDriver* hFilterDriver, PacketFilter* hPacketFilter);

/*
 * What was given at registration. The name is a copy that the caller frees with Filter_FreeMemory (no memory:
 * success, *ppName unwritten). IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT, FILTER_ERROR_INVALID_PACKET_FILTER.
 */
FILTER_STATUS Filter_GetFilterName(PacketFilter* hPacketFilter, STRING** ppName);
FILTER_STATUS Filter_GetFilterContext(PacketFilter* hPacketFilter, PVOID* ppFilterContext);
FILTER_STATUS Filter_GetFilterType(PacketFilter* hPacketFilter, FILTER_TYPE* pnType);
FILTER_STATUS Filter_GetFilterOrder(PacketFilter* hPacketFilter, FILTER_ORDER* pnOrder);

/*
 * Calls a procedure for each filter of this driver in the chain of nType whose type has a bit in common with nType;
 * so type 0 (incoming) finds none. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT,
 * FILTER_ERROR_INVALID_DRIVER_HANDLE, FILTER_ERROR_INVALID_FILTER_TYPE.
 */
FILTER_STATUS Filter_EnumFilter(FilterDriver* hFilterDriver, FILTER_ENUM_FILTER pfEnumProc, PVOID pContext,
                                FILTER_TYPE nType);

/*
 * Prints a chain, or one filter with its position and counters, to the debug output; that filter must stay registered
 * meanwhile. IRQL <= DISPATCH. FILTER_ERROR_INVALID_FILTER_TYPE: no such chain.
 */
FILTER_STATUS Filter_DumpFilter(FILTER_TYPE nType);
VOID Filter_ShowFilter(PacketFilter* hPacketFilter, ULONG nPosition);

/* ------------------------------------------------------------------------------------------------- invocation */

/*
 * Runs the chain of a type over a packet and delivers, releases or leaves it as the verdicts say: a packet that every
 * filter bypasses goes to the protocols (incoming, inject to protocol) or to its adapter. Takes the packet over; one
 * that cannot be placed (bad type, bad filter) is released. IRQL <= DISPATCH.
 */
VOID Filter_InvokeFilters(FILTER_TYPE nType, FilterPacket* pPacket);

/* The same over a part of the chain that holds the given filter. */
VOID Filter_InvokeFiltersEx(FILTER_METHOD nMethod, PacketFilter* hPacketFilter, FilterPacket* pPacket);

/* ---------------------------------------------------------------------------------- injection and indication */

/*
 * Hand a packet straight to the hook driver: to be sent on the adapter, or indicated to the protocols. No filter runs.
 * Take the packet over, also on failure. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: NULL packet or adapter.
 * FILTER_ERROR_INTERFACE_NOT_ACTIVE: no hook driver is bound. FILTER_ERROR_INTERNAL_ERROR: the hook driver refused.
 */
FILTER_STATUS Filter_InjectPacketToAdapterEx(FilterAdapter* hAdapter, FilterPacket* pPacket);
FILTER_STATUS Filter_IndicatePacketToProtocolEx(FilterAdapter* hAdapter, FilterPacket* pPacket);

/*
 * Run the inject chain of the direction in the caller's context and deliver. Take the packet over, also on failure.
 * IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: NULL packet or adapter.
 */
FILTER_STATUS Filter_InjectPacketToAdapter(FilterAdapter* hAdapter, FilterPacket* pPacket);
FILTER_STATUS Filter_IndicatePacketToProtocol(FilterAdapter* hAdapter, FilterPacket* pPacket);

/*
 * Queue a packet for a worker thread, which treats it as just received from the adapter, as just sent by a protocol,
 * as injected by the user program (nDirection NDIS_FILTER_DIRECTION_*), or runs Filter_InvokeFiltersEx with the
 * method and filter. Packets of one pair of IPv4 addresses keep their order. Take the packet over, also on failure;
 * the queues have no bound. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: NULL packet, adapter or filter.
 */
FILTER_STATUS Filter_IndicatePacketFromAdapter(FilterAdapter* hAdapter, FilterPacket* pPacket);
FILTER_STATUS Filter_InjectPacketFromProtocol(FilterAdapter* hAdapter, FilterPacket* pPacket);
FILTER_STATUS Filter_InjectPacketFromApplication(FilterAdapter* hAdapter, FilterPacket* pPacket, ULONG nDirection);
FILTER_STATUS Filter_InjectPacketFromFilter(FILTER_METHOD nMethod, PacketFilter* hPacketFilter,
                                            FilterPacket* pPacket);

/*
 * Copies a packet to the user program with a code and a value. The caller keeps the packet. Success also when no
 * program listens or its ring is full. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: NULL packet.
 */
FILTER_STATUS Filter_IndicatePacketToApplication(FilterPacket* pPacket, ULONG nCode, ULONGLONG nValue);

/*
 * Copies a signal record of NDIS_FILTER_SIGNAL_SIZE bytes to the user program; its word at offset 12 is set to 0
 * first. The caller keeps the record. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: NULL.
 * FILTER_ERROR_OUT_OF_MEMORY: the ring is full or sharing has stopped.
 */
FILTER_STATUS Filter_IndicateSignalToApplication(PVOID pSignal);

/* Packets now waiting on both queues. Any IRQL. */
ULONG Filter_GetInjectPacketCount(VOID);

/* Stores the pending-packet limit, for hook and client drivers; no queue consults it. Any IRQL. */
VOID Filter_SetPendingPacketLimit(ULONG nLimit);

/* ---------------------------------------------------------------------------------------------------- packets */

/*
 * A new packet from the hook driver, or NULL when it has none or is not bound. The handle is not examined. Hand it
 * on or release it. IRQL <= DISPATCH. Use the short forms, which add the calling file and line.
 */
FilterPacket* Filter_AllocatePacketp(FilterAdapter* hAdapter, PCSTR pszFile, ULONG nLine);
#define Filter_AllocatePacket(hAdapter) Filter_AllocatePacketp((hAdapter), __FILE__, __LINE__)

/*
 * Gives a packet back to the hook driver, which runs its release callback. While no hook driver is bound it answers
 * success and frees nothing. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: NULL.
 */
FILTER_STATUS Filter_ReleasePacketp(FilterPacket* pPacket, PCSTR pszFile, ULONG nLine);
#define Filter_ReleasePacket(pPacket) Filter_ReleasePacketp((pPacket), __FILE__, __LINE__)

/*
 * Copies the whole frame into m_Data where only its leading part is there (m_nBytesRead below m_nPacketSize). Call it
 * before reading payload. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: NULL.
 */
FILTER_STATUS Filter_TransferPacketData(FilterPacket* pPacket);

/*
 * Call before changing m_Data: marks the buffer as the authoritative frame and, the first time, completes it.
 * IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: NULL.
 */
FILTER_STATUS Filter_ModifyPacket(FilterPacket* pPacket);

/* The callback that the hook driver makes when it frees the packet; a second one replaces the first. Any IRQL. */
VOID Filter_SetPacketReleaseCallback(FilterPacket* pPacket, FILTER_RELEASE_CALLBACK pfCallback, PVOID pContext);
VOID Filter_ClearPacketReleaseCallback(FilterPacket* pPacket);

/*
 * Locates the headers of the frame at pFrame (NULL: the packet's m_Data) and stores pointers to them in the packet.
 * Lengths are not examined: pointers may lie behind the end of a short frame. VLAN tags are not looked through, and
 * only the first fragment of an IPv4 datagram gets transport pointers. pFrame must be readable for 78 bytes (Ethernet
 * header, longest IPv4 header, four bytes of ports). Any IRQL. FILTER_ERROR_INVALID_ARGUMENT: NULL packet.
 */
FILTER_STATUS Filter_InitPacketHeader(FilterPacket* pPacket, UCHAR* pFrame);

/*
 * Recomputes a checksum of an IPv4 datagram in place: selector 0 the header's (RFC 791), 1 ICMP (RFC 792), 6 TCP
 * (RFC 9293), 17 UDP (RFC 768). The selector decides, not the protocol in the header. Lengths are the header's own: as
 * many bytes as its total length says must be readable, so compare it with the frame first; so must the first 20 bytes
 * of the header, and the checksum field must be writable, also when the lengths end before it. A UDP checksum of zero
 * stays zero. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: NULL. FILTER_ERROR_UNSUPPORTED_PROTOCOL: another
 * selector; nothing is written.
 */
FILTER_STATUS Filter_CalculatePacketCheckSum(PVOID pIpHeader, ULONG nProtocol);

/*
 * TRUE when the packet's IPv4 header checksum was right, or it has no IPv4 header; pPacket is not NULL. Either way the
 * right checksum stands in the header afterwards. IRQL <= DISPATCH.
 */
BOOLEAN Filter_VerifyPacketCheckSum(FilterPacket* pPacket);

/*
 * A new packet of the same adapter with a copy of the whole frame, its parsed headers and application data. It has no
 * NDIS packet, no release callback, and is not marked as modified. The clone belongs to the caller, the source stays
 * whose it was. A source whose headers were parsed from a buffer outside of it gives a clone with an m_pEthernet that
 * must not be followed, and no headers. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: NULL.
 * FILTER_ERROR_OUT_OF_MEMORY: the hook driver gives no packet. FILTER_ERROR_EXCEPTION: a pointer faulted; *ppClone,
 * which must be NULL beforehand, then holds the packet when there is one, which the caller releases.
 */
FILTER_STATUS Filter_ClonePacket(FilterPacket* pPacket, FilterPacket** ppClone);

/* Prints a packet to the debug output when its adapter's dump flag is on. IRQL <= DISPATCH. */
VOID Filter_DumpPacket(PCSTR pszTitle, FilterPacket* pPacket);

/* ---------------------------------------------------------------------------------------------- NDIS requests */

/*
 * NDIS requests query and set object identifiers (OIDs) of an adapter. The hook driver allocates, issues and completes
 * them; the framework passes them on. A handle is the address of the part of the hook driver's record that the client
 * fills and reads: its layout, how a completion is told, what pContext means, and whether a call waits, are the hook
 * driver's. Handles are not owned by a driver: free each one before leaving.
 */

/*
 * Gets a request from the hook driver. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: NULL.
 * FILTER_ERROR_INTERFACE_NOT_ACTIVE: no hook driver is bound, or it has no such function. FILTER_ERROR_OUT_OF_MEMORY:
 * it gives none.
 */
FILTER_STATUS Filter_AllocateNdisRequest(PVOID* phRequest);

/* TRUE when the handle carries the request tag; says so in the debug output otherwise. IRQL <= DISPATCH. */
BOOLEAN Filter_IsValidNdisRequest(PVOID hRequest);

/*
 * Has the hook driver issue a request on an adapter. From here to its completion the request is the hook driver's.
 * Success says nothing about the outcome, which the hook driver tells through the request. IRQL <= DISPATCH, unless the
 * hook driver asks for less. FILTER_ERROR_INVALID_ARGUMENT: NULL adapter or request.
 * FILTER_ERROR_INVALID_ADAPTER_HANDLE, FILTER_ERROR_INVALID_NDIS_REQUEST. FILTER_ERROR_INTERFACE_NOT_ACTIVE: as above.
 */
FILTER_STATUS Filter_MakeNdisRequest(FilterAdapter* hAdapter, PVOID hRequest, PVOID pContext);

/*
 * Gives a request back to the hook driver; it must not be under way. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT:
 * NULL. FILTER_ERROR_INVALID_NDIS_REQUEST. FILTER_ERROR_INTERFACE_NOT_ACTIVE: as above; nothing is freed.
 */
FILTER_STATUS Filter_FreeNdisRequest(PVOID hRequest);

/* ----------------------------------------------------------------------------------------------------- timers */

/*
 * A timer's callback. Runs at PASSIVE_LEVEL in a system worker thread, so it may wait and use paged memory. A repeating
 * timer queues a callback at each expiry, whether or not the one before has ended: several may run at once. It must not
 * free its own timer. An exception is contained and reported in the debug output.
 */
typedef VOID (*FILTER_TIMER_PROC)(FilterDriver* hFilterDriver, PVOID pDriverContext, FilterTimer* hTimer,
                                  PVOID pTimerContext);

/*
 * Creates a timer of a driver, which does not run yet; bRepeatTimer is nonzero for one that starts itself anew at each
 * expiry. Free it with Filter_FreeTimer. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: NULL driver, procedure or
 * output. FILTER_ERROR_INVALID_DRIVER_HANDLE. No memory: success, *phTimer unwritten.
 */
FILTER_STATUS Filter_InitializeTimer(FilterDriver* hFilterDriver, FILTER_TIMER_PROC pfTimerProc, PVOID pTimerContext,
                                     BOOLEAN bRepeatTimer, FilterTimer** phTimer);

/* TRUE when the handle carries the timer tag; says so in the debug output otherwise. IRQL <= DISPATCH. */
BOOLEAN Filter_IsValidTimer(FilterTimer* hTimer);

/*
 * Starts a timer: its callback is queued after so many milliseconds, and every so many from then on when it repeats (0:
 * as soon as the clock ticks). One that runs already gets the new time. The period follows the system's clock tick; an
 * expiry without memory for the callback is lost. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: NULL.
 * FILTER_ERROR_INVALID_TIMER_HANDLE: it does not carry the timer tag. A timer that is being freed, or whose driver has
 * gone, is not set any more: its callbacks that still run get success.
 */
FILTER_STATUS Filter_StartTimer(FilterTimer* hTimer, ULONG nMilliseconds);

/* Stops a timer until it is started again. Callbacks that are queued or running are not stopped, nor waited for.
   IRQL and statuses as for Filter_StartTimer. */
FILTER_STATUS Filter_StopTimer(FilterTimer* hTimer);

/*
 * Stops a timer, waits until its queued and running callbacks have ended, and frees it. PASSIVE_LEVEL.
 * FILTER_ERROR_INVALID_ARGUMENT: a NULL pointer. FILTER_ERROR_INVALID_DRIVER_HANDLE, FILTER_ERROR_INVALID_TIMER_HANDLE,
 * FILTER_ERROR_TIMER_HANDLER_NOT_FOUND. FILTER_ERROR_INVALID_TIMER_HANDLER_OWNER: it belongs to another driver and runs
 * on.
 */
FILTER_STATUS Filter_FreeTimer(FilterDriver* hFilterDriver, FilterTimer* hTimer);

/* ------------------------------------------------------------------------------------------------- hash tables */

/*
 * Tables of records that clients own: each begins with a HashItem and comes with a hash value that the client computes.
 * Tables and items are counted; what a call hands out stays valid until it is released, also when others delete it
 * meanwhile. Pointers are not checked but for NULL, which does nothing. IRQL <= DISPATCH throughout.
 *
 * A table has one lock: finds share it; inserting, deleting, enumerating and cleaning take it alone. The functions
 * without Ex take it themselves, except inside an enumeration routine of the same table, which runs under it. The Ex
 * ones take none: call them between Filter_LockHashTable and Filter_UnLockHashTable, or in an enumeration routine.
 * Anything else that takes the lock must not be called where it is held: no other function of the table in its compare
 * routine, nor in its free routine, unless an enumeration routine deletes the item.
 */

/* The first field of a client's record: 64 bytes, all zero in the beginning. Only the hash value is the client's. */
typedef struct HashItem {
    LIST_ENTRY m_ListEntry;       /*  0  in the list of all items */
    LIST_ENTRY m_BucketEntry;     /* 16  in its bucket */
    ULONG m_HashValue;            /* 32  set by the client before it inserts the item, and not changed while it is in */
    ULONG m_RefCount;             /* 36  interlocked */
    ULONG m_nTime;                /* 40  low 32 bits of Filter_GetSystemTime at the insertion or the last find */
    struct HashTable* m_pHashTable; /* 48  NULL until inserted */
    BOOLEAN m_bDeleted;           /* 56 */
} HashItem;

/*
 * Frees an item that nothing refers to any more, at up to DISPATCH_LEVEL; under the table's lock when the table is
 * cleaned or destroyed, when an enumeration routine deletes the item, and when the last reference is given back between
 * Filter_LockHashTable and Filter_UnLockHashTable. An exception is contained.
 */
typedef VOID (*FILTER_FREE_HASH_ITEM)(HashItem* pHashItem);

/* TRUE (any nonzero value) when an item has the key. Called for items with the right hash value only, at DISPATCH_LEVEL
   under the table's lock. An exception is contained: nothing is found then. */
typedef BOOLEAN (*FILTER_COMPARE_HASH_ITEM)(HashItem* pHashItem, const VOID* pKey);

/* Called for an item at DISPATCH_LEVEL under the table's lock. It may insert, find and delete items, also the given
   one: that uses up the reference of the enumeration, so the routine takes none for it beforehand. An exception is
   contained and ends the enumeration. */
typedef VOID (*FILTER_ENUM_HASH_ITEM)(PVOID pContext, HashItem* pHashItem);

/*
 * Creates a table with one reference, the caller's; NULL without memory. The name of what it holds is for messages and
 * must stay ("unknown" for NULL). Without a free routine items are freed with Filter_FreeMemory; without a compare
 * routine the hash value alone decides. An odd size is raised by one; make it a power of two: the bucket is the value
 * AND size - 1, so other sizes leave buckets unused.
 */
HashTable* Filter_CreateHashTable(PCSTR pszItemName, ULONG nSize, FILTER_FREE_HASH_ITEM pfnFreeItem,
                                  FILTER_COMPARE_HASH_ITEM pfnCompItem);

/*
 * Remove all items; destroying also gives back the creator's reference, so that the table goes with the last item that
 * is held elsewhere. Whoever holds a removed item only releases it, and does not delete it. Filter_GetHashItemCount
 * still counts removed items.
 */
VOID Filter_DestroyHashTable(HashTable* pHashTable);
VOID Filter_CleanHashTable(HashTable* pHashTable);

/* Items inserted and not deleted; 0 for NULL. */
ULONG Filter_GetHashItemCount(HashTable* pHashTable);

/* Call a routine for each item, in the order of insertion, or for those of the bucket of a hash value, newest first;
   items with other values share the bucket. Not from inside an enumeration of the table. */
VOID Filter_EnumHashTable(HashTable* pHashTable, FILTER_ENUM_HASH_ITEM pfnEnumItem, PVOID pEnumContext);
VOID Filter_EnumHashTableEx(HashTable* pHashTable, ULONG nHashValue, FILTER_ENUM_HASH_ITEM pfnEnumItem,
                            PVOID pEnumContext);

/* Take and release the table's lock for writing, with the caller's storage for the level before. The caller is at
   DISPATCH_LEVEL in between, and releases in the same thread. Not a second time by the holder, nor in an enumeration
   routine of the table. NULL does nothing. */
VOID Filter_LockHashTable(HashTable* pHashTable, PLOCK_STATE pLockState);
VOID Filter_UnLockHashTable(HashTable* pHashTable, PLOCK_STATE pLockState);

/*
 * Insert an item and return it, with a reference for the caller, who releases it (or deletes the item). Equal items may
 * be in at once. With a NULL table nothing is inserted, but an item that is in a table gets the reference. The item
 * must not be in a table, nor still be referenced since it was in one: its count starts anew.
 */
HashItem* Filter_InsertHashItem(HashTable* pHashTable, HashItem* pHashItem);
HashItem* Filter_InsertHashItemEx(HashTable* pHashTable, HashItem* pHashItem);

/* The newest item with the hash value and key, with a reference for the caller; NULL when there is none. */
HashItem* Filter_FindHashItem(HashTable* pHashTable, ULONG nHashValue, const VOID* pKey);
HashItem* Filter_FindHashItemEx(HashTable* pHashTable, ULONG nHashValue, const VOID* pKey);

/*
 * Take an item out of its table and release the caller's reference, the one from inserting, finding or enumerating it.
 * An item that somebody else has deleted meanwhile is only released. FALSE: NULL, or never inserted.
 */
BOOLEAN Filter_DeleteHashItem(HashItem* pHashItem);
BOOLEAN Filter_DeleteHashItemEx(HashItem* pHashItem);

/* References to keep a table or an item that is in a table. The last release frees: items through the table's free
   routine, and with the last item of a destroyed table the table. */
VOID Filter_ReferenceHashTable(HashTable* pHashTable);
VOID Filter_ReleaseHashTable(HashTable* pHashTable);
VOID Filter_ReferenceHashItem(HashItem* pHashItem);
VOID Filter_ReleaseHashItem(HashItem* pHashItem);

/* -------------------------------------------------------------------------------------------------- interfaces */

/*
 * An interface is a block of data that a driver publishes under a name for others, typically a table of routines. Its
 * first 16-bit word is its whole length in bytes, that word included; the rest is agreed between the drivers. An owner
 * whose routines others call must stay until they have released their references: watch the status of
 * Filter_DeregisterInterface.
 */

/*
 * Publishes a copy of the block under a name, which is copied and must be unique byte for byte, and delivers
 * FILTER_IF_EVENT_REGISTERED. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: a NULL pointer.
 * FILTER_ERROR_INVALID_DRIVER_HANDLE, FILTER_ERROR_INTERFACE_ALREADY_REGISTERED. FILTER_ERROR_EXCEPTION: also when a
 * handler of the event faults; *phInterface is then written, and the interface published. No memory: success,
 * *phInterface unwritten.
 */
FILTER_STATUS Filter_RegisterInterface(FilterDriver* hFilterDriver, const STRING* pInterfaceName,
                                       const VOID* pInterface, FilterInterface** phInterface);

/*
 * Looks an interface up and hands out a reference: the address of a copy of the block, which the caller may read and
 * change until it gives it back with Filter_ReleaseInterface. Each query makes another. The copy is aligned to 8 bytes.
 * IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: a NULL pointer. FILTER_ERROR_INVALID_DRIVER_HANDLE,
 * FILTER_ERROR_INTERFACE_NOT_FOUND: also while FILTER_IF_EVENT_DEREGISTERING is delivered.
 * FILTER_ERROR_INTERFACE_ARE_INVALID: its owner has deregistered it or is gone, and others still hold references.
 * FILTER_ERROR_OUT_OF_MEMORY.
 */
FILTER_STATUS Filter_QueryInterface(FilterDriver* hFilterDriver, const STRING* pInterfaceName, PVOID* ppInterface);

/*
 * TRUE when a copy carries the reference tag and its owner is there, or when a handle carries the interface tag; say so
 * in the debug output otherwise. A reference stays valid when the interface is deregistered, but not when its owner
 * deregisters itself. IRQL <= DISPATCH.
 */
BOOLEAN Filter_IsValidInterface(PVOID pInterface);
BOOLEAN Filter_IsValidInterfaceObject(FilterInterface* hInterface);

/*
 * Gives a copy back. The last reference to an interface that its owner has deregistered frees the interface, without an
 * event. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: a NULL pointer. FILTER_ERROR_INVALID_DRIVER_HANDLE.
 * FILTER_ERROR_INVALID_FILTER_INTERFACE: no valid copy, or its owner has deregistered itself; such a copy cannot be
 * released any more. That or FILTER_ERROR_INTERFACE_REFERENCE_NOT_FOUND: released before.
 * FILTER_ERROR_INVALID_INTERFACE_REFERENCE_OWNER: another driver has queried it.
 */
FILTER_STATUS Filter_ReleaseInterface(FilterDriver* hFilterDriver, PVOID pInterface);

/*
 * Withdraws an interface: delivers FILTER_IF_EVENT_DEREGISTERING, for others to release their references, and when none
 * is left FILTER_IF_EVENT_DEREGISTERED. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: a NULL pointer.
 * FILTER_ERROR_INVALID_DRIVER_HANDLE, FILTER_ERROR_INVALID_FILTER_INTERFACE. FILTER_ERROR_INTERFACE_NOT_FOUND: freed
 * before, or another thread is deregistering it; until that has ended its name is free for others.
 * FILTER_ERROR_INVALID_INTERFACE_OWNER: it belongs to another driver. FILTER_ERROR_INTERFACE_ARE_REFERENCED: it is
 * withdrawn, keeps its name, and is freed by the last release; calling again tries again. FILTER_ERROR_EXCEPTION: also
 * when a handler faulted and no reference is left; the interface is withdrawn all the same.
 */
FILTER_STATUS Filter_DeregisterInterface(FilterDriver* hFilterDriver, FilterInterface* hInterface);

/* -------------------------------------------------------------------------------------------- interface events */

/*
 * An interface event handler: told of an event (FILTER_IF_EVENT_*) of an interface, by name, with the contexts of the
 * driver and of the registration. Runs at DISPATCH_LEVEL under the handler list's lock: it must not block, nor register
 * or deregister interface event handlers or interfaces. It may query and release interfaces. The name is valid during
 * the call only. An exception is contained; handlers behind it are not told.
 */
typedef VOID (*FILTER_IF_EVENT_PROC)(FilterDriver* hFilterDriver, PVOID pDriverContext, ULONG nEvent,
                                     PVOID pIfEventContext, const STRING* pInterfaceName);

/*
 * Registers the one interface event handler of a driver. Deregister it before the driver: the framework does not, goes
 * on calling it with the dead handle, and may take a later driver at the same address for one that has a handler.
 * IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: NULL driver, procedure or output.
 * FILTER_ERROR_INVALID_DRIVER_HANDLE. FILTER_ERROR_EVENT_HANDLER_ALREADY_REGISTERED: the driver has one. No memory:
 * success, *phIfEventHandler unwritten.
 */
FILTER_STATUS Filter_RegisterIfEventHandler(FilterDriver* hFilterDriver, FILTER_IF_EVENT_PROC pfIfEventProc,
                                            PVOID pIfEventContext, IfEventHandler** phIfEventHandler);

/* TRUE when the handle carries the handler tag; says so in the debug output otherwise. IRQL <= DISPATCH. */
BOOLEAN Filter_IsValidIfEventHandler(IfEventHandler* hIfEventHandler);

/*
 * Removes a handler; it is not running any more when this returns. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: a
 * NULL pointer. FILTER_ERROR_INVALID_DRIVER_HANDLE, FILTER_ERROR_INVALID_EVENT_HANDLER,
 * FILTER_ERROR_EVENT_HANDLER_NOT_FOUND. FILTER_ERROR_INVALID_EVENT_HANDLER_OWNER: it belongs to another driver.
 */
FILTER_STATUS Filter_DeregisterIfEventHandler(FilterDriver* hFilterDriver, IfEventHandler* hIfEventHandler);

/* --------------------------------------------------------------------------------------------- control requests */

/*
 * A handler of control requests of the user program that neither the framework nor the hook driver knows. Input and
 * output are one buffer, NULL when both lengths (in bytes) are 0. The handler stores the number of output bytes
 * through pBytesReturned, where one that was asked before may have left another, and answers the status of the
 * request. To decline, so that the next handler is asked, it answers what Filter_DefaultIoCtrlHandler does:
 * 0xC00000BB, which ntstatus.h calls STATUS_NOT_SUPPORTED (STATUS_INVALID_DEVICE_REQUEST is another number, and an
 * answer like any other).
 *
 * Runs in the program's thread, yet at DISPATCH_LEVEL, as the handler list is locked for reading: it must not block,
 * nor register or deregister handlers or drivers. It may mark the request pending, answer STATUS_PENDING and complete
 * it later, except a diagnostic one (IOCTL_NDIS_FILTER_DIAG), which the framework always completes. A pending request
 * needs a cancel routine, or its program cannot end; and it must be completed before the handler's driver goes, as
 * deregistration does not wait for it. An exception is contained and ends the walk: the request is not supported
 * then.
 */
typedef NTSTATUS (*FILTER_IOCTRL_PROC)(PVOID pIoCtrlContext, PIRP pIrp, ULONG nControlCode, PVOID pInputBuffer,
                                       ULONG nInputLength, PVOID pOutputBuffer, ULONG nOutputLength,
                                       ULONG_PTR* pBytesReturned);

/*
 * Registers the one handler of control requests of a driver; handlers are asked in the order of their registration.
 * IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: NULL driver, procedure or output.
 * FILTER_ERROR_INVALID_DRIVER_HANDLE. FILTER_ERROR_IOCTL_HANDLER_ALREADY_REGISTERED: the driver has one. No memory:
 * success, *phIoCtrlHandler unwritten.
 */
FILTER_STATUS Filter_RegisterIoControl(FilterDriver* hFilterDriver, FILTER_IOCTRL_PROC pfIoCtrlProc,
                                       PVOID pIoCtrlContext, IoCtrlHandler** phIoCtrlHandler);

/* TRUE when the handle carries the handler tag; says so in the debug output otherwise. IRQL <= DISPATCH. */
BOOLEAN Filter_IsValidIoCtrlHandler(IoCtrlHandler* hIoCtrlHandler);

/*
 * Removes a handler; it is not running any more when this returns. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: a
 * NULL pointer. FILTER_ERROR_INVALID_DRIVER_HANDLE, FILTER_ERROR_INVALID_IOCTL_HANDLER,
 * FILTER_ERROR_IOCTL_HANDLER_NOT_FOUND. FILTER_ERROR_INVALID_IOCTL_HANDLER_OWNER: it belongs to another driver.
 */
FILTER_STATUS Filter_DeregisterIoControl(FilterDriver* hFilterDriver, IoCtrlHandler* hIoCtrlHandler);

/* Declines every request: the answer of a handler to codes that it does not own. Looks at nothing. Any IRQL. */
NTSTATUS Filter_DefaultIoCtrlHandler(PVOID pIoCtrlContext, PIRP pIrp, ULONG nControlCode, PVOID pInputBuffer,
                                     ULONG nInputLength, PVOID pOutputBuffer, ULONG nOutputLength,
                                     ULONG_PTR* pBytesReturned);

/* ------------------------------------------------------------------------------------------------- diagnostics */

/*
 * A diagnostic command and the reply to it, at the start of the output buffer of IOCTL_NDIS_FILTER_DIAG. The framework
 * fills it before it asks the handlers; texts and vector are the framework's, constant until the request completes.
 */
typedef struct Diag {
    PCHAR m_pszDriverName;  /*  0  first word of the command: the driver that is to answer, or "driver" for all */
    LONG m_nArgumentCount;  /*  8  words behind it: 0 to 16 */
    PCHAR* m_ppszArguments; /* 16  those words */
    ULONG m_BufferSize;     /* 24  length of the output buffer, 40 or more */
    ULONG m_BufferUsed;     /* 28  bytes of text printed so far */
    BOOLEAN m_bInitialized; /* 32  1 */
    CHAR m_Text[7];         /* 33  the text, up to the end of the output buffer; not zero-terminated */
} Diag;

/*
 * Gives a handler the diagnostic command that it is asked to answer. The arguments are those of the handler, in a
 * request with the code IOCTL_NDIS_FILTER_DIAG and no other. A handler looks at the driver's name (without regard to
 * case): at its own it prints its reply and answers STATUS_SUCCESS; at "driver" without arguments it prints one line
 * that names itself, and declines, so that the next one is asked; at any other it declines. The Diag lies in the
 * output buffer and is valid until the handler returns. IRQL <= DISPATCH. FILTER_ERROR_INVALID_ARGUMENT: a NULL
 * pointer or a length of 0. FILTER_ERROR_BUFFER_TOO_SMALL: an input of 1,024 bytes or more, or an output under 40.
 */
FILTER_STATUS Filter_BeginDiag(const VOID* pInputBuffer, ULONG nInputLength, PVOID pOutputBuffer,
                               ULONG nOutputLength, Diag** ppDiag);

/*
 * Appends a formatted text. One that goes beyond the output buffer is cut there. One that is longer than m_BufferSize
 * less m_BufferUsed takes 1 from m_BufferUsed, and the next text is written over it; up to that a cut one counts in
 * full. IRQL <= DISPATCH (wide texts: PASSIVE_LEVEL). FILTER_ERROR_INVALID_ARGUMENT: NULL Diag or format.
 */
FILTER_STATUS Filter_DiagPrint(Diag* pDiag, PCSTR pszFormat, ...);

/*
 * Appends the packet filters of one chain with their counters. IRQL <= DISPATCH, not from inside a filter procedure.
 * FILTER_ERROR_INVALID_FILTER_TYPE: no such chain.
 */
FILTER_STATUS Filter_DiagFilter(Diag* pDiag, FILTER_TYPE nType);

#ifdef __cplusplus
}
#endif

#endif
