// The framework's neighbours between rounds.
#pragma once

#include "world.h"

namespace stress
{

void PlanNeighbours(const RoundPlan& plan); // before the threads start
void CloseProgram(Caller& caller);          // gives back all that the user program has

} // namespace stress
