// The exception guards of a thread, as far as other rooms need them.
#pragma once

namespace kernel
{

// Drops every guard of the calling thread: its frames are about to be abandoned.
void ForgetGuards();

} // namespace kernel
