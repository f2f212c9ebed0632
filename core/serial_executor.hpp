#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace orbweave {

/// Runs tasks one at a time, in order, on a thread of its own.
class serial_executor {
public:
    serial_executor();
    /// Finishes the running task, drops the queued ones and joins the thread.
    ~serial_executor();
    serial_executor(const serial_executor&) = delete;
    serial_executor& operator=(const serial_executor&) = delete;

    /// Queues task; false when the executor is shutting down (task not queued).
    bool post(std::function<void()> task);

private:
    void run();

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::function<void()>> tasks_;
    bool stopping_ = false;
    std::thread thread_;
};

} // namespace orbweave
