// The transport driver interface as kernel clients use it: addresses, the parameters of requests, the
// handlers of events, the records of queries. Layouts for 64 bits. Requests are
// IRP_MJ_INTERNAL_DEVICE_CONTROL with one of the minor functions below and its TDI_REQUEST_KERNEL_... record
// in the place of the stack location's parameters.
#pragma once

#include <ntddk.h>

EXTERN_C_START

// ------------------------------------------------------------------------------------------------- addresses

#define TDI_ADDRESS_TYPE_IP 2

typedef struct _TA_ADDRESS {
    USHORT AddressLength; // bytes in Address
    USHORT AddressType;
    UCHAR Address[1];
} TA_ADDRESS, *PTA_ADDRESS;

// TAAddressCount entries of different lengths, one right behind the other.
typedef struct _TRANSPORT_ADDRESS {
    LONG TAAddressCount;
    TA_ADDRESS Address[1];
} TRANSPORT_ADDRESS, *PTRANSPORT_ADDRESS;

#pragma pack(push, 1)
typedef struct _TDI_ADDRESS_IP {
    USHORT sin_port; // network byte order
    ULONG in_addr;   // network byte order
    UCHAR sin_zero[8];
} TDI_ADDRESS_IP, *PTDI_ADDRESS_IP;

typedef struct _TA_ADDRESS_IP {
    LONG TAAddressCount;
    struct _AddrIp {
        USHORT AddressLength;
        USHORT AddressType;
        TDI_ADDRESS_IP Address[1];
    } Address[1];
} TA_IP_ADDRESS, *PTA_IP_ADDRESS;
#pragma pack(pop)

#define TDI_ADDRESS_LENGTH_IP sizeof(TDI_ADDRESS_IP)

// The names of the extended attributes that make a file of the transport an address or a connection endpoint.
#define TdiTransportAddress "TransportAddress"
#define TdiConnectionContext "ConnectionContext"
#define TDI_TRANSPORT_ADDRESS_LENGTH (sizeof(TdiTransportAddress) - 1)
#define TDI_CONNECTION_CONTEXT_LENGTH (sizeof(TdiConnectionContext) - 1)

typedef PVOID CONNECTION_CONTEXT;

typedef struct _TDI_CONNECTION_INFORMATION {
    LONG UserDataLength;
    PVOID UserData;
    LONG OptionsLength;
    PVOID Options;
    LONG RemoteAddressLength;
    PVOID RemoteAddress; // a TRANSPORT_ADDRESS
} TDI_CONNECTION_INFORMATION, *PTDI_CONNECTION_INFORMATION;

// -------------------------------------------------------------------------------------------------- requests

#define TDI_ASSOCIATE_ADDRESS 0x01
#define TDI_DISASSOCIATE_ADDRESS 0x02
#define TDI_CONNECT 0x03
#define TDI_LISTEN 0x04
#define TDI_ACCEPT 0x05
#define TDI_DISCONNECT 0x06
#define TDI_SEND 0x07
#define TDI_RECEIVE 0x08
#define TDI_SEND_DATAGRAM 0x09
#define TDI_RECEIVE_DATAGRAM 0x0A
#define TDI_SET_EVENT_HANDLER 0x0B
#define TDI_QUERY_INFORMATION 0x0C
#define TDI_SET_INFORMATION 0x0D

// Kinds of files of a transport, in FsContext2.
#define TDI_TRANSPORT_ADDRESS_FILE 1
#define TDI_CONNECTION_FILE 2
#define TDI_CONTROL_CHANNEL_FILE 3

#define TDI_SEND_EXPEDITED 0x0020
#define TDI_SEND_AND_DISCONNECT 0x0200
#define TDI_RECEIVE_NORMAL 0x0020
#define TDI_RECEIVE_COPY_LOOKAHEAD 0x0200
#define TDI_RECEIVE_AT_DISPATCH_LEVEL 0x0800
#define TDI_DISCONNECT_WAIT 0x0001    // complete when the peer has disconnected
#define TDI_DISCONNECT_ABORT 0x0002   // reset the connection
#define TDI_DISCONNECT_RELEASE 0x0004 // send what is queued, then no more; data may still come in

typedef struct _TDI_REQUEST_KERNEL {
    ULONG_PTR RequestFlags;
    PTDI_CONNECTION_INFORMATION RequestConnectionInformation;
    PTDI_CONNECTION_INFORMATION ReturnConnectionInformation;
    PVOID RequestSpecific;
} TDI_REQUEST_KERNEL, *PTDI_REQUEST_KERNEL, TDI_REQUEST_KERNEL_CONNECT, *PTDI_REQUEST_KERNEL_CONNECT,
    TDI_REQUEST_KERNEL_DISCONNECT, *PTDI_REQUEST_KERNEL_DISCONNECT;

