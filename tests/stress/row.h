// Rows of calls, and the handles that they work on.
#pragma once

#include "stress.h"

#include <climits>
#include <type_traits>
#include <utility>

namespace stress
{

// What threads hand one another: handles of every kind in slots, which are borrowed by any number of threads at once or
// taken by one alone.
enum Kind : uint8_t {
    kDriver, // from here to kReference: registered, and with a context for callbacks
    kFilter,
    kEventHandler,
    kIfEventHandler,
    kIoCtrlHandler,
    kInterface,
    kTimer,
    kReference, // to an interface
    kPacket,
    kMemory,
    kTable,
    kItem,
    kRequest,
    kAddress,  // of the kernel sockets
    kEndpoint, // of the kernel sockets
    kData,     // what a data request of theirs needs until it has completed
    kKinds,
    kAdapter, // in no slot: see AnyAdapter
};

// What a callback gets as its context. One is never used again within a round, so a callback that comes too late shows.
struct Registration {
    std::atomic<bool> live{false};
    char name[32] = {};
    void CheckStands() const
    {
        Require(live.load(std::memory_order_relaxed), std::string(name) + " has ended");
    }
};

// Empty, held by one thread, or live and lent to any number. Who publishes or returns synchronizes with who takes or
// borrows, but borrowers not with one another: the thread sanitizer is to see their calls as concurrent.
class Slot
{
  public:
    bool Hold(bool live);  // one that nobody has: live, or empty
    void Put(void* value); // of one that the thread holds; null: it is empty
    void* Borrow();
    void Return() { state_.fetch_sub(1, std::memory_order_release); }
    void* Value() const { return value_.load(std::memory_order_acquire); }

    Kind kind = kKinds;
    uint32_t index = 0;                   // in its pool
    Slot* owner = nullptr;                // a client's: it is borrowed with each of its children
    Registration* registration = nullptr; // of who holds or has borrowed it

  private:
    enum { kHeld = -1, kEmpty = 0, kLive = 1 };
    std::atomic<int> state_{kEmpty};
    std::atomic<void*> value_{nullptr};
};

// A slot's use by this thread, and shared use of its owner, until the end of the object.
class Use
{
  public:
    enum Mode { kShared, kAlone, kVacant, kElsewhere };

    Use() = default;
    Use(Slot& slot, Mode mode); // false when it cannot be had
    Use(Use&& other) noexcept { *this = std::move(other); }
    Use& operator=(Use&& other) noexcept;
    ~Use();
    explicit operator bool() const { return slot_ != nullptr; }
    template <class T = void>
    T* Get() const
    {
        return static_cast<T*>(value_);
    }
    Slot* Place() const { return slot_; }
    void* Owner() const { return owner_; }
    // Of one that this thread has alone:
    void Set(void* value) { value_ = value; } // null: it is empty from now on
    void KeepHeld() { mode_ = kElsewhere; }   // somebody else publishes it
    void Renew();                             // a new registration
    void End();                               // behind the end of what was registered

  private:
    Slot* slot_ = nullptr;
    Mode mode_ = kShared;
    void* value_ = nullptr;
    void* owner_ = nullptr;
};

void MakePools(); // new ones, all empty
std::vector<Slot>& Pool(Kind kind);
// The first one, from a random one on, that can be had; not this one.
Use Find(Kind kind, Use::Mode mode, const Slot* except = nullptr);
void DropAll(Kind kind, const std::function<void(Use& use)>& drop); // that are live

// A kind of call as a row of a table: the export, and for each of its arguments what values it takes. The legal form
// passes those; the illegal form puts each wrong value of each argument in its place, one at a time, and expects that
// argument's refusal.
inline constexpr int64_t kNo = INT64_MIN;     // an answer that is FALSE, null or a text of nothing
inline constexpr int64_t kNoMatter = INT_MAX; // of a wrong value: it is not tried
inline constexpr Level kPassive = Level::Passive;

using Words = std::vector<uint64_t>; // memory of one call for an argument to point to

template <class T>
int64_t Word(T* pointer)
{
    return reinterpret_cast<int64_t>(pointer);
}

// An export, or a function around one, called with its arguments as words.
class Function
{
  public:
    enum class Tells { Status, Truth, Nothing } tells;
    struct Answer {
        int64_t status; // 0 is success
        uint64_t word;  // a pointer that was returned
    };

