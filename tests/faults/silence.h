// Calls that are documented not to tell a failure by what they answer.
#pragma once

#include <string>

namespace faults
{

// Whether a call may answer as ever when a call of the kind fails in it.
bool MayStaySilent(const std::string& call, const std::string& kind);

} // namespace faults
