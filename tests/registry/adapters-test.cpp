// The adapter table, identifiers, lookups and the hook driver's adapter callbacks.
#include "support/framework.h"

#include <atomic>
#include <set>
#include <thread>

using namespace support;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

constexpr uint32_t kTraceAdapter = 0x1;
constexpr uint32_t kTraceHook = 0x2;
constexpr uint32_t kMediaConnect = 0x4001000B;
constexpr uint32_t kMediaDisconnect = 0x4001000C;

MacAddress Mac(uint8_t last)
{
    return {0x02, 0, 0, 0, 0, last};
}

// The adapters that an enumeration reports, at most `limit` of them.
std::vector<FilterAdapter*> Enumerate(size_t limit = 100)
{
    static std::vector<FilterAdapter*> adapters;
    adapters.clear();
    const auto note = [](PVOID most, FilterAdapter* adapter) -> BOOLEAN {
        EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
        adapters.push_back(adapter);
        return adapters.size() < *static_cast<size_t*>(most);
    };
    const TestDriver driver;
    EXPECT_EQ(Filter_EnumAdapter(driver.Handle(), note, &limit), FILTER_STATUS_SUCCESS);
    return adapters;
}

using AdaptersTest = Loaded<WithTrace, kTraceAdapter>;
using UnboundAdaptersTest = Loaded<NotBound, kTraceHook>;

struct HandBoundAdaptersTest : Loaded<FrameworkOnly, 0, DeviceTest> {
    NdisHookAPI BindBy(HOOK_GET_TCPIP_BOUND_ADAPTERS getAdapters)
    {
        NdisHookAPI record = HookRecord();
        record.Hook_GetTcpIpBoundAdapters = getAdapters;
        EXPECT_EQ(Exchange(*device_, IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK, record).status,
                  STATUS_SUCCESS);
        return record;
    }
    void TearDown() override
    {
        NdisHookAPI record = HookRecord();
        EXPECT_EQ(Exchange(*device_, IOCTL_NDIS_FILTER_INTERNAL_UNBIND_NDIS_HOOK, record).status,
                  STATUS_SUCCESS);
        DeviceTest::TearDown();
    }
};

