// Context slots of adapters, and the event handlers of client drivers.
#include "support/framework.h"

#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace support;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

constexpr uint32_t kMediaConnect = 0x4001000B;
constexpr uint32_t kMediaDisconnect = 0x4001000C;
constexpr ULONG kSlots = FILTER_ADAPTER_CONTEXT_COUNT;

class ContextsTest : public FrameworkTest
{
  protected:
    void SetUp() override
    {
        FrameworkTest::SetUp();
        adapter_ = AddAdapter();
    }

    PVOID ContextIn(ULONG index, FilterAdapter* adapter = nullptr)
    {
        PVOID value = this;
        EXPECT_EQ(Filter_GetAdapterContext(adapter != nullptr ? adapter : adapter_, index, &value),
                  FILTER_STATUS_SUCCESS);
        return value;
    }

    FilterAdapter* adapter_ = nullptr;
};

class AdapterEventsTest : public ContextsTest
{};

PVOID Value(uintptr_t number)
{
    return reinterpret_cast<PVOID>(number);
}

ULONG Acquire(const TestDriver& driver)
{
    ULONG index = 99;
    EXPECT_EQ(Filter_AcquireAdapterContext(driver.Handle(), &index), FILTER_STATUS_SUCCESS);
    return index;
}

TEST_F(ContextsTest, ADriverGetsTheLowestFreeSlotAndOnlyOne)
{
    std::vector<std::unique_ptr<TestDriver>> drivers;
    for (ULONG i = 0; i <= kSlots; i++) {
        drivers.push_back(std::make_unique<TestDriver>("driver " + std::to_string(i)));
    }
    for (ULONG i = 0; i < kSlots; i++) {
        EXPECT_EQ(Acquire(*drivers[i]), i);
        EXPECT_EQ(Acquire(*drivers[i]), i);
    }
    ULONG index = 99;
    EXPECT_EQ(Filter_AcquireAdapterContext(drivers[kSlots]->Handle(), &index),
              FILTER_ERROR_NO_FREE_ADAPTER_CONTEXT);
    EXPECT_EQ(index, 99u);
    // A driver that has gone without releasing keeps its slot.
    drivers[5].reset();
    EXPECT_EQ(Filter_AcquireAdapterContext(drivers[kSlots]->Handle(), &index),
              FILTER_ERROR_NO_FREE_ADAPTER_CONTEXT);
    EXPECT_EQ(Filter_ReleaseAdapterContext(drivers[9]->Handle(), 9), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_ReleaseAdapterContext(drivers[3]->Handle(), 3), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Acquire(*drivers[kSlots]), 3u);
    EXPECT_EQ(Acquire(*drivers[3]), 9u);
    // Its own slot comes before a lower one that is free.
    EXPECT_EQ(Filter_ReleaseAdapterContext(drivers[0]->Handle(), 0), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Acquire(*drivers[3]), 9u);
}

TEST_F(ContextsTest, ValuesStayForTheNextOwnerAndAreReadByAnybody)
{
    const TestDriver first("first");
    const TestDriver second("second");
    FilterAdapter* other = AddAdapter("{2}", kPeerMac);
    const ULONG index = Acquire(first);
    EXPECT_EQ(ContextIn(index), nullptr);
    EXPECT_EQ(Filter_SetAdapterContext(first.Handle(), adapter_, index, Value(11)), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_SetAdapterContext(first.Handle(), other, index, Value(12)), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(ContextIn(index), Value(11));
    EXPECT_EQ(ContextIn(index, other), Value(12));

    EXPECT_EQ(Filter_SetAdapterContext(second.Handle(), adapter_, index, Value(13)),
              FILTER_ERROR_INVALID_CONTEXT_OWNER);
    EXPECT_EQ(Filter_ReleaseAdapterContext(second.Handle(), index), FILTER_ERROR_INVALID_CONTEXT_OWNER);
    EXPECT_EQ(Filter_ReleaseAdapterContext(first.Handle(), index), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_ReleaseAdapterContext(first.Handle(), index), FILTER_ERROR_INVALID_CONTEXT_OWNER);
    EXPECT_EQ(Acquire(second), index);
    EXPECT_EQ(ContextIn(index), Value(11));
    EXPECT_EQ(ContextIn(index, other), Value(12));
    EXPECT_EQ(ContextIn(kSlots - 1), nullptr);
}

TEST_F(ContextsTest, HandlesAreCheckedBeforeIndexesAndIndexesBeforeOwners)
{
    const TestDriver driver;
    FilterAdapter noAdapter = {};
    PVOID value = nullptr;
    const auto set = [&](FilterAdapter* adapter, ULONG slot) {
        return Filter_SetAdapterContext(driver.Handle(), adapter, slot, nullptr);
    };
    EXPECT_EQ(set(&noAdapter, kSlots), FILTER_ERROR_INVALID_ADAPTER_HANDLE);
    EXPECT_EQ(set(adapter_, kSlots), FILTER_ERROR_INVALID_ADAPTER_CONTEXT);
    EXPECT_EQ(set(adapter_, 0), FILTER_ERROR_INVALID_CONTEXT_OWNER);
    EXPECT_EQ(Filter_GetAdapterContext(adapter_, kSlots, &value), FILTER_ERROR_INVALID_ADAPTER_CONTEXT);
    EXPECT_EQ(Filter_ReleaseAdapterContext(driver.Handle(), ~0u), FILTER_ERROR_INVALID_ADAPTER_CONTEXT);
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

VOID Ignore(FilterDriver*, PVOID, ULONG, PVOID, FilterAdapter*) {}

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
    hook::CloseAdapter(added);

    const std::pair<ULONG, FilterAdapter*> expected[] = {{FILTER_EVENT_ADAPTER_OPENED, adapter_},
                                                         {FILTER_EVENT_ADAPTER_OPENED, added},
                                                         {FILTER_EVENT_MEDIA_DISCONNECT, added},
                                                         {FILTER_EVENT_MEDIA_CONNECT, added},
                                                         {FILTER_EVENT_ADAPTER_CLOSED, added}};
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
                ElementsAre(Seen{first.Handle(), Value(1), FILTER_EVENT_ADAPTER_OPENED, Value(3), adapter_}));
}

