// The road of a frame through the driver: delivery to the framework, and what the framework delivers.
#include "hook-state.h"

#include <hostguard.h>

#include <algorithm>

namespace hook
{
namespace
{

// Parsers and filters may look at the headers of a frame that is too short to have them: what they find is
// zero.
constexpr size_t kReadableBytes = 128;
static_assert(kLongestFrame == FILTER_PACKET_DATA_SIZE);
constexpr UCHAR kAbsentByte = 0xDB; // where the rest of a frame belongs that is not present

// Runs code that is not ours; answers 0 or the exception that it raised.
template <class Body>
NTSTATUS CallGuarded(Body& body)
{
    return HostCallGuarded(&body, [](void* context) { (*static_cast<Body*>(context))(); });
}

bool FillPacket(HookState& state, FilterPacket* packet, VirtualAdapter& adapter,
                std::span<const uint8_t> frame, const FrameOptions& options)
{
    size_t present = frame.size();
    if (options.presentBytes) {
        present = std::min<size_t>(present, *options.presentBytes);
        if (!AttachNdisPacket(state, packet, frame, options)) {
            return false;
        }
        RtlFillMemory(packet->m_Data + present, frame.size() - present, kAbsentByte);
    }
    if (frame.size() < kReadableBytes) {
        RtlZeroMemory(packet->m_Data + frame.size(), kReadableBytes - frame.size());
    }
    if (present != 0) {
        RtlCopyMemory(packet->m_Data, frame.data(), present);
    }
    packet->m_nBytesRead = static_cast<ULONG>(present);
    packet->m_nPacketSize = static_cast<ULONG>(frame.size());
    packet->m_hAdapter = &adapter.record;
    return true;
}

// Frees the packet, its release callback first. Answers the exception that the callback raised.
NTSTATUS RetirePacket(HookState& state, const ProcessorScope& scope, FilterPacket* packet)
{
    NTSTATUS code = STATUS_SUCCESS;
    if (packet->m_pfReleaseCallback != nullptr) {
        auto release = [packet] { packet->m_pfReleaseCallback(packet, packet->m_pReleaseContext); };
        code = CallGuarded(release);
    }
    if (HeaderOf(packet)->ndisPacket != nullptr) {
        DetachNdisPacket(packet);
    }
    state.pool.Give(scope, packet);
    return code;
}

// ------------------------------------------------------------------------------------- towards the framework

template <Origin kOrigin>
Accepted DeliverFrame(HookState& state, const ProcessorScope& scope, VirtualAdapter& adapter,
                      std::span<const uint8_t> frame, const FrameOptions& options)
{
    // Read anew for each frame: an unbind takes it away.
    const auto callback =
        kOrigin == Origin::Received ? state.callbacks.received.load() : state.callbacks.send.load();
    if (callback == nullptr) {
        return Accepted::NotBound;
    }
    if (!adapter.open.load(std::memory_order_relaxed)) {
        return Accepted::AdapterClosed;
    }
    if (frame.size() > kLongestFrame) {
        return Accepted::TooLong;
    }
    FilterPacket* packet = state.pool.Take(scope, kOrigin, nullptr, 0);
    if (packet == nullptr) {
        return state.pool.IsAtLimit() ? Accepted::NoPacket : Accepted::NoMemory;
    }
    if (!FillPacket(state, packet, adapter, frame, options)) {
        state.pool.Give(scope, packet);
        return Accepted::NoMemory;
    }
    AdapterCounts& counts = adapter.counts[scope.Number()];
    if constexpr (kOrigin == Origin::Received) {
        Add(counts.receivedFrames, 1);
        Add(counts.receivedBytes, frame.size());
    } else {
        Add(counts.sentFrames, 1);
        Add(counts.sentBytes, frame.size());
    }
    callback(packet);
    return Accepted::Yes;
}

void Count(BatchResult& result, Accepted accepted, size_t frames)
{
    switch (accepted) {
    case Accepted::Yes:
        result.accepted += frames;
        break;
    case Accepted::NotBound:
        result.notBound += frames;
        break;
    case Accepted::AdapterClosed:
        result.adapterClosed += frames;
        break;
    case Accepted::TooLong:
        result.tooLong += frames;
        break;
    case Accepted::NoPacket:
        result.noPacket += frames;
        break;
    case Accepted::NoMemory:
        result.noMemory += frames;
        break;
    }
}

// Delivers frames until none is left or packets have run out and the caller waits for one.
class Delivering
{
  public:
    Delivering(FilterAdapter* adapter, Frames frames, const FrameOptions& options)
        : adapter_(Ours(adapter)), frames_(frames), options_(options)
    {}

