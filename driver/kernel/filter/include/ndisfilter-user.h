/*
 * NdisFilter: what a user program shares with the driver.
 *
 * Control codes, records and the layout of the shared memory. Plain C without functions, usable beside any system
 * header. All numbers are little-endian. "Written by" names the only side that may store into a field once the
 * memory is shared.
 *
 * The program's cycle: open \\.\NdisFilter; IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE; IOCTL_NDIS_FILTER_START_SHARE
 * with a nonzero value, which answers the address of SharedMemory (the value NDIS_FILTER_SHARE_FAILED: no share).
 * To send, fill the input block at the input ring's m_iWrite, advance that index, then
 * IOCTL_NDIS_FILTER_WRITE_SHARE. To receive, keep one IOCTL_NDIS_FILTER_READ_SHARE outstanding; when it completes,
 * take blocks from the output ring's m_iRead until that equals m_iWrite. IOCTL_NDIS_FILTER_STOP_SHARE or closing the
 * handle ends the share.
 */
#ifndef NDISFILTER_USER_H
#define NDISFILTER_USER_H

#include <stdint.h>

#define NDIS_FILTER_MAJOR_VERSION 1
#define NDIS_FILTER_MINOR_VERSION 0

#define NDIS_FILTER_DEVICE_WIN32_NAME "\\\\.\\NdisFilter"

/* ---------------------------------------------------------------------------------------------- control codes */

/* Device type 0x8000, transfer type buffered, any access; the function number stands in bits 2 to 13. */
#define NDIS_FILTER_CTL_CODE(Function) (0x80000000u | ((uint32_t)(Function) << 2))

/*
 * Requests with records have their lengths at the records below. The others:
 *   GET_VERSION             output of 2 bytes or more; no bytes are returned, so a program sees none
 *   START_SHARE             input: nonzero 32-bit value; output: 64-bit address of SharedMemory
 *   STOP_SHARE, READ_SHARE, WRITE_SHARE, CLEAR_EVENT, DUMP_DEVICE_EXTENSION: neither input nor output
 *   START_ETHRLOG, STOP_ETHRLOG: neither; success in any case. The files lie on drive C: and end in .eth.
 *   GET_DBGFLAG             neither; has the driver read its debug mask from the registry again
 *   PUT_SHAREDMEMORYSIZE    output: 32-bit NDIS_FILTER_MAPPED_MEMORY_SIZE, in spite of the name
 *   SET_CONGESTION_CONTROL  input: 32-bit value, which is kept and has no effect
 */
#define IOCTL_NDIS_FILTER_DIAG NDIS_FILTER_CTL_CODE(0x802)                   /* 0x80002008 */
#define IOCTL_NDIS_FILTER_GET_VERSION NDIS_FILTER_CTL_CODE(0x8C8)            /* 0x80002320 */
#define IOCTL_NDIS_FILTER_START_SHARE NDIS_FILTER_CTL_CODE(0x8C9)            /* 0x80002324 */
#define IOCTL_NDIS_FILTER_STOP_SHARE NDIS_FILTER_CTL_CODE(0x8CA)             /* 0x80002328 */
#define IOCTL_NDIS_FILTER_READ_SHARE NDIS_FILTER_CTL_CODE(0x8CB)             /* 0x8000232C */
#define IOCTL_NDIS_FILTER_WRITE_SHARE NDIS_FILTER_CTL_CODE(0x8CC)            /* 0x80002330 */
#define IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES NDIS_FILTER_CTL_CODE(0x8CD)   /* 0x80002334 */
#define IOCTL_NDIS_FILTER_GET_EVENT NDIS_FILTER_CTL_CODE(0x8CE)              /* 0x80002338 */
#define IOCTL_NDIS_FILTER_CLEAR_EVENT NDIS_FILTER_CTL_CODE(0x8CF)            /* 0x8000233C */
#define IOCTL_NDIS_FILTER_START_ETHRLOG NDIS_FILTER_CTL_CODE(0x8D0)          /* 0x80002340 */
#define IOCTL_NDIS_FILTER_STOP_ETHRLOG NDIS_FILTER_CTL_CODE(0x8D1)           /* 0x80002344 */
#define IOCTL_NDIS_FILTER_SET_IPCONFIG NDIS_FILTER_CTL_CODE(0x8D2)           /* 0x80002348 */
#define IOCTL_NDIS_FILTER_GET_IPCONFIG NDIS_FILTER_CTL_CODE(0x8D3)           /* 0x8000234C */
#define IOCTL_NDIS_FILTER_SET_MEDIA_STATUS NDIS_FILTER_CTL_CODE(0x8D4)       /* 0x80002350 */
#define IOCTL_NDIS_FILTER_GET_MEDIA_STATUS NDIS_FILTER_CTL_CODE(0x8D5)       /* 0x80002354 */
#define IOCTL_NDIS_FILTER_GET_DBGFLAG NDIS_FILTER_CTL_CODE(0x8D6)            /* 0x80002358 */
#define IOCTL_NDIS_FILTER_SET_PACKET_DUMP NDIS_FILTER_CTL_CODE(0x8D7)        /* 0x8000235C */
#define IOCTL_NDIS_FILTER_GET_PACKET_DUMP NDIS_FILTER_CTL_CODE(0x8D8)        /* 0x80002360 */
#define IOCTL_NDIS_FILTER_GET_ADAPTER NDIS_FILTER_CTL_CODE(0x8D9)            /* 0x80002364 */
#define IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE NDIS_FILTER_CTL_CODE(0x8DA)   /* 0x80002368 */
#define IOCTL_NDIS_FILTER_DUMP_DEVICE_EXTENSION NDIS_FILTER_CTL_CODE(0x8DE)  /* 0x80002378 */
#define IOCTL_NDIS_FILTER_SET_CONGESTION_CONTROL NDIS_FILTER_CTL_CODE(0x8DF) /* 0x8000237C */

