#include "world.h"

#include <algorithm>
#include <cstring>

namespace stress
{

namespace
{

// Of what clients have: as many as there are clients, or several times as many.
constexpr uint32_t kSizes[kKinds] = {6, 24, 6, 6, 6, 12, 18, 12, 64, 32, 3, 24, 6, 3, 3, 24};
constexpr const char* kNames[kKinds] = {"client", "filter",    "handler", "handler",
                                        "client", "interface", "timer",   "reference"};
constexpr uint32_t kRegistrations = 1 << 16; // of a round, more than it makes

std::vector<Slot> g_pools[kKinds];
std::unique_ptr<Registration[]> g_registrations;
std::atomic<uint32_t> g_registrationsUsed{0};

struct Row {
    Function function;
    std::vector<Argument> arguments;
    Options options;
};

// One call of a row.
class Attempt
{
  public:
    // `wrong`: the argument that another value will stand for.
    explicit Attempt(const Row& row, const Argument* wrong = nullptr) : row_(row), isLegal_(wrong == nullptr)
    {
        isReady_ =
            Dice().Chance(row.options.percent) && (row.options.ready == nullptr || row.options.ready());
        for (const bool owners : {false, true}) { // those follow what is made or ended
            for (size_t i = 0; i < row_.arguments.size() && isReady_; ++i) {
                const Argument& argument = row_.arguments[i];
                const bool spared =
                    &argument == wrong && (argument.form == Form::Given || argument.form == Form::Lent);
                if ((argument.form >= Form::Owner) == owners && !spared) {
                    isReady_ = Prepare(argument, i);
                }
            }
        }
    }
    bool IsReady() const { return isReady_; }
    const Slot* OwnerPlace() const { return child_ != nullptr && *child_ ? child_->Place()->owner : nullptr; }

    Function::Answer Call()
    {
        for (size_t i = 0; i < row_.arguments.size(); ++i) {
            if (row_.arguments[i].form == Form::Lent) {
                uses_[i].KeepHeld();
            }
        }
        return row_.function(words_);
    }
    int64_t CallWith(const Argument& argument, uint64_t value)
    {
        words_[&argument - row_.arguments.data()] = value;
        const int64_t status = Call().status;
        for (size_t i = 0; i < row_.arguments.size(); ++i) {
            Require(row_.arguments[i].form != Form::New || memory_[i][0] == 0,
                    "nothing is handed out on failure");
            if (row_.arguments[i].form == Form::Given) {
                uses_[i].Set(nullptr);
            }
        }
        return status;
    }
    void Finish(const Function::Answer& answer) // of a legal call
    {
        for (size_t i = 0; i < row_.arguments.size(); ++i) {
            Use& use = uses_[i];
            const Argument& argument = row_.arguments[i];
            if (argument.form == Form::Given) {
                use.Set(nullptr);
            } else if (argument.form == Form::Ended && answer.status != FILTER_ERROR_INTERFACE_NOT_ACTIVE) {
                use.End();
            } else if (argument.form == Form::Result || (argument.form == Form::New && answer.status == 0)) {
                use.Set(reinterpret_cast<void*>(argument.form == Form::New ? memory_[i][0] : answer.word));
            } else if (argument.free != nullptr && answer.status == 0) {
                argument.free(memory_[i].data());
            }
        }
    }

