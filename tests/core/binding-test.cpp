// The binding, as a hook driver's author sees it.
#include "support/framework.h"

#include <cstring>
#include <thread>

using namespace support;

namespace
{

constexpr uint32_t kTraceCore = 0x100;
constexpr uint32_t kBind = IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK;
constexpr uint32_t kUnbind = IOCTL_NDIS_FILTER_INTERNAL_UNBIND_NDIS_HOOK;
constexpr machine::Status kInvalidParameter = static_cast<machine::Status>(0xC000000D);
constexpr machine::Status kBufferTooSmall = static_cast<machine::Status>(0xC0000023);

template <ULONG number, ULONG status = 0>
ULONG Version(PULONG p1, PULONG p2, PULONG p3, PULONG p4)
{
    *p1 = *p2 = *p3 = *p4 = number;
    return status;
}

// The version that the bound hook driver gives, or the status.
LONG AskVersion()
{
    ULONG values[4] = {};
    const FILTER_STATUS status = Filter_GetOsVersion(&values[0], &values[1], &values[2], &values[3]);
    return status == FILTER_STATUS_SUCCESS ? static_cast<LONG>(values[3]) : status;
}

class BindingTest : public DeviceTest
{
  protected:
    BindingTest() : DeviceTest(FrameworkOnly(kTraceCore)) {}

    // Sends a record, which may be answered, and expects it taken whole.
    void Send(uint32_t code, NdisHookAPI& record)
    {
        const machine::Request::Result result = Exchange(*device_, code, record);
        EXPECT_EQ(result.status, STATUS_SUCCESS);
        EXPECT_EQ(result.information, 168u);
    }
    NdisHookAPI Bind(HOOK_GET_OS_VERSION version)
    {
        NdisHookAPI record = HookRecord();
        record.Hook_GetOsVersion = version;
        Send(kBind, record);
        return record;
    }
};

std::vector<PVOID> FilterFunctions(const NdisHookAPI& record)
{
    std::vector<PVOID> functions(5);
    memcpy(functions.data(), &record.Filter_AdapterOpened, 5 * sizeof(PVOID));
    return functions;
}

TEST_F(BindingTest, ExchangesCallbacksForFunctionsAndUndoesIt)
{
    EXPECT_EQ(AskVersion(), FILTER_ERROR_INTERFACE_NOT_ACTIVE);
    NdisHookAPI record = Bind(Version<1>);
    EXPECT_EQ(record.m_Flags, NDIS_HOOK_FLAG_BOUND);
    EXPECT_THAT(FilterFunctions(record), testing::Each(testing::NotNull()));
    EXPECT_EQ(record.Hook_GetOsVersion, Version<1>);
    EXPECT_EQ(AskVersion(), 1);

    // A later binding overwrites an earlier one, functions that it lacks included.
    Bind(Version<2>);
    EXPECT_EQ(AskVersion(), 2);
    Bind((Version<3, 5>)); // fails
    EXPECT_EQ(AskVersion(), FILTER_ERROR_INTERNAL_ERROR);
    Bind(nullptr);
    EXPECT_EQ(AskVersion(), FILTER_ERROR_INTERFACE_NOT_ACTIVE);
    Bind(Version<1>);

    for (int round = 0; round < 2; round++) { // also when nothing is bound
        record.m_Flags = 0xFF;
        memset(&record.Filter_AdapterOpened, 0x11, 5 * sizeof(PVOID));
        Send(kUnbind, record);
        EXPECT_EQ(record.m_Flags, 0xFEu);
        EXPECT_THAT(FilterFunctions(record), testing::Each(testing::IsNull()));
        EXPECT_EQ(record.Hook_GetOsVersion, Version<1>);
        EXPECT_EQ(AskVersion(), FILTER_ERROR_INTERFACE_NOT_ACTIVE);
    }
    Bind(Version<2>);
    EXPECT_EQ(AskVersion(), 2);
}

TEST_F(BindingTest, OfAnotherSizeOrVersionIsRefusedAndChangesNothing)
{
    Bind(Version<1>);
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
            record.Hook_GetOsVersion = Version<2>;
            Debug().Take();
            const machine::Request::Result result = Exchange(*device_, code, record);
            EXPECT_EQ(result.status, kInvalidParameter) << test.message;
            EXPECT_EQ(result.information, 0u);
            EXPECT_EQ(record.Filter_AdapterOpened, nullptr);
            EXPECT_THAT(Debug().Take(),
                        testing::EndsWith(std::string("  IOCTL_NDIS_FILTER_INTERNAL_") +
                                          (code == kBind ? "BIND" : "UNBIND") + "_NDIS_HOOK\n" +
                                          test.message + "Leave NdisFilterInternalIoControl\n"));
            EXPECT_EQ(AskVersion(), 1);
        }
    }
}

