// Waiting for what other threads and programs do.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace support
{

// Waits until a condition holds; false when it does not within a minute.
inline bool Eventually(const std::function<bool()>& condition)
{
    for (const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1); !condition();) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace support
