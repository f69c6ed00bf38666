// What the framework's neighbours do meanwhile: the hook driver's adapters open, close and carry frames, it unbinds and
// binds, capture logs start and stop; a user program sends its requests and uses the shared rings.
#include "world.h"

#include <support/records.h>

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

Outcome ChangeAdapter()
{
    FilterAdapter* const adapter = AnyAdapter();
    const uint32_t act = Dice().Below(30);
    const auto side = Dice().OneOf({hook::Side::Adapter, hook::Side::Protocols});
    if (act == 0) { // identifiers are never used again
        ReplaceAdapter(Dice().Below(kAdapters));
    } else if (act < 10) {
        hook::CloseAdapter(adapter);
        Linger();
        hook::OpenAdapter(adapter);
    } else if (act < 20) {
        hook::SetBehaviour(adapter, side, Dice().OneOf({hook::Behaviour::Refuse, hook::Behaviour::Fault}));
        Linger();
        hook::SetBehaviour(adapter, side, hook::Behaviour::Accept);
    } else {
        hook::IndicateStatus(adapter, Dice().OneOf<uint32_t>({0x4001000B, 0x4001000C, 0x40010099}));
    }
    return Outcome::Success;
}

Outcome UnbindAndBind()
{
    if (!g_plan.unbinds) {
        return Outcome::NothingToUse;
    }
    RequireSuccess(hook::Unbind(Dice().OneOf({hook::UnbindMode::Drained, hook::UnbindMode::Abrupt})),
                   "unbinding");
    Linger();
    return Judge(hook::Bind());
}

