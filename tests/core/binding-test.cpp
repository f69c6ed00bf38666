// The binding, as a hook driver's author sees it.
#include "support/framework.h"

#include <cstring>
#include <string>
#include <vector>

using namespace support;
using testing::HasSubstr;

namespace
{

constexpr uint32_t kTraceCore = 0x100;
constexpr uint32_t kBind = IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK;
constexpr uint32_t kUnbind = IOCTL_NDIS_FILTER_INTERNAL_UNBIND_NDIS_HOOK;
constexpr machine::Status kInvalidParameter = static_cast<machine::Status>(0xC000000D);
constexpr machine::Status kBufferTooSmall = static_cast<machine::Status>(0xC0000023);

ULONG Version(ULONG number, PULONG p1, PULONG p2, PULONG p3, PULONG p4)
{
    *p1 = *p2 = *p3 = *p4 = number;
    return 0;
}

ULONG FirstVersion(PULONG p1, PULONG p2, PULONG p3, PULONG p4)
{
    return Version(1, p1, p2, p3, p4);
}

ULONG SecondVersion(PULONG p1, PULONG p2, PULONG p3, PULONG p4)
{
    return Version(2, p1, p2, p3, p4);
}

ULONG FailingVersion(PULONG, PULONG, PULONG, PULONG)
{
    return 5;
}

class BindingTest : public FrameworkTest
{
  protected:
    BindingTest() : FrameworkTest(FrameworkOnly(kTraceCore)) {}

    void SetUp() override
    {
        FrameworkTest::SetUp();
        device_ = OpenDevice();
        ASSERT_NE(device_, nullptr);
        Debug().Take();
    }
    void TearDown() override
    {
        device_.reset();
        FrameworkTest::TearDown();
    }

    // The version that the bound hook driver gives, or the status.
    static LONG AskVersion()
    {
        ULONG values[4] = {};
        const FILTER_STATUS status = Filter_GetOsVersion(&values[0], &values[1], &values[2], &values[3]);
        return status == FILTER_STATUS_SUCCESS ? static_cast<LONG>(values[3]) : status;
    }

    machine::Request::Result Send(uint32_t code, const NdisHookAPI& record, size_t input, size_t output)
    {
        const std::span bytes(reinterpret_cast<const uint8_t*>(&record), sizeof(record));
        return device_->SendInternal(code, bytes, input, output).Wait().value();
    }

