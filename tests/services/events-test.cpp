// Events that client drivers report. Collecting them is a request of the user program; here their limits and faults.
#include "support/framework.h"

#include <string>

using support::FrameworkOnly;
using support::FrameworkTest;
using support::Unreadable;
using testing::HasSubstr;

namespace
{

constexpr int kMostEvents = 1023;
constexpr ULONG kTraceEventAndService = 0x810;

struct EventsTest : FrameworkTest {
    EventsTest() : FrameworkTest(FrameworkOnly(kTraceEventAndService)) {}
};

TEST_F(EventsTest, ShowTheirTextAndMayBeReportedAtDispatchLevel)
{
    Debug().Take();
    const machine::AtDispatch raised;
    EXPECT_EQ(Filter_ReportEvent(7, 8, "port %d of %s", 53, "eth0"), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Debug().Take(), "Enter Filter_ReportEvent\nFilter_ReportEvent: port 53 of eth0\n"
                              "Leave Filter_ReportEvent, 0-FILTER_STATUS_SUCCESS\n");
    EXPECT_EQ(Filter_ReportEvent(7, 8, nullptr), FILTER_STATUS_SUCCESS);
    EXPECT_THAT(Debug().Take(), testing::Not(HasSubstr("Filter_ReportEvent: ")));
    EXPECT_EQ(Filter_ReportEvent(7, 8, "%s", std::string(3000, 'x').c_str()), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_ReportEventEx(7, 8, 100000, std::string(100000, 'x').c_str()), FILTER_STATUS_SUCCESS);
}

// A refused report takes no place: 1,023 still fit behind it, and no more.
TEST_F(EventsTest, ThatCannotBeStoredTakeNoPlace)
{
    machine::FailAllFrom(machine::Fault::Lookaside, 1);
    EXPECT_EQ(Filter_ReportEvent(1, 2, "no memory"), FILTER_ERROR_OUT_OF_MEMORY);
    machine::ClearFaults();
    Debug().Take();
    EXPECT_EQ(Filter_ReportEventEx(1, 2, 10, Unreadable<char>()), FILTER_ERROR_EXCEPTION);
    EXPECT_THAT(Debug().Take(), HasSubstr("Filter_ReportEventEx: exception, code = -1073741819\n"));
    EXPECT_EQ(Filter_ReportEvent(1, 2, Unreadable<char>()), FILTER_ERROR_EXCEPTION);
    EXPECT_EQ(Filter_ReportEvent(1, 2, "%s", Unreadable<char>()), FILTER_ERROR_EXCEPTION);
    ExpectNoLockHeld("a faulting report");
    for (int i = 0; i < kMostEvents; i++) {
        ASSERT_EQ(Filter_ReportEventEx(i, 0, 0, nullptr), FILTER_STATUS_SUCCESS) << i;
    }
    EXPECT_EQ(Filter_ReportEventEx(1, 2, 3, "abc"), FILTER_ERROR_OUT_OF_MEMORY);
    Debug().Take();
    EXPECT_EQ(Filter_ReportEvent(1, 2, "one too many"), FILTER_ERROR_OUT_OF_MEMORY);
    EXPECT_EQ(Debug().Take(), "Enter Filter_ReportEvent\npGlobal->m_CurrentLogSize = 1023, >= MAX_LOG_SIZE\n"
                              "  Error: -20 - FILTER_ERROR_OUT_OF_MEMORY\n"
                              "Leave Filter_ReportEvent, -20-FILTER_ERROR_OUT_OF_MEMORY\n");
}

} // namespace
