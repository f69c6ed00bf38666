/*
 * NdisFilter: the layout of every record that crosses a boundary, checked by the compiler that includes this header.
 *
 * Drivers and programs that share these records are compiled apart, by different compilers, and built ones stay in
 * use: none of these numbers ever changes. C11 and C++.
 */
#ifndef NDISFILTER_LAYOUT_H
#define NDISFILTER_LAYOUT_H

#include <stddef.h>

#include "ndisfilter.h"

#ifdef __cplusplus
#define NDISFILTER_HOLDS(Condition) static_assert(Condition, #Condition)
#else
#define NDISFILTER_HOLDS(Condition) _Static_assert(Condition, #Condition)
#endif
#define NDISFILTER_AT(Record, Field, Offset) NDISFILTER_HOLDS(offsetof(Record, Field) == (Offset))
#define NDISFILTER_SIZE(Record, Size) NDISFILTER_HOLDS(sizeof(Record) == (Size))

/* --------------------------------------------------------------------------------------------------- control codes */

NDISFILTER_HOLDS(IOCTL_NDIS_FILTER_DIAG == 0x80002008u);
NDISFILTER_HOLDS(IOCTL_NDIS_FILTER_GET_VERSION == 0x80002320u);
NDISFILTER_HOLDS(IOCTL_NDIS_FILTER_START_SHARE == 0x80002324u);
NDISFILTER_HOLDS(IOCTL_NDIS_FILTER_STOP_SHARE == 0x80002328u);
NDISFILTER_HOLDS(IOCTL_NDIS_FILTER_READ_SHARE == 0x8000232Cu);
NDISFILTER_HOLDS(IOCTL_NDIS_FILTER_WRITE_SHARE == 0x80002330u);
NDISFILTER_HOLDS(IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES == 0x80002334u);
NDISFILTER_HOLDS(IOCTL_NDIS_FILTER_GET_EVENT == 0x80002338u);
NDISFILTER_HOLDS(IOCTL_NDIS_FILTER_CLEAR_EVENT == 0x8000233Cu);
NDISFILTER_HOLDS(IOCTL_NDIS_FILTER_START_ETHRLOG == 0x80002340u);
NDISFILTER_HOLDS(IOCTL_NDIS_FILTER_STOP_ETHRLOG == 0x80002344u);
NDISFILTER_HOLDS(IOCTL_NDIS_FILTER_SET_IPCONFIG == 0x80002348u);
NDISFILTER_HOLDS(IOCTL_NDIS_FILTER_GET_IPCONFIG == 0x8000234Cu);
NDISFILTER_HOLDS(IOCTL_NDIS_FILTER_SET_MEDIA_STATUS == 0x80002350u);
NDISFILTER_HOLDS(IOCTL_NDIS_FILTER_GET_MEDIA_STATUS == 0x80002354u);
NDISFILTER_HOLDS(IOCTL_NDIS_FILTER_GET_DBGFLAG == 0x80002358u);
NDISFILTER_HOLDS(IOCTL_NDIS_FILTER_SET_PACKET_DUMP == 0x8000235Cu);
NDISFILTER_HOLDS(IOCTL_NDIS_FILTER_GET_PACKET_DUMP == 0x80002360u);
NDISFILTER_HOLDS(IOCTL_NDIS_FILTER_GET_ADAPTER == 0x80002364u);
NDISFILTER_HOLDS(IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE == 0x80002368u);
NDISFILTER_HOLDS(IOCTL_NDIS_FILTER_DUMP_DEVICE_EXTENSION == 0x80002378u);
NDISFILTER_HOLDS(IOCTL_NDIS_FILTER_SET_CONGESTION_CONTROL == 0x8000237Cu);
NDISFILTER_HOLDS(IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK == 0x80002400u);
NDISFILTER_HOLDS(IOCTL_NDIS_FILTER_INTERNAL_UNBIND_NDIS_HOOK == 0x80002404u);

/* ---------------------------------------------------------------------------------------- records of user programs */

NDISFILTER_AT(SharedBlock, m_nAdapterId, 0);
NDISFILTER_AT(SharedBlock, m_nReserved, 4);
NDISFILTER_AT(SharedBlock, m_nDirection, 8);
NDISFILTER_AT(SharedBlock, m_nPacketSize, 12);
NDISFILTER_AT(SharedBlock, m_nCarried, 16);
NDISFILTER_AT(SharedBlock, m_nIndicateCode, 24);
NDISFILTER_AT(SharedBlock, m_nIndicateValue, 28);
NDISFILTER_AT(SharedBlock, m_ApplicationData, 36);
NDISFILTER_AT(SharedBlock, m_Data, 164);
NDISFILTER_SIZE(SharedBlock, 1684);
NDISFILTER_HOLDS(sizeof(SharedBlock) == NDIS_FILTER_BLOCK_SIZE);

