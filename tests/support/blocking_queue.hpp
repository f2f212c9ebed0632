#pragma once

#include "tests/support/eventually.hpp"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <vector>

namespace orbweave::test {

/// A queue that one thread fills and a test drains with deadlines.
template <class T>
class blocking_queue {
public:
    void push(T value)
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            items_.push_back(std::move(value));
            all_.push_back(items_.back());
        }
        changed_.notify_all();
    }

    /// The oldest item not yet taken; nullopt at the deadline.
    std::optional<T> pop(std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!changed_.wait_for(lock, timeout, [this] { return !items_.empty(); }))
            return std::nullopt;
        T value = std::move(items_.front());
        items_.pop_front();
        return value;
    }

    /// Takes items until one satisfies match; nullopt at the deadline.
    template <class Match>
    std::optional<T> pop_until(Match match, std::chrono::milliseconds timeout)
    {
        auto deadline = std::chrono::steady_clock::now() + timeout;
        for (;;) {
            auto value = pop(time_left(deadline));
            if (!value || match(*value))
                return value;
        }
    }

    /// Every item ever pushed, taken or not.
    std::vector<T> all() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return all_;
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<T> items_;
    std::vector<T> all_;
};

} // namespace orbweave::test
