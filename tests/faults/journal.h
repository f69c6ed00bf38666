// What a run of the scenario did, call by call: which exports and control requests it used, what they answered, and
// which calls that may fail each of them made.
#pragma once

#include "kinds.h"

#include <ntddk.h>

#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>
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

class Journal
{
  public:
    // The point is looked for; nothing when `point.n` is 0.
    static void Start(const Point& point);
    static void Begin(const char* name);
    // Waits until what the call has set off is over, when it may wait.
    static void End(int64_t answer);
    static void Made(bool made); // of the entry ended last
    static void StartUpIsOver();
    static const std::vector<Entry>& Entries();
    static int HitEntry(); // -1: the point was not reached
};

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
    Journal::Begin(name);
    if constexpr (std::is_void_v<decltype(call())>) {
        call();
        Journal::End(0);
    } else {
        auto answer = call();
        Journal::End(Number(answer));
        return answer;
    }
}

// A call under the name of the function that is called.
#define CALL(Function, ...) faults::Recorded(#Function, [&] { return Function(__VA_ARGS__); })

} // namespace faults
