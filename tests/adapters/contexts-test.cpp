// Context slots of adapters, the event handlers of client drivers, and how handlers of both kinds come and go.
#include "support/adapter-test.h"

#include <tuple>

using namespace support;

namespace
{

constexpr uint32_t kMediaConnect = 0x4001000B;
constexpr uint32_t kMediaDisconnect = 0x4001000C;
constexpr ULONG kSlots = FILTER_ADAPTER_CONTEXT_COUNT;

struct ContextsTest : AdapterTest {
    PVOID ContextIn(ULONG index, FilterAdapter* other = nullptr)
    {
        PVOID value = this;
        EXPECT_EQ(Filter_GetAdapterContext(other != nullptr ? other : adapter, index, &value),
                  FILTER_STATUS_SUCCESS);
        return value;
    }
};

using AdapterEventsTest = ContextsTest;

using HandlersTest = Loaded<WithTrace, 0x80>;

PVOID Value(uintptr_t number)
{
    return reinterpret_cast<PVOID>(number);
}

// The slot's index, or the status that there is none.
LONG Acquire(const TestDriver& driver)
{
    ULONG index = 99;
    const FILTER_STATUS status = Filter_AcquireAdapterContext(driver.Handle(), &index);
    EXPECT_EQ(index == 99, status != FILTER_STATUS_SUCCESS);
    return status != FILTER_STATUS_SUCCESS ? status : static_cast<LONG>(index);
}

FILTER_STATUS Release(const TestDriver& driver, ULONG index)
{
    return Filter_ReleaseAdapterContext(driver.Handle(), index);
}

TEST_F(ContextsTest, ADriverGetsTheLowestFreeSlotAndOnlyOne)
{
    std::vector<std::unique_ptr<TestDriver>> drivers;
    for (ULONG i = 0; i <= kSlots; i++) {
        drivers.push_back(std::make_unique<TestDriver>("driver " + std::to_string(i)));
        const LONG expected = i < kSlots ? static_cast<LONG>(i) : FILTER_ERROR_NO_FREE_ADAPTER_CONTEXT;
        EXPECT_EQ(Acquire(*drivers[i]), expected);
        EXPECT_EQ(Acquire(*drivers[i]), expected);
    }
    drivers[5].reset(); // one that has gone without releasing keeps its slot
    EXPECT_EQ(Acquire(*drivers[kSlots]), FILTER_ERROR_NO_FREE_ADAPTER_CONTEXT);
    EXPECT_EQ(Release(*drivers[9], 9), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Release(*drivers[3], 3), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Acquire(*drivers[kSlots]), 3);
    EXPECT_EQ(Acquire(*drivers[3]), 9);
    // Its own slot comes before a lower one that is free.
    EXPECT_EQ(Release(*drivers[0], 0), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Acquire(*drivers[3]), 9);
}

TEST_F(ContextsTest, ValuesStayForTheNextOwnerAndAreReadByAnybody)
{
    const TestDriver first("first");
    const TestDriver second("second");
    FilterAdapter* other = AddAdapter("{2}", kPeerMac);
    const auto set = [](const TestDriver& driver, FilterAdapter* adapter, ULONG slot, uintptr_t value) {
        return Filter_SetAdapterContext(driver.Handle(), adapter, slot, Value(value));
    };
    EXPECT_EQ(Acquire(first), 0);
    EXPECT_EQ(ContextIn(0), nullptr);
    EXPECT_EQ(set(first, adapter, 0, 11), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(set(first, other, 0, 12), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(set(second, adapter, 0, 13), FILTER_ERROR_INVALID_CONTEXT_OWNER);
    EXPECT_EQ(Release(second, 0), FILTER_ERROR_INVALID_CONTEXT_OWNER);
    EXPECT_EQ(Release(first, 0), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Release(first, 0), FILTER_ERROR_INVALID_CONTEXT_OWNER);
    EXPECT_EQ(Acquire(second), 0);
    EXPECT_EQ(ContextIn(0), Value(11));
    EXPECT_EQ(ContextIn(0, other), Value(12));
    EXPECT_EQ(ContextIn(kSlots - 1), nullptr);

    // Handles are checked before indexes, and indexes before owners.
    FilterAdapter noAdapter = {};
    EXPECT_EQ(set(first, &noAdapter, kSlots, 13), FILTER_ERROR_INVALID_ADAPTER_HANDLE);
    EXPECT_EQ(set(first, adapter, kSlots, 13), FILTER_ERROR_INVALID_ADAPTER_CONTEXT);
}

// ---------------------------------------------------------------------------------------------------- events

// Driver, its context, the event, the handler's context, adapter.
using Seen = std::tuple<FilterDriver*, PVOID, ULONG, PVOID, FilterAdapter*>;
std::vector<Seen> g_seen;

VOID Record(FilterDriver* driver, PVOID driverContext, ULONG event, PVOID eventContext,
            FilterAdapter* adapter)
{
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    g_seen.emplace_back(driver, driverContext, event, eventContext, adapter);
}

TEST_F(AdapterEventsTest, ReachAllHandlersInTheOrderOfRegistration)
{
    const TestDriver first("first", Value(1));
    const TestDriver second("second", Value(2));
    EventHandler* handlers[2] = {};
    ASSERT_EQ(Filter_RegisterEventHandler(second.Handle(), Record, nullptr, &handlers[0]),
              FILTER_STATUS_SUCCESS);
    ASSERT_EQ(Filter_RegisterEventHandler(first.Handle(), Record, Value(3), &handlers[1]),
              FILTER_STATUS_SUCCESS);
    g_seen.clear();
    Filter_EnumOpenedAdapter();
    FilterAdapter* added = AddAdapter("{2}", kPeerMac);
    hook::IndicateStatus(added, kMediaDisconnect);
    hook::IndicateStatus(added, kMediaConnect);
    hook::IndicateStatus(added, 0x40010017);
    IPConfig config = {};
    config.hAdapter = added;
    config.m_nReserved = 1;
    EXPECT_EQ(Filter_SetIPConfig(&config), FILTER_STATUS_SUCCESS);
    hook::CloseAdapter(added);

    const std::pair<ULONG, FilterAdapter*> expected[] = {{0, adapter}, {0, added}, {2, added},
                                                         {1, added},   {4, added}, {3, added}};
    std::vector<Seen> all;
    for (const auto& [event, adapter] : expected) {
        all.emplace_back(second.Handle(), Value(2), event, nullptr, adapter);
        all.emplace_back(first.Handle(), Value(1), event, Value(3), adapter);
    }
    EXPECT_EQ(g_seen, all);
}

// Of either kind of handlers. One that is only made up has the right tag, and is in no list.
template <class Handler, class Procedure>
void ExpectOneADriver(FILTER_STATUS (*registerOne)(FilterDriver*, Procedure, PVOID, Handler**),
                      FILTER_STATUS (*deregister)(FilterDriver*, Handler*), Procedure procedure,
                      FILTER_STATUS isKnown, const std::string& tag, FILTER_STATUS notFound)
{
    const TestDriver driver;
    Handler *handle = nullptr, *second = nullptr;
    ASSERT_EQ(registerOne(driver.Handle(), procedure, nullptr, &handle), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(registerOne(driver.Handle(), procedure, nullptr, &second), isKnown);
    EXPECT_EQ(second, nullptr);
    uint8_t forged[64] = {};
    tag.copy(reinterpret_cast<char*>(forged) + 16, 4);
    EXPECT_EQ(deregister(driver.Handle(), reinterpret_cast<Handler*>(forged)), notFound);
    EXPECT_EQ(deregister(driver.Handle(), handle), FILTER_STATUS_SUCCESS);
}

TEST_F(HandlersTest, OneADriver)
{
    const std::string null = ": Invalid Handle 0x0000000000000000, bad tag 0xffffffff\n";
    ExpectOneADriver<EventHandler, FILTER_EVENT_PROC>(
        Filter_RegisterEventHandler, Filter_DeregisterEventHandler, [](auto...) {},
        FILTER_ERROR_EVENT_HANDLER_ALREADY_REGISTERED, "2GAT", FILTER_ERROR_EVENT_HANDLER_NOT_FOUND);
    Filter_IsValidEventHandler(nullptr);
    EXPECT_TRUE(Debug().Contains("Filter_IsValidEventHandler" + null));
    ExpectOneADriver<IoCtrlHandler, FILTER_IOCTRL_PROC>(
        Filter_RegisterIoControl, Filter_DeregisterIoControl, Filter_DefaultIoCtrlHandler,
        FILTER_ERROR_IOCTL_HANDLER_ALREADY_REGISTERED, "9GAT", FILTER_ERROR_IOCTL_HANDLER_NOT_FOUND);
    EXPECT_TRUE(Debug().Contains("Enter Filter_DeregisterIoControlr\n  Error: 0 - FILTER_STATUS_SUCCESS\n"
                                 "Leave Filter_DeregisterIoControl, 0-FILTER_STATUS_SUCCESS\n"));
    Filter_IsValidIoCtrlHandler(nullptr);
    EXPECT_TRUE(Debug().Contains("Filter_IsValidIoCtrlHandler" + null));
}

} // namespace