TEST_F(UnboundAdaptersTest, AreListedFromTheBindingOnUntilTheyClose)
{
    FilterAdapter* first = AddAdapter("{1} one", Mac(1));
    FilterAdapter* second = AddAdapter("{2} two", Mac(2));
    FilterAdapter* unlisted = hook::AddAdapter({.name = "{3}", .address = Mac(3), .boundToTcpIp = false});
    EXPECT_FALSE(Filter_IsValidAdapter(first));
    EXPECT_EQ(Filter_GetFirstAdapter(), nullptr);
    EXPECT_THAT(Enumerate(), IsEmpty());

    ASSERT_EQ(hook::Bind(), STATUS_SUCCESS);
    hook::OpenAdapter(unlisted);
    for (FilterAdapter* adapter : {first, second, unlisted}) {
        EXPECT_TRUE(Filter_IsValidAdapter(adapter));
    }
    EXPECT_EQ(Filter_GetFirstAdapter(), first);
    EXPECT_THAT(Enumerate(), ElementsAre(first, second));
    EXPECT_THAT(Enumerate(1), ElementsAre(first));
    ULONG id = 0;
    ASSERT_EQ(Filter_AdapterToId(first, &id), FILTER_STATUS_SUCCESS);

    // A closed one keeps its identifier, and its handle passes the check.
    hook::CloseAdapter(first);
    EXPECT_THAT(Enumerate(), ElementsAre(second));
    EXPECT_EQ(Filter_GetFirstAdapter(), second);
    EXPECT_TRUE(Filter_IsValidAdapter(first));
    FilterAdapter* found = nullptr;
    EXPECT_EQ(Filter_IdToAdapter(id, &found), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(found, first);
    EXPECT_EQ(Filter_FindAdapterByMacAddress(Mac(1).data(), &found), FILTER_ERROR_ADAPTER_NOT_FOUND);
}

TEST_F(HandBoundAdaptersTest, MoreThanThirtyTwoAreReadAsThirtyTwo)
{
    BindBy([](PVOID list) {
        static FilterAdapter adapter;
        auto* table = static_cast<AdapterList*>(list);
        for (AdapterInfo& info : table->m_Adapters) {
            info.m_hAdapter = &adapter;
        }
        table->m_nAdapterCount = 40;
    });
    EXPECT_EQ(Enumerate().size(), 32u);
}

TEST_F(HandBoundAdaptersTest, CallbacksSurviveFaultsOfTheHookDriver)
{
    const std::string fault = ": exception, code = -1073741819\n";
    NdisHookAPI record = BindBy([](PVOID) { FaultOnRead(); });
    EXPECT_TRUE(Debug().Contains("NdisFilter_AdapterOpened" + fault));
    Debug().Take();
    Filter_EnumOpenedAdapter();
    EXPECT_EQ(Debug().Take(), "NdisFilter_AdapterOpened" + fault);

    record = BindBy([](PVOID) {});
    Debug().Take();
    EXPECT_EQ(record.Filter_AdapterOpened(nullptr), 0u);
    EXPECT_EQ(record.Filter_AdapterStatusChanged(nullptr, static_cast<NDIS_STATUS>(kMediaConnect)), 0u);
    EXPECT_EQ(record.Filter_AdapterClosed(nullptr), 0u);
    for (const FILTER_RECEIVED_PACKET take :
         {record.Filter_FilterReceivedPacket, record.Filter_FilterSendPacket}) {
        take(nullptr);
        EXPECT_EQ(Debug().Take(), "");
        take(Unreadable<FilterPacket>());
        EXPECT_THAT(Debug().Take(), testing::StartsWith("Filter_InitPacketHeader" + fault));
    }
    EXPECT_EQ(record.Filter_AdapterOpened(Unwritable<FilterAdapter>()), 0u);
    EXPECT_EQ(record.Filter_AdapterClosed(Unwritable<FilterAdapter>()), 0u);
    EXPECT_EQ(Debug().Take(), "NdisFilter_AdapterOpened" + fault + "NdisFilter_AdapterClosed" + fault);
    ExpectNoLockHeld("faulting adapters");
}

TEST_F(UnboundAdaptersTest, ACallbackNamesItsAdapterAndAnUnknownStatus)
{
    ASSERT_EQ(hook::Bind(), STATUS_SUCCESS);
    Debug().Take();
    FilterAdapter* adapter = AddAdapter("{1} one");
    EXPECT_EQ(Debug().Take(),
              "Enter NdisFilter_AdapterOpened\nAdapterName={1} one\nLeave NdisFilter_AdapterOpened\n");
    for (const uint32_t status : {kMediaConnect, kMediaDisconnect, 0x40010017u}) {
        hook::IndicateStatus(adapter, status);
        EXPECT_EQ(Debug().Take(),
                  "Enter NdisFilter_AdapterStatusChanged\nAdapterName={1} one\n" +
                      std::string(status == 0x40010017 ? "Unknown adapter status 0x40010017\n" : "") +
                      "Leave NdisFilter_AdapterStatusChanged\n");
    }
}

TEST_F(AdaptersTest, IdentifiersAreIssuedFromOneInTheOrderOfAsking)
{
    int dummies[NDIS_FILTER_MAX_ADAPTERS + 1]; // what is no adapter gets an identifier all the same
    const auto handle = [&](ULONG i) { return reinterpret_cast<FilterAdapter*>(&dummies[i]); };
    ULONG id = 0;
    for (ULONG i = 0; i < NDIS_FILTER_MAX_ADAPTERS; i++) {
        ASSERT_EQ(Filter_AdapterToId(handle(i), &id), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(id, i + 1);
    }
    EXPECT_EQ(Filter_AdapterToId(handle(NDIS_FILTER_MAX_ADAPTERS), &id), FILTER_ERROR_INTERNAL_ERROR);
    EXPECT_EQ(id, 32u);
    FilterAdapter* found = nullptr;
    EXPECT_EQ(Filter_IdToAdapter(32, &found), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(found, handle(31));
}

TEST_F(UnboundAdaptersTest, IdentifiersAreTheSameForAllWhoAskAtOnce)
{
    constexpr ULONG kHandles = 32;
    for (int round = 0; round < 10; round++) {
        int dummies[kHandles];
        std::vector<ULONG> ids[2];
        std::atomic<ULONG> arrived = 0; // spun on, as sleepers would wake one after the other
        const auto ask = [&](std::vector<ULONG>& mine) {
            mine.resize(kHandles);
            for (ULONG i = 0; i < kHandles; i++) {
                arrived++;
                while (arrived < 2 * (i + 1)) {
                }
                Filter_AdapterToId(reinterpret_cast<FilterAdapter*>(&dummies[i]), &mine[i]);
            }
        };
        std::thread other(ask, std::ref(ids[1]));
        ask(ids[0]);
        other.join();
        EXPECT_EQ(ids[1], ids[0]);
        EXPECT_EQ(std::set<ULONG>(ids[0].begin(), ids[0].end()).size(), kHandles);
        StopHook();
        StopFramework();
        ASSERT_EQ(LoadFramework(), STATUS_SUCCESS); // with no identifiers issued
    }
}

TEST_F(AdaptersTest, AreFoundByTheirCurrentMacAddressAndTheBeginningOfTheirName)
{
    const std::string whole(255, 'n');
    FilterAdapter* first =
        hook::AddAdapter({.name = "{AB-1} one", .address = Mac(1), .permanentAddress = Mac(9)});
    hook::OpenAdapter(first);
    FilterAdapter* second = AddAdapter("{AB-2} two", Mac(2));
    FilterAdapter* longest = AddAdapter(whole, Mac(2)); // the second's address
    const auto expect = [](const std::string& what, FilterAdapter* expected, const auto& find) {
        FilterAdapter* found = nullptr;
        EXPECT_EQ(find(&found), expected != nullptr ? FILTER_STATUS_SUCCESS : FILTER_ERROR_ADAPTER_NOT_FOUND)
            << what;
        EXPECT_EQ(found, expected) << what;
    };
    const std::pair<uint8_t, FilterAdapter*> addresses[] = {{1, first}, {2, second}, {9, nullptr}};
    for (const auto& [last, expected] : addresses) {
        expect("address " + std::to_string(last), expected, [mac = Mac(last)](FilterAdapter** found) {
            return Filter_FindAdapterByMacAddress(mac.data(), found);
        });
    }
    const std::pair<std::string, FilterAdapter*> names[] = {
        {"{AB-2}", second},  {"{AB-1} one", first},  {"{AB-", first},
        {"{ab-1}", nullptr}, {"AB-1", nullptr},      {"{AB-1} one more", nullptr},
        {whole, longest},    {whole + "n", nullptr}, {whole + whole, nullptr}};
    for (const auto& [name, expected] : names) {
        expect(name, expected, [&name = name](FilterAdapter** found) {
            return Filter_FindAdapterByNetCfgInstanceId(name.c_str(), found);
        });
    }
    FilterAdapter* found = nullptr;
    EXPECT_EQ(Filter_FindAdapterByNetCfgInstanceId("", &found), FILTER_ERROR_INVALID_ARGUMENT);
    Debug().Take();
    EXPECT_EQ(Filter_FindAdapterByNetCfgInstanceId("{AB-2}", &found), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Debug().Take(),
              "Enter Filter_FindAdapterByNetCfgInstanceId\nFind Filter_FindAdapterByNetCfgInstanceId\n"
              "Leave Filter_FindAdapterByNetCfgInstanceId, 0-FILTER_STATUS_SUCCESS\n");
}

} // namespace