    std::unique_ptr<machine::File> device_;
};

TEST_F(BindingTest, ExchangesCallbacksForFunctionsAndUndoesIt)
{
    EXPECT_EQ(AskVersion(), FILTER_ERROR_INTERFACE_NOT_ACTIVE);
    NdisHookAPI record = HookRecord();
    record.Hook_GetOsVersion = FirstVersion;
    machine::Request::Result result = Exchange(*device_, kBind, record);
    EXPECT_EQ(result.status, STATUS_SUCCESS);
    EXPECT_EQ(result.information, 168u);
    EXPECT_EQ(record.m_Flags, NDIS_HOOK_FLAG_BOUND);
    EXPECT_NE(record.Filter_AdapterOpened, nullptr);
    EXPECT_NE(record.Filter_AdapterStatusChanged, nullptr);
    EXPECT_NE(record.Filter_AdapterClosed, nullptr);
    EXPECT_NE(record.Filter_FilterReceivedPacket, nullptr);
    EXPECT_NE(record.Filter_FilterSendPacket, nullptr);
    EXPECT_EQ(record.Hook_GetOsVersion, FirstVersion);
    EXPECT_EQ(AskVersion(), 1);

    // A second binding overwrites the first, functions that it lacks included.
    NdisHookAPI second = HookRecord();
    second.Hook_GetOsVersion = SecondVersion;
    EXPECT_EQ(Exchange(*device_, kBind, second).status, STATUS_SUCCESS);
    EXPECT_EQ(AskVersion(), 2);
    second.Hook_GetOsVersion = FailingVersion;
    EXPECT_EQ(Exchange(*device_, kBind, second).status, STATUS_SUCCESS);
    EXPECT_EQ(AskVersion(), FILTER_ERROR_INTERNAL_ERROR);
    second.Hook_GetOsVersion = nullptr;
    EXPECT_EQ(Exchange(*device_, kBind, second).status, STATUS_SUCCESS);
    EXPECT_EQ(AskVersion(), FILTER_ERROR_INTERFACE_NOT_ACTIVE);

    record.m_Flags = 0xFF;
    result = Exchange(*device_, kUnbind, record);
    EXPECT_EQ(result.status, STATUS_SUCCESS);
    EXPECT_EQ(result.information, 168u);
    EXPECT_EQ(record.m_Flags, 0xFEu);
    EXPECT_EQ(record.Filter_AdapterOpened, nullptr);
    EXPECT_EQ(record.Filter_FilterSendPacket, nullptr);
    EXPECT_EQ(record.Hook_GetOsVersion, FirstVersion);
    EXPECT_EQ(AskVersion(), FILTER_ERROR_INTERFACE_NOT_ACTIVE);

    record = HookRecord();
    record.Hook_GetOsVersion = SecondVersion;
    EXPECT_EQ(Exchange(*device_, kBind, record).status, STATUS_SUCCESS);
    EXPECT_EQ(AskVersion(), 2);
}

TEST_F(BindingTest, MayBeUndoneWithoutHavingBeenMade)
{
    NdisHookAPI record = HookRecord();
    memset(&record.Filter_AdapterOpened, 0x11, 5 * sizeof(PVOID));
    const machine::Request::Result result = Exchange(*device_, kUnbind, record);
    EXPECT_EQ(result.status, STATUS_SUCCESS);
    EXPECT_EQ(result.information, 168u);
    EXPECT_EQ(record.Filter_AdapterOpened, nullptr);
    EXPECT_EQ(record.Filter_FilterSendPacket, nullptr);
    EXPECT_EQ(record.m_Flags, 0u);
}

TEST_F(BindingTest, OfAnotherSizeOrVersionIsRefusedAndChangesNothing)
{
    NdisHookAPI bound = HookRecord();
    bound.Hook_GetOsVersion = FirstVersion;
    ASSERT_EQ(Exchange(*device_, kBind, bound).status, STATUS_SUCCESS);
    struct Case {
        ULONG size;
        USHORT major;
        USHORT minor;
        const char* message; // the first check that fails ends them
    };
    for (const Case& test :
         {Case{167, 1, 0, "  pNdisHookAPI->m_Size (167) != sizeof(NdisHookAPI)\n"},
          Case{176, 2, 1, "  pNdisHookAPI->m_Size (176) != sizeof(NdisHookAPI)\n"},
          Case{168, 2, 1, "  pNdisHookAPI->m_MajorVersion (2) != NDIS_HOOK_MAJOR_VERSION\n"},
          Case{168, 0, 0, "  pNdisHookAPI->m_MajorVersion (0) != NDIS_HOOK_MAJOR_VERSION\n"},
          Case{168, 1, 1, "  pNdisHookAPI->m_MinorVersion (1) != NDIS_HOOK_MINOR_VERSION\n"}}) {
        for (const uint32_t code : {kBind, kUnbind}) {
            NdisHookAPI record = HookRecord();
            record.m_Size = test.size;
            record.m_MajorVersion = test.major;
            record.m_MinorVersion = test.minor;
            record.Hook_GetOsVersion = SecondVersion;
            Debug().Take();
            const machine::Request::Result result = Exchange(*device_, code, record);
            EXPECT_EQ(result.status, kInvalidParameter) << test.message;
            EXPECT_EQ(result.information, 0u);
            EXPECT_EQ(record.Filter_AdapterOpened, nullptr);
            EXPECT_EQ(Debug().Take(), std::string("Enter NdisFilterInternalIoControl\n") +
                                          (code == kBind ? "  - ControlCode - 0x80002400\n"
                                                         : "  - ControlCode - 0x80002404\n") +
                                          "  - InputBufferLength - 0xa8\n  - OutputBufferLength - 0xa8\n"
                                          "  - sizeof(NdisHookAPI) - 0xa8\n  IOCTL_NDIS_FILTER_INTERNAL_" +
                                          (code == kBind ? "BIND" : "UNBIND") + "_NDIS_HOOK\n" +
                                          test.message + "Leave NdisFilterInternalIoControl\n");
            EXPECT_EQ(AskVersion(), 1);
        }
    }
}

TEST_F(BindingTest, InShortOrMissingBuffersIsRefused)
{
    const NdisHookAPI record = HookRecord();
    for (const uint32_t code : {kBind, kUnbind}) {
        for (const auto& [input, output] : {std::pair{167, 168}, {168, 167}, {0, 0}}) {
            const machine::Request::Result result = Send(code, record, input, output);
            EXPECT_EQ(result.status, kBufferTooSmall) << input << ", " << output;
            EXPECT_EQ(result.information, 0u);
        }
        const auto result = device_->SendInternal(code, {}, 168, 168).Wait();
        EXPECT_EQ(result->status, kBufferTooSmall);
    }
    EXPECT_TRUE(Debug().Contains("  Input or Output Buffer Length are too small\n"));
    EXPECT_EQ(AskVersion(), FILTER_ERROR_INTERFACE_NOT_ACTIVE);
}

TEST_F(BindingTest, KnowsNoOtherInternalRequest)
{
    const NdisHookAPI record = HookRecord();
    const machine::Request::Result result = Send(0x80002408, record, 168, 168);
    EXPECT_EQ(result.status, kInvalidParameter);
    EXPECT_EQ(result.information, 0u);
    EXPECT_TRUE(Debug().Contains("  Unknown IOCTL = 0x80002408\n"));
}

struct QuietBindingTest : BindingTest {
    QuietBindingTest() { plan_ = FrameworkOnly(0); }
};

// Whatever the mask: a line for each field in record order, with what is now bound.
TEST_F(QuietBindingTest, PrintsTheRecordThatIsBound)
{
    NdisHookAPI record = HookRecord();
    record.Hook_GetOsVersion = FirstVersion;
    ASSERT_EQ(Exchange(*device_, kBind, record).status, STATUS_SUCCESS);
    const auto line = [](const char* name, const void* value) {
        return std::string("  m_NdisHookAPI.") + name + " = " + PointerText(value) + "\n";
    };
    const auto address = [](auto* function) { return reinterpret_cast<const void*>(function); };
    std::string expected =
        line("m_Size", reinterpret_cast<void*>(168)) + line("m_Flags", reinterpret_cast<void*>(1)) +
        line("m_MajorVersion", reinterpret_cast<void*>(1)) + line("m_MinorVersion", nullptr) +
        line("Filter_AdapterOpened", address(record.Filter_AdapterOpened)) +
        line("Filter_AdapterStatusChanged", address(record.Filter_AdapterStatusChanged)) +
        line("Filter_AdapterClosed", address(record.Filter_AdapterClosed)) +
        line("Filter_FilterReceivedPacket", address(record.Filter_FilterReceivedPacket)) +
        line("Filter_FilterSendPacket", address(record.Filter_FilterSendPacket)) +
        line("Hook_GetOsVersion", address(FirstVersion));
    for (const char* name :
         {"HandleIoControl", "AllocatePacket", "FreePacket", "InjectPacketToAdapter",
          "InjectPacketToProtocol", "AllocateRequest", "MakeNdisRequest", "FreeRequest", "SetAdapterStatus",
          "GetAdapterStatus", "GetTcpIpBoundAdapters", "MmMapLockedPages", "MmUnmapLockedPages"}) {
        expected += line((std::string("Hook_") + name).c_str(), nullptr);
    }
    EXPECT_EQ(Debug().Take(), expected);
}

// Without some or all functions of the hook driver the exports answer; nothing calls through a null pointer.
class PartlyBoundTest : public FrameworkTest
{};

TEST_F(PartlyBoundTest, EachMissingFunctionIsAnswered)
{
    for (int i = 0; i < static_cast<int>(hook::Function::Count); i++) {
        hook::BindOptions options;
        options.without = {static_cast<hook::Function>(i)};
        ASSERT_EQ(hook::Bind(options), STATUS_SUCCESS) << i;
        FilterAdapter* adapter =
            AddAdapter("{" + std::to_string(i) + "}", {2, 0, 0, 0, 1, static_cast<uint8_t>(i)});
        EXPECT_EQ(hook::DeliverReceived(adapter, UdpFrame()), hook::Accepted::Yes) << i;
        EXPECT_EQ(hook::DeliverSent(adapter, UdpFrame()), hook::Accepted::Yes) << i;
        FilterPacket* packet = Filter_AllocatePacket(adapter);
        EXPECT_EQ(packet == nullptr, options.without[0] == hook::Function::AllocatePacket) << i;
        if (packet != nullptr) {
            EXPECT_EQ(Filter_ReleasePacket(packet), FILTER_STATUS_SUCCESS) << i;
        }
        ULONG v;
        EXPECT_EQ(Filter_GetOsVersion(&v, &v, &v, &v), options.without[0] == hook::Function::GetOsVersion
                                                           ? FILTER_ERROR_INTERFACE_NOT_ACTIVE
                                                           : FILTER_STATUS_SUCCESS);
        EXPECT_TRUE(hook::TakeBalance().IsEven()) << i;
    }
    // Released without the hook driver's function for it: the one packet stays out until the hook driver goes.
    EXPECT_EQ(hook::TakeBalance().outstanding, 1u);
}

TEST_F(PartlyBoundTest, UnbindingInTheMiddleOfTrafficStrandsAtMostWhatWasUnderWay)
{
    FilterAdapter* adapter = AddAdapter();
    for (int round = 0; round < 20; round++) {
        std::atomic<bool> stop = false;
        std::atomic<int> delivered = 0;
        std::vector<std::thread> senders;
        for (int i = 0; i < 2; i++) {
            senders.emplace_back([&] {
                const Bytes frame = UdpFrame();
                while (!stop) {
                    hook::DeliverReceived(adapter, frame, {.waitMs = 0});
                    hook::DeliverSent(adapter, frame, {.waitMs = 0});
                    delivered++;
                }
            });
        }
        EXPECT_TRUE(Eventually([&] { return delivered > 2; }));
        EXPECT_EQ(hook::Unbind(round % 2 == 0 ? hook::UnbindMode::Abrupt : hook::UnbindMode::Drained),
                  STATUS_SUCCESS);
        const int then = delivered;
        EXPECT_TRUE(Eventually([&] { return delivered > then + 2; }));
        stop = true;
        for (std::thread& sender : senders) {
            sender.join();
        }
        EXPECT_TRUE(hook::TakeBalance().IsEven());
        ASSERT_EQ(hook::Bind(), STATUS_SUCCESS);
    }
    EXPECT_LE(hook::TakeBalance().outstanding, 20u); // one a sender and abrupt round
    EXPECT_EQ(hook::DeliverReceived(adapter, UdpFrame()), hook::Accepted::Yes);
}

} // namespace
