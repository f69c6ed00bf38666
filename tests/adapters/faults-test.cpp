// Every pointer argument of the adapters' and handlers' exports, made to fault: no lock stays held, and nothing
// is registered or left behind.
#include "support/framework.h"

using namespace support;

namespace
{

using AdapterFaultsTest = FrameworkTest;

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
    FilterDriver* const owner = driver.Handle();
    PVOID value = nullptr;
    BOOLEAN enabled = FALSE;
    const FILTER_IOCTRL_PROC proc = Filter_DefaultIoCtrlHandler;

    // The first three are refused as handles, the last answers none.
    const std::function<FILTER_STATUS()> cases[] = {
        [&] { return Filter_GetAdapterContext(Unreadable<FilterAdapter>(), 0, &value); },
        [&] { return Filter_DeregisterEventHandler(owner, Unreadable<EventHandler>()); },
        [&] { return Filter_DeregisterIoControl(owner, Unreadable<IoCtrlHandler>()); },
        [&] { return Filter_AcquireAdapterContext(owner, Unwritable<ULONG>()); },
        [&] { return Filter_GetAdapterContext(adapter, 0, Unwritable<PVOID>()); },
        [&] {
            return Filter_RegisterEventHandler(owner, FaultOnEvent, nullptr, Unwritable<EventHandler*>());
        },
        [&] { return Filter_RegisterIoControl(owner, proc, nullptr, Unwritable<IoCtrlHandler*>()); },
        [&] { return Filter_GetAdapterCurrentAddress(adapter, Unwritable<UCHAR>()); },
        [&] { return Filter_GetAdapterMediaState(adapter, Unwritable<ULONG>()); },
        [&] { return Filter_GetAdapterMtu(adapter, Unwritable<USHORT>()); },
        [&] { return Filter_GetAdapterName(adapter, Unwritable<UNICODE_STRING*>()); },
        [&] { return Filter_GetAdapterName(&noName, &name); },
        [&] { return Filter_GetAdapterPPPDstMacAddress(adapter, Unwritable<UCHAR>()); },
        [&] { return Filter_SetAdapterPPPSrcMacAddress(adapter, badMac); },
        [&] { return Filter_GetAdapterPacketDump(badMac, &enabled); },
        [&] { return Filter_GetAdapterPacketDump(kOwnMac.data(), Unwritable<BOOLEAN>()); },
        [&] { return Filter_SetIPConfig(Unreadable<IPConfig>()); },
        [&] { return Filter_SetIPConfig(&config); }, // the listener faults
        [&] { return Filter_GetIPConfig(adapter, Unwritable<IPConfig>()) == nullptr ? 0 : 1; },
    };
    std::vector<FILTER_STATUS> expected(std::size(cases), FILTER_ERROR_EXCEPTION);
    expected[0] = FILTER_ERROR_INVALID_ADAPTER_HANDLE;
    expected[1] = FILTER_ERROR_INVALID_EVENT_HANDLER;
    expected[2] = FILTER_ERROR_INVALID_IOCTL_HANDLER;
    expected.back() = 0;
    const size_t blocks = machine::TakeCensus().poolBlocks;
    for (size_t i = 0; i < std::size(cases); i++) {
        Debug().Take();
        EXPECT_EQ(cases[i](), expected[i]) << i;
        EXPECT_THAT(Debug().Take(), testing::HasSubstr(": exception, code = -1073741819\n")) << i;
        ExpectNoLockHeld(("case " + std::to_string(i)).c_str());
        EXPECT_EQ(machine::TakeCensus().poolBlocks, blocks) << i;
    }
    EXPECT_EQ(name, nullptr);
    // What failed half-way has neither taken a slot nor registered a handler.
    ULONG index = 99;
    EXPECT_EQ(Filter_AcquireAdapterContext(listener.Handle(), &index), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(index, 0u);
    IoCtrlHandler* control = nullptr;
    handler = nullptr;
    EXPECT_EQ(Filter_RegisterEventHandler(owner, FaultOnEvent, nullptr, &handler), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_RegisterIoControl(owner, proc, nullptr, &control), FILTER_STATUS_SUCCESS);
    driver.Forget(); // both handlers go with the framework's unload
}

// A null argument is told apart before any handle is looked at.
TEST_F(AdapterFaultsTest, NullIsAnInvalidArgument)
{
    FilterAdapter none = {}; // no valid handle of any kind
    auto* driver = reinterpret_cast<FilterDriver*>(&none);
    UCHAR mac[6] = {};
    EventHandler* event = nullptr;
    IoCtrlHandler* control = nullptr;
    const FILTER_IOCTRL_PROC proc = Filter_DefaultIoCtrlHandler;
    const FILTER_STATUS answers[] = {Filter_AcquireAdapterContext(driver, nullptr),
                                     Filter_SetAdapterContext(driver, nullptr, 0, nullptr),
                                     Filter_GetAdapterContext(&none, 0, nullptr),
                                     Filter_ReleaseAdapterContext(nullptr, 0),
                                     Filter_RegisterEventHandler(driver, nullptr, nullptr, &event),
                                     Filter_RegisterEventHandler(driver, FaultOnEvent, nullptr, nullptr),
                                     Filter_RegisterIoControl(driver, nullptr, nullptr, &control),
                                     Filter_RegisterIoControl(driver, proc, nullptr, nullptr),
                                     Filter_DeregisterEventHandler(driver, nullptr),
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
                                     Filter_SetAdapterMediaStateByMac(nullptr, 0)};
    EXPECT_THAT(answers, testing::Each(FILTER_ERROR_INVALID_ARGUMENT));
}

} // namespace
