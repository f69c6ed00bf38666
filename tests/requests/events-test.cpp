// The event queue as the user program reads it, and the settings that a request changes.
#include "requests.h"

#include <cstring>

using namespace requests;
using namespace support;
using testing::Each;
using testing::HasSubstr;
using testing::StartsWith;

namespace
{

struct EventRequestsTest : RequestsTest {
    // The bytes returned; the event is in `event`.
    size_t Get(machine::Status status = STATUS_SUCCESS)
    {
        std::memset(&event, 0xEE, sizeof(event));
        return Returned(IOCTL_NDIS_FILTER_GET_EVENT, {}, Out(event), status);
    }
    UserEvent event;
};

TEST_F(EventRequestsTest, AnEventsHeadNamesItsAdapterByIdentifier)
{
    FilterAdapter* adapter = AddAdapter();
    const uint32_t id = IdOf(adapter);
    FilterEventHead head = {11, adapter, 22, 33, 44, 55, 66};
    Bytes data(sizeof(head) + 5);
    std::memcpy(data.data(), &head, sizeof(head));
    std::memcpy(data.data() + sizeof(head), "text", 5);
    ASSERT_EQ(Filter_ReportEventEx(1, 2, static_cast<ULONG>(data.size()), data.data()),
              FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Get(), 1036u);
    EXPECT_EQ(+event.m_nEvent1, 1u);
    EXPECT_EQ(+event.m_nEvent2, 2u);
    EXPECT_EQ(+event.m_nLength, 43);
    const UserEventHead expected = {11, id, 22, 33, 44, 55, 66};
    EXPECT_EQ(std::memcmp(event.m_Text, &expected, 34), 0);
    EXPECT_EQ(std::memcmp(event.m_Text + 34, data.data() + 34, 4), 0); // stays as reported
    EXPECT_STREQ(reinterpret_cast<char*>(event.m_Text) + NDIS_FILTER_EVENT_MESSAGE_OFFSET, "text");
    EXPECT_THAT(std::span(event.m_Text).subspan(43), Each(0));
}

TEST_F(EventRequestsTest, APlainTextIsRewrittenLikeAHeadAndCostsAnIdentifier)
{
    const std::string text = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
    ASSERT_EQ(Filter_ReportEvent(1, 2, "%s", text.c_str()), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Get(), 1036u);
    const std::string seen(reinterpret_cast<char*>(event.m_Text), text.size());
    EXPECT_EQ(seen, "0123" + std::string("\1\0\0\0", 4) + text.substr(12, 26) + text.substr(34));
    EXPECT_EQ(IdOf(reinterpret_cast<FilterAdapter*>(1)), 2u);
    // An event with another text, and so another "handle", is lost when no identifier is left.
    UseUpIds();
    ASSERT_EQ(Filter_ReportEvent(1, 2, "another, longer text"), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(Get(STATUS_INTERNAL_ERROR), 0u);
    EXPECT_TRUE(Debug().Contains("    call Filter_AdapterToId func failure.\n"));
    EXPECT_EQ(Get(), 0u);
}

TEST_F(EventRequestsTest, EventsComeInOrderUntilNoneIsLeft)
{
    const auto fill = [] {
        for (ULONG i = 0; i < 1023; i++) {
            ASSERT_EQ(Filter_ReportEvent(i, 0, nullptr), FILTER_STATUS_SUCCESS);
        }
    };
    fill();
    EXPECT_EQ(Filter_ReportEvent(0, 0, nullptr), FILTER_ERROR_OUT_OF_MEMORY);
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_GET_EVENT, {}, Out(event).first(1035)), STATUS_BUFFER_TOO_SMALL);
    for (ULONG i = 0; i < 3; i++) {
        EXPECT_EQ(Get(), 1036u);
        EXPECT_EQ(+event.m_nEvent1, i);
    }
    EXPECT_EQ(Filter_ReportEvent(0, 0, nullptr), FILTER_STATUS_SUCCESS); // there is room again
    machine::FailCall(machine::Fault::Pool, 1);
    EXPECT_EQ(Get(STATUS_NO_MEMORY), 0u); // and the event is gone
    EXPECT_EQ(Get(), 1036u);
    EXPECT_EQ(+event.m_nEvent1, 4u);

    Debug().Take();
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_CLEAR_EVENT, {}), STATUS_SUCCESS);
    EXPECT_THAT(Debug().Take(), HasSubstr("  IOCTL_NDIS_FILTER_GET_EVENT\nLeave NdisFilterIoControl\n"));
    EXPECT_EQ(Get(), 0u);
    fill();
}

