// What can fail: the kernel's calls by machine::Fault, the hook driver's functions, the transport's answers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace faults
{

// Number of a kind, from 0. A point is the n-th call of a kind in a run, from 1.
struct Point {
    size_t kind = 0;
    uint64_t n = 0;
    bool operator==(const Point&) const = default;
};

size_t KindCount();
std::string NameOf(size_t kind);           // "pool", "hook AllocatePacket raised", "transport Send later"
size_t KindNamed(const std::string& name); // KindCount() when there is none

uint64_t CallsOf(size_t kind); // so far
// The points fail from now on: one, or two of the kernel's kinds in the order of their kinds and numbers.
void Arm(const std::vector<Point>& points);
bool IsHit(const Point& point);
void DisarmAll();
std::vector<std::string> TraceOf(const Point& point); // who called, where that is known

bool IsKernelKind(size_t kind);

} // namespace faults
