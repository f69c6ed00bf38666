// What the framework's neighbours do meanwhile: the hook driver's adapters open, close and carry frames, it unbinds and
// binds, capture logs start and stop; a user program sends its requests and uses the shared rings.
#include "world.h"

#include <support/rings.h>

#include <chrono>
#include <cstring>
#include <optional>
#include <thread>

namespace stress
{

namespace
{

void Linger(uint32_t times = 1)
{
    for (; times > 0; --times) {
        std::this_thread::sleep_for(std::chrono::microseconds(Dice().Below(1000)));
    }
}

Outcome CloseAndOpen()
{
    FilterAdapter* const adapter = AnyAdapter();
    hook::CloseAdapter(adapter);
    Linger();
    hook::OpenAdapter(adapter);
    return Outcome::Success;
}

Outcome RemoveAndAdd()
{
    if (Dice().Chance(90)) { // identifiers are never used again
        return Outcome::NothingToUse;
    }
    ReplaceAdapter(Dice().Below(kAdapters));
    return Outcome::Success;
}

Outcome RefuseOrFault()
{
    FilterAdapter* const adapter = AnyAdapter();
    const auto side = Dice().OneOf({hook::Side::Adapter, hook::Side::Protocols});
    hook::SetBehaviour(adapter, side, Dice().OneOf({hook::Behaviour::Refuse, hook::Behaviour::Fault}));
    Linger();
    hook::SetBehaviour(adapter, side, hook::Behaviour::Accept);
    return Outcome::Success;
}

Outcome IndicateStatus()
{
    hook::IndicateStatus(AnyAdapter(), Dice().OneOf<uint32_t>({0x4001000B, 0x4001000C, 0x40010099}));
    return Outcome::Success;
}

Outcome UnbindAndBind()
{
    RequireSuccess(hook::Unbind(Dice().OneOf({hook::UnbindMode::Drained, hook::UnbindMode::Abrupt})),
                   "unbinding");
    Linger();
    return Judge(hook::Bind());
}

Outcome StartAndStopCapture()
{
    RequireSuccess(AskOnce(IOCTL_NDIS_FILTER_START_ETHRLOG).status, "start of the log");
    Linger(Dice().Below(20));
    return Judge(AskOnce(IOCTL_NDIS_FILTER_STOP_ETHRLOG).status);
}

template <auto kDeliver>
Outcome Deliver()
{
    Random& random = Dice();
    std::vector<support::Bytes> frames(1 + random.Below(16));
    std::vector<std::span<const uint8_t>> spans;
    for (support::Bytes& frame : frames) {
        frame = AnyFrame();
        spans.emplace_back(frame);
    }
    hook::FrameOptions options;
    options.waitMs = 1;
    if (random.Chance(50)) {
        options.presentBytes = random.Below(100);
        options.pieces = {random.Below(60), 0, random.Below(200)};
        options.unmappedBuffers = random.Chance(30);
    }
    const hook::BatchResult result = kDeliver(AnyAdapter(), spans, options);
    Require(result.Ended() + result.noPacket == frames.size() && result.tooLong == 0,
            "each frame is accounted for");
    return result.accepted != 0 ? Outcome::Success : Outcome::Refused;
}

using support::Load;
using support::Out;

struct Program {
    std::optional<support::UserProgram> user;
    SharedMemory* memory = nullptr;
    int32_t seenRead = -1;                // of the input ring, when blocks were sent last
    std::optional<machine::Request> read; // is parked, or was
} g_program;

// What was written to the program counts as read, and what it has written is taken back.
void ClearRings()
{
    SharedRing& in = g_program.memory->KernelModeInput;
    SharedRing& out = g_program.memory->KernelModeOutput;
    support::Store(in.m_iWrite, Load(in.m_iRead));
    support::Store(out.m_iRead, Load(out.m_iWrite));
}

Outcome Ask(uint32_t code)
{
    return Judge(Device().Control(code, {}, {}).status);
}

Outcome StartShare()
{
    if (g_program.memory != nullptr) {
        return Outcome::NothingToUse;
    }
    machine::Status status = 0;
    g_program.memory = support::StartShare(Device(), &status, 1 + Dice().Below(1000));
    RequireSuccess(status, "a share");
    if (g_program.memory == nullptr) {
        return Outcome::Refused; // the hook driver maps, while it is bound
    }
    ClearRings(); // of what an earlier owner has left
    return Outcome::Success;
}

void EndRead()
{
    if (g_program.read) {
        g_program.read->Cancel();
        Require(g_program.read->Wait(60'000).has_value(), "a read that was cancelled ends");
        g_program.read.reset();
    }
}

Outcome StopShare()
{
    if (g_program.memory == nullptr || Dice().Chance(90)) {
        return Outcome::NothingToUse;
    }
    g_program.memory = nullptr;
    const Outcome outcome = Ask(IOCTL_NDIS_FILTER_STOP_SHARE);
    EndRead();
    return outcome;
}

// Success: the driver has taken something since the last time.
Outcome SendBlocks()
{
    if (g_program.memory == nullptr) {
        return Outcome::NothingToUse;
    }
    Random& random = Dice();
    SharedRing& ring = g_program.memory->KernelModeInput;
    const int32_t read = Load(ring.m_iRead);
    const bool moved = std::exchange(g_program.seenRead, read) != read;
    for (uint32_t i = 1 + random.Below(20); i > 0; --i) {
        if (support::Next(Load(ring.m_iWrite)) == Load(ring.m_iRead)) {
            ClearRings(); // the oldest is for no adapter
            break;
        }
        SharedBlock& block = support::NextInput(*g_program.memory);
        random.Fill(block.m_Data, 64);
        block.m_nAdapterId = 1 + random.Below(random.Chance(99) ? kAdapters : 100);
        block.m_nDirection = 1 + random.Below(random.Chance(90) ? 3 : 0x10000);
        block.m_nPacketSize =
            random.Chance(98) ? random.Below(sizeof(block.m_Data) + 1) : random.Below(0x7FFFFFFF);
        support::Advance(ring.m_iWrite);
    }
    const Outcome announced = Ask(IOCTL_NDIS_FILTER_WRITE_SHARE);
    return moved ? announced : Outcome::Refused;
}

// The driver's own indexes stay, or the rings would be halted for good.
uint32_t SpoilRings()
{
    if (g_program.memory == nullptr) {
        return 0;
    }
    SharedRing& in = g_program.memory->KernelModeInput;
    SharedRing& out = g_program.memory->KernelModeOutput;
    support::Store(in.m_iWrite, static_cast<int32_t>(Dice().Next()));
    support::Store(out.m_iRead, static_cast<int32_t>(Dice().Next()));
    Ask(IOCTL_NDIS_FILTER_WRITE_SHARE);
    ClearRings();
    return 1;
}

Outcome TakeBlocks()
{
    if (g_program.memory == nullptr) {
        return Outcome::NothingToUse;
    }
    SharedRing& ring = g_program.memory->KernelModeOutput;
    const bool some = !support::IsEmpty(ring);
    while (!support::IsEmpty(ring)) {
        support::Advance(ring.m_iRead);
    }
    if (g_program.read && (g_program.read->IsComplete() || Dice().Chance(20))) {
        EndRead();
    }
    if (!g_program.read) {
        g_program.read.emplace(Device().Send(IOCTL_NDIS_FILTER_READ_SHARE, {}, 0));
    }
    return some ? Outcome::Success : Outcome::Refused;
}

// A second read ends with a refusal, or because the first has just been completed.
uint32_t ReadTwice()
{
    if (!g_program.read || g_program.read->IsComplete()) {
        return 0;
    }
    machine::Request second = Device().Send(IOCTL_NDIS_FILTER_READ_SHARE, {}, 0);
    second.Cancel();
    Require(second.Wait(60'000).has_value(), "a second read ends");
    return 1;
}

Outcome CloseHandle()
{
    if (Dice().Chance(95)) {
        return Outcome::NothingToUse;
    }
    CloseProgram();
    Device();
    return Outcome::Success;
}

Outcome GetEvents()
{
    UserEvent event;
    const auto get = [&] {
        return Device().Control(IOCTL_NDIS_FILTER_GET_EVENT, {}, Out(event)).information != 0;
    };
    const bool some = get();
    for (uint32_t i = 0; i < 200 && get(); ++i) {
    }
    return some ? Outcome::Success : Outcome::Refused;
}

// The others, by their code, bytes of input and of output. The input begins with an identifier or a MAC address.
struct Exchange {
    const char* name;
    uint32_t floor, code;
    size_t input, output;
    bool byAddress = false;
};
constexpr Exchange kExchanges[] = {
    {"program: GET_VERSION", 99, IOCTL_NDIS_FILTER_GET_VERSION, 0, 2},
    {"program: GET_TCPIP_INTERFACES", 50, IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES, 0, sizeof(UserAdapterList)},
    {"program: CLEAR_EVENT", 99, IOCTL_NDIS_FILTER_CLEAR_EVENT, 0, 0},
    {"program: SET_IPCONFIG", 50, IOCTL_NDIS_FILTER_SET_IPCONFIG, sizeof(UserIPConfig), 0},
    {"program: GET_IPCONFIG", 50, IOCTL_NDIS_FILTER_GET_IPCONFIG, 4, sizeof(UserIPConfig)},
    {"program: SET_MEDIA_STATUS", 50, IOCTL_NDIS_FILTER_SET_MEDIA_STATUS, 7, 0, true},
    {"program: GET_MEDIA_STATUS", 50, IOCTL_NDIS_FILTER_GET_MEDIA_STATUS, 7, 7, true},
    {"program: GET_DBGFLAG", 99, IOCTL_NDIS_FILTER_GET_DBGFLAG, 0, 0},
    {"program: SET_PACKET_DUMP", 50, IOCTL_NDIS_FILTER_SET_PACKET_DUMP, 7, 0, true},
    {"program: GET_PACKET_DUMP", 50, IOCTL_NDIS_FILTER_GET_PACKET_DUMP, 7, 7, true},
    {"program: GET_ADAPTER", 50, IOCTL_NDIS_FILTER_GET_ADAPTER, 6, 10, true},
    {"program: PUT_SHAREDMEMORYSIZE", 99, IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE, 0, 4},
    {"program: DUMP_DEVICE_EXTENSION", 99, IOCTL_NDIS_FILTER_DUMP_DEVICE_EXTENSION, 0, 0},
    {"program: SET_CONGESTION_CONTROL", 99, IOCTL_NDIS_FILTER_SET_CONGESTION_CONTROL, 4, 0},
};

Outcome Send(const Exchange& exchange)
{
    std::vector<uint8_t> input(std::max<size_t>(exchange.input, 6));
    std::vector<uint8_t> output(exchange.output);
    const uint32_t adapter = Dice().Below(kAdapters);
    if (exchange.byAddress) {
        std::memcpy(input.data(), AdapterOptionsOf(adapter).address.data(), 6);
    } else {
        input[0] = static_cast<uint8_t>(adapter + 1);
    }
    input.resize(exchange.input);
    const auto result = Device().Control(exchange.code, input, output);
    Require(result.information <= std::max(exchange.input, exchange.output),
            "no more bytes are returned than there is room for");
    return result.status == STATUS_SUCCESS ? Outcome::Success : Outcome::Refused;
}

uint32_t SendTooShort(const Exchange& exchange)
{
    std::vector<uint8_t> input(exchange.input - (exchange.input != 0));
    std::vector<uint8_t> output(exchange.output - (exchange.output != 0));
    Require(Device().Control(exchange.code, input, output).status != STATUS_SUCCESS,
            "a request that is too short is refused");
    return 1;
}

// The code of clients' handlers, if there are any.
Outcome SendToClient()
{
    uint8_t output[4] = {};
    return Judge(Device().Control(kOwnCode, {}, output).status, {STATUS_NOT_SUPPORTED});
}

uint32_t SendAnything()
{
    Random& random = Dice();
    std::vector<uint8_t> input(random.Below(random.Chance(90) ? 64 : 3000));
    std::vector<uint8_t> output(random.Below(random.Chance(90) ? 64 : 10000));
    random.Fill(input.data(), input.size());
    const uint32_t code = NDIS_FILTER_CTL_CODE(0x800 + random.Below(0x200));
    // Not those whose effect the others rely on, nor the one that may stay pending.
    for (const uint32_t kept :
         {IOCTL_NDIS_FILTER_START_SHARE, IOCTL_NDIS_FILTER_STOP_SHARE, IOCTL_NDIS_FILTER_READ_SHARE,
          IOCTL_NDIS_FILTER_START_ETHRLOG, IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK,
          IOCTL_NDIS_FILTER_INTERNAL_UNBIND_NDIS_HOOK}) {
        if (code == kept) {
            return 0;
        }
    }
    Device().Control(code, input, output);
    return 1;
}

} // namespace

std::vector<Call> NeighbourCalls()
{
    std::vector<Call> calls = {
        {"adapter closes and opens", kAdministrator, kPassive, 99, CloseAndOpen},
        {"adapter is removed and added", kAdministrator, kPassive, 5, RemoveAndAdd},
        {"adapter refuses or faults", kAdministrator, kPassive, 99, RefuseOrFault},
        {"adapter indicates a status", kAdministrator, Level::Dispatch, 99, IndicateStatus},
        {"hook driver unbinds and binds", kAdministrator, kPassive, 99, UnbindAndBind, {}, &Plan::unbinds},
        {"capture starts and stops", kAdministrator, kPassive, 99, StartAndStopCapture, {}, &Plan::captures},
        {"frames received", kTraffic, Level::Dispatch, 15, Deliver<hook::DeliverReceivedBatch>},
        {"frames sent", kTraffic, Level::Dispatch, 15, Deliver<hook::DeliverSentBatch>},
        {"program: START_SHARE", kProgram, kPassive, 5, StartShare},
        {"program: STOP_SHARE", kProgram, kPassive, 3, StopShare},
        {"program: WRITE_SHARE", kProgram, kPassive, 40, SendBlocks, SpoilRings},
        {"program: READ_SHARE", kProgram, kPassive, 10, TakeBlocks, ReadTwice},
        {"program: closes its handle", kProgram, kPassive, 2, CloseHandle},
        {"program: GET_EVENT", kProgram, kPassive, 20, GetEvents},
        {"program: code of a client", kProgram, kPassive, 20, SendToClient, SendAnything},
    };
    for (const Exchange& exchange : kExchanges) {
        calls.push_back(
            {exchange.name, kProgram, kPassive, exchange.floor, [&exchange] { return Send(exchange); }});
        if (exchange.input + exchange.output != 0) {
            calls.back().illegal = [&exchange] { return SendTooShort(exchange); };
        }
    }
    return calls;
}

machine::File& Device()
{
    if (!g_program.user) {
        g_program.user.emplace();
    }
    return *g_program.user->device;
}

void CloseProgram()
{
    g_program.memory = nullptr;
    g_program.user.reset();
    EndRead();
}

} // namespace stress
