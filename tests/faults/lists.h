// What the scenario has to use: the exports of the driver and the control requests of its public header.
#pragma once

#include "journal.h"

#include <string>
#include <vector>

namespace faults
{

// Names of the lists that no entry has.
std::vector<std::string> MissingFrom(const std::vector<Entry>& entries);

} // namespace faults
