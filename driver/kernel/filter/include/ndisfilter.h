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

typedef struct FilterDriver FilterDriver; /* handle of a registered client driver */
typedef struct PacketFilter PacketFilter; /* handle of a registered packet filter */
typedef struct EventHandler EventHandler; /* handle of a registered adapter event handler */
typedef struct IoCtrlHandler IoCtrlHandler; /* handle of a registered handler of control requests */

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

/* Byte order. Any IRQL, like all functions of this section; none of them takes a lock. */
USHORT htons(USHORT nValue) HOST_LINK_NAME("htons");
USHORT ntohs(USHORT nValue) HOST_LINK_NAME("htons");
ULONG htonl(ULONG nValue) HOST_LINK_NAME("htonl");
ULONG ntohl(ULONG nValue) HOST_LINK_NAME("htonl");

/*
 * The dotted text of an IPv4 address in network order. Writes at most 16 bytes into the caller's buffer and returns
 * it; a NULL buffer or a size below 16 gives a constant empty text.
 */
PCSTR inet_ntoa(ULONG nAddress, PCHAR pBuffer, ULONG nSize) HOST_LINK_NAME("inet_ntoa");

/* The text 00-1A-2B-3C-4D-5E of a MAC address. Writes 18 bytes; the size is not looked at. */
PCHAR inet_mtoa(const UCHAR* pMacAddress, PCHAR pBuffer, ULONG nSize) HOST_LINK_NAME("inet_mtoa");

/* (address AND mask) OR NOT mask. */
ULONG SubnetBroadcastAddress(ULONG nAddress, ULONG nMask);

/* TRUE when the last octet of an address in network order is 255; knows no mask. */
BOOLEAN IsBroadcastAddress(ULONG nAddress);

/*
 * 0 when two counted strings are equal byte for byte. -1: an argument is NULL or a is shorter. 1: a is longer, or
 * lengths are equal and bytes differ (this is no ordering).
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
 * bound, or it has no such function. FILTER_ERROR_ADAPTER_NOT_FOUND, FILTER_ERROR_OUT_OF_MEMORY: the hook driver says so; any other
 * answer of it is success.
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
 * contexts, interface event handlers and hash tables stay: release them before. The handle is dead afterwards.
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

/* TRUE when the handle carries the filter tag and a valid type; says otherwise in the debug output. IRQL <= DISPATCH. */
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

/* Call before changing m_Data: marks the buffer as the authoritative frame and, the first time, completes it. */
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

/* --------------------------------------------------------------------------------------------- control requests */

/*
 * A handler of control requests of the user program that neither the framework nor the hook driver knows. Input and
 * output are one buffer, NULL when both lengths (in bytes) are 0. The handler stores the number of output bytes
 * through pBytesReturned, which is 0 before, and answers the status of the request. To decline, so that the next
 * handler is asked, it answers what Filter_DefaultIoCtrlHandler does: 0xC00000BB, which ntstatus.h calls
 * STATUS_NOT_SUPPORTED (STATUS_INVALID_DEVICE_REQUEST is another number, and an answer like any other).
 *
 * Runs in the program's thread, yet at DISPATCH_LEVEL, as the handler list is locked for reading: it must not block,
 * nor register or deregister handlers or drivers. It may mark the request pending, answer STATUS_PENDING and complete
 * it later, except a diagnostic one (IOCTL_NDIS_FILTER_DIAG), which the framework always completes. A pending request
 * needs a cancel routine, or its program cannot end; and it must be completed before the handler's driver goes, as
 * deregistration does not wait for it. An exception is contained and ends the walk: the request is not supported then.
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
