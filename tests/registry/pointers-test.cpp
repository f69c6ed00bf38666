// Every pointer argument of the registries' exports made to fault, and every handle null, wrong, stale or faulting:
// the answer is a status, no lock stays held, and nothing is registered or left behind.
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
        {"text compared", [&](Any) { return Filter_RegisterDriver(&compared, nullptr, 1, 0, &driverOut); }},
        {"text copied", [&](Any) { return Filter_RegisterDriver(&copied, nullptr, 1, 0, &driverOut); }},
        {"text compared", [&](Any) { return RegisterFilter(driver, &compared, &filterOut); }},
        {"text copied", [&](Any) { return RegisterFilter(driver, &copied, &filterOut); }},
        {"EnumFilter callback",
         [&](Any) { return Filter_EnumFilter(driver, FaultOnFilter, nullptr, kType); }},
        {"EnumAdapter callback", [&](Any) { return Filter_EnumAdapter(driver, FaultOnAdapter, nullptr); }},
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
    EXPECT_FALSE(Filter_IsValidAdapter(Unreadable<FilterAdapter>()));
    Filter_ShowFilter(Unreadable<PacketFilter>(), 0);
    // What failed half-way has left no name behind.
    const TestDriver fresh("fresh");
    const TestFilter freshFilter(*driver_, {.name = "fresh", .type = kType});
}

TEST_F(PointersTest, HandlesThatAreNoneAreRefusedWithAMessageThatSaysWhy)
{
    FilterDriver* const staleDriver = TestDriver("gone").Handle();
    PacketFilter* const staleFilter = TestFilter(*driver_, {}).Handle();
    // A filter of no type. The type is what its getter answers; find the word and make it 4.
    alignas(16) UCHAR copy[112];
    memcpy(copy, filter, sizeof(copy));
    for (size_t at = 20; at < sizeof(copy); at += 4) {
        FILTER_TYPE type = 0;
        const ULONG four = 4;
        ULONG before;
        memcpy(&before, copy + at, sizeof(before));
        memcpy(copy + at, &four, sizeof(four));
        if (Filter_GetFilterType(reinterpret_cast<PacketFilter*>(copy), &type) != FILTER_STATUS_SUCCESS) {
            break;
        }
        memcpy(copy + at, &before, sizeof(before));
    }
    const Export ofDrivers[] = {
        {"IsValidDriver", [](Any p) { return Filter_IsValidDriver(p) ? 1 : 0; }},
        {"GetDriverName", [&](Any p) { return Filter_GetDriverName(p, reinterpret_cast<STRING**>(&any)); }},
        {"GetDriverContext", [&](Any p) { return Filter_GetDriverContext(p, &any); }},
        {"DeregisterDriver", [](Any p) { return Filter_DeregisterDriver(p); }},
        {"RegisterFilter", [&](Any p) { return RegisterFilter(p, &name, &filterOut); }},
        {"DeregisterFilter", [&](Any p) { return Filter_DeregisterFilter(p, filter); }},
        {"EnumFilter", [](Any p) { return Filter_EnumFilter(p, FaultOnFilter, nullptr, kType); }},
        {"EnumAdapter", [](Any p) { return Filter_EnumAdapter(p, FaultOnAdapter, nullptr); }},
    };
    const Export ofFilters[] = {
        {"IsValidFilter", [](Any p) { return Filter_IsValidFilter(p) ? 1 : 0; }},
        {"GetFilterName", [&](Any p) { return Filter_GetFilterName(p, reinterpret_cast<STRING**>(&any)); }},
        {"GetFilterContext", [&](Any p) { return Filter_GetFilterContext(p, &any); }},
        {"GetFilterType",
         [&](Any p) { return Filter_GetFilterType(p, reinterpret_cast<FILTER_TYPE*>(&any)); }},
        {"GetFilterOrder",
         [&](Any p) { return Filter_GetFilterOrder(p, reinterpret_cast<FILTER_ORDER*>(&any)); }},
        {"DeregisterFilter", [&](Any p) { return Filter_DeregisterFilter(driver, p); }},
    };
    const auto check = [&](std::span<const Export> exports, void* handle, const std::string& why) {
        const FILTER_STATUS refusal = handle == nullptr             ? FILTER_ERROR_INVALID_ARGUMENT
                                      : exports.data() == ofDrivers ? FILTER_ERROR_INVALID_DRIVER_HANDLE
                                                                    : FILTER_ERROR_INVALID_PACKET_FILTER;
        for (const Export& test : exports) {
            SCOPED_TRACE(test.what + (": " + why));
            const bool isQuestion = &test == exports.data();
            Debug().Take();
            EXPECT_EQ(test.call({handle}), isQuestion ? FALSE : refusal);
            EXPECT_EQ(Debug().Contains(exports[0].what + (": " + why)), isQuestion || handle != nullptr);
            ExpectNoLockHeld(test.what);
        }
    };
    const auto invalid = [](const void* handle, const char* tag) {
        return "Invalid Handle " + PointerText(handle) + ", bad tag 0x" + tag;
    };
    check(ofDrivers, nullptr, invalid(nullptr, "ffffffff\n"));
    check(ofFilters, nullptr, invalid(nullptr, "ffffffff\n"));
    check(ofDrivers, filter, invalid(filter, "54414733\n"));
    check(ofFilters, driver, invalid(driver, "54414731\n"));
    check(ofFilters, copy, invalid(copy, "54414733\n"));
    check(ofDrivers, staleDriver, invalid(staleDriver, ""));
    check(ofFilters, staleFilter, invalid(staleFilter, ""));
    check(ofDrivers, Unreadable<char>(), "exception, code = -1073741819\n");
    check(ofFilters, Unreadable<char>(), "exception, code = -1073741819\n");
    EXPECT_TRUE(Filter_IsValidDriver(driver));
    EXPECT_TRUE(Filter_IsValidFilter(filter));
}

} // namespace
