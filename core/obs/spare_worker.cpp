#include "core/obs/spare_worker.hpp"

namespace orbweave::obs {

namespace {
constexpr int deaths_before_giving_up = 3;
}

spare_worker::spare_worker(worker::options options) : options_(std::move(options)) {}

spare_worker::~spare_worker()
{
    close();
    // A start in progress ends before the spare is shut down; none starts after it.
    thread_.reset();
}

void spare_worker::close()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (closing_)
            return;
        closing_ = true;
    }
    changed_.notify_all();
    closed_.cancel();
    // Queued behind a start in progress, which the cancellation ends at once.
    thread_->post([this] {
        std::unique_ptr<worker> idle;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            idle = std::move(spare_);
        }
    });
}

void spare_worker::refill()
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (closing_ || starting_ || (spare_ && spare_->alive()) || deaths_in_a_row_ >= deaths_before_giving_up)
        return;
    starting_ = thread_->post([this] { start(); });
}

void spare_worker::prefer_canvas(int width, int height)
{
    std::lock_guard<std::mutex> lock(mutex_);
    options_.canvas_width = width;
    options_.canvas_height = height;
}

std::unique_ptr<worker> spare_worker::take(cancellation* cancel)
{
    // The hook runs under the cancellation's lock, so the wait looks at a flag of its own
    // rather than asking the cancellation (which would take the two locks the other way
    // round). Registered before our lock is taken: when cancelled already, it runs at once.
    bool cancelled = false;
    cancellation::registration waking;
    if (cancel)
        waking = cancel->on_cancel([this, &cancelled] {
            {
                std::lock_guard<std::mutex> lock(mutex_);
                cancelled = true;
            }
            changed_.notify_all();
        });
    std::unique_ptr<worker> taken;
    {
        std::unique_lock<std::mutex> lock(mutex_);
        // A spare still starting is further along than a new worker would be: wait for it.
        changed_.wait_for(lock, options_.start_timeout, [&] { return !starting_ || closing_ || cancelled; });
        if (closing_ || cancelled)
            return nullptr;
        taken = std::move(spare_);
        deaths_in_a_row_ = 0;
    }
    if (!taken)
        return nullptr;
    // Its exit handler would start another spare; the caller watches it now.
    taken->set_exit_handler(nullptr);
    if (!taken->alive())
        taken.reset();
    return taken;
}

void spare_worker::start()
{
    worker::options options;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        options = options_;
    }
    std::unique_ptr<worker> fresh;
    try {
        fresh = std::make_unique<worker>(options, &closed_);
        fresh->set_exit_handler([this](const std::string&) { died(); });
    } catch (const std::exception&) {
        // The worker has logged why.
    }
    bool started = fresh != nullptr;
    std::unique_ptr<worker> dead; // one that died unused, shut down once the lock is released
    {
        std::lock_guard<std::mutex> lock(mutex_);
        starting_ = false;
        dead = std::move(spare_);
        spare_ = std::move(fresh);
    }
    changed_.notify_all();
    if (!started)
        died();
}

void spare_worker::died()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++deaths_in_a_row_;
    }
    refill();
}

} // namespace orbweave::obs