TEST_F(EventRequestsTest, TheDebugMaskIsReadAnewFromTheRegistry)
{
    machine::SetRegistryDword(kFrameworkService, "GlobalDebugFlag", 0);
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_GET_DBGFLAG, {}), STATUS_SUCCESS);
    ASSERT_TRUE(machine::WaitIdle());
    Debug().Take();
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_GET_VERSION, {}), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(Debug().Take(), "");

    // Two requests speak whatever the mask. This one tests no length, and is held to the buffer nevertheless.
    constexpr char kTitle[] = "  IOCTL_NDIS_FILTER_SET_CONGESTION_CONTROL\n";
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_SET_CONGESTION_CONTROL, Bytes{44, 1, 0, 0}), STATUS_SUCCESS);
    EXPECT_EQ(Debug().Take(), kTitle + std::string("  - InjectPacketMax = 300\n"));
    Bytes output(4, 0xEE);
    for (int i = 0; i < 5000; i++) { // until its buffer is memory that was used before
        ASSERT_EQ(StatusOf(IOCTL_NDIS_FILTER_SET_CONGESTION_CONTROL, Bytes{45, 1}, output), STATUS_SUCCESS);
        ASSERT_EQ(Debug().Take(), kTitle + std::string("  - InjectPacketMax = 301\n"));
    }
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_SET_CONGESTION_CONTROL, Bytes{1, 2, 3}, std::span(output).first(3)),
              STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_SET_CONGESTION_CONTROL, {}), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_DUMP_DEVICE_EXTENSION, {}), STATUS_SUCCESS);
    EXPECT_TRUE(Debug().Contains("- m_nInjectPacketMax = 301\n"));
}

TEST_F(EventRequestsTest, TheDumpPrintsTheWholeStateInOrder)
{
    TestDriver driver("dumped-client", AddAdapter("{A} dumped"));
    TestFilter filter(driver, {.name = "dumped-filter"});
    ASSERT_EQ(Filter_ReportEvent(4711, 0, nullptr), FILTER_STATUS_SUCCESS);
    Debug().Take();
    EXPECT_EQ(StatusOf(IOCTL_NDIS_FILTER_DUMP_DEVICE_EXTENSION, {}), STATUS_SUCCESS);
    const std::string text = Debug().Take();
    EXPECT_THAT(text, StartsWith("Enter NdisFilterIoControl\n"));
    // One of each kind of field, in the order of the record.
    size_t at = 0;
    for (const std::string& line : std::vector<std::string>{
             "====> Dump NdisFilter Device Extension ====\n- BuildTime = ",
             "- Type = NdisFilterDeviceExtension\n- Size = ",
             "- m_DeviceSymbolicLink = \\DosDevices\\NdisFilter\n- m_bSymbolicLinkCreated = TRUE\n",
             "- m_NdisHookAPI.m_Size = 0x00000000000000A8\n",
             "- m_NdisHookAPI.Hook_MmUnmapLockedPages = 0x",
             "  - m_pUserModeVirtualAddress = 0x0000000000000000\n  - m_pMdl = 0x",
             "  - m_nSize = 1724496\n",
             "- m_SharedMemory.KernelModeInput\n  - m_iBlockSize = 1684\n  - m_iBlockCount = 512\n"
             "  - m_iBaseOffset = 862208\n",
             "- m_nNdisHelperWorkThread = 3\n",
             "- m_nAdapterCount = 1\n- m_AdapterList[0] = 0x",
             "- m_pContextDriver[15] = 0x0000000000000000\n",
             "- m_DriverName = dumped-client\n",
             "Dumping Packet Filter(Type = 0 - ",
             PointerText(filter.Handle()),
             "- m_InjectPacketEvent[1] = 0x",
             "- m_IfEventHandlerList = 0x",
             "  - LastAllocateMisses = ",
             "- m_nEvent1 = 4711\n",
             "- m_bDiagInProgress = FALSE\n",
             "- m_pDriverToAppEthrLog = 0x0000000000000000\n"}) {
        const size_t found = text.find(line, at);
        EXPECT_NE(found, std::string::npos) << line;
        at = found == std::string::npos ? at : found;
    }
    // Two lines show where their field lies, not what it holds: both lie in the record that follows the address.
    const auto number = [&](const std::string& title, int base) {
        return std::stoll(text.substr(text.find(title) + title.size(), 20), nullptr, base);
    };
    const auto address = static_cast<uint32_t>(number("- Address = 0x", 16));
    const auto size = static_cast<uint32_t>(number("- Size = ", 10));
    for (const char* title : {"- m_CurrentLogSize = ", "- m_dwTickIncrement = "}) {
        EXPECT_LT(static_cast<uint32_t>(number(title, 10)) - address, size) << title;
    }
}

} // namespace