    template <Origin kOrigin>
    BatchResult Run()
    {
        while (next_ < frames_.size()) {
            const bool mayWait = RunAtDispatch<kOrigin>();
            if (next_ < frames_.size() && !(mayWait && waitedFor_->Wait(options_.waitMs))) {
                StopWaiting(false);
                Count(result_, Accepted::NoPacket, 1);
                if (options_.endWithoutPacket) {
                    break;
                }
                ++next_;
            }
        }
        return result_;
    }

  private:
    template <Origin kOrigin>
    bool RunAtDispatch()
    {
        ProcessorScope scope;
        HookState* state = scope.State();
        if (state == nullptr) {
            StopWaiting(false);
            Count(result_, Accepted::NotBound, frames_.size() - next_);
            next_ = frames_.size();
            return false;
        }
        for (; next_ < frames_.size(); ++next_) {
            Accepted accepted = DeliverFrame<kOrigin>(*state, scope, adapter_, frames_[next_], options_);
            if (accepted == Accepted::NoPacket) {
                if (waitedFor_ != nullptr) {
                    break;
                }
                waitedFor_ = &state->pool;
                waitedFor_->Register();
                accepted = DeliverFrame<kOrigin>(*state, scope, adapter_, frames_[next_], options_);
                if (accepted == Accepted::NoPacket) {
                    break;
                }
            }
            if (waitedFor_ != nullptr) {
                StopWaiting(true);
            }
            Count(result_, accepted, 1);
        }
        state->pool.Flush(scope);
        return scope.MayWait();
    }

    void StopWaiting(bool gotPacket)
    {
        if (waitedFor_ != nullptr) {
            waitedFor_->Deregister(gotPacket);
            waitedFor_ = nullptr;
        }
    }