/* ---------------------------------------------------------------------------------------------- shared memory */

#define NDIS_FILTER_MAPPED_MEMORY_SIZE 1724520u /* the whole mapping: MappedMemory and 4 spare bytes */
#define NDIS_FILTER_SHARED_MEMORY_SIZE 1724496u /* sizeof(SharedMemory) */
#define NDIS_FILTER_SHARE_FAILED 20u            /* what START_SHARE answers when the memory was not mapped */
#define NDIS_FILTER_BLOCK_SIZE 1684
#define NDIS_FILTER_BLOCK_COUNT 512
#define NDIS_FILTER_BLOCK_DATA_SIZE 1520
#define NDIS_FILTER_APPLICATION_DATA_SIZE 128
#define NDIS_FILTER_SIGNAL_SIZE 1816 /* a signal record; its last 132 bytes reach into the next block */

/* m_nDirection of a block or packet. */
#define NDIS_FILTER_DIRECTION_TO_PROTOCOL 1u
#define NDIS_FILTER_DIRECTION_TO_ADAPTER 2u
#define NDIS_FILTER_DIRECTION_TO_APPLICATION 3u /* an input block with it comes straight back as an output block */

#pragma pack(push, 4)

/* One frame in a ring: 1,684 bytes. Written by the program in the input ring, by the driver in the output ring. */
typedef struct SharedBlock {
    uint32_t m_nAdapterId;                                        /*    0  adapter identifier */
    uint32_t m_nReserved;                                         /*    4  not used; a signal has its own bytes here */
    uint32_t m_nDirection;                                        /*    8  NDIS_FILTER_DIRECTION_* */
    uint32_t m_nPacketSize;                                       /*   12  frame bytes in m_Data; 0 marks a signal */
    uint32_t m_nCarried[2];                                       /*   16  carried with the packet, not interpreted */
    uint32_t m_nIndicateCode;                                     /*   24  code given by the indicating filter */
    uint64_t m_nIndicateValue;                                    /*   28  value given by the indicating filter */
    uint8_t m_ApplicationData[NDIS_FILTER_APPLICATION_DATA_SIZE]; /*   36  carried with the packet */
    uint8_t m_Data[NDIS_FILTER_BLOCK_DATA_SIZE];                  /*  164  the Ethernet frame */
} SharedBlock;

/*
 * Header of a ring: 40 bytes. Empty when m_iRead equals m_iWrite; full when (m_iWrite + 1) modulo m_iBlockCount
 * equals m_iRead, so at most 511 blocks are in flight. The driver writes m_iRead of the input ring and m_iWrite and
 * m_nCount of the output ring, the program the other index of each ring. The driver relies on none of the other
 * fields. A new owner finds the indexes as the last one left them.
 */
