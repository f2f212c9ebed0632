#include "ui/interval_animator.hpp"

namespace orbweave::ui {

interval_animator::interval_animator(int frames, int interval_ms, std::function<void(int)> on_frame)
    : frames_(frames), on_frame_(std::move(on_frame))
{
    timer_.setInterval(interval_ms);
    connect(&timer_, &QTimer::timeout, this, [this] { tick(); });
}

void interval_animator::start()
{
    current_ = -1;
    timer_.start();
}

void interval_animator::stop()
{
    timer_.stop();
}

void interval_animator::tick()
{
    ++current_;
    on_frame_(current_);
    if (current_ >= frames_)
        timer_.stop();
}

} // namespace orbweave::ui
