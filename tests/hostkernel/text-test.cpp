// Exceptions, the debug print and formatted text.
#include "rules.h"

#include <hostguard.h>
#include <ntddk.h>

#include <climits>
#include <thread>

namespace
{

class Text : public KernelTest
{
  protected:
    static std::string Format(const char* format, ...)
    {
        char buffer[256];
        va_list arguments;
        va_start(arguments, format);
        int length = _vsnprintf(buffer, sizeof(buffer), format, arguments);
        va_end(arguments);
        return length < 0 ? "too long" : std::string(buffer, static_cast<size_t>(length));
    }
};

TEST_F(Text, FollowsTheWindowsRules)
{
    constexpr long long kBig = 0x123456789ABCDEF0;
    const char16_t* wide = u"na\u00efve \u20ac \U0001F600";
    UNICODE_STRING counted;
    RtlInitUnicodeString(&counted, reinterpret_cast<PCWSTR>(u"eth0 and more"));
    counted.Length = 8;
    UNICODE_STRING empty = {0, 0, nullptr};
    ANSI_STRING narrow;
    RtlInitAnsiString(&narrow, "narrow");

    const std::pair<std::string, const char*> cases[] = {
        {Format("%d %i %u %ld %lu", -1, 7, UINT_MAX, -2, 4000000000u), "-1 7 4294967295 -2 4000000000"},
        {Format("%ld|%d", 1, 2), "1|2"}, // both take 32 bits
        {Format("%x %X %#x %#X %o %#o", 0xbeef, 0xbeef, 0xbeef, 0xbeef, 8, 8),
         "beef BEEF 0xbeef 0XBEEF 10 010"},
        {Format("%I64d %I64x %lld %llu %Iu %I32d", kBig, kBig, -kBig, kBig, size_t{5}, -5),
         "1311768467463790320 123456789abcdef0 -1311768467463790320 1311768467463790320 5 -5"},
        {Format("%hd %hu %hhu", 65537, 65537, 257), "1 1 1"},
        {Format("%p %p", reinterpret_cast<void*>(0xABCDEF), nullptr), "0000000000ABCDEF 0000000000000000"},
        {Format("[%5d] [%-5d] [%05d] [%+d] [% d] [%.3d] [%5.3d] [%05.3d]", 42, 42, -42, 42, 42, 7, 7, 7),
         "[   42] [42   ] [-0042] [+42] [ 42] [007] [  007] [  007]"},
        {Format("[%*d] [%-*d] [%*d] [%.*s]", 4, 1, 4, 1, -4, 1, 2, "abc"), "[   1] [1   ] [1   ] [ab]"},
        {Format("%d %.0d|", INT_MIN, 0), "-2147483648 |"},
        {Format("[%s] [%6s] [%-6s] [%.2s] [%c%5c]", "abc", "abc", "abc", "abc", 'x', 'y'),
         "[abc] [   abc] [abc   ] [ab] [x    y]"},
        {Format("%S|%ws|%ls|%hs|%.2S", wide, wide, wide, "narrow", wide),
         "na\u00efve \u20ac \U0001F600|na\u00efve \u20ac \U0001F600|na\u00efve \u20ac \U0001F600|narrow|na"},
        {Format("[%wZ] [%6wZ] [%Z] [%wZ] [%C%wc]", &counted, &counted, &narrow, &empty, 0x20ac, 'x'),
         "[eth0] [  eth0] [narrow] [(null)] [\u20acx]"},
        {Format("%s %S %ws %wZ %.3s", nullptr, nullptr, nullptr, nullptr, nullptr),
         "(null) (null) (null) (null) (nu"},
        {Format("%S", u"\xd800x"), "?x"},
        {Format("100%% %k %"), "100% k "},
    };
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(text, expected);
}

TEST_F(Text, ThatDoesNotFitIsCutWithoutATerminator)
{
    char buffer[8];
    memset(buffer, '#', sizeof(buffer));
    EXPECT_EQ(_snprintf(buffer, 4, "%s", "abc"), 3);
    EXPECT_STREQ(buffer, "abc");
    EXPECT_EQ(_snprintf(buffer, 4, "%d", 1234), 4); // just fits
    EXPECT_EQ(std::string(buffer, 5), "1234#");
    EXPECT_EQ(_snprintf(buffer, 4, "%s", "vwxyz"), -1);
    EXPECT_EQ(std::string(buffer, 5), "vwxy#");
    EXPECT_EQ(_snprintf(nullptr, 0, "%s", "vwxyz"), 5);
}

TEST_F(Text, PrintedGoesToTheInnermostReceiver)
{
    machine::DebugCapture outer;
    {
        machine::DebugCapture inner;
        DbgPrint("%s", std::string(600, 'x').c_str());
        EXPECT_EQ(inner.Take(), std::string(512, 'x')); // the longest print
        EXPECT_EQ(inner.Text(), "");
    }
    DbgPrint("three");
    EXPECT_EQ(outer.Text(), "three");
}

using Exceptions = KernelTest;

__attribute__((no_sanitize("undefined"))) void ReadNull(void*)
{
    volatile int* volatile address = nullptr;
    [[maybe_unused]] int value = *address;
}

__attribute__((no_sanitize("undefined"))) void DivideByZero(void* zero)
{
    volatile int number = 1;
    number = number / *static_cast<volatile int*>(zero);
}

NTSTATUS CatchNull()
{
    return HostCallGuarded(ReadNull, nullptr);
}

TEST_F(Exceptions, AreCaughtByTheInnermostGuard)
{
    volatile int zero = 0;
    EXPECT_EQ(
        HostCallGuarded([](void* ran) { *static_cast<volatile int*>(ran) = 0; }, const_cast<int*>(&zero)), 0);
    EXPECT_EQ(CatchNull(), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(HostCallGuarded(DivideByZero, const_cast<int*>(&zero)), STATUS_INTEGER_DIVIDE_BY_ZERO);
    EXPECT_EQ(HostCallGuarded([](void*) { asm volatile("ud2"); }, nullptr), STATUS_ILLEGAL_INSTRUCTION);
    EXPECT_EQ(HostCallGuarded([](void*) { ExRaiseStatus(STATUS_NO_MEMORY); }, nullptr), STATUS_NO_MEMORY);
    auto nested = [](void* order) {
        auto* seen = static_cast<std::string*>(order);
        *seen += HostCallGuarded([](void*) { ExRaiseAccessViolation(); }, nullptr) == STATUS_ACCESS_VIOLATION
                     ? "i"
                     : "?";
        ExRaiseStatus(STATUS_CANCELLED);
    };
    std::string seen;
    EXPECT_EQ(HostCallGuarded(nested, &seen), STATUS_CANCELLED);
    EXPECT_EQ(seen, "i");
    // On two threads at once, again and again.
    const auto catchMany = [] {
        for (int n = 0; n < 500; n++) {
            EXPECT_EQ(CatchNull(), STATUS_ACCESS_VIOLATION);
        }
    };
    std::thread other(catchMany);
    catchMany();
    other.join();
}

TEST(ExceptionsDeathTest, OutsideAnyGuardTheyEndTheProcess)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    CatchNull(); // a guard that has ended takes nothing
    EXPECT_DEATH(ExRaiseStatus(STATUS_NO_MEMORY), "unhandled-exception in ExRaiseStatus: status C0000017");
    EXPECT_DEATH(ReadNull(nullptr), "");
}

} // namespace