typedef struct SharedRing {
    int32_t m_iBlockSize;   /*  0  1,684 */
    int32_t m_iBlockCount;  /*  4  512 */
    int32_t m_iBaseOffset;  /*  8  of the ring's first block from SharedMemory.m_OutputBlocks, in bytes */
    uint64_t m_puBlockBase; /* 12  left to the program */
    uint64_t m_pkBlockBase; /* 20  kernel address of the first block */
    int32_t m_iRead;        /* 28  next block to read, 0 to 511; written by the reader */
    int32_t m_iWrite;       /* 32  next block to write, 0 to 511; written by the writer */
    int32_t m_nCount;       /* 36  512 plus the blocks the driver has written; never lowered */
} SharedRing;

typedef struct SharedMemory {
    SharedRing KernelModeOutput;                         /*      0  driver to program */
    SharedRing KernelModeInput;                          /*     40  program to driver */
    SharedBlock m_OutputBlocks[NDIS_FILTER_BLOCK_COUNT]; /*     80 */
    SharedBlock m_InputBlocks[NDIS_FILTER_BLOCK_COUNT];  /* 862288 */
} SharedMemory;

/* The mapping as a whole. The program gets the address of m_SharedMemory. */
typedef struct MappedMemory {
    uint64_t m_pUserModeVirtualAddress; /*  0  of the present mapping, 0 when there is none; written by the driver */
    uint64_t m_pMdl;                    /*  8  kernel address; written by the driver */
    uint32_t m_nSize;                   /* 16  1,724,496; written by the driver */
    SharedMemory m_SharedMemory;        /* 20 */
} MappedMemory;

#pragma pack(pop)

/* ------------------------------------------------------------------------------------ records of the requests */

#define NDIS_FILTER_EVENT_TEXT_SIZE 1024
#define NDIS_FILTER_EVENT_MESSAGE_OFFSET 38 /* in m_Text: where the message of an event with a head begins */
#define NDIS_FILTER_MAX_ADAPTERS 32
#define NDIS_FILTER_DIAG_COMMAND_SIZE 1023 /* the longest command of IOCTL_NDIS_FILTER_DIAG, in bytes */
#define NDIS_FILTER_DIAG_HEADER_SIZE 40    /* bytes returned less those of the text; a shorter output gets none */

#pragma pack(push, 1)

/*
 * Output of IOCTL_NDIS_FILTER_GET_EVENT: 1,036 bytes; no bytes returned: no event was waiting. The text of an event
 * leads with a head, in which the driver has put the adapter's identifier for its handle. It does so with every event:
 * of one that was reported without a head the bytes 4 to 33 of the text, which are 16 to 45 of the record, are not what
 * its reporter wrote, and an identifier may be spent on them; when none is left the event is lost
 * (STATUS_INTERNAL_ERROR), as it is when the driver has no memory for the rewriting (STATUS_NO_MEMORY, 0xC0000017).
 */
typedef struct UserEvent {
    uint32_t m_nEvent1;                           /*  0  first value, as the reporting driver gave it */
    uint32_t m_nEvent2;                           /*  4  second value */
    int32_t m_nLength;                            /*  8  bytes of text reported, -1 when a formatted one did not fit */
    uint8_t m_Text[NDIS_FILTER_EVENT_TEXT_SIZE];  /* 12  a UserEventHead, then the message; unused bytes are zero */
} UserEvent;

/* Head of an event's text: 34 bytes. Behind it come the last 4 bytes of the head as it was reported, and from
   NDIS_FILTER_EVENT_MESSAGE_OFFSET on, up to m_nLength, the message. The values are the reporting driver's. */
typedef struct UserEventHead {
    uint32_t m_nValue1;    /*  0 */
    uint32_t m_nAdapterId; /*  4  identifier of the adapter, or what the driver got for a handle of none */
    uint64_t m_nValue2;    /*  8 */
    uint64_t m_nValue3;    /* 16 */
    uint16_t m_nValue4;    /* 24 */
    uint32_t m_nValue5;    /* 26 */
    uint32_t m_nValue6;    /* 30 */
} UserEventHead;

