// Diagnostic commands: what the framework answers, how other drivers join, and what lengths do to the reply.
#include "requests.h"

#include <algorithm>
#include <thread>

using namespace requests;
using namespace support;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

namespace
{

constexpr uint32_t kTextOffset = offsetof(UserDiag, m_Text);
constexpr char kHelp[] = "help - print this messages\n"
                         "show info - print driver info\nshow hookapi - print NDIS Hook API\n"
                         "show shmem - print share memory info\nshow adaptert - print adapter list\n"
                         "show driver - print filter driver list\nshow filter - print packet filter\n"
                         "show timer - print timer info\nshow ioctl - print IOCTL handler\n";

Bytes Command(const std::string& text)
{
    return Bytes(text.begin(), text.end());
}

struct DiagTest : Loaded<WithTrace, 0, RequestsTest> {
    // The reply's text; its header in `diag`.
    std::string Ask(const std::string& command, size_t size = 65536)
    {
        Bytes output(size, 0xEE);
        result = Control(IOCTL_NDIS_FILTER_DIAG, Command(command), output);
        EXPECT_EQ(result.status, STATUS_SUCCESS) << command;
        diag = {};
        std::copy_n(output.begin(), std::min(result.information, sizeof(diag)),
                    reinterpret_cast<uint8_t*>(&diag));
        const size_t end = std::min<size_t>(result.information, kTextOffset + diag.m_BufferUsed);
        return end > kTextOffset ? std::string(output.begin() + kTextOffset, output.begin() + end) : "";
    }

    Result result;
    UserDiag diag;
};

// A client driver that answers diagnostics.
struct Answerer : HandlingDriver {
    using Answer = std::function<NTSTATUS(Diag* diag)>;

