#pragma once

// The parent's handle on one media worker process (orbweave-media-worker), which
// hosts one libobs instance. Requests go to the worker as one JSON object per line
// and replies come back in order; event lines are unsolicited and go to the event
// handler instead (core/obs/pipe_protocol.hpp).

#include "core/json.hpp"
#include "core/obs/cancellation.hpp"
#include "core/obs/child_process.hpp"
#include "core/obs/capture_route.hpp"
#include "core/obs/entries.hpp"
#include "core/obs/media_limits.hpp"
#include "core/obs/pipe_protocol.hpp"
#include "core/obs/stream_health.hpp"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace orbweave::obs {

class worker {
public:
    struct options {
        /// The worker program; empty: $ORBWEAVE_MEDIA_WORKER, else beside the running program.
        std::string executable;
        /// A stream worker: it loads the encoders and outputs and starts its graphics at once
        /// (on a placeholder canvas, remade at the stream's size); otherwise a listing worker.
        bool stream_worker = false;
        /// How long start-up may take before the worker is killed.
        std::chrono::milliseconds start_timeout = limits::worker_start;
        /// How long one ordinary request (a listing, a lookup) may take; a late worker is
        /// killed, since replies would fall out of step. A stream order's bound is derived
        /// from the stream's steps below instead (stream_start_limit).
        std::chrono::milliseconds call_timeout = limits::worker_call;
        /// How long an orderly shutdown may take before the worker is killed; zero derives
        /// it from the output's stop (stream_stop_limit).
        std::chrono::milliseconds shutdown_timeout{0};
        /// The bounds of a stream's steps, applied by the worker (core/obs/media_limits.hpp);
        /// zero keeps the default.
        std::chrono::milliseconds portal_start_limit = limits::portal_start;
        std::chrono::milliseconds source_size_limit = limits::source_size;
        std::chrono::milliseconds output_start_limit = limits::output_start;
        std::chrono::milliseconds output_stop_limit = limits::output_stop;
        /// How long a stream may keep reconnecting to a vanished ingest before it ends.
        std::chrono::milliseconds ingest_outage_limit = limits::ingest_outage;
        /// How long a connected stream may have data the ingest does not take before it reconnects.
        std::chrono::milliseconds send_stall_limit = limits::send_stall;
        /// A stream worker's first canvas (width x height at 30 fps); 0 x 0 keeps the worker's
        /// placeholder. A stream of that size starts without remaking it.
        int canvas_width = 0;
        int canvas_height = 0;
        /// How the worker captures screens; automatic lets it decide by the session.
        capture_route capture = capture_route::automatic;

        /// The bounds of a stream's steps, defaults in place of zeros.
        stream_limits steps() const;
        /// The bound of an orderly shutdown.
        std::chrono::milliseconds shutdown_limit() const;
    };

    /// Starts a listing worker and returns once it is ready; throws
    /// std::runtime_error("worker failed to initialize") when it cannot start.
    worker();
    /// With cancel, a cancel() from another thread ends the start at once (it then throws
    /// too); a cancelled one starts nothing.
    explicit worker(const options& options, cancellation* cancel = nullptr);
    /// Shuts the worker down (at most its shutdown limit, then SIGKILL) and reaps it.
    ~worker();

    worker(const worker&) = delete;
    worker& operator=(const worker&) = delete;

    /// The catalogue of one kind; none for no kind.
    std::vector<source_entry> list(callback::source_type::type kind);
    /// The catalogue of one kind as its own entries.
    std::vector<screen_entry> list_screens() { return entries_of<screen_entry>(list(callback::source_type::screen)); }
    std::vector<window_entry> list_windows() { return entries_of<window_entry>(list(callback::source_type::window)); }
    std::vector<audio_entry> list_audios() { return entries_of<audio_entry>(list(callback::source_type::audio)); }
    std::vector<video_entry> list_videos() { return entries_of<video_entry>(list(callback::source_type::video)); }
    /// The one source of that kind and id; none when the catalogue has no such source.
    std::optional<source_entry> find(const source_ref& source);
    /// Starts the one stream this worker carries and returns once it runs or has failed,
    /// waiting as long as the stream's steps may take (stream_start_limit).
    pipe::stream_result stream(const pipe::stream_order& order);

    /// Sends request and returns the reply's "result". Calls are serialised; an error reply
    /// throws std::runtime_error with its text, and a worker that has died (or dies while
    /// the call waits) throws at once.
    Json call(const Json& request);
    /// The same with its own bound.
    Json call(const Json& request, std::chrono::milliseconds timeout);

    /// Shuts the worker down in order and returns libobs's leaked allocation count
    /// (none when the worker was already gone or did not answer). Later calls throw.
    std::optional<long> shutdown();

    /// Kills the worker now, as a cancelled start does: a call waiting on it throws at once,
    /// and its end is expected (the exit handler is not called).
    void abort();

    /// Called on the reader thread for each event line with its name and reason; what the
    /// handlers throw is logged and dropped. The handler must not call into this worker
    /// (the reply it would wait for is read by that very thread).
    void set_event_handler(std::function<void(const std::string& event, const std::string& reason)> handler);
    /// Called on the reader thread for each health report of the worker's stream (every
    /// second while it runs), under the same rules as the event handler. A malformed one
    /// is logged and dropped.
    void set_health_handler(std::function<void(const health_sample&)> handler);
    /// Called once, on the reader thread, when the worker process ends without being asked
    /// to, with the reason ("killed by signal SIGKILL"). It must not destroy the worker;
    /// hand that to another thread.
    void set_exit_handler(std::function<void(const std::string& reason)> handler);

    /// Whether the worker process is still answering.
    bool alive() const;
    /// The worker's process id.
    pid_t pid() const;

    /// The program the no-argument constructor starts.
    static std::string default_executable();

private:
    pipe::worker_line exchange(const Json& request, std::chrono::milliseconds timeout);
    std::optional<pipe::worker_line> wait_reply(std::unique_lock<std::mutex>& lock, std::chrono::milliseconds timeout);
    void read_loop();
    /// Acts on one line of the worker; false when it is not a JSON object.
    bool on_line(std::string_view text);
    /// Hands a health event to the health handler.
    void on_health(const Json& line);
    void mark_dead(const std::string& reason);

    options options_;
    std::unique_ptr<child_process> process_;
    std::thread reader_;

    std::mutex call_mutex_; // one request in flight at a time

    mutable std::mutex state_mutex_;
    std::condition_variable state_changed_;
    std::optional<pipe::worker_line> reply_;
    bool dead_ = false;
    bool stopping_ = false;
    std::string death_reason_;
    std::function<void(const std::string&, const std::string&)> event_handler_;
    std::function<void(const std::string&)> exit_handler_;
    std::function<void(const health_sample&)> health_handler_;
};

} // namespace orbweave::obs
