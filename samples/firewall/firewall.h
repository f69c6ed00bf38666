/*
 * What the sample driver "firewall" shares with user programs: its control requests and events. Plain C; include
 * ndisfilter-user.h before it.
 */
#ifndef FIREWALL_H
#define FIREWALL_H

/* Control requests, on the framework's device. Numbers below 0x900 are the framework's. */
#define IOCTL_FIREWALL_ADD_RULE NDIS_FILTER_CTL_CODE(0x910)     /* input: FirewallRule */
#define IOCTL_FIREWALL_CLEAR_RULES NDIS_FILTER_CTL_CODE(0x911)  /* no input, no output */
#define IOCTL_FIREWALL_GET_COUNTERS NDIS_FILTER_CTL_CODE(0x912) /* output: FirewallCounters */

#define FIREWALL_MAX_RULES 64

#define FIREWALL_DROP 0u   /* the frame disappears: whoever sent it waits in vain */
#define FIREWALL_REJECT 1u /* TCP connections are reset at once; anything else is dropped */

/* Blocks new connections. A field that is 0 matches everything. */
typedef struct FirewallRule {
    uint8_t m_nProtocol; /* 0  IP protocol */
    uint8_t m_nAction;   /* 1  FIREWALL_DROP or FIREWALL_REJECT */
    uint16_t m_nPort;    /* 2  of the side that is connected to; TCP and UDP only */
    uint32_t m_nAddress; /* 4  of either side, network order */
    uint32_t m_nMask;    /* 8  bits of the address that count, network order; 0 counts as all of them */
} FirewallRule;

typedef struct FirewallCounters {
    uint32_t m_nConnections; /*  0  in the table now */
    uint32_t m_nOpened;      /*  4  connections that were let through; wraps, as do the next two */
    uint32_t m_nBlocked;     /*  8  frames */
    uint32_t m_nUntracked;   /* 12  frames that passed although the table was full */
} FirewallCounters;

/*
 * Event of a blocked frame: its first value, and in the head of its data the protocol (m_nValue1), the adapter, source
 * and destination address (m_nValue5, m_nValue6, network order), and source port * 65536 + destination port
 * (m_nValue2). A text for a person follows the head. At most FIREWALL_EVENTS_PER_SECOND are reported.
 */
#define FIREWALL_EVENT_BLOCKED 0x46570001u
#define FIREWALL_EVENTS_PER_SECOND 100

#endif
