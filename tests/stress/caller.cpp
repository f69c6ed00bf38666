#include "stress.h"

#include <fmt/format.h>

#include <algorithm>
#include <mutex>
#include <shared_mutex>
#include <thread>

#include <sys/mman.h>

namespace stress
{

namespace
{

constexpr size_t kPageSize = 4096;
constexpr char kDeviceName[] = "\\\\.\\NdisFilter";
constexpr size_t kMostFailures = 50; // that are printed

std::atomic<size_t> g_failures{0};

// A call holds the gate shared, which orders calls in no way; alone is who has it exclusively.
std::shared_mutex g_gate;
std::mutex g_turn; // of those that want to be alone
std::atomic<bool> g_gateWanted{false};

std::atomic<uint64_t> g_seed{0};
std::atomic<uint64_t> g_round{0};
std::atomic<uint64_t> g_foreignThreads{0};

thread_local Caller* t_caller = nullptr;
thread_local std::unique_ptr<Random> t_random;

const char* const kActorNames[] = {"caller", "program", "administrator", "traffic"};

void PassGate()
{
    while (g_gateWanted.load(std::memory_order_relaxed)) {
        std::this_thread::yield();
    }
    g_gate.lock_shared();
}

} // namespace

const std::vector<Call>& AllCalls()
{
    static const std::vector<Call> calls = [] {
        std::vector<Call> all;
        for (const std::span<const Call> part :
             {RegistryCalls(), ClientCalls(), InterfaceCalls(), PacketCalls(), TableCalls(), ServiceCalls(),
              SocketCalls(), TransportCalls(), NeighbourCalls()}) {
            all.insert(all.end(), part.begin(), part.end());
        }
        return all;
    }();
    return calls;
}

void Tally::Add(const Tally& other)
{
    attempts += other.attempts;
    successes += other.successes;
    refusals += other.refusals;
    illegal += other.illegal;
    raised += other.raised;
}

Random& CallbackRandom()
{
    if (t_caller != nullptr) {
        return t_caller->Stream();
    }
    if (t_random == nullptr) {
        t_random =
            std::make_unique<Random>(g_seed.load(), g_round.load(), 1000 + g_foreignThreads.fetch_add(1));
    }
    return *t_random;
}

void Fail(const std::string& what)
{
    const size_t number = g_failures.fetch_add(1);
    if (number < kMostFailures) {
        fmt::print(stderr, "stress: FAILED: {} ({}, seed {}, round {})\n", what,
                   t_caller != nullptr ? t_caller->Name() + ": " + t_caller->Doing()
                                       : "a thread of the kernel",
                   g_seed.load(), g_round.load());
    }
}

size_t Failures()
{
    return g_failures.load();
}

Caller::Caller(Actor actor, uint64_t seed, uint64_t round, uint32_t number)
    : name_(fmt::format("{} {}", kActorNames[static_cast<int>(actor)], number)), random_(seed, round, number),
      tallies_(AllCalls().size()),
      unwritable_(mmap(nullptr, kPageSize, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))
{
    g_seed = seed;
    g_round = round;
    for (size_t i = 0; i < AllCalls().size(); ++i) {
        if (AllCalls()[i].actor == actor) {
            calls_.push_back(i);
        }
    }
}

Caller::~Caller()
{
    munmap(unwritable_, kPageSize);
}

machine::File* Caller::Device()
{
    if (device_ == nullptr && !raised_) {
        process_ = std::make_unique<machine::Process>();
        device_ = process_->Open(kDeviceName);
    }
    return device_.get();
}

void Caller::CloseDevice()
{
    device_.reset();
    process_.reset();
}

void Caller::Step()
{
    t_caller = this;
    const size_t index = calls_[random_.Below(static_cast<uint32_t>(calls_.size()))];
    const Call& call = AllCalls()[index];
    Tally& tally = tallies_[index];
    const bool illegal = call.illegal != nullptr && random_.Chance(25);
    raised_ = call.level == Level::Dispatch && random_.Chance(25);
    doing_.store("waits for its turn", std::memory_order_relaxed);
    {
        std::optional<machine::AtDispatch> dispatch;
        if (raised_) {
            dispatch.emplace(random_.Chance(20) ? static_cast<int>(random_.Below(64)) : -1);
            tally.raised++;
        }
        PassGate();
        doing_.store(call.name, std::memory_order_relaxed);
        if (illegal) {
            call.illegal(*this);
            tally.illegal++;
        } else {
            const Outcome outcome = call.legal(*this);
            tally.attempts++;
            tally.successes += outcome == Outcome::Success ? 1 : 0;
            tally.refusals += outcome == Outcome::Refused ? 1 : 0;
        }
        g_gate.unlock_shared();
    }
    raised_ = false;
    machine::CheckReturnToUser(call.name);
    steps_.fetch_add(1, std::memory_order_relaxed);
    t_caller = nullptr;
}

void Caller::BeginAlone()
{
    g_gate.unlock_shared();
    g_turn.lock();
    g_gateWanted.store(true, std::memory_order_relaxed);
    g_gate.lock();
}

void Caller::EndAlone()
{
    g_gate.unlock();
    g_gateWanted.store(false, std::memory_order_relaxed);
    g_turn.unlock();
    PassGate();
}

Outcome Caller::Judge(int64_t status, std::initializer_list<int64_t> refusals)
{
    if (status == 0) {
        return Outcome::Success;
    }
    if (std::find(refusals.begin(), refusals.end(), status) == refusals.end()) {
        Fail(fmt::format("a legal call answered {} (0x{:08X})", status, static_cast<uint32_t>(status)));
    }
    return Outcome::Refused;
}

Outcome Caller::Check(bool holds, const char* what)
{
    if (!holds) {
        Fail(fmt::format("it does not hold that {}", what));
    }
    return holds ? Outcome::Success : Outcome::Refused;
}

void Caller::Expect(int64_t status, int64_t expected)
{
    if (status != expected) {
        Fail(fmt::format("a call answered {} (0x{:08X}), not {}", status, static_cast<uint32_t>(status),
                         expected));
    }
}

} // namespace stress
