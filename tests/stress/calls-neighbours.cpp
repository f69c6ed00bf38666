// What the framework's neighbours do meanwhile: the hook driver's adapters open, close and carry frames, it unbinds and
// binds; a user program sends its requests and uses the shared rings; capture logs start and stop.
#include "neighbours.h"

#include <chrono>
#include <cstring>
#include <thread>

namespace stress
{

namespace
{

RoundPlan g_plan; // written before the threads start

// ------------------------------------------------------------------------------------------------ the hook driver

uint32_t AnyIndex(Caller& caller)
{
    return caller.Stream().Below(kAdapters);
}

void Linger(Caller& caller)
{
    std::this_thread::sleep_for(std::chrono::microseconds(caller.Stream().Below(1000)));
}

Outcome CloseAndOpen(Caller& caller)
{
    FilterAdapter* const adapter = TheWorld().adapters[AnyIndex(caller)].load();
    hook::CloseAdapter(adapter);
    Linger(caller);
    hook::OpenAdapter(adapter);
    return Outcome::Success;
}

Outcome RemoveAndAdd(Caller& caller)
{
    const uint32_t index = AnyIndex(caller);
    if (caller.Stream().Chance(90)) { // identifiers are never used again
        return Outcome::NothingToUse;
    }
    hook::RemoveAdapter(TheWorld().adapters[index].load());
    FilterAdapter* const adapter = hook::AddAdapter(AdapterOptionsOf(index));
    hook::OpenAdapter(adapter);
    TheWorld().adapters[index].store(adapter);
    return Outcome::Success;
}

Outcome IndicateStatus(Caller& caller)
{
    hook::IndicateStatus(AnyAdapter(caller.Stream()),
                         caller.Stream().OneOf<uint32_t>({0x4001000B, 0x4001000C, 0x40010099}));
    return Outcome::Success;
}

Outcome SetBehaviour(Caller& caller)
{
    using hook::Behaviour;
    FilterAdapter* const adapter = AnyAdapter(caller.Stream());
    const auto side = caller.Stream().OneOf({hook::Side::Adapter, hook::Side::Protocols});
    hook::SetBehaviour(adapter, side, caller.Stream().OneOf({Behaviour::Refuse, Behaviour::Fault}));
    Linger(caller);
    hook::SetBehaviour(adapter, side, Behaviour::Accept);
    return Outcome::Success;
}

Outcome UnbindAndBind(Caller& caller)
{
    if (!g_plan.unbinds) {
        return Outcome::NothingToUse;
    }
    using hook::UnbindMode;
    caller.Expect(hook::Unbind(caller.Stream().OneOf({UnbindMode::Drained, UnbindMode::Abrupt})),
                  STATUS_SUCCESS);
    Linger(caller);
    return caller.Judge(hook::Bind());
}

Outcome StartAndStopCapture(Caller& caller)
{
    if (!g_plan.captures || caller.Device() == nullptr) {
        return Outcome::NothingToUse;
    }
    caller.Expect(caller.Device()->Control(IOCTL_NDIS_FILTER_START_ETHRLOG, {}, {}).status, STATUS_SUCCESS);
    for (uint32_t i = caller.Stream().Below(20); i > 0; --i) {
        Linger(caller);
    }
    return caller.Judge(caller.Device()->Control(IOCTL_NDIS_FILTER_STOP_ETHRLOG, {}, {}).status);
}

template <auto kDeliver>
Outcome Deliver(Caller& caller)
{
    Random& random = caller.Stream();
    std::vector<support::Bytes> frames(1 + random.Below(16));
    std::vector<std::span<const uint8_t>> spans;
    for (support::Bytes& frame : frames) {
        frame = AnyFrame(random);
        spans.emplace_back(frame);
    }
    hook::FrameOptions options;
    options.waitMs = 1;
    if (random.Chance(50)) {
        options.presentBytes = random.Below(100);
        options.pieces = {random.Below(60), 0, random.Below(200)};
        options.unmappedBuffers = random.Chance(30);
    }
    const hook::BatchResult result = kDeliver(AnyAdapter(random), spans, options);
    caller.Check(result.Ended() + result.noPacket == frames.size() && result.tooLong == 0,
                 "each frame is accounted for");
    return result.accepted != 0 ? Outcome::Success : Outcome::Refused;
}

void DeliverWrongly(Caller& caller)
{
    const support::Bytes frame(hook::kLongestFrame + 1);
    const hook::Accepted accepted = hook::DeliverReceived(AnyAdapter(caller.Stream()), frame);
    caller.Check(accepted != hook::Accepted::Yes, "a frame that is too long is not taken");
}

// ------------------------------------------------------------------------------------------------ the program

struct Program {
    SharedMemory* memory = nullptr;
    std::optional<machine::Request> read; // is parked, or was
} g_program;

int32_t LoadIndex(const int32_t& index)
{
    return __atomic_load_n(&index, __ATOMIC_ACQUIRE);
}

void StoreIndex(int32_t& index, int32_t value)
{
    __atomic_store_n(&index, value, __ATOMIC_RELEASE);
}

int32_t Next(int32_t index)
{
    return (index + 1) % NDIS_FILTER_BLOCK_COUNT;
}

Outcome Ask(Caller& caller, uint32_t code)
{
    return caller.Device() == nullptr ? Outcome::NothingToUse
                                      : caller.Judge(caller.Device()->Control(code, {}, {}).status);
}

Outcome StartShare(Caller& caller)
{
    if (g_program.memory != nullptr || caller.Device() == nullptr) {
        return Outcome::NothingToUse;
    }
    const uint32_t value = 1 + caller.Stream().Below(1000);
    uint64_t address = 0;
    const auto result = caller.Device()->Control(IOCTL_NDIS_FILTER_START_SHARE,
                                                 {reinterpret_cast<const uint8_t*>(&value), sizeof(value)},
                                                 {reinterpret_cast<uint8_t*>(&address), sizeof(address)});
    caller.Expect(result.status, STATUS_SUCCESS);
    if (address == NDIS_FILTER_SHARE_FAILED) {
        return Outcome::Refused; // the hook driver maps, while it is bound
    }
    g_program.memory = reinterpret_cast<SharedMemory*>(address);
    // What an earlier owner has left.
    StoreIndex(g_program.memory->KernelModeOutput.m_iRead,
               LoadIndex(g_program.memory->KernelModeOutput.m_iWrite));
    StoreIndex(g_program.memory->KernelModeInput.m_iWrite,
               LoadIndex(g_program.memory->KernelModeInput.m_iRead));
    return Outcome::Success;
}

void StartShareWrongly(Caller& caller)
{
    const uint32_t value = 0;
    uint64_t address = 0;
    if (caller.Device() != nullptr) {
        const auto result = caller.Device()->Control(
            IOCTL_NDIS_FILTER_START_SHARE, {reinterpret_cast<const uint8_t*>(&value), sizeof(value)},
            {reinterpret_cast<uint8_t*>(&address), sizeof(address)});
        caller.Check(result.status != STATUS_SUCCESS, "a share of 0 is refused");
    }
}

void EndRead(Caller& caller)
{
    if (g_program.read) {
        g_program.read->Cancel();
        caller.Check(g_program.read->Wait(60'000).has_value(), "a read that was cancelled ends");
        g_program.read.reset();
    }
}

Outcome StopShare(Caller& caller)
{
    if (g_program.memory == nullptr || caller.Stream().Chance(90)) {
        return Outcome::NothingToUse;
    }
    g_program.memory = nullptr;
    const Outcome outcome = Ask(caller, IOCTL_NDIS_FILTER_STOP_SHARE);
    EndRead(caller);
    return outcome;
}

Outcome SendBlocks(Caller& caller)
{
    if (g_program.memory == nullptr) {
        return Outcome::NothingToUse;
    }
    Random& random = caller.Stream();
    SharedRing& ring = g_program.memory->KernelModeInput;
    for (uint32_t i = 1 + random.Below(20); i > 0; --i) {
        const int32_t index = LoadIndex(ring.m_iWrite);
        if (Next(index) == LoadIndex(ring.m_iRead)) {
            StoreIndex(ring.m_iWrite,
                       LoadIndex(ring.m_iRead)); // takes them back: the oldest is for no adapter
            break;
        }
        SharedBlock& block = g_program.memory->m_InputBlocks[index];
        const support::Bytes frame = AnyFrame(random);
        const size_t size = std::min<size_t>(frame.size(), sizeof(block.m_Data));
        block.m_nAdapterId = random.Chance(99) ? 1 + random.Below(kAdapters) : random.Below(100);
        block.m_nDirection = random.Below(random.Chance(90) ? 3 : 0x10000) + 1;
        block.m_nPacketSize =
            random.Chance(98) ? static_cast<uint32_t>(size) : static_cast<uint32_t>(random.Next());
        std::memcpy(block.m_Data, frame.data(), size);
        StoreIndex(ring.m_iWrite, Next(index));
    }
    return Ask(caller, IOCTL_NDIS_FILTER_WRITE_SHARE);
}

// The driver's own indexes stay, or the rings would be halted for good.
void SpoilRings(Caller& caller)
{
    if (g_program.memory == nullptr) {
        return;
    }
    SharedRing& in = g_program.memory->KernelModeInput;
    SharedRing& out = g_program.memory->KernelModeOutput;
    StoreIndex(in.m_iWrite, static_cast<int32_t>(caller.Stream().Next()));
    StoreIndex(out.m_iRead, static_cast<int32_t>(caller.Stream().Next()));
    Ask(caller, IOCTL_NDIS_FILTER_WRITE_SHARE);
    StoreIndex(in.m_iWrite, LoadIndex(in.m_iRead));
    StoreIndex(out.m_iRead, LoadIndex(out.m_iWrite));
}

Outcome TakeBlocks(Caller& caller)
{
    if (g_program.memory == nullptr) {
        return Outcome::NothingToUse;
    }
    SharedRing& ring = g_program.memory->KernelModeOutput;
    uint32_t taken = 0;
    for (; LoadIndex(ring.m_iRead) != LoadIndex(ring.m_iWrite); ++taken) {
        StoreIndex(ring.m_iRead, Next(LoadIndex(ring.m_iRead)));
    }
    if (g_program.read && (g_program.read->IsComplete() || caller.Stream().Chance(20))) {
        EndRead(caller);
    }
    if (!g_program.read && caller.Device() != nullptr) {
        g_program.read.emplace(caller.Device()->Send(IOCTL_NDIS_FILTER_READ_SHARE, {}, 0));
    }
    return taken != 0 ? Outcome::Success : Outcome::Refused;
}

// A second read is refused, and so is one of who has no share; the first goes on.
void ReadTwice(Caller& caller)
{
    if (g_program.read && !g_program.read->IsComplete() && caller.Device() != nullptr) {
        machine::Request second = caller.Device()->Send(IOCTL_NDIS_FILTER_READ_SHARE, {}, 0);
        second.Cancel(); // the first may have been completed just now
        caller.Check(second.Wait(60'000).has_value(), "a second read ends");
    }
}

Outcome CloseHandle(Caller& caller)
{
    if (caller.Stream().Chance(95)) {
        return Outcome::NothingToUse;
    }
    CloseProgram(caller);
    return caller.Check(caller.Device() != nullptr, "the device can be opened");
}

Outcome GetEvents(Caller& caller)
{
    UserEvent event;
    uint32_t count = 0;
    while (caller.Device() != nullptr && count < 200) {
        const auto result = caller.Device()->Control(IOCTL_NDIS_FILTER_GET_EVENT, {},
                                                     {reinterpret_cast<uint8_t*>(&event), sizeof(event)});
        if (result.information == 0) {
            break;
        }
        ++count;
    }
    return count != 0 ? Outcome::Success : Outcome::Refused;
}

// The others, by their code, bytes of input and of output. The input begins with an identifier or a MAC address.
struct Exchange {
    uint32_t code;
    uint32_t inputLength;
    uint32_t outputLength;
    bool byAddress;
};
constexpr Exchange kExchanges[] = {
    {IOCTL_NDIS_FILTER_GET_VERSION, 0, 2, false},
    {IOCTL_NDIS_FILTER_GET_TCPIP_INTERFACES, 0, sizeof(UserAdapterList), false},
    {IOCTL_NDIS_FILTER_CLEAR_EVENT, 0, 0, false},
    {IOCTL_NDIS_FILTER_SET_IPCONFIG, sizeof(UserIPConfig), 0, false},
    {IOCTL_NDIS_FILTER_GET_IPCONFIG, 4, sizeof(UserIPConfig), false},
    {IOCTL_NDIS_FILTER_SET_MEDIA_STATUS, 7, 0, true},
    {IOCTL_NDIS_FILTER_GET_MEDIA_STATUS, 7, 7, true},
    {IOCTL_NDIS_FILTER_GET_DBGFLAG, 0, 0, false},
    {IOCTL_NDIS_FILTER_SET_PACKET_DUMP, 7, 0, true},
    {IOCTL_NDIS_FILTER_GET_PACKET_DUMP, 7, 7, true},
    {IOCTL_NDIS_FILTER_GET_ADAPTER, 6, 10, true},
    {IOCTL_NDIS_FILTER_PUT_SHAREDMEMORYSIZE, 0, 4, false},
    {IOCTL_NDIS_FILTER_DUMP_DEVICE_EXTENSION, 0, 0, false},
    {IOCTL_NDIS_FILTER_SET_CONGESTION_CONTROL, 4, 0, false},
};

Outcome Send(Caller& caller, const Exchange& exchange)
{
    uint8_t input[sizeof(UserIPConfig)] = {};
    std::vector<uint8_t> output(exchange.outputLength);
    const uint32_t index = AnyIndex(caller);
    if (exchange.byAddress) {
        std::memcpy(input, AddressOfAdapter(index).data(), 6);
    } else {
        input[0] = static_cast<uint8_t>(index + 1);
    }
    if (caller.Device() == nullptr) {
        return Outcome::NothingToUse;
    }
    const auto result = caller.Device()->Control(exchange.code, {input, exchange.inputLength}, output);
    caller.Check(result.information <= std::max(exchange.inputLength, exchange.outputLength),
                 "no more bytes are returned than there is room for");
    return result.status == STATUS_SUCCESS ? Outcome::Success : Outcome::Refused;
}

template <size_t kIndex>
Outcome SendOne(Caller& caller)
{
    return Send(caller, kExchanges[kIndex]);
}

template <size_t kIndex>
void SendTooShort(Caller& caller)
{
    constexpr Exchange exchange = kExchanges[kIndex];
    if constexpr (exchange.inputLength + exchange.outputLength != 0) {
        std::vector<uint8_t> input(exchange.inputLength != 0 ? exchange.inputLength - 1 : 0);
        std::vector<uint8_t> output(exchange.outputLength != 0 ? exchange.outputLength - 1 : 0);
        if (caller.Device() != nullptr) {
            caller.Check(caller.Device()->Control(exchange.code, input, output).status != STATUS_SUCCESS,
                         "a request that is too short is refused");
        }
    }
}

// A code of some client's handler, if it is there.
Outcome SendToClient(Caller& caller)
{
    uint8_t output[4] = {};
    if (caller.Device() == nullptr) {
        return Outcome::NothingToUse;
    }
    const uint32_t code = kOwnCode + 4 * caller.Stream().Below(kClients);
    return caller.Judge(caller.Device()->Control(code, {}, output).status, {STATUS_NOT_SUPPORTED});
}

void SendAnything(Caller& caller)
{
    Random& random = caller.Stream();
    std::vector<uint8_t> input(random.Below(random.Chance(90) ? 64 : 3000));
    std::vector<uint8_t> output(random.Below(random.Chance(90) ? 64 : 10000));
    random.Fill(input.data(), input.size());
    // Not those whose effect the others rely on, nor the one that may stay pending.
    const uint32_t code = 0x80002000u + 4 * random.Below(0x200);
    const bool kept = code == IOCTL_NDIS_FILTER_START_SHARE || code == IOCTL_NDIS_FILTER_STOP_SHARE ||
                      code == IOCTL_NDIS_FILTER_READ_SHARE || code == IOCTL_NDIS_FILTER_START_ETHRLOG ||
                      code == IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK ||
                      code == IOCTL_NDIS_FILTER_INTERNAL_UNBIND_NDIS_HOOK;
    if (!kept && caller.Device() != nullptr) {
        caller.Device()->Control(code, input, output);
    }
}

// ------------------------------------------------------------------------------------------------- the table

constexpr auto P = Level::Passive;
constexpr auto D = Level::Dispatch;
constexpr auto Administrator = Actor::Administrator;
constexpr auto User = Actor::Program;

template <size_t kIndex>
constexpr Call ExchangeCall(const char* name, uint32_t floor = 99)
{
    return {name, User, P, floor, SendOne<kIndex>, SendTooShort<kIndex>};
}

constexpr Call kCalls[] = {
    {"adapter closes and opens", Administrator, P, 99, CloseAndOpen, nullptr},
    {"adapter is removed and added", Administrator, P, 1, RemoveAndAdd, nullptr},
    {"adapter indicates a status", Administrator, D, 99, IndicateStatus, nullptr},
    {"adapter refuses or faults", Administrator, P, 99, SetBehaviour, nullptr},
    {"hook driver unbinds and binds", Administrator, P, 0, UnbindAndBind, nullptr},
    {"capture starts and stops", Administrator, P, 0, StartAndStopCapture, nullptr},
    {"frames received", Actor::Traffic, D, 20, Deliver<hook::DeliverReceivedBatch>, DeliverWrongly},
    {"frames sent", Actor::Traffic, D, 20, Deliver<hook::DeliverSentBatch>, DeliverWrongly},
    {"program: START_SHARE", User, P, 1, StartShare, StartShareWrongly},
    {"program: STOP_SHARE", User, P, 1, StopShare, nullptr},
    {"program: WRITE_SHARE", User, P, 20, SendBlocks, SpoilRings},
    {"program: READ_SHARE", User, P, 1, TakeBlocks, ReadTwice},
    {"program: closes its handle", User, P, 1, CloseHandle, nullptr},
    {"program: GET_EVENT", User, P, 10, GetEvents, nullptr},
    ExchangeCall<0>("program: GET_VERSION"),
    ExchangeCall<1>("program: GET_TCPIP_INTERFACES", 20),
    ExchangeCall<2>("program: CLEAR_EVENT"),
    ExchangeCall<3>("program: SET_IPCONFIG", 10),
    ExchangeCall<4>("program: GET_IPCONFIG", 10),
    ExchangeCall<5>("program: SET_MEDIA_STATUS", 10),
    ExchangeCall<6>("program: GET_MEDIA_STATUS", 10),
    ExchangeCall<7>("program: GET_DBGFLAG"),
    ExchangeCall<8>("program: SET_PACKET_DUMP", 10),
    ExchangeCall<9>("program: GET_PACKET_DUMP", 10),
    ExchangeCall<10>("program: GET_ADAPTER", 10),
    ExchangeCall<11>("program: PUT_SHAREDMEMORYSIZE"),
    ExchangeCall<12>("program: DUMP_DEVICE_EXTENSION"),
    ExchangeCall<13>("program: SET_CONGESTION_CONTROL"),
    {"program: code of a client", User, P, 5, SendToClient, SendAnything},
};

} // namespace

std::span<const Call> NeighbourCalls()
{
    return kCalls;
}

void PlanNeighbours(const RoundPlan& plan)
{
    g_plan = plan;
}

void CloseProgram(Caller& caller)
{
    g_program.memory = nullptr;
    caller.CloseDevice();
    EndRead(caller);
}

} // namespace stress
