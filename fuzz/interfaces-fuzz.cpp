// Interfaces of several drivers against a model: who publishes what, which references are out, what every call answers,
// and which events each handler hears, also where handlers query and release in the middle of an event.
#include "support/fuzz.h"

#include <array>
#include <list>
#include <memory>
#include <vector>

using namespace fuzz;

namespace
{

constexpr size_t kSteps = 40, kDrivers = 3, kMostReferences = 12;
constexpr std::string_view kNames[] = {"a", "b", "ab", ""};
constexpr size_t kNameCount = std::size(kNames);

struct Interface {
    FilterInterface* handle = nullptr;
    size_t owner = 0, name = 0;
    support::Bytes block; // what a reference holds: at least its length
    bool active = true;
    size_t references = 0;
};

struct Reference {
    void* copy = nullptr;
    size_t driver = 0;
    Interface* of = nullptr;
};

struct Event {
    size_t driver;
    ULONG event;
    size_t name;
    bool operator==(const Event&) const = default;
};

VOID OnEvent(FilterDriver*, PVOID driverContext, ULONG event, PVOID context, const STRING* name);

class Fixture : public DriversMachine<kDrivers>
{
  public:
    void Run(Input input)
    {
        input_ = &input;
        for (size_t step = 0; step < kSteps && !input.IsEmpty(); ++step) {
            Step();
            Require(heard_ == expected_, "the events that handlers hear");
            heard_.clear();
            expected_.clear();
        }
        PutBack();
        CheckAtRest();
    }

    void Hear(size_t driver, ULONG event, std::string_view name)
    {
        size_t index = 0;
        while (index < kNameCount && kNames[index] != name) {
            ++index;
        }
        Require(KeGetCurrentIrql() == DISPATCH_LEVEL && index < kNameCount, "an event of an interface");
        heard_.push_back({driver, event, index});
        // Others' references are to be released now, and new ones are not to be had.
        if (event == FILTER_IF_EVENT_DEREGISTERING && withdrawn_ != nullptr) {
            Query(driver, index, FILTER_ERROR_INTERFACE_NOT_FOUND);
            if (input_->Flag()) {
                ReleaseAll(
                    [&](const Reference& one) { return one.of == withdrawn_ && one.driver == driver; });
            }
        }
    }

  private:
    void Step()
    {
        const size_t driver = input_->Below(kDrivers);
        switch (input_->Below(8)) {
        case 0:
        case 1:
            Publish(driver);
            break;
        case 2:
            Query(driver, input_->Below(kNameCount));
            break;
        case 3:
            if (!references_.empty()) {
                Release(input_->At(references_), driver);
            }
            break;
        case 4:
            if (!interfaces_.empty()) {
                Withdraw(input_->At(interfaces_), driver);
            }
            break;
        case 5:
            Listen(driver);
            break;
        case 6:
            if (input_->Below(4) == 0) {
                Depart(driver);
            }
            break;
        default:
            CheckReferences();
            break;
        }
    }

    Interface* Named(size_t name)
    {
        for (Interface& entry : interfaces_) {
            if (entry.name == name) {
                return &entry;
            }
        }
        return nullptr;
    }

    void Expect(ULONG event, size_t name)
    {
        for (const size_t listener : listeners_) {
            expected_.push_back({listener, event, name});
        }
    }

    // A block is read as far as its first word says, whatever that is; none is shorter than that word.
    void Publish(size_t driver)
    {
        const size_t name = input_->Below(kNameCount), length = input_->Below(80);
        const auto content = input_->Take(length);
        support::Bytes block(content.begin(), content.end());
        block.resize(std::max<size_t>(length, sizeof(USHORT)));
        block[0] = static_cast<uint8_t>(length);
        block[1] = 0;
        const std::unique_ptr<uint8_t[]> exact(new uint8_t[block.size()]);
        std::copy(block.begin(), block.end(), exact.get());
        const STRING counted = Counted(kNames[name]);
        FilterInterface* handle = nullptr;
        const bool known = Named(name) != nullptr;
        if (!known) {
            Expect(FILTER_IF_EVENT_REGISTERED, name);
        }
        RequireEqual(Filter_RegisterInterface(drivers_[driver], &counted, exact.get(), &handle),
                     known ? FILTER_ERROR_INTERFACE_ALREADY_REGISTERED : FILTER_STATUS_SUCCESS, "publishing");
        if (!known) {
            Require(handle != nullptr && Filter_IsValidInterfaceObject(handle), "an interface's handle");
            interfaces_.push_back({.handle = handle, .owner = driver, .name = name, .block = block});
        }
    }

    void Query(size_t driver, size_t name, FILTER_STATUS forced = FILTER_STATUS_SUCCESS)
    {
        Interface* entry = Named(name);
        FILTER_STATUS expected = forced;
        if (forced == FILTER_STATUS_SUCCESS) {
            expected = entry == nullptr ? FILTER_ERROR_INTERFACE_NOT_FOUND
                       : !entry->active ? FILTER_ERROR_INTERFACE_ARE_INVALID
                                        : FILTER_STATUS_SUCCESS;
        }
        if (expected == FILTER_STATUS_SUCCESS && references_.size() == kMostReferences) {
            return;
        }
        const STRING counted = Counted(kNames[name]);
        void* copy = nullptr;
        RequireEqual(Filter_QueryInterface(drivers_[driver], &counted, &copy), expected, "querying");
        if (expected == FILTER_STATUS_SUCCESS) {
            references_.push_back({copy, driver, entry});
            ++entry->references;
        }
    }