  private:
    bool Prepare(const Argument& argument, size_t i)
    {
        Use& use = uses_[i];
        const Form form = argument.form;
        if (form == Form::Made) {
            words_[i] = argument.make(memory_[i]);
        } else if (form <= Form::Ended && argument.kind == kAdapter) {
            words_[i] = reinterpret_cast<uint64_t>(AnyAdapter());
        } else if (form <= Form::Ended) {
            const bool shared = form == Form::Live || (form == Form::Ended && !isLegal_);
            use = argument.kind == kPacket ? TakePacket()
                                           : Find(argument.kind, shared ? Use::kShared : Use::kAlone);
            words_[i] = reinterpret_cast<uint64_t>(use.Get());
            child_ = form == Form::Ended ? &use : child_;
            return use.Get() != nullptr;
        } else if (form == Form::New || form == Form::Result) {
            memory_[i].assign(1, 0);
            words_[i] = reinterpret_cast<uint64_t>(memory_[i].data());
            child_ = form == Form::New && isLegal_ ? &use : child_;
            use = isLegal_ ? Find(argument.kind, Use::kVacant) : Use();
            if (use && argument.kind <= kReference) {
                use.Renew();
            }
            return use || !isLegal_;
        } else if (form == Form::Owner) {
            use = child_ == nullptr ? Find(kDriver, Use::kShared) : Use();
            words_[i] = reinterpret_cast<uint64_t>(child_ == nullptr ? use.Get() : child_->Owner());
            return words_[i] != 0;
        } else if (form == Form::NameOf) {
            use = Find(argument.kind, Use::kShared);
            return use && Tell(use.Place()->registration->name, i);
        } else if (form == Form::Name) {
            return Tell(isLegal_ ? child_->Place()->registration->name : "nobody", i);
        } else { // a context
            words_[i] = isLegal_ ? reinterpret_cast<uint64_t>(child_->Place()->registration) : 0;
        }
        return true;
    }
    bool Tell(const char* name, size_t i) // as a counted string without a zero
    {
        const auto length = static_cast<USHORT>(std::strlen(name));
        memory_[i].assign(sizeof(STRING) / 8 + length / 8 + 1, 0);
        auto* const string = reinterpret_cast<STRING*>(memory_[i].data());
        *string = {length, length, reinterpret_cast<PCHAR>(string + 1)};
        std::memcpy(string->Buffer, name, length);
        words_[i] = reinterpret_cast<uint64_t>(string);
        return true;
    }

