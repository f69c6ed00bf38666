// The processes of the machine, as far as the kernel needs them: which one a thread runs in.
#pragma once

#include "machine.h"

#include <ntddk.h>

#include <cstdint>

// What PEPROCESS points to, an object; opaque to drivers, but for one habit of theirs: they search the system process
// for its name, in three pages, and read the names of others at the same place.
struct _EPROCESS {
    DISPATCHER_HEADER Header; // signalled when the process has ended
    uint32_t id;
    machine::MapPages mapPages; // empty: its memory is this program's
    char imageName[16];         // at most 15 characters
    char searched[3 * 4096];
};

namespace kernel
{

// The system process on every thread that no ProcessScope, and no attachment, has moved into another.
uint32_t CurrentProcessId();

// The calling thread runs in the context of a process while this lives.
class ProcessScope
{
  public:
    ProcessScope(); // of the system process
    explicit ProcessScope(PEPROCESS process);
    ~ProcessScope();
    ProcessScope(const ProcessScope&) = delete;
    ProcessScope& operator=(const ProcessScope&) = delete;

  private:
    PEPROCESS before_;
};

} // namespace kernel
