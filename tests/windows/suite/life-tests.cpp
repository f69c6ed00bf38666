// The framework's driver as the system sees it: installed, loaded, configured, opened, unloaded.
#include "suite.h"

#include <cstdio>
#include <filesystem>
#include <list>

#include <setupapi.h>

using namespace suite;

namespace
{

// The driver's line about its debug mask, which it prints whatever the mask.
std::string MaskLine(uint32_t mask)
{
    char line[64];
    snprintf(line, sizeof(line), "NdisFilter: GlobalDebugFlag = 0x%08X", mask);
    return line;
}

TEST(life, LoadsAndUnloadsWithDefaultsAndWithOtherValues)
{
    Service filter(L"ndisfilter");
    const auto run = [&](uint32_t mask, bool hasLimit) {
        EXPECT_THROW(Device(), Failure);
        const DebugOutput output;
        filter.Start();
        EXPECT_TRUE(output.Shows(MaskLine(mask)));
        EXPECT_NO_THROW(Device());
        filter.Stop();
        EXPECT_EQ(output.Count("PendingPacketLimit success, Value = 0x321"), size_t{hasLimit});
        EXPECT_EQ(output.Count("Leave DriverEntry"), size_t{mask != 0}); // the area that the mask switches on
        EXPECT_EQ(output.Count("Leave NdisFilterUnload"), size_t{mask != 0});
    };
    run(0, false);
    filter.SetNumber(L"PendingPacketLimit", 0x321);
    for (const uint32_t mask : {0x900u, 0x0u, 0x500u}) {
        filter.SetNumber(L"GlobalDebugFlag", mask);
        run(mask, true);
    }
    filter.SetText(L"GlobalDebugFlag", L"0x100"); // of another type: not taken
    run(0, true);
}

// With their timers, tables and interfaces, and twice: what the first life left would be in the way of the second.
TEST(life, SampleDriversLoadAndUnload)
{
    Service filter(L"ndisfilter");
    filter.Start();
    for (int life = 0; life < 2; ++life) {
        std::list<Service> samples;
        for (const wchar_t* name : {L"indicator", L"firewall", L"meterreader", L"flowmeter", L"rewriter",
                                    L"wan", L"quiet", L"framescope"}) {
            Service& sample = samples.emplace_back(name);
            sample.SetNumber(L"StatisticsMs", 10);                       // of the flow meter
            sample.SetText(L"Translate", L"10.0.0.80:80=10.0.0.2:8080"); // of the rewriter
            sample.Start();
        }
        const DebugOutput output;
        for (; !samples.empty(); samples.pop_back()) {
            samples.back().Stop();
        }
        EXPECT_TRUE(output.Shows("rewriter: 10.0.0.80:80 is 10.0.0.2:8080"));
        EXPECT_EQ(output.Count("exception"), size_t{0});
    }
    filter.Stop();
}

// Its import loads the framework's image without running the entry.
TEST(life, AClientThatStartsTooEarlyIsRefused)
{
    Service filter(L"ndisfilter"), blocker(L"blocker");
    const DebugOutput output;
    EXPECT_THROW(blocker.Start(), Failure);
    filter.Start();
    blocker.Start();
    blocker.Stop();
    filter.Stop();
    EXPECT_EQ(output.Count("exception"), size_t{0});
}

// The driver starts only when all that it tries of the kernel sockets answers as it should.
TEST(life, ExportsTheKernelSockets)
{
    Service filter(L"ndisfilter"), probe(L"socket-probe");
    filter.Start();
    probe.Start();
    probe.Stop();
    filter.Stop();
}

// ndisfilter.inf, as the system's installer reads it.
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
