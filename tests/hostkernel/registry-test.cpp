// Queries of the registry.
#include "probe-driver.h"

using namespace probe;

namespace
{

constexpr char16_t kKey[] = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\RegistryTest";

NTSTATUS Query(const char16_t* name, ULONG type, void* result, const void* defaultData, ULONG flags = 0)
{
    RTL_QUERY_REGISTRY_TABLE table[2] = {};
    table[0].Flags = RTL_QUERY_REGISTRY_DIRECT | flags;
    table[0].Name = Name(name).Buffer;
    table[0].EntryContext = result;
    table[0].DefaultType = type;
    table[0].DefaultData = const_cast<void*>(defaultData);
    table[0].DefaultLength = type == REG_DWORD && defaultData != nullptr ? 4 : 0;
    return RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, Name(kKey).Buffer, table, nullptr, nullptr);
}

using RegistryTest = DriverTest;

TEST_F(RegistryTest, ValuesDefaultsAndFailures)
{
    machine::SetRegistryDword("RegistryTest", "Number", 0x12345678);
    machine::SetRegistryDword("RegistryTest", "\xF0\x9F\x98\x80", 9);
    machine::SetRegistryString("RegistryTest", "Text", "g\xC3\xB6 \xF0\x9F\x98\x80"); // "gö" and U+1F600
    const ULONG fallback = 2048;
    const ULONG isNumber = REG_DWORD << RTL_QUERY_REGISTRY_TYPECHECK_SHIFT;
    struct Case {
        const char16_t* name;
        ULONG type, flags;
        NTSTATUS status;
        ULONG number; // 7 when it is left alone
    };
    for (const Case& one :
         {Case{u"NUMBER", REG_DWORD, 0, STATUS_SUCCESS, 0x12345678},
          {u"\U0001F600", REG_DWORD, 0, STATUS_SUCCESS, 9},
          {u"Missing", REG_DWORD, 0, STATUS_SUCCESS, fallback},
          {u"Missing", REG_NONE, 0, STATUS_SUCCESS, 7},
          {u"Missing", REG_DWORD, RTL_QUERY_REGISTRY_REQUIRED, STATUS_OBJECT_NAME_NOT_FOUND, 7},
          {u"Text", isNumber, RTL_QUERY_REGISTRY_TYPECHECK, STATUS_OBJECT_TYPE_MISMATCH, 7}}) {
        ULONG number = 7;
        EXPECT_EQ(Query(one.name, one.type, &number, &fallback, one.flags), one.status);
        EXPECT_EQ(number, one.number);
    }
    ULONG number = 7;
    EXPECT_EQ(Query(u"Text", REG_DWORD, &number, &fallback), STATUS_OBJECT_TYPE_MISMATCH);
    ExpectRule("registry-type-mismatch");
    EXPECT_EQ(number, 7u);

    WCHAR buffer[8] = {};
    UNICODE_STRING text = {0, sizeof(buffer), buffer};
    EXPECT_EQ(Query(u"Text", REG_SZ, &text, u""), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(buffer)), u"g\u00F6 \U0001F600");
    EXPECT_EQ(text.Length, 10);
    EXPECT_EQ(Query(u"Missing", REG_SZ, &text, u"none"), STATUS_SUCCESS);
    EXPECT_EQ(text.Length, 8);
    text.MaximumLength = 10; // one short: the terminator does not fit
    EXPECT_EQ(Query(u"Text", REG_SZ, &text, u""), STATUS_BUFFER_TOO_SMALL);
    UNICODE_STRING allocated = {};
    EXPECT_EQ(Query(u"Text", REG_SZ, &allocated, u""), STATUS_SUCCESS);
    EXPECT_EQ(allocated.MaximumLength, 12);
    ExFreePool(allocated.Buffer);

    machine::DeleteRegistryKey("RegistryTest");
    const machine::AtDispatch dispatch;
    EXPECT_EQ(Query(u"Number", REG_DWORD, &number, &fallback), STATUS_OBJECT_NAME_NOT_FOUND);
    ExpectRule("irql-too-high");
}

} // namespace
