// Requests about adapters: named by identifier or MAC address, never by handle.
#include "requests.h"

using namespace requests;
using namespace support;
using testing::Each;
using testing::HasSubstr;

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
    Result List(UserAdapterList& list)
    {
        std::memset(&list, 0xEE, sizeof(list));
        return Control(IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES, {}, Out(list));
    }

    FilterAdapter* first = nullptr;
    FilterAdapter* second = nullptr;
};

TEST_F(AdapterRequestsTest, TheListNamesAdaptersByIdentifier)
{
    EXPECT_EQ(IdOf(second), 1u);
    UserAdapterList list;
    const Result result = List(list);
    EXPECT_EQ(result.status, STATUS_SUCCESS);
    EXPECT_EQ(result.information, 9028u);
    ASSERT_EQ(+list.m_nAdapterCount, 2u);
    EXPECT_EQ(+list.m_Adapters[0].m_nAdapterId, 2u);
    EXPECT_EQ(+list.m_Adapters[1].m_nAdapterId, 1u);
    EXPECT_STREQ(list.m_Adapters[1].m_szAdapterName, "{B} second");
    EXPECT_EQ(+list.m_Adapters[1].m_usMTU, 1500u);
    EXPECT_EQ(std::memcmp(list.m_Adapters[1].m_CurrentAddress, kPeerMac.data(), 6), 0);
    EXPECT_THAT(std::span(reinterpret_cast<uint8_t*>(&list.m_Adapters[2]), 30 * sizeof(UserAdapterInfo)),
                Each(0));

    Bytes small(9027);
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES, {}, small), kBufferTooSmall);
    machine::FailCall(machine::Fault::Pool, 1);
    EXPECT_EQ(List(list).status, kNoResources);
    EXPECT_TRUE(Debug().Contains("    call ExAllocatePool func failure.\n"));
}

TEST_F(AdapterRequestsTest, TheListFailsWithTheFirstAdapterThatGetsNoIdentifier)
{
    IdOf(first);
    UseUpIds();
    UserAdapterList list;
    const Result result = List(list);
    EXPECT_EQ(result.status, kInternalError);
    EXPECT_EQ(result.information, 9028u);
    EXPECT_TRUE(Debug().Contains("    call Filter_AdapterToId func failure.\n"));
    ASSERT_EQ(hook::Unbind(), STATUS_SUCCESS);
    EXPECT_EQ(List(list).status, kInternalError);
    EXPECT_EQ(List(list).information, 0u);
}

struct ForeignHookTest : RequestsTest {
    ForeignHookTest() : RequestsTest(FrameworkOnly()) {}
};

TEST_F(ForeignHookTest, ACountBeyondTheListIsCutAndAStateWiderThanAByteToo)
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
    record.Hook_GetAdapterStatus = [](const UCHAR*, PVOID state) -> NTSTATUS {
        *static_cast<PULONG>(state) = 0x11223344;
        return STATUS_SUCCESS;
    };
    ASSERT_EQ(Exchange(*device_, IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK, record).status, STATUS_SUCCESS);
    Debug().Take();
    UserAdapterList list;
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES, {}, Out(list)), STATUS_SUCCESS);
    EXPECT_EQ(Debug().Take(), "  IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES\n"); // whatever the mask
    EXPECT_EQ(+list.m_nAdapterCount, 32u);
    EXPECT_EQ(+list.m_Adapters[31].m_nAdapterId, 1u);
    Bytes value(7, 0xEE);
    EXPECT_EQ(Control(IOCTL_NDIS_FILTER_GET_MEDIA_STATUS, Counting(7), value).information, 7u);
    EXPECT_EQ(value, (Bytes{0, 1, 2, 3, 4, 5, 0x44}));
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
    const Result result = Control(IOCTL_NDIS_FILTER_GET_IPCONFIG, In(config.m_nAdapterId), Out(got));
    EXPECT_EQ(result.status, STATUS_SUCCESS);
    EXPECT_EQ(result.information, 224u);
    config.m_Address[0].Broadcast = 0xFF00A8C0;
    EXPECT_EQ(std::memcmp(&got, &config, sizeof(got)), 0);
    // Of an adapter that never had one, too: its record does not name the adapter.
    const uint32_t id = IdOf(first);
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_GET_IPCONFIG, In(id), Out(got)), STATUS_SUCCESS);
    EXPECT_EQ(+got.m_nAdapterId, id);
    EXPECT_EQ(+got.m_nIP, 0u);

    // Only the output's length is looked at where it gets one; input that is missing reads as zero, which names nobody.
    Debug().Take();
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_GET_IPCONFIG, {}, Out(got)), kInvalidParameter);
    EXPECT_TRUE(Debug().Contains("    Input Buffer adapter argument error\n"));
    config.m_nAdapterId = 99;
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_SET_IPCONFIG, In(config)), kInvalidParameter);
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_SET_IPCONFIG, In(config).first(223)), kBufferTooSmall);
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_GET_IPCONFIG, In(config), Out(got).first(223)), kBufferTooSmall);
    // An identifier may belong to what is no adapter.
    FilterAdapter none = {};
    config.m_nAdapterId = IdOf(&none);
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_SET_IPCONFIG, In(config)), kAdapterNotFound);
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_GET_IPCONFIG, In(config), Out(got)), kAdapterNotFound);
    for (const uint32_t code : {IOCTL_NDIS_FILTER_SET_IPCONFIG, IOCTL_NDIS_FILTER_GET_IPCONFIG}) {
        machine::FailCall(machine::Fault::Pool, 1);
        EXPECT_EQ(StatusOf(code, In(config), Out(got)), kNoResources);
    }
}

