#pragma once

namespace ctl
{

inline constexpr char kVersion[] = "0.1.0";

} // namespace ctl
