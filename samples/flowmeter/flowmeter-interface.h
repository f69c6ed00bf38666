/*
 * What the sample driver "flowmeter" offers other drivers: the interface of this name. Include ndisfilter.h before it.
 */
#ifndef FLOWMETER_INTERFACE_H
#define FLOWMETER_INTERFACE_H

#define FLOWMETER_INTERFACE_NAME "flowmeter"
#define FLOWMETER_INTERFACE_VERSION 1
#define FLOWMETER_METERS NDIS_FILTER_MAX_ADAPTERS

/* One adapter, as its meter stands. A closed adapter keeps its meter until another one needs the place. */
typedef struct FlowMeterReading {
    UCHAR m_MacAddress[6];
    BOOLEAN m_bOpen;
    BOOLEAN m_bConnected;
    ULONG m_nIpAddress;           /* the first one, network order; 0 until known */
    LONG64 m_nReceivedFrames;     /* seen by the meter */
    LONG64 m_nReceivedBytes;
    LONG64 m_nSentFrames;
    LONG64 m_nSentBytes;
    LONG64 m_nAdapterReceived;    /* frames by the adapter's own statistics, when they were last asked for */
    LONG64 m_nAdapterSent;
    ULONG m_nStatisticsAnswered;  /* how often the adapter has answered */
} FlowMeterReading;

/* The block of the interface. */
typedef struct FlowMeterInterface {
    USHORT m_nLength;  /* sizeof(FlowMeterInterface) */
    USHORT m_nVersion; /* FLOWMETER_INTERFACE_VERSION */
    /* Reads meter nMeter, 0 to FLOWMETER_METERS - 1. FALSE: not in use, nothing is written. IRQL <= DISPATCH. */
    BOOLEAN (*m_pfRead)(ULONG nMeter, FlowMeterReading* pReading);
} FlowMeterInterface;

#endif