typedef struct _TDI_REQUEST_KERNEL_ASSOCIATE {
    HANDLE AddressHandle;
} TDI_REQUEST_KERNEL_ASSOCIATE, *PTDI_REQUEST_KERNEL_ASSOCIATE;

typedef struct _TDI_REQUEST_KERNEL_SEND {
    ULONG SendLength;
    ULONG SendFlags;
} TDI_REQUEST_KERNEL_SEND, *PTDI_REQUEST_KERNEL_SEND;

typedef struct _TDI_REQUEST_KERNEL_RECEIVE {
    ULONG ReceiveLength;
    ULONG ReceiveFlags;
} TDI_REQUEST_KERNEL_RECEIVE, *PTDI_REQUEST_KERNEL_RECEIVE;

typedef struct _TDI_REQUEST_KERNEL_SENDDG {
    ULONG SendLength;
    PTDI_CONNECTION_INFORMATION SendDatagramInformation;
} TDI_REQUEST_KERNEL_SENDDG, *PTDI_REQUEST_KERNEL_SENDDG;

typedef struct _TDI_REQUEST_KERNEL_RECEIVEDG {
    ULONG ReceiveLength;
    PTDI_CONNECTION_INFORMATION ReceiveDatagramInformation;
    PTDI_CONNECTION_INFORMATION ReturnDatagramInformation;
    ULONG ReceiveFlags;
} TDI_REQUEST_KERNEL_RECEIVEDG, *PTDI_REQUEST_KERNEL_RECEIVEDG;

typedef struct _TDI_REQUEST_KERNEL_SET_EVENT {
    LONG EventType;
    PVOID EventHandler;
    PVOID EventContext;
} TDI_REQUEST_KERNEL_SET_EVENT, *PTDI_REQUEST_KERNEL_SET_EVENT;

typedef struct _TDI_REQUEST_KERNEL_QUERY_INFO {
    LONG QueryType;
    PTDI_CONNECTION_INFORMATION RequestConnectionInformation;
} TDI_REQUEST_KERNEL_QUERY_INFORMATION, *PTDI_REQUEST_KERNEL_QUERY_INFORMATION;

typedef struct _TDI_REQUEST_KERNEL_SET_INFO {
    LONG SetType;
    PTDI_CONNECTION_INFORMATION RequestConnectionInformation;
} TDI_REQUEST_KERNEL_SET_INFORMATION, *PTDI_REQUEST_KERNEL_SET_INFORMATION;

// ---------------------------------------------------------------------------------------------------- events

#define TDI_EVENT_CONNECT 0
#define TDI_EVENT_DISCONNECT 1
#define TDI_EVENT_ERROR 2
#define TDI_EVENT_RECEIVE 3
#define TDI_EVENT_RECEIVE_DATAGRAM 4
#define TDI_EVENT_RECEIVE_EXPEDITED 5

// STATUS_MORE_PROCESSING_REQUIRED accepts with a TDI_ACCEPT request whose stack location is the current one.
typedef NTSTATUS (*PTDI_IND_CONNECT)(PVOID TdiEventContext, LONG RemoteAddressLength, PVOID RemoteAddress,
                                     LONG UserDataLength, PVOID UserData, LONG OptionsLength, PVOID Options,
                                     CONNECTION_CONTEXT* ConnectionContext, PIRP* AcceptIrp);
typedef NTSTATUS (*PTDI_IND_DISCONNECT)(PVOID TdiEventContext, CONNECTION_CONTEXT ConnectionContext,
                                        LONG DisconnectDataLength, PVOID DisconnectData,
                                        LONG DisconnectInformationLength, PVOID DisconnectInformation,
                                        ULONG DisconnectFlags);
typedef NTSTATUS (*PTDI_IND_ERROR)(PVOID TdiEventContext, NTSTATUS Status);
// STATUS_SUCCESS: BytesTaken were used. STATUS_DATA_NOT_ACCEPTED: none were, a receive request will fetch
// them. STATUS_MORE_PROCESSING_REQUIRED: BytesTaken were used, the request given back receives the rest.
typedef NTSTATUS (*PTDI_IND_RECEIVE)(PVOID TdiEventContext, CONNECTION_CONTEXT ConnectionContext,
                                     ULONG ReceiveFlags, ULONG BytesIndicated, ULONG BytesAvailable,
                                     ULONG* BytesTaken, PVOID Tsdu, PIRP* IoRequestPacket);
