/*
 * NdisFilter: what an NDIS hook driver shares with the framework.
 *
 * The hook driver owns the network adapters. It opens the control device and sends
 * IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK as an internal device control with one NdisHookAPI as input and output:
 * it gives its fourteen functions and gets the framework's five callbacks.
 *
 * Both drivers compile the same records, so all of them are fixed byte for byte (x64, little-endian).
 */
#ifndef NDISFILTER_HOOK_H
#define NDISFILTER_HOOK_H

#include <ntddk.h>

#include <ndis.h>

#include "ndisfilter-user.h"

#ifdef __cplusplus
extern "C" {
#endif

#define NDIS_HOOK_MAJOR_VERSION 1
#define NDIS_HOOK_MINOR_VERSION 0
#define NDIS_HOOK_FLAG_BOUND 0x1u

#define NDIS_FILTER_DEVICE_NAME L"\\Device\\NdisFilter"
#define IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK NDIS_FILTER_CTL_CODE(0x900)   /* 0x80002400 */
#define IOCTL_NDIS_FILTER_INTERNAL_UNBIND_NDIS_HOOK NDIS_FILTER_CTL_CODE(0x901) /* 0x80002404 */

#define FILTER_ADAPTER_TAG 0x41444150u /* the bytes "PADA" */
#define FILTER_ADAPTER_CONTEXT_COUNT 16
#define FILTER_PACKET_DATA_SIZE 1648 /* m_Data of a packet; no frame is longer */

/* -------------------------------------------------------------------------------------------------- adapters */

#pragma pack(push, 4)

/* One address triple of an IPConfig; IPv4 addresses in network byte order. */
typedef struct IPConfigAddress {
    ULONG IpAddress;
    ULONG Netmask;
    ULONG Broadcast;
} IPConfigAddress;

struct FilterAdapter;

/* IP configuration of an adapter: 228 bytes. Counts above 8 are kept as given; reads stay inside the record. */
typedef struct IPConfig {
    struct FilterAdapter* hAdapter; /*   0  the adapter it belongs to */
    ULONG m_nReserved;              /*   8  carried and compared, not interpreted */
    ULONG m_nIP;                    /*  12  triples in use */
    IPConfigAddress m_Address[8];   /*  16 */
    ULONG m_nGW;                    /* 112  routers in use */
    ULONG RouterAddr[8];            /* 116 */
    ULONG m_nDHCP;                  /* 148  DHCP servers in use */
    ULONG DhcpServer[8];            /* 152 */
    ULONG m_nDNS;                   /* 184  DNS servers in use */
    ULONG DnsServer[8];             /* 188 */
    ULONG WinsServer1;              /* 220 */
    ULONG WinsServer2;              /* 224 */
} IPConfig;

#pragma pack(pop)

/*
 * One adapter: allocated, filled and freed by the hook driver, which may keep fields of its own behind these. Its
 * address is the adapter handle of client drivers, so it must stay readable until the adapter has been reported closed
 * and the framework is unbound; report every adapter closed before unbinding, or it stays in the framework's table. The
 * framework writes the fields marked (F); all others are the hook driver's.
 */
typedef struct FilterAdapter {
    ULONG m_Tag;                                           /*   0  (F) FILTER_ADAPTER_TAG once reported; stays */
    UCHAR m_CurrentAddress[6];                             /*   4  current MAC address */
    UCHAR m_PermanentAddress[6];                           /*  10  permanent MAC address */
    USHORT m_usMTU;                                        /*  16  bytes of payload of a frame */
    ULONG m_nAdapterMedium;                                /*  20  NDIS_MEDIUM */
    ULONG m_nAdapterMediaState;                            /*  24  media connect state */
    UCHAR m_HookReserved0;                                 /*  28 */
    BOOLEAN m_bNdisWanAdapter;                             /*  29  nonzero for an NDISWAN (PPP) adapter */
    UCHAR m_PPPSrcMacAddress[6];                           /*  30  (F) */
    UCHAR m_PPPDstMacAddress[6];                           /*  36  (F) */
    UNICODE_STRING m_AdapterName;                          /*  48 */
    UCHAR m_HookReserved1[8];                              /*  64 */
    PVOID m_pUpperEthrLog;                                 /*  72  (F) capture log at the protocol edge */
    PVOID m_pLowerEthrLog;                                 /*  80  (F) capture log at the adapter edge */
    PVOID m_pInjectEthrLog;                                /*  88  (F) capture log of injected frames */
    BOOLEAN m_bPacketDump;                                 /*  96  (F) packets are dumped to the debugger */
    ULONG_PTR m_pAdapterContext[FILTER_ADAPTER_CONTEXT_COUNT]; /* 104  (F) one value a context slot */
    IPConfig m_IPConfig;                                   /* 232  (F) */
    UCHAR m_HookReserved2[12];                             /* 460 */
    BOOLEAN m_bCongestionControl;                          /* 472  (F) */
} FilterAdapter;

#pragma pack(push, 1)

/* One entry of the adapter table, as Hook_GetTcpIpBoundAdapters writes it: 286 bytes. */
typedef struct AdapterInfo {
    FilterAdapter* m_hAdapter;     /*  0 */
    ULONG m_nAdapterMedium;        /*  8  NDIS_MEDIUM */
    USHORT m_usMTU;                /* 12 */
    ULONG m_dwAdapterState;        /* 14  the hook driver's state */
    UCHAR m_PermanentAddress[6];   /* 18 */
    UCHAR m_CurrentAddress[6];     /* 24 */
    CHAR m_szAdapterName[256];     /* 30  zero-terminated; begins with the network-configuration instance id */
} AdapterInfo;

/* The buffer of Hook_GetTcpIpBoundAdapters: 9,156 bytes. */
typedef struct AdapterList {
    ULONG m_nAdapterCount; /* 0  at most 32 */
    AdapterInfo m_Adapters[NDIS_FILTER_MAX_ADAPTERS];
} AdapterList;

#pragma pack(pop)

/* --------------------------------------------------------------------------------------------------- packets */

struct FilterPacket;
struct PacketFilter;

/* Runs in the hook driver when it frees a packet, at up to DISPATCH_LEVEL; the packet is still whole. */
typedef VOID (*FILTER_RELEASE_CALLBACK)(struct FilterPacket* pPacket, PVOID pContext);

/*
 * One frame: 2,496 bytes, allocated and freed by the hook driver. It belongs to one thread at a time: to whoever it
 * was last handed to. m_HookReserved fields are the hook driver's own.
 *
 * The hook driver fills m_hAdapter, m_nPacketSize, m_nBytesRead, one of the NDIS packets (or none when m_Data holds
 * the whole frame) and the first m_nBytesRead bytes of m_Data, and clears m_bDirty and the release callback. When it
 * delivers a packet whose m_bDirty is TRUE it takes the frame from m_Data, else from the NDIS packet if there is one.
 */
typedef struct FilterPacket {
    UCHAR m_HookReserved0[104];
    LIST_ENTRY m_InjectLink;                      /*  104  place in an injected-packet queue */
    UCHAR m_HookReserved1[52];                    /*  120 */
    UCHAR m_nProtocol;                            /*  172  IP protocol found by the last parse of an IPv4 frame */
    UCHAR* m_pEthernet;                           /*  176  first byte of the frame that the pointers below refer to */
    UCHAR* m_pArp;                                /*  184  ARP header or NULL */
    UCHAR* m_pIp;                                 /*  192  IPv4 header or NULL */
    UCHAR* m_pTcp;                                /*  200  TCP header or NULL */
    UCHAR* m_pUdp;                                /*  208  UDP header or NULL */
    UCHAR* m_pIcmp;                               /*  216  ICMP header or NULL */
    UCHAR* m_pDhcp;                               /*  224  DHCP message or NULL */
    UCHAR* m_pDns;                                /*  232  DNS message or NULL */
    ULONG_PTR m_InjectOrigin;                     /*  240  FILTER_INJECT_*: who queued the packet */
    UCHAR m_HookReserved2[8];                     /*  248 */
    struct PacketFilter* m_hInjectFilter;         /*  256  filter that handed the packet back, or NULL */
    FILTER_RELEASE_CALLBACK m_pfReleaseCallback;  /*  264 */
    UCHAR m_HookReserved3[8];                     /*  272 */
    PVOID m_pReleaseContext;                      /*  280 */
    UCHAR m_HookReserved4[336];                   /*  288 */
    PNDIS_PACKET m_pOutgoingNdisPacket;           /*  624  packet that a protocol sent, or NULL */
    UCHAR m_HookReserved5[16];                    /*  632  cleared together with the outgoing packet in a clone */
    UCHAR m_HookReserved6[8];                     /*  648 */
    PNDIS_PACKET m_pIncomingNdisPacket;           /*  656  packet that the adapter indicated, or NULL */
    UCHAR m_HookReserved7[8];                     /*  664 */
    BOOLEAN m_bDirty;                             /*  672  m_Data is the authoritative copy of the frame */
    ULONG m_nBytesRead;                           /*  676  bytes of the frame present in m_Data */
    FilterAdapter* m_hAdapter;                    /*  680  adapter that the packet belongs to */
    ULONG m_nDirection;                           /*  688  NDIS_FILTER_DIRECTION_* */
    ULONG m_nPacketSize;                          /*  692  length of the whole frame in bytes */
    ULONG m_nCarried[2];                          /*  696  carried to and from shared blocks, not interpreted */
    ULONG m_nIndicateCode;                        /*  704 */
    ULONGLONG m_nIndicateValue;                   /*  712 */
    UCHAR m_ApplicationData[NDIS_FILTER_APPLICATION_DATA_SIZE]; /* 720 */
    UCHAR m_Data[FILTER_PACKET_DATA_SIZE];        /*  848  the frame */
} FilterPacket;

/* ------------------------------------------------------------------------------------------------- binding */

/*
 * Callbacks that the framework gives. All at up to DISPATCH_LEVEL; the adapter callbacks answer 0. A NULL adapter or
 * packet does nothing. Opened and closed call Hook_GetTcpIpBoundAdapters before they return: hold no lock that it
 * takes. A packet handed to the framework belongs to it until it comes back through
 * Hook_InjectPacketToAdapter, Hook_InjectPacketToProtocol or Hook_FreePacket.
 */
typedef ULONG (*FILTER_ADAPTER_OPENED)(FilterAdapter* pAdapter);
typedef ULONG (*FILTER_ADAPTER_STATUS_CHANGED)(FilterAdapter* pAdapter, NDIS_STATUS nStatus);
typedef ULONG (*FILTER_ADAPTER_CLOSED)(FilterAdapter* pAdapter);
typedef VOID (*FILTER_RECEIVED_PACKET)(FilterPacket* pPacket);
typedef VOID (*FILTER_SEND_PACKET)(FilterPacket* pPacket);

/*
 * What follows are the functions that the hook driver gives. They must stay callable until the hook driver unloads,
 * also after it has unbound: a call that was under way is not waited for. Packets that are out may wait in a queue of
 * the framework: free their memory behind the framework's unload only.
 */

/* Writes four version numbers, whose meaning is the hook driver's; 0 on success. */
typedef ULONG (*HOOK_GET_OS_VERSION)(PULONG p1, PULONG p2, PULONG p3, PULONG p4);
/* Offers a control request that the framework does not know; STATUS_NOT_SUPPORTED declines. It gets no request to
   complete later, so it must not answer STATUS_PENDING: nobody would. PASSIVE_LEVEL. */
typedef NTSTATUS (*HOOK_HANDLE_IO_CONTROL)(ULONG nControlCode, PVOID pInputBuffer, ULONG nInputLength,
                                           PVOID pOutputBuffer, ULONG nOutputLength, PULONG pBytesReturned);
/* A new packet for the adapter, or NULL. File and line name the caller, for the hook driver's books. The user program
   chooses adapters by identifiers that outlive them: a handle that is none of the hook driver's must get NULL. */
typedef FilterPacket* (*HOOK_ALLOCATE_PACKET)(FilterAdapter* hAdapter, PCSTR pszFile, ULONG nLine);
/* Frees a packet; first calls its release callback if it has one. Clones that a capture log has written come back with
   an m_hAdapter of NULL, from a system thread, maybe after their adapter was closed. Those that a log still holds when
   it is closed do not come back: the hook driver takes back what is out when it unloads. */
typedef VOID (*HOOK_FREE_PACKET)(FilterPacket* pPacket, PCSTR pszFile, ULONG nLine);
/* Sends a packet on the adapter, or indicates it to the protocols; takes it over, also when it answers nonzero. */
typedef ULONG (*HOOK_INJECT_PACKET)(FilterAdapter* hAdapter, FilterPacket* pPacket);
/* NDIS request records: allocate one or NULL, issue it, free it. A record has at least 24 bytes and the client's part:
     0  16 bytes  the hook driver's own
    16  ULONG     0x4E524551, written by the framework when the record is allocated; still there when it is freed
    20   4 bytes  the hook driver's own
    24  ...       the part that the client fills and reads; its address is the handle
   The layout of the client's part is the hook driver's, and so is the alignment that it needs. The result of issuing is
   ignored: the outcome is told through the record. Calls may come at DISPATCH_LEVEL. */
typedef PVOID (*HOOK_ALLOCATE_REQUEST)(VOID);
typedef NTSTATUS (*HOOK_MAKE_NDIS_REQUEST)(FilterAdapter* hAdapter, PVOID pRequest, PVOID pContext);
typedef VOID (*HOOK_FREE_REQUEST)(PVOID pRequest);
/* Media state by MAC address. NDIS_STATUS_ADAPTER_NOT_FOUND (0xC0010006): no adapter has it;
   STATUS_INSUFFICIENT_RESOURCES (0xC000009A): no memory; any other status counts as success. The state is written with
   at most 8 bytes, of which the user program gets the lowest. PASSIVE_LEVEL, or that of the client driver's call. */
typedef NTSTATUS (*HOOK_SET_ADAPTER_STATUS)(const UCHAR* pMacAddress, ULONG nState);
typedef NTSTATUS (*HOOK_GET_ADAPTER_STATUS)(const UCHAR* pMacAddress, PVOID pState);
/* Fills an AdapterList with the adapters bound to TCP/IP, 32 at most. May be called at DISPATCH_LEVEL, and writes
   into the framework's own table while others read it. */
typedef VOID (*HOOK_GET_TCPIP_BOUND_ADAPTERS)(PVOID pAdapterList);
/* Maps the pages of the MDL into the current process and stores the user address in
   pMappedMemory->m_pUserModeVirtualAddress (0 when it failed). nShareValue is the program's START_SHARE value. Of
   pMappedMemory only the fields in front of m_SharedMemory may be touched, and only during the call: it is a record
   outside the mapping, which the program cannot change. The shared memory itself is what the MDL describes. */
typedef VOID (*HOOK_MM_MAP_LOCKED_PAGES)(PMDL pMdl, ULONG nShareValue, MappedMemory* pMappedMemory);
typedef VOID (*HOOK_MM_UNMAP_LOCKED_PAGES)(PMDL pMdl, PVOID pUserAddress);

/* The record of the binding: 168 bytes. */
typedef struct NdisHookAPI {
    ULONG m_Size;                                                    /*   0  both: 168 */
    ULONG m_Flags;                                                   /*   4  framework: NDIS_HOOK_FLAG_BOUND */
    USHORT m_MajorVersion;                                           /*   8  both: NDIS_HOOK_MAJOR_VERSION */
    USHORT m_MinorVersion;                                           /*  10  both: NDIS_HOOK_MINOR_VERSION */
    FILTER_ADAPTER_OPENED Filter_AdapterOpened;                      /*  16  framework */
    FILTER_ADAPTER_STATUS_CHANGED Filter_AdapterStatusChanged;       /*  24  framework */
    FILTER_ADAPTER_CLOSED Filter_AdapterClosed;                      /*  32  framework */
    FILTER_RECEIVED_PACKET Filter_FilterReceivedPacket;              /*  40  framework */
    FILTER_SEND_PACKET Filter_FilterSendPacket;                      /*  48  framework */
    HOOK_GET_OS_VERSION Hook_GetOsVersion;                           /*  56  hook driver, like all that follow */
    HOOK_HANDLE_IO_CONTROL Hook_HandleIoControl;                     /*  64 */
    HOOK_ALLOCATE_PACKET Hook_AllocatePacket;                        /*  72 */
    HOOK_FREE_PACKET Hook_FreePacket;                                /*  80 */
    HOOK_INJECT_PACKET Hook_InjectPacketToAdapter;                   /*  88 */
    HOOK_INJECT_PACKET Hook_InjectPacketToProtocol;                  /*  96 */
    HOOK_ALLOCATE_REQUEST Hook_AllocateRequest;                      /* 104 */
    HOOK_MAKE_NDIS_REQUEST Hook_MakeNdisRequest;                     /* 112 */
    HOOK_FREE_REQUEST Hook_FreeRequest;                              /* 120 */
    HOOK_SET_ADAPTER_STATUS Hook_SetAdapterStatus;                   /* 128 */
    HOOK_GET_ADAPTER_STATUS Hook_GetAdapterStatus;                   /* 136 */
    HOOK_GET_TCPIP_BOUND_ADAPTERS Hook_GetTcpIpBoundAdapters;        /* 144 */
    HOOK_MM_MAP_LOCKED_PAGES Hook_MmMapLockedPages;                  /* 152 */
    HOOK_MM_UNMAP_LOCKED_PAGES Hook_MmUnmapLockedPages;              /* 160 */
} NdisHookAPI;

#ifdef __cplusplus
}
#endif

#endif
