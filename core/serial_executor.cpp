#include "core/serial_executor.hpp"

#include "core/log.hpp"

namespace orbweave {

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
        // Nothing may leave the thread: one failed task must not end the others.
        try {
            task();
        } catch (const std::exception& error) {
            log::line("A background task failed: ", error.what());
        } catch (...) {
            log::line("A background task failed");
        }
    }
}

} // namespace orbweave
