// Requests that a test wants answered otherwise than the network would.
#pragma once

#include "engine.h"

#include <optional>

namespace transport
{

// Whether every request completes on the engine's thread, also one that could be completed at once.
bool AlwaysLater();

// Answers the request in the way that was asked for; nothing when it is to be carried out. The status is that
// of the dispatch routine.
std::optional<NTSTATUS> AnswerOtherwise(IRP* irp);

} // namespace transport