NDISFILTER_AT(SharedRing, m_iBlockSize, 0);
NDISFILTER_AT(SharedRing, m_iBlockCount, 4);
NDISFILTER_AT(SharedRing, m_iBaseOffset, 8);
NDISFILTER_AT(SharedRing, m_puBlockBase, 12);
NDISFILTER_AT(SharedRing, m_pkBlockBase, 20);
NDISFILTER_AT(SharedRing, m_iRead, 28);
NDISFILTER_AT(SharedRing, m_iWrite, 32);
NDISFILTER_AT(SharedRing, m_nCount, 36);
NDISFILTER_SIZE(SharedRing, 40);

NDISFILTER_AT(SharedMemory, KernelModeOutput, 0);
NDISFILTER_AT(SharedMemory, KernelModeInput, 40);
NDISFILTER_AT(SharedMemory, m_OutputBlocks, 80);
NDISFILTER_AT(SharedMemory, m_InputBlocks, 862288);
NDISFILTER_SIZE(SharedMemory, 1724496);
NDISFILTER_HOLDS(sizeof(SharedMemory) == NDIS_FILTER_SHARED_MEMORY_SIZE);

NDISFILTER_AT(MappedMemory, m_pUserModeVirtualAddress, 0);
NDISFILTER_AT(MappedMemory, m_pMdl, 8);
NDISFILTER_AT(MappedMemory, m_nSize, 16);
NDISFILTER_AT(MappedMemory, m_SharedMemory, 20);
NDISFILTER_SIZE(MappedMemory, 1724516);
/* The mapping is rounded up to 8 bytes. */
NDISFILTER_HOLDS(((sizeof(MappedMemory) + 7) & ~(size_t)7) == NDIS_FILTER_MAPPED_MEMORY_SIZE);

NDISFILTER_AT(UserEvent, m_nEvent1, 0);
NDISFILTER_AT(UserEvent, m_nEvent2, 4);
NDISFILTER_AT(UserEvent, m_nLength, 8);
NDISFILTER_AT(UserEvent, m_Text, 12);
NDISFILTER_SIZE(UserEvent, 1036);

NDISFILTER_AT(UserEventHead, m_nValue1, 0);
NDISFILTER_AT(UserEventHead, m_nAdapterId, 4);
NDISFILTER_AT(UserEventHead, m_nValue2, 8);
NDISFILTER_AT(UserEventHead, m_nValue3, 16);
NDISFILTER_AT(UserEventHead, m_nValue4, 24);
NDISFILTER_AT(UserEventHead, m_nValue5, 26);
NDISFILTER_AT(UserEventHead, m_nValue6, 30);
NDISFILTER_SIZE(UserEventHead, 34);

NDISFILTER_AT(UserAdapterInfo, m_nAdapterId, 0);
NDISFILTER_AT(UserAdapterInfo, m_nAdapterMedium, 4);
NDISFILTER_AT(UserAdapterInfo, m_usMTU, 8);
NDISFILTER_AT(UserAdapterInfo, m_dwAdapterState, 10);
NDISFILTER_AT(UserAdapterInfo, m_PermanentAddress, 14);
NDISFILTER_AT(UserAdapterInfo, m_CurrentAddress, 20);
NDISFILTER_AT(UserAdapterInfo, m_szAdapterName, 26);
NDISFILTER_SIZE(UserAdapterInfo, 282);

NDISFILTER_AT(UserAdapterList, m_nAdapterCount, 0);
NDISFILTER_AT(UserAdapterList, m_Adapters, 4);
NDISFILTER_SIZE(UserAdapterList, 9028);

