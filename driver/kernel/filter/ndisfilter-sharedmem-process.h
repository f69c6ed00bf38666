// The process that a user mapping lies in. A program may hand its handle of the device on, so the request that ends the
// mapping comes from any process: a user address means something in its own alone.
#pragma once

#include "ndisfilter-kernel.h"

class MappingProcess
{
  public:
    // The current process, referenced from here on; PASSIVE_LEVEL.
    VOID Remember();
    // Gives the reference back.
    VOID Forget();

    // Runs the body in the process; not at all when that has ended, as its end took the mapping along. PASSIVE_LEVEL;
    // the body waits for nothing.
    //
    // A process is signalled when its address space is gone. Its own handles are closed before, so only a handle of
    // another process can be closed between the beginning of that end and the signal. The body then still runs, in an
    // address space that is being taken down: no wait on the process excludes that.
    template <class Body>
    VOID Run(const Body& body) const
    {
        if (m_pProcess == PsGetCurrentProcess()) {
            body();
        } else if (!HasEnded()) {
            KAPC_STATE before;
            KeStackAttachProcess(reinterpret_cast<PKPROCESS>(m_pProcess), &before);
            body();
            KeUnstackDetachProcess(&before);
        }
    }

  private:
    BOOLEAN HasEnded() const;

    PEPROCESS m_pProcess = nullptr; // nullptr: no mapping
};
