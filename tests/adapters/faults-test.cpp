// Every pointer argument of the adapters' and handlers' exports, made to fault: no lock stays held, and nothing
// is registered or left behind.
#include "support/framework.h"

#include <functional>

using namespace support;

namespace
{

class AdapterFaultsTest : public FrameworkTest
{};

VOID FaultOnEvent(FilterDriver*, PVOID, ULONG event, PVOID, FilterAdapter*)
{
    if (event == FILTER_EVENT_IPCONFIG_CHANGED) {
        FaultOnRead();
    }
}

TEST_F(AdapterFaultsTest, AreContained)
{
    TestDriver driver;
    const TestDriver listener("listener");
    FilterAdapter* const adapter = AddAdapter();
    FilterAdapter noName = {};
    noName.m_Tag = FILTER_ADAPTER_TAG;
    noName.m_AdapterName = {8, 8, Unreadable<WCHAR>()};
    EventHandler* handler = nullptr;
    ASSERT_EQ(Filter_RegisterEventHandler(listener.Handle(), FaultOnEvent, nullptr, &handler),
              FILTER_STATUS_SUCCESS);
    IPConfig config = {};
    config.hAdapter = adapter;
    config.m_nReserved = 1;
    UNICODE_STRING* name = nullptr;
    UCHAR* const badMac = Unreadable<UCHAR>();
    auto* const badAdapter = Unreadable<FilterAdapter>();
    FilterDriver* const owner = driver.Handle();

    struct Case {
        const char* what;
        std::function<FILTER_STATUS()> call;
        FILTER_STATUS expected = FILTER_ERROR_EXCEPTION;
    };
    const Case cases[] = {
        {"AcquireAdapterContext index",
         [&] { return Filter_AcquireAdapterContext(owner, Unwritable<ULONG>()); }},
        {"GetAdapterContext output",
         [&] { return Filter_GetAdapterContext(adapter, 0, Unwritable<PVOID>()); }},
        {"GetAdapterContext adapter",
         [&] {
             PVOID value;
             return Filter_GetAdapterContext(badAdapter, 0, &value);
         },
         FILTER_ERROR_INVALID_ADAPTER_HANDLE},
        {"RegisterEventHandler handle",
         [&] {
             return Filter_RegisterEventHandler(owner, FaultOnEvent, nullptr, Unwritable<EventHandler*>());
         }},
        {"DeregisterEventHandler handler",
         [&] { return Filter_DeregisterEventHandler(owner, Unreadable<EventHandler>()); },
         FILTER_ERROR_INVALID_EVENT_HANDLER},
        {"RegisterIoControl handle",
         [&] {
             return Filter_RegisterIoControl(owner, Filter_DefaultIoCtrlHandler, nullptr,
                                             Unwritable<IoCtrlHandler*>());
         }},
        {"DeregisterIoControl handler",
         [&] { return Filter_DeregisterIoControl(owner, Unreadable<IoCtrlHandler>()); },
         FILTER_ERROR_INVALID_IOCTL_HANDLER},
        {"GetAdapterCurrentAddress output",
         [&] { return Filter_GetAdapterCurrentAddress(adapter, Unwritable<UCHAR>()); }},
        {"GetAdapterMediaState output",
         [&] { return Filter_GetAdapterMediaState(adapter, Unwritable<ULONG>()); }},
        {"GetAdapterMtu output", [&] { return Filter_GetAdapterMtu(adapter, Unwritable<USHORT>()); }},
        {"GetAdapterName output",
         [&] { return Filter_GetAdapterName(adapter, Unwritable<UNICODE_STRING*>()); }},
        {"GetAdapterName text", [&] { return Filter_GetAdapterName(&noName, &name); }},
        {"GetAdapterPPPDstMacAddress output",
         [&] { return Filter_GetAdapterPPPDstMacAddress(adapter, Unwritable<UCHAR>()); }},
        {"SetAdapterPPPSrcMacAddress input",
         [&] { return Filter_SetAdapterPPPSrcMacAddress(adapter, badMac); }},
        {"GetAdapterPacketDump address",
         [&] {
             BOOLEAN enabled;
             return Filter_GetAdapterPacketDump(badMac, &enabled);
         }},
        {"GetAdapterPacketDump output",
         [&] { return Filter_GetAdapterPacketDump(kOwnMac.data(), Unwritable<BOOLEAN>()); }},
        {"SetIPConfig input", [&] { return Filter_SetIPConfig(Unreadable<IPConfig>()); }},
        {"SetIPConfig handler", [&] { return Filter_SetIPConfig(&config); }},
        {"GetIPConfig output",
         [&] { return Filter_GetIPConfig(adapter, Unwritable<IPConfig>()) == nullptr ? 0 : 1; }, 0},
    };
    const size_t blocks = machine::TakeCensus().poolBlocks;
    for (const Case& test : cases) {
        Debug().Take();
        EXPECT_EQ(test.call(), test.expected) << test.what;
        EXPECT_THAT(Debug().Take(), testing::HasSubstr(": exception, code = -1073741819\n")) << test.what;
        ExpectNoLockHeld(test.what);
        EXPECT_EQ(machine::TakeCensus().poolBlocks, blocks) << test.what;
    }
    EXPECT_EQ(name, nullptr);
    // What failed half-way has neither taken a slot nor registered a handler.
    ULONG index = 99;
    EXPECT_EQ(Filter_AcquireAdapterContext(listener.Handle(), &index), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(index, 0u);
    IoCtrlHandler* control = nullptr;
    handler = nullptr;
    EXPECT_EQ(Filter_RegisterEventHandler(owner, FaultOnEvent, nullptr, &handler), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_RegisterIoControl(owner, Filter_DefaultIoCtrlHandler, nullptr, &control),
              FILTER_STATUS_SUCCESS);
    driver.Forget(); // both handlers go with the framework's unload
}

// A null argument is told apart before any handle is looked at.
TEST_F(AdapterFaultsTest, NullIsAnInvalidArgument)
{
    FilterAdapter none = {}; // no valid handle of any kind
    auto* driver = reinterpret_cast<FilterDriver*>(&none);
    UCHAR mac[6] = {};
    EventHandler* handler = nullptr;
    IoCtrlHandler* control = nullptr;
    const FILTER_IOCTRL_PROC proc = Filter_DefaultIoCtrlHandler;
    const FILTER_STATUS answers[] = {
        Filter_AcquireAdapterContext(driver, nullptr),
        Filter_SetAdapterContext(driver, nullptr, 0, nullptr),
        Filter_GetAdapterContext(&none, 0, nullptr),
        Filter_ReleaseAdapterContext(nullptr, 0),
        Filter_RegisterEventHandler(driver, nullptr, nullptr, &handler),
        Filter_RegisterEventHandler(driver, FaultOnEvent, nullptr, nullptr),
        Filter_DeregisterEventHandler(driver, nullptr),
        Filter_RegisterIoControl(driver, nullptr, nullptr, &control),
        Filter_RegisterIoControl(driver, proc, nullptr, nullptr),
        Filter_DeregisterIoControl(driver, nullptr),
        Filter_GetAdapterCurrentAddress(&none, nullptr),
        Filter_GetAdapterName(&none, nullptr),
        Filter_SetAdapterPPPDstMacAddress(&none, nullptr),
        Filter_SetAdapterCongestionControl(nullptr, 1),
        Filter_GetAdapterPacketDump(mac, nullptr),
        Filter_SetAdapterPacketDump(nullptr, TRUE),
        Filter_GetTcpIpBoundAdapters(nullptr),
        Filter_SetIPConfig(nullptr),
        Filter_GetAdapterMediaStateByMac(mac, nullptr),
        Filter_SetAdapterMediaStateByMac(nullptr, 0),
    };
    EXPECT_THAT(answers, testing::Each(FILTER_ERROR_INVALID_ARGUMENT));
}

} // namespace
