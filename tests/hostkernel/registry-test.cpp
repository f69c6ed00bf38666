// Queries of the registry.
#include "probe-driver.h"

using namespace probe;

namespace
{

constexpr char16_t kKey[] = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\RegistryTest";

class RegistryTest : public DriverTest
{
  protected:
    void SetUp() override
    {
        DriverTest::SetUp();
        machine::SetRegistryDword("RegistryTest", "Number", 0x12345678);
        machine::SetRegistryString("RegistryTest", "Text", "g\xC3\xB6 \xF0\x9F\x98\x80"); // "gö" and U+1F600
    }

    static NTSTATUS Query(const char16_t* name, ULONG type, void* result, const void* defaultData,
                          ULONG defaultLength, ULONG flags = 0)
    {
        RTL_QUERY_REGISTRY_TABLE table[2] = {};
        table[0].Flags = RTL_QUERY_REGISTRY_DIRECT | flags;
        table[0].Name = Name(name).Buffer;
        table[0].EntryContext = result;
        table[0].DefaultType = type;
        table[0].DefaultData = const_cast<void*>(defaultData);
        table[0].DefaultLength = defaultLength;
        return RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, Name(kKey).Buffer, table, nullptr, nullptr);
    }

    static std::u16string Text(const UNICODE_STRING& text)
    {
        return std::u16string(reinterpret_cast<const char16_t*>(text.Buffer), text.Length / 2);
    }
};

TEST_F(RegistryTest, NumbersAndTheirDefault)
{
    const ULONG fallback = 2048;
    ULONG number = 0;
    EXPECT_EQ(Query(u"NUMBER", REG_DWORD, &number, &fallback, 4), STATUS_SUCCESS);
    EXPECT_EQ(number, 0x12345678u);
    EXPECT_EQ(Query(u"Missing", REG_DWORD, &number, &fallback, 4), STATUS_SUCCESS);
    EXPECT_EQ(number, 2048u);
    machine::SetRegistryDword("RegistryTest", "\xF0\x9F\x98\x80", 9);
    EXPECT_EQ(Query(u"\U0001F600", REG_DWORD, &number, &fallback, 4), STATUS_SUCCESS);
    EXPECT_EQ(number, 9u);
    number = 7;
    EXPECT_EQ(Query(u"Missing", REG_NONE, &number, nullptr, 0), STATUS_SUCCESS);
    EXPECT_EQ(Query(u"Missing", REG_DWORD, &number, &fallback, 4, RTL_QUERY_REGISTRY_REQUIRED),
              STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(number, 7u);
}

TEST_F(RegistryTest, StringsFillTheCallersBufferOrGetOne)
{
    WCHAR buffer[8] = {};
    UNICODE_STRING text = {0, sizeof(buffer), buffer};
    EXPECT_EQ(Query(u"Text", REG_SZ, &text, u"", 0), STATUS_SUCCESS);
    EXPECT_EQ(Text(text), u"g\u00F6 \U0001F600");
    EXPECT_EQ(text.Length, 10);
    EXPECT_EQ(text.Buffer[5], 0);

    EXPECT_EQ(Query(u"Missing", REG_SZ, &text, u"none", 0), STATUS_SUCCESS);
    EXPECT_EQ(Text(text), u"none");
    EXPECT_EQ(Query(u"Missing", REG_SZ, &text, u"", 0), STATUS_SUCCESS);
    EXPECT_EQ(text.Length, 0);

    text.MaximumLength = 10; // one short: the terminator does not fit
    EXPECT_EQ(Query(u"Text", REG_SZ, &text, u"", 0), STATUS_BUFFER_TOO_SMALL);

    UNICODE_STRING allocated = {};
    EXPECT_EQ(Query(u"Text", REG_SZ, &allocated, u"", 0), STATUS_SUCCESS);
    EXPECT_EQ(allocated.MaximumLength, 12);
    ExFreePool(allocated.Buffer);
}

TEST_F(RegistryTest, QueriesFailByMissingKeysAndOtherTypesAndOnDemand)
{
    ULONG number = 7;
    EXPECT_EQ(Query(u"Text", REG_DWORD, &number, nullptr, 0), STATUS_OBJECT_TYPE_MISMATCH);
    ExpectRule("registry-type-mismatch");
    EXPECT_EQ(Query(u"Text", REG_DWORD << RTL_QUERY_REGISTRY_TYPECHECK_SHIFT | REG_NONE, &number, nullptr, 0,
                    RTL_QUERY_REGISTRY_TYPECHECK),
              STATUS_OBJECT_TYPE_MISMATCH);
    machine::FailCall(machine::Fault::Registry, 1);
    EXPECT_EQ(Query(u"Number", REG_DWORD, &number, nullptr, 0), STATUS_INSUFFICIENT_RESOURCES);
    machine::DeleteRegistryKey("RegistryTest");
    const ULONG fallback = 1;
    EXPECT_EQ(Query(u"Number", REG_DWORD, &number, &fallback, 4), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(number, 7u);
    {
        machine::AtDispatch dispatch;
        Query(u"Number", REG_DWORD, &number, nullptr, 0);
    }
    ExpectRule("irql-too-high");
}

} // namespace
