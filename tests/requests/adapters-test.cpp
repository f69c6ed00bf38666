// Requests about adapters: named by identifier or MAC address, never by handle.
#include "requests.h"

#include <cstring>

using namespace requests;
using namespace support;
using testing::Each;

namespace
{

struct AdapterRequestsTest : RequestsTest {
    void SetUp() override
    {
        RequestsTest::SetUp();
        first = AddAdapter("{A} first", kOwnMac);
        second = AddAdapter("{B} second", kPeerMac);
        Debug().Take();
    }
    size_t List(UserAdapterList& list, machine::Status status = STATUS_SUCCESS)
    {
        std::memset(&list, 0xEE, sizeof(list));
        return Returned(IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES, {}, Out(list), status);
    }

    FilterAdapter* first = nullptr;
    FilterAdapter* second = nullptr;
};

TEST_F(AdapterRequestsTest, TheListNamesAdaptersByIdentifier)
{
    EXPECT_EQ(IdOf(second), 1u);
    UserAdapterList list;
    EXPECT_EQ(List(list), 9028u);
    ASSERT_EQ(+list.m_nAdapterCount, 2u);
    EXPECT_EQ(+list.m_Adapters[0].m_nAdapterId, 2u);
    const UserAdapterInfo& info = list.m_Adapters[1];
    EXPECT_EQ(+info.m_nAdapterId, 1u);
    EXPECT_STREQ(info.m_szAdapterName, "{B} second");
    EXPECT_EQ(+info.m_usMTU, 1500u);
    EXPECT_EQ(std::memcmp(info.m_CurrentAddress, kPeerMac.data(), 6), 0);
    EXPECT_THAT(std::span(reinterpret_cast<uint8_t*>(&list.m_Adapters[2]), 30 * sizeof(UserAdapterInfo)),
                Each(0));

    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES, {}, Out(list).first(9027)),
              STATUS_BUFFER_TOO_SMALL);
    machine::FailCall(machine::Fault::Pool, 1);
    EXPECT_EQ(List(list, STATUS_NO_MEMORY), 0u);
    EXPECT_TRUE(Debug().Contains("    call ExAllocatePool func failure.\n"));
    // It fails with the first adapter that gets no identifier.
    UseUpIds();
    ASSERT_NE(AddAdapter("{C} third", {2, 0, 0, 0, 0, 3}), nullptr);
    EXPECT_EQ(List(list, STATUS_INTERNAL_ERROR), 9028u);
    EXPECT_TRUE(Debug().Contains("    call Filter_AdapterToId func failure.\n"));
    ASSERT_EQ(hook::Unbind(), STATUS_SUCCESS);
    EXPECT_EQ(List(list, STATUS_INTERNAL_ERROR), 0u);
}

using ForeignHookTest = Loaded<FrameworkOnly, 0, RequestsTest>;

