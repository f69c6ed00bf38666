// The adapter table, identifiers, lookups and the hook driver's adapter callbacks.
#include "support/framework.h"

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace support;
using testing::ElementsAre;
using testing::HasSubstr;
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

class AdaptersTest : public FrameworkTest
{
  protected:
    AdaptersTest() : FrameworkTest(WithTrace(kTraceAdapter)) {}
};

class UnboundAdaptersTest : public FrameworkTest
{
  protected:
    UnboundAdaptersTest() : FrameworkTest(NotBound(kTraceHook)) {}
};

class HandBoundAdaptersTest : public DeviceTest
{
  protected:
    HandBoundAdaptersTest() : DeviceTest(FrameworkOnly()) {}

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

TEST_F(UnboundAdaptersTest, OpenedBeforeTheBindingAreKnownFromItOn)
{
    FilterAdapter* first = AddAdapter("{1} one", Mac(1));
    FilterAdapter* second = AddAdapter("{2} two", Mac(2));
    EXPECT_FALSE(Filter_IsValidAdapter(first));
    EXPECT_EQ(Filter_GetFirstAdapter(), nullptr);
    EXPECT_THAT(Enumerate(), IsEmpty());

    ASSERT_EQ(hook::Bind(), STATUS_SUCCESS);
    EXPECT_TRUE(Filter_IsValidAdapter(first));
    EXPECT_TRUE(Filter_IsValidAdapter(second));
    EXPECT_EQ(Filter_GetFirstAdapter(), first);
    EXPECT_THAT(Enumerate(), ElementsAre(first, second));
    EXPECT_THAT(Enumerate(1), ElementsAre(first));
}

TEST_F(AdaptersTest, LeaveTheTableWhenClosedAndStayValidHandles)
{
    FilterAdapter* first = AddAdapter("{1} one", Mac(1));
    FilterAdapter* second = AddAdapter("{2} two", Mac(2));
    hook::AdapterOptions options;
    options.name = "{3} not bound to TCP/IP";
    options.address = Mac(3);
    options.boundToTcpIp = false;
    FilterAdapter* unlisted = hook::AddAdapter(options);
    hook::OpenAdapter(unlisted);
    EXPECT_TRUE(Filter_IsValidAdapter(unlisted));
    EXPECT_THAT(Enumerate(), ElementsAre(first, second));
    ULONG id = 0;
    ASSERT_EQ(Filter_AdapterToId(first, &id), FILTER_STATUS_SUCCESS);

    hook::CloseAdapter(first);
    EXPECT_THAT(Enumerate(), ElementsAre(second));
    EXPECT_EQ(Filter_GetFirstAdapter(), second);
    EXPECT_TRUE(Filter_IsValidAdapter(first));
    FilterAdapter* found = nullptr;
    EXPECT_EQ(Filter_IdToAdapter(id, &found), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(found, first);
    EXPECT_EQ(Filter_FindAdapterByMacAddress(Mac(1).data(), &found), FILTER_ERROR_ADAPTER_NOT_FOUND);

    hook::CloseAdapter(second);
    EXPECT_EQ(Filter_GetFirstAdapter(), nullptr);
    EXPECT_THAT(Enumerate(), IsEmpty());
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
    EXPECT_EQ(Debug().Take(), "");
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
    const std::string enter = "Enter NdisFilter_AdapterStatusChanged\nAdapterName={1} one\n";
    const std::string leave = "Leave NdisFilter_AdapterStatusChanged\n";
    hook::IndicateStatus(adapter, kMediaConnect);
    EXPECT_EQ(Debug().Take(), enter + leave);
    hook::IndicateStatus(adapter, kMediaDisconnect);
    EXPECT_EQ(Debug().Take(), enter + leave);
    hook::IndicateStatus(adapter, 0x40010017);
    EXPECT_EQ(Debug().Take(), enter + "Unknown adapter status 0x40010017\n" + leave);
}

TEST_F(AdaptersTest, IdentifiersAreIssuedFromOneInTheOrderOfAsking)
{
    FilterAdapter* adapter = AddAdapter();
    int dummies[NDIS_FILTER_MAX_ADAPTERS];
    const auto handle = [&](ULONG i) { return reinterpret_cast<FilterAdapter*>(&dummies[i]); };
    ULONG id = 0;
    EXPECT_EQ(Filter_AdapterToId(adapter, &id), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(id, 1u);
    // What is no adapter gets an identifier all the same.
    for (ULONG i = 1; i < NDIS_FILTER_MAX_ADAPTERS; i++) {
        ASSERT_EQ(Filter_AdapterToId(handle(i), &id), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(id, i + 1);
    }
    id = 77;
    EXPECT_EQ(Filter_AdapterToId(handle(0), &id), FILTER_ERROR_INTERNAL_ERROR);
    EXPECT_EQ(id, 77u);
    FilterAdapter* found = nullptr;
    EXPECT_EQ(Filter_IdToAdapter(32, &found), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(found, handle(31));
    for (const ULONG unknown : {0u, 33u, 0xFFFFFFFFu}) {
        EXPECT_EQ(Filter_IdToAdapter(unknown, &found), FILTER_ERROR_INVALID_ARGUMENT) << unknown;
    }
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

TEST_F(AdaptersTest, AreFoundByTheirCurrentMacAddress)
{
    hook::AdapterOptions options;
    options.name = "{1} one";
    options.address = Mac(1);
    options.permanentAddress = Mac(9);
    FilterAdapter* first = hook::AddAdapter(options);
    hook::OpenAdapter(first);
    FilterAdapter* second = AddAdapter("{2} two", Mac(2));
    AddAdapter("{3} the same address as the second", Mac(2));

    FilterAdapter* found = nullptr;
    EXPECT_EQ(Filter_FindAdapterByMacAddress(Mac(1).data(), &found), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(found, first);
    EXPECT_EQ(Filter_FindAdapterByMacAddress(Mac(2).data(), &found), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(found, second);
    found = nullptr;
    EXPECT_EQ(Filter_FindAdapterByMacAddress(Mac(9).data(), &found), FILTER_ERROR_ADAPTER_NOT_FOUND);
    EXPECT_EQ(found, nullptr);
}

TEST_F(AdaptersTest, AreFoundByTheBeginningOfTheirName)
{
    FilterAdapter* first = AddAdapter("{AB-1} one", Mac(1));
    FilterAdapter* second = AddAdapter("{AB-2} two", Mac(2));
    const std::string whole(255, 'n');
    FilterAdapter* longest = AddAdapter(whole, Mac(3));
    struct Case {
        std::string id;
        FilterAdapter* expected;
    };
    for (const Case& search :
         {Case{"{AB-2}", second}, Case{"{AB-1} one", first}, Case{"{AB-", first}, Case{"{ab-1}", nullptr},
          Case{"AB-1", nullptr}, Case{"{AB-1} one more", nullptr}, Case{whole, longest},
          Case{whole + "n", nullptr}, Case{whole + whole, nullptr}}) {
        FilterAdapter* found = nullptr;
        EXPECT_EQ(Filter_FindAdapterByNetCfgInstanceId(search.id.c_str(), &found),
                  search.expected != nullptr ? FILTER_STATUS_SUCCESS : FILTER_ERROR_ADAPTER_NOT_FOUND)
            << search.id;
        EXPECT_EQ(found, search.expected) << search.id;
    }
    FilterAdapter* found = nullptr;
    EXPECT_EQ(Filter_FindAdapterByNetCfgInstanceId("", &found), FILTER_ERROR_INVALID_ARGUMENT);
    Debug().Take();
    EXPECT_EQ(Filter_FindAdapterByNetCfgInstanceId("{AB-2}", &found), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Debug().Take(),
              "Enter Filter_FindAdapterByNetCfgInstanceId\nFind Filter_FindAdapterByNetCfgInstanceId\n"
              "Leave Filter_FindAdapterByNetCfgInstanceId, 0-FILTER_STATUS_SUCCESS\n");
}

// A table that is rewritten while others look never shows them anything but an adapter or none.
TEST_F(AdaptersTest, MayBeLookedUpWhileTheTableIsRewritten)
{
    FilterAdapter* adapters[] = {AddAdapter("{1}", Mac(1)), AddAdapter("{2}", Mac(2)),
                                 AddAdapter("{3}", Mac(3))};
    std::thread rewriter([&] {
        for (int i = 0; i < 200; i++) {
            hook::CloseAdapter(adapters[i % 3]);
            hook::OpenAdapter(adapters[i % 3]);
        }
    });
    for (int i = 0; i < 200; i++) {
        for (FilterAdapter* adapter : Enumerate()) {
            EXPECT_TRUE(Filter_IsValidAdapter(adapter));
        }
        FilterAdapter* found = adapters[0];
        Filter_FindAdapterByMacAddress(Mac(2).data(), &found);
        EXPECT_TRUE(Filter_IsValidAdapter(found));
    }
    rewriter.join();
    EXPECT_EQ(Enumerate().size(), 3u);
}

} // namespace