    template <class Result, class... Parameters>
    Function(Result (*function)(Parameters...))
        : tells(std::is_same_v<Result, int32_t>                                ? Tells::Status
                : std::is_pointer_v<Result> || std::is_same_v<Result, uint8_t> ? Tells::Truth
                                                                               : Tells::Nothing),
          call_([function](const uint64_t* words) {
              return Apply(function, words, std::index_sequence_for<Parameters...>());
          })
    {}
    Answer operator()(const uint64_t* words) const { return call_(words); }

  private:
    template <class T>
    static T As(uint64_t word)
    {
        if constexpr (std::is_pointer_v<T>) {
            return reinterpret_cast<T>(word);
        } else {
            return static_cast<T>(word);
        }
    }
    template <class Result, class... Parameters, size_t... kIndexes>
    static Answer Apply(Result (*function)(Parameters...), [[maybe_unused]] const uint64_t* words,
                        std::index_sequence<kIndexes...>)
    {
        if constexpr (std::is_void_v<Result>) {
            function(As<Parameters>(words[kIndexes])...);
            return {0, 0};
        } else {
            const Result result = function(As<Parameters>(words[kIndexes])...);
            if constexpr (std::is_same_v<Result, int32_t>) {
                return {result, 0};
            } else if constexpr (std::is_convertible_v<Result, const char*>) {
                return {result != nullptr && *result != 0 ? 0 : kNo, 0};
            } else if constexpr (std::is_pointer_v<Result>) {
                return {result != nullptr ? 0 : kNo, reinterpret_cast<uint64_t>(result)};
            } else {
                return {std::is_same_v<Result, uint8_t> && result == 0 ? kNo : 0, 0};
            }
        }
    }

    std::function<Answer(const uint64_t* words)> call_;
};

enum class Form {
    Made,    // what `make` answers
    Live,    // a handle that others use, too
    Own,     // one that this thread alone has meanwhile
    Given,   // one that is handed over, also to a call that fails
    Lent,    // one that the call, or what it brings about, gives back
    Ended,   // one that a call that succeeds, or may be refused, ends
    New,     // where a handle is stored
    Result,  // no argument, but a handle that is returned
    NameOf,  // of a live handle
    Owner,   // the driver of what the call makes or ends
    Name,    // of what the call makes
    Context, // for the callbacks of what the call makes
};

struct Argument {
    Form form;
    Kind kind = kKinds;
    std::function<uint64_t(Words& memory)> make = {};
    void (*free)(uint64_t* memory) = nullptr; // what was stored behind a success
    // What is refused, and how.
    int64_t null = kNoMatter;
    std::vector<int64_t> wrong = {}; // values; of a handle something that is none
    int64_t refusal = kNoMatter;     // of those
    int64_t stale = kNoMatter;       // of a handle that was ended; may be the answer to what was none, too
    int64_t foreign = kNoMatter;     // of another driver's handle
};

// From one number on, so many.
Argument Number(int64_t first, uint32_t count, int64_t refusal = kNoMatter, std::vector<int64_t> wrong = {});
Argument OneOf(std::vector<int64_t> values, int64_t refusal = kNoMatter, std::vector<int64_t> wrong = {});
Argument Any();
// Memory: zero, or anything.
Argument Output(size_t size, int64_t null = kNoMatter, void (*free)(uint64_t* memory) = nullptr);
Argument Noise(size_t size, int64_t null = kNoMatter);
Argument Handle(Form form, Kind kind, int64_t null = kNoMatter, int64_t refusal = kNoMatter);
inline Argument Made(std::function<uint64_t(Words& memory)> make, int64_t null = kNoMatter)
{
    return {.form = Form::Made, .make = std::move(make), .null = null};
}
template <class T>
Argument Pointer(T* pointer, int64_t null = kNoMatter) // to a function, for instance
{
    return Made([=](Words&) { return static_cast<uint64_t>(Word(pointer)); }, null);
}
inline Argument Null()
{
    return Number(0, 1);
}

struct Options {
    std::vector<int64_t> may = {}; // refusals that a legal call may meet
    Level level = Level::Dispatch;
    uint32_t percent = 100;    // of the attempts that are made
    bool (*ready)() = nullptr; // whether the call can be made just now
};

Call Line(const char* name, Function function, uint32_t floor, std::vector<Argument> arguments,
          Options options = {});
// The same call with another legal form.
inline Call With(Call call, std::function<Outcome()> legal)
{
    call.legal = std::move(legal);
    return call;
}

// The first two arguments of a line.
#define NAMED(Export) #Export, Export

// A handle that is none. In the user range only at PASSIVE_LEVEL, as the header says.
uint64_t NoHandle();

} // namespace stress
