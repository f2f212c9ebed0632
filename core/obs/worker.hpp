#pragma once

// The parent's handle on one media worker process (orbweave-media-worker), which
// hosts one libobs instance. Requests go to the worker as one JSON object per line
// and replies come back in order; lines carrying an "event" key are unsolicited
// and go to the event handler instead.

#include "core/json.hpp"
#include "core/obs/child_process.hpp"
#include "core/obs/entries.hpp"

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
        /// Start without a video canvas (a stream worker sets it once at its final size).
        bool defer_video = false;
        /// How long start-up may take before the worker is killed.
        std::chrono::milliseconds start_timeout{30000};
        /// How long one request may take; a late worker is killed, since replies would fall out of step.
        std::chrono::milliseconds call_timeout{60000};
        /// How long an orderly shutdown may take before the worker is killed.
        std::chrono::milliseconds shutdown_timeout{10000};
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
    /// The catalogue entry an activate request names; an empty object when there is none.
    Json get_source_info(const Json& request);

    /// Sends request and returns the reply's "result". Calls are serialised; an error reply
    /// throws std::runtime_error with its text, and a worker that has died (or dies while
    /// the call waits) throws at once.
    Json call(const Json& request);

    /// Shuts the worker down in order and returns libobs's leaked allocation count
    /// (none when the worker was already gone or did not answer). Later calls throw.
    std::optional<long> shutdown();

    /// Called on the reader thread for each {"event": ...} line. The handler must not
    /// call into this worker (the reply it would wait for is read by that very thread).
    void set_event_handler(std::function<void(const Json& event)> handler);
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
    Json exchange(const Json& request, std::chrono::milliseconds timeout);
    std::optional<Json> wait_reply(std::unique_lock<std::mutex>& lock, std::chrono::milliseconds timeout);
    void read_loop();
    void mark_dead(const std::string& reason);

    options options_;
    std::unique_ptr<child_process> process_;
    std::thread reader_;

    std::mutex call_mutex_; // one request in flight at a time

    mutable std::mutex state_mutex_;
    std::condition_variable state_changed_;
    std::optional<Json> reply_;
    bool dead_ = false;
    bool stopping_ = false;
    std::string death_reason_;
    std::function<void(const Json&)> event_handler_;
    std::function<void(const std::string&)> exit_handler_;
};

} // namespace orbweave::obs
