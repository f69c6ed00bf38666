// Where the threads of a benchmark run.
#pragma once

#include <sched.h>

namespace bench
{

// Two processors that this process may run on; the second is the first where there is one only.
struct ProcessorPair {
    ProcessorPair()
    {
        cpu_set_t allowed;
        CPU_ZERO(&allowed);
        sched_getaffinity(0, sizeof(allowed), &allowed);
        int found = 0;
        for (int processor = 0; processor < CPU_SETSIZE && found < 2; ++processor) {
            if (CPU_ISSET(processor, &allowed)) {
                (found++ == 0 ? program : lab) = processor;
            }
        }
        if (found == 1) {
            lab = program;
        }
    }
    int program = 0;
    int lab = 0; // the driver and its threads
};

// The calling thread, and those that it starts.
inline void RunOn(int processor)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<size_t>(processor), &set);
    sched_setaffinity(0, sizeof(set), &set);
}

} // namespace bench