    VirtualAdapter& adapter_;
    Frames frames_;
    const FrameOptions& options_;
    size_t next_ = 0;
    PacketPool* waitedFor_ = nullptr; // registered with it, which keeps it from being freed
    BatchResult result_;
};

Accepted TheOnly(const BatchResult& result)
{
    return result.accepted        ? Accepted::Yes
           : result.notBound      ? Accepted::NotBound
           : result.adapterClosed ? Accepted::AdapterClosed
           : result.tooLong       ? Accepted::TooLong
           : result.noPacket      ? Accepted::NoPacket
                                  : Accepted::NoMemory;
}

// ----------------------------------------------------------------------------------- back from the framework

// The frame as it goes out; `buffer` holds FILTER_PACKET_DATA_SIZE bytes.
std::span<const uint8_t> FrameOf(FilterPacket* packet, uint8_t* buffer)
{
    PNDIS_PACKET ndisPacket = packet->m_pOutgoingNdisPacket != nullptr ? packet->m_pOutgoingNdisPacket
                                                                       : packet->m_pIncomingNdisPacket;
    if (!packet->m_bDirty && ndisPacket != nullptr) {
        return {buffer, GatherNdisPacket(ndisPacket, buffer, FILTER_PACKET_DATA_SIZE)};
    }
    return {packet->m_Data, std::min<size_t>(packet->m_nPacketSize, FILTER_PACKET_DATA_SIZE)};
}

__attribute__((noinline)) void CallSink(const Sink& sink, VirtualAdapter& adapter, Side side,
                                        FilterPacket* packet)
{
    uint8_t buffer[FILTER_PACKET_DATA_SIZE];
    const Delivery delivery = {&adapter.record, side, HeaderOf(packet)->origin, packet->m_bDirty != FALSE,
                               packet};
    auto call = [&] { sink(FrameOf(packet, buffer), delivery); };
    if (const NTSTATUS code = CallGuarded(call); code != STATUS_SUCCESS) {
        ReportMisuse("a sink of adapter \"%s\" raised exception 0x%08X", adapter.options.name.c_str(),
                     static_cast<unsigned>(code));
    }
}

// False: it is no packet, or one that the framework does not own.
bool CheckOut(FilterPacket* packet, const char* function, PCSTR file, ULONG line)
{
    const ULONG mark = __atomic_load_n(&HeaderOf(packet)->mark, __ATOMIC_RELAXED);
    if (mark == kPacketOut) {
        return true;
    }
    const PacketHeader* header = HeaderOf(packet);
    if (mark == kPacketFree) {
        ReportMisuse("%s: packet %p is free already; given back at %s, now at %s", function,
                     static_cast<void*>(packet), DescribePlace(header->freedFile, header->freedLine).c_str(),
                     DescribePlace(file, line).c_str());
    } else {
        ReportMisuse("%s: %p is no packet (at %s)", function, static_cast<void*>(packet),
                     DescribePlace(file, line).c_str());
    }
    return false;
}

// Takes the packet over and frees it, whatever becomes of the frame. *exception: what to raise then, or 0.
template <Side kSide>
NDIS_STATUS TakeDelivery(FilterAdapter* handle, FilterPacket* packet, NTSTATUS* exception)
{
    constexpr int kIndex = static_cast<int>(kSide);
    ProcessorScope scope;
    HookState* state = scope.State();
    if (state == nullptr) {
        return NDIS_STATUS_FAILURE;
    }
    VirtualAdapter* adapter = FindOurs(handle);
    Behaviour behaviour = Behaviour::Refuse;
    if (adapter != nullptr && adapter->open.load(std::memory_order_relaxed)) {
        behaviour = adapter->sides[kIndex].behaviour.load(std::memory_order_relaxed);
    }
    if (behaviour == Behaviour::Accept) {
        if (packet->m_nPacketSize > FILTER_PACKET_DATA_SIZE) {
            ReportMisuse("packet %p of %u bytes delivered, a packet holds %u", static_cast<void*>(packet),
                         packet->m_nPacketSize, FILTER_PACKET_DATA_SIZE);
        }
        AdapterCounts& counts = adapter->counts[scope.Number()];
        Add(counts.deliveredFrames[kIndex], 1);
        Add(counts.deliveredBytes[kIndex], packet->m_nPacketSize);
        if (const Sink* sink = adapter->sides[kIndex].sink.load(); sink != nullptr) {
            CallSink(*sink, *adapter, kSide, packet);
        }
    } else {
        Add(state->counts[scope.Number()].refused, 1);
    }
    HeaderOf(packet)->freedFile =
        kSide == Side::Adapter ? "delivery to the adapter" : "delivery to the protocols";
    HeaderOf(packet)->freedLine = 0;
    *exception = RetirePacket(*state, scope, packet);
    if (behaviour == Behaviour::Fault) {
        *exception = STATUS_ACCESS_VIOLATION;
    }
    return behaviour == Behaviour::Accept ? NDIS_STATUS_SUCCESS : NDIS_STATUS_FAILURE;
}

template <Side kSide>
ULONG InjectPacket(FilterAdapter* adapter, FilterPacket* packet)
{
    if (packet == nullptr || !CheckOut(packet, "Hook_InjectPacket", nullptr, 0)) {
        return static_cast<ULONG>(NDIS_STATUS_FAILURE);
    }
    NTSTATUS exception = STATUS_SUCCESS;
    const NDIS_STATUS status = TakeDelivery<kSide>(adapter, packet, &exception);
    if (exception != STATUS_SUCCESS) { // raised outside of the scope, which an exception would not close
        ExRaiseStatus(exception);
    }
    return static_cast<ULONG>(status);
}

} // namespace

void RefusePacket(FilterAdapter*, FilterPacket* packet)
{
    if (packet == nullptr || !CheckOut(packet, "Hook_InjectPacket", nullptr, 0)) {
        return;
    }
    ProcessorScope scope;
    if (HookState* state = scope.State(); state != nullptr) {
        HeaderOf(packet)->freedFile = "a delivery that was to fail";
        HeaderOf(packet)->freedLine = 0;
        Add(state->counts[scope.Number()].refused, 1);
        RetirePacket(*state, scope, packet);
    }
}

Accepted DeliverReceived(FilterAdapter* adapter, std::span<const uint8_t> frame, const FrameOptions& options)
{
    return TheOnly(Delivering(adapter, {&frame, 1}, options).Run<Origin::Received>());
}

Accepted DeliverSent(FilterAdapter* adapter, std::span<const uint8_t> frame, const FrameOptions& options)
{
    return TheOnly(Delivering(adapter, {&frame, 1}, options).Run<Origin::Sent>());
}

BatchResult DeliverReceivedBatch(FilterAdapter* adapter, Frames frames, const FrameOptions& options)
{
    return Delivering(adapter, frames, options).Run<Origin::Received>();
}

BatchResult DeliverSentBatch(FilterAdapter* adapter, Frames frames, const FrameOptions& options)
{
    return Delivering(adapter, frames, options).Run<Origin::Sent>();
}

void SetSink(FilterAdapter* adapter, Side side, Sink sink)
{
    AdapterSide& place = Ours(adapter).sides[static_cast<int>(side)];
    std::unique_ptr<Sink> old(place.sink.exchange(sink ? new Sink(std::move(sink)) : nullptr));
    WaitForProcessors();
}

void SetBehaviour(FilterAdapter* adapter, Side side, Behaviour behaviour)
{
    Ours(adapter).sides[static_cast<int>(side)].behaviour.store(behaviour);
}

FilterPacket* HookAllocatePacket(FilterAdapter* adapter, PCSTR file, ULONG line)
{
    ProcessorScope scope;
    HookState* state = scope.State();
    // The framework does not know whether the handle is an adapter: the user program may have chosen it.
    FilterPacket* packet = state != nullptr && (adapter == nullptr || IsAdapterOf(*state, adapter))
                               ? state->pool.Take(scope, Origin::Allocated, file, line)
                               : nullptr;
    if (packet != nullptr) {
        packet->m_hAdapter = adapter;
        RtlZeroMemory(packet->m_Data, kReadableBytes);
        Add(state->counts[scope.Number()].allocated, 1);
    }
    return packet;
}

VOID HookFreePacket(FilterPacket* packet, PCSTR file, ULONG line)
{
    if (packet == nullptr || !CheckOut(packet, "Hook_FreePacket", file, line)) {
        return;
    }
    NTSTATUS exception = STATUS_SUCCESS;
    {
        ProcessorScope scope;
        HookState* state = scope.State();
        if (state == nullptr) {
            return;
        }
        HeaderOf(packet)->freedFile = file;
        HeaderOf(packet)->freedLine = line;
        Add(state->counts[scope.Number()].freed, 1);
        exception = RetirePacket(*state, scope, packet);
    }
    if (exception != STATUS_SUCCESS) {
        ExRaiseStatus(exception);
    }
}

ULONG HookInjectPacketToAdapter(FilterAdapter* adapter, FilterPacket* packet)
{
    return InjectPacket<Side::Adapter>(adapter, packet);
}

ULONG HookInjectPacketToProtocol(FilterAdapter* adapter, FilterPacket* packet)
{
    return InjectPacket<Side::Protocols>(adapter, packet);
}

} // namespace hook
