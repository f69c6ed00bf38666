// The four chains, driven by any program of registrations, invocations, injections, bindings and verdicts. A model knows
// which filters each packet meets in which order, what they read of its frame, and where it ends.
#include "support/fuzz.h"

#include <list>
#include <vector>

using namespace fuzz;

namespace
{

constexpr size_t kSteps = 24, kDrivers = 2, kMostFilters = 10;
constexpr FILTER_ORDER kOrders[] = {FILTER_ORDER_FIRST, FILTER_ORDER_LAST, FILTER_ORDER_NEXT, 1, 2, 100};
constexpr ULONG kMethods[] = {0, 1, 2, 3, 4, 7};

// Chains, and how clients have packets enter them: the first two at once, the others through a queue.
constexpr struct {
    FILTER_TYPE type;
    FILTER_STATUS (*enter)(FilterAdapter*, FilterPacket*);
} kEntrances[] = {{FILTER_TYPE_INJECT_TO_ADAPTER, Filter_InjectPacketToAdapter},
                  {FILTER_TYPE_INJECT_TO_PROTOCOL, Filter_IndicatePacketToProtocol},
                  {FILTER_TYPE_INCOMING_PACKET, Filter_IndicatePacketFromAdapter},
                  {FILTER_TYPE_OUTGOING_PACKET, Filter_InjectPacketFromProtocol}};

// What a filter's procedure does. The first four are the verdicts of those numbers.
enum class Conduct { Bypass, Discard, Consume, Capture, NoVerdict, Fault, Forward, HandBack, Count };

struct Filter {
    PacketFilter* handle = nullptr;
    size_t driver = 0;
    FILTER_TYPE type = 0;
    ULONG order = 0;
    uint32_t number = 0;
    Conduct conduct = Conduct::Bypass;
};

// How packets that were born ended.
struct Ends {
    uint64_t toAdapter = 0, toProtocols = 0, freed = 0;
    bool operator==(const Ends&) const = default;
};

FILTER_RESULT RunFilter(FilterDriver*, PVOID, PacketFilter*, PVOID, FilterPacket*);

bool LeadsToProtocols(FILTER_TYPE type)
{
    return type == FILTER_TYPE_INCOMING_PACKET || type == FILTER_TYPE_INJECT_TO_PROTOCOL;
}

class Fixture : public DriversMachine<kDrivers>
{
  public:
    void Run(Input input)
    {
        input_ = &input;
        ends_ = TakeEnds();
        for (size_t step = 0; step < kSteps && !input.IsEmpty(); ++step) {
            Step();
            AwaitRest(); // with what was queued
            Require(visited_ == expected_, "the filters that packets meet, in their order");
            visited_.clear();
            expected_.clear();
            delivered_ = false;
        }
        Require(TakeEnds() == ends_, "where packets end");
        PutBack();
        CheckAtRest();
    }

    FILTER_RESULT Visit(const Filter& filter, FilterPacket* packet)
    {
        if (visited_.empty() && delivered_) { // later its buffers may be gone
            Filter_TransferPacketData(packet);
            Require(packet->m_nBytesRead == frame_.size() && packet->m_nPacketSize == frame_.size() &&
                        std::equal(frame_.begin(), frame_.end(), packet->m_Data),
                    "the whole frame");
        }
        visited_.push_back(filter.number);
        switch (filter.conduct) {
        case Conduct::Consume:
            kept_.push_back(packet);
            return FILTER_RESULT_CONSUME;
        case Conduct::NoVerdict:
            return 4 + filter.number;
        case Conduct::Fault:
            ExRaiseStatus(STATUS_ACCESS_VIOLATION);
        case Conduct::Forward: // from inside the chain, past the others
            Filter_InjectPacketToAdapterEx(adapters[1], packet);
            return FILTER_RESULT_CONSUME;
        case Conduct::HandBack: // for a worker to go on behind it
            Filter_InjectPacketFromFilter(FILTER_METHOD_START_AFTER_THIS_FILTER, filter.handle, packet);
            return FILTER_RESULT_CONSUME;
        default:
            return static_cast<FILTER_RESULT>(filter.conduct);
        }
    }

  private:
    static Ends TakeEnds()
    {
        const hook::Balance balance = hook::TakeBalance();
        return {balance.deliveredToAdapter, balance.deliveredToProtocols, balance.freed};
    }

    void Step()
    {
        switch (input_->Below(16)) {
        case 0:
        case 1:
        case 2:
            AddFilter();
            break;
        case 3:
            if (!filters_.empty()) {
                RemoveFilter(input_->At(filters_), input_->Below(kDrivers));
            }
            break;
        case 4:
            if (input_->Below(4) == 0) {
                Depart(input_->Below(kDrivers));
            }
            break;
        case 5:
            bound_ ? Unbind() : Bind();
            break;
        case 6:
            if (!filters_.empty()) {
                const auto filter = input_->At(filters_);
                filter->conduct = static_cast<Conduct>(input_->Below(static_cast<uint32_t>(Conduct::Count)));
            }
            break;
        case 7:
            Receive();
            break;
        default:
            Pass();
            break;
        }
    }

