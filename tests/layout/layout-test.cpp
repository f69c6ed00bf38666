// Records that cross a boundary: compiled apart by the hook driver, by client drivers and by user programs. The
// numbers stand here once more on purpose: who moves a field breaks every neighbour that is already built.
#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

#include <ndisfilter.h>

#include "../../driver/kernel/filter/ndisfilter-records.h"

namespace
{

struct Place {
    const char* name;
    size_t actual;
    size_t expected;
};

// clang-format off
#define AT(Record, Field, Offset) Place{#Record "." #Field, offsetof(Record, Field), Offset}
#define SIZE(Record, Size) Place{"sizeof " #Record, sizeof(Record), Size}
#define WIDTH(Record, Field, Width) Place{"width of " #Record "." #Field, sizeof(Record::Field), Width}
#define CODE(Name, Value) Place{#Name, static_cast<uint32_t>(Name), Value}
// clang-format on

void Check(const std::vector<Place>& places)
{
    for (const Place& place : places) {
        EXPECT_EQ(place.actual, place.expected) << place.name;
    }
}

// clang-format off

TEST(Layout, OfTheSharedMemoryOfAUserProgram)
{
    Check({
        AT(MappedMemory, m_pUserModeVirtualAddress, 0), AT(MappedMemory, m_pMdl, 8),
        AT(MappedMemory, m_nSize, 16), AT(MappedMemory, m_SharedMemory, 20), SIZE(MappedMemory, 1724516),
        Place{"size of the mapping", NDIS_FILTER_MAPPED_MEMORY_SIZE, 1724520},
        AT(SharedMemory, KernelModeOutput, 0), AT(SharedMemory, KernelModeInput, 40),
        AT(SharedMemory, m_OutputBlocks, 80), AT(SharedMemory, m_InputBlocks, 862288),
        SIZE(SharedMemory, 1724496), AT(SharedRing, m_iBlockSize, 0), AT(SharedRing, m_iBlockCount, 4),
        AT(SharedRing, m_iBaseOffset, 8), AT(SharedRing, m_puBlockBase, 12),
        AT(SharedRing, m_pkBlockBase, 20), AT(SharedRing, m_iRead, 28), AT(SharedRing, m_iWrite, 32),
        AT(SharedRing, m_nCount, 36), SIZE(SharedRing, 40), AT(SharedBlock, m_nAdapterId, 0),
        AT(SharedBlock, m_nDirection, 8), AT(SharedBlock, m_nPacketSize, 12), AT(SharedBlock, m_nCarried, 16),
        AT(SharedBlock, m_nIndicateCode, 24), AT(SharedBlock, m_nIndicateValue, 28),
        AT(SharedBlock, m_ApplicationData, 36), AT(SharedBlock, m_Data, 164), SIZE(SharedBlock, 1684),
    });
}

TEST(Layout, OfTheRecordsOfControlRequests)
{
    Check({
        AT(UserEvent, m_nEvent1, 0), AT(UserEvent, m_nEvent2, 4), AT(UserEvent, m_nLength, 8),
        AT(UserEvent, m_Text, 12), SIZE(UserEvent, 1036), AT(UserAdapterInfo, m_nAdapterId, 0),
        AT(UserAdapterInfo, m_nAdapterMedium, 4), AT(UserAdapterInfo, m_usMTU, 8),
        AT(UserAdapterInfo, m_dwAdapterState, 10), AT(UserAdapterInfo, m_PermanentAddress, 14),
        AT(UserAdapterInfo, m_CurrentAddress, 20), AT(UserAdapterInfo, m_szAdapterName, 26),
        SIZE(UserAdapterInfo, 282), SIZE(UserAdapterList, 9028), AT(UserAdapterList, m_Adapters, 4),
    });
}

TEST(Layout, OfTheRecordsOfAHookDriver)
{
    Check({
        AT(FilterAdapter, m_Tag, 0), AT(FilterAdapter, m_CurrentAddress, 4),
        AT(FilterAdapter, m_PermanentAddress, 10), AT(FilterAdapter, m_usMTU, 16),
        AT(FilterAdapter, m_nAdapterMedium, 20), AT(FilterAdapter, m_nAdapterMediaState, 24),
        AT(FilterAdapter, m_bNdisWanAdapter, 29), AT(FilterAdapter, m_PPPSrcMacAddress, 30),
        AT(FilterAdapter, m_PPPDstMacAddress, 36), AT(FilterAdapter, m_AdapterName, 48),
        AT(FilterAdapter, m_pUpperEthrLog, 72), AT(FilterAdapter, m_pLowerEthrLog, 80),
        AT(FilterAdapter, m_pInjectEthrLog, 88), AT(FilterAdapter, m_bPacketDump, 96),
        AT(FilterAdapter, m_pAdapterContext, 104), WIDTH(FilterAdapter, m_pAdapterContext, 128),
        AT(FilterAdapter, m_IPConfig, 232), AT(FilterAdapter, m_bCongestionControl, 472),
        AT(IPConfig, hAdapter, 0), AT(IPConfig, m_nIP, 12), AT(IPConfig, m_Address, 16),
        SIZE(IPConfigAddress, 12), AT(IPConfigAddress, IpAddress, 0), AT(IPConfigAddress, Netmask, 4),
        AT(IPConfigAddress, Broadcast, 8), AT(IPConfig, m_nGW, 112), AT(IPConfig, RouterAddr, 116),
        AT(IPConfig, m_nDHCP, 148), AT(IPConfig, DhcpServer, 152), AT(IPConfig, m_nDNS, 184),
        AT(IPConfig, DnsServer, 188), AT(IPConfig, WinsServer1, 220), AT(IPConfig, WinsServer2, 224),
        SIZE(IPConfig, 228), AT(AdapterInfo, m_hAdapter, 0), AT(AdapterInfo, m_nAdapterMedium, 8),
        AT(AdapterInfo, m_usMTU, 12), AT(AdapterInfo, m_dwAdapterState, 14),
        AT(AdapterInfo, m_PermanentAddress, 18), AT(AdapterInfo, m_CurrentAddress, 24),
        AT(AdapterInfo, m_szAdapterName, 30), SIZE(AdapterInfo, 286), AT(AdapterList, m_nAdapterCount, 0),
        AT(AdapterList, m_Adapters, 4), SIZE(AdapterList, 9156),
    });
}

TEST(Layout, OfThePacket)
{
    Check({
        AT(FilterPacket, m_InjectLink, 104), AT(FilterPacket, m_nProtocol, 172),
        AT(FilterPacket, m_pEthernet, 176), AT(FilterPacket, m_pArp, 184), AT(FilterPacket, m_pIp, 192),
        AT(FilterPacket, m_pTcp, 200), AT(FilterPacket, m_pUdp, 208), AT(FilterPacket, m_pIcmp, 216),
        AT(FilterPacket, m_pDhcp, 224), AT(FilterPacket, m_pDns, 232), AT(FilterPacket, m_InjectOrigin, 240),
        AT(FilterPacket, m_hInjectFilter, 256), AT(FilterPacket, m_pfReleaseCallback, 264),
        AT(FilterPacket, m_pReleaseContext, 280), AT(FilterPacket, m_pOutgoingNdisPacket, 624),
        AT(FilterPacket, m_pIncomingNdisPacket, 656), AT(FilterPacket, m_bDirty, 672),
        AT(FilterPacket, m_nBytesRead, 676), AT(FilterPacket, m_hAdapter, 680),
        AT(FilterPacket, m_nDirection, 688), AT(FilterPacket, m_nPacketSize, 692),
        AT(FilterPacket, m_nCarried, 696), AT(FilterPacket, m_nIndicateCode, 704),
        AT(FilterPacket, m_nIndicateValue, 712), AT(FilterPacket, m_ApplicationData, 720),
        WIDTH(FilterPacket, m_ApplicationData, 128), AT(FilterPacket, m_Data, 848),
        WIDTH(FilterPacket, m_Data, 1648), SIZE(FilterPacket, 2496),
    });
}

// The binding record is the size, two words and nineteen functions; each place is part of the contract.
TEST(Layout, OfTheBindingRecord)
{
    Check({
        AT(NdisHookAPI, m_Size, 0), AT(NdisHookAPI, m_Flags, 4), AT(NdisHookAPI, m_MajorVersion, 8),
        AT(NdisHookAPI, m_MinorVersion, 10), AT(NdisHookAPI, Filter_AdapterOpened, 16),
        AT(NdisHookAPI, Filter_AdapterStatusChanged, 24), AT(NdisHookAPI, Filter_AdapterClosed, 32),
        AT(NdisHookAPI, Filter_FilterReceivedPacket, 40), AT(NdisHookAPI, Filter_FilterSendPacket, 48),
        AT(NdisHookAPI, Hook_GetOsVersion, 56), AT(NdisHookAPI, Hook_HandleIoControl, 64),
        AT(NdisHookAPI, Hook_AllocatePacket, 72), AT(NdisHookAPI, Hook_FreePacket, 80),
        AT(NdisHookAPI, Hook_InjectPacketToAdapter, 88), AT(NdisHookAPI, Hook_InjectPacketToProtocol, 96),
        AT(NdisHookAPI, Hook_AllocateRequest, 104), AT(NdisHookAPI, Hook_MakeNdisRequest, 112),
        AT(NdisHookAPI, Hook_FreeRequest, 120), AT(NdisHookAPI, Hook_SetAdapterStatus, 128),
        AT(NdisHookAPI, Hook_GetAdapterStatus, 136), AT(NdisHookAPI, Hook_GetTcpIpBoundAdapters, 144),
        AT(NdisHookAPI, Hook_MmMapLockedPages, 152), AT(NdisHookAPI, Hook_MmUnmapLockedPages, 160),
        SIZE(NdisHookAPI, 168),
    });
}

TEST(Layout, OfTheRecordsOfAClientDriver)
{
    Check({
        AT(FilterLock, m_SpinLock, 0), WIDTH(FilterLock, m_SpinLock, 8), AT(FilterLock, m_OldIrql, 8),
        WIDTH(FilterLock, m_OldIrql, 1), SIZE(STRING, 16), AT(STRING, Buffer, 8), SIZE(FILTER_STATUS, 4),
        SIZE(FILTER_RESULT, 4), SIZE(FILTER_TYPE, 4), SIZE(FILTER_ORDER, 4), SIZE(FILTER_METHOD, 4),
    });
    EXPECT_LT(FILTER_STATUS{-1}, 0);
    EXPECT_GT(static_cast<FILTER_RESULT>(-1), 0u);
    EXPECT_LT(FILTER_TYPE{-1}, 0);
    EXPECT_LT(FILTER_ORDER{-1}, 0);
}

TEST(Layout, OfEventRecordsAndTags)
{
    Check({
        SIZE(FilterEventRecord, 1056), AT(FilterEventRecord, m_Event, 16),
        CODE(FILTER_ADAPTER_TAG, 0x41444150), CODE(FILTER_DRIVER_TAG, 0x54414731),
        CODE(EVENT_HANDLER_TAG, 0x54414732), CODE(PACKET_FILTER_TAG, 0x54414733),
        CODE(FILTER_INTERFACE_TAG, 0x54414734), CODE(INTERFACE_REFERENCE_TAG, 0x54414735),
        CODE(FILTER_MEMORY_TAG, 0x54414737), CODE(FILTER_TIMER_TAG, 0x54414738),
        CODE(IOCTRL_HANDLER_TAG, 0x54414739), CODE(IF_EVENT_HANDLER_TAG, 0x54414741),
        CODE(POOL_TAG_DRIVER, 0x4144664E), CODE(POOL_TAG_FILTER, 0x4146664E),
        CODE(POOL_TAG_EVENT, 0x54414736), CODE(POOL_TAG_MAPPED, 0x4D70614D),
    });
}

TEST(Layout, ControlCodes)
{
    Check({
        CODE(IOCTL_NDIS_FILTER_DIAG, 0x80002008), CODE(IOCTL_NDIS_FILTER_GET_VERSION, 0x80002320),
        CODE(IOCTL_NDIS_FILTER_START_SHARE, 0x80002324), CODE(IOCTL_NDIS_FILTER_STOP_SHARE, 0x80002328),
        CODE(IOCTL_NDIS_FILTER_READ_SHARE, 0x8000232C), CODE(IOCTL_NDIS_FILTER_WRITE_SHARE, 0x80002330),
        CODE(IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES, 0x80002334),
        CODE(IOCTL_NDIS_FILTER_GET_EVENT, 0x80002338), CODE(IOCTL_NDIS_FILTER_CLEAR_EVENT, 0x8000233C),
        CODE(IOCTL_NDIS_FILTER_START_ETHRLOG, 0x80002340), CODE(IOCTL_NDIS_FILTER_STOP_ETHRLOG, 0x80002344),
        CODE(IOCTL_NDIS_FILTER_SET_IPCONFIG, 0x80002348), CODE(IOCTL_NDIS_FILTER_GET_IPCONFIG, 0x8000234C),
        CODE(IOCTL_NDIS_FILTER_SET_MEDIA_STATUS, 0x80002350),
        CODE(IOCTL_NDIS_FILTER_GET_MEDIA_STATUS, 0x80002354), CODE(IOCTL_NDIS_FILTER_GET_DBGFLAG, 0x80002358),
        CODE(IOCTL_NDIS_FILTER_SET_PACKET_DUMP, 0x8000235C),
        CODE(IOCTL_NDIS_FILTER_GET_PACKET_DUMP, 0x80002360), CODE(IOCTL_NDIS_FILTER_GET_ADAPTER, 0x80002364),
        CODE(IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE, 0x80002368),
        CODE(IOCTL_NDIS_FILTER_DUMP_DEVICE_EXTENSION, 0x80002378),
        CODE(IOCTL_NDIS_FILTER_SET_CONGESTION_CONTROL, 0x8000237C),
        CODE(IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK, 0x80002400),
        CODE(IOCTL_NDIS_FILTER_INTERNAL_UNBIND_NDIS_HOOK, 0x80002404),
    });
}

// clang-format on

} // namespace
