// The stress: threads that make random calls, legal ones and such as the headers say are refused, and keep count of what
// came of them. No kernel header stands here, so that the kernel sockets' calls can be compiled beside libc's.
#pragma once

#include <machine.h>

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

namespace stress
{

// A stream of random numbers (splitmix64, Steele et al. 2014): the same for the same seed, round and thread.
class Random
{
  public:
    Random(uint64_t seed, uint64_t round, uint64_t stream)
        : state_(seed * 0x9E3779B97F4A7C15 ^ round << 32 ^ (stream + 1) * 0xD1B54A32D192ED03)
    {}
    uint64_t Next()
    {
        uint64_t value = state_ += 0x9E3779B97F4A7C15;
        value = (value ^ value >> 30) * 0xBF58476D1CE4E5B9;
        value = (value ^ value >> 27) * 0x94D049BB133111EB;
        return value ^ value >> 31;
    }
    uint32_t Below(uint32_t bound) { return static_cast<uint32_t>((Next() >> 32) * bound >> 32); }
    bool Chance(uint32_t percent) { return Below(100) < percent; }
    template <class T>
    T OneOf(std::initializer_list<T> values)
    {
        return values.begin()[Below(static_cast<uint32_t>(values.size()))];
    }
    void Fill(void* target, size_t size)
    {
        for (size_t i = 0; i < size; ++i) {
            static_cast<uint8_t*>(target)[i] = static_cast<uint8_t>(Next());
        }
    }

  private:
    uint64_t state_;
};

// The stream of the thread that runs a callback: its own when it is one of the stress.
Random& CallbackRandom();

enum class Level { Passive, Dispatch };                // the highest that the header allows
enum class Outcome { Success, Refused, NothingToUse }; // of a legal call
enum class Actor { Caller, Program, Administrator, Traffic };

class Caller;

// One kind of call: an export, or something that a neighbour of the framework does.
struct Call {
    const char* name;
    Actor actor;
    Level level;
    uint32_t floor; // per cent of the legal attempts that must succeed over a run
    Outcome (*legal)(Caller& caller);
    void (*illegal)(
        Caller& caller); // checks its refusal itself; null: the header names nothing that is refused
};

std::span<const Call> RegistryCalls();  // calls-registry.cpp
std::span<const Call> ClientCalls();    // calls-clients.cpp
std::span<const Call> InterfaceCalls(); // calls-interfaces.cpp
std::span<const Call> PacketCalls();    // calls-packets.cpp
std::span<const Call> ServiceCalls();   // calls-services.cpp
std::span<const Call> TableCalls();     // calls-tables.cpp
std::span<const Call> SocketCalls();    // calls-sockets.cpp
std::span<const Call> TransportCalls(); // calls-transport.cpp
std::span<const Call> NeighbourCalls(); // calls-neighbours.cpp

// All of them. An index into it names a kind of call everywhere.
const std::vector<Call>& AllCalls();

struct Tally {
    uint64_t attempts = 0; // legal
    uint64_t successes = 0;
    uint64_t refusals = 0; // of legal calls: by a state that other threads have brought about
    uint64_t illegal = 0;
    uint64_t raised = 0; // of all, at DISPATCH_LEVEL

    void Add(const Tally& other);
};

// A thread of the stress.
class Caller
{
  public:
    Caller(Actor actor, uint64_t seed, uint64_t round, uint32_t number);
    ~Caller();
    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;

    void Step(); // makes one call
    void Finish() { doing_.store(nullptr, std::memory_order_relaxed); }

    Random& Stream() { return random_; }
    bool IsRaised() const { return raised_; } // to DISPATCH_LEVEL
    machine::File* Device();                  // the control device, opened by a process of this thread
    void CloseDevice();
    void* Unwritable() const { return unwritable_; } // memory of this thread alone: its faults are no races

    // A legal call: success, a refusal that it may meet, or a failure of the run.
    Outcome Judge(int64_t status, std::initializer_list<int64_t> refusals = {});
    Outcome Check(bool holds, const char* what); // fails the run when it does not hold
    void Expect(int64_t status, int64_t expected);

    // Runs while no other thread of the stress makes a call. Within it memory that was just freed is not in use again,
    // so a handle of it is surely stale. Called while the thread makes a call.
    template <class Body>
    void Alone(const Body& body)
    {
        BeginAlone();
        body();
        EndAlone();
    }

    // What the watchdog sees; null when it has finished.
    const char* Doing() const { return doing_.load(std::memory_order_relaxed); }
    uint64_t Steps() const { return steps_.load(std::memory_order_relaxed); }
    const std::string& Name() const { return name_; }
    const std::vector<Tally>& Tallies() const { return tallies_; }

  private:
    void BeginAlone();
    void EndAlone();

