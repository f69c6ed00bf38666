// What a run of the scenario did, call by call: which exports and control requests it used, what they answered, and
// which calls that may fail each of them made.
#pragma once

#include "kinds.h"

#include <ntddk.h>

#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

namespace faults
{

struct Entry {
    std::string name;
    int64_t answer = 0; // status, value, or whether a pointer was answered
    bool made = true;   // what the call was to bring about is there
    bool startsUp = false;
    std::vector<uint64_t> calls; // of each kind, up to its end and that of what it set off
};

struct Journal {
    Point point; // that is looked for; none when `n` is 0
    std::vector<Entry> entries = {};
    bool startsUp = true;
    int hitEntry = -1;             // -1: the point was not reached
    std::vector<size_t> open = {}; // those that have begun: a handler's calls lie within a request
    size_t last = 0;               // ended last

    void Begin(const char* name);
    // Waits until what the call has set off is over, when it may wait.
    void End(int64_t answer);

  private:
    void LookForHit();
};
inline Journal g_journal;

template <class Answer>
int64_t Number(const Answer& answer)
{
    if constexpr (std::is_pointer_v<Answer>) {
        return answer != nullptr;
    } else if constexpr (std::is_same_v<Answer, LONGLONG>) {
        return answer != 0; // a time
    } else {
        return static_cast<int64_t>(answer);
    }
}

template <class Call>
auto Recorded(const char* name, const Call& call)
{
    g_journal.Begin(name);
    if constexpr (std::is_void_v<decltype(call())>) {
        call();
        g_journal.End(0);
    } else {
        auto answer = call();
        g_journal.End(Number(answer));
        return answer;
    }
}

// A call under the name of the function that is called.
#define CALL(Function, ...) faults::Recorded(#Function, [&] { return Function(__VA_ARGS__); })

// Whether the call that ended last has made what it was to.
inline bool Made(bool made)
{
    return g_journal.entries[g_journal.last].made = made;
}

// A call that is to make something, and whether it did.
#define MAKES(Result, Function, ...) (CALL(Function, __VA_ARGS__), faults::Made((Result) != nullptr))

} // namespace faults
