// ndisfilter.inf, as the system's installer reads it.
#include "suite.h"

#include <filesystem>

#include <setupapi.h>

using namespace suite;

namespace
{

constexpr wchar_t kKey[] = L"System\\CurrentControlSet\\Services\\NdisFilter";
constexpr wchar_t kInstalled[] = L"C:\\windows\\system32\\drivers\\ndisfilter.sys";

void RunSection(const wchar_t* section)
{
    // 128: the inf's own directory is the source, and no restart is offered.
    const std::wstring command = std::wstring(section) + L" 128 " + options.drivers + L"\\ndisfilter.inf";
    InstallHinfSectionW(nullptr, nullptr, command.c_str(), 0);
}

DWORD Number(const wchar_t* name)
{
    DWORD value = 0, size = sizeof(value);
    const LSTATUS status =
        RegGetValueW(HKEY_LOCAL_MACHINE, kKey, name, RRF_RT_REG_DWORD, nullptr, &value, &size);
    EXPECT_EQ(status, LSTATUS{ERROR_SUCCESS}) << Narrow(name);
    return value;
}

TEST(install, TheInfInstallsAndRemovesTheService)
{
    RunSection(L"DefaultInstall");
    EXPECT_TRUE(std::filesystem::exists(kInstalled));
    EXPECT_EQ(Number(L"Type"), DWORD{SERVICE_KERNEL_DRIVER});
    EXPECT_EQ(Number(L"Start"), DWORD{SERVICE_SYSTEM_START});
    EXPECT_EQ(Number(L"GlobalDebugFlag"), 0u);
    EXPECT_EQ(Number(L"PendingPacketLimit"), 2048u);
    RunSection(L"DefaultUninstall");
    EXPECT_FALSE(std::filesystem::exists(kInstalled));
}

} // namespace
