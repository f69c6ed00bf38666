#include "journal.h"

#include <machine.h>

namespace faults
{
namespace
{

struct Book {
    Point point;
    int hitEntry = -1;
    bool startsUp = true;
    std::vector<Entry> entries;
    std::vector<size_t> open; // those that have begun: a handler's calls lie within a request
    size_t last = 0;          // ended last
};
Book g_book;

// A hit belongs to the innermost call that is open, or to the one that begins next.
void LookForHit()
{
    if (!g_book.open.empty() && g_book.point.n != 0 && g_book.hitEntry < 0 && IsHit(g_book.point)) {
        g_book.hitEntry = static_cast<int>(g_book.open.back());
    }
}

} // namespace

void Journal::Start(const Point& point)
{
    g_book.point = point;
    g_book.hitEntry = -1;
    g_book.startsUp = true;
    g_book.entries.clear();
    g_book.open.clear();
}

void Journal::Begin(const char* name)
{
    LookForHit(); // what led to a handler is the outer call's
    g_book.open.push_back(g_book.entries.size());
    Entry entry;
    entry.name = name;
    entry.startsUp = g_book.startsUp;
    g_book.entries.push_back(std::move(entry));
}

void Journal::End(int64_t answer)
{
    if (KeGetCurrentIrql() == PASSIVE_LEVEL) {
        machine::WaitIdle();
    }
    LookForHit();
    g_book.last = g_book.open.back();
    g_book.open.pop_back();
    Entry& entry = g_book.entries[g_book.last];
    entry.answer = answer;
    for (size_t kind = 0; kind < KindCount(); ++kind) {
        entry.calls.push_back(CallsOf(kind));
    }
}

void Journal::Made(bool made)
{
    g_book.entries[g_book.last].made = made;
}

void Journal::StartUpIsOver()
{
    g_book.startsUp = false;
}

const std::vector<Entry>& Journal::Entries()
{
    return g_book.entries;
}

int Journal::HitEntry()
{
    return g_book.hitEntry;
}

} // namespace faults
