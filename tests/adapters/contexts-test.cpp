// Context slots of adapters, the event handlers of client drivers, and how handlers of both kinds come and go.
#include "support/adapter-test.h"

using namespace support;
using testing::ElementsAre;

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
    PVOID value = nullptr;
    EXPECT_EQ(set(first, &noAdapter, kSlots, 13), FILTER_ERROR_INVALID_ADAPTER_HANDLE);
    EXPECT_EQ(set(first, adapter, kSlots, 13), FILTER_ERROR_INVALID_ADAPTER_CONTEXT);
    EXPECT_EQ(Release(first, ~0u), FILTER_ERROR_INVALID_ADAPTER_CONTEXT);
    EXPECT_EQ(Filter_GetAdapterContext(adapter, kSlots, &value), FILTER_ERROR_INVALID_ADAPTER_CONTEXT);
}

// ---------------------------------------------------------------------------------------------------- events

struct Seen {
    FilterDriver* driver;
    PVOID driverContext;
    ULONG event;
    PVOID eventContext;
    FilterAdapter* adapter;
    bool operator==(const Seen&) const = default;
};

std::vector<Seen> g_seen;

VOID Record(FilterDriver* driver, PVOID driverContext, ULONG event, PVOID eventContext,
            FilterAdapter* adapter)
{
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    g_seen.push_back({driver, driverContext, event, eventContext, adapter});
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
    EXPECT_TRUE(Filter_IsValidEventHandler(handlers[0]));
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
        all.push_back({second.Handle(), Value(2), event, nullptr, adapter});
        all.push_back({first.Handle(), Value(1), event, Value(3), adapter});
    }
    EXPECT_EQ(g_seen, all);

    g_seen.clear();
    EXPECT_EQ(Filter_DeregisterEventHandler(second.Handle(), handlers[0]), FILTER_STATUS_SUCCESS);
    Filter_EnumOpenedAdapter();
    EXPECT_THAT(g_seen,
                ElementsAre(Seen{first.Handle(), Value(1), FILTER_EVENT_ADAPTER_OPENED, Value(3), adapter}));
}

// One of the two registries of handlers.
template <class Handler, class Procedure>
struct Registry {
    FILTER_STATUS (*add)(FilterDriver*, Procedure, PVOID, Handler**);
    FILTER_STATUS (*remove)(FilterDriver*, Handler*);
    BOOLEAN (*isValid)(Handler*);
    Procedure procedure; // counts in g_calls
    std::function<void()> call;
    std::string name, tag; // of its handles
    FILTER_STATUS isKnown, notFound;
};

int g_calls;

template <class Handler, class Procedure>
void ExpectOneADriver(const Registry<Handler, Procedure>& registry, machine::DebugCapture& debug)
{
    const auto calls = [&] {
        g_calls = 0;
        registry.call();
        return g_calls;
    };
    TestDriver first("first");
    Handler* handle = nullptr;
    const auto add = [&] { return registry.add(first.Handle(), registry.procedure, nullptr, &handle); };
    ASSERT_EQ(add(), FILTER_STATUS_SUCCESS);
    EXPECT_TRUE(registry.isValid(handle));
    Handler* const own = handle;
    EXPECT_EQ(add(), registry.isKnown);
    EXPECT_EQ(handle, own);
    uint8_t forged[64] = {};
    registry.tag.copy(reinterpret_cast<char*>(forged) + 16, 4);
    EXPECT_EQ(registry.remove(first.Handle(), reinterpret_cast<Handler*>(forged)), registry.notFound);
    EXPECT_EQ(calls(), 1);
    debug.Take();
    EXPECT_EQ(registry.remove(first.Handle(), handle), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(calls(), 0);

    // It goes with its driver, too; the handle it leaves is refused.
    ASSERT_EQ(add(), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(first.Deregister(), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(calls(), 0);
    EXPECT_FALSE(registry.isValid(handle));
    EXPECT_FALSE(registry.isValid(nullptr));
    EXPECT_TRUE(debug.Contains("Filter_IsValid" + registry.name +
                               ": Invalid Handle 0x0000000000000000, bad tag 0xffffffff\n"));
}

TEST_F(HandlersTest, OneADriverUntilItIsRemovedOrItsDriverGoes)
{
    AddAdapter();
    ExpectOneADriver<EventHandler, FILTER_EVENT_PROC>(
        {Filter_RegisterEventHandler, Filter_DeregisterEventHandler, Filter_IsValidEventHandler,
         [](auto...) { ++g_calls; }, Filter_EnumOpenedAdapter, "EventHandler", "2GAT",
         FILTER_ERROR_EVENT_HANDLER_ALREADY_REGISTERED, FILTER_ERROR_EVENT_HANDLER_NOT_FOUND},
        Debug());
    ExpectOneADriver<IoCtrlHandler, FILTER_IOCTRL_PROC>(
        {Filter_RegisterIoControl, Filter_DeregisterIoControl, Filter_IsValidIoCtrlHandler,
         [](auto...) -> NTSTATUS { return ++g_calls; },
         [] { machine::Process().Open(kDeviceName)->Control(0x80003000, {}, {}); }, "IoCtrlHandler", "9GAT",
         FILTER_ERROR_IOCTL_HANDLER_ALREADY_REGISTERED, FILTER_ERROR_IOCTL_HANDLER_NOT_FOUND},
        Debug());
    EXPECT_TRUE(Debug().Contains("Enter Filter_DeregisterIoControlr\n  Error: 0 - FILTER_STATUS_SUCCESS\n"
                                 "Leave Filter_DeregisterIoControl, 0-FILTER_STATUS_SUCCESS\n"));
}

} // namespace
