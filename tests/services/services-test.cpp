// Memory, locks, settings, the clock and events, as a client driver uses them. Collecting events is a request of the
// user program; here their limits and faults.
#include "support/framework.h"

#include <cstring>
#include <thread>

using namespace support;
using testing::HasSubstr;

namespace
{

constexpr ULONG kTag = 0x54534554; // "TEST"
constexpr ULONG kMask = 0xD00;     // common services, and what an unload says

UNICODE_STRING Counted(PCWSTR text)
{
    UNICODE_STRING string;
    RtlInitUnicodeString(&string, text);
    return string;
}

std::string Narrow(const UNICODE_STRING& text)
{
    return std::string(text.Buffer, text.Buffer + text.Length / sizeof(WCHAR));
}

struct ServicesTest : Loaded<FrameworkOnly, kMask> {
    UNICODE_STRING key = Counted(L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\NdisFilter");
    const std::string query = "RtlQueryRegistryValues " + Narrow(key) + "\\";
};

TEST_F(ServicesTest, AnAllocationIsTaggedAndFreedOnce)
{
    auto* block = static_cast<UCHAR*>(Filter_AllocateMemory(100, kTag));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(reinterpret_cast<ULONG_PTR>(block) % 8, 0u);
    ULONG header[2];
    memcpy(header, block - sizeof(header), sizeof(header));
    EXPECT_EQ(header[0], 112u);        // the header, the block and four spare bytes
    EXPECT_EQ(header[1], 0x54414737u); // "7GAT"
    memset(block, 0x55, 104);
    EXPECT_THAT(Debug().Take(),
                testing::EndsWith("Leave Filter_AllocateMemory, " + PointerText(block) + "\n"));
    EXPECT_EQ(Filter_FreeMemory(block), FILTER_STATUS_SUCCESS);
    Debug().Take();
    // Freeing what is no block frees nothing.
    EXPECT_EQ(Filter_FreeMemory(block), FILTER_ERROR_INVALID_MEMORY_POINTER);
    EXPECT_EQ(Debug().Take(), "Enter Filter_FreeMemory\n  pFilterMemory->m_Tag != FILTER_MEMORY_TAG\n"
                              "  Error: -35 - FILTER_ERROR_INVALID_MEMORY_POINTER\n"
                              "Leave Filter_FreeMemory, -35-FILTER_ERROR_INVALID_MEMORY_POINTER\n");
    ULONGLONG foreign[4] = {};
    EXPECT_EQ(Filter_FreeMemory(&foreign[2]), FILTER_ERROR_INVALID_MEMORY_POINTER);
    EXPECT_EQ(Filter_FreeMemory(Unreadable<UCHAR>() + 64), FILTER_ERROR_EXCEPTION);
    EXPECT_THAT(Debug().Take(), HasSubstr("Filter_FreeMemory: exception, code = -1073741819\n"));

    PVOID empty = Filter_AllocateMemory(0, kTag);
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(Filter_FreeMemory(empty), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Filter_AllocateMemory(0xFFFFFFF8, kTag), nullptr); // the overhead does not wrap the size round
}

TEST_F(ServicesTest, ALockGivesTheLevelBack)
{
    FilterLock lock;
    memset(&lock, 0xFF, sizeof(lock));
    ASSERT_EQ(Filter_InitializeLock(&lock), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(lock.m_SpinLock, 0u);
    {
        const machine::AtDispatch raised;
        EXPECT_EQ(Filter_AcquireLock(&lock), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(Filter_ReleaseLock(&lock), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    }
    for (const auto function :
         {Filter_InitializeLock, Filter_AcquireLock, Filter_ReleaseLock, Filter_FreeLock}) {
        EXPECT_EQ(function(Unreadable<FilterLock>()),
                  function == Filter_FreeLock ? FILTER_STATUS_SUCCESS : FILTER_ERROR_EXCEPTION);
        ExpectNoLockHeld("a faulting lock");
    }
}

TEST_F(ServicesTest, RegistryNumbersComeWithAMessageOrAsTheDefault)
{
    machine::SetRegistryDword(support::kFrameworkService, "PendingPacketLimit", 4711);
    machine::SetRegistryString(support::kFrameworkService, "Text", "a text where a number should be");
    struct Case {
        PCWSTR name;
        ULONG value;         // 5 is the default
        const char* message; // behind the value's path; "": none is printed
        machine::Fault fault = machine::Fault::Count;
    };
    for (const Case& test : {Case{L"GlobalDebugFlag", kMask, " success, Value = 0xD00\n"},
                             {L"PendingPacketLimit", 4711, " success, Value = 0x1267\n"},
                             {L"Missing", 5, " success, Value = 0x5\n"},
                             {L"Text", 5, " fail, error = 0xC0000024\n"},
                             {L"PendingPacketLimit", 5, " fail, error = 0xC", machine::Fault::Registry},
                             {L"PendingPacketLimit", 5, "", machine::Fault::Pool}}) {
        machine::ClearFaults();
        if (test.fault != machine::Fault::Count) {
            machine::FailCall(test.fault, 1);
        }
        Debug().Take();
        EXPECT_EQ(Filter_RegGetDwordValue(&key, test.name, 5), test.value);
        EXPECT_THAT(
            Debug().Take(),
            testing::StartsWith(*test.message == 0 ? "" : query + Narrow(Counted(test.name)) + test.message));
    }
    machine::ClearFaults();
    EXPECT_EQ(Filter_GetGlobalDebugFlag(&key, 5), kMask);
    EXPECT_EQ(Filter_GetPendingPacketLimit(&key, 5), 4711u);
    machine::DeleteRegistryKey(support::kFrameworkService);
    EXPECT_EQ(Filter_GetGlobalDebugFlag(&key, 6), 6u);
    EXPECT_EQ(Filter_GetPendingPacketLimit(&key, 7), 7u);
}

TEST_F(ServicesTest, RegistryTextsFillTheCallersBufferOrGetOne)
{
    machine::SetRegistryString(support::kFrameworkService, "Title", "blue");
    const auto get = [&](PCWSTR name, UNICODE_STRING* text) {
        return Filter_RegGetStringValue(&key, name, text);
    };
    WCHAR room[5];
    UNICODE_STRING text = {0, sizeof(room), room};
    Debug().Take();
    EXPECT_TRUE(get(L"Title", &text));
    EXPECT_EQ(Narrow(text), "blue");
    EXPECT_EQ(text.Buffer, room);
    EXPECT_EQ(Debug().Take(), query + "Title success, Value = blue\n");
    EXPECT_TRUE(get(L"Missing", &text));
    EXPECT_EQ(text.Length, 0);
    text.MaximumLength -= 2; // the terminator does not fit
    EXPECT_FALSE(get(L"Title", &text));
    UNICODE_STRING allocated = {};
    ASSERT_TRUE(get(L"Title", &allocated));
    EXPECT_EQ(Narrow(allocated), "blue");
    ExFreePool(allocated.Buffer);
    machine::DeleteRegistryKey(support::kFrameworkService);
    EXPECT_FALSE(get(L"Title", &allocated));
    EXPECT_THAT(Debug().Take(), HasSubstr("\\Title fail, error = 0xC0000034\n"));
}

TEST_F(ServicesTest, TheDebugMaskIsReadByAWorkerForCallersAtAnyLevel)
{
    // What is queued ends before an unload does.
    ULONG result = 1;
    auto hold = std::make_unique<machine::WorkItemHold>();
    {
        const machine::AtDispatch raised;
        Filter_SafeGetGlobalDebugFlag(&key, 0, &result);
    }
    std::thread release([&] {
        EXPECT_TRUE(
            support::Eventually([&] { return Debug().Contains("Leave NdisFilter_TerminateShare\n"); }));
        // However long this looks, an unload that waits is not seen to go on.
        for (int i = 0; i < 50; i++) {
            EXPECT_FALSE(Debug().Contains("  IoFreeMdl() complete\n"));
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        hold.reset();
    });
    StopFramework();
    release.join();
    EXPECT_EQ(result, kMask);
}

TEST_F(ServicesTest, RegistryPathsAreCopiedAndTheirTailReplaced)
{
    UNICODE_STRING source = Counted(L"\\Services\\Alpha"), copy = {};
    for (const auto& [end, text] :
         {std::pair<PCWSTR, const char*>{nullptr, "\\Services\\Alpha"},
          {L"Gamma", "\\Services\\Gamma"},
          {L"more than \\Services\\Beta1", "\\Services\\Beta1"}}) { // its end has a place
        UNICODE_STRING tail = Counted(end);
        const auto run = [&, end = end] {
            return end == nullptr ? Filter_SaveDriverRegistryPath(&source, &copy)
                                  : Filter_ReplaceDriverRegistryPath(&source, &tail, &copy);
        };
        machine::FailCall(machine::Fault::Pool, 1);
        EXPECT_EQ(run(), STATUS_INSUFFICIENT_RESOURCES);
        ASSERT_EQ(run(), STATUS_SUCCESS);
        EXPECT_EQ(Narrow(copy), text);
        EXPECT_EQ(copy.Buffer[copy.Length / 2], 0);
        EXPECT_EQ(copy.MaximumLength, source.MaximumLength + 2);
        ExFreePool(copy.Buffer);
    }
}

TEST_F(ServicesTest, TheClockCountsFromTheYear1601)
{
    machine::StopClock(132223104000000000); // the start of the year 2020
    EXPECT_EQ(Filter_GetSystemTime(), 13222310400);
    EXPECT_EQ(Filter_GetSystemTimeMs(), 13222310400000);
    machine::AdvanceClock(1999);
    EXPECT_EQ(Filter_GetSystemTime(), 13222310401);
    EXPECT_EQ(Filter_GetSystemTimeMs(), 13222310401999);
    machine::StartClock();
}

constexpr int kMostEvents = 1023;
constexpr ULONG kTraceEventAndService = 0x810;

using EventsTest = Loaded<FrameworkOnly, kTraceEventAndService>;

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
