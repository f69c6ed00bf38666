// What filters indicate, as text.
#pragma once

#include "session.h"

namespace ctl
{

std::string FormatBlock(const ndisfilter_block& block); // one line
Json BlockToJson(const ndisfilter_block& block);

} // namespace ctl
