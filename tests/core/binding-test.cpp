// The binding, as a hook driver's author sees it.
#include "support/framework.h"

#include <algorithm>
#include <cstring>

using namespace support;

namespace
{

constexpr uint32_t kTraceCore = 0x100;
constexpr uint32_t kBind = IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK;
constexpr uint32_t kUnbind = IOCTL_NDIS_FILTER_INTERNAL_UNBIND_NDIS_HOOK;

constexpr char kLeave[] = "Leave NdisFilterInternalIoControl\n";

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

struct BindingTest : Loaded<FrameworkOnly, kTraceCore, DeviceTest> {
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
    Debug().Take();
    device_->Send(IOCTL_NDIS_FILTER_DUMP_DEVICE_EXTENSION, {}, 0).Wait();
    EXPECT_THAT(Debug().Take(), testing::HasSubstr("m_NdisHookAPI.Hook_GetOsVersion = 0x0000000000000000\n"));
    Bind(Version<2>);
    EXPECT_EQ(AskVersion(), 2);
}

// The first check that fails ends them; the binding there was stays.
TEST_F(BindingTest, OfAnotherLengthSizeVersionOrCodeIsRefusedAndChangesNothing)
{
    Bind(Version<1>);
    struct Case {
        const char* message;
        size_t input, output;
        ULONG size;
        USHORT major, minor;
        uint32_t code = 0; // 0: both
    };
    const char tooSmall[] = "  Input or Output Buffer Length are too small\n";
    for (const Case& test :
         {Case{tooSmall, 167, 168, 0, 0, 0},
          {tooSmall, 168, 167, 0, 0, 0},
          {"  pNdisHookAPI->m_Size (167) != sizeof(NdisHookAPI)\n", 168, 168, 167, 1, 0},
          {"  pNdisHookAPI->m_Size (176) != sizeof(NdisHookAPI)\n", 168, 168, 176, 2, 1},
          {"  pNdisHookAPI->m_MajorVersion (2) != NDIS_HOOK_MAJOR_VERSION\n", 168, 168, 168, 2, 1},
          {"  pNdisHookAPI->m_MajorVersion (0) != NDIS_HOOK_MAJOR_VERSION\n", 168, 168, 168, 0, 0},
          {"  pNdisHookAPI->m_MinorVersion (1) != NDIS_HOOK_MINOR_VERSION\n", 168, 168, 168, 1, 1},
          {"  Unknown IOCTL = 0x80002408\n", 168, 168, 168, 1, 0, 0x80002408}}) {
        for (const uint32_t code : {kBind, kUnbind}) {
            NdisHookAPI record = HookRecord();
            record.m_Size = test.size;
            record.m_MajorVersion = test.major;
            record.m_MinorVersion = test.minor;
            record.Hook_GetOsVersion = Version<2>;
            const std::span bytes(reinterpret_cast<const uint8_t*>(&record), sizeof(record));
            Debug().Take();
            machine::Request request =
                device_->SendInternal(test.code != 0 ? test.code : code, bytes, test.input, test.output);
            EXPECT_EQ(request.Wait()->status,
                      test.message == tooSmall ? STATUS_BUFFER_TOO_SMALL : STATUS_INVALID_PARAMETER);
            EXPECT_TRUE(request.Output().empty());
            EXPECT_THAT(Debug().Take(), testing::EndsWith(test.message + std::string(kLeave)));
            EXPECT_EQ(AskVersion(), 1);
        }
    }
    EXPECT_EQ(device_->SendInternal(kBind, {}, 168, 168).Wait()->status,
              STATUS_BUFFER_TOO_SMALL); // no buffer at all
}

using QuietBindingTest = Loaded<FrameworkOnly, 0, BindingTest>;

// Whatever the mask: a line for each field in record order, with what is now bound.
TEST_F(QuietBindingTest, PrintsTheRecordThatIsBound)
{
    const NdisHookAPI record = Bind(Version<1>);
    const auto line = [](const std::string& name, const void* value) {
        return "  m_NdisHookAPI." + name + " = " + PointerText(value) + "\n";
    };
    const std::string text = Debug().Take();
    EXPECT_THAT(text, testing::StartsWith(line("m_Size", reinterpret_cast<void*>(168)) +
                                          line("m_Flags", reinterpret_cast<void*>(1))));
    EXPECT_THAT(text, testing::HasSubstr(
                          line("Filter_FilterSendPacket", FilterFunctions(record)[4]) +
                          line("Hook_GetOsVersion", reinterpret_cast<void*>(record.Hook_GetOsVersion)) +
                          line("Hook_HandleIoControl", nullptr)));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 23);
}

// Without some or all functions of the hook driver the exports answer; nothing calls through a null pointer.
using PartlyBoundTest = FrameworkTest;

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

} // namespace