NDISFILTER_SIZE(UserIPAddress, 12);
NDISFILTER_AT(UserIPConfig, m_nAdapterId, 0);
NDISFILTER_AT(UserIPConfig, m_nReserved, 4);
NDISFILTER_AT(UserIPConfig, m_nIP, 8);
NDISFILTER_AT(UserIPConfig, m_Address, 12);
NDISFILTER_AT(UserIPConfig, m_nGW, 108);
NDISFILTER_AT(UserIPConfig, RouterAddr, 112);
NDISFILTER_AT(UserIPConfig, m_nDHCP, 144);
NDISFILTER_AT(UserIPConfig, DhcpServer, 148);
NDISFILTER_AT(UserIPConfig, m_nDNS, 180);
NDISFILTER_AT(UserIPConfig, DnsServer, 184);
NDISFILTER_AT(UserIPConfig, WinsServer1, 216);
NDISFILTER_AT(UserIPConfig, WinsServer2, 220);
NDISFILTER_SIZE(UserIPConfig, 224);

NDISFILTER_AT(UserMacValue, m_MacAddress, 0);
NDISFILTER_AT(UserMacValue, m_nValue, 6);
NDISFILTER_SIZE(UserMacValue, 7);

NDISFILTER_AT(UserMacAdapter, m_MacAddress, 0);
NDISFILTER_AT(UserMacAdapter, m_nAdapterId, 6);
NDISFILTER_SIZE(UserMacAdapter, 10);

NDISFILTER_AT(UserDiag, m_pszDriverName, 0);
NDISFILTER_AT(UserDiag, m_nArgumentCount, 8);
NDISFILTER_AT(UserDiag, m_ppszArguments, 16);
NDISFILTER_AT(UserDiag, m_BufferSize, 24);
NDISFILTER_AT(UserDiag, m_BufferUsed, 28);
NDISFILTER_AT(UserDiag, m_bInitialized, 32);
NDISFILTER_AT(UserDiag, m_Text, 33);
NDISFILTER_SIZE(UserDiag, 40);
NDISFILTER_HOLDS(sizeof(UserDiag) == NDIS_FILTER_DIAG_HEADER_SIZE);

/* ----------------------------------------------------------------------------------------- records of hook drivers */

NDISFILTER_AT(IPConfigAddress, IpAddress, 0);
NDISFILTER_AT(IPConfigAddress, Netmask, 4);
NDISFILTER_AT(IPConfigAddress, Broadcast, 8);
NDISFILTER_SIZE(IPConfigAddress, 12);

NDISFILTER_AT(IPConfig, hAdapter, 0);
NDISFILTER_AT(IPConfig, m_nReserved, 8);
NDISFILTER_AT(IPConfig, m_nIP, 12);
NDISFILTER_AT(IPConfig, m_Address, 16);
NDISFILTER_AT(IPConfig, m_nGW, 112);
NDISFILTER_AT(IPConfig, RouterAddr, 116);
NDISFILTER_AT(IPConfig, m_nDHCP, 148);
NDISFILTER_AT(IPConfig, DhcpServer, 152);
NDISFILTER_AT(IPConfig, m_nDNS, 184);
NDISFILTER_AT(IPConfig, DnsServer, 188);
NDISFILTER_AT(IPConfig, WinsServer1, 220);
NDISFILTER_AT(IPConfig, WinsServer2, 224);
NDISFILTER_SIZE(IPConfig, 228);

NDISFILTER_AT(FilterAdapter, m_Tag, 0);
NDISFILTER_AT(FilterAdapter, m_CurrentAddress, 4);
NDISFILTER_AT(FilterAdapter, m_PermanentAddress, 10);
NDISFILTER_AT(FilterAdapter, m_usMTU, 16);
NDISFILTER_AT(FilterAdapter, m_nAdapterMedium, 20);
NDISFILTER_AT(FilterAdapter, m_nAdapterMediaState, 24);
NDISFILTER_AT(FilterAdapter, m_HookReserved0, 28);
NDISFILTER_AT(FilterAdapter, m_bNdisWanAdapter, 29);
NDISFILTER_AT(FilterAdapter, m_PPPSrcMacAddress, 30);
NDISFILTER_AT(FilterAdapter, m_PPPDstMacAddress, 36);
NDISFILTER_AT(FilterAdapter, m_AdapterName, 48);
NDISFILTER_AT(FilterAdapter, m_HookReserved1, 64);
NDISFILTER_AT(FilterAdapter, m_pUpperEthrLog, 72);
NDISFILTER_AT(FilterAdapter, m_pLowerEthrLog, 80);
NDISFILTER_AT(FilterAdapter, m_pInjectEthrLog, 88);
NDISFILTER_AT(FilterAdapter, m_bPacketDump, 96);
NDISFILTER_AT(FilterAdapter, m_pAdapterContext, 104);
NDISFILTER_AT(FilterAdapter, m_IPConfig, 232);
NDISFILTER_AT(FilterAdapter, m_HookReserved2, 460);
NDISFILTER_AT(FilterAdapter, m_bCongestionControl, 472);
NDISFILTER_SIZE(FilterAdapter, 480);