    Answerer(const std::string& name, Answer answer)
        : HandlingDriver(name, [answer](const Request& request) {
              *request.returned = 7; // of no consequence: the reply's length is the framework's business
              Diag* diag = nullptr;
              EXPECT_EQ(Filter_BeginDiag(request.input, request.inputLength, request.output,
                                         request.outputLength, &diag),
                        FILTER_STATUS_SUCCESS);
              EXPECT_EQ(diag, request.output);
              return answer(diag);
          })
    {}
};

TEST_F(DiagTest, TheHelpAndItsRefusals)
{
    EXPECT_EQ(Ask("filter help"), kHelp);
    EXPECT_EQ(+diag.m_BufferSize, 65536u);
    EXPECT_EQ(+diag.m_nArgumentCount, 1);
    EXPECT_EQ(+diag.m_bInitialized, 1);
    const std::pair<const char*, std::string> replies[] = {
        {"FILTER HELP me", kHelp},
        {"filter nonsense", kHelp},
        {"filter show nonsense", "unsupport command show\n"},
        {"filter shows info", "unsupport command shows\n"},
        {"filter %s%n %p", "unsupport command %s%n\n"}, // no word is a format
        {"Driver Filter", "Select filter - NDIS Packet Filter Driver\n"},
        // Not the framework's: nobody answers, and the request succeeds all the same.
        {"filter", ""},
        {"driver filter more", ""},
        {"other show info", ""},
        {" x", ""},
    };
    for (const auto& [command, reply] : replies) {
        EXPECT_EQ(Ask(command), reply) << command;
        EXPECT_EQ(result.information, 40 + reply.size());
        EXPECT_EQ(+diag.m_BufferUsed, reply.size());
    }
    EXPECT_THAT(Ask("driver"),
                MatchesRegex("filter - NDIS Packet Filter Driver, Build at [A-Z][a-z][a-z] [ 0-9][0-9] "
                             "[0-9]+ [0-9][0-9]:[0-9][0-9]:[0-9][0-9]\n"));
}

TEST_F(DiagTest, WordsAreSplitAtBlanksOnly)
{
    std::vector<std::string> words;
    Answerer answerer("split", [&](Diag* asked) -> NTSTATUS {
        words.assign(asked->m_ppszArguments, asked->m_ppszArguments + asked->m_nArgumentCount);
        words.insert(words.begin(), asked->m_pszDriverName);
        return STATUS_SUCCESS;
    });
    Debug().Take();
    Ask("me  a\tb   c ");
    const std::string printed = Debug().Take();
    EXPECT_THAT(printed, StartsWith(" - InputBufferLength = 12\n - pInputBuffer = me  a\tb   c \n"
                                    " - OutputBufferLength = 65536\n - pOutputBuffer = 0x"));
    const std::string command = "\n - driver = me\n - argc = 2\n - argv[0] = a\tb\n - argv[1] = c\n";
    EXPECT_THAT(printed, HasSubstr(command + "Enter NdisFilter_DiagHandler" + command +
                                   "pDiag->m_BufferSize = 65536\npDiag->m_BufferUsed = 0\n"
                                   "pDiag->m_bInitialized = TRUE\n"));
    const std::string longest(1020, 'x');
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {"me  a\tb   c ", {"me", "a\tb", "c"}},
        {" a", {"", "a"}},
        {"me a\x80 b \x80rest c", {"me", "a\x80", "b"}}, // a byte above 127 begins no word
        {std::string("me a\0 b", 7), {"me", "a"}},
        {"me 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17",
         {"me", "1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "12", "13", "14", "15", "16"}},
        {"me " + longest, {"me", longest}}};
    for (const auto& [text, expected] : cases) {
        Ask(text);
        EXPECT_EQ(words, expected);
    }

    words.clear();
    const auto expectRefused = [&](const std::string& text, const char* reason) {
        Debug().Take();
        EXPECT_EQ(Ask(text), "");
        EXPECT_EQ(result.information, 0u);
        EXPECT_EQ(Debug().Take(), reason);
    };
    expectRefused("me x" + longest, "Buffer too small, copy buffer size is less than input buffer\n");
    expectRefused("", "Invalid arguments: length is 0 or argv buffer size is 0\n");
    EXPECT_EQ(Control(IOCTL_NDIS_FILTER_DIAG, {}, {}).information, 0u);
    EXPECT_EQ(Debug().Take(), "Invalid arguments: buffer are NULL\n");
    EXPECT_TRUE(words.empty());
}

TEST_F(DiagTest, OtherDriversJoinInTheReply)
{
    bool pends = false;
    const auto answerAs = [&](const char* name) {
        return [&pends, name](Diag* asked) -> NTSTATUS {
            if (std::string(asked->m_pszDriverName) == "driver" && asked->m_nArgumentCount == 0) {
                EXPECT_EQ(Filter_DiagPrint(asked, "%s - %d\n", name, 5), FILTER_STATUS_SUCCESS);
            } else if (std::string(asked->m_pszDriverName) == name) {
                EXPECT_EQ(Filter_DiagPrint(asked, "here is %s\n", name), FILTER_STATUS_SUCCESS);
                return pends ? STATUS_PENDING : STATUS_SUCCESS;
            }
            return Filter_DefaultIoCtrlHandler(nullptr, nullptr, 0, nullptr, 0, nullptr, 0, nullptr);
        };
    };
    Answerer one("one", answerAs("one"));
    Answerer two("two", answerAs("two"));
    EXPECT_THAT(Ask("driver"), MatchesRegex("filter - .*\none - 5\ntwo - 5\n"));
    EXPECT_EQ(Ask("two words"), "here is two\n");
    EXPECT_EQ(result.information, 40u + 12);
    EXPECT_EQ(Ask("three"), "");
    pends = true; // the framework completes it nevertheless
    EXPECT_EQ(Ask("one"), "here is one\n");
    // The hook driver is asked before them, with the same buffer.
    hook::SetIoControlHandler([](uint32_t code, const void*, uint32_t, void* output, uint32_t, uint32_t*) {
        EXPECT_EQ(code, IOCTL_NDIS_FILTER_DIAG);
        Filter_DiagPrint(static_cast<Diag*>(output), "hook\n");
        return STATUS_SUCCESS;
    });
    EXPECT_EQ(Ask("one"), "hook\n");
    EXPECT_EQ(Ask("filter nonsense"), kHelp);
}

TEST_F(DiagTest, OneRunsAtATime)
{
    std::unique_ptr<machine::File> second = OpenDevice();
    Answerer answerer("nested", [&](Diag*) -> NTSTATUS {
        std::thread([&] {
            for (const size_t length : {39, 100}) { // one that is refused anyway ends nothing
                Bytes output(length, 0xEE);
                const Result other = second->Control(IOCTL_NDIS_FILTER_DIAG, Command("filter help"), output);
                EXPECT_EQ(other.status, STATUS_SUCCESS);
                EXPECT_EQ(other.information, 0u);
            }
        }).join();
        FaultOnRead(); // and it ends when a handler faults
        return STATUS_SUCCESS;
    });
    Ask("nested");
    EXPECT_EQ(result.information, 40u);
    EXPECT_TRUE(Debug().Contains("driver diagnostic are in progress\n"));
    EXPECT_TRUE(Debug().Contains("NdisFilterIoControl: exception in filter, code = -1073741819\n"));
    EXPECT_EQ(Ask("filter help"), kHelp);
}

TEST_F(DiagTest, TheStateIsShownListByList)
{
    FilterAdapter* adapter = AddAdapter("{A} shown", kOwnMac);
    TestDriver driver("shown-client", adapter);
    TestFilter filter(driver, {.name = "shown-filter", .type = FILTER_TYPE_OUTGOING_PACKET, .order = 7});
    ASSERT_EQ(hook::DeliverSent(adapter, UdpFrame()), hook::Accepted::Yes);

    Answerer answerer("shown-answerer", [](Diag*) -> NTSTATUS { return STATUS_NOT_SUPPORTED; });
    const std::string owner = PointerText(driver.Handle());
    FilterTimer* timer = nullptr;
    ASSERT_EQ(Filter_InitializeTimer(
                  driver.Handle(), [](FilterDriver*, PVOID, FilterTimer*, PVOID) {}, &timer, TRUE, &timer),
              FILTER_STATUS_SUCCESS);
    Filter_StartTimer(timer, 1'000'000);
    const std::pair<const char*, std::string> replies[] = {
        {"filter show info", R"(- m_pDeviceObject = 0x[0-9A-F]{16}
- m_DeviceSymbolicLink = .DosDevices.NdisFilter
- m_bSymbolicLinkCreated = TRUE
)"},
        {"FILTER SHOW HOOKAPI extra", R"( - m_MajorVersion = 0x0{15}1
 - m_MinorVersion = 0x0{16}
 - Filter_AdapterOpened = 0x.{16}
( - .* = 0x.{16}
){18})"},
        {"filter show shmem", R"(- m_pMappedMemory = 0x.{16}
- m_bStopShare = FALSE
- m_pPendingReadIrp = 0x0{16}
- m_SharedMemory.KernelModeInput
(  - .*
){8}- m_pSharedMemory.KernelModeOutput
(  - .*
){7}  - m_nCount = 512
- m_nNdisHelperWorkThread = 3
- m_hShareMemoryThread.0. = 0x.{16}
)"},
        {"filter show adapter", R"(- m_nAdapterCount = 1
- m_AdapterList.0. = 0x.{16}
  - m_hAdapter = )" + PointerText(adapter) +
                                    R"(
  - m_nAdapterMedium = 0
  - m_usMTU = 1500
  - m_dwAdapterState = [0-9]+
  - m_PermanentAddress = 02-00-00-00-00-01
  - m_CurrentAddress = 02-00-00-00-00-01
  - m_szAdapterName = .A. shown
)"},
        {"filter show driver",
         "- pFilterDriver = " + owner + "\n- m_pDriverContext = " + PointerText(adapter) +
             "\n- m_DriverName = shown-client\n(.*\n){2}- m_DriverName = shown-answerer\n"},
        {"filter show filter", R"(Packet Filter.Type = 0 - (.*
)+- Filter.0.
  - m_FilterName      = shown-filter
  - m_hFilterDriver   = )" + owner +
                                   R"(
(.*
)+  - m_FilterOrder     = 7 - FILTER_ORDER_FIXED
  - m_PacketProcess   = 1
  - m_PacketBypass    = 1
  - m_PacketDiscard   = 0
(.*
)+)"},
        {"filter show timer", "- pFilterTimer = " + PointerText(timer) + "\n- m_hFilterDriver = " + owner +
                                  "\n- m_pDriverContext = " + PointerText(adapter) +
                                  "\n- m_pfTimerProc = 0x.{16}\n- m_pTimerContext = " + PointerText(&timer) +
                                  "\n- m_bRepeatTimer = TRUE\n- m_MsToDelay = 1000000\n"},
        {"filter show ioctl", R"(- pIoCtrlHandler = 0x.{16}
- m_hFilterDriver = 0x.{16}
- m_pfIoCtrlProc = 0x.{16}
- m_pIoCtrlContext = )" + PointerText(static_cast<HandlingDriver*>(&answerer)) +
                                  "\n"},
    };
    for (const auto& [command, reply] : replies) {
        EXPECT_THAT(Ask(command), MatchesRegex(reply)) << command;
    }
}

