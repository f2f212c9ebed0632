#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace orbweave::test {

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
