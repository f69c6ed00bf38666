// What can fail: the kernel's calls by machine::Fault, the hook driver's functions, the transport's answers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace faults
{

struct Kind {
    std::string name;                    // "pool", "hook-AllocatePacket-raised", "transport-Send-later"
    std::function<uint64_t()> calls;     // so far
    std::function<void(uint64_t)> fail;  // the n-th one
    std::function<bool(uint64_t)> isHit; // the n-th one was made
    int64_t told; // by the kernel sockets, when they answer a status; 0: no matter which
};

// Number of a kind, from 0. A point is the n-th call of a kind in a run, from 1.
struct Point {
    size_t kind = 0;
    uint64_t n = 0;
};

const std::vector<Kind>& Kinds();
bool IsKernelKind(size_t kind);

// The points fail from now on: one, or two of the kernel's kinds in the order of their kinds and numbers.
void Arm(const std::vector<Point>& points);
void DisarmAll();
std::vector<std::string> TraceOf(const Point& point); // who called, where that is known

} // namespace faults
