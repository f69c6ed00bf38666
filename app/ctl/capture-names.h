// The names of the driver's capture logs.
#pragma once

#include "ndisfilter-client.h"

#include <string>
#include <vector>

namespace ctl
{

// Three for each adapter (toward the protocols, toward the adapter, injected), two for the shared memory; none at all
// without adapters.
std::vector<std::string> CaptureLogNames(const std::vector<UserAdapterInfo>& adapters);

} // namespace ctl
