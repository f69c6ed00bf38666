// Memory, locks, settings and the clock, as a client driver uses them.
#include "support/framework.h"

#include <cstring>
#include <string>
#include <thread>

using support::FrameworkOnly;
using support::FrameworkTest;
using support::PointerText;
using support::Unreadable;
using testing::HasSubstr;

namespace
{

constexpr ULONG kTag = 0x54534554; // "TEST"
constexpr ULONG kMask = 0xD00;     // common services, and what an unload says
constexpr NTSTATUS kInvalidParameter = static_cast<NTSTATUS>(0xC000000D);
constexpr NTSTATUS kInsufficientResources = static_cast<NTSTATUS>(0xC000009A);

// A zero-terminated wide text of the kernel, and as a counted string.
class WideText
{
  public:
    explicit WideText(std::string_view text) : units_(text.begin(), text.end())
    {
        units_.push_back(0);
        string_ = {static_cast<USHORT>(2 * text.size()), static_cast<USHORT>(2 * units_.size()),
                   units_.data()};
    }
    UNICODE_STRING* Counted() { return &string_; }
    PCWSTR Zero() const { return units_.data(); }

  private:
    std::vector<WCHAR> units_;
    UNICODE_STRING string_;
};

std::string Narrow(const UNICODE_STRING& text)
{
    return std::string(text.Buffer, text.Buffer + text.Length / sizeof(WCHAR));
}

WideText ServiceKey()
{
    return WideText("\\Registry\\Machine\\System\\CurrentControlSet\\Services\\NdisFilter");
}

class ServicesTest : public FrameworkTest
{
  protected:
    ServicesTest() : FrameworkTest(FrameworkOnly(kMask)) {}
};

TEST_F(ServicesTest, AnAllocationIsTaggedAndFreedOnce)
{
    Debug().Take();
    auto* block = static_cast<UCHAR*>(Filter_AllocateMemory(100, kTag));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(reinterpret_cast<ULONG_PTR>(block) % 8, 0u);
    ULONG header[2];
    memcpy(header, block - sizeof(header), sizeof(header));
    EXPECT_EQ(header[0], 112u);        // the header, the block and four spare bytes
    EXPECT_EQ(header[1], 0x54414737u); // "7GAT"
    memset(block, 0x55, 104);
    EXPECT_EQ(Debug().Take(),
              "Enter Filter_AllocateMemory\nLeave Filter_AllocateMemory, " + PointerText(block) + "\n");

    EXPECT_EQ(Filter_FreeMemory(block), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Debug().Take(), "Enter Filter_FreeMemory\nLeave Filter_FreeMemory, 0-FILTER_STATUS_SUCCESS\n");
    // Freeing what is no block frees nothing.
    EXPECT_EQ(Filter_FreeMemory(block), FILTER_ERROR_INVALID_MEMORY_POINTER);
    EXPECT_EQ(Debug().Take(), "Enter Filter_FreeMemory\n  pFilterMemory->m_Tag != FILTER_MEMORY_TAG\n"
                              "  Error: -35 - FILTER_ERROR_INVALID_MEMORY_POINTER\n"
                              "Leave Filter_FreeMemory, -35-FILTER_ERROR_INVALID_MEMORY_POINTER\n");
    ULONGLONG foreign[4] = {};
    EXPECT_EQ(Filter_FreeMemory(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_THAT(Debug().Take(), HasSubstr("  ppVirtualAddress == NULL\n"));
    EXPECT_EQ(Filter_FreeMemory(&foreign[2]), FILTER_ERROR_INVALID_MEMORY_POINTER);
    EXPECT_EQ(Filter_FreeMemory(Unreadable<UCHAR>() + 64), FILTER_ERROR_EXCEPTION);
    EXPECT_THAT(Debug().Take(), HasSubstr("Filter_FreeMemory: exception, code = -1073741819\n"));
}

TEST_F(ServicesTest, AnAllocationOfNoBytesIsAPointerAndAnImpossibleOneIsNull)
{
    PVOID empty = Filter_AllocateMemory(0, kTag);
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(Filter_FreeMemory(empty), FILTER_STATUS_SUCCESS);

    machine::FailCall(machine::Fault::Pool, 1);
    Debug().Take();
    EXPECT_EQ(Filter_AllocateMemory(100, kTag), nullptr);
    EXPECT_EQ(Debug().Take(), "Enter Filter_AllocateMemory\n  NdisAllocateMemory(size=112) fails\n"
                              "Leave Filter_AllocateMemory, 0x0000000000000000\n");
    // The overhead must not wrap the size round to a small block.
    EXPECT_EQ(Filter_AllocateMemory(0xFFFFFFF8, kTag), nullptr);
}

TEST_F(ServicesTest, ALockExcludesOtherProcessorsAndGivesTheLevelBack)
{
    constexpr int kRounds = 1000;
    FilterLock lock;
    memset(&lock, 0xFF, sizeof(lock));
    ASSERT_EQ(Filter_InitializeLock(&lock), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(lock.m_SpinLock, 0u);
    int count = 0;
    const auto work = [&] {
        for (int i = 0; i < kRounds; i++) {
            Filter_AcquireLock(&lock);
            count++;
            Filter_ReleaseLock(&lock);
        }
        machine::CheckReturnToUser("a thread that used the lock");
    };
    std::thread other(work);
    work();
    other.join();
    EXPECT_EQ(count, 2 * kRounds);

    EXPECT_EQ(Filter_AcquireLock(&lock), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    EXPECT_EQ(lock.m_OldIrql, PASSIVE_LEVEL);
    EXPECT_EQ(Filter_ReleaseLock(&lock), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    {
        const machine::AtDispatch raised;
        EXPECT_EQ(Filter_AcquireLock(&lock), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(Filter_ReleaseLock(&lock), FILTER_STATUS_SUCCESS);
        EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    }
    EXPECT_EQ(Filter_FreeLock(&lock), FILTER_STATUS_SUCCESS);

    for (const auto function :
         {Filter_InitializeLock, Filter_AcquireLock, Filter_ReleaseLock, Filter_FreeLock}) {
        EXPECT_EQ(function(nullptr), FILTER_ERROR_INVALID_ARGUMENT);
        EXPECT_EQ(function(Unreadable<FilterLock>()),
                  function == Filter_FreeLock ? FILTER_STATUS_SUCCESS : FILTER_ERROR_EXCEPTION);
        ExpectNoLockHeld("a faulting lock");
    }
}

TEST_F(ServicesTest, RegistryNumbersComeWithAMessageOrAsTheDefault)
{
    WideText key = ServiceKey();
    machine::SetRegistryDword(support::kFrameworkService, "PendingPacketLimit", 4711);
    machine::SetRegistryDword(support::kFrameworkService, "Colour", 0xABC);
    const std::string path = Narrow(*key.Counted());
    Debug().Take();

    EXPECT_EQ(Filter_GetGlobalDebugFlag(key.Counted(), 5), kMask);
    EXPECT_EQ(Filter_GetPendingPacketLimit(key.Counted(), 5), 4711u);
    const std::string query = "RtlQueryRegistryValues " + path;
    EXPECT_EQ(Debug().Take(), query + "\\GlobalDebugFlag success, Value = 0xD00\n" + query +
                                  "\\PendingPacketLimit success, Value = 0x1267\n");
    EXPECT_EQ(Filter_RegGetDwordValue(key.Counted(), WideText("Colour").Zero(), 5), 0xABCu);
    EXPECT_EQ(Filter_RegGetDwordValue(key.Counted(), WideText("Missing").Zero(), 5), 5u);

    // A value of another type or a missing key is a failed query.
    machine::SetRegistryString(support::kFrameworkService, "GlobalDebugFlag",
                               "a text where a number should be");
    EXPECT_EQ(Filter_GetGlobalDebugFlag(key.Counted(), 5), 5u);
    EXPECT_THAT(Debug().Take(), HasSubstr("\\GlobalDebugFlag fail, error = 0x"));
    machine::DeleteRegistryKey(support::kFrameworkService);
    Debug().Take();
    EXPECT_EQ(Filter_RegGetDwordValue(key.Counted(), WideText("Colour").Zero(), 6), 6u);
    EXPECT_EQ(Debug().Take(), "RtlQueryRegistryValues " + path + "\\Colour fail, error = 0xC0000034\n");

    // No memory for the query: the default, without a message.
    machine::FailCall(machine::Fault::Pool, 1);
    EXPECT_EQ(Filter_RegGetDwordValue(key.Counted(), WideText("Colour").Zero(), 7), 7u);
    EXPECT_EQ(Debug().Take(), "");
    machine::FailCall(machine::Fault::Registry, 1);
    EXPECT_EQ(Filter_GetPendingPacketLimit(key.Counted(), 8), 8u);
    EXPECT_THAT(Debug().Take(), HasSubstr("\\PendingPacketLimit fail, error = 0x"));
}

TEST_F(ServicesTest, RegistryTextsFillTheCallersBufferOrGetOne)
{
    WideText key = ServiceKey();
    machine::SetRegistryString(support::kFrameworkService, "Title", "blue");
    WCHAR room[16];
    UNICODE_STRING text = {0, sizeof(room), room};
    Debug().Take();
    EXPECT_TRUE(Filter_RegGetStringValue(key.Counted(), WideText("Title").Zero(), &text));
    EXPECT_EQ(Narrow(text), "blue");
    EXPECT_EQ(text.Buffer, room);
    EXPECT_EQ(Debug().Take(),
              "RtlQueryRegistryValues " + Narrow(*key.Counted()) + "\\Title success, Value = blue\n");

    EXPECT_TRUE(Filter_RegGetStringValue(key.Counted(), WideText("Missing").Zero(), &text));
    EXPECT_EQ(text.Length, 0);

    UNICODE_STRING allocated = {};
    ASSERT_TRUE(Filter_RegGetStringValue(key.Counted(), WideText("Title").Zero(), &allocated));
    EXPECT_EQ(Narrow(allocated), "blue");
    ExFreePool(allocated.Buffer);

    machine::DeleteRegistryKey(support::kFrameworkService);
    EXPECT_FALSE(Filter_RegGetStringValue(key.Counted(), WideText("Title").Zero(), &text));
    EXPECT_THAT(Debug().Take(), HasSubstr("\\Title fail, error = 0xC0000034\n"));
    machine::FailCall(machine::Fault::Pool, 1);
    EXPECT_FALSE(Filter_RegGetStringValue(key.Counted(), WideText("Title").Zero(), &text));
}

TEST_F(ServicesTest, TheDebugMaskIsReadByAWorkerForCallersAtAnyLevel)
{
    WideText key = ServiceKey();
    ULONG result = 1;
    {
        const machine::AtDispatch raised;
        Filter_SafeGetGlobalDebugFlag(key.Counted(), 0, &result);
    }
    ASSERT_TRUE(machine::WaitIdle());
    EXPECT_EQ(result, kMask);

    result = 1;
    machine::FailCall(machine::Fault::Pool, 1);
    Filter_SafeGetGlobalDebugFlag(key.Counted(), 0, &result);
    ASSERT_TRUE(machine::WaitIdle());
    EXPECT_EQ(result, 1u);

    // One that is queued ends before an unload does.
    result = 1;
    auto hold = std::make_unique<machine::WorkItemHold>();
    Filter_SafeGetGlobalDebugFlag(key.Counted(), 0, &result);
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
    WideText source("\\Services\\Alpha");
    WideText tail("Gamma");
    UNICODE_STRING copy = {};
    EXPECT_EQ(Filter_SaveDriverRegistryPath(nullptr, &copy), kInvalidParameter);
    EXPECT_EQ(Filter_SaveDriverRegistryPath(source.Counted(), nullptr), kInvalidParameter);
    EXPECT_EQ(Filter_ReplaceDriverRegistryPath(source.Counted(), nullptr, &copy), kInvalidParameter);
    EXPECT_EQ(Filter_ReplaceDriverRegistryPath(nullptr, tail.Counted(), &copy), kInvalidParameter);
    EXPECT_EQ(Filter_ReplaceDriverRegistryPath(source.Counted(), tail.Counted(), nullptr), kInvalidParameter);
    const auto expectCopy = [&](NTSTATUS status, const char* text) {
        ASSERT_EQ(status, STATUS_SUCCESS);
        EXPECT_EQ(Narrow(copy), text);
        EXPECT_EQ(copy.Buffer[copy.Length / 2], 0);
        ExFreePool(copy.Buffer);
    };
    expectCopy(Filter_SaveDriverRegistryPath(source.Counted(), &copy), "\\Services\\Alpha");
    EXPECT_EQ(copy.MaximumLength, source.Counted()->MaximumLength + 2);
    expectCopy(Filter_ReplaceDriverRegistryPath(source.Counted(), tail.Counted(), &copy),
               "\\Services\\Gamma");

    machine::FailAllFrom(machine::Fault::Pool, 1);
    EXPECT_EQ(Filter_SaveDriverRegistryPath(source.Counted(), &copy), kInsufficientResources);
    EXPECT_EQ(Filter_ReplaceDriverRegistryPath(source.Counted(), tail.Counted(), &copy),
              kInsufficientResources);
}

struct OsVersionTest : FrameworkTest {};

TEST_F(OsVersionTest, ComesFromTheHookDriver)
{
    ULONG values[4] = {};
    EXPECT_EQ(Filter_GetOsVersion(nullptr, nullptr, nullptr, nullptr), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Filter_GetOsVersion(&values[0], &values[1], &values[2], &values[3]), FILTER_STATUS_SUCCESS);
    EXPECT_NE(values[0], 0u);
    EXPECT_EQ(Filter_GetOsVersion(Unreadable<ULONG>(), &values[1], &values[2], &values[3]),
              FILTER_ERROR_EXCEPTION);
    EXPECT_TRUE(Debug().Contains("Filter_GetOsVersion: exception, code = -1073741819\n"));
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

} // namespace
