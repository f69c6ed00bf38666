// What a client driver's author reads and compares: names of values, address texts, counted strings.
#include <gtest/gtest.h>

#include "support/client.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>

using support::CountedString;

namespace
{

struct Value {
    LONG value;
    const char* name;
};

// The header that client drivers are compiled with is the list.
TEST(Names, OfEveryStatus)
{
    std::ifstream header(NDISFILTER_TEST_DATA "/../../driver/kernel/filter/include/ndisfilter.h");
    LONG status = 0;
    for (std::string line; std::getline(header, line);) {
        char name[64];
        int value;
        if (std::sscanf(line.c_str(), "#define FILTER_%63s %*[(]%d", name, &value) == 2 ||
            std::sscanf(line.c_str(), "#define FILTER_%63s %d", name, &value) == 2) {
            const std::string full = std::string("FILTER_") + name;
            if (full.starts_with("FILTER_STATUS_") || full.starts_with("FILTER_ERROR_")) {
                EXPECT_EQ(value, status);
                EXPECT_EQ(Filter_StatusString(status--), full);
            }
        }
    }
    EXPECT_EQ(status, -46);
    for (const int unknown : {1, -46, INT_MAX, INT_MIN}) {
        EXPECT_STREQ(Filter_StatusString(unknown), "Unknown") << unknown;
    }
}

// clang-format off
#define VALUE(Name) {static_cast<LONG>(Name), #Name}

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
    EXPECT_EQ(Filter_CompareString(nullptr, nullptr), -1);
}

} // namespace