typedef PTDI_IND_RECEIVE PTDI_IND_RECEIVE_EXPEDITED;
typedef NTSTATUS (*PTDI_IND_RECEIVE_DATAGRAM)(PVOID TdiEventContext, LONG SourceAddressLength,
                                              PVOID SourceAddress, LONG OptionsLength, PVOID Options,
                                              ULONG ReceiveDatagramFlags, ULONG BytesIndicated,
                                              ULONG BytesAvailable, ULONG* BytesTaken, PVOID Tsdu,
                                              PIRP* IoRequestPacket);

// --------------------------------------------------------------------------------------------------- queries

#define TDI_QUERY_PROVIDER_INFO 0x00000002
#define TDI_QUERY_ADDRESS_INFO 0x00000003
#define TDI_QUERY_CONNECTION_INFO 0x00000004
#define TDI_QUERY_PROVIDER_STATISTICS 0x00000005

#define TDI_SERVICE_CONNECTION_MODE 0x00000001
#define TDI_SERVICE_ORDERLY_RELEASE 0x00000002
#define TDI_SERVICE_CONNECTIONLESS_MODE 0x00000004
#define TDI_SERVICE_ERROR_FREE_DELIVERY 0x00000008

typedef struct _TDI_ADDRESS_INFO {
    ULONG ActivityCount; // files that are open on the address
    TRANSPORT_ADDRESS Address;
} TDI_ADDRESS_INFO, *PTDI_ADDRESS_INFO;

typedef struct _TDI_CONNECTION_INFO {
    ULONG State;
    ULONG Event;
    ULONG TransmittedTsdus;
    ULONG ReceivedTsdus;
    ULONG TransmissionErrors;
    ULONG ReceiveErrors;
    LARGE_INTEGER Throughput;
    LARGE_INTEGER Delay;
    ULONG SendBufferSize;
    ULONG ReceiveBufferSize;
    BOOLEAN Unreliable;
} TDI_CONNECTION_INFO, *PTDI_CONNECTION_INFO;

typedef struct _TDI_PROVIDER_INFO {
    ULONG Version;
    ULONG MaxSendSize;
    ULONG MaxConnectionUserData;
    ULONG MaxDatagramSize;
    ULONG ServiceFlags;
    ULONG MinimumLookaheadData;
    ULONG MaximumLookaheadData;
    ULONG NumberOfResources;
    LARGE_INTEGER StartTime;
} TDI_PROVIDER_INFO, *PTDI_PROVIDER_INFO;

typedef struct _TDI_PROVIDER_RESOURCE_STATS {
    ULONG ResourceId;
    ULONG MaximumResourceUsed;
    ULONG AverageResourceUsed;
    ULONG ResourceExhausted;
} TDI_PROVIDER_RESOURCE_STATS, *PTDI_PROVIDER_RESOURCE_STATS;

typedef struct _TDI_PROVIDER_STATISTICS {
    ULONG Version;
    ULONG OpenConnections;
    ULONG ConnectionsAfterNoRetry;
    ULONG ConnectionsAfterRetry;
    ULONG LocalDisconnects;
    ULONG RemoteDisconnects;
    ULONG LinkFailures;
    ULONG AdapterFailures;
    ULONG SessionTimeouts;
    ULONG CancelledConnections;
    ULONG RemoteResourceFailures;
    ULONG LocalResourceFailures;
    ULONG NotFoundFailures;
    ULONG NoListenFailures;
    ULONG DatagramsSent;
    LARGE_INTEGER DatagramBytesSent;
    ULONG DatagramsReceived;
    LARGE_INTEGER DatagramBytesReceived;
    ULONG PacketsSent;
    ULONG PacketsReceived;
    ULONG DataFramesSent;
    LARGE_INTEGER DataFrameBytesSent;
    ULONG DataFramesReceived;
    LARGE_INTEGER DataFrameBytesReceived;
    ULONG DataFramesResent;
    LARGE_INTEGER DataFrameBytesResent;
    ULONG DataFramesRejected;
    LARGE_INTEGER DataFrameBytesRejected;
    ULONG ResponseTimerExpirations;
    ULONG AckTimerExpirations;
    ULONG MaximumSendWindow;
    ULONG AverageSendWindow;
    ULONG PiggybackAckQueued;
    ULONG PiggybackAckTimeouts;
    LARGE_INTEGER WastedPacketSpace;
    ULONG WastedSpacePackets;
    ULONG NumberOfResources;
    TDI_PROVIDER_RESOURCE_STATS ResourceStats[1];
} TDI_PROVIDER_STATISTICS, *PTDI_PROVIDER_STATISTICS;

EXTERN_C_END
