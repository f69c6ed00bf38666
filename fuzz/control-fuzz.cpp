// Control requests of several handles in any order, of any length and content, with requests that are cancelled and
// handles that are closed in between, while a client reports events and frames pass.
#include "support/fuzz.h"

#include <array>
#include <memory>
#include <optional>

using namespace fuzz;

namespace
{

constexpr size_t kHandles = 3, kRequests = 4, kSteps = 24;
constexpr uint32_t kHandlersCode = NDIS_FILTER_CTL_CODE(0xA00); // nobody's but the client driver's
constexpr uint32_t kHooksCode = NDIS_FILTER_CTL_CODE(0xA01);    // the hook driver's

// The framework's own from the first to the last, those between them that nobody has, and others.
constexpr uint32_t kOwnCodes =
    (IOCTL_NDIS_FILTER_SET_CONGESTION_CONTROL - IOCTL_NDIS_FILTER_GET_VERSION) / 4 + 1;
constexpr uint32_t kOtherCodes[] = {IOCTL_NDIS_FILTER_DIAG, kHandlersCode, kHooksCode,
                                    NDIS_FILTER_CTL_CODE(0x900), IOCTL_NDIS_FILTER_GET_VERSION + 1};

uint32_t CodeOf(Input& input)
{
    const uint32_t choice = input.Below(kOwnCodes + std::size(kOtherCodes));
    return choice < kOwnCodes ? IOCTL_NDIS_FILTER_GET_VERSION + 4 * choice : kOtherCodes[choice - kOwnCodes];
}

// Lengths of records, and one byte less and more.
constexpr uint16_t kLengths[] = {0,    1,    2,    3,    4,    5,    6,    7,    8,    9,   10,
                                 11,   39,   40,   41,   223,  224,  225,  227,  228,  229, 282,
                                 1023, 1024, 1025, 1035, 1036, 1037, 9027, 9028, 9029, 9156};

struct Answer {
    NTSTATUS status;
    uint32_t claimed;
} nextAnswer; // of the client driver and of the hook driver

NTSTATUS HandleRequest(PVOID, PIRP, ULONG code, PVOID, ULONG, PVOID, ULONG, ULONG_PTR* returned)
{
    if (code != kHandlersCode) {
        return STATUS_NOT_SUPPORTED;
    }
    *returned = nextAnswer.claimed;
    return nextAnswer.status;
}

class Fixture : public Machine
{
  public:
    Fixture() : driver_(RegisterDriver("client"))
    {
        IoCtrlHandler* handler = nullptr;
        RequireEqual(Filter_RegisterIoControl(driver_, HandleRequest, nullptr, &handler),
                     FILTER_STATUS_SUCCESS, "registering a handler");
        hook::SetIoControlHandler(
            [](uint32_t code, const void*, uint32_t, void*, uint32_t, uint32_t* returned) {
                *returned = nextAnswer.claimed;
                return code == kHooksCode ? nextAnswer.status : STATUS_NOT_SUPPORTED;
            });
        for (int i = 0; i < 8; ++i) { // the lookaside list keeps a few
            Filter_ReportEventEx(0, 0, 0, nullptr);
        }
        PutBack();
        Accept();
    }

    void Run(Input input)
    {
        for (size_t step = 0; step < kSteps && !input.IsEmpty(); ++step) {
            switch (input.Below(8)) {
            case 0:
                Handle(input) = nullptr;
                break;
            case 1:
                if (std::optional<machine::Request>& request = requests_[input.Below(kRequests)]) {
                    request->Cancel();
                }
                break;
            case 2:
                Report(input);
                break;
            case 3:
                Pass(input);
                break;
            default:
                Send(input);
                break;
            }
        }
        PutBack();
        CheckAtRest();
    }

  private:
    std::unique_ptr<machine::File>& Handle(Input& input) { return handles_[input.Below(kHandles)]; }

    void Send(Input& input)
    {
        std::unique_ptr<machine::File>& handle = Handle(input);
        if (handle == nullptr) {
            handle = process_.Open(kDevice);
            Require(handle != nullptr, "a handle of the device");
        }
        const uint32_t code = CodeOf(input);
        nextAnswer = {input.Flag() ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL, input.OneOf(kLengths)};
        const size_t inputLength = input.OneOf(kLengths), outputLength = input.OneOf(kLengths);
        const auto given = input.Take(inputLength);
        support::Bytes bytes(given.begin(), given.end());
        bytes.resize(inputLength);
        machine::Request request = handle->Send(code, bytes, outputLength);
        if (const auto result = request.Wait(0)) {
            Require(result->status != STATUS_SUCCESS || result->information <= outputLength,
                    "no more bytes than the output holds");
            return;
        }
        RequireEqual(code, IOCTL_NDIS_FILTER_READ_SHARE, "the code of a request that waits");
        std::optional<machine::Request>& place = requests_[input.Below(kRequests)];
        if (place) {
            place->Cancel(); // its destructor waits for it
        }
        place = std::move(request);
    }

    void Report(Input& input)
    {
        FilterEventHead head = input.Get<FilterEventHead>();
        head.m_hAdapter = adapters[input.Below(kAdapters)]; // others would use up the identifiers
        Filter_ReportEventEx(input.Byte(), input.Byte(), sizeof(head), &head);
    }

    void Pass(Input& input)
    {
        FilterPacket* packet = MakePacket(adapters[input.Below(kAdapters)], input.Take(input.Byte()));
        if (input.Flag()) {
            Filter_IndicatePacketToApplication(packet, 1, 2);
            Filter_ReleasePacket(packet);
        } else {
            Filter_InjectPacketToAdapter(packet->m_hAdapter, packet);
        }
    }

    void PutBack()
    {
        for (std::optional<machine::Request>& request : requests_) {
            if (request) {
                request->Cancel();
                Require(request->Wait().has_value(), "a cancelled request ends");
                request.reset();
            }
        }
        for (std::unique_ptr<machine::File>& handle : handles_) {
            handle = nullptr;
        }
        const auto handle = process_.Open(kDevice);
        for (const uint32_t code : {IOCTL_NDIS_FILTER_CLEAR_EVENT, IOCTL_NDIS_FILTER_STOP_ETHRLOG}) {
            RequireEqual(handle->Control(code, {}, {}).status, STATUS_SUCCESS, "clearing");
        }
        for (size_t i = 0; i < kAdapters; ++i) {
            Filter_SetAdapterPacketDump(kAddresses[i].data(), FALSE);
            IPConfig config = {};
            config.hAdapter = adapters[i];
            Filter_SetIPConfig(&config);
        }
    }

    FilterDriver* const driver_;
    machine::Process process_;
    std::array<std::unique_ptr<machine::File>, kHandles> handles_;
    std::array<std::optional<machine::Request>, kRequests> requests_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return RunOn<Fixture>(data, size);
}
