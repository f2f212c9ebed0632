#pragma once

#include <boost/asio/io_service.hpp>

#include <functional>
#include <memory>
#include <mutex>

namespace orbweave {

/// How other threads reach the client's network thread. post() runs a task there,
/// from any thread, without waiting. Once the client stops, the loop is closed:
/// later posts are dropped, and tasks posted earlier that have not run are skipped.
/// Permission requests and the work manager hold it (not the client), so an answer
/// or a report that arrives after stop() does nothing.
class network_loop : public std::enable_shared_from_this<network_loop> {
public:
    explicit network_loop(boost::asio::io_service& io);

    network_loop(const network_loop&) = delete;
    network_loop& operator=(const network_loop&) = delete;

    /// Queues task for the network thread; false when the loop is closed. An exception
    /// the task throws is logged and goes no further.
    bool post(std::function<void()> task);
    /// From now on nothing posted runs. Safe from any thread, any number of times.
    void close();
    bool is_open() const;

private:
    mutable std::mutex mutex_;
    boost::asio::io_service* io_;
};

} // namespace orbweave