    const std::string name_;
    Random random_;
    std::vector<size_t> calls_; // that this actor makes
    std::vector<Tally> tallies_;
    bool raised_ = false;
    void* const unwritable_;
    std::unique_ptr<machine::Process> process_;
    std::unique_ptr<machine::File> device_;
    std::atomic<const char*> doing_{"nothing yet"};
    std::atomic<uint64_t> steps_{0};
};

// The call was made by the way, for instance in a callback of the thread that is at it.
void Fail(const std::string& what);
size_t Failures();

// A place for something that threads hand one another: empty, held by one thread, or live and lent to any number.
// Who publishes or returns synchronizes with who takes or borrows, but borrowers not with one another: the thread
// sanitizer is to see their calls as concurrent.
template <class T>
class Slot
{
  public:
    bool Reserve() { return Change(kEmpty, kHeld); } // an empty one
    bool Take() { return Change(kLive, kHeld); }     // a live one that nobody has borrowed
    void Publish(T* value)                           // of one that the thread holds
    {
        value_.store(value, std::memory_order_release);
        state_.store(kLive, std::memory_order_release);
    }
    void Empty()
    {
        value_.store(nullptr, std::memory_order_relaxed);
        state_.store(kEmpty, std::memory_order_release);
    }
    T* Borrow()
    {
        int state = state_.load(std::memory_order_relaxed);
        while (state >= kLive) {
            if (state_.compare_exchange_weak(state, state + 1, std::memory_order_relaxed)) {
                return value_.load(std::memory_order_acquire);
            }
        }
        return nullptr;
    }
    void Return() { state_.fetch_sub(1, std::memory_order_release); }
    T* Value() const { return value_.load(std::memory_order_acquire); }
    bool IsEmpty() const { return state_.load(std::memory_order_acquire) == kEmpty; }

  private:
    enum { kHeld = -1, kEmpty = 0, kLive = 1 };

    bool Change(int from, int to)
    {
        return state_.compare_exchange_strong(from, to, std::memory_order_acquire, std::memory_order_relaxed);
    }

    std::atomic<int> state_{kEmpty};
    std::atomic<T*> value_{nullptr};
};

// A borrowed value, given back at the end; null when there was none.
template <class T>
class Loan
{
  public:
    Loan() = default;
    explicit Loan(Slot<T>& slot) : slot_(&slot), value_(slot.Borrow()) {}
    Loan(Loan&& other) noexcept : slot_(other.slot_), value_(other.value_) { other.value_ = nullptr; }
    Loan& operator=(Loan&&) = delete;
    ~Loan()
    {
        if (value_ != nullptr) {
            slot_->Return();
        }
    }
    explicit operator bool() const { return value_ != nullptr; }
    T* Get() const { return value_; }
    Slot<T>* Place() const { return slot_; }

  private:
    Slot<T>* slot_ = nullptr;
    T* value_ = nullptr;
};

// A slot that this thread alone has; at the end as it was found, unless something else was said.
template <class T>
class Hold
{
  public:
    Hold() = default;
    static Hold Taken(Slot<T>& slot) { return slot.Take() ? Hold(slot, slot.Value()) : Hold(); }
    static Hold Vacant(Slot<T>& slot) { return slot.Reserve() ? Hold(slot, nullptr) : Hold(); }
    Hold(Hold&& other) noexcept : slot_(other.slot_), value_(other.value_) { other.slot_ = nullptr; }
    Hold& operator=(Hold&&) = delete;
    ~Hold()
    {
        if (slot_ == nullptr) {
            return;
        }
        if (value_ != nullptr) {
            slot_->Publish(value_);
        } else {
            slot_->Empty();
        }
    }
    explicit operator bool() const { return slot_ != nullptr; }
    T* Get() const { return value_; }
    Slot<T>* Place() const { return slot_; }
    void Set(T* value) { value_ = value; } // null: the slot is empty from now on
    void KeepHeld() { slot_ = nullptr; }   // somebody else publishes it

  private:
    Hold(Slot<T>& slot, T* value) : slot_(&slot), value_(value) {}
    Slot<T>* slot_ = nullptr;
    T* value_ = nullptr;
};

// The first of the slots, from a random one on, of which `get` makes something.
template <class Place, size_t kCount, class Get>
auto FirstOf(Random& random, Place (&places)[kCount], const Get& get) -> decltype(get(places[0]))
{
    const uint32_t first = random.Below(kCount);
    for (uint32_t i = 0; i < kCount; ++i) {
        if (auto found = get(places[(first + i) % kCount])) {
            return found;
        }
    }
    return {};
}

struct RoundPlan {
    uint64_t seed = 0;
    uint64_t round = 0;
    bool unbinds = false;   // the hook driver unbinds and binds again
    bool captures = false;  // capture logs start and stop
    bool leavesAll = false; // clients give nothing back: the unload has to
    bool traces = false;    // every debug line is printed
};

// What the calls share in a round: there before the threads start, given back behind them. An unload in between:
// CloseSockets comes before that of the framework, CheckSockets behind it.
void OpenWorld(const RoundPlan& plan);
void CloseWorld(const RoundPlan& plan);
void OpenSockets();
void CloseSockets();
void CheckSockets();
// Of the run: the peer of the sockets, and what is done once.
void StartSockets();
void EndSockets();

} // namespace stress
