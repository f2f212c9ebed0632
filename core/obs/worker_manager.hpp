#pragma once

#include "core/encode_profile.hpp"
#include "core/json.hpp"
#include "core/obs/entries.hpp"
#include "core/obs/worker.hpp"

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace orbweave::websocket {
class connection;
}

namespace orbweave::obs {

/// The registry of running streams, keyed by the service's source id. Each
/// stream runs in a media worker process of its own; one more worker, started
/// when first needed and again if it dies, serves every listing.
class worker_manager {
public:
    struct options {
        /// For the listing worker.
        worker::options listing;
        /// For each stream's worker; its canvas is set once, at the stream's size.
        worker::options stream = stream_worker_options();
    };

    /// What became of an activation.
    struct activation {
        bool started = false;
        /// Why the stream did not start.
        std::string error;
    };

    /// One running stream.
    struct work_descriptor {
        std::unique_ptr<worker> stream_worker;
        std::string name;
        worker_manager* owner = nullptr;
    };

    static worker::options stream_worker_options();

    worker_manager();
    explicit worker_manager(options options);
    /// Stops every stream, then the listing worker.
    ~worker_manager();

    worker_manager(const worker_manager&) = delete;
    worker_manager& operator=(const worker_manager&) = delete;

    /// Starts a stream of the source the request names, in a new worker. A stream
    /// already running for the same source id is stopped once the new one runs.
    /// Nothing is kept when the stream does not start.
    activation activate(const Json& request, const encode_profile& profile);
    /// Stops the stream the request names and answers "Success"; without a payload
    /// object stops every stream. An id that is not streaming gets no answer.
    void deactivate(const websocket::connection& connection, const Json& request);
    /// Stops and removes every stream.
    void clear();
    /// Whether no stream runs.
    bool is_empty() const;
    /// The source ids streaming now.
    std::vector<std::string> active_ids() const;

    /// The listing worker's entries, marked active when streaming.
    std::vector<screen_entry> list_screens();
    std::vector<window_entry> list_windows();
    std::vector<audio_entry> list_audios();
    std::vector<video_entry> list_videos();
    /// The catalogue entry the request names; an empty object when there is none.
    Json get_source_info(const Json& request);

    /// Called, outside every lock of the manager, when a stream ends because its
    /// worker process died; now_empty tells whether any stream is left.
    void set_stream_lost_handler(std::function<void(const std::string& id, bool now_empty)> handler);

private:
    template <class Entry>
    std::vector<Entry> mark_active(std::vector<Entry> entries) const;
    template <class Result>
    Result with_listing_worker(const std::function<Result(worker&)>& use);
    void on_worker_died(const std::string& id, const work_descriptor* descriptor, const std::string& reason);
    /// Copies the map's keys to the view; called with mutex_ held after every change.
    void publish_active_ids();
    bool is_active(const std::string& id) const;
    void reap_loop();

    const options options_;

    mutable std::mutex mutex_; // guards work_; held through a whole start or stop
    std::map<std::string, std::shared_ptr<work_descriptor>> work_;
    // What is streaming, for readers that must not wait for a start or stop in
    // progress (the network thread, listings).
    mutable std::mutex view_mutex_;
    std::set<std::string> active_ids_;

    std::mutex listing_mutex_;
    std::unique_ptr<worker> listing_worker_;

    // Streams whose worker died wait here to be removed by the reaper thread,
    // since a worker cannot be destroyed on its own reader thread.
    std::mutex reap_mutex_;
    std::condition_variable reap_changed_;
    std::deque<std::pair<std::string, const work_descriptor*>> to_reap_;
    bool reaper_stopping_ = false;
    std::function<void(const std::string&, bool)> stream_lost_handler_;
    std::thread reaper_;
};

} // namespace orbweave::obs
