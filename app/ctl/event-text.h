// Events as text.
#pragma once

#include "session.h"

namespace ctl
{

// `raw`: the whole text as the driver gave it, for events that were reported without a head.
std::string FormatEvent(const UserEvent& event, bool raw);
Json EventToJson(const UserEvent& event, bool raw);

} // namespace ctl
