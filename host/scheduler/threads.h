// Threads that run one at a time. Each has a turn of its own and waits for it outside all of the host's locks; the one
// that runs decides, at each switch point, who runs on. Everything of libc that waits is answered here (posix.cpp), so
// a thread that waits is only marked as waiting, and a state in which nobody can go on is seen at once.
//
// Nothing here is used outside a search (search.h): a thread that the scheduler does not know runs as ever.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace scheduler
{

inline constexpr uint32_t kMaxThreads = 64;
using ThreadMask = uint64_t;

enum class Operation : uint8_t { Read, Write, Acquire, Release, Wait, Yield, Start, End };
const char* NameOf(Operation operation);

struct Thread;
Thread* Self(); // null when the scheduler does not know this thread
uint32_t IdOf(const Thread* thread);

// Makes the calling thread the only one and the first of those that take turns. Once in a process.
void Activate();

// A place where another thread may go on instead: before an operation on memory or a lock that others use, and behind
// the release of a lock. `site`: the code that does it.
void SwitchPoint(Operation operation, const void* object, const void* site);

// Memory that is mapped at two addresses is one object: `view` shows what lies at `original`.
void Alias(const void* view, size_t size, const void* original);
void ForgetAliases();

// Notes what this thread has done to an object, without giving others a turn.
void NoteChange();

// Waits until Wake(key), or until the clock of the run reaches the deadline (nanoseconds; 0: never). The clock only goes
// on when nobody can run. False: the deadline.
bool Block(const void* key, uint64_t deadline, const void* site);
void Wake(const void* key, bool all);
void Yield(const void* site); // until another thread has changed something

// What one of the following does inside is one step for the others.
class Undivided
{
  public:
    Undivided();
    ~Undivided();
    Undivided(const Undivided&) = delete;
    Undivided& operator=(const Undivided&) = delete;
};
void DivideLocks(bool on); // on: the kernel's locks are not taken in one step, but in those of their own code
bool LocksAreDivided();

// A load that reads the same again and again is a loop that waits: it gives way. True: others ran since, so the value is
// to be loaded anew, or what they changed would count as seen when the loop gives way next.
bool NoteLoad(const void* object, uint64_t value, const void* site);

uint64_t Now(); // nanoseconds of the run's clock

// New threads, for posix.cpp. StartThread prepares a thread that runs when it gets its first turn.
struct Start {
    void* (*routine)(void*);
    void* argument;
    Thread* thread;
};
Start* StartThread(void* (*routine)(void*), void* argument, bool joinable);
void* RunThread(void* start);
void ForgetThread(Start* start); // the host could not make it
const void* EndKeyOf(const Thread* thread);
bool HasEnded(const Thread* thread);
void SetHandle(Thread* thread, uintptr_t handle);
void NobodyJoins(Thread* thread); // any more: its place is free when it has ended
Thread* FindByHandle(uintptr_t handle);

// ------------------------------------------------------------------------------------------------ what a search does

struct ChoicePoint {
    uint32_t step;         // switch points of the run before it
    ThreadMask candidates; // those that can run
    uint32_t
        usual; // who runs when nothing is planned: the running thread while it can, else the next in line
    Operation operation;
    const void* site;
};

struct Director {
    // Who runs on. Called for each choice among several while a run is directed; the answer is one of the candidates.
    std::function<uint32_t(const ChoicePoint&)> choose;
    // False: nothing is gained by a switch before the operation of this site.
    std::function<bool(const void* site)> matters;
    // A site whose operation met another thread's on the same object.
    std::function<void(const void* site)> shared;
    // A thread got its turn.
    std::function<void(const ChoicePoint&, uint32_t from, uint32_t to)> switched;
    // The run cannot go on or broke a rule. Does not return.
    std::function<void(const char* reason)> failed;
};
void SetDirector(Director director);
void BeginRun(); // counts steps from 0 and lets the director choose
void EndRun();   // the plain order again
uint32_t StepsOfRun();
[[noreturn]] void Fail(const char* format, ...) __attribute__((format(printf, 1, 2)));

} // namespace scheduler
