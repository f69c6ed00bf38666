/*
 * What the sample driver "indicator" shares with user programs: the codes and values of its frames, its signals, its
 * event, its control requests. Plain C; include ndisfilter-user.h before it.
 */
#ifndef INDICATOR_H
#define INDICATOR_H

/* m_nIndicateCode of a frame; its m_nIndicateValue is the number of the frame, from 1. */
#define INDICATOR_CODE_RECEIVED 1u
#define INDICATOR_CODE_SENT 2u

/* First value of the event that reports another port; the second value, and the first of the head, is the port. */
#define INDICATOR_EVENT_PORT 1u

/* Control requests, on the framework's device. Numbers below 0x900 are the framework's. */
#define IOCTL_INDICATOR_GET_COUNTERS NDIS_FILTER_CTL_CODE(0x900) /* output: IndicatorCounters */
#define IOCTL_INDICATOR_SET_PORT NDIS_FILTER_CTL_CODE(0x901)     /* input: u32 port, 0 to 65535; 0: every frame */

typedef struct IndicatorCounters {
    uint32_t m_nPort;           /*  0  frames of this TCP or UDP port are indicated; 0: all */
    uint32_t m_nIndicated;      /*  4  frames indicated; wraps */
    uint32_t m_nSignals;        /*  8  signals that the program's ring took; wraps */
    uint32_t m_nSignalsRefused; /* 12  signals that it did not take: it was full */
} IndicatorCounters;

#define INDICATOR_SIGNATURE 0x49444E49u /* "INDI" */

/* Begins a signal; the rest of its NDIS_FILTER_SIGNAL_SIZE bytes is zero. */
typedef struct IndicatorSignal {
    uint32_t m_nSignature; /*  0  INDICATOR_SIGNATURE */
    uint32_t m_nNumber;    /*  4  of the signal, from 1; wraps */
    uint32_t m_nIndicated; /*  8  frames indicated so far; wraps */
    uint32_t m_nMark;      /* 12  0: tells a signal from a frame */
    char m_Text[48];       /* 16  the same for a person, zero-terminated */
} IndicatorSignal;

#endif
