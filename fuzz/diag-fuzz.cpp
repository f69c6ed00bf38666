// Diagnostic lines of any words and lengths, into outputs of any length. A client driver answers with its words; what
// it prints is reckoned here once more, byte by byte. Records that a program forges reach it by another code.
#include "support/fuzz.h"

#include <algorithm>
#include <memory>
#include <vector>

using namespace fuzz;

namespace
{

constexpr uint32_t kForgedCode = NDIS_FILTER_CTL_CODE(0xA00);
constexpr uint32_t kTextOffset = offsetof(Diag, m_Text);
constexpr std::string_view kStarts[] = {"",        "client ", "filter ", "driver", "filter show ",
                                        "driver ", "CLIENT "};
constexpr std::string_view kWords[] = {"",       "help",   "info",  "hookapi", "shmem", "adapter",
                                       "driver", "filter", "timer", "ioctl",   "show ", "show filter "};

// The reply as it is laid down: a text that does not fit into what is left, reckoned without the record's head, takes
// one from the bytes used; what is written ends with the output.
struct Reply {
    // The line and the reply are in one buffer, whose last bytes are not cleared for the text.
    Reply(uint32_t length, const support::Bytes& line) : size(length), text(length)
    {
        constexpr size_t kLeft = sizeof(Diag::m_Text);
        for (size_t i = length > kLeft ? length - kLeft : 0; i < length && i < line.size(); ++i) {
            text[i] = static_cast<char>(line[i]);
        }
    }

    void Print(std::string_view printed)
    {
        const uint64_t offset = kTextOffset + uint64_t{used};
        if (offset < size) {
            const size_t room = size - static_cast<size_t>(offset);
            std::copy_n(printed.begin(), std::min(printed.size(), room),
                        text.begin() + static_cast<long>(offset));
            if (printed.size() < room) {
                text[static_cast<size_t>(offset) + printed.size()] = '\0';
            }
        }
        const uint32_t room = size - used;
        used += printed.size() <= room ? static_cast<uint32_t>(printed.size()) : UINT32_MAX;
    }

    const uint32_t size;
    uint32_t used = 0;
    std::vector<char> text; // of the output; only what lies behind the head counts
    bool answered = false;
};

Reply* expected = nullptr;

NTSTATUS Answer(PVOID, PIRP, ULONG code, PVOID input, ULONG inputLength, PVOID output, ULONG outputLength,
                ULONG_PTR* returned)
{
    Diag* diag = nullptr;
    if ((code != IOCTL_NDIS_FILTER_DIAG && code != kForgedCode) ||
        Filter_BeginDiag(input, inputLength, output, outputLength, &diag) != FILTER_STATUS_SUCCESS) {
        return STATUS_NOT_SUPPORTED;
    }
    RequireEqual(diag->m_BufferSize, outputLength, "the size in the record");
    Require(diag->m_nArgumentCount >= 0 && diag->m_nArgumentCount <= 16, "at most sixteen words");
    if (code == kForgedCode) {
        Require(diag->m_nArgumentCount == 0 || diag->m_ppszArguments != nullptr, "words where there are any");
        Filter_DiagPrint(diag, "%s %d\n", diag->m_pszDriverName, diag->m_nArgumentCount);
        *returned = outputLength;
        return STATUS_SUCCESS;
    }
    if (std::strncmp(diag->m_pszDriverName, "client", 7) != 0) {
        return STATUS_NOT_SUPPORTED;
    }
    for (LONG i = 0; i < diag->m_nArgumentCount; ++i) {
        const std::string_view word = diag->m_ppszArguments[i];
        Require(!word.empty() && word.find(' ') == word.npos, "a word");
        Filter_DiagPrint(diag, "%s", word.data());
        expected->Print(word);
        RequireEqual(diag->m_BufferUsed, expected->used, "bytes used");
    }
    expected->answered = true;
    return STATUS_SUCCESS;
}

class Fixture : public Machine
{
  public:
    Fixture() : handle_(process_.Open(kDevice))
    {
        FilterDriver* driver = RegisterDriver("client");
        IoCtrlHandler* handler = nullptr;
        RequireEqual(Filter_RegisterIoControl(driver, Answer, nullptr, &handler), FILTER_STATUS_SUCCESS,
                     "registering a handler");
        Send({nullptr, 0}); // for what is made at its first use
        Accept();
    }

    void Run(Input input)
    {
        Send(input);
        CheckAtRest();
    }

  private:
    void Send(Input input)
    {
        const uint32_t length = input.Below(1200);
        const bool forged = input.Below(8) == 7;
        support::Bytes line;
        for (const std::string_view part : {input.OneOf(kStarts), input.OneOf(kWords)}) {
            line.insert(line.end(), part.begin(), forged ? part.begin() : part.end());
        }
        const auto rest = input.Take(input.Size());
        line.insert(line.end(), rest.begin(), rest.end());

        Reply reply(length, line);
        expected = &reply;
        support::Bytes output(length);
        const auto result = handle_->Control(forged ? kForgedCode : IOCTL_NDIS_FILTER_DIAG, line, output);
        Require(result.status != STATUS_SUCCESS || result.information <= length,
                "no more than the output holds");
        if (reply.answered) {
            CheckReply(reply, output, result);
        }
    }

    static void CheckReply(const Reply& reply, const support::Bytes& output,
                           const machine::Request::Result& result)
    {
        RequireEqual(result.status, STATUS_SUCCESS, "the status of an answered line");
        const auto bytes =
            static_cast<uint32_t>(sizeof(Diag) + reply.used); // less than its head in front of the text
        RequireEqual(result.information, std::min(bytes, reply.size), "bytes returned");
        for (size_t i = sizeof(Diag); i < result.information; ++i) {
            RequireEqual(static_cast<char>(output[i]), reply.text[i], "a byte of the reply");
        }
    }

    machine::Process process_;
    const std::unique_ptr<machine::File> handle_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return RunOn<Fixture>(data, size);
}
