#include "journal.h"

#include <machine.h>

namespace faults
{

// A hit belongs to the innermost call that is open, or to the one that begins next.
void Journal::LookForHit()
{
    if (!open.empty() && point.n != 0 && hitEntry < 0 && Kinds()[point.kind].isHit(point.n)) {
        hitEntry = static_cast<int>(open.back());
    }
}

void Journal::Begin(const char* name)
{
    LookForHit(); // what led to a handler is the outer call's
    open.push_back(entries.size());
    entries.push_back({.name = name, .startsUp = startsUp, .calls = {}});
}

void Journal::End(int64_t answer)
{
    if (KeGetCurrentIrql() == PASSIVE_LEVEL) {
        machine::WaitIdle();
    }
    LookForHit();
    last = open.back();
    open.pop_back();
    entries[last].answer = answer;
    for (const Kind& kind : Kinds()) {
        entries[last].calls.push_back(kind.calls());
    }
}

} // namespace faults
