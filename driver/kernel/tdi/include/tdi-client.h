/*
 * Kernel sockets: a small library over the transport driver interface (TDI) for client drivers. Exported by
 * the framework's driver, and independent of everything else in it: a client needs no registration.
 *
 * A client opens a transport address, which is a local port of a transport device such as \Device\Tcp or
 * \Device\Udp, sends and receives datagrams on it, or opens connection endpoints on it, connects them, and
 * moves stream data.
 *
 * Conventions
 * - Results are NTSTATUS values unless said otherwise. Requests also answer what the transport answers.
 * - Records are allocated by the client, in non-paged memory, and belong to the library from the opening
 *   until their reference count is 0: it is when the record was closed and nothing of it is under way any more.
 *   Only then may the client free a record or open it again. Fields are for reading.
 * - Handles belong to the process that opens: open and close in the system process, that is in DriverEntry,
 *   the unload routine, a system thread or a work item.
 * - Addresses and ports of TA_IP_ADDRESS are in network byte order. Lengths are in bytes.
 * - Memory that a request describes (MDL chains, connection information, status blocks, events) stays the
 *   client's and must stay valid until the request has completed. The library neither unlocks nor frees it.
 * - "IRQL <= DISPATCH" means PASSIVE_LEVEL to DISPATCH_LEVEL.
 * - Event handlers may run until their address is closed, that is while its count is not 0. A client switches them
 *   off (KS_SetEventHandlers with nulls) before it closes the address, or waits for the count.
 * - A record that is closed or being closed takes no requests: they answer STATUS_INVALID_HANDLE.
 * - A client cannot cancel: one that is to be unloaded has its requests completed first. Those of a connection,
 *   KS_Connect among them, end with KS_Disconnect and TDI_DISCONNECT_ABORT; TDI_DISCONNECT_RELEASE leaves a receive
 *   to the peer. A receive of datagrams ends when a datagram comes; use the event handler instead. The unload of the
 *   framework cancels the data requests under way and waits for their completion.
 *
 * Data requests (KS_SendDatagramOnAddress, KS_ReceiveDatagramOnAddress, KS_Disconnect, KS_SendOnEndpoint,
 * KS_ReceiveOnEndpoint) have three modes, chosen by their arguments:
 * - With Completion: the function returns what the transport's dispatch routine returned, in general
 *   STATUS_PENDING, and the callback is called once, maybe before that. Event, when given too, is set just
 *   before the callback.
 * - Else with Event: the event is reset, the function returns as above, and the event is set upon completion.
 *   Wait for it when the function returned STATUS_PENDING; IoStatus then has the result, and the request holds
 *   no reference any more.
 * - Else the function waits and returns the status that the completion delivered.
 * IoStatus may be null in each of them. It is preset to STATUS_UNSUCCESSFUL and 0 when the request is sent,
 * and has the final status and the number of bytes moved when it has completed. STATUS_INSUFFICIENT_RESOURCES,
 * STATUS_INVALID_HANDLE or, while the library's driver is being unloaded, STATUS_DELETE_PENDING, with IoStatus
 * untouched and without a callback: nothing was sent.
 */
#ifndef TDI_CLIENT_H
#define TDI_CLIENT_H

#include <ntddk.h>

#include <ndis.h>
#include <tdikrnl.h>

