// What client drivers read from an adapter and set in it, and its IP configuration.
#include "support/framework.h"

#include <cstring>

using namespace support;
using testing::Each;
using testing::HasSubstr;
using testing::Not;

namespace
{

constexpr uint32_t kTraceAdapter = 0x1;
constexpr MacAddress kPermanentMac = {0x02, 0, 0, 0, 0, 0x99};
constexpr MacAddress kPppMac = {0xAA, 0x0B, 0xCC, 0xDD, 0xEE, 0x0F};

struct PropertiesTest : Loaded<WithTrace, kTraceAdapter> {
    void SetUp() override
    {
        FrameworkTest::SetUp();
        adapter_ = hook::AddAdapter({.name = "{1} one",
                                     .address = kOwnMac,
                                     .permanentAddress = kPermanentMac,
                                     .mtu = 1492,
                                     .medium = 3,
                                     .ndisWan = true,
                                     .connected = false});
        hook::OpenAdapter(adapter_);
        Debug().Take();
    }

    FilterAdapter* adapter_ = nullptr;
    FilterAdapter noAdapter_ = {};
};

using IpConfigTest = PropertiesTest;

TEST_F(PropertiesTest, AreReadAsTheHookDriverKeepsThem)
{
    MacAddress mac = {};
    ULONG word = 99;
    BOOLEAN wan = FALSE;
    EXPECT_EQ(Filter_GetAdapterCurrentAddress(adapter_, mac.data()), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(mac, kOwnMac);
    EXPECT_EQ(Filter_GetAdapterPermentAddress(adapter_, mac.data()), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(mac, kPermanentMac);
    EXPECT_EQ(Filter_GetAdapterMediumType(adapter_, &word), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(word, 3u);
    EXPECT_EQ(Filter_IsNdisWanAdapter(adapter_, &wan), FILTER_STATUS_SUCCESS);
    EXPECT_TRUE(wan);
    Debug().Take();
    EXPECT_EQ(Filter_GetAdapterMediaState(adapter_, &word), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(word, hook::MediaState(adapter_));
    EXPECT_EQ(Debug().Take(), "Enter Filter_GetAdapterState\n"
                              "Leave Filter_GetAdapterMediaState, 0-FILTER_STATUS_SUCCESS\n");
    EXPECT_EQ(Filter_SetAdapterCongestionControl(adapter_, 7), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(adapter_->m_bCongestionControl, 7);
    EXPECT_EQ(Filter_GetAdapterCurrentAddress(&noAdapter_, mac.data()), FILTER_ERROR_INVALID_ADAPTER_HANDLE);
}

TEST_F(PropertiesTest, TheMtuIsReadWithChecksAndLinesOfItsOwn)
{
    USHORT mtu = 0;
    const auto expect = [&](FilterAdapter* adapter, PUSHORT output, FILTER_STATUS status, const char* end) {
        EXPECT_EQ(Filter_GetAdapterMtu(adapter, output), status);
        EXPECT_THAT(Debug().Take(), testing::EndsWith(std::string("Leave Filter_GetAdapterMtu, ") + end));
    };
    expect(adapter_, &mtu, FILTER_STATUS_SUCCESS, "1492\n");
    EXPECT_EQ(mtu, 1492);
    expect(nullptr, nullptr, FILTER_ERROR_INVALID_ADAPTER_HANDLE, "Invalid adapter\n");
    expect(adapter_, nullptr, FILTER_ERROR_INVALID_ARGUMENT, "Invalid argument\n");
}

TEST_F(PropertiesTest, TheNameIsACopyThatTheCallerFrees)
{
    UNICODE_STRING* name = nullptr;
    ASSERT_EQ(Filter_GetAdapterName(adapter_, &name), FILTER_STATUS_SUCCESS);
    ASSERT_NE(name, nullptr);
    constexpr char16_t expected[] = u"{1} one";
    EXPECT_EQ(name->Length, sizeof(expected) - 2);
    EXPECT_EQ(name->MaximumLength, sizeof(expected));
    EXPECT_EQ(reinterpret_cast<uint8_t*>(name->Buffer), reinterpret_cast<uint8_t*>(name) + 16);
    EXPECT_EQ(memcmp(name->Buffer, expected, sizeof(expected)), 0);
    EXPECT_EQ(Filter_FreeMemory(name), FILTER_STATUS_SUCCESS);
}

TEST_F(PropertiesTest, PppAddressesAreZeroUntilSet)
{
    const struct {
        FILTER_STATUS (*get)(FilterAdapter*, UCHAR*);
        FILTER_STATUS (*set)(FilterAdapter*, const UCHAR*);
        MacAddress address;
        const char* line;
    } kinds[] = {{Filter_GetAdapterPPPSrcMacAddress, Filter_SetAdapterPPPSrcMacAddress, kPppMac,
                  "Set PPPSrcMacAddress = aa-0b-cc-dd-ee-0f\n"},
                 {Filter_GetAdapterPPPDstMacAddress, Filter_SetAdapterPPPDstMacAddress, kPeerMac,
                  "Set PPPDstMacAddress = 02-00-00-00-00-02\n"}};
    for (const auto& kind : kinds) {
        MacAddress mac = kOwnMac;
        EXPECT_EQ(kind.get(adapter_, mac.data()), FILTER_ERROR_ADAPTER_NOT_OPEN) << kind.line;
        EXPECT_THAT(mac, Each(0));
        Debug().Take();
        EXPECT_EQ(kind.set(adapter_, kind.address.data()), FILTER_STATUS_SUCCESS);
        EXPECT_THAT(Debug().Take(), HasSubstr(kind.line));
        EXPECT_EQ(kind.get(adapter_, mac.data()), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(mac, kind.address);
    }
}

struct AnsweringHookTest : Loaded<FrameworkOnly, 0, DeviceTest> {
    static inline NTSTATUS answer;
};

TEST_F(AnsweringHookTest, TwoStatusesOfTheHookDriverAreFailures)
{
    NdisHookAPI record = HookRecord();
    record.Hook_SetAdapterStatus = [](const UCHAR*, ULONG) { return answer; };
    record.Hook_GetAdapterStatus = [](const UCHAR*, PVOID) -> NTSTATUS {
        FaultOnRead();
        return STATUS_SUCCESS;
    };
    ASSERT_EQ(Exchange(*device_, IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK, record).status, STATUS_SUCCESS);
    for (const auto& [status, expected] :
         std::vector<std::pair<uint32_t, FILTER_STATUS>>{{0, FILTER_STATUS_SUCCESS},
                                                         {0xC0010006, FILTER_ERROR_ADAPTER_NOT_FOUND},
                                                         {0xC000009A, FILTER_ERROR_OUT_OF_MEMORY},
                                                         {0xC0000001, FILTER_STATUS_SUCCESS}}) {
        answer = static_cast<NTSTATUS>(status);
        EXPECT_EQ(Filter_SetAdapterMediaStateByMac(kOwnMac.data(), 1), expected) << std::hex << status;
    }
    Debug().Take();
    UCHAR state = 0;
    EXPECT_EQ(Filter_GetAdapterMediaStateByMac(kOwnMac.data(), &state), FILTER_ERROR_EXCEPTION);
    EXPECT_EQ(Debug().Take(), "Hook_GetAdapterStatus: exception, code = -1073741819\n");
    EXPECT_EQ(Exchange(*device_, IOCTL_NDIS_FILTER_INTERNAL_UNBIND_NDIS_HOOK, record).status, STATUS_SUCCESS);
    AdapterList list;
    EXPECT_THAT((std::vector{Filter_GetTcpIpBoundAdapters(&list),
                             Filter_GetAdapterMediaStateByMac(kOwnMac.data(), &state),
                             Filter_SetAdapterMediaStateByMac(kOwnMac.data(), 0)}),
                Each(FILTER_ERROR_INTERFACE_NOT_ACTIVE));
}

// ------------------------------------------------------------------------------------------ IP configuration

constexpr ULONG Ip(ULONG a, ULONG b, ULONG c, ULONG d)
{
    return a | b << 8 | c << 16 | d << 24;
}

IPConfig TwoAddresses(FilterAdapter* adapter)
{
    return {adapter,
            42,
            2,
            {{Ip(192, 168, 1, 7), Ip(255, 255, 255, 0), 0},
             {Ip(10, 1, 2, 3), Ip(255, 0, 0, 0), 0},
             {Ip(9, 9, 9, 9), Ip(255, 0, 0, 0), 77}},
            1,
            {Ip(192, 168, 1, 1)}, // router
            1,
            {Ip(192, 168, 1, 2)}, // DHCP
            1,
            {Ip(8, 8, 4, 4)}, // DNS
            Ip(1, 1, 1, 1),
            Ip(2, 2, 2, 2)};
}

TEST_F(IpConfigTest, AChangeIsReportedOnceAndBroadcastsAreComputed)
{
    const TestDriver driver;
    EventHandler* handler = nullptr;
    int changes = 0;
    const auto count = [](FilterDriver*, PVOID, ULONG, PVOID context, FilterAdapter*) {
        ++*static_cast<int*>(context);
    };
    ASSERT_EQ(Filter_RegisterEventHandler(driver.Handle(), count, &changes, &handler), FILTER_STATUS_SUCCESS);
    IPConfig config = TwoAddresses(adapter_);
    EXPECT_EQ(Filter_SetIPConfig(&config), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(config.m_Address[0].Broadcast, Ip(192, 168, 1, 255));
    EXPECT_EQ(config.m_Address[1].Broadcast, Ip(10, 255, 255, 255));
    EXPECT_EQ(config.m_Address[2].Broadcast, 77u);
    EXPECT_EQ(changes, 1);

    Debug().Take();
    config.m_Address[0].Broadcast = 12345; // is replaced before the comparison
    EXPECT_EQ(Filter_SetIPConfig(&config), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Debug().Take(), "Enter Filter_SetIPConfig\nNo IP Address change, ignore\n"
                              "Leave Filter_SetIPConfig, 0-FILTER_STATUS_SUCCESS\n");
    EXPECT_EQ(changes, 1);
    config.m_nReserved++; // carried and compared
    EXPECT_EQ(Filter_SetIPConfig(&config), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(changes, 2);

    IPConfig read = {};
    IPConfig* const own = Filter_GetIPConfig(adapter_, &read);
    EXPECT_EQ(own, &adapter_->m_IPConfig);
    EXPECT_EQ(memcmp(&read, &config, sizeof(read)), 0);
    EXPECT_EQ(Filter_GetIPConfig(adapter_, nullptr), own);
    EXPECT_EQ(Filter_SetIPConfig(own), FILTER_STATUS_SUCCESS); // in place: nothing changes
    EXPECT_EQ(changes, 2);

    config.hAdapter = &noAdapter_;
    EXPECT_EQ(Filter_SetIPConfig(&config), FILTER_ERROR_INVALID_ADAPTER_HANDLE);
    Debug().Take();
    EXPECT_EQ(Filter_GetIPConfig(&noAdapter_, &read), nullptr);
    EXPECT_THAT(Debug().Take(), testing::EndsWith("Leave Filter_GetIPConfig, Invalid adapter\n"));
}

TEST_F(IpConfigTest, IsPrintedLineByLine)
{
    IPConfig config = TwoAddresses(adapter_);
    config.m_nIP = 1;
    EXPECT_EQ(Filter_SetIPConfig(&config), FILTER_STATUS_SUCCESS);
    Debug().Take();
    IPConfig* const own = Filter_GetIPConfig(adapter_, nullptr);
    EXPECT_EQ(Debug().Take(), "Enter Filter_GetIPConfig\n- hAdapter = " + PointerText(adapter_) + R"(
- m_nIP    = 1
- IpAddress[0] = 192.168.1.7
- Netmask[0]   = 255.255.255.0
- Broadcast[0] = 192.168.1.255
- m_nGW    = 1
- RouterAddr[0] = 192.168.1.1
- m_nDHCP  = 1
- DhcpServer[0] = 192.168.1.2
- m_nDNS   = 1
- DnsServer[0]  = 8.8.4.4
- WinsServer1 = 1.1.1.1
- WinsServer2 = 1.1.1.1
Leave Filter_GetIPConfig, )" + PointerText(own) +
                                  "\n");
}

// Counts above eight reach into the fields behind, and end with the record.
TEST_F(IpConfigTest, HugeCountsStayInsideTheRecord)
{
    const auto config = std::make_unique<IPConfig>(TwoAddresses(adapter_));
    for (const ULONG count : {9u, 17u, 18u, 1000u, 0xFFFFFFFFu}) {
        *config = TwoAddresses(adapter_);
        config->m_nIP = config->m_nGW = config->m_nDHCP = config->m_nDNS = count;
        const Bytes behind(adapter_->m_HookReserved2, adapter_->m_HookReserved2 + 12);
        Debug().Take();
        EXPECT_EQ(Filter_SetIPConfig(config.get()), FILTER_STATUS_SUCCESS) << count;
        EXPECT_EQ(config->m_nIP, count);
        // The ninth triple lies at the count and the first routers: its broadcast is the second router.
        EXPECT_EQ(config->RouterAddr[1], SubnetBroadcastAddress(count, Ip(192, 168, 1, 1))) << count;
        EXPECT_EQ(memcmp(&adapter_->m_IPConfig, config.get(), sizeof(*config)), 0) << count;
        EXPECT_EQ(Bytes(adapter_->m_HookReserved2, adapter_->m_HookReserved2 + 12), behind) << count;
        const std::string text = Debug().Take();
        EXPECT_EQ(text.find("- Netmask[17]   = 2.2.2.2\n") != std::string::npos, count >= 18) << count;
        EXPECT_EQ(text.find("- RouterAddr[27] = 2.2.2.2\n") != std::string::npos, count > 27) << count;
        for (const char* outside :
             {"- Broadcast[17]", "- RouterAddr[28]", "- DhcpServer[19]", "- DnsServer[10]"}) {
            EXPECT_THAT(text, Not(HasSubstr(outside)));
        }
    }
}

} // namespace