// The room of a text is reckoned without the header: up to 33 bytes more than there are count as printed.
TEST_F(DiagTest, EveryLengthOfOutputHoldsItsReply)
{
    constexpr uint32_t kFirst = 27; // "help - print this messages\n"
    for (uint32_t size = 0; size <= 700; size++) {
        const std::string text = Ask("filter help", size);
        if (size < 40) {
            EXPECT_EQ(result.information, 0u) << size;
            continue;
        }
        const uint32_t second = sizeof(kHelp) - 1 - kFirst;
        const uint32_t used = second <= size - kFirst ? kFirst + second : kFirst - 1;
        EXPECT_EQ(+diag.m_BufferUsed, used) << size;
        EXPECT_EQ(result.information, std::min(40 + used, size));
        EXPECT_EQ(text, std::string(kHelp).substr(0, std::min(used, size - kTextOffset))) << size;
    }
    Debug().Take();
    Ask("filter help", 39);
    EXPECT_EQ(Debug().Take(), "Buffer too small, copy buffer size is less than input buffer\n");
    // A first text that does not fit takes the count below zero.
    Ask("driver", 65);
    EXPECT_EQ(+diag.m_BufferUsed, 0xFFFFFFFFu);
    EXPECT_EQ(result.information, 39u);
    // Without memory a text that ends outside counts as one that does not fit.
    machine::FailAllFrom(machine::Fault::Pool, 1);
    Ask("filter help", 50);
    machine::ClearFaults();
    EXPECT_EQ(+diag.m_BufferUsed, 0xFFFFFFFEu);
}