TEST_F(AdapterRequestsTest, MediaStateAndPacketDumpAreNamedByMacAddress)
{
    UserMacValue value = {};
    std::memcpy(value.m_MacAddress, kPeerMac.data(), 6);
    UserMacValue got;
    value.m_nValue = 1;
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_SET_MEDIA_STATUS, In(value)), STATUS_SUCCESS);
    EXPECT_THAT(Debug().Take(), HasSubstr("  IOCTL_NDIS_FILTER_SET_IPCONFIG\n")); // by another's name
    EXPECT_EQ(hook::MediaState(second), 1u);
    Result result = Control(IOCTL_NDIS_FILTER_GET_MEDIA_STATUS, In(value), Out(got));
    EXPECT_EQ(result.information, 7u);
    EXPECT_EQ(std::memcmp(&got, &value, 7), 0);

    value.m_nValue = 5;
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_SET_PACKET_DUMP, In(value)), STATUS_SUCCESS);
    EXPECT_EQ(second->m_bPacketDump, 5);
    EXPECT_EQ(first->m_bPacketDump, 0);
    value.m_nValue = 0;
    result = Control(IOCTL_NDIS_FILTER_GET_PACKET_DUMP, In(value), Out(got));
    EXPECT_EQ(result.information, 7u);
    EXPECT_EQ(+got.m_nValue, 5);

    Bytes wide(10);
    result = Control(IOCTL_NDIS_FILTER_GET_ADAPTER, In(value).first(6), wide);
    EXPECT_EQ(result.information, 10u);
    EXPECT_EQ(wide, (Bytes{2, 0, 0, 0, 0, 2, 1, 0, 0, 0}));

    // Too short, which side first, and nobody's address.
    constexpr char kShortInput[] = "    Input Buffer Length are too small\n";
    value.m_MacAddress[0] = 0xFF;
    for (const uint32_t code : {IOCTL_NDIS_FILTER_SET_MEDIA_STATUS, IOCTL_NDIS_FILTER_GET_MEDIA_STATUS,
                                IOCTL_NDIS_FILTER_SET_PACKET_DUMP, IOCTL_NDIS_FILTER_GET_PACKET_DUMP}) {
        Debug().Take();
        EXPECT_EQ(StatusOf(code, In(value).first(6), Out(got).first(6)), kBufferTooSmall);
        EXPECT_TRUE(Debug().Contains(kShortInput));
        result = Control(code, In(value), Out(got));
        EXPECT_EQ(result.status, kAdapterNotFound);
        EXPECT_EQ(result.information, 0u);
    }
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_GET_MEDIA_STATUS, In(value), Out(got).first(6)), kBufferTooSmall);
    EXPECT_TRUE(Debug().Contains("    Output Buffer Length are too small\n"));
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_GET_ADAPTER, {}, wide), kInternalError);
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_GET_ADAPTER, In(value), std::span(wide).first(9)), kBufferTooSmall);
    IdOf(first);
    UseUpIds();
    FilterAdapter* third = AddAdapter("{C} third", {2, 0, 0, 0, 0, 3});
    ASSERT_NE(third, nullptr);
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_GET_ADAPTER, Bytes{2, 0, 0, 0, 0, 3}, wide), kInternalError);
    EXPECT_TRUE(Debug().Contains("    call Filter_AdapterToId func failure.\n"));
}

} // namespace
