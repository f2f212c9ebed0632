#pragma once

#include <algorithm>
#include <chrono>
#include <functional>
#include <thread>

namespace orbweave::test {

/// What is left until deadline, never below zero: a bound for the next wait.
inline std::chrono::milliseconds time_left(std::chrono::steady_clock::time_point deadline)
{
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return std::max(left, std::chrono::milliseconds(0));
}

/// Polls condition until it holds (true) or timeout passes (false). For outside facts
/// that announce nothing, such as a process being gone or a handle being released.
inline bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout,
                       std::chrono::milliseconds interval = std::chrono::milliseconds(10))
{
    auto until = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= until)
            return false;
        std::this_thread::sleep_for(interval);
    }
    return true;
}

} // namespace orbweave::test
