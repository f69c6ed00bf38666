// The framework's driver as the system sees it: loaded, configured, opened, unloaded.
#include "suite.h"

#include <ndisfilter-user.h>

#include <cstdio>

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

TEST(life, LoadsAgainWithOtherValues)
{
    Service filter(L"ndisfilter");
    for (const uint32_t flag : {0x100u, 0x0u, 0x500u}) {
        filter.SetNumber(L"GlobalDebugFlag", flag);
        const DebugOutput output;
        filter.Start();
        char line[64];
        snprintf(line, sizeof(line), "NdisFilter: GlobalDebugFlag = 0x%08X", flag);
        CHECK(output.ShowsExactly(line));
        Device device;
        CHECK_EQUAL(device.Control(IOCTL_NDIS_FILTER_GET_VERSION, {}, 2).error, DWORD{ERROR_SUCCESS});
        device.Close();
        filter.Stop();
        CHECK_EQUAL(output.Count("Leave NdisFilterUnload"), size_t{flag != 0});
    }
}

TEST(life, AValueOfAnotherTypeIsNotTaken)
{
    Service filter(L"ndisfilter");
    filter.SetText(L"GlobalDebugFlag", L"0x100");
    const DebugOutput output;
    filter.Start();
    CHECK(output.ShowsExactly("NdisFilter: GlobalDebugFlag = 0x00000000"));
}

// With their timers, tables and interfaces, and twice: what the first life left would be in the way of the second.
TEST(life, SampleDriversLoadAndUnload)
{
    Service filter(L"ndisfilter");
    filter.Start();
    for (int life = 0; life < 2; ++life) {
        Service indicator(L"indicator"), firewall(L"firewall"), flowmeter(L"flowmeter"), reader(L"meterreader"),
            rewriter(L"rewriter"), wan(L"wan");
        flowmeter.SetNumber(L"StatisticsMs", 10);
        rewriter.SetText(L"Translate", L"10.0.0.80:80=10.0.0.2:8080");
        for (Service* sample : {&indicator, &firewall, &reader, &flowmeter, &rewriter, &wan}) {
            sample->Start();
        }
        const DebugOutput output;
        for (Service* sample : {&wan, &rewriter, &flowmeter, &reader, &firewall, &indicator}) {
            sample->Stop();
        }
        CHECK(output.Shows("rewriter: 10.0.0.80:80 is 10.0.0.2:8080"));
        CHECK_EQUAL(output.Count("exception"), size_t{0});
    }
    filter.Stop();
}

// Its import loads the framework's image without running the entry.
TEST(life, AClientThatStartsTooEarlyIsRefused)
{
    Service filter(L"ndisfilter"), blocker(L"blocker");
    bool started = true;
    const DebugOutput early;
    try {
        blocker.Start();
    } catch (const Failure&) {
        started = false;
    }
    CHECK(!started);
    CHECK_EQUAL(early.Count("exception"), size_t{0});
    filter.Start();
    blocker.Start();
    const DebugOutput output;
    blocker.Stop();
    filter.Stop();
    CHECK_EQUAL(output.Count("exception"), size_t{0});
}

} // namespace