    void AddFilter()
    {
        if (filters_.size() == kMostFilters) {
            return;
        }
        Filter filter{.driver = input_->Below(kDrivers),
                      .type = static_cast<FILTER_TYPE>(input_->Below(FILTER_TYPE_COUNT)),
                      .order = static_cast<ULONG>(input_->OneOf(kOrders)),
                      .number = next_++,
                      .conduct = static_cast<Conduct>(input_->Below(static_cast<uint32_t>(Conduct::Count)))};
        const auto place = std::find_if(filters_.begin(), filters_.end(), [&](const Filter& other) {
            return other.type == filter.type && other.order >= filter.order;
        });
        const auto entry = filters_.insert(place, filter);
        const std::string name = "filter " + std::to_string(filter.number);
        const STRING counted = Counted(name);
        RequireEqual(Filter_RegisterFilter(drivers_[filter.driver], &counted, RunFilter, &*entry, filter.type,
                                           static_cast<FILTER_ORDER>(filter.order), &entry->handle),
                     FILTER_STATUS_SUCCESS, "registering a filter");
    }

    using AFilter = std::list<Filter>::iterator;

    void RemoveFilter(AFilter filter, size_t driver)
    {
        const bool owns = filter->driver == driver;
        RequireEqual(Filter_DeregisterFilter(drivers_[driver], filter->handle),
                     owns ? FILTER_STATUS_SUCCESS : FILTER_ERROR_INVALID_FILTER_OWNER,
                     "deregistering a filter");
        if (owns) {
            filters_.erase(filter);
        }
    }

    void Depart(size_t driver)
    {
        RequireEqual(Filter_DeregisterDriver(drivers_[driver]), FILTER_STATUS_SUCCESS,
                     "deregistering a driver");
        filters_.remove_if([driver](const Filter& filter) { return filter.driver == driver; });
        Register(driver);
    }

    void Bind()
    {
        RequireEqual(hook::Bind(), STATUS_SUCCESS, "binding");
        bound_ = true;
    }

    void Unbind()
    {
        RequireEqual(hook::Unbind(), STATUS_SUCCESS, "unbinding");
        bound_ = false;
    }

    // --------------------------------------------------------------------------------- what becomes of a packet

    // A packet that is released while nobody is bound stays out.
    void ExpectRelease(FilterPacket* packet)
    {
        if (bound_) {
            ++ends_.freed;
        } else {
            stranded_.push_back(packet);
        }
    }

    void ExpectDelivery(FilterPacket* packet, bool toProtocols)
    {
        if (!bound_) {
            ExpectRelease(packet);
        } else {
            ++(toProtocols ? ends_.toProtocols : ends_.toAdapter);
        }
    }

    // Runs a chain: whole, or as a method says about a filter of it.
    void ExpectChain(FILTER_TYPE type, FilterPacket* packet, ULONG method = 0, const Filter* given = nullptr)
    {
        enum : ULONG { kWhole, kUntil, kStopAt, kFrom, kAfter };
        bool active = method <= kStopAt;
        for (Filter& filter : filters_) {
            if (filter.type != type) {
                continue;
            }
            const bool isGiven = &filter == given;
            if (!active) {
                active = isGiven;
                if (!isGiven || method == kAfter) {
                    continue;
                }
            } else if (isGiven && method == kStopAt) {
                break;
            }
            expected_.push_back(filter.number);
            switch (filter.conduct) {
            case Conduct::Discard:
            case Conduct::Capture:
                return ExpectRelease(packet);
            case Conduct::Consume:
                return;
            case Conduct::Forward:
                return ExpectDelivery(packet, false);
            case Conduct::HandBack:
                return ExpectChain(type, packet, kAfter, &filter);
            default: // bypass, no verdict, or a fault: the next one runs
                break;
            }
            if (isGiven && method == kUntil) {
                break;
            }
        }
        ExpectDelivery(packet, LeadsToProtocols(type));
    }

    void Receive()
    {
        const bool received = input_->Flag();
        frame_.assign(input_->Below(hook::kLongestFrame + 1), input_->Byte());
        const auto bytes = input_->Take(std::min<size_t>(frame_.size(), 16));
        std::copy(bytes.begin(), bytes.end(), frame_.begin());
        hook::FrameOptions options;
        if (input_->Flag()) { // only a part is in the packet, the rest in pieces
            options.presentBytes = input_->Below(static_cast<uint32_t>(frame_.size()) + 1);
            options.pieces = {input_->Byte(), input_->Byte(), input_->Byte()};
            options.unmappedBuffers = input_->Flag();
        }
        delivered_ = true;
        const hook::Accepted accepted = received ? hook::DeliverReceived(adapters[0], frame_, options)
                                                 : hook::DeliverSent(adapters[0], frame_, options);
        Require(accepted == (bound_ ? hook::Accepted::Yes : hook::Accepted::NotBound),
                "frames are taken while bound");
        if (bound_) {
            ExpectChain(received ? FILTER_TYPE_INCOMING_PACKET : FILTER_TYPE_OUTGOING_PACKET, nullptr);
        }
    }