#ifdef __cplusplus
extern "C" {
#endif

/* -------------------------------------------------------------------------------------------------- records */

/* A record's count while it has lost its last reference and its handle is not yet closed. */
#define KS_BEING_CLOSED 0x80000000u

/* A transport address. Written by the library. 48 bytes. */
typedef struct _KS_TRANSPORT_ADDRESS {
    NTSTATUS Status;         /* 0: STATUS_UNSUCCESSFUL until opened, then what the opening came to */
    volatile ULONG Count;    /* 4: references: 1 of the opening, 1 of each request under way and endpoint; or
                                KS_BEING_CLOSED */
    HANDLE Handle;           /* 8: of the address object */
    PFILE_OBJECT FileObject; /* 16: referenced */
    PIRP volatile Irp;       /* 24: the one request for what is done synchronously; null while it is in use */
    LIST_ENTRY Endpoints;    /* 32: of KS_CONNECTION_ENDPOINT.Link */
} KS_TRANSPORT_ADDRESS, *PKS_TRANSPORT_ADDRESS;

/* A connection endpoint. Written by the library. 56 bytes. */
typedef struct _KS_CONNECTION_ENDPOINT {
    LIST_ENTRY Link;               /* 0: in the address's list */
    NTSTATUS AssociateStatus;      /* 16: what KS_OpenConnectionEndpoint answered */
    volatile ULONG Count;          /* 20: references: 1 of the opening, 1 of each request under way; or
                                      KS_BEING_CLOSED */
    PKS_TRANSPORT_ADDRESS Address; /* 24: the owner, on which the endpoint holds a reference */
    NTSTATUS Status;         /* 32: STATUS_UNSUCCESSFUL until opened, then what the opening came to, apart
                                      from the association */
    HANDLE Handle;           /* 40 */
    PFILE_OBJECT FileObject; /* 48: referenced */
} KS_CONNECTION_ENDPOINT, *PKS_CONNECTION_ENDPOINT;

/* An open control channel of a transport device. 16 bytes. */
typedef struct _KS_CONTROL_CHANNEL {
    HANDLE Handle;
    PFILE_OBJECT FileObject; /* referenced */
} KS_CONTROL_CHANNEL, *PKS_CONTROL_CHANNEL;

/*
 * The completion of a data request: called once, IRQL <= DISPATCH, on any thread. The request still holds its
 * reference, so the callback may close the address or endpoint; it must not wait. IoStatus is the client's
 * status block, or one that is valid during the call only. Extra is 0.
 */
typedef VOID(NTAPI* KS_COMPLETION)(PVOID CompletionContext, PIO_STATUS_BLOCK IoStatus, ULONG Extra);

#define KS_CONNECTION_INFO_SIZE 56      /* bytes of a TDI_CONNECTION_INFO */
#define KS_PROVIDER_INFO_SIZE 40        /* bytes of a TDI_PROVIDER_INFO */
#define KS_PROVIDER_STATISTICS_SIZE 216 /* bytes of a TDI_PROVIDER_STATISTICS with one resource */
#define KS_PROCESS_NAME_SIZE 17         /* bytes of KS_GetCurrentProcessName */

/* ------------------------------------------------------------------------------------------------ addresses */

/*
 * Opens a local address on a transport device. DeviceName is wide text with a terminating zero, for instance
 * L"\\Device\\Udp"; Address names the port, as KS_InitIPAddress fills it: port 0 lets the transport choose
 * one. Writes the whole of Record. Record->Status is what is returned; only after a success is there
 * something to close.
 *
 * STATUS_OBJECT_NAME_NOT_FOUND: no such device. STATUS_INSUFFICIENT_RESOURCES: no memory; nothing stays open.
 * STATUS_INVALID_PARAMETER: an Address of more than 65,535 bytes. Others are the transport's, for instance
 * STATUS_ADDRESS_ALREADY_EXISTS. PASSIVE_LEVEL.
 */
NTSTATUS KS_OpenTransportAddress(PCWSTR DeviceName, PTRANSPORT_ADDRESS Address, PKS_TRANSPORT_ADDRESS Record);

/*
 * Drops the reference of the opening; nothing when the count is 0. With the last reference the address is
 * closed: at once when a function at PASSIVE_LEVEL had the last one, by a work item soon afterwards when the completion
 * of a request had it; the count is 0 behind that. Always answers 0.
 *
 * PASSIVE_LEVEL; in a completion callback of the same address also DISPATCH_LEVEL.
 */
NTSTATUS KS_CloseTransportAddress(PKS_TRANSPORT_ADDRESS Record);

/*
 * Sets the handlers of the event types 0 to 5, in this order, with one common context; a null handler
 * switches that event off. The transport calls them at DISPATCH_LEVEL. The first failure is returned: the
 * types before it are set, those behind it are not. STATUS_DEVICE_BUSY: another thread is in a synchronous request on
 * this address. PASSIVE_LEVEL.
 */
NTSTATUS KS_SetEventHandlers(PKS_TRANSPORT_ADDRESS Record, PVOID EventContext, PTDI_IND_CONNECT Connect,
                             PTDI_IND_DISCONNECT Disconnect, PTDI_IND_ERROR Error, PTDI_IND_RECEIVE Receive,
                             PTDI_IND_RECEIVE_DATAGRAM ReceiveDatagram,
                             PTDI_IND_RECEIVE_EXPEDITED ReceiveExpedited);

/*
 * Sends the bytes of an MDL chain (null: none) as one datagram to the remote address of SendInformation. A
 * data request: see above. IRQL <= DISPATCH, PASSIVE_LEVEL when it waits.
 */
NTSTATUS KS_SendDatagramOnAddress(PKS_TRANSPORT_ADDRESS Record, PKEVENT Event, KS_COMPLETION Completion,
                                  PVOID CompletionContext, PIO_STATUS_BLOCK IoStatus, PMDL Mdl,
                                  PTDI_CONNECTION_INFORMATION SendInformation);

/*
 * Receives one datagram into an MDL chain. ReceiveInformation may name the peer to receive from, where the
 * transport looks at it. ReturnInformation (or null) gets the sender's address, when its RemoteAddress has
 * room for RemoteAddressLength bytes. Flags: TDI_RECEIVE_... values. A data request: see above;
 * STATUS_BUFFER_OVERFLOW when the datagram was longer. IRQL <= DISPATCH, PASSIVE_LEVEL when it waits.
 */
NTSTATUS KS_ReceiveDatagramOnAddress(PKS_TRANSPORT_ADDRESS Record, PKEVENT Event, KS_COMPLETION Completion,
                                     PVOID CompletionContext, PIO_STATUS_BLOCK IoStatus, PMDL Mdl,
                                     PTDI_CONNECTION_INFORMATION ReceiveInformation,
                                     PTDI_CONNECTION_INFORMATION ReturnInformation, ULONG Flags);

/* ---------------------------------------------------------------------------------------------- connections */

/*
 * Opens a connection endpoint on the same device as Address and associates it with that. ConnectionContext is
 * handed to the event handlers of the address. Writes the whole of Record. The endpoint holds a reference on
 * the address and is appended to its list.
 *
 * What is returned stands in Record->AssociateStatus too; after a failure nothing stays open. Errors as for
 * an address; STATUS_DEVICE_BUSY: another thread is in a synchronous request on the address. PASSIVE_LEVEL.
 */
NTSTATUS KS_OpenConnectionEndpoint(PCWSTR DeviceName, PKS_TRANSPORT_ADDRESS Address,
                                   PKS_CONNECTION_ENDPOINT Record, PVOID ConnectionContext);

/*
 * Drops the reference of the opening; nothing when the count is 0. With the last one the endpoint leaves its
 * address and is closed, as KS_CloseTransportAddress does it. It is not disconnected before: the transport
 * resets a connection that still stands. Always answers 0. IRQL as there.
 */
NTSTATUS KS_CloseConnectionEndpoint(PKS_CONNECTION_ENDPOINT Record);

/*
 * Connects to a peer and waits for the result, without a time limit of its own. STATUS_CONNECTION_REFUSED and
 * others are the transport's; STATUS_DEVICE_BUSY: another thread is in a synchronous request on the same
 * address. KS_Disconnect with TDI_DISCONNECT_ABORT ends the waiting; closing the endpoint does not: it is open until
 * the connecting is over. PASSIVE_LEVEL.
 */
NTSTATUS KS_Connect(PKS_CONNECTION_ENDPOINT Record, PTA_IP_ADDRESS Peer);

/*
 * Disconnects. Flags: TDI_DISCONNECT_RELEASE ends the own direction behind the data sent,
 * TDI_DISCONNECT_ABORT resets the connection, TDI_DISCONNECT_WAIT completes when the peer has disconnected. A
 * data request: see above. IRQL <= DISPATCH, PASSIVE_LEVEL when it waits.
 */
NTSTATUS KS_Disconnect(PKS_CONNECTION_ENDPOINT Record, PKEVENT Event, KS_COMPLETION Completion,
                       PVOID CompletionContext, PIO_STATUS_BLOCK IoStatus, ULONG Flags);

/*
 * Sends the bytes of an MDL chain (null: none). Flags: TDI_SEND_... values. A data request: see above; it
 * completes when the transport has taken all bytes. IRQL <= DISPATCH, PASSIVE_LEVEL when it waits.
 */
NTSTATUS KS_SendOnEndpoint(PKS_CONNECTION_ENDPOINT Record, PKEVENT Event, KS_COMPLETION Completion,
                           PVOID CompletionContext, PIO_STATUS_BLOCK IoStatus, PMDL Mdl, ULONG Flags);

/*
 * Receives up to the bytes of an MDL chain; completes when there are any. Flags: TDI_RECEIVE_... values. A
 * data request: see above. STATUS_GRACEFUL_DISCONNECT: the peer has ended its direction.
 * STATUS_CONNECTION_RESET: the connection is gone. IRQL <= DISPATCH, PASSIVE_LEVEL when it waits.
 */
NTSTATUS KS_ReceiveOnEndpoint(PKS_CONNECTION_ENDPOINT Record, PKEVENT Event, KS_COMPLETION Completion,
                              PVOID CompletionContext, PIO_STATUS_BLOCK IoStatus, PMDL Mdl, ULONG Flags);

/*
 * Fills Buffer, KS_CONNECTION_INFO_SIZE bytes, with zeros and sets it as the connection's information.
 * STATUS_INSUFFICIENT_RESOURCES: no memory. Pages that cannot be locked: the code of the exception. PASSIVE_LEVEL.
 */
NTSTATUS KS_SetConnectionInfo(PKS_CONNECTION_ENDPOINT Record, PVOID Buffer);

/* ------------------------------------------------------------------------------------------------- provider */

/* Opens a control channel of a device. Writes Channel on success only. Errors as for an address.
 * PASSIVE_LEVEL. */
NTSTATUS KS_OpenControlChannel(PCWSTR DeviceName, PKS_CONTROL_CHANNEL Channel);

/* Closes it. Always answers 0. PASSIVE_LEVEL. */
NTSTATUS KS_CloseControlChannel(PKS_CONTROL_CHANNEL Channel);

/*
 * Reads what a transport offers (TDI_PROVIDER_INFO, KS_PROVIDER_INFO_SIZE bytes) or what it has counted
 * (TDI_PROVIDER_STATISTICS, KS_PROVIDER_STATISTICS_SIZE bytes) into Buffer. Errors of the opening, with a
 * line in the debug output; STATUS_INSUFFICIENT_RESOURCES: no memory. Pages that cannot be locked: the code of the
 * exception. PASSIVE_LEVEL.
 */
NTSTATUS KS_QueryProviderInfo(PCWSTR DeviceName, PVOID Buffer);
NTSTATUS KS_QueryProviderStatistics(PCWSTR DeviceName, PVOID Buffer);

/* ------------------------------------------------------------------------------------------------- requests */

/*
 * Sends a request of IoAllocateIrp, whose next stack location is filled in, to a device and waits for it. The
 * request stays the caller's, also on failure. Answers its final status; where the dispatch routine returned a failure,
 * that. PASSIVE_LEVEL.
 */
NTSTATUS KS_MakeSimpleTdiRequest(PDEVICE_OBJECT DeviceObject, PIRP Irp);

/*
 * Allocates an MDL for Length bytes at Address and locks the pages for reading and writing; null without
 * memory. The arguments are those of IoAllocateMdl; Irp may be null. Raises an exception when the pages
 * cannot be locked, as MmProbeAndLockPages does. Given back with KS_UnlockAndFreeMdl. IRQL <= DISPATCH for
 * non-paged memory, else <= APC.
 */
PMDL KS_AllocateAndProbeMdl(PVOID Address, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN ChargeQuota,
                            PIRP Irp);

/* Unlocks and frees one MDL, not those behind it. IRQL <= DISPATCH. */
VOID KS_UnlockAndFreeMdl(PMDL Mdl);

/*
 * Builds the extended attribute of a create request: one FILE_FULL_EA_INFORMATION, NameLength + ValueLength +
 * 9 bytes of paged pool, which the caller frees with ExFreePool. Name needs no terminating zero; one is
 * added. Buffer and Length are written on success only. STATUS_INVALID_PARAMETER: a name of more than 255 or
 * a value of more than 65535 bytes. STATUS_INSUFFICIENT_RESOURCES: no memory. IRQL <= APC.
 */
NTSTATUS KS_BuildEaBuffer(ULONG NameLength, const VOID* Name, ULONG ValueLength, const VOID* Value,
                          PFILE_FULL_EA_INFORMATION* Buffer, PULONG Length);

/* Bytes of a transport address with all its entries: 22 for one IP address. Null: 0. Any IRQL. */
ULONG KS_TransportAddressLength(const TRANSPORT_ADDRESS* Address);

/* Fills one IP address. IpAddress and Port are stored as they are: network byte order. Any IRQL. */
VOID KS_InitIPAddress(PTA_IP_ADDRESS Address, ULONG IpAddress, USHORT Port);

/* -------------------------------------------------------------------------------------------------- helpers */

/*
 * Makes (Create TRUE) or deletes the link \DosDevices\NAME for the device \Device\NAME. STATUS_UNSUCCESSFUL:
 * the name has under 18 bytes, or too many for a link's. STATUS_INSUFFICIENT_RESOURCES: no memory. Others are
 * those of IoCreateSymbolicLink and IoDeleteSymbolicLink. PASSIVE_LEVEL.
 */
NTSTATUS KS_CreateSymbolicLink(PUNICODE_STRING DeviceName, BOOLEAN Create);

/*
 * Frees an NDIS packet and the MDLs of its buffers, which describe non-paged memory: pages that were locked for one
 * stay locked. Null: nothing. IRQL <= DISPATCH.
 */
VOID KS_FreePacketAndBuffers(PNDIS_PACKET Packet);

/* Between host and network byte order. Any IRQL. */
ULONG KS_htonl(ULONG Value);
ULONG KS_ntohl(ULONG Value);
USHORT KS_htons(USHORT Value);
USHORT KS_ntohs(USHORT Value);

/*
 * The Internet checksum (RFC 1071) of Length bytes, over 16-bit words as they lie in memory, so the result is
 * stored as it is. An odd last byte counts as the upper half of a word, unlike in RFC 1071. The sum has 32 bits, which
 * 131,074 bytes cannot overflow. Any IRQL.
 */
USHORT KS_in_cksum(const VOID* Buffer, ULONG Length);

/* Finds out where a process keeps its name. Called once, in the system process, as in DriverEntry.
 * PASSIVE_LEVEL. */
VOID KS_InitProcessNameOffset(VOID);

/*
 * Writes the image name of the current process, 16 characters, and a zero behind them. "???" and FALSE when
 * it was not found out where that stands. Name has KS_PROCESS_NAME_SIZE bytes. IRQL <= DISPATCH.
 */
BOOLEAN KS_GetCurrentProcessName(PCHAR Name);

#ifdef __cplusplus
}
#endif

#endif