TEST_F(ForeignHookTest, WhatAHookDriverAnswersIsTakenForNoMoreThanItIs)
{
    static FilterAdapter adapter = {};
    NdisHookAPI record = HookRecord();
    record.Hook_GetTcpIpBoundAdapters = [](PVOID buffer) {
        auto* list = static_cast<AdapterList*>(buffer);
        list->m_nAdapterCount = 1000;
        for (AdapterInfo& info : list->m_Adapters) {
            info.m_hAdapter = &adapter;
        }
    };
    record.Hook_GetAdapterStatus = [](const UCHAR* address, PVOID state) -> NTSTATUS {
        if (address[0] == 0) {
            *static_cast<PULONG>(state) = 0x11223344;
        }
        return STATUS_UNSUCCESSFUL; // counts as success
    };
    // The program writes into the memory as soon as it is mapped.
    static ULONG value;
    record.Hook_MmMapLockedPages = [](PMDL mdl, ULONG given, MappedMemory* mapped) {
        value = given;
        auto* address = static_cast<uint64_t*>(MmMapLockedPages(mdl, UserMode));
        mapped->m_pUserModeVirtualAddress = reinterpret_cast<uint64_t>(address);
        *address = 0x1234;
    };
    ASSERT_EQ(Exchange(*device_, IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK, record).status, STATUS_SUCCESS);
    Debug().Take();
    UserAdapterList list;
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES, {}, Out(list)), STATUS_SUCCESS);
    EXPECT_EQ(Debug().Take(), "  IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES\n"); // whatever the mask
    EXPECT_EQ(+list.m_nAdapterCount, 32u);
    EXPECT_EQ(+list.m_Adapters[31].m_nAdapterId, 1u);
    Bytes state(7, 0xEE);
    EXPECT_EQ(Control(IOCTL_NDIS_FILTER_GET_MEDIA_STATUS, Counting(7), state).information, 7u);
    EXPECT_EQ(state, (Bytes{0, 1, 2, 3, 4, 5, 0x44}));
    EXPECT_EQ(Control(IOCTL_NDIS_FILTER_GET_MEDIA_STATUS, Counting(7, 1), state).information, 7u);
    EXPECT_EQ(state, Counting(7, 1));

    uint64_t share = 0;
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_START_SHARE, Bytes{0x78, 0x56, 0x34, 0x12}, Out(share)),
              STATUS_SUCCESS);
    EXPECT_EQ(value, 0x12345678u);
    const uint64_t mapping = share - NDIS_FILTER_SHARE_FAILED;
    ASSERT_NE(mapping, 0x1234u);
    EXPECT_EQ(*reinterpret_cast<uint64_t*>(mapping), mapping);
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_STOP_SHARE, {}), STATUS_SUCCESS);
    ASSERT_EQ(Exchange(*device_, IOCTL_NDIS_FILTER_INTERNAL_UNBIND_NDIS_HOOK, record).status, STATUS_SUCCESS);
}

TEST_F(AdapterRequestsTest, AnIpConfigurationIsSetAndGotByIdentifier)
{
    UserIPConfig config = {};
    config.m_nAdapterId = IdOf(second);
    config.m_nReserved = 77;
    config.m_nIP = 1;
    config.m_Address[0] = {0x0100A8C0, 0x00FFFFFF, 0x12345678};
    config.WinsServer2 = 0x0A0A0A0A;
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_SET_IPCONFIG, In(config)), STATUS_SUCCESS);
    EXPECT_EQ(second->m_IPConfig.hAdapter, second);
    EXPECT_EQ(second->m_IPConfig.m_nReserved, 77u);

    UserIPConfig got;
    EXPECT_EQ(Returned(IOCTL_NDIS_FILTER_GET_IPCONFIG, In(config.m_nAdapterId), Out(got)), 224u);
    config.m_Address[0].Broadcast = 0xFF00A8C0;
    EXPECT_EQ(std::memcmp(&got, &config, sizeof(got)), 0);
    // Of an adapter that never had one, too: its record does not name the adapter.
    const uint32_t id = IdOf(first);
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_GET_IPCONFIG, In(id), Out(got)), STATUS_SUCCESS);
    EXPECT_EQ(+got.m_nAdapterId, id);
    EXPECT_EQ(+got.m_nIP, 0u);

    // Only the output's length is looked at where it gets one; input that is missing reads as zero, which names nobody.
    Debug().Take();
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_GET_IPCONFIG, {}, Out(got)), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(Debug().Contains("    Input Buffer adapter argument error\n"));
    config.m_nAdapterId = 99;
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_SET_IPCONFIG, In(config)), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_SET_IPCONFIG, In(config).first(223)), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_GET_IPCONFIG, In(config), Out(got).first(223)),
              STATUS_BUFFER_TOO_SMALL);
    for (const uint32_t code : {IOCTL_NDIS_FILTER_SET_IPCONFIG, IOCTL_NDIS_FILTER_GET_IPCONFIG}) {
        machine::FailCall(machine::Fault::Pool, 1);
        EXPECT_EQ(StatusOf(code, In(config), Out(got)), STATUS_NO_MEMORY);
    }
    // An identifier may belong to what is no adapter, or to one that has closed: its record may be gone.
    FilterAdapter none = {};
    none.m_Tag = FILTER_ADAPTER_TAG;
    hook::CloseAdapter(second);
    second->m_IPConfig = {};
    for (FilterAdapter* adapter : {&none, second}) {
        config.m_nAdapterId = IdOf(adapter);
        EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_SET_IPCONFIG, In(config)), NDIS_STATUS_ADAPTER_NOT_FOUND);
        EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_GET_IPCONFIG, In(config), Out(got)),
                  NDIS_STATUS_ADAPTER_NOT_FOUND);
        EXPECT_EQ(adapter->m_IPConfig.m_nIP, 0u);
    }
}

