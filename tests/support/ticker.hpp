#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace orbweave::test {

/// Calls tick on a thread of its own every interval, from construction until it is
/// destroyed: a desktop that changes at a pace, not a wait for anything.
class ticker {
public:
    ticker(std::chrono::milliseconds interval, std::function<void()> tick)
        : thread_([this, interval, tick = std::move(tick)] {
              std::unique_lock<std::mutex> lock(mutex_);
              while (!stopping_) {
                  tick();
                  stop_.wait_for(lock, interval, [this] { return stopping_; });
              }
          })
    {
    }
    ~ticker()
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
        }
        stop_.notify_all();
        thread_.join();
    }
    ticker(const ticker&) = delete;
    ticker& operator=(const ticker&) = delete;

private:
    std::mutex mutex_;
    std::condition_variable stop_;
    bool stopping_ = false;
    std::thread thread_; // last: it runs on the members above
};

} // namespace orbweave::test
