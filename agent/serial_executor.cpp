#include "agent/serial_executor.hpp"

#include "core/log.hpp"

namespace orbweave::agent {

serial_executor::serial_executor()
    : thread_(&serial_executor::run, this)
{
}

serial_executor::~serial_executor()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        tasks_.clear();
    }
    changed_.notify_all();
    thread_.join();
}

bool serial_executor::post(std::function<void()> task)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_)
            return false;
        tasks_.push_back(std::move(task));
    }
    changed_.notify_all();
    return true;
}

void serial_executor::run()
{
    for (;;) {
        std::function<void()> task;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
            if (stopping_)
                return;
            task = std::move(tasks_.front());
            tasks_.pop_front();
        }
        try {
            task();
        } catch (const std::exception& error) {
            log::line("A permission answer failed: ", error.what());
        }
    }
}

} // namespace orbweave::agent