/* One adapter as user mode sees it: 282 bytes. */
typedef struct UserAdapterInfo {
    uint32_t m_nAdapterId;         /*  0  adapter identifier, from 1; never reused while the driver is loaded */
    uint32_t m_nAdapterMedium;     /*  4  NDIS medium */
    uint16_t m_usMTU;              /*  8  bytes of payload */
    uint32_t m_dwAdapterState;     /* 10  state as the hook driver keeps it */
    uint8_t m_PermanentAddress[6]; /* 14  MAC address */
    uint8_t m_CurrentAddress[6];   /* 20  MAC address */
    char m_szAdapterName[256];     /* 26  zero-terminated */
} UserAdapterInfo;

/* Output of IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES: 9,028 bytes. */
typedef struct UserAdapterList {
    uint32_t m_nAdapterCount; /* 0  at most 32 */
    UserAdapterInfo m_Adapters[NDIS_FILTER_MAX_ADAPTERS];
} UserAdapterList;

/* One address triple of an IP configuration; IPv4 addresses in network byte order. */
typedef struct UserIPAddress {
    uint32_t IpAddress;
    uint32_t Netmask;
    uint32_t Broadcast; /* computed by the driver when the configuration is set */
} UserIPAddress;

/*
 * IP configuration of an adapter: 224 bytes. Input of IOCTL_NDIS_FILTER_SET_IPCONFIG; output of
 * IOCTL_NDIS_FILTER_GET_IPCONFIG, whose input is the identifier alone. Keep the counts at 8 or below.
 */
typedef struct UserIPConfig {
    uint32_t m_nAdapterId;      /*   0  adapter identifier */
    uint32_t m_nReserved;       /*   4  carried and compared, not interpreted */
    uint32_t m_nIP;             /*   8  triples in use */
    UserIPAddress m_Address[8]; /*  12 */
    uint32_t m_nGW;             /* 108  routers in use */
    uint32_t RouterAddr[8];     /* 112 */
    uint32_t m_nDHCP;           /* 144  DHCP servers in use */
    uint32_t DhcpServer[8];     /* 148 */
    uint32_t m_nDNS;            /* 180  DNS servers in use */
    uint32_t DnsServer[8];      /* 184 */
    uint32_t WinsServer1;       /* 216 */
    uint32_t WinsServer2;       /* 220 */
} UserIPConfig;

/*
 * Input of IOCTL_NDIS_FILTER_SET_MEDIA_STATUS and _SET_PACKET_DUMP, input and output of the two GET requests: 7 bytes.
 * Those that get return 7 bytes, too.
 */
typedef struct UserMacValue {
    uint8_t m_MacAddress[6]; /* 0  current MAC address of the adapter */
    uint8_t m_nValue;        /* 6  media state as the hook driver means it; packet dump on (nonzero) or off */
} UserMacValue;

/* Output of IOCTL_NDIS_FILTER_GET_ADAPTER: 10 bytes. Its input is the MAC address alone. */
typedef struct UserMacAdapter {
    uint8_t m_MacAddress[6]; /* 0  as given */
    uint32_t m_nAdapterId;   /* 6  adapter identifier */
} UserMacAdapter;

/*
 * Output of IOCTL_NDIS_FILTER_DIAG, whose input is a command: words separated by blanks, of which the first names the
 * driver that is to answer ("filter": the framework; "driver": every driver says who it is) and at most 16 more are its
 * arguments. The text is what the drivers have printed. No bytes returned: the lengths are unfit, or another
 * diagnostic is running. A print that goes up to 33 bytes beyond the output is cut there and counts in full in
 * m_BufferUsed; a longer one takes one from it, so read it as signed: it is -1 when the first print was too long. Bytes
 * returned are 40 + m_BufferUsed, at most the length of the output; 39 for that -1.
 */
typedef struct UserDiag {
    uint64_t m_pszDriverName;  /*  0  kernel address */
    int32_t m_nArgumentCount;  /*  8  words behind the driver's name: 0 to 16 */
    uint32_t m_nPadding;       /* 12 */
    uint64_t m_ppszArguments;  /* 16  kernel address */
    uint32_t m_BufferSize;     /* 24  length of the output */
    uint32_t m_BufferUsed;     /* 28  bytes of text; more than the output holds were cut */
    uint8_t m_bInitialized;    /* 32  1 */
    char m_Text[7];            /* 33  the text, up to the end of the output; not zero-terminated */
} UserDiag;

#pragma pack(pop)

#endif
