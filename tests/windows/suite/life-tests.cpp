// The framework's driver as the system sees it: loaded, configured, opened, unloaded.
#include "suite.h"

#include <ndisfilter-user.h>

using namespace suite;

namespace
{

constexpr wchar_t kFilter[] = L"\\\\.\\NdisFilter";

TEST(life, LoadsWithDefaultsAndUnloads)
{
    Service filter(L"ndisfilter");
    CHECK_EQUAL(Device::OpenError(kFilter), DWORD{ERROR_FILE_NOT_FOUND});
    const DebugOutput output;
    filter.Start();
    CHECK(output.ShowsExactly("NdisFilter: GlobalDebugFlag = 0x00000000"));
    CHECK_EQUAL(Device::OpenError(kFilter), DWORD{ERROR_SUCCESS});
    filter.Stop();
    CHECK_EQUAL(Device::OpenError(kFilter), DWORD{ERROR_FILE_NOT_FOUND});
}

TEST(life, ReadsItsRegistryValues)
{
    Service filter(L"ndisfilter");
    filter.SetNumber(L"GlobalDebugFlag", 0x100);
    filter.SetNumber(L"PendingPacketLimit", 0x321);
    const DebugOutput output;
    filter.Start();
    CHECK(output.ShowsExactly("NdisFilter: GlobalDebugFlag = 0x00000100"));
    CHECK(output.Shows("PendingPacketLimit success, Value = 0x321"));
    CHECK(output.ShowsExactly("Leave DriverEntry")); // the area that the flag switches on
}

} // namespace