    using AReference = std::list<Reference>::iterator;

    void Release(AReference at, size_t driver)
    {
        const Reference reference = *at;
        const FILTER_STATUS expected = reference.driver == driver
                                           ? FILTER_STATUS_SUCCESS
                                           : FILTER_ERROR_INVALID_INTERFACE_REFERENCE_OWNER;
        RequireEqual(Filter_ReleaseInterface(drivers_[driver], reference.copy), expected, "releasing");
        if (expected == FILTER_STATUS_SUCCESS) {
            references_.erase(at);
            // The last reference to one that is withdrawn frees it, and nobody hears of it.
            if (--reference.of->references == 0 && !reference.of->active && reference.of != withdrawn_) {
                interfaces_.remove_if([&](const Interface& entry) { return &entry == reference.of; });
            }
        }
    }

    template <class Condition>
    void ReleaseAll(const Condition& condition)
    {
        for (auto at = references_.begin(); at != references_.end();) {
            const auto next = std::next(at);
            if (condition(*at)) {
                Release(at, at->driver);
            }
            at = next;
        }
    }

    void Withdraw(std::list<Interface>::iterator at, size_t driver)
    {
        if (at->owner != driver) {
            RequireEqual(Filter_DeregisterInterface(drivers_[driver], at->handle),
                         FILTER_ERROR_INVALID_INTERFACE_OWNER, "withdrawing another driver's interface");
            return;
        }
        Expect(FILTER_IF_EVENT_DEREGISTERING, at->name);
        withdrawn_ = &*at;
        at->active = false;
        const FILTER_STATUS status = Filter_DeregisterInterface(drivers_[driver], at->handle);
        withdrawn_ = nullptr;
        if (at->references != 0) {
            RequireEqual(status, FILTER_ERROR_INTERFACE_ARE_REFERENCED, "withdrawing what is referenced");
            interfaces_.splice(interfaces_.end(), interfaces_, at);
            return;
        }
        RequireEqual(status, FILTER_STATUS_SUCCESS, "withdrawing");
        Expect(FILTER_IF_EVENT_DEREGISTERED, at->name);
        interfaces_.erase(at);
    }

    // Registers the driver's handler, or takes it back.
    void Listen(size_t driver)
    {
        const auto found = std::find(listeners_.begin(), listeners_.end(), driver);
        IfEventHandler* handler = nullptr;
        const FILTER_STATUS status = Filter_RegisterIfEventHandler(drivers_[driver], OnEvent,
                                                                   reinterpret_cast<void*>(driver), &handler);
        if (found == listeners_.end()) {
            RequireEqual(status, FILTER_STATUS_SUCCESS, "registering a handler");
            handlers_[driver] = handler;
            listeners_.push_back(driver);
            return;
        }
        RequireEqual(status, FILTER_ERROR_EVENT_HANDLER_ALREADY_REGISTERED, "registering a second handler");
        StopListening(driver);
    }

    void StopListening(size_t driver)
    {
        if (std::erase(listeners_, driver) != 0) {
            RequireEqual(
                Filter_DeregisterIfEventHandler(drivers_[(driver + 1) % kDrivers], handlers_[driver]),
                FILTER_ERROR_INVALID_EVENT_HANDLER_OWNER, "taking back another driver's handler");
            RequireEqual(Filter_DeregisterIfEventHandler(drivers_[driver], handlers_[driver]),
                         FILTER_STATUS_SUCCESS, "taking back a handler");
        }
    }

    // With its references given back before, as it must. Those of others to its interfaces, too: they would become
    // invalid, and their interfaces stay until the framework unloads.
    void Depart(size_t driver)
    {
        StopListening(driver);
        ReleaseAll([&](const Reference& one) { return one.driver == driver || one.of->owner == driver; });
        RequireEqual(Filter_DeregisterDriver(drivers_[driver]), FILTER_STATUS_SUCCESS, "deregistering");
        interfaces_.remove_if([driver](const Interface& entry) { return entry.owner == driver; });
        Register(driver);
    }

    void CheckReferences()
    {
        for (const Reference& reference : references_) {
            Require(Filter_IsValidInterface(reference.copy) != FALSE, "a reference is valid");
            Require(std::equal(reference.of->block.begin(), reference.of->block.end(),
                               static_cast<const uint8_t*>(reference.copy)),
                    "a reference's block");
        }
    }

    void PutBack()
    {
        for (size_t driver = 0; driver < kDrivers; ++driver) {
            Depart(driver);
        }
        Require(interfaces_.empty() && references_.empty() && listeners_.empty(), "nothing is left");
        heard_.clear();
        expected_.clear();
    }

    Input* input_ = nullptr;
    std::array<IfEventHandler*, kDrivers> handlers_ = {};
    std::vector<size_t> listeners_; // drivers, in the order of their registration
    std::list<Interface> interfaces_;
    std::list<Reference> references_;
    Interface* withdrawn_ = nullptr; // whose deregistration is being announced
    std::vector<Event> heard_, expected_;
};

VOID OnEvent(FilterDriver*, PVOID driverContext, ULONG event, PVOID context, const STRING* name)
{
    static_cast<Fixture*>(static_cast<Machine*>(driverContext))
        ->Hear(reinterpret_cast<size_t>(context), event, {name->Buffer, name->Length});
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return RunOn<Fixture>(data, size);
}
