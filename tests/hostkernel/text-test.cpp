// Exceptions and formatted text.
#include "probe-driver.h"

#include <support/faults.h>

#include <hostguard.h>

#include <climits>

namespace
{

std::string Format(const char* format, ...)
{
    char buffer[256];
    va_list arguments;
    va_start(arguments, format);
    const int length = _vsnprintf(buffer, sizeof(buffer), format, arguments);
    va_end(arguments);
    return length < 0 ? "too long" : std::string(buffer, static_cast<size_t>(length));
}

TEST(Text, FollowsTheWindowsRules)
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
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(text, expected);
    }
}

TEST(Text, ThatDoesNotFitIsCutWithoutATerminator)
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

TEST(Exceptions, AreCaughtByTheInnermostGuard)
{
    const std::pair<NTSTATUS, void (*)(void*)> cases[] = {
        {STATUS_ACCESS_VIOLATION, [](void*) { support::FaultOnRead(); }},
        {STATUS_INTEGER_DIVIDE_BY_ZERO, [](void*) { support::FaultOnDivision(); }},
        {STATUS_ILLEGAL_INSTRUCTION, [](void*) { asm volatile("ud2"); }},
        {STATUS_ACCESS_VIOLATION, [](void*) { support::CallNowhere(nullptr); }},
        {STATUS_ACCESS_VIOLATION,
         [](void* inner) { support::CallNowhere(inner); }}, // memory that holds no code
        {STATUS_NO_MEMORY, [](void*) { ExRaiseStatus(STATUS_NO_MEMORY); }},
        {STATUS_CANCELLED,
         [](void* inner) {
             *static_cast<NTSTATUS*>(inner) =
                 HostCallGuarded(nullptr, [](void*) { ExRaiseAccessViolation(); });
             ExRaiseStatus(STATUS_CANCELLED);
         }},
        {0, [](void*) {}},
    };
    NTSTATUS inner = 0;
    for (const auto& [status, routine] : cases) {
        EXPECT_EQ(HostCallGuarded(&inner, routine), status);
    }
    EXPECT_EQ(inner, STATUS_ACCESS_VIOLATION);
}

TEST(ExceptionsDeathTest, OutsideAnyGuardTheyEndTheProcess)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    HostCallGuarded(nullptr, [](void*) { support::FaultOnRead(); }); // a guard that has ended takes nothing
    EXPECT_DEATH(ExRaiseStatus(STATUS_NO_MEMORY), "unhandled-exception in ExRaiseStatus: status C0000017");
    EXPECT_DEATH(support::FaultOnRead(), "");
}

} // namespace