TEST_F(DiagTest, TheReplyHoldsNothingThatTheProgramHasNotSent)
{
    // The command of a longer input stays behind the text area, whose last bytes are not cleared.
    Bytes output(48, 0xEE);
    const std::string command = "me 3456789012345678901234567890123456789012345678";
    Answerer answerer("full", [](Diag* asked) -> NTSTATUS {
        asked->m_BufferUsed = 4000;
        return STATUS_SUCCESS;
    });
    EXPECT_EQ(Control(IOCTL_NDIS_FILTER_DIAG, Command(command), output).information, 48u);
    EXPECT_EQ(std::string(output.begin() + 33, output.end()), std::string(8, '\0') + command.substr(41, 7));
    EXPECT_EQ(Control(IOCTL_NDIS_FILTER_DIAG, Command("me"), output).information, 48u);
    EXPECT_EQ(std::string(output.begin() + 33, output.end()), std::string(15, '\0'));
}

TEST_F(DiagTest, TheExportsRefuseWhatTheyAreNotGiven)
{
    Diag made = {};
    Diag* out = nullptr;
    char text[] = "x";
    EXPECT_EQ(Filter_BeginDiag(text, 1, &made, 0, &out), FILTER_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(Filter_BeginDiag(text, 1, &made, 40, Unwritable<Diag*>()), FILTER_ERROR_EXCEPTION);
    EXPECT_EQ(out, nullptr);
    // A buffer that holds no command, but what a program has written: its addresses are not followed.
    made.m_pszDriverName = Unreadable<char>();
    made.m_ppszArguments = Unreadable<PCHAR>();
    made.m_nArgumentCount = 1 << 30;
    made.m_BufferSize = 1 << 30;
    made.m_BufferUsed = 1u << 31; // a text would get room for two gigabytes
    EXPECT_EQ(Filter_BeginDiag(text, 1, &made, 40, &out), FILTER_STATUS_SUCCESS);
    EXPECT_EQ(out, &made);
    EXPECT_EQ(made.m_nArgumentCount, 0);
    EXPECT_EQ(made.m_BufferSize, 40u);
    EXPECT_EQ(made.m_BufferUsed, 0u);
    EXPECT_STREQ(made.m_pszDriverName, "NULL");
    EXPECT_EQ(Filter_DiagPrint(&made, "%s", Unreadable<char>()), FILTER_ERROR_EXCEPTION);
    EXPECT_EQ(made.m_BufferUsed, 0u);
    ExpectNoLockHeld("diagnostics that were refused");
}

} // namespace
