// The registry of client drivers.
#include "support/framework.h"

#include <cstring>
#include <string>

using namespace support;
using testing::HasSubstr;

namespace
{

constexpr uint32_t kTraceDriver = 0x4;

struct DriversTest : FrameworkTest {
    DriversTest() : FrameworkTest(FrameworkOnly(kTraceDriver)) {}
};

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
    EXPECT_EQ(Debug().Take(),
              "Enter Filter_RegisterDriver\n  Error: -9 - FILTER_ERROR_DRIVER_ALREADY_REGISTERED\n"
              "Leave Filter_RegisterDriver, -9-FILTER_ERROR_DRIVER_ALREADY_REGISTERED\n");
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
