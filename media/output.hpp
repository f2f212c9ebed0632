#pragma once

// One outgoing live stream inside the media worker, composed of its capture source
// (media/capture_source), the libobs objects that encode and send it
// (media/stream_assembly) and the supervisor of its RTMP connection
// (media/connection_supervisor).
//
// start() builds the stream from a stream order (the source's catalogue entry and
// what the activate request asks) and returns only once its RTMP output has reported
// itself active (connected to the ingest and sending) or has failed; a failed
// first attempt is retried once with the software encoder. However the stream ends
// by itself (its capture, its connection), one end_notice hears every report and the
// stopped handler the first. Destroying the object stops the stream.

#include "core/callback.hpp"
#include "core/end_notice.hpp"
#include "core/obs/capture_route.hpp"
#include "core/obs/media_limits.hpp"
#include "core/obs/pipe_protocol.hpp"
#include "core/obs/stream_health.hpp"
#include "media/audio_follower.hpp"
#include "media/capture_source.hpp"
#include "media/connection_supervisor.hpp"
#include "media/screen_feed.hpp"
#include "media/window_feed.hpp"
#include "media/stream_assembly.hpp"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

namespace orbweave::obs {

/// The line written to standard error before the software retry of a failed start.
inline constexpr const char* software_fallback_line =
    "Failed to start stream; attempting to fallback to software encoder";

class output {
public:
    /// Called once, on whichever thread noticed it (libobs's, the outage watchdog's, the
    /// screen cast's), when a running stream ends without being asked to: its ingest gone
    /// for longer than the outage limit, the RTMP output failing, or its capture ending.
    using stopped_handler = std::function<void(const std::string& error)>;

    /// On the portal route a screen is captured through the desktop portal and PipeWire.
    explicit output(stream_limits limits = {}, capture_route route = capture_route::x11);
    /// Stops the stream (waiting at most the output stop limit for its RTMP output to stop)
    /// and releases everything it holds.
    ~output();

    output(const output&) = delete;
    output& operator=(const output&) = delete;

    /// Builds and starts the stream the order describes; its bitrate is the measured
    /// uplink bitrate (kbps). True once the output is active; false with error() set
    /// otherwise. Called at most once per object.
    bool start(const pipe::stream_order& order);

    /// Why the last start failed: a short reason.
    const std::string& error() const { return error_; }
    /// The start failed because the user declined in the desktop's picker.
    bool rejected() const { return rejected_; }
    /// The desktop portal's token for the screen streamed, for next time; "" for none.
    const std::string& restore_token() const { return restore_token_; }
    /// The canvas the stream runs on: width, height.
    std::pair<int, int> canvas_size() const { return frame_size_; }

    /// Ends a running stream that cannot go on (its capture ended): the stopped handler
    /// hears why, once. Any thread; before the start has finished it takes effect then.
    void end(const std::string& reason);

    /// Installs the handler for a stream that stops on its own; call before or after start().
    void set_stopped_handler(stopped_handler handler);

    /// Stops the stream now (the destructor does the same); false when its RTMP output did
    /// not report stopping within the output stop limit and was forced.
    bool stop();

    /// Measures the running stream every interval and hands what it did in that interval
    /// to report, on a thread of its own, until the stream ends or is released. Call at
    /// most once, after a successful start().
    void report_health(std::function<void(const health_sample&)> report,
                       std::chrono::milliseconds interval = health_interval);

private:
    /// Makes the capture source and the canvas at the stream's size, or with direct a
    /// screen cast fed past the canvas; false with error_ set.
    bool prepare_capture(const pipe::stream_order& order, callback::source_type::type kind, bool direct = false);
    /// Starts grabbing the order's X11 screen or window for the encoder, past the canvas;
    /// false with error_ set.
    bool prepare_feed(const pipe::stream_order& order);
    /// One attempt with the prepared capture; true when the RTMP output became active.
    bool attempt(const pipe::stream_order& order, callback::source_type::type kind, bool software);
    /// Logs the end of a running stream and tells the stopped handler.
    void report_end(const std::string& reason);
    void release();

    /// The stream's running totals; libobs restarts the output's with each connection.
    struct counters {
        long long frames = 0;  // video frames handed to the output, the dropped ones included
        long long dropped = 0; // of those, dropped before they were sent
        long long lagged = 0;  // frames lagged or skipped before the encoder
        long long bytes = 0;   // taken by the ingest
        long long unsent = 0;  // waiting in the socket now
    };
    counters read_counters();
    /// The interval since last was read, which becomes the counters now.
    health_sample measure(counters& last, std::chrono::milliseconds elapsed, int target_kbps);
    void stop_health_reports();

    stream_limits limits_;
    capture_route route_;
    std::unique_ptr<capture_source> capture_;
    // A screen fed to the encoder without the canvas, instead of capture_.
    std::unique_ptr<screen_feed> feed_;
    // An X11 window fed to the encoder without the canvas.
    std::unique_ptr<window_feed> window_;
    // The objects of the attempt that became active.
    stream_parts parts_;
    std::unique_ptr<connection_supervisor> connection_;
    // Keeps the running stream's sound sources on their devices as these come and go.
    std::unique_ptr<audio_follower> audio_;
    std::string error_;
    std::pair<int, int> frame_size_{0, 0};
    bool started_ = false;
    bool rejected_ = false;
    std::string restore_token_;
    // Every report of the stream's end; it reaches report_end() once the stream runs, so
    // an end during start() is passed on when the start succeeds.
    end_notice ended_;
    std::mutex handler_mutex_;
    stopped_handler stopped_handler_;
    // The health reports' thread, and what ends it.
    std::thread health_thread_;
    std::mutex health_mutex_;
    std::condition_variable health_closing_changed_;
    bool health_closing_ = false;
};

} // namespace orbweave::obs