NDISFILTER_AT(AdapterInfo, m_hAdapter, 0);
NDISFILTER_AT(AdapterInfo, m_nAdapterMedium, 8);
NDISFILTER_AT(AdapterInfo, m_usMTU, 12);
NDISFILTER_AT(AdapterInfo, m_dwAdapterState, 14);
NDISFILTER_AT(AdapterInfo, m_PermanentAddress, 18);
NDISFILTER_AT(AdapterInfo, m_CurrentAddress, 24);
NDISFILTER_AT(AdapterInfo, m_szAdapterName, 30);
NDISFILTER_SIZE(AdapterInfo, 286);

NDISFILTER_AT(AdapterList, m_nAdapterCount, 0);
NDISFILTER_AT(AdapterList, m_Adapters, 4);
NDISFILTER_SIZE(AdapterList, 9156);

NDISFILTER_AT(FilterPacket, m_HookReserved0, 0);
NDISFILTER_AT(FilterPacket, m_InjectLink, 104);
NDISFILTER_AT(FilterPacket, m_HookReserved1, 120);
NDISFILTER_AT(FilterPacket, m_nProtocol, 172);
NDISFILTER_AT(FilterPacket, m_pEthernet, 176);
NDISFILTER_AT(FilterPacket, m_pArp, 184);
NDISFILTER_AT(FilterPacket, m_pIp, 192);
NDISFILTER_AT(FilterPacket, m_pTcp, 200);
NDISFILTER_AT(FilterPacket, m_pUdp, 208);
NDISFILTER_AT(FilterPacket, m_pIcmp, 216);
NDISFILTER_AT(FilterPacket, m_pDhcp, 224);
NDISFILTER_AT(FilterPacket, m_pDns, 232);
NDISFILTER_AT(FilterPacket, m_InjectOrigin, 240);
NDISFILTER_AT(FilterPacket, m_HookReserved2, 248);
NDISFILTER_AT(FilterPacket, m_hInjectFilter, 256);
NDISFILTER_AT(FilterPacket, m_pfReleaseCallback, 264);
NDISFILTER_AT(FilterPacket, m_HookReserved3, 272);
NDISFILTER_AT(FilterPacket, m_pReleaseContext, 280);
NDISFILTER_AT(FilterPacket, m_HookReserved4, 288);
NDISFILTER_AT(FilterPacket, m_pOutgoingNdisPacket, 624);
NDISFILTER_AT(FilterPacket, m_HookReserved5, 632);
NDISFILTER_AT(FilterPacket, m_HookReserved6, 648);
NDISFILTER_AT(FilterPacket, m_pIncomingNdisPacket, 656);
NDISFILTER_AT(FilterPacket, m_HookReserved7, 664);
NDISFILTER_AT(FilterPacket, m_bDirty, 672);
NDISFILTER_AT(FilterPacket, m_nBytesRead, 676);
NDISFILTER_AT(FilterPacket, m_hAdapter, 680);
NDISFILTER_AT(FilterPacket, m_nDirection, 688);
NDISFILTER_AT(FilterPacket, m_nPacketSize, 692);
NDISFILTER_AT(FilterPacket, m_nCarried, 696);
NDISFILTER_AT(FilterPacket, m_nIndicateCode, 704);
NDISFILTER_AT(FilterPacket, m_nIndicateValue, 712);
NDISFILTER_AT(FilterPacket, m_ApplicationData, 720);
NDISFILTER_AT(FilterPacket, m_Data, 848);
NDISFILTER_SIZE(FilterPacket, 2496);

