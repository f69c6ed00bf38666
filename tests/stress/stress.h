// The stress: threads that make random calls, legal ones and such as the headers say are refused, and keep count of what
// came of them. No kernel header stands here, so that the kernel sockets' calls can be compiled beside libc's.
#pragma once

#include <hook/virtual-adapters.h>
#include <machine.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
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

enum class Level { Passive, Dispatch };                // the highest that the header allows
enum class Outcome { Success, Refused, NothingToUse }; // of a legal call
enum Actor : uint32_t { kExportCaller, kProgram, kAdministrator, kTraffic, kActors };

struct Plan {
    uint64_t seed = 0;
    uint64_t round = 0;
    bool unbinds = false;   // the hook driver unbinds and binds again
    bool captures = false;  // capture logs start and stop
    bool leavesAll = false; // clients give nothing back: the unload has to
};
inline Plan g_plan; // written before the threads start

// One kind of call: an export, or something that a neighbour of the framework does.
struct Call {
    const char* name;
    Actor actor;
    Level level;
    uint32_t floor;                         // per cent of the legal attempts that must succeed over a run
    std::function<Outcome()> legal;         // none: it is not called at random
    std::function<uint32_t()> illegal = {}; // checks refusals and counts them; none: nothing is refused
    bool Plan::*planned = nullptr;          // only in rounds of that plan
};

// An index into all of them names a kind of call everywhere.
std::vector<Call> ClientCalls(), AdapterCalls(), PacketCalls(), ServiceCalls(), SocketCalls(),
    NeighbourCalls();
const std::vector<Call>& AllCalls();

// Legal calls, those of them that succeeded or were refused by a state that other threads have brought about, refusals of
// illegal calls, and all calls at DISPATCH_LEVEL.
enum Count { kAttempts, kSuccesses, kRefusals, kIllegal, kRaised, kCounts };
using Tally = std::array<uint64_t, kCounts>;

// For a call, and what it calls, of the thread that runs it.
Random& Dice();                                                           // its stream
inline constinit thread_local bool t_isRaised = false;                    // to DISPATCH_LEVEL, in a call
Outcome Judge(int64_t status, const std::vector<int64_t>& refusals = {}); // of a legal call
void Require(bool holds, const std::string& what);                        // else the run fails
void RequireSuccess(int64_t status, const std::string& what);
inline std::atomic<size_t> g_failures{0};
// Runs while no other thread of the stress makes a call. Within it memory that was just freed is not in use again, so a
// handle of it is surely stale.
void Alone(const std::function<void()>& body);

// `steps`: calls of each calling thread. `drive`: a directory for the files that drivers write.
hook::Balance RunRound(uint64_t seed, uint64_t round, uint32_t threads, uint64_t steps,
                       const std::string& drive, std::vector<Tally>& totals);

// The parts of a round: the three drivers and the binding; what the calls share, there before the threads start and
// given back behind them. CloseSockets comes before the unload of the framework, CheckSockets behind it.
void Load();
void Unload();
void CheckNothingIsLeft(const machine::Census& before); // nor was any rule broken
void OpenWorld();
void CloseWorld();
void OpenSockets();
void CloseSockets();
void CheckSockets();
machine::File& Device(); // the control device, opened by the user program
void CloseProgram();     // gives back all that the program has

// frames.cpp: so many frames through filters with random verdicts, counted and compared. Exit status of the program.
int RunFrames(uint64_t frames, uint64_t seed);

} // namespace stress