TEST_F(AdapterRequestsTest, MediaStateAndPacketDumpAreNamedByMacAddress)
{
    UserMacValue value = {};
    std::memcpy(value.m_MacAddress, kPeerMac.data(), 6);
    UserMacValue got;
    value.m_nValue = 1;
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_SET_MEDIA_STATUS, In(value)), STATUS_SUCCESS);
    EXPECT_TRUE(Debug().Contains("  IOCTL_NDIS_FILTER_SET_IPCONFIG\n")); // by another's name
    EXPECT_EQ(hook::MediaState(second), 1u);
    EXPECT_EQ(Returned(IOCTL_NDIS_FILTER_GET_MEDIA_STATUS, In(value), Out(got)), 7u);
    EXPECT_EQ(std::memcmp(&got, &value, 7), 0);

    value.m_nValue = 5;
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_SET_PACKET_DUMP, In(value)), STATUS_SUCCESS);
    EXPECT_EQ(second->m_bPacketDump, 5);
    EXPECT_EQ(first->m_bPacketDump, 0);
    value.m_nValue = 0;
    EXPECT_EQ(Returned(IOCTL_NDIS_FILTER_GET_PACKET_DUMP, In(value), Out(got)), 7u);
    EXPECT_EQ(+got.m_nValue, 5);

    Bytes wide(10);
    EXPECT_EQ(Returned(IOCTL_NDIS_FILTER_GET_ADAPTER, In(value).first(6), wide), 10u);
    EXPECT_EQ(wide, (Bytes{2, 0, 0, 0, 0, 2, 1, 0, 0, 0}));

    // Too short, which side first, and nobody's address.
    value.m_MacAddress[0] = 0xFF;
    for (const uint32_t code : {IOCTL_NDIS_FILTER_SET_MEDIA_STATUS, IOCTL_NDIS_FILTER_GET_MEDIA_STATUS,
                                IOCTL_NDIS_FILTER_SET_PACKET_DUMP, IOCTL_NDIS_FILTER_GET_PACKET_DUMP}) {
        Debug().Take();
        EXPECT_EQ(StatusOf(code, In(value).first(6), Out(got).first(6)), STATUS_BUFFER_TOO_SMALL);
        EXPECT_TRUE(Debug().Contains("    Input Buffer Length are too small\n"));
        EXPECT_EQ(Returned(code, In(value), Out(got), NDIS_STATUS_ADAPTER_NOT_FOUND), 0u);
    }
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_GET_MEDIA_STATUS, In(value), Out(got).first(6)),
              STATUS_BUFFER_TOO_SMALL);
    EXPECT_TRUE(Debug().Contains("    Output Buffer Length are too small\n"));
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_GET_ADAPTER, {}, wide), STATUS_INTERNAL_ERROR);
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_GET_ADAPTER, In(value), std::span(wide).first(9)),
              STATUS_BUFFER_TOO_SMALL);
    UseUpIds();
    ASSERT_NE(AddAdapter("{C} third", {2, 0, 0, 0, 0, 3}), nullptr);
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_GET_ADAPTER, Bytes{2, 0, 0, 0, 0, 3}, wide), STATUS_INTERNAL_ERROR);
    EXPECT_TRUE(Debug().Contains("    call Filter_AdapterToId func failure.\n"));
}

} // namespace