NDISFILTER_AT(NdisHookAPI, m_Size, 0);
NDISFILTER_AT(NdisHookAPI, m_Flags, 4);
NDISFILTER_AT(NdisHookAPI, m_MajorVersion, 8);
NDISFILTER_AT(NdisHookAPI, m_MinorVersion, 10);
NDISFILTER_AT(NdisHookAPI, Filter_AdapterOpened, 16);
NDISFILTER_AT(NdisHookAPI, Filter_AdapterStatusChanged, 24);
NDISFILTER_AT(NdisHookAPI, Filter_AdapterClosed, 32);
NDISFILTER_AT(NdisHookAPI, Filter_FilterReceivedPacket, 40);
NDISFILTER_AT(NdisHookAPI, Filter_FilterSendPacket, 48);
NDISFILTER_AT(NdisHookAPI, Hook_GetOsVersion, 56);
NDISFILTER_AT(NdisHookAPI, Hook_HandleIoControl, 64);
NDISFILTER_AT(NdisHookAPI, Hook_AllocatePacket, 72);
NDISFILTER_AT(NdisHookAPI, Hook_FreePacket, 80);
NDISFILTER_AT(NdisHookAPI, Hook_InjectPacketToAdapter, 88);
NDISFILTER_AT(NdisHookAPI, Hook_InjectPacketToProtocol, 96);
NDISFILTER_AT(NdisHookAPI, Hook_AllocateRequest, 104);
NDISFILTER_AT(NdisHookAPI, Hook_MakeNdisRequest, 112);
NDISFILTER_AT(NdisHookAPI, Hook_FreeRequest, 120);
NDISFILTER_AT(NdisHookAPI, Hook_SetAdapterStatus, 128);
NDISFILTER_AT(NdisHookAPI, Hook_GetAdapterStatus, 136);
NDISFILTER_AT(NdisHookAPI, Hook_GetTcpIpBoundAdapters, 144);
NDISFILTER_AT(NdisHookAPI, Hook_MmMapLockedPages, 152);
NDISFILTER_AT(NdisHookAPI, Hook_MmUnmapLockedPages, 160);
NDISFILTER_SIZE(NdisHookAPI, 168);

/* --------------------------------------------------------------------------------------- records of client drivers */

NDISFILTER_AT(FilterLock, m_SpinLock, 0);
NDISFILTER_AT(FilterLock, m_OldIrql, 8);
NDISFILTER_SIZE(FilterLock, 16);

NDISFILTER_AT(STRING, Length, 0);
NDISFILTER_AT(STRING, MaximumLength, 2);
NDISFILTER_AT(STRING, Buffer, 8);
NDISFILTER_SIZE(STRING, 16);

NDISFILTER_HOLDS(sizeof(FILTER_STATUS) == 4 && (FILTER_STATUS)-1 < 0);
NDISFILTER_HOLDS(sizeof(FILTER_TYPE) == 4 && (FILTER_TYPE)-1 < 0);
NDISFILTER_HOLDS(sizeof(FILTER_ORDER) == 4 && (FILTER_ORDER)-1 < 0);
NDISFILTER_HOLDS(sizeof(FILTER_RESULT) == 4 && (FILTER_RESULT)-1 > 0);
NDISFILTER_HOLDS(sizeof(FILTER_METHOD) == 4 && (FILTER_METHOD)-1 > 0);

NDISFILTER_AT(FilterEventHead, m_nValue1, 0);
NDISFILTER_AT(FilterEventHead, m_hAdapter, 4);
NDISFILTER_AT(FilterEventHead, m_nValue2, 12);
NDISFILTER_AT(FilterEventHead, m_nValue3, 20);
NDISFILTER_AT(FilterEventHead, m_nValue4, 28);
NDISFILTER_AT(FilterEventHead, m_nValue5, 30);
NDISFILTER_AT(FilterEventHead, m_nValue6, 34);
NDISFILTER_SIZE(FilterEventHead, 38);

NDISFILTER_AT(Diag, m_pszDriverName, 0);
NDISFILTER_AT(Diag, m_nArgumentCount, 8);
NDISFILTER_AT(Diag, m_ppszArguments, 16);
NDISFILTER_AT(Diag, m_BufferSize, 24);
NDISFILTER_AT(Diag, m_BufferUsed, 28);
NDISFILTER_AT(Diag, m_bInitialized, 32);
NDISFILTER_AT(Diag, m_Text, 33);
NDISFILTER_SIZE(Diag, 40);

NDISFILTER_AT(HashItem, m_ListEntry, 0);
NDISFILTER_AT(HashItem, m_BucketEntry, 16);
NDISFILTER_AT(HashItem, m_HashValue, 32);
NDISFILTER_AT(HashItem, m_RefCount, 36);
NDISFILTER_AT(HashItem, m_nTime, 40);
NDISFILTER_AT(HashItem, m_pHashTable, 48);
NDISFILTER_AT(HashItem, m_bDeleted, 56);
NDISFILTER_SIZE(HashItem, 64);

#undef NDISFILTER_SIZE
#undef NDISFILTER_AT
#undef NDISFILTER_HOLDS

#endif
