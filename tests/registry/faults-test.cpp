// Every pointer argument of the registries' exports, made to fault: the answer is FILTER_ERROR_EXCEPTION or that of a
// bad handle, no lock stays held, and nothing is registered or left behind.
#include "support/framework.h"

#include <functional>
#include <string>

using namespace support;

namespace
{

class FaultingPointersTest : public FrameworkTest
{};

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

TEST_F(FaultingPointersTest, AreContained)
{
    TestDriver driver("four");
    TestFilter filter(driver, {.name = "four", .type = FILTER_TYPE_OUTGOING_PACKET});
    FilterAdapter* const adapter = AddAdapter();
    ULONG known = 0;
    ASSERT_EQ(Filter_AdapterToId(adapter, &known), FILTER_STATUS_SUCCESS);

    const CountedString name("fresh");
    STRING faultingText = {4, 4, Unreadable<char>()};  // as long as the names that are registered
    STRING faultingFresh = {5, 5, Unreadable<char>()}; // no name is as long: only the copy touches it
    FilterDriver* driverOut = nullptr;
    PacketFilter* filterOut = nullptr;
    FilterAdapter* adapterOut = nullptr;
    ULONG word = 0;
    FilterDriver* const badDriver = Unreadable<FilterDriver>();
    PacketFilter* const badFilter = Unreadable<PacketFilter>();
    const FILTER_TYPE out = FILTER_TYPE_OUTGOING_PACKET;
    const auto registerFilter = [&](FilterDriver* owner, const STRING* text, PacketFilter** handle) {
        return Filter_RegisterFilter(owner, text, Bypass, nullptr, out, 0, handle);
    };

    struct Case {
        const char* what;
        std::function<FILTER_STATUS()> call;
        FILTER_STATUS expected = FILTER_ERROR_EXCEPTION;
    };
    const Case cases[] = {
        {"GetAPIVersion major", [&] { return Filter_GetAPIVersion(Unwritable<ULONG>(), &word); }},
        {"GetAPIVersion minor", [&] { return Filter_GetAPIVersion(&word, Unwritable<ULONG>()); }},
        {"RegisterDriver name",
         [&] { return Filter_RegisterDriver(Unreadable<STRING>(), nullptr, 1, 0, &driverOut); }},
        {"RegisterDriver text compared",
         [&] { return Filter_RegisterDriver(&faultingText, nullptr, 1, 0, &driverOut); }},
        {"RegisterDriver text copied",
         [&] { return Filter_RegisterDriver(&faultingFresh, nullptr, 1, 0, &driverOut); }},
        {"RegisterDriver handle",
         [&] { return Filter_RegisterDriver(&name, nullptr, 1, 0, Unwritable<FilterDriver*>()); }},
        {"GetDriverName driver",
         [&] {
             STRING* text;
             return Filter_GetDriverName(badDriver, &text);
         },
         FILTER_ERROR_INVALID_DRIVER_HANDLE},
        {"GetDriverName output",
         [&] { return Filter_GetDriverName(driver.Handle(), Unwritable<STRING*>()); }},
        {"GetDriverContext output",
         [&] { return Filter_GetDriverContext(driver.Handle(), Unwritable<PVOID>()); }},
        {"DeregisterDriver driver", [&] { return Filter_DeregisterDriver(badDriver); },
         FILTER_ERROR_INVALID_DRIVER_HANDLE},
        {"RegisterFilter driver", [&] { return registerFilter(badDriver, &name, &filterOut); },
         FILTER_ERROR_INVALID_DRIVER_HANDLE},
        {"RegisterFilter name",
         [&] { return registerFilter(driver.Handle(), Unreadable<STRING>(), &filterOut); }},
        {"RegisterFilter text compared",
         [&] { return registerFilter(driver.Handle(), &faultingText, &filterOut); }},
        {"RegisterFilter text copied",
         [&] { return registerFilter(driver.Handle(), &faultingFresh, &filterOut); }},
        {"RegisterFilter handle",
         [&] { return registerFilter(driver.Handle(), &name, Unwritable<PacketFilter*>()); }},
        {"DeregisterFilter driver", [&] { return Filter_DeregisterFilter(badDriver, filter.Handle()); },
         FILTER_ERROR_INVALID_DRIVER_HANDLE},
        {"DeregisterFilter filter", [&] { return Filter_DeregisterFilter(driver.Handle(), badFilter); },
         FILTER_ERROR_INVALID_PACKET_FILTER},
        {"GetFilterName output",
         [&] { return Filter_GetFilterName(filter.Handle(), Unwritable<STRING*>()); }},
        {"GetFilterContext output",
         [&] { return Filter_GetFilterContext(filter.Handle(), Unwritable<PVOID>()); }},
        {"GetFilterType output",
         [&] { return Filter_GetFilterType(filter.Handle(), Unwritable<FILTER_TYPE>()); }},
        {"GetFilterOrder output",
         [&] { return Filter_GetFilterOrder(filter.Handle(), Unwritable<FILTER_ORDER>()); }},
        {"EnumFilter driver", [&] { return Filter_EnumFilter(badDriver, FaultOnFilter, nullptr, out); },
         FILTER_ERROR_INVALID_DRIVER_HANDLE},
        {"EnumFilter callback",
         [&] { return Filter_EnumFilter(driver.Handle(), FaultOnFilter, nullptr, out); }},
        {"EnumAdapter driver", [&] { return Filter_EnumAdapter(badDriver, FaultOnAdapter, nullptr); },
         FILTER_ERROR_INVALID_DRIVER_HANDLE},
        {"EnumAdapter callback",
         [&] { return Filter_EnumAdapter(driver.Handle(), FaultOnAdapter, nullptr); }},
        {"FindAdapterByMacAddress address",
         [&] { return Filter_FindAdapterByMacAddress(Unreadable<UCHAR>(), &adapterOut); }},
        {"FindAdapterByMacAddress output",
         [&] { return Filter_FindAdapterByMacAddress(kOwnMac.data(), Unwritable<FilterAdapter*>()); }},
        {"FindAdapterByNetCfgInstanceId id",
         [&] { return Filter_FindAdapterByNetCfgInstanceId(Unreadable<char>(), &adapterOut); }},
        {"FindAdapterByNetCfgInstanceId output",
         [&] { return Filter_FindAdapterByNetCfgInstanceId("{ADAPTER-1}", Unwritable<FilterAdapter*>()); }},
        {"AdapterToId output", [&] { return Filter_AdapterToId(adapter, Unwritable<ULONG>()); }},
        {"IdToAdapter output", [&] { return Filter_IdToAdapter(known, Unwritable<FilterAdapter*>()); }},
        {"IsValidAdapter adapter",
         [&] { return FILTER_STATUS{Filter_IsValidAdapter(Unreadable<FilterAdapter>())}; }, FALSE},
        {"ShowFilter filter",
         [&] {
             Filter_ShowFilter(badFilter, 0);
             return 0;
         },
         0},
    };
    const size_t blocks = machine::TakeCensus().poolBlocks;
    for (const Case& test : cases) {
        Debug().Take();
        EXPECT_EQ(test.call(), test.expected) << test.what;
        EXPECT_THAT(Debug().Take(), testing::HasSubstr(": exception, code = -107374")) << test.what;
        ExpectNoLockHeld(test.what);
        EXPECT_EQ(machine::TakeCensus().poolBlocks, blocks) << test.what;
    }
    // What failed half-way has left no name behind.
    const TestDriver fresh("fresh");
    const TestFilter freshFilter(driver, {.name = "fresh", .type = out});
}

} // namespace
