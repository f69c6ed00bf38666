#include "threads.h"

#include "futex.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <pthread.h>
#include <string>
#include <utility>

namespace scheduler
{

namespace
{

enum class State : uint8_t { Unused, Ready, Blocked, Yielded, Ended };

constexpr uint32_t kLongestRun = 2'000'000;       // switch points of a run before it counts as endless
constexpr uint32_t kSameLoads = 3;                // loads of one value in a row that make a loop
constexpr uint64_t kLongestTime = 60'000'000'000; // of the run's clock, in nanoseconds
constexpr uint32_t kVainLooks = 8;                // of waiting loops in a row, when nobody else can run

} // namespace

struct Thread {
    State state = State::Unused;
    uint32_t turn = 0; // a futex
    const void* key = nullptr;
    const void* site = nullptr; // where it waits
    uint64_t deadline = 0;
    bool timedOut = false;
    uint64_t ticket = 0;  // order of waiting
    uint32_t behind = 0;  // order of those that come last: others were preferred to them, or they gave way
    uint64_t changes = 0; // its own
    uint64_t seen = 0;    // changes of others, when it yielded
    uint32_t undivided = 0;
    uintptr_t handle = 0;
    bool joinable = false; // somebody may wait for its end yet
    struct {
        const void* object = nullptr;
        const void* site = nullptr;
        uint64_t value = 0;
        uint64_t changes = 0;
        uint32_t count = 0;
    } load;
};

namespace
{

std::array<Thread, kMaxThreads> g_threads;
Director g_director;
bool g_directed = false;
bool g_divideLocks = false;
uint32_t g_step = 0;
uint32_t g_threadCount = 0; // slots ever used
uint64_t g_changes = 0;     // of all
uint64_t g_tickets = 0;
uint64_t g_vainChanges = 0;
uint32_t g_vainLooks = 0;
uint32_t g_lastBehind = 0;
uint64_t g_now = 0;
uint64_t g_runBegin = 0;
pthread_key_t g_endKey;
__thread Thread* t_self __attribute__((tls_model("initial-exec")));

// Who touched an object in the present run, and from where.
struct Use {
    const void* object = nullptr;
    uint32_t run = 0;
    bool changed = false;
    ThreadMask threads = 0;
    uint32_t count = 0;
    std::array<const void*, 6> sites;
};
constexpr size_t kUses = 1 << 14;
std::array<Use, kUses> g_uses;
uint32_t g_run = 0;

ThreadMask MaskOf(uint32_t id)
{
    return ThreadMask{1} << id;
}

struct View {
    uintptr_t begin = 0;
    size_t size = 0;
    uintptr_t original = 0;
};
std::array<View, 4> g_views;
size_t g_viewCount = 0;

const void* OriginalOf(const void* object)
{
    const auto address = reinterpret_cast<uintptr_t>(object);
    for (size_t i = 0; i < g_viewCount; ++i) {
        const View& view = g_views[i];
        if (address - view.begin < view.size) {
            return reinterpret_cast<const void*>(address - view.begin + view.original);
        }
    }
    return object;
}

Use* FindUse(const void* object)
{
    auto at = (reinterpret_cast<uintptr_t>(object) >> 2) * 0x9E3779B97F4A7C15ull >> 50;
    for (size_t tries = 0; tries < 64; ++tries, at = (at + 1) % kUses) {
        Use& use = g_uses[at];
        if (use.run != g_run) {
            use = {};
            use.object = object;
            use.run = g_run;
            return &use;
        }
        if (use.object == object) {
            return &use;
        }
    }
    return nullptr;
}

void NoteUse(Operation operation, const void* object, const void* site)
{
    Use* use = FindUse(OriginalOf(object));
    if (use == nullptr) { // too many: better a switch too much
        g_director.shared(site);
        return;
    }
    const auto end = use->sites.begin() + use->count;
    const bool known = std::find(use->sites.begin(), end, site) != end;
    const ThreadMask threads = use->threads | MaskOf(IdOf(t_self));
    const bool changed = use->changed || operation != Operation::Read;
    if (known && threads == use->threads && changed == use->changed) {
        return;
    }
    use->threads = threads;
    use->changed = changed;
    if (!known && use->count < use->sites.size()) {
        use->sites[use->count++] = site;
    }
    if (use->changed && std::popcount(use->threads) > 1) {
        g_director.shared(site);
        for (uint32_t i = 0; i < use->count; ++i) {
            g_director.shared(use->sites[i]);
        }
    }
}

bool CanRun(const Thread& thread)
{
    return thread.state == State::Ready ||
           (thread.state == State::Yielded && g_changes - thread.changes != thread.seen);
}

ThreadMask Candidates()
{
    ThreadMask mask = 0;
    for (uint32_t id = 0; id < g_threadCount; ++id) {
        if (CanRun(g_threads[id])) {
            mask |= MaskOf(id);
        }
    }
    return mask;
}

// Nobody can run: time goes on to the first deadline, and whoever waits for it is ready.
bool LetTimePass()
{
    Thread* first = nullptr;
    for (uint32_t id = 0; id < g_threadCount; ++id) {
        Thread& thread = g_threads[id];
        if (thread.state == State::Blocked && thread.deadline != 0 &&
            (first == nullptr || thread.deadline < first->deadline)) {
            first = &thread;
        }
    }
    if (first == nullptr) {
        return false;
    }
    g_now = std::max(g_now, first->deadline);
    if (g_directed && g_now - g_runBegin > kLongestTime) {
        return false;
    }
    first->timedOut = true;
    first->state = State::Ready;
    return true;
}

std::string Waiting()
{
    std::string text;
    for (uint32_t id = 0; id < g_threadCount; ++id) {
        const Thread& thread = g_threads[id];
        if (thread.state == State::Blocked || thread.state == State::Yielded) {
            char line[96];
            snprintf(line, sizeof(line), "%s thread %u at %p", text.empty() ? "" : ",", id, thread.site);
            text += line;
        }
    }
    return text;
}

// A loop may wait for something that was changed unseen, by code that was compiled without switch points.
ThreadMask WaitingLoops()
{
    ThreadMask mask = 0;
    for (uint32_t id = 0; id < g_threadCount; ++id) {
        if (g_threads[id].state == State::Yielded) {
            mask |= MaskOf(id);
        }
    }
    if (g_vainChanges != g_changes) {
        g_vainChanges = g_changes;
        g_vainLooks = 0;
    }
    return ++g_vainLooks <= kVainLooks ? mask : 0;
}

ThreadMask SomebodyWhoCanRun()
{
    ThreadMask candidates = Candidates();
    while (candidates == 0) {
        if (LetTimePass()) {
            candidates = Candidates();
        } else {
            candidates = WaitingLoops();
            if (candidates == 0) {
                Fail("deadlock: nobody can go on;%s", Waiting().c_str());
            }
        }
    }
    return candidates;
}

void GiveTurn(Thread& thread)
{
    thread.state = State::Ready;
    __atomic_store_n(&thread.turn, 1, __ATOMIC_RELEASE);
    FutexWake(&thread.turn);
}

void WaitForTurn(Thread& thread)
{
    while (__atomic_load_n(&thread.turn, __ATOMIC_ACQUIRE) == 0) {
        FutexWait(&thread.turn, 0);
    }
    __atomic_store_n(&thread.turn, 0, __ATOMIC_RELAXED);
}

// Whoever others were preferred to comes last, so that one preemption is enough for all that may happen meanwhile.
uint32_t NextInLine(ThreadMask candidates, uint32_t self)
{
    uint32_t next = kMaxThreads;
    for (uint32_t i = 1; i < kMaxThreads; ++i) {
        const uint32_t id = (self + i) % kMaxThreads;
        if ((candidates & MaskOf(id)) != 0 &&
            (next == kMaxThreads || g_threads[id].behind < g_threads[next].behind)) {
            next = id;
        }
    }
    return next;
}

// Lets somebody run on, maybe the calling thread itself. `mayChoose`: whether a switch here can make a difference.
uint32_t NextThread(Operation operation, const void* site, bool mayChoose)
{
    const uint32_t self = IdOf(t_self);
    const ThreadMask candidates = SomebodyWhoCanRun();
    const uint32_t usual = (candidates & MaskOf(self)) != 0 ? self : NextInLine(candidates, self);
    if (!g_directed || !mayChoose || std::has_single_bit(candidates)) {
        return usual;
    }
    const uint32_t chosen = g_director.choose({g_step, candidates, usual, operation, site});
    if (chosen != usual) {
        g_threads[usual].behind = ++g_lastBehind;
    }
    return chosen;
}

void Step()
{
    if (g_directed && ++g_step > kLongestRun) {
        Fail("endless: %u switch points and no end;%s", kLongestRun, Waiting().c_str());
    }
}

void TellSwitch(uint32_t next, Operation operation, const void* site)
{
    if (g_directed && g_director.switched != nullptr) {
        g_director.switched({g_step, 0, next, operation, site}, IdOf(t_self), next);
    }
}

void SwitchTo(uint32_t next, Operation operation, const void* site)
{
    Thread& thread = *t_self;
    if (next == IdOf(&thread)) {
        thread.state = State::Ready;
        return;
    }
    TellSwitch(next, operation, site);
    GiveTurn(g_threads[next]);
    WaitForTurn(thread);
}

// Whoever waits in a line waits in the order of the threads, so that a run does not depend on those before it.
void LineUp()
{
    for (uint32_t id = 0; id < g_threadCount; ++id) {
        g_threads[id].ticket = id;
        g_threads[id].behind = 0;
    }
    g_tickets = kMaxThreads;
    g_lastBehind = 0;
}

void EndOfThread(void*)
{
    Thread& thread = *t_self;
    thread.state = State::Ended;
    NoteChange();
    Wake(EndKeyOf(&thread), true);
    Step();
    const uint32_t next = NextThread(Operation::End, nullptr, true);
    TellSwitch(next, Operation::End, nullptr);
    t_self = nullptr; // from here on the place of this thread may be another's
    GiveTurn(g_threads[next]);
}

} // namespace

const char* NameOf(Operation operation)
{
    static const char* const names[] = {"before a read",       "before a write", "before taking a lock",
                                        "behind an unlock",    "waits",          "gives way",
                                        "has started another", "has ended"};
    return names[static_cast<size_t>(operation)];
}

Thread* Self()
{
    return t_self;
}

uint32_t IdOf(const Thread* thread)
{
    return static_cast<uint32_t>(thread - g_threads.data());
}

void Activate()
{
    pthread_key_create(&g_endKey, EndOfThread);
    g_threadCount = 1;
    g_now = 1'000'000'000'000'000'000;
    g_threads[0].state = State::Ready;
    g_threads[0].handle = pthread_self();
    t_self = g_threads.data();
}

void SwitchPoint(Operation operation, const void* object, const void* site)
{
    Thread& thread = *t_self;
    const bool change = operation != Operation::Read;
    if (thread.undivided == 0 && g_directed) {
        Step();
        NoteUse(operation, object, site);
        const uint32_t next = NextThread(operation, site, g_director.matters(site));
        SwitchTo(next, operation, site);
    }
    if (change) {
        NoteChange();
    }
}

void Alias(const void* view, size_t size, const void* original)
{
    if (g_viewCount < g_views.size()) {
        g_views[g_viewCount++] = {reinterpret_cast<uintptr_t>(view), size,
                                  reinterpret_cast<uintptr_t>(original)};
    }
}

void ForgetAliases()
{
    g_viewCount = 0;
}

void NoteChange()
{
    ++g_changes;
    ++t_self->changes;
}

bool Block(const void* key, uint64_t deadline, const void* site)
{
    Thread& thread = *t_self;
    thread.state = State::Blocked;
    thread.key = key;
    thread.site = site;
    thread.deadline = deadline;
    thread.timedOut = false;
    thread.ticket = ++g_tickets;
    Step();
    SwitchTo(NextThread(Operation::Wait, site, true), Operation::Wait, site);
    thread.key = nullptr;
    thread.deadline = 0;
    return !thread.timedOut;
}

void Wake(const void* key, bool all)
{
    for (;;) {
        Thread* first = nullptr;
        for (uint32_t id = 0; id < g_threadCount; ++id) {
            Thread& thread = g_threads[id];
            if (thread.state == State::Blocked && thread.key == key && !thread.timedOut &&
                (first == nullptr || thread.ticket < first->ticket)) {
                first = &thread;
            }
        }
        if (first == nullptr) {
            return;
        }
        first->state = State::Ready;
        if (!all) {
            return;
        }
    }
}

void Yield(const void* site)
{
    Thread& thread = *t_self;
    thread.state = State::Yielded;
    thread.site = site;
    thread.seen = g_changes - thread.changes;
    thread.behind = ++g_lastBehind;
    Step();
    SwitchTo(NextThread(Operation::Yield, site, true), Operation::Yield, site);
}

Undivided::Undivided()
{
    if (t_self != nullptr) {
        ++t_self->undivided;
    }
}

Undivided::~Undivided()
{
    if (t_self != nullptr) {
        --t_self->undivided;
    }
}

bool NoteLoad(const void* object, uint64_t value, const void* site)
{
    auto& load = t_self->load;
    if (load.object == object && load.site == site && load.value == value &&
        load.changes == t_self->changes) {
        if (++load.count >= kSameLoads) {
            load.count = 0;
            Yield(site);
            return true;
        }
        return false;
    }
    load = {object, site, value, t_self->changes, 0};
    return false;
}

uint64_t Now()
{
    return g_now;
}

Start* StartThread(void* (*routine)(void*), void* argument, bool joinable)
{
    for (uint32_t id = 0; id < kMaxThreads; ++id) {
        Thread& thread = g_threads[id];
        if (thread.state == State::Unused || (thread.state == State::Ended && !thread.joinable)) {
            thread = {};
            thread.state = State::Ready;
            thread.joinable = joinable;
            g_threadCount = std::max(g_threadCount, id + 1);
            return new Start{routine, argument, &thread};
        }
    }
    Fail("more than %u threads", kMaxThreads);
}

void* RunThread(void* start)
{
    const Start copy = *static_cast<Start*>(start);
    delete static_cast<Start*>(start);
    t_self = copy.thread;
    WaitForTurn(*t_self);
    pthread_setspecific(g_endKey, t_self); // its destructor runs behind those of thread-local objects
    return copy.routine(copy.argument);
}

void ForgetThread(Start* start)
{
    start->thread->state = State::Ended;
    start->thread->joinable = false;
    delete start;
}

const void* EndKeyOf(const Thread* thread)
{
    return &thread->handle;
}

bool HasEnded(const Thread* thread)
{
    return thread->state == State::Ended;
}

void SetHandle(Thread* thread, uintptr_t handle)
{
    thread->handle = handle;
}

void NobodyJoins(Thread* thread)
{
    thread->joinable = false;
}

Thread* FindByHandle(uintptr_t handle)
{
    for (uint32_t id = 0; id < g_threadCount; ++id) {
        if (g_threads[id].joinable && g_threads[id].handle == handle) {
            return &g_threads[id];
        }
    }
    return nullptr;
}

void SetDirector(Director director)
{
    g_director = std::move(director);
}

void BeginRun()
{
    LineUp();
    ++g_run;
    g_step = 0;
    g_runBegin = g_now;
    g_directed = true;
}

void EndRun()
{
    g_directed = false;
    LineUp();
}

uint32_t StepsOfRun()
{
    return g_step;
}

void DivideLocks(bool on)
{
    g_divideLocks = on;
}

bool LocksAreDivided()
{
    return g_divideLocks;
}

void Fail(const char* format, ...)
{
    char text[2048];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    g_director.failed(text);
    abort();
}

} // namespace scheduler
