// What a client driver's author reads and compares: names of values, address texts, counted strings.
#include <gtest/gtest.h>

#include "support/client.h"

#include <climits>
#include <cstring>

using support::CountedString;

namespace
{

TEST(Names, OfEveryStatus)
{
    const char* const names[] = {
        "FILTER_STATUS_SUCCESS",
        "FILTER_ERROR_INVALID_ARGUMENT",
        "FILTER_ERROR_INVALID_HANDLE",
        "FILTER_ERROR_ADAPTER_NOT_OPEN",
        "FILTER_ERROR_INTERNAL_ERROR",
        "FILTER_ERROR_NO_FREE_ADAPTER_CONTEXT",
        "FILTER_ERROR_INVALID_ADAPTER_CONTEXT",
        "FILTER_ERROR_INVALID_ADAPTER_HANDLE",
        "FILTER_ERROR_UNSUPPORTED_API_VERSION",
        "FILTER_ERROR_DRIVER_ALREADY_REGISTERED",
        "FILTER_ERROR_INVALID_DRIVER_HANDLE",
        "FILTER_ERROR_BUFFER_TOO_SMALL",
        "FILTER_ERROR_DRIVER_NOT_FOUND",
        "FILTER_ERROR_EVENT_HANDLER_ALREADY_REGISTERED",
        "FILTER_ERROR_EVENT_HANDLER_NOT_FOUND",
        "FILTER_ERROR_INVALID_EVENT_HANDLER_OWNER",
        "FILTER_ERROR_INVALID_CONTEXT_OWNER",
        "FILTER_ERROR_INVALID_EVENT_HANDLER",
        "FILTER_ERROR_ADAPTER_NOT_FOUND",
        "FILTER_ERROR_INTERFACE_NOT_ACTIVE",
        "FILTER_ERROR_OUT_OF_MEMORY",
        "FILTER_ERROR_INVALID_NDIS_REQUEST",
        "FILTER_ERROR_EXCEPTION",
        "FILTER_ERROR_FILTER_ALREADY_REGISTERED",
        "FILTER_ERROR_INVALID_PACKET_FILTER",
        "FILTER_ERROR_FILTER_NOT_FOUND",
        "FILTER_ERROR_INVALID_FILTER_OWNER",
        "FILTER_ERROR_INTERFACE_ALREADY_REGISTERED",
        "FILTER_ERROR_INTERFACE_NOT_FOUND",
        "FILTER_ERROR_INVALID_FILTER_INTERFACE",
        "FILTER_ERROR_INVALID_INTERFACE_REFERENCE_OWNER",
        "FILTER_ERROR_INTERFACE_REFERENCE_NOT_FOUND",
        "FILTER_ERROR_INVALID_INTERFACE_OWNER",
        "FILTER_ERROR_INTERFACE_ARE_REFERENCED",
        "FILTER_ERROR_INTERFACE_ARE_INVALID",
        "FILTER_ERROR_INVALID_MEMORY_POINTER",
        "FILTER_ERROR_INVALID_TIMER_HANDLE",
        "FILTER_ERROR_INVALID_TIMER_HANDLER_OWNER",
        "FILTER_ERROR_TIMER_HANDLER_NOT_FOUND",
        "FILTER_ERROR_IOCTL_HANDLER_ALREADY_REGISTERED",
        "FILTER_ERROR_INVALID_IOCTL_HANDLER",
        "FILTER_ERROR_INVALID_IOCTL_HANDLER_OWNER",
        "FILTER_ERROR_IOCTL_HANDLER_NOT_FOUND",
        "FILTER_ERROR_UNSUPPORTED_PROTOCOL",
        "FILTER_ERROR_INVALID_FILTER_TYPE",
        "FILTER_ERROR_DRIVER_DIAG_IN_PROGRESS",
    };
    int status = 0;
    for (const char* name : names) {
        EXPECT_STREQ(Filter_StatusString(status--), name);
    }
    EXPECT_EQ(status, FILTER_ERROR_DRIVER_DIAG_IN_PROGRESS - 1);
    for (const int unknown : {1, -46, INT_MAX, INT_MIN}) {
        EXPECT_STREQ(Filter_StatusString(unknown), "Unknown") << unknown;
    }
    // The header's numbers, at a few places of the run.
    EXPECT_EQ(FILTER_ERROR_INTERFACE_NOT_ACTIVE, -19);
    EXPECT_EQ(FILTER_ERROR_INVALID_MEMORY_POINTER, -35);
    EXPECT_EQ(FILTER_ERROR_DRIVER_DIAG_IN_PROGRESS, -45);
}

TEST(Names, OfTheOtherEnumerations)
{
    struct Case {
        const char* actual;
        const char* expected;
    };
    const Case cases[] = {
        {Filter_ResultString(0), "FILTER_RESULT_BYPASS"},
        {Filter_ResultString(1), "FILTER_RESULT_DISCARD"},
        {Filter_ResultString(2), "FILTER_RESULT_CONSUME"},
        {Filter_ResultString(3), "FILTER_RESULT_CAPTURE"},
        {Filter_ResultString(4), "Unknown"},
        {Filter_ResultString(UINT_MAX), "Unknown"},
        {Filter_TypeString(-2), "Unknown"},
        {Filter_TypeString(-1), "FILTER_TYPE_INVALID"},
        {Filter_TypeString(0), "FILTER_TYPE_INCOMING_PACKET"},
        {Filter_TypeString(1), "FILTER_TYPE_OUTGOING_PACKET"},
        {Filter_TypeString(2), "FILTER_TYPE_INJECT_TO_ADAPTER"},
        {Filter_TypeString(3), "FILTER_TYPE_INJECT_TO_PROTOCOL"},
        {Filter_TypeString(4), "Unknown"},
        {Filter_OrderString(-2), "FILTER_ORDER_NEXT"},
        {Filter_OrderString(-1), "FILTER_ORDER_LAST"},
        {Filter_OrderString(0), "FILTER_ORDER_FIRST"},
        {Filter_OrderString(5), "FILTER_ORDER_FIXED"},
        {Filter_OrderString(-3), "FILTER_ORDER_FIXED"},
        {Filter_OrderString(INT_MAX), "FILTER_ORDER_FIXED"},
        {Filter_MethodString(0), "FILTER_METHOD_START_FROM_FIRST_FILTER"},
        {Filter_MethodString(1), "FILTER_METHOD_START_UNTIL_THIS_FILTER"},
        {Filter_MethodString(2), "FILTER_METHOD_STOP_AT_THIS_FILTER"},
        {Filter_MethodString(3), "FILTER_METHOD_START_FROM_THIS_FILTER"},
        {Filter_MethodString(4), "FILTER_METHOD_START_AFTER_THIS_FILTER"},
        {Filter_MethodString(5), "Unknown"},
    };
    for (const Case& names : cases) {
        EXPECT_STREQ(names.actual, names.expected);
    }
}

ULONG Address(UCHAR a, UCHAR b, UCHAR c, UCHAR d)
{
    const UCHAR bytes[] = {a, b, c, d};
    ULONG address;
    memcpy(&address, bytes, sizeof(address));
    return address;
}

TEST(AddressText, OfIpv4)
{
    struct Case {
        ULONG address;
        const char* text;
    };
    for (const Case& address :
         {Case{Address(192, 168, 0, 1), "192.168.0.1"}, Case{Address(10, 0, 100, 5), "10.0.100.5"},
          Case{0, "0.0.0.0"}, Case{Address(255, 255, 255, 255), "255.255.255.255"},
          Case{Address(9, 99, 100, 109), "9.99.100.109"}}) {
        char buffer[17];
        memset(buffer, '#', sizeof(buffer));
        EXPECT_EQ(inet_ntoa(address.address, buffer, 16), buffer);
        EXPECT_STREQ(buffer, address.text);
        EXPECT_EQ(buffer[16], '#');
    }
    char small[16] = "untouched";
    EXPECT_STREQ(inet_ntoa(Address(1, 2, 3, 4), small, 15), "");
    EXPECT_STREQ(small, "untouched");
    EXPECT_STREQ(inet_ntoa(Address(1, 2, 3, 4), nullptr, 16), "");
}

TEST(AddressText, OfAMacAddressIsUpperCaseAndTheSizeIsNotLookedAt)
{
    const UCHAR address[] = {0x00, 0x0C, 0x29, 0xAB, 0xCD, 0xEF};
    char buffer[19];
    memset(buffer, '#', sizeof(buffer));
    EXPECT_EQ(inet_mtoa(address, buffer, 0), buffer);
    EXPECT_STREQ(buffer, "00-0C-29-AB-CD-EF");
    EXPECT_EQ(buffer[18], '#');
}

TEST(AddressArithmetic, ByteOrderAndBroadcasts)
{
    EXPECT_EQ(htons(0x1234), 0x3412);
    EXPECT_EQ(ntohs(0xFF00), 0x00FF);
    EXPECT_EQ(htonl(0x12345678), 0x78563412u);
    EXPECT_EQ(ntohl(0x000000FF), 0xFF000000u);
    EXPECT_EQ(SubnetBroadcastAddress(Address(192, 168, 1, 20), Address(255, 255, 255, 0)),
              Address(192, 168, 1, 255));
    EXPECT_EQ(SubnetBroadcastAddress(Address(10, 1, 2, 3), Address(255, 240, 0, 0)),
              Address(10, 15, 255, 255));
    EXPECT_TRUE(IsBroadcastAddress(Address(192, 168, 1, 255)));
    EXPECT_TRUE(IsBroadcastAddress(Address(255, 255, 255, 255)));
    EXPECT_FALSE(IsBroadcastAddress(Address(192, 168, 1, 254)));
    EXPECT_FALSE(IsBroadcastAddress(Address(255, 255, 255, 0)));
}

TEST(CompareString, IsAnEqualityTestWithALengthTieBreak)
{
    struct Case {
        const char* a;
        const char* b;
        LONG expected;
    };
    for (const Case& strings : {Case{"abc", "abc", 0}, Case{"abc", "abd", 1}, Case{"abd", "abc", 1},
                                Case{"ab", "abc", -1}, Case{"abc", "ab", 1}, Case{"abc", "ABC", 1},
                                Case{"zz", "aaa", -1}, Case{"", "", 0}, Case{"", "a", -1}}) {
        EXPECT_EQ(Filter_CompareString(&CountedString(strings.a), &CountedString(strings.b)),
                  strings.expected)
            << strings.a << " and " << strings.b;
    }
    const CountedString some("abc");
    EXPECT_EQ(Filter_CompareString(nullptr, &some), -1);
    EXPECT_EQ(Filter_CompareString(&some, nullptr), -1);
    EXPECT_EQ(Filter_CompareString(nullptr, nullptr), -1);
}

} // namespace