TEST_F(BindingTest, InShortOrMissingBuffersOrByAnotherCodeIsRefused)
{
    const NdisHookAPI record = HookRecord();
    const std::span whole(reinterpret_cast<const uint8_t*>(&record), sizeof(record));
    struct Case {
        uint32_t code;
        std::span<const uint8_t> bytes;
        size_t input, output;
        machine::Status status;
        const char* message;
    };
    const char* const tooSmall = "  Input or Output Buffer Length are too small\n";
    for (const Case& test :
         {Case{kBind, whole, 167, 168, kBufferTooSmall, tooSmall},
          {kBind, whole, 168, 167, kBufferTooSmall, tooSmall},
          {kBind, {}, 168, 168, kBufferTooSmall, tooSmall},
          {kUnbind, whole, 167, 168, kBufferTooSmall, tooSmall},
          {kUnbind, whole, 168, 167, kBufferTooSmall, tooSmall},
          {kUnbind, {}, 168, 168, kBufferTooSmall, tooSmall},
          {0x80002408, whole, 168, 168, kInvalidParameter, "  Unknown IOCTL = 0x80002408\n"}}) {
        Debug().Take();
        const auto result =
            device_->SendInternal(test.code, test.bytes, test.input, test.output).Wait().value();
        EXPECT_EQ(result.status, test.status) << test.input << ", " << test.output;
        EXPECT_EQ(result.information, 0u);
        EXPECT_TRUE(Debug().Contains(test.message));
    }
    EXPECT_EQ(AskVersion(), FILTER_ERROR_INTERFACE_NOT_ACTIVE);
}

struct QuietBindingTest : BindingTest {
    QuietBindingTest() { plan_ = FrameworkOnly(); }
};

// Whatever the mask: a line for each field in record order, with what is now bound.
TEST_F(QuietBindingTest, PrintsTheRecordThatIsBound)
{
    const NdisHookAPI record = Bind(Version<1>);
    std::string expected;
    const auto line = [&](const char* name, ULONG_PTR value) {
        expected += std::string("  m_NdisHookAPI.") + name + " = " +
                    PointerText(reinterpret_cast<void*>(value)) + "\n";
    };
    line("m_Size", 168);
    line("m_Flags", 1);
    line("m_MajorVersion", 1);
    line("m_MinorVersion", 0);
    const char* at = reinterpret_cast<const char*>(&record.Filter_AdapterOpened);
    for (const char* name :
         {"Filter_AdapterOpened", "Filter_AdapterStatusChanged", "Filter_AdapterClosed",
          "Filter_FilterReceivedPacket", "Filter_FilterSendPacket", "Hook_GetOsVersion",
          "Hook_HandleIoControl", "Hook_AllocatePacket", "Hook_FreePacket", "Hook_InjectPacketToAdapter",
          "Hook_InjectPacketToProtocol", "Hook_AllocateRequest", "Hook_MakeNdisRequest", "Hook_FreeRequest",
          "Hook_SetAdapterStatus", "Hook_GetAdapterStatus", "Hook_GetTcpIpBoundAdapters",
          "Hook_MmMapLockedPages", "Hook_MmUnmapLockedPages"}) {
        ULONG_PTR value;
        memcpy(&value, at, sizeof(value));
        line(name, value);
        at += sizeof(value);
    }
    EXPECT_EQ(Debug().Take(), expected);
}

// Without some or all functions of the hook driver the exports answer; nothing calls through a null pointer.
class PartlyBoundTest : public FrameworkTest
{};

TEST_F(PartlyBoundTest, EachMissingFunctionIsAnswered)
{
    for (int i = 0; i < static_cast<int>(hook::Function::Count); i++) {
        SCOPED_TRACE(i);
        hook::BindOptions options;
        options.without = {static_cast<hook::Function>(i)};
        ASSERT_EQ(hook::Bind(options), STATUS_SUCCESS);
        FilterAdapter* adapter =
            AddAdapter("{" + std::to_string(i) + "}", {2, 0, 0, 0, 1, static_cast<uint8_t>(i)});
        EXPECT_EQ(hook::DeliverReceived(adapter, UdpFrame()), hook::Accepted::Yes);
        EXPECT_EQ(hook::DeliverSent(adapter, UdpFrame()), hook::Accepted::Yes);
        FilterPacket* packet = Filter_AllocatePacket(adapter);
        EXPECT_EQ(packet == nullptr, options.without[0] == hook::Function::AllocatePacket);
        if (packet != nullptr) {
            EXPECT_EQ(Filter_ReleasePacket(packet), FILTER_STATUS_SUCCESS);
        }
        EXPECT_EQ(AskVersion() == FILTER_ERROR_INTERFACE_NOT_ACTIVE,
                  options.without[0] == hook::Function::GetOsVersion);
        EXPECT_TRUE(hook::TakeBalance().IsEven());
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
        const auto send = [&] {
            const Bytes frame = UdpFrame();
            while (!stop) {
                hook::DeliverReceived(adapter, frame, {.waitMs = 0});
                hook::DeliverSent(adapter, frame, {.waitMs = 0});
                delivered++;
            }
        };
        std::thread first(send);
        std::thread second(send);
        EXPECT_TRUE(Eventually([&] { return delivered > 2; }));
        EXPECT_EQ(hook::Unbind(round % 2 == 0 ? hook::UnbindMode::Abrupt : hook::UnbindMode::Drained),
                  STATUS_SUCCESS);
        const int then = delivered;
        EXPECT_TRUE(Eventually([&] { return delivered > then + 2; }));
        stop = true;
        first.join();
        second.join();
        EXPECT_TRUE(hook::TakeBalance().IsEven());
        ASSERT_EQ(hook::Bind(), STATUS_SUCCESS);
    }
    EXPECT_LE(hook::TakeBalance().outstanding, 20u); // one a sender and abrupt round
    EXPECT_EQ(hook::DeliverReceived(adapter, UdpFrame()), hook::Accepted::Yes);
}

} // namespace
