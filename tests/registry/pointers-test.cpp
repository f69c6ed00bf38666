// Every pointer argument of the registries' and the adapters' exports made to fault, and a handle null, wrong, stale or
// faulting: the answer is a status, no lock stays held, and nothing is registered or left behind.
#include "support/framework.h"

#include <cstring>

using namespace support;

namespace
{

// A pointer of whatever type is asked for.
struct Any {
    void* at;
    template <class T>
    operator T*() const
    {
        return static_cast<T*>(at);
    }
};

struct Export {
    const char* what;
    std::function<FILTER_STATUS(Any)> call;
};

const FILTER_TYPE kType = FILTER_TYPE_OUTGOING_PACKET;

FILTER_RESULT Bypass(FilterDriver*, PVOID, PacketFilter*, PVOID, FilterPacket*)
{
    return FILTER_RESULT_BYPASS;
}

BOOLEAN FaultOnAdapter(PVOID, FilterAdapter*)
{
    FaultOnRead();
    return TRUE;
}

BOOLEAN FaultOnFilter(PVOID, PacketFilter*)
{
    FaultOnDivision();
    return TRUE;
}

VOID FaultOnEvent(FilterDriver*, PVOID, ULONG event, PVOID, FilterAdapter*)
{
    if (event == FILTER_EVENT_IPCONFIG_CHANGED) {
        FaultOnRead();
    }
}

struct PointersTest : FrameworkTest {
    void SetUp() override
    {
        FrameworkTest::SetUp();
        driver_.emplace("four");
        filter_.emplace(*driver_, TestFilter::Options{.name = "four", .type = kType});
        driver = driver_->Handle();
        filter = filter_->Handle();
    }
    void TearDown() override
    {
        filter_.reset();
        driver_.reset();
        FrameworkTest::TearDown();
    }
    FILTER_STATUS RegisterFilter(FilterDriver* owner, const STRING* text, PacketFilter** handle)
    {
        return Filter_RegisterFilter(owner, text, Bypass, nullptr, kType, 0, handle);
    }