TEST_F(AdapterEventsTest, OneHandlerADriverAndOnlyItsOwnerRemovesIt)
{
    TestDriver first("first");
    const TestDriver second("second");
    EventHandler* handler = nullptr;
    EventHandler* unused = nullptr;
    ASSERT_EQ(Filter_RegisterEventHandler(first.Handle(), Record, nullptr, &handler), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_RegisterEventHandler(first.Handle(), Ignore, nullptr, &unused),
              FILTER_ERROR_EVENT_HANDLER_ALREADY_REGISTERED);
    EXPECT_EQ(unused, nullptr);

    uint8_t forged[64] = {};
    memcpy(forged + 16, "2GAT", 4);
    EXPECT_EQ(Filter_DeregisterEventHandler(first.Handle(), reinterpret_cast<EventHandler*>(forged)),
              FILTER_ERROR_EVENT_HANDLER_NOT_FOUND);
    EXPECT_EQ(Filter_DeregisterEventHandler(second.Handle(), handler),
              FILTER_ERROR_INVALID_EVENT_HANDLER_OWNER);
    g_seen.clear();
    Filter_EnumOpenedAdapter();
    EXPECT_EQ(g_seen.size(), 1u);

    // It goes with its driver; the handle it leaves is refused.
    EXPECT_EQ(first.Deregister(), FILTER_STATUS_SUCCESS);
    g_seen.clear();
    Filter_EnumOpenedAdapter();
    EXPECT_THAT(g_seen, IsEmpty());
    EXPECT_FALSE(Filter_IsValidEventHandler(handler));
    Debug().Take();
    EXPECT_FALSE(Filter_IsValidEventHandler(nullptr));
    EXPECT_EQ(Debug().Take(),
              "Filter_IsValidEventHandler: Invalid Handle 0x0000000000000000, bad tag 0xffffffff\n");
}

TEST_F(AdapterEventsTest, WithoutMemoryARegistrationSucceedsAndStoresNothing)
{
    const TestDriver driver;
    EventHandler* handler = nullptr;
    machine::FailCall(machine::Fault::Pool, 1);
    EXPECT_EQ(Filter_RegisterEventHandler(driver.Handle(), Record, nullptr, &handler), FILTER_STATUS_SUCCESS);
    EXPECT_TRUE(machine::FaultHit(machine::Fault::Pool));
    EXPECT_EQ(handler, nullptr);
    g_seen.clear();
    Filter_EnumOpenedAdapter();
    EXPECT_THAT(g_seen, IsEmpty());
    EXPECT_EQ(Filter_RegisterEventHandler(driver.Handle(), Record, nullptr, &handler), FILTER_STATUS_SUCCESS);
    EXPECT_NE(handler, nullptr);
}

TEST_F(AdapterEventsTest, HandlersComeAndGoWhileEventsAreDelivered)
{
    const TestDriver driver;
    const TestDriver steady("steady");
    EventHandler* counted = nullptr;
    const auto count = [](FilterDriver*, PVOID, ULONG, PVOID context, FilterAdapter*) {
        ++*static_cast<int*>(context);
    };
    int events = 0;
    ASSERT_EQ(Filter_RegisterEventHandler(steady.Handle(), count, &events, &counted), FILTER_STATUS_SUCCESS);
    std::thread raiser([&] {
        for (int i = 0; i < 500; i++) {
            hook::IndicateStatus(adapter_, i % 2 == 0 ? kMediaDisconnect : kMediaConnect);
        }
    });
    for (int i = 0; i < 500; i++) {
        EventHandler* handler = nullptr;
        auto own = std::make_unique<int>(0); // freed at once when the handler has been removed
        ASSERT_EQ(Filter_RegisterEventHandler(driver.Handle(), count, own.get(), &handler),
                  FILTER_STATUS_SUCCESS);
        ASSERT_EQ(Filter_DeregisterEventHandler(driver.Handle(), handler), FILTER_STATUS_SUCCESS);
    }
    raiser.join();
    EXPECT_EQ(events, 500);
}

} // namespace
