// The registries of client drivers and of packet filters: places in the chains, owners, queries and dumps.
#include "support/framework.h"

#include <cstring>
#include <sstream>

using namespace support;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{

constexpr uint32_t kTraceFilter = 0x20;

struct FiltersTest : Loaded<FrameworkOnly> {
    // Names of a chain's filters in chain order, as its dump shows them.
    std::vector<std::string> Chain(FILTER_TYPE type)
    {
        Debug().Take();
        EXPECT_EQ(Filter_DumpFilter(type), FILTER_STATUS_SUCCESS);
        std::istringstream dump(Debug().Take());
        const std::string title = "- m_FilterName      = ";
        std::vector<std::string> names;
        for (std::string line; std::getline(dump, line);) {
            if (line.starts_with(title)) {
                names.push_back(line.substr(title.size()));
            }
        }
        return names;
    }
};

using TracedFiltersTest = Loaded<WithTrace, kTraceFilter>;

FILTER_RESULT Bypass(FilterDriver*, PVOID, PacketFilter*, PVOID, FilterPacket*)
{
    return FILTER_RESULT_BYPASS;
}

FILTER_STATUS Register(const TestDriver& driver, const std::string& name, FILTER_TYPE type)
{
    PacketFilter* handle = nullptr;
    return Filter_RegisterFilter(driver.Handle(), &CountedString(name), Bypass, nullptr, type, 0, &handle);
}

TEST_F(FiltersTest, ArePlacedByOrderTheNewestOfEqualOrderFirst)
{
    struct Entry {
        const char* name;
        FILTER_ORDER order;
    };
    struct Case {
        std::vector<Entry> registered;
        std::vector<std::string> chain;
    };
    const FILTER_ORDER first = FILTER_ORDER_FIRST;
    const FILTER_ORDER next = FILTER_ORDER_NEXT;
    const FILTER_ORDER last = FILTER_ORDER_LAST;
    const Case cases[] = {
        {{{"A", first}, {"B", first}}, {"B", "A"}},
        {{{"A", first}, {"C", last}, {"D", last}}, {"A", "D", "C"}},
        {{{"5", 5}, {"3", 3}, {"N", next}, {"3'", 3}}, {"3'", "3", "5", "N"}},
        {{{"L", last}, {"N", next}, {"N'", next}, {"7", 7}, {"F", first}}, {"F", "7", "N'", "N", "L"}},
        // Orders compare as unsigned numbers: what is negative but no sentinel is a large position.
        {{{"-3", -3}, {"max", INT32_MAX}, {"min", INT32_MIN}, {"N", next}, {"1", 1}},
         {"1", "max", "min", "-3", "N"}},
    };
    for (const Case& test : cases) {
        TestDriver driver("placing");
        std::vector<std::unique_ptr<TestFilter>> filters;
        for (const Entry& entry : test.registered) {
            filters.push_back(std::make_unique<TestFilter>(
                driver, TestFilter::Options{.name = entry.name, .order = entry.order}));
        }
        EXPECT_THAT(Chain(FILTER_TYPE_INCOMING_PACKET), ElementsAreArray(test.chain));
        filters[1].reset();
        EXPECT_EQ(Chain(FILTER_TYPE_INCOMING_PACKET).size(), test.chain.size() - 1);
    }
    EXPECT_THAT(Chain(FILTER_TYPE_INCOMING_PACKET), IsEmpty());
}

TEST_F(FiltersTest, RegistrationChecksArgumentsThenDriverThenTypeThenName)
{
    TestDriver driver("one");
    TestDriver other("two");
    FilterDriver* const bad = reinterpret_cast<FilterDriver*>(&driver);
    const CountedString name("filter");
    PacketFilter* handle = nullptr;
    EXPECT_EQ(Filter_RegisterFilter(bad, &name, nullptr, nullptr, 4, 0, &handle),
              FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Filter_RegisterFilter(bad, &name, Bypass, nullptr, 4, 0, &handle),
              FILTER_ERROR_INVALID_DRIVER_HANDLE);
    for (const FILTER_TYPE type : {4, -1, INT32_MAX, INT32_MIN}) {
        EXPECT_EQ(Register(driver, "filter", type), FILTER_ERROR_INVALID_FILTER_TYPE) << type;
    }
    EXPECT_EQ(Register(driver, "filter", FILTER_TYPE_INCOMING_PACKET), FILTER_STATUS_SUCCESS);
    // Unique in a chain, whoever registers it, but not across chains.
    EXPECT_EQ(Register(other, "filter", FILTER_TYPE_INCOMING_PACKET), FILTER_ERROR_FILTER_ALREADY_REGISTERED);
    EXPECT_EQ(Register(other, "FILTER", FILTER_TYPE_INCOMING_PACKET), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Register(other, "filter", FILTER_TYPE_OUTGOING_PACKET), FILTER_STATUS_SUCCESS);
    EXPECT_THAT(Chain(FILTER_TYPE_INCOMING_PACKET), ElementsAre("FILTER", "filter"));
}

TEST_F(FiltersTest, OnlyTheOwnerRemovesAFilter)
{
    TestDriver owner("owner"), other("other");
    TestFilter filter(owner, {.name = "kept", .type = FILTER_TYPE_INJECT_TO_ADAPTER});
    FilterDriver* const notADriver = reinterpret_cast<FilterDriver*>(filter.Handle());
    PacketFilter* const notAFilter = reinterpret_cast<PacketFilter*>(owner.Handle());
    // Right tag and type, but in no chain.
    alignas(16) UCHAR copy[112];
    memcpy(copy, filter.Handle(), sizeof(copy));
    PacketFilter* const unlisted = reinterpret_cast<PacketFilter*>(copy);
    EXPECT_EQ(Filter_DeregisterFilter(notADriver, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Filter_DeregisterFilter(notADriver, notAFilter), FILTER_ERROR_INVALID_DRIVER_HANDLE);
    EXPECT_EQ(Filter_DeregisterFilter(owner.Handle(), unlisted), FILTER_ERROR_FILTER_NOT_FOUND);
    EXPECT_EQ(Filter_DeregisterFilter(other.Handle(), filter.Handle()), FILTER_ERROR_INVALID_FILTER_OWNER);
    EXPECT_THAT(Chain(FILTER_TYPE_INJECT_TO_ADAPTER), ElementsAre("kept"));
    EXPECT_EQ(filter.Deregister(), FILTER_STATUS_SUCCESS);
    EXPECT_THAT(Chain(FILTER_TYPE_INJECT_TO_ADAPTER), IsEmpty());
}

TEST_F(FiltersTest, EnumerationReportsTheDriversFiltersWhoseTypeSharesABit)
{
    using Filters = std::vector<PacketFilter*>;
    const auto note = [](PVOID seen, PacketFilter* filter) -> BOOLEAN {
        EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
        static_cast<Filters*>(seen)->push_back(filter);
        return FALSE; // does not end the walk
    };
    TestDriver driver("one");
    TestDriver other("two");
    std::vector<std::unique_ptr<TestFilter>> own;
    std::vector<std::unique_ptr<TestFilter>> foreign;
    for (FILTER_TYPE type = 0; type < FILTER_TYPE_COUNT; type++) {
        own.push_back(std::make_unique<TestFilter>(driver, TestFilter::Options{.type = type, .order = 1}));
        own.push_back(std::make_unique<TestFilter>(driver, TestFilter::Options{.type = type, .order = 3}));
        foreign.push_back(std::make_unique<TestFilter>(other, TestFilter::Options{.type = type, .order = 2}));
    }
    for (FILTER_TYPE type = 0; type < FILTER_TYPE_COUNT; type++) {
        const Filters expected = {own[2 * type]->Handle(), own[2 * type + 1]->Handle()};
        Filters seen;
        EXPECT_EQ(Filter_EnumFilter(driver.Handle(), note, &seen, type), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(seen, type == 0 ? Filters() : expected) << type; // 0 has no bit in common with 0
    }
    FilterDriver* const bad = reinterpret_cast<FilterDriver*>(own[0]->Handle());
    EXPECT_EQ(Filter_EnumFilter(bad, nullptr, nullptr, 4), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Filter_EnumFilter(bad, note, nullptr, 4), FILTER_ERROR_INVALID_DRIVER_HANDLE);
    EXPECT_EQ(Filter_EnumFilter(driver.Handle(), note, nullptr, 4), FILTER_ERROR_INVALID_FILTER_TYPE);
}

TEST_F(TracedFiltersTest, TheDumpShowsEveryFieldAndCounter)
{
    int context;
    TestDriver driver("dumping", &context);
    int verdict = 0;
    TestFilter filter(driver, {.name = "shown", .order = 5}, [&](FilterPacket*) { return verdict++ % 5; });
    FilterAdapter* adapter = AddAdapter();
    const Bytes frame = UdpFrame();
    for (int i = 0; i < 8; i++) { // every verdict, a 4 that is none, and the first three once more
        ASSERT_EQ(hook::DeliverReceived(adapter, frame), hook::Accepted::Yes);
    }
    Debug().Take();
    EXPECT_EQ(Filter_DumpFilter(FILTER_TYPE_INCOMING_PACKET), FILTER_STATUS_SUCCESS);
    const std::string dump = Debug().Take();
    const std::string link = PointerText(filter.Handle()); // the links are the record's first field
    const std::string headTitle = "- PacketFilterList  = ";
    ASSERT_THAT(dump, HasSubstr(headTitle));
    const std::string head = dump.substr(dump.find(headTitle) + headTitle.size(), link.size());
    EXPECT_EQ(dump,
              "Enter Filter_DumpFilter\nDumping Packet Filter(Type = 0 - FILTER_TYPE_INCOMING_PACKET)\n" +
                  headTitle + head + "\n-          +- Blink = " + link + "\n-          +- Flink = " + link +
                  "\nFilter[0] ----------- " + link + "\n- &m_ListEntry      = " + link +
                  "\n-      +-Blink      = " + head + "\n-      +-Flink      = " + head +
                  "\n- m_Tag             = 0x54414733\n- m_FilterName      = shown\n- m_hFilterDriver   = " +
                  PointerText(driver.Handle()) + "\n- m_pDriverContext  = " + PointerText(&context) +
                  "\n- m_pfFilterProc    = " + PointerText(filter.ProcedureAddress()) +
                  "\n- m_pFilterContext  = " + PointerText(&filter) +
                  "\n- m_FilterType      = 0 - FILTER_TYPE_INCOMING_PACKET\n"
                  "- m_FilterOrder     = 5 - FILTER_ORDER_FIXED\n"
                  "- m_PacketProcess   = 8\n- m_PacketBypass    = 2\n- m_PacketDiscard   = 2\n"
                  "- m_PacketConsume   = 2\n- m_PacketCapture   = 1\n"
                  "Leave Filter_DumpFilter, 0-FILTER_STATUS_SUCCESS\n");
    for (const size_t consumed : {2, 7}) {
        Filter_ReleasePacket(filter.Calls()[consumed].packet);
    }
    EXPECT_EQ(hook::TakeBalance().outstanding, 0u);
}

TEST_F(TracedFiltersTest, ADumpOfNoChainIsRefusedAndARemovalDumpsItsChain)
{
    TestDriver driver;
    TestFilter filter(driver, {.order = FILTER_ORDER_LAST});
    EXPECT_EQ(Filter_DumpFilter(4), FILTER_ERROR_INVALID_FILTER_TYPE);
    Debug().Take();
    Filter_ShowFilter(filter.Handle(), 12);
    const std::string shown = Debug().Take();
    EXPECT_THAT(shown, testing::StartsWith("Filter[12] ----------- " + PointerText(filter.Handle()) + "\n"));
    EXPECT_THAT(shown, HasSubstr("- m_FilterOrder     = 4294967295 - FILTER_ORDER_LAST\n"));
    EXPECT_EQ(filter.Deregister(), FILTER_STATUS_SUCCESS);
    EXPECT_TRUE(Debug().Contains("Dumping Packet Filter(Type = 0 - FILTER_TYPE_INCOMING_PACKET)\n"));
}

constexpr uint32_t kTraceDriver = 0x4;

using DriversTest = Loaded<FrameworkOnly, kTraceDriver>;

FILTER_STATUS Register(const std::string& name, ULONG major = 1, ULONG minor = 0)
{
    FilterDriver* handle = nullptr;
    return Filter_RegisterDriver(&CountedString(name), nullptr, major, minor, &handle);
}

TEST_F(DriversTest, RegistrationChecksArgumentsThenVersionThenName)
{
    const TestDriver alpha("Alpha");
    ULONG major = 7;
    ULONG minor = 7;
    EXPECT_EQ(Filter_GetAPIVersion(&major, &minor), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(major, 1u);
    EXPECT_EQ(minor, 0u);
    FilterDriver* handle = nullptr;
    EXPECT_EQ(Filter_RegisterDriver(nullptr, nullptr, 2, 0, &handle), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Filter_RegisterDriver(&CountedString("Alpha"), nullptr, 2, 0, nullptr),
              FILTER_ERROR_INVALID_ARGUMENT);
    for (const auto& [otherMajor, otherMinor] : {std::pair{1, 1}, {2, 0}, {0, 0}}) {
        EXPECT_EQ(Register("Alpha", otherMajor, otherMinor), FILTER_ERROR_UNSUPPORTED_API_VERSION);
    }
    Debug().Take();
    EXPECT_EQ(Register("Alpha"), FILTER_ERROR_DRIVER_ALREADY_REGISTERED);
    EXPECT_THAT(Debug().Take(), HasSubstr("  Error: -9 - FILTER_ERROR_DRIVER_ALREADY_REGISTERED\nLeave "));
    const TestDriver differsInCase("ALPHA");
    const TestDriver longer("Alpha2");
    const TestDriver unnamed("");
}

TEST_F(DriversTest, NamesAndContextsAreHandedBack)
{
    int context;
    for (const std::string& text :
         {std::string("Alpha"), std::string(""), std::string("with\0zero", 9), std::string(0xFFFF, 'x')}) {
        const TestDriver driver(text, &context);
        STRING* name = nullptr;
        ASSERT_EQ(Filter_GetDriverName(driver.Handle(), &name), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(name->MaximumLength, static_cast<USHORT>(text.size() + 2));
        EXPECT_EQ(std::string(name->Buffer, text.size() + 2), text + std::string(2, '\0'));
        EXPECT_EQ(TakeName(name), text);
        PVOID found = nullptr;
        EXPECT_EQ(Filter_GetDriverContext(driver.Handle(), &found), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(found, &context);
    }
}

TEST_F(DriversTest, ADepartingDriverTakesItsFiltersAlongAndNobodyElses)
{
    TestDriver leaving("leaving");
    TestDriver staying("staying");
    std::vector<std::unique_ptr<TestFilter>> filters;
    for (FILTER_TYPE type = 0; type < FILTER_TYPE_COUNT; type++) {
        filters.push_back(std::make_unique<TestFilter>(
            leaving, TestFilter::Options{.name = "leaving-" + std::to_string(type), .type = type}));
        filters.push_back(std::make_unique<TestFilter>(
            staying, TestFilter::Options{.name = "staying-" + std::to_string(type), .type = type}));
    }
    EXPECT_EQ(leaving.Deregister(), FILTER_STATUS_SUCCESS);
    Debug().Take();
    for (FILTER_TYPE type = 0; type < FILTER_TYPE_COUNT; type++) {
        EXPECT_EQ(Filter_DumpFilter(type), FILTER_STATUS_SUCCESS);
        const std::string chain = Debug().Take();
        EXPECT_THAT(chain, testing::Not(HasSubstr("leaving-")));
        EXPECT_THAT(chain, HasSubstr("staying-" + std::to_string(type)));
    }
    // The tag alone makes a handle valid; to be deregistered it must be in the list.
    const TestDriver again("leaving, with a name long enough to copy a whole record from its block");
    alignas(16) UCHAR copy[64];
    memcpy(copy, again.Handle(), sizeof(copy));
    EXPECT_EQ(Filter_DeregisterDriver(reinterpret_cast<FilterDriver*>(copy)), FILTER_ERROR_DRIVER_NOT_FOUND);
    EXPECT_TRUE(Filter_IsValidDriver(again.Handle()));
    const TestDriver nameIsFree("leaving");
}

} // namespace
