#pragma once

// One outgoing live stream inside the media worker, composed of its capture source
// (media/capture_source), the libobs objects that encode and send it
// (media/stream_assembly) and the supervisor of its RTMP connection
// (media/connection_supervisor).
//
// start() builds the stream from a stream order (the source's catalogue entry and
// what the activate request asks) and returns only once the output has reported
// itself active (connected to the ingest and sending) or has failed; a failed
// first attempt is retried once with the software encoder. Destroying the object
// stops the stream.

#include "core/callback.hpp"
#include "core/obs/capture_route.hpp"
#include "core/obs/media_limits.hpp"
#include "core/obs/pipe_protocol.hpp"
#include "media/audio_follower.hpp"
#include "media/capture_source.hpp"
#include "media/connection_supervisor.hpp"
#include "media/screen_feed.hpp"
#include "media/window_feed.hpp"
#include "media/stream_assembly.hpp"

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace orbweave::obs {

/// The line written to standard error before the software retry of a failed start.
inline constexpr const char* software_fallback_line =
    "Failed to start stream; attempting to fallback to software encoder";

class output {
public:
    /// Called once, on whichever thread noticed it (libobs's, the outage watchdog's, the
    /// screen cast's), when a running stream ends without being asked to: its ingest gone
    /// for longer than the outage limit, the output failing, or its capture ending.
    using stopped_handler = std::function<void(const std::string& error)>;

    /// On the portal route a screen is captured through the desktop portal and PipeWire.
    explicit output(stream_limits limits = {}, capture_route route = capture_route::x11);
    /// Stops the stream (waiting at most the output stop limit for the output to stop) and
    /// releases everything it holds.
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

    /// Stops the stream now (the destructor does the same); false when the output did
    /// not report stopping within the output stop limit and was forced.
    bool stop();

private:
    /// Makes the capture source and the canvas at the stream's size, or with direct a
    /// screen cast fed past the canvas; false with error_ set.
    bool prepare_capture(const pipe::stream_order& order, callback::source_type::type kind, bool direct = false);
    /// Starts grabbing the order's X11 screen or window for the encoder, past the canvas;
    /// false with error_ set.
    bool prepare_feed(const pipe::stream_order& order);
    /// One attempt with the prepared capture; true when the output became active.
    bool attempt(const pipe::stream_order& order, callback::source_type::type kind, bool software);
    /// Marks the stream running, and passes on an end that came while it started.
    void run();
    void release();

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
    // A capture that ends: told to the stopped handler once the stream runs.
    std::mutex end_mutex_;
    stopped_handler end_handler_;
    bool running_ = false;
    bool ended_ = false;
    std::string early_end_;
};

} // namespace orbweave::obs
