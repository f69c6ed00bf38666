// What a client driver's author reads and compares: names of values, address texts, counted strings.
#include <gtest/gtest.h>

#include "support/client.h"

#include <climits>
#include <cstring>
#include <functional>

using support::CountedString;

namespace
{

struct Value {
    LONG value;
    const char* name;
};

// clang-format off
#define VALUE(Name) {static_cast<LONG>(Name), #Name}

TEST(Names, OfEveryStatus)
{
    const Value values[] = {
        VALUE(FILTER_STATUS_SUCCESS), VALUE(FILTER_ERROR_INVALID_ARGUMENT),
        VALUE(FILTER_ERROR_INVALID_HANDLE), VALUE(FILTER_ERROR_ADAPTER_NOT_OPEN),
        VALUE(FILTER_ERROR_INTERNAL_ERROR), VALUE(FILTER_ERROR_NO_FREE_ADAPTER_CONTEXT),
        VALUE(FILTER_ERROR_INVALID_ADAPTER_CONTEXT), VALUE(FILTER_ERROR_INVALID_ADAPTER_HANDLE),
        VALUE(FILTER_ERROR_UNSUPPORTED_API_VERSION), VALUE(FILTER_ERROR_DRIVER_ALREADY_REGISTERED),
        VALUE(FILTER_ERROR_INVALID_DRIVER_HANDLE), VALUE(FILTER_ERROR_BUFFER_TOO_SMALL),
        VALUE(FILTER_ERROR_DRIVER_NOT_FOUND), VALUE(FILTER_ERROR_EVENT_HANDLER_ALREADY_REGISTERED),
        VALUE(FILTER_ERROR_EVENT_HANDLER_NOT_FOUND), VALUE(FILTER_ERROR_INVALID_EVENT_HANDLER_OWNER),
        VALUE(FILTER_ERROR_INVALID_CONTEXT_OWNER), VALUE(FILTER_ERROR_INVALID_EVENT_HANDLER),
        VALUE(FILTER_ERROR_ADAPTER_NOT_FOUND), VALUE(FILTER_ERROR_INTERFACE_NOT_ACTIVE),
        VALUE(FILTER_ERROR_OUT_OF_MEMORY), VALUE(FILTER_ERROR_INVALID_NDIS_REQUEST),
        VALUE(FILTER_ERROR_EXCEPTION), VALUE(FILTER_ERROR_FILTER_ALREADY_REGISTERED),
        VALUE(FILTER_ERROR_INVALID_PACKET_FILTER), VALUE(FILTER_ERROR_FILTER_NOT_FOUND),
        VALUE(FILTER_ERROR_INVALID_FILTER_OWNER), VALUE(FILTER_ERROR_INTERFACE_ALREADY_REGISTERED),
        VALUE(FILTER_ERROR_INTERFACE_NOT_FOUND), VALUE(FILTER_ERROR_INVALID_FILTER_INTERFACE),
        VALUE(FILTER_ERROR_INVALID_INTERFACE_REFERENCE_OWNER),
        VALUE(FILTER_ERROR_INTERFACE_REFERENCE_NOT_FOUND), VALUE(FILTER_ERROR_INVALID_INTERFACE_OWNER),
        VALUE(FILTER_ERROR_INTERFACE_ARE_REFERENCED), VALUE(FILTER_ERROR_INTERFACE_ARE_INVALID),
        VALUE(FILTER_ERROR_INVALID_MEMORY_POINTER), VALUE(FILTER_ERROR_INVALID_TIMER_HANDLE),
        VALUE(FILTER_ERROR_INVALID_TIMER_HANDLER_OWNER), VALUE(FILTER_ERROR_TIMER_HANDLER_NOT_FOUND),
        VALUE(FILTER_ERROR_IOCTL_HANDLER_ALREADY_REGISTERED), VALUE(FILTER_ERROR_INVALID_IOCTL_HANDLER),
        VALUE(FILTER_ERROR_INVALID_IOCTL_HANDLER_OWNER), VALUE(FILTER_ERROR_IOCTL_HANDLER_NOT_FOUND),
        VALUE(FILTER_ERROR_UNSUPPORTED_PROTOCOL), VALUE(FILTER_ERROR_INVALID_FILTER_TYPE),
        VALUE(FILTER_ERROR_DRIVER_DIAG_IN_PROGRESS),
    };
    LONG status = 0;
    for (const Value& value : values) {
        EXPECT_EQ(value.value, status--);
        EXPECT_STREQ(Filter_StatusString(value.value), value.name);
    }
    for (const int unknown : {1, -46, INT_MAX, INT_MIN}) {
        EXPECT_STREQ(Filter_StatusString(unknown), "Unknown") << unknown;
    }
}

TEST(Names, OfTheOtherEnumerations)
{
    struct Enumeration {
        std::function<const char*(LONG)> name;
        std::vector<Value> values;
    };
    const Enumeration enumerations[] = {
        {[](LONG value) { return Filter_ResultString(static_cast<FILTER_RESULT>(value)); },
         {VALUE(FILTER_RESULT_BYPASS), VALUE(FILTER_RESULT_DISCARD), VALUE(FILTER_RESULT_CONSUME),
          VALUE(FILTER_RESULT_CAPTURE), {4, "Unknown"}, {-1, "Unknown"}}},
        {Filter_TypeString,
         {VALUE(FILTER_TYPE_INVALID), VALUE(FILTER_TYPE_INCOMING_PACKET), VALUE(FILTER_TYPE_OUTGOING_PACKET),
          VALUE(FILTER_TYPE_INJECT_TO_ADAPTER), VALUE(FILTER_TYPE_INJECT_TO_PROTOCOL), {-2, "Unknown"},
          {4, "Unknown"}}},
        {Filter_OrderString,
         {VALUE(FILTER_ORDER_NEXT), VALUE(FILTER_ORDER_LAST), VALUE(FILTER_ORDER_FIRST),
          {5, "FILTER_ORDER_FIXED"}, {-3, "FILTER_ORDER_FIXED"}, {INT_MAX, "FILTER_ORDER_FIXED"}}},
        {[](LONG value) { return Filter_MethodString(static_cast<FILTER_METHOD>(value)); },
         {VALUE(FILTER_METHOD_START_FROM_FIRST_FILTER), VALUE(FILTER_METHOD_START_UNTIL_THIS_FILTER),
          VALUE(FILTER_METHOD_STOP_AT_THIS_FILTER), VALUE(FILTER_METHOD_START_FROM_THIS_FILTER),
          VALUE(FILTER_METHOD_START_AFTER_THIS_FILTER), {5, "Unknown"}}},
    };
    for (const auto& [name, values] : enumerations) {
        for (const Value& value : values) {
            EXPECT_STREQ(name(value.value), value.name);
        }
    }
}
// clang-format on

ULONG Address(UCHAR a, UCHAR b, UCHAR c, UCHAR d)
{
    const UCHAR bytes[] = {a, b, c, d};
    ULONG address;
    memcpy(&address, bytes, sizeof(address));
    return address;
}

TEST(AddressText, OfIpv4AndMacAddresses)
{
    const std::pair<ULONG, const char*> addresses[] = {
        {Address(192, 168, 0, 1), "192.168.0.1"},
        {Address(10, 0, 100, 5), "10.0.100.5"},
        {0, "0.0.0.0"},
        {Address(255, 255, 255, 255), "255.255.255.255"},
        {Address(9, 99, 100, 109), "9.99.100.109"},
    };
    char buffer[19];
    for (const auto& [address, text] : addresses) {
        memset(buffer, '#', sizeof(buffer));
        EXPECT_EQ(inet_ntoa(address, buffer, 16), buffer);
        EXPECT_STREQ(buffer, text);
        EXPECT_EQ(buffer[16], '#');
    }
    buffer[0] = '#';
    EXPECT_STREQ(inet_ntoa(Address(1, 2, 3, 4), buffer, 15), "");
    EXPECT_EQ(buffer[0], '#');
    EXPECT_STREQ(inet_ntoa(Address(1, 2, 3, 4), nullptr, 16), "");

    const UCHAR mac[] = {0x00, 0x0C, 0x29, 0xAB, 0xCD, 0xEF};
    EXPECT_EQ(inet_mtoa(mac, buffer, 0), buffer); // the size is not looked at
    EXPECT_STREQ(buffer, "00-0C-29-AB-CD-EF");
    EXPECT_EQ(buffer[18], '#');
}

TEST(AddressArithmetic, ByteOrderAndBroadcasts)
{
    EXPECT_EQ(htons(0x1234), 0x3412);
    EXPECT_EQ(htonl(0x12345678), 0x78563412u);
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