Outcome StartAndStopCapture()
{
    if (!g_plan.captures) {
        return Outcome::NothingToUse;
    }
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

using support::In;
using support::Out;

struct Program {
    std::unique_ptr<machine::Process> process;
    std::unique_ptr<machine::File> device;
    SharedMemory* memory = nullptr;
    std::optional<machine::Request> read; // is parked, or was
} g_program;

using Index = std::atomic_ref<int32_t>; // of a ring, sequentially consistent

int32_t Next(int32_t index)
{
    return (index + 1) % NDIS_FILTER_BLOCK_COUNT;
}

// What was written to the program counts as read, and what it has written is taken back.
void ClearRings()
{
    SharedRing& in = g_program.memory->KernelModeInput;
    SharedRing& out = g_program.memory->KernelModeOutput;
    Index(in.m_iWrite).store(Index(in.m_iRead));
    Index(out.m_iRead).store(Index(out.m_iWrite));
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
    const uint32_t value = 1 + Dice().Below(1000);
    uint64_t address = 0;
    RequireSuccess(Device().Control(IOCTL_NDIS_FILTER_START_SHARE, In(value), Out(address)).status,
                   "a share");
    if (address == NDIS_FILTER_SHARE_FAILED) {
        return Outcome::Refused; // the hook driver maps, while it is bound
    }
    g_program.memory = reinterpret_cast<SharedMemory*>(address);
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

Outcome SendBlocks()
{
    if (g_program.memory == nullptr) {
        return Outcome::NothingToUse;
    }
    Random& random = Dice();
    SharedRing& ring = g_program.memory->KernelModeInput;
    for (uint32_t i = 1 + random.Below(20); i > 0; --i) {
        const int32_t index = Index(ring.m_iWrite);
        if (Next(index) == Index(ring.m_iRead)) {
            ClearRings(); // the oldest is for no adapter
            break;
        }
        SharedBlock& block = g_program.memory->m_InputBlocks[index];
        random.Fill(block.m_Data, 64);
        block.m_nAdapterId = 1 + random.Below(random.Chance(99) ? kAdapters : 100);
        block.m_nDirection = 1 + random.Below(random.Chance(90) ? 3 : 0x10000);
        block.m_nPacketSize =
            random.Chance(98) ? random.Below(sizeof(block.m_Data) + 1) : random.Below(0x7FFFFFFF);
        Index(ring.m_iWrite).store(Next(index));
    }
    return Ask(IOCTL_NDIS_FILTER_WRITE_SHARE);
}

Outcome TakeBlocks()
{
    if (g_program.memory == nullptr) {
        return Outcome::NothingToUse;
    }
    SharedRing& ring = g_program.memory->KernelModeOutput;
    const bool some = Index(ring.m_iRead) != Index(ring.m_iWrite);
    while (Index(ring.m_iRead) != Index(ring.m_iWrite)) {
        Index(ring.m_iRead).store(Next(Index(ring.m_iRead)));
    }
    if (g_program.read && (g_program.read->IsComplete() || Dice().Chance(20))) {
        EndRead();
    }
    if (!g_program.read) {
        g_program.read.emplace(Device().Send(IOCTL_NDIS_FILTER_READ_SHARE, {}, 0));
    }
    return some ? Outcome::Success : Outcome::Refused;
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

// Any other request. Half of the inputs begin with an identifier or a MAC address and have the length of the longest.
Outcome SendRequest()
{
    Random& random = Dice();
    const bool sensible = random.Chance(50);
    const uint32_t code = IOCTL_NDIS_FILTER_GET_VERSION + 4 * random.Below(sensible ? 24 : 0x200);
    std::vector<uint8_t> input(sensible ? sizeof(UserIPConfig) : random.Below(3000));
    std::vector<uint8_t> output(sensible ? sizeof(UserAdapterList) : random.Below(10000));
    random.Fill(input.data(), sensible ? 0 : input.size());
    if (sensible && random.Chance(50)) {
        std::memcpy(input.data(), AdapterOptionsOf(random.Below(kAdapters)).address.data(), 6);
    } else if (sensible) {
        input[0] = static_cast<uint8_t>(1 + random.Below(kAdapters));
    }
    // Not those whose effect the others rely on, nor the one that may stay pending.
    for (const uint32_t kept :
         {IOCTL_NDIS_FILTER_START_SHARE, IOCTL_NDIS_FILTER_STOP_SHARE, IOCTL_NDIS_FILTER_READ_SHARE,
          IOCTL_NDIS_FILTER_START_ETHRLOG, IOCTL_NDIS_FILTER_INTERNAL_BIND_NDIS_HOOK,
          IOCTL_NDIS_FILTER_INTERNAL_UNBIND_NDIS_HOOK}) {
        if (code == kept) {
            return Outcome::NothingToUse;
        }
    }
    return Device().Control(code, input, output).status == STATUS_SUCCESS ? Outcome::Success
                                                                          : Outcome::Refused;
}

} // namespace

std::vector<Call> NeighbourCalls()
{
    return {
        {"adapter changes", kAdministrator, kPassive, 99, ChangeAdapter},
        {"hook driver unbinds and binds", kAdministrator, kPassive, 0, UnbindAndBind},
        {"capture starts and stops", kAdministrator, kPassive, 0, StartAndStopCapture},
        {"frames received", kTraffic, Level::Dispatch, 15, Deliver<hook::DeliverReceivedBatch>},
        {"frames sent", kTraffic, Level::Dispatch, 15, Deliver<hook::DeliverSentBatch>},
        {"program starts its share", kProgram, kPassive, 5, StartShare},
        {"program stops its share", kProgram, kPassive, 3, StopShare},
        {"program writes to its share", kProgram, kPassive, 40, SendBlocks},
        {"program reads its share", kProgram, kPassive, 10, TakeBlocks},
        {"program closes its handle", kProgram, kPassive, 2, CloseHandle},
        {"program gets events", kProgram, kPassive, 20, GetEvents},
        {"program sends another request", kProgram, kPassive, 5, SendRequest},
    };
}

machine::File& Device()
{
    if (g_program.device == nullptr) {
        g_program.process = std::make_unique<machine::Process>();
        g_program.device = g_program.process->Open(kDevice);
    }
    return *g_program.device;
}

void CloseProgram()
{
    g_program.memory = nullptr;
    g_program.device.reset();
    g_program.process.reset();
    EndRead();
}

} // namespace stress
