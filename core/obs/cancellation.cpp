#include "core/obs/cancellation.hpp"

#include <utility>

namespace orbweave::obs {

cancellation::registration::registration(registration&& other) noexcept
    : owner_(std::exchange(other.owner_, nullptr)), hook_(other.hook_)
{
}

cancellation::registration& cancellation::registration::operator=(registration&& other) noexcept
{
    if (this != &other) {
        reset();
        owner_ = std::exchange(other.owner_, nullptr);
        hook_ = other.hook_;
    }
    return *this;
}

void cancellation::registration::reset() noexcept
{
    if (!owner_)
        return;
    std::lock_guard<std::mutex> lock(owner_->mutex_);
    owner_->hooks_.erase(hook_);
    owner_ = nullptr;
}

void cancellation::cancel()
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (cancelled_)
        return;
    cancelled_ = true;
    for (auto& hook : hooks_)
        hook();
}

bool cancellation::cancelled() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return cancelled_;
}

cancellation::registration cancellation::on_cancel(std::function<void()> hook)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (cancelled_)
        hook();
    return registration(this, hooks_.insert(hooks_.end(), std::move(hook)));
}

} // namespace orbweave::obs
