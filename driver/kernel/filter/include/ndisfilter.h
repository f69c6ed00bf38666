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
#define FILTER_EVENT_ADAPTER_OPENED 0u
#define FILTER_EVENT_MEDIA_CONNECT 1u
#define FILTER_EVENT_MEDIA_DISCONNECT 2u
#define FILTER_EVENT_ADAPTER_CLOSED 3u
#define FILTER_EVENT_IPCONFIG_CHANGED 4u

typedef struct FilterDriver FilterDriver; /* handle of a registered client driver */
typedef struct PacketFilter PacketFilter; /* handle of a registered packet filter */

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
 * answers TRUE when it was read; a missing value is read as an empty text, one of another type is not read. A pValue whose Buffer is NULL gets a buffer from the registry (free it
 * with ExFreePool), otherwise its own is filled.
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

/* The same with nLength bytes of data, binary or text; more than 1,024 are cut, NULL data means none. */
FILTER_STATUS Filter_ReportEventEx(ULONG nEvent1, ULONG nEvent2, ULONG nLength, const VOID* pData);

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

/* Prints a packet to the debug output when its adapter's dump flag is on. IRQL <= DISPATCH. */
VOID Filter_DumpPacket(PCSTR pszTitle, FilterPacket* pPacket);

#ifdef __cplusplus
}
#endif

#endif
