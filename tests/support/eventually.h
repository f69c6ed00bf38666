#pragma once

#include <functional>

namespace support
{

// Waits until a condition holds; false when it does not within ten seconds.
bool Eventually(const std::function<bool()>& condition);

} // namespace support