    std::optional<TestDriver> driver_;
    std::optional<TestFilter> filter_;
    FilterDriver* driver = nullptr;
    PacketFilter* filter = nullptr;
    const CountedString name{"fresh"};
    FilterDriver* driverOut = nullptr;
    PacketFilter* filterOut = nullptr;
    PVOID any = nullptr;
};

TEST_F(PointersTest, FaultsAreContained)
{
    FilterAdapter* adapter = AddAdapter();
    FilterAdapter* adapterOut = nullptr;
    ULONG word = 0;
    ASSERT_EQ(Filter_AdapterToId(adapter, &word), FILTER_STATUS_SUCCESS);
    STRING compared = {4, 4, Unreadable<char>()}; // as long as the names that are registered
    STRING copied = {5, 5, Unreadable<char>()};   // no name is as long: only the copy touches it
    FilterAdapter noName = {};
    noName.m_Tag = FILTER_ADAPTER_TAG;
    noName.m_AdapterName = {8, 8, Unreadable<WCHAR>()};
    UNICODE_STRING* adapterName = nullptr;
    const TestDriver listener("listener");
    EventHandler* handler = nullptr;
    ASSERT_EQ(Filter_RegisterEventHandler(listener.Handle(), FaultOnEvent, nullptr, &handler),
              FILTER_STATUS_SUCCESS);
    IPConfig config = {};
    config.hAdapter = adapter;
    config.m_nReserved = 1;
    const FILTER_IOCTRL_PROC proc = Filter_DefaultIoCtrlHandler;
    const FILTER_TIMER_PROC timed = [](auto...) {};
    const Export pointers[] = {
        {"GetAPIVersion major", [&](Any p) { return Filter_GetAPIVersion(p, &word); }},
        {"GetAPIVersion minor", [&](Any p) { return Filter_GetAPIVersion(&word, p); }},
        {"RegisterDriver name", [&](Any p) { return Filter_RegisterDriver(p, nullptr, 1, 0, &driverOut); }},
        {"RegisterDriver handle", [&](Any p) { return Filter_RegisterDriver(&name, nullptr, 1, 0, p); }},
        {"GetDriverName", [&](Any p) { return Filter_GetDriverName(driver, p); }},
        {"GetDriverContext", [&](Any p) { return Filter_GetDriverContext(driver, p); }},
        {"RegisterFilter name", [&](Any p) { return RegisterFilter(driver, p, &filterOut); }},
        {"RegisterFilter handle", [&](Any p) { return RegisterFilter(driver, &name, p); }},
        {"GetFilterName", [&](Any p) { return Filter_GetFilterName(filter, p); }},
        {"GetFilterContext", [&](Any p) { return Filter_GetFilterContext(filter, p); }},
        {"GetFilterType", [&](Any p) { return Filter_GetFilterType(filter, p); }},
        {"GetFilterOrder", [&](Any p) { return Filter_GetFilterOrder(filter, p); }},
        {"FindAdapterByMacAddress", [&](Any p) { return Filter_FindAdapterByMacAddress(p, &adapterOut); }},
        {"... output", [&](Any p) { return Filter_FindAdapterByMacAddress(kOwnMac.data(), p); }},
        {"FindAdapterByNetCfgInstanceId",
         [&](Any p) { return Filter_FindAdapterByNetCfgInstanceId(p, &adapterOut); }},
        {"... output", [&](Any p) { return Filter_FindAdapterByNetCfgInstanceId("{ADAPTER-1}", p); }},
        {"AdapterToId", [&](Any p) { return Filter_AdapterToId(adapter, p); }},
        {"IdToAdapter", [&](Any p) { return Filter_IdToAdapter(word, p); }},
        {"GetOsVersion", [&](Any p) { return Filter_GetOsVersion(p, &word, &word, &word); }},
        {"text compared", [&](Any) { return Filter_RegisterDriver(&compared, nullptr, 1, 0, &driverOut); }},
        {"text copied", [&](Any) { return Filter_RegisterDriver(&copied, nullptr, 1, 0, &driverOut); }},
        {"text compared", [&](Any) { return RegisterFilter(driver, &compared, &filterOut); }},
        {"text copied", [&](Any) { return RegisterFilter(driver, &copied, &filterOut); }},
        {"EnumFilter callback",
         [&](Any) { return Filter_EnumFilter(driver, FaultOnFilter, nullptr, kType); }},
        {"EnumAdapter callback", [&](Any) { return Filter_EnumAdapter(driver, FaultOnAdapter, nullptr); }},
        {"AcquireAdapterContext", [&](Any p) { return Filter_AcquireAdapterContext(driver, p); }},
        {"GetAdapterContext", [&](Any p) { return Filter_GetAdapterContext(adapter, 0, p); }},
        {"RegisterEventHandler",
         [&](Any p) { return Filter_RegisterEventHandler(driver, FaultOnEvent, nullptr, p); }},
        {"RegisterIoControl", [&](Any p) { return Filter_RegisterIoControl(driver, proc, nullptr, p); }},
        {"InitializeTimer", [&](Any p) { return Filter_InitializeTimer(driver, timed, nullptr, 0, p); }},
        {"GetAdapterCurrentAddress", [&](Any p) { return Filter_GetAdapterCurrentAddress(adapter, p); }},
        {"GetAdapterMediaState", [&](Any p) { return Filter_GetAdapterMediaState(adapter, p); }},
        {"GetAdapterMtu", [&](Any p) { return Filter_GetAdapterMtu(adapter, p); }},
        {"GetAdapterName", [&](Any p) { return Filter_GetAdapterName(adapter, p); }},
        {"... of no text", [&](Any) { return Filter_GetAdapterName(&noName, &adapterName); }},
        {"GetAdapterPPPDstMacAddress", [&](Any p) { return Filter_GetAdapterPPPDstMacAddress(adapter, p); }},
        {"SetAdapterPPPSrcMacAddress", [&](Any p) { return Filter_SetAdapterPPPSrcMacAddress(adapter, p); }},
        {"GetAdapterPacketDump", [&](Any p) { return Filter_GetAdapterPacketDump(p, p); }},
        {"... output", [&](Any p) { return Filter_GetAdapterPacketDump(kOwnMac.data(), p); }},
        {"SetIPConfig", [&](Any p) { return Filter_SetIPConfig(p); }},
        {"... event", [&](Any) { return Filter_SetIPConfig(&config); }},
    };
    const size_t blocks = machine::TakeCensus().poolBlocks;
    for (const Export& test : pointers) {
        SCOPED_TRACE(test.what);
        Debug().Take();
        EXPECT_EQ(test.call({Unreadable<char>()}), FILTER_ERROR_EXCEPTION);
        EXPECT_THAT(Debug().Take(), testing::HasSubstr(": exception, code = -107374"));
        ExpectNoLockHeld(test.what);
        EXPECT_EQ(machine::TakeCensus().poolBlocks, blocks);
    }
    EXPECT_EQ(Filter_GetIPConfig(adapter, Unwritable<IPConfig>()), nullptr);
    EXPECT_FALSE(Filter_IsValidAdapter(Unreadable<FilterAdapter>()));
    Filter_ShowFilter(Unreadable<PacketFilter>(), 0);
    EXPECT_EQ(adapterName, nullptr);
    // What failed half-way has left no name behind, has taken no slot and registered no handler.
    EXPECT_EQ(Filter_AcquireAdapterContext(listener.Handle(), &word), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(word, 0u);
    IoCtrlHandler* control = nullptr;
    EXPECT_EQ(Filter_RegisterEventHandler(driver, FaultOnEvent, nullptr, &handler), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_RegisterIoControl(driver, proc, nullptr, &control), FILTER_STATUS_SUCCESS);
    const TestDriver fresh("fresh");
    const TestFilter freshFilter(*driver_, {.name = "fresh", .type = kType});
}

TEST_F(PointersTest, NullIsAnInvalidArgumentWhateverTheHandle)
{
    FilterAdapter none = {}; // no valid handle of any kind
    const Any bad = {&none};
    EventHandler* event = nullptr;
    const FILTER_STATUS answers[] = {
        Filter_AcquireAdapterContext(bad, nullptr),
        Filter_SetAdapterContext(bad, nullptr, 0, nullptr),
        Filter_GetAdapterContext(bad, 0, nullptr),
        Filter_RegisterEventHandler(bad, nullptr, nullptr, &event),
        Filter_RegisterIoControl(bad, Filter_DefaultIoCtrlHandler, nullptr, nullptr),
        Filter_DeregisterEventHandler(bad, nullptr),
        Filter_DeregisterIoControl(bad, nullptr),
        Filter_GetAdapterCurrentAddress(bad, nullptr),
        Filter_GetAdapterName(bad, nullptr),
        Filter_SetAdapterPPPDstMacAddress(bad, nullptr)};
    EXPECT_THAT(answers, testing::Each(FILTER_ERROR_INVALID_ARGUMENT));
}

TEST_F(PointersTest, HandlesThatAreNoneAreRefusedWithAMessageThatSaysWhy)
{
    FilterDriver* const staleDriver = TestDriver("gone").Handle();
    PacketFilter* const staleFilter = TestFilter(*driver_, {}).Handle();
    // A filter of no type: its type is the word that makes the handle none when it is 4.
    alignas(16) ULONG copy[28];
    memcpy(copy, filter, sizeof(copy));
    for (ULONG& word : std::span(copy).subspan(5)) {
        const ULONG before = std::exchange(word, 4);
        if (!Filter_IsValidFilter(Any{copy})) {
            break;
        }
        word = before;
    }
    const auto check = [&](bool isDriver, void* handle, const std::string& why) {
        const std::string line = (isDriver ? "Filter_IsValidDriver: " : "Filter_IsValidFilter: ") + why;
        Debug().Take();
        EXPECT_FALSE(isDriver ? Filter_IsValidDriver(Any{handle}) : Filter_IsValidFilter(Any{handle})) << why;
        EXPECT_TRUE(Debug().Contains(line)) << line;
        Debug().Take();
        EXPECT_EQ(isDriver ? Filter_GetDriverContext(Any{handle}, &any)
                           : Filter_GetFilterContext(Any{handle}, &any),
                  handle == nullptr ? FILTER_ERROR_INVALID_ARGUMENT
                  : isDriver        ? FILTER_ERROR_INVALID_DRIVER_HANDLE
                                    : FILTER_ERROR_INVALID_PACKET_FILTER)
            << why;
        EXPECT_EQ(Debug().Contains(line), handle != nullptr);
        ExpectNoLockHeld(why.c_str());
    };
    const auto invalid = [](const void* handle, const char* tag) {
        return "Invalid Handle " + PointerText(handle) + ", bad tag 0x" + tag;
    };
    check(true, nullptr, invalid(nullptr, "ffffffff\n"));
    check(false, nullptr, invalid(nullptr, "ffffffff\n"));
    check(true, filter, invalid(filter, "54414733\n"));
    check(false, driver, invalid(driver, "54414731\n"));
    check(false, copy, invalid(copy, "54414733\n"));
    check(true, staleDriver, invalid(staleDriver, ""));
    check(false, staleFilter, invalid(staleFilter, ""));
    check(true, Unreadable<char>(), "exception, code = -1073741819\n");
    check(false, Unreadable<char>(), "exception, code = -1073741819\n");
    EXPECT_TRUE(Filter_IsValidDriver(driver));
    EXPECT_TRUE(Filter_IsValidFilter(filter));
}

} // namespace
