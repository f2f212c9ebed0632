#include "core/network_loop.hpp"

#include "core/log.hpp"

namespace orbweave {

network_loop::network_loop(boost::asio::io_service& io) : io_(&io) {}

bool network_loop::post(std::function<void()> task)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (!io_)
        return false;
    io_->post([self = shared_from_this(), task = std::move(task)] {
        if (!self->is_open())
            return;
        try {
            task();
        } catch (const std::exception& error) {
            log::line("A task on the network thread failed: ", error.what());
        } catch (...) {
            log::line("A task on the network thread failed");
        }
    });
    return true;
}

void network_loop::close()
{
    std::lock_guard<std::mutex> lock(mutex_);
    io_ = nullptr;
}

bool network_loop::is_open() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return io_ != nullptr;
}

} // namespace orbweave
