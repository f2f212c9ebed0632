#pragma once

#include "core/obs/worker.hpp"
#include "core/serial_executor.hpp"

#include <condition_variable>
#include <memory>
#include <mutex>

namespace orbweave::obs {

/// A pool of one: a stream worker started ahead of the next activation, so that an
/// activation does not wait for libobs to start. It is started on a thread of its own,
/// taken by the next activation and started again once refill() is called; one that
/// dies unused is replaced, until three have died (or failed to start) in a row, so a
/// worker that cannot run is not restarted forever. It is not a stream: nothing lists,
/// counts or reports it.
class spare_worker {
public:
    explicit spare_worker(worker::options options);
    /// Closes, then waits until the spare is shut down.
    ~spare_worker();

    spare_worker(const spare_worker&) = delete;
    spare_worker& operator=(const spare_worker&) = delete;

    /// Starts a spare in the background unless one is ready or starting.
    void refill();
    /// Later spares start with their canvas at this size: the size of the stream just
    /// started, which the next activation (often the same source) most likely wants, so
    /// it skips remaking the canvas.
    void prefer_canvas(int width, int height);
    /// The spare, once a start in progress has ended (at most the start-up time); null
    /// when there is none, or at once when cancel is cancelled meanwhile. From here on the
    /// caller watches the worker's end.
    std::unique_ptr<worker> take(cancellation* cancel = nullptr);
    /// Returns at once: no spare starts or is handed out any more, a start in progress is
    /// cancelled, and the spare shuts down in the background.
    void close();

private:
    /// On the spare thread: starts a worker and keeps it.
    void start();
    void died();

    worker::options options_; // guarded by mutex_
    std::mutex mutex_;
    std::condition_variable changed_; // a start has ended, or closing
    std::unique_ptr<worker> spare_;
    bool starting_ = false;
    bool closing_ = false;
    int deaths_in_a_row_ = 0;
    cancellation closed_; // ends a start in progress on close()
    std::unique_ptr<serial_executor> thread_ = std::make_unique<serial_executor>();
};

} // namespace orbweave::obs
