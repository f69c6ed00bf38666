// Driver entry and unload: the order that a maintainer reads in the trace, what happens when something is missing, and
// that nothing is left behind.
#include "support/adapter-test.h"

using namespace support;
using testing::HasSubstr;

namespace
{

constexpr uint32_t kTraceCore = 0x100;
const std::string kServiceKey = "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\NdisFilter";

using TracedStartUpTest = Loaded<FrameworkOnly, kTraceCore>;

TEST_F(TracedStartUpTest, BuildsUpAndTearsDownInOrder)
{
    const std::string read = "RtlQueryRegistryValues " + kServiceKey;
    const std::string text = Debug().Take();
    // The mask is 0 until it has been read; the link comes last, when everything can be used.
    EXPECT_THAT(text, testing::StartsWith(read +
                                          "\\GlobalDebugFlag success, Value = 0x100\n"
                                          "NdisFilter: GlobalDebugFlag = 0x00000100\n" +
                                          read +
                                          "\\PendingPacketLimit success, Value = 0x800\n"
                                          "  IoCreateDevice(\\Device\\NdisFilter) success\n"
                                          "Enter NdisFilterInitialize\n"));
    EXPECT_THAT(text,
                HasSubstr("  PsCreateSystemThread(ShareMemoryThread) success\n  Adapter list Initialized\n"));
    EXPECT_THAT(text, testing::EndsWith(
                          "Leave NdisFilterInitialize\n"
                          "  IoCreateSymbolicLink(\\DosDevices\\NdisFilter -> \\Device\\NdisFilter) success\n"
                          "Leave DriverEntry\n"));
    EXPECT_EQ(machine::TakeCensus().threads, 3u);
    StopFramework();
    EXPECT_EQ(Debug().Take(), "Enter NdisFilterUnload\nEnter NdisFilterDeInitialize\n  IoFreeMdl() complete\n"
                              "  ExFreePool complete\nLeave NdisFilterDeInitialize\n"
                              "  IoDeleteSymbolicLink(\\DosDevices\\NdisFilter), status = 0x0\n"
                              "  IoDeleteDevice(\\Device\\NdisFilter)\nLeave NdisFilterUnload\n");
}

TEST_F(TracedStartUpTest, RequestsOfAHandleOnlyComplete)
{
    Debug().Take();
    std::unique_ptr<machine::File> device = OpenDevice();
    EXPECT_EQ(device->SendShutdown().Wait().value().status, STATUS_SUCCESS);
    EXPECT_EQ(Debug().Take(), "Enter NdisFilterOpen\nLeave NdisFilterOpen\n"
                              "Enter NdisFilterShutdown\nLeave NdisFilterShutdown\n");
    device.reset();
    EXPECT_EQ(Debug().Take(), "Enter NdisFilterCleanup\nLeave NdisFilterCleanup\n"
                              "Enter NdisFilterClose\nLeave NdisFilterClose\n");
}

using RefusedStartUpTest = Loaded<NothingLoaded, kTraceCore>;
using UnloadTest = Loaded<NothingLoaded>;

TEST_F(RefusedStartUpTest, IsSilentWithoutTheRegistryPath)
{
    machine::FailCall(machine::Fault::Pool, 1);
    EXPECT_EQ(LoadFramework(), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(Debug().Take(), "");
}

int g_packetsOut = 0;

TEST_F(UnloadTest, ReleasesPacketsThatNoThreadTakes)
{
    machine::FailAllFrom(machine::Fault::Thread, 2); // the first one is the share's
    ASSERT_EQ(LoadFramework(), STATUS_SUCCESS);
    machine::ClearFaults();
    NdisHookAPI record = HookRecord(); // of a hook driver that does not hold the framework loaded
    record.Hook_AllocatePacket = [](FilterAdapter* adapter, PCSTR, ULONG) {
        g_packetsOut++;
        auto* const packet = new FilterPacket();
        packet->m_hAdapter = adapter;
        return packet;
    };
    record.Hook_FreePacket = [](FilterPacket* packet, PCSTR, ULONG) {
        g_packetsOut--;
        delete packet;
    };
    Exchange(*OpenDevice(), IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK, record);
    FilterAdapter adapter = {};
    for (const uint8_t octet : {10, 11}) { // for each queue
        const Bytes frame = EthernetFrame(
            kEtherTypeIpv4, Ipv4Packet(kProtocolUdp, UdpDatagram(1, 2), {.source = {octet, 0, 0, 1}}));
        Filter_IndicatePacketFromAdapter(&adapter, MakePacket(&adapter, frame));
    }
    EXPECT_EQ(Filter_GetInjectPacketCount(), 2u);
    EXPECT_EQ(g_packetsOut, 2);
    StopFramework();
    EXPECT_EQ(g_packetsOut, 0);
}

TEST_F(RefusedStartUpTest, NamesTheDeviceOrLinkAndItsStatus)
{
    const auto failAt = [&](machine::Fault fault, const std::string& what) {
        machine::FailCall(fault, 1);
        EXPECT_EQ(LoadFramework(), STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_THAT(Debug().Take(), testing::EndsWith("  " + what + " fails, status = 0xc000009a\n"));
    };
    machine::Census expected = machine::TakeCensus();
    failAt(machine::Fault::Device, "IoCreateDevice(\\Device\\NdisFilter)");
    EXPECT_TRUE(machine::TakeCensus() == expected) << machine::DescribeCensus(machine::TakeCensus());

    // Nobody cleans up behind a link that failed: device, mapped memory with its MDL, the registry path and the
    // lookaside list stay. But no thread runs in an image that is about to go.
    expected.poolBlocks += 2;
    expected.poolBytes += NDIS_FILTER_MAPPED_MEMORY_SIZE + 2 * (kServiceKey.size() + 1) + 2;
    expected.mdls += 1;
    expected.lookasideLists += 1;
    failAt(machine::Fault::SymbolicLink,
           "IoCreateSymbolicLink(\\DosDevices\\NdisFilter -> \\Device\\NdisFilter)");
    EXPECT_EQ(machine::DiscardDriver(kFrameworkService), 1u);
    EXPECT_TRUE(machine::TakeCensus() == expected) << machine::DescribeCensus(machine::TakeCensus())
                                                   << "\nexpected " << machine::DescribeCensus(expected);
    AcceptLeftovers();
}

} // namespace