    FilterPacket* TakePacket()
    {
        FilterPacket* packet = Filter_AllocatePacket(adapters[0]);
        RequireEqual(packet != nullptr, bound_, "packets are had while bound");
        if (packet == nullptr && !kept_.empty()) { // one from before
            packet = kept_.back();
            kept_.pop_back();
        }
        if (packet != nullptr) {
            const support::Bytes frame = support::UdpFrame();
            std::copy(frame.begin(), frame.end(), packet->m_Data);
            packet->m_nPacketSize = packet->m_nBytesRead = static_cast<ULONG>(frame.size());
            packet->m_Data[26] = input_->Byte(); // the address that chooses the queue
            Filter_InitPacketHeader(packet, nullptr);
        }
        return packet;
    }

    void Pass()
    {
        FilterPacket* packet = TakePacket();
        if (packet == nullptr) {
            return;
        }
        FilterAdapter* adapter = input_->Below(8) == 0 ? nullptr : adapters[0];
        const auto expectChain = [&](FILTER_TYPE type) {
            adapter != nullptr ? ExpectChain(type, packet) : ExpectRelease(packet);
        };
        const uint32_t road = input_->Below(10);
        switch (road) {
        case 0: {
            const auto type = static_cast<FILTER_TYPE>(input_->Below(6)) - 1;
            type >= 0 && type < FILTER_TYPE_COUNT ? ExpectChain(type, packet) : ExpectRelease(packet);
            Filter_InvokeFilters(type, packet);
            break;
        }
        case 1:
        case 2:
            adapter != nullptr ? ExpectDelivery(packet, road == 2) : ExpectRelease(packet);
            (road == 2 ? Filter_IndicatePacketToProtocolEx : Filter_InjectPacketToAdapterEx)(adapter, packet);
            break;
        case 3:
        case 4:
        case 5:
        case 6:
            expectChain(kEntrances[road - 3].type);
            kEntrances[road - 3].enter(adapter, packet);
            break;
        case 7: {
            const ULONG direction = input_->Below(5);
            if (direction == NDIS_FILTER_DIRECTION_TO_ADAPTER ||
                direction == NDIS_FILTER_DIRECTION_TO_PROTOCOL) {
                expectChain(direction == NDIS_FILTER_DIRECTION_TO_ADAPTER ? FILTER_TYPE_INJECT_TO_ADAPTER
                                                                          : FILTER_TYPE_INJECT_TO_PROTOCOL);
            } else {
                ExpectRelease(packet);
            }
            Filter_InjectPacketFromApplication(adapter, packet, direction);
            break;
        }
        default:
            PassAlong(packet);
            break;
        }
    }

    // A part of a chain, at once or by a worker. The filter may be gone when the worker comes to the packet.
    void PassAlong(FilterPacket* packet)
    {
        const ULONG method = input_->OneOf(kMethods);
        if (filters_.empty()) {
            ExpectRelease(packet);
            Filter_InvokeFiltersEx(method, nullptr, packet);
            return;
        }
        const AFilter filter = input_->At(filters_);
        switch (input_->Below(4)) {
        case 0:
            ExpectRelease(packet);
            Filter_InjectPacketFromFilter(method, nullptr, packet);
            break;
        case 1: {
            const machine::ThreadHold hold;
            ExpectRelease(packet);
            Filter_InjectPacketFromFilter(method, filter->handle, packet);
            RemoveFilter(filter, filter->driver);
            break;
        }
        case 2:
            ExpectChain(filter->type, packet, method, &*filter);
            Filter_InjectPacketFromFilter(method, filter->handle, packet);
            break;
        default:
            ExpectChain(filter->type, packet, method, &*filter);
            Filter_InvokeFiltersEx(method, filter->handle, packet);
            break;
        }
    }

    void PutBack()
    {
        if (!bound_) {
            Bind();
        }
        for (std::vector<FilterPacket*>* packets : {&kept_, &stranded_}) {
            for (FilterPacket* packet : *packets) {
                Filter_ReleasePacket(packet);
            }
            packets->clear();
        }
        while (!filters_.empty()) {
            RemoveFilter(filters_.begin(), filters_.front().driver);
        }
        next_ = 0;
    }

    Input* input_ = nullptr;
    std::list<Filter> filters_; // those of a type in the order of their chain
    uint32_t next_ = 0;
    bool bound_ = true;
    std::vector<uint32_t> visited_, expected_;
    support::Bytes frame_; // that the hook driver delivers in this step, if any
    bool delivered_ = false;
    Ends ends_;
    std::vector<FilterPacket*> kept_;     // by filters
    std::vector<FilterPacket*> stranded_; // released while nobody was bound
};

FILTER_RESULT RunFilter(FilterDriver*, PVOID driverContext, PacketFilter* handle, PVOID context,
                        FilterPacket* packet)
{
    const auto& filter = *static_cast<const Filter*>(context);
    Require(handle == filter.handle && KeGetCurrentIrql() == DISPATCH_LEVEL,
            "a filter is called as it was registered");
    return static_cast<Fixture*>(static_cast<Machine*>(driverContext))->Visit(filter, packet);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return RunOn<Fixture>(data, size);
}
