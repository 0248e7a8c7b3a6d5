#pragma once

#include <stdint.h>

#include <chrono>
#include <thread>

namespace agent_test {

inline int64_t SteadyMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

inline void SleepMs(int nMs) { std::this_thread::sleep_for(std::chrono::milliseconds(nMs)); }

template <class F>
bool WaitUntil(F condition, int nTimeoutMs)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(nTimeoutMs);
    while (true) {
        if (condition()) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

} // namespace agent_test
