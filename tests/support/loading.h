// Loading the framework into the host's kernel, without its public header: that declares htons and its kin, which libc's
// network headers may define as macros.
#pragma once

#include <machine.h>

namespace support
{

inline constexpr char kFrameworkService[] = "NdisFilter";

// Returns once the framework's threads have printed what they print when they start.
machine::Status LoadFramework();

} // namespace support