    static constexpr size_t kMost = 9; // arguments
    const Row& row_;
    const bool isLegal_;
    bool isReady_ = true;
    uint64_t words_[kMost] = {};
    Use uses_[kMost];
    Words memory_[kMost];
    const Use* child_ = nullptr; // what is made or ended
};

Outcome MakeLegal(const Row& row)
{
    Attempt attempt(row);
    if (!attempt.IsReady()) {
        return Outcome::NothingToUse;
    }
    const Function::Answer answer = attempt.Call();
    attempt.Finish(answer);
    return Judge(answer.status, row.options.may);
}

// How many refusals were checked: one, or none.
uint32_t Refuse(const Row& row, const Argument& argument, uint64_t value, int64_t refusal)
{
    if (refusal == kNoMatter) {
        return 0;
    }
    Attempt attempt(row, &argument);
    if (!attempt.IsReady()) {
        return 0;
    }
    std::vector<int64_t> expected = {row.function.tells == Function::Tells::Truth ? kNo : refusal,
                                     argument.stale};
    Use other;
    if (value == 0 && refusal == argument.foreign) {
        other = Find(kDriver, Use::kShared, attempt.OwnerPlace());
        value = reinterpret_cast<uint64_t>(other.Get());
        expected.insert(expected.end(), row.options.may.begin(), row.options.may.end());
    }
    const int64_t status = attempt.CallWith(argument, value);
    if (refusal == argument.foreign && !other) {
        return 0;
    }
    Require(row.function.tells == Function::Tells::Nothing ||
                std::find(expected.begin(), expected.end(), status) != expected.end(),
            "an illegal call answered " + std::to_string(status) + ", not " + std::to_string(expected[0]));
    return 1;
}

// A second end of a handle is refused by its tag, or because no list has it.
uint32_t EndTwice(const Row& row, const Argument& handle)
{
    Attempt attempt(row);
    if (attempt.IsReady()) {
        Alone([&] {
            const Function::Answer first = attempt.Call();
            const int64_t again = attempt.Call().status;
            Judge(first.status, row.options.may);
            Require(again == handle.refusal || again == handle.stale, "a stale handle is refused");
            attempt.Finish(first);
        });
    }
    return attempt.IsReady() ? 1 : 0;
}

uint32_t MakeIllegal(const Row& row)
{
    uint32_t made = 0;
    for (const Argument& argument : row.arguments) {
        made += Refuse(row, argument, 0, argument.null);
        made += Refuse(row, argument, NoHandle(), argument.wrong.empty() ? argument.refusal : kNoMatter);
        made += Refuse(row, argument, 0, argument.foreign);
        for (const int64_t value : argument.wrong) {
            made += Refuse(row, argument, static_cast<uint64_t>(value), argument.refusal);
        }
        if (argument.stale != kNoMatter && Dice().Chance(20)) {
            made += EndTwice(row, argument);
        }
    }
    return made;
}

uint64_t Bytes(Words& memory, size_t size, bool noise)
{
    memory.assign(size / 8 + 1, 0);
    Dice().Fill(memory.data(), noise ? size : 0);
    return reinterpret_cast<uint64_t>(memory.data());
}

} // namespace

bool Slot::Hold(bool live)
{
    int from = live ? kLive : kEmpty;
    return state_.compare_exchange_strong(from, kHeld, std::memory_order_acquire, std::memory_order_relaxed);
}

void Slot::Put(void* value)
{
    value_.store(value, std::memory_order_release);
    const int before = state_.exchange(value != nullptr ? kLive : kEmpty, std::memory_order_release);
    Require(before == kHeld, "something is given back twice");
}

void* Slot::Borrow()
{
    int state = state_.load(std::memory_order_relaxed);
    while (state >= kLive) {
        if (state_.compare_exchange_weak(state, state + 1, std::memory_order_relaxed)) {
            return Value();
        }
    }
    return nullptr;
}

Use::Use(Slot& slot, Mode mode) : mode_(mode)
{
    if (slot.owner != nullptr && (owner_ = slot.owner->Borrow()) == nullptr) {
        return;
    }
    if (mode == kShared ? (value_ = slot.Borrow()) != nullptr : slot.Hold(mode == kAlone)) {
        slot_ = &slot;
        value_ = mode == kAlone ? slot.Value() : value_;
    } else if (owner_ != nullptr) {
        slot.owner->Return();
    }
}

Use& Use::operator=(Use&& other) noexcept
{
    std::swap(slot_, other.slot_);
    std::swap(mode_, other.mode_);
    std::swap(value_, other.value_);
    std::swap(owner_, other.owner_);
    return *this;
}

Use::~Use()
{
    if (slot_ == nullptr) {
        return;
    }
    Slot* const owner = slot_->owner;
    if (mode_ == kShared) {
        slot_->Return();
    } else if (mode_ != kElsewhere) {
        slot_->Put(value_);
    }
    if (owner != nullptr) {
        owner->Return();
    }
}

void Use::Renew()
{
    const uint32_t index = g_registrationsUsed.fetch_add(1, std::memory_order_relaxed);
    Require(index < kRegistrations, "a round makes more registrations than there is room for");
    slot_->registration = &g_registrations[index % kRegistrations];
    // An interface that others still reference keeps its name.
    const std::string number = std::to_string(slot_->kind == kInterface ? index : slot_->index);
    (kNames[slot_->kind] + ("-" + number)).copy(slot_->registration->name, sizeof(Registration::name) - 1);
    slot_->registration->live.store(true, std::memory_order_relaxed);
}

void Use::End()
{
    if (slot_->registration != nullptr) {
        slot_->registration->live.store(false, std::memory_order_relaxed);
    }
    Set(nullptr);
}

void MakePools()
{
    for (uint32_t kind = 0; kind < kKinds; ++kind) {
        g_pools[kind] = std::vector<Slot>(kSizes[kind]);
        for (uint32_t i = 0; i < kSizes[kind]; ++i) {
            g_pools[kind][i].kind = static_cast<Kind>(kind);
            g_pools[kind][i].index = i;
            if (kind > kDriver && kind <= kReference) {
                g_pools[kind][i].owner = &g_pools[kDriver][i % kSizes[kDriver]];
            }
        }
    }
    g_registrations = std::make_unique<Registration[]>(kRegistrations);
    g_registrationsUsed = 0;
}

std::vector<Slot>& Pool(Kind kind)
{
    return g_pools[kind];
}

Use Find(Kind kind, Use::Mode mode, const Slot* except)
{
    const uint32_t first = Dice().Below(kSizes[kind]);
    for (uint32_t i = 0; i < kSizes[kind]; ++i) {
        Slot& slot = g_pools[kind][(first + i) % kSizes[kind]];
        if (Use use = &slot != except ? Use(slot, mode) : Use()) {
            return use;
        }
    }
    return {};
}

void DropAll(Kind kind, const std::function<void(Use& use)>& drop)
{
    for (Slot& slot : g_pools[kind]) {
        if (Use use(slot, Use::kAlone); use) {
            drop(use);
            use.Set(nullptr);
        }
    }
}

Argument Number(int64_t first, uint32_t count, int64_t refusal, std::vector<int64_t> wrong)
{
    Argument argument = Made([=](Words&) { return static_cast<uint64_t>(first + Dice().Below(count)); });
    argument.refusal = refusal;
    argument.wrong = std::move(wrong);
    return argument;
}

Argument OneOf(std::vector<int64_t> values, int64_t refusal, std::vector<int64_t> wrong)
{
    Argument argument = Number(0, 1, refusal, std::move(wrong));
    argument.make = [values = std::move(values)](Words&) {
        return static_cast<uint64_t>(values[Dice().Below(static_cast<uint32_t>(values.size()))]);
    };
    return argument;
}

Argument Any()
{
    return Made([](Words&) { return Dice().Next(); });
}

Argument Output(size_t size, int64_t null, void (*free)(uint64_t* memory))
{
    Argument argument = Made([=](Words& memory) { return Bytes(memory, size, false); }, null);
    argument.free = free;
    return argument;
}

Argument Noise(size_t size, int64_t null)
{
    return Made([=](Words& memory) { return Bytes(memory, size, true); }, null);
}

Argument Handle(Form form, Kind kind, int64_t null, int64_t refusal)
{
    return {.form = form, .kind = kind, .null = null, .refusal = refusal};
}

Call Line(const char* name, Function function, uint32_t floor, std::vector<Argument> arguments,
          Options options)
{
    for (Argument& argument : arguments) { // another driver stands in front of what it may not end
        if (argument.form == Form::Ended && arguments[0].form == Form::Owner) {
            arguments[0].foreign = std::exchange(argument.foreign, kNoMatter);
        }
    }
    const Level level = options.level;
    const auto row =
        std::make_shared<const Row>(Row{std::move(function), std::move(arguments), std::move(options)});
    Call call = {name, kExportCaller, level, floor, [row] { return MakeLegal(*row); }};
    if (std::any_of(row->arguments.begin(), row->arguments.end(), [](const Argument& argument) {
            return argument.null != kNoMatter || argument.refusal != kNoMatter ||
                   argument.foreign != kNoMatter;
        })) {
        call.illegal = [row] { return MakeIllegal(*row); };
    }
    return call;
}

uint64_t NoHandle()
{
    static const Words words[] = {Words(512), Words(512, 0x5A5A5A5A5A5A5A5A)};
    if (!t_isRaised && Dice().Chance(50)) {
        return 0x1000 + 8 * Dice().Below(1000);
    }
    return reinterpret_cast<uint64_t>(words[Dice().Below(2)].data() + 256); // tags lie in front of some
}

} // namespace stress
