#pragma once

// The parent's handle on one media worker process (orbweave-media-worker), which
// hosts one libobs instance. Requests go to the worker as one JSON object per line
// and replies come back in order; event lines are unsolicited and go to the event
// handler instead (core/obs/pipe_protocol.hpp).

#include "core/json.hpp"
#include "core/obs/child_process.hpp"
#include "core/obs/capture_route.hpp"
#include "core/obs/entries.hpp"
#include "core/obs/pipe_protocol.hpp"

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
        std::chrono::milliseconds start_timeout{30000};
        /// How long one request may take; a late worker is killed, since replies would fall out of step.
        std::chrono::milliseconds call_timeout{60000};
        /// How long an orderly shutdown may take before the worker is killed.
        std::chrono::milliseconds shutdown_timeout{10000};
        /// How long a stream may keep reconnecting to a vanished ingest before it ends;
        /// zero keeps the worker's own default (60 s).
        std::chrono::milliseconds ingest_outage_limit{0};
        /// How long a connected stream may have data the ingest does not take before it
        /// reconnects; zero keeps the worker's own default (10 s).
        std::chrono::milliseconds send_stall_limit{0};
        /// How long the desktop portal may take to start a cast (its picker waits for the
        /// user); zero keeps the worker's own default (120 s).
        std::chrono::milliseconds portal_start_limit{0};
        /// A stream worker's first canvas (width x height at 30 fps); 0 x 0 keeps the worker's
        /// placeholder. A stream of that size starts without remaking it.
        int canvas_width = 0;
        int canvas_height = 0;
        /// How the worker captures screens; automatic lets it decide by the session.
        capture_route capture = capture_route::automatic;
    };

    /// Starts a listing worker and returns once it is ready; throws
    /// std::runtime_error("worker failed to initialize") when it cannot start.
    worker();
    explicit worker(const options& options);
    /// Shuts the worker down (at most shutdown_timeout, 10 s, then SIGKILL) and reaps it.
    ~worker();

    worker(const worker&) = delete;
    worker& operator=(const worker&) = delete;

    std::vector<screen_entry> list_screens();
    std::vector<window_entry> list_windows();
    std::vector<audio_entry> list_audios();
    std::vector<video_entry> list_videos();
    /// The catalogue of one kind; none for no kind.
    std::vector<source_entry> list(callback::source_type::type kind);
    /// The one source of that kind and id; none when the catalogue has no such source.
    std::optional<source_entry> find(const source_ref& source);
    /// Starts the one stream this worker carries and returns once it runs or has failed.
    pipe::stream_result stream(const pipe::stream_order& order);

    /// Sends request and returns the reply's "result". Calls are serialised; an error reply
    /// throws std::runtime_error with its text, and a worker that has died (or dies while
    /// the call waits) throws at once.
    Json call(const Json& request);

    /// Shuts the worker down in order and returns libobs's leaked allocation count
    /// (none when the worker was already gone or did not answer). Later calls throw.
    std::optional<long> shutdown();

    /// Kills the worker now, as a cancelled start does: a call waiting on it throws at once,
    /// and its end is expected (the exit handler is not called).
    void abort();

    /// Called on the reader thread for each event line with its name and reason. The handler
    /// must not call into this worker (the reply it would wait for is read by that very thread).
    void set_event_handler(std::function<void(const std::string& event, const std::string& reason)> handler);
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
};

} // namespace orbweave::obs
