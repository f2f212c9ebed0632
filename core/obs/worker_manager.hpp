#pragma once

#include "core/obs/entries.hpp"
#include "core/obs/requests.hpp"
#include "core/obs/restore_tokens.hpp"
#include "core/obs/spare_worker.hpp"
#include "core/obs/stream_health.hpp"
#include "core/obs/worker.hpp"

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace orbweave::obs {

/// The registry of streams, keyed by the service's source id. Each stream runs in a
/// media worker process of its own, owned by a thread of its own from spawning to
/// shut-down; with a spare (options.keep_spare) one more stream worker is kept started
/// ahead of the next activation. What the machine offers to stream is the source
/// catalogue's (core/obs/source_catalogue).
///
/// Every operation returns at once. Slow work (spawning, starting, stopping) runs on the
/// stream threads and reports through the post function, which the client points at its
/// network loop. The registry lock is held only to mark a stream starting, running or
/// stopping, never across media work.
class worker_manager {
public:
    struct options {
        /// For each stream's worker; its canvas is set once, at the stream's size.
        worker::options stream = stream_worker_options();
        /// At most this many streams at once, counting those still starting or stopping
        /// (each holds a worker); 0 derives it from the machine (stream_limit_for).
        int max_streams = 0;
        /// Keep one stream worker started ahead of the next activation (the spare), from
        /// the construction on, so that not even the first activation waits for one.
        bool keep_spare = false;
    };

    /// Runs a task on the owner's thread, or drops it once the owner has stopped. It is
    /// called with the registry lock held (so reports keep their order) and must only queue.
    using post_function = std::function<void(std::function<void()>)>;

    /// What became of an activation.
    struct activation {
        bool started = false;
        /// Why the stream did not start.
        std::string error;
        /// The user declined in the desktop's own picker.
        bool rejected = false;
        /// No other stream ran when this one started: the client now streams.
        bool first = false;
    };

    /// What a deactivation found.
    struct deactivation {
        /// The request named a stream that runs or starts (or all streams): it is answered.
        bool known = false;
        /// No stream runs any more.
        bool now_empty = false;
    };

    /// The streams running now, in the order they started; told on every change.
    using streams_handler = std::function<void(const std::vector<callback::active_stream>&)>;

    /// A running stream's health, each time its worker reports (about once a second): the
    /// stream and its last seconds summed up.
    using health_handler = std::function<void(const callback::active_stream&, const health_summary&)>;

    /// A stream that ended by itself: its source id, why, and whether none runs now.
    using ended_handler = std::function<void(const std::string& id, const std::string& reason, bool now_empty)>;

    static worker::options stream_worker_options();

    /// Streams started here use tokens (the desktop's screen-cast consent), which must
    /// outlive the manager.
    worker_manager(post_function post, restore_tokens& tokens, options options);
    /// Cancels starts, stops every stream and the spare, all at once (each bounded by its
    /// shut-down time), and joins every thread.
    ~worker_manager();

    worker_manager(const worker_manager&) = delete;
    worker_manager& operator=(const worker_manager&) = delete;

    /// Starts a stream of source in a new worker; done gets the outcome through post.
    /// A start of the same source still in progress is cancelled; a stream of it that
    /// runs is stopped once the new one runs.
    void activate(activate_request request, source_entry source, int bitrate,
                  std::function<void(const activation&)> done);
    /// Stops the stream the request names (cancelling it if it is still starting),
    /// or every stream; the workers stop in the background.
    deactivation deactivate(const deactivate_request& request);
    /// Stops every stream in the background.
    void clear();
    /// Why no stream may start now ("" when one may): the limit of streams at once is
    /// reached. An activation past it is answered at once and starts no worker.
    std::string refusal() const;
    /// Whether no stream runs.
    bool is_empty() const;
    /// The source ids streaming now.
    std::vector<std::string> active_ids() const;

    /// Set before the first activation; called through post.
    void set_stream_ended_handler(ended_handler handler);
    /// Set before the first activation; called through post.
    void set_streams_handler(streams_handler handler);
    /// Set before the first activation; called through post.
    void set_health_handler(health_handler handler);

private:
    struct stream;

    void run_stream(std::shared_ptr<stream> record, activate_request request, source_entry source, int bitrate,
                    std::function<void(const activation&)> done);
    /// The spare if there is one, else a new worker; watched for its end from here on.
    /// Throws when the start is cancelled meanwhile.
    std::unique_ptr<worker> acquire_worker(stream& record);
    /// Starts the stream in process once no earlier stream holds its destination.
    activation start_stream(stream& record, worker& process, const activate_request& request, source_entry source,
                            int bitrate);
    /// Marks the start's outcome, reports it, and returns once the stream is to stop.
    void hold_until_stopped(stream& record, activation outcome, const std::function<void(const activation&)>& done);
    void on_stream_ended(std::uint64_t generation, const std::string& reason);
    void on_stream_health(std::uint64_t generation, const health_sample& sample);
    /// Hands a result to the owner's thread through post_; never throws.
    void report(std::function<void()> task) const noexcept;
    void cancel_locked(stream& record, const std::string& reason);
    /// A running stream ended by itself: it stops, and the owner hears of it.
    void end_locked(stream& record, const std::string& reason);
    bool any_running_locked() const;
    std::string refusal_locked() const;
    /// No earlier stream to record's destination is still stopping.
    bool destination_released_locked(const stream& record) const;
    /// Tells the streams handler of the running streams when they differ from the last told.
    void report_streams_locked();
    void join_finished();

    const options options_;
    const std::size_t max_streams_;
    const post_function post_;
    restore_tokens& tokens_;

    mutable std::mutex mutex_; // the registry below; never held across media work
    std::condition_variable changed_;
    // Every stream whose thread runs, by generation: a source id can have a stream
    // stopping, one running and one starting at the same time.
    std::map<std::uint64_t, std::shared_ptr<stream>> streams_;
    std::uint64_t next_generation_ = 1;
    bool closing_ = false;
    // Threads of streams that have ended, joined by the next activation or the destructor.
    std::vector<std::thread> finished_;
    ended_handler ended_handler_;
    streams_handler streams_handler_;
    health_handler health_handler_;
    std::vector<callback::active_stream> streams_told_;

    // The stream worker started ahead of the next activation (options.keep_spare); null otherwise.
    // Set once, and reset only after every stream thread has ended: they use it unlocked.
    std::unique_ptr<spare_worker> spare_;
};

} // namespace orbweave::obs
