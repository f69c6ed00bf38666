// The registry of the machine: keys that hold 32-bit values and strings.
#pragma once

#include <string>

namespace kernel
{

// The key of a driver's service: \Registry\Machine\System\CurrentControlSet\Services\<service>.
std::string ServiceKeyPath(const std::string& service);

// Creates the key unless it exists or was deleted on purpose: a driver's service normally has one.
void CreateServiceKey(const std::string& service);

} // namespace kernel
