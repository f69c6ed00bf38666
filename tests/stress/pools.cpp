#include "row.h"

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

} // namespace stress
