#pragma once

// One outgoing live stream inside the media worker: a capture source placed in
// a scene, an H.264 and an AAC encoder, the RTMP service holding the server
// address and stream key, and the RTMP output pushing them to the server.
//
// start() builds the stream from a stream order (the source's catalogue entry and
// what the activate request asks) and returns only once the output has reported
// itself active (connected to the ingest and sending) or has failed; a failed
// first attempt is retried once with the software encoder. Destroying the object
// stops the stream.

#include "core/callback.hpp"
#include "core/obs/capture_route.hpp"
#include "core/obs/pipe_protocol.hpp"
#include "media/portal_capture.hpp"
#include "media/unique_handle.hpp"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace orbweave::obs {

/// The line written to standard error before the software retry of a failed start.
inline constexpr const char* software_fallback_line =
    "Failed to start stream; attempting to fallback to software encoder";

/// How long a capture source may take to report its size.
inline constexpr std::chrono::seconds source_size_limit{5};
/// How long the second dimension of a source's size may lag behind the first.
inline constexpr std::chrono::milliseconds source_half_size_grace{500};
/// How long the output may take to connect and start sending, or to fail.
inline constexpr std::chrono::seconds output_start_limit{10};
/// How long a stopping output may take to report that it stopped.
inline constexpr std::chrono::seconds output_stop_limit{10};
/// How long a stream may keep reconnecting to an ingest that has gone before it ends
/// (libobs itself would retry without end, and the service would see a source that
/// streams nowhere). Ingest restarts and short network drops stay well inside it.
inline constexpr std::chrono::seconds ingest_outage_limit{60};
/// How long a connected stream may have data waiting that the ingest does not take
/// (acknowledge) before its connection counts as lost. libobs would wait without end on
/// a path that went dark, since the socket stays open; shutting the connection down
/// makes libobs reconnect, and the outage limit applies from there.
inline constexpr std::chrono::seconds send_stall_limit{10};

/// How long a stream waits on what it depends on; the defaults are the production values.
struct stream_limits {
    std::chrono::milliseconds ingest_outage = ingest_outage_limit;
    std::chrono::milliseconds portal_start = portal_start_limit;
    std::chrono::milliseconds send_stall = send_stall_limit;
};

/// Reads the source's size until both dimensions are known, at most until deadline; (0, 0)
/// when it has none by then. A PipeWire screen once reported its height before its
/// width, and the stream went out 4 pixels wide: once one dimension is known the other
/// gets source_half_size_grace to follow, and the stream then goes on with what there is.
std::pair<int, int> wait_for_size(obs_source_t* source, std::chrono::steady_clock::time_point deadline);

class output {
public:
    /// Called once, on whichever thread noticed it (libobs's, the outage watchdog's, the
    /// screen cast's), when a running stream ends without being asked to: its ingest gone
    /// for longer than the outage limit, the output failing, or its capture ending.
    using stopped_handler = std::function<void(const std::string& error)>;

    /// On the portal route a screen is captured through the desktop portal and PipeWire.
    explicit output(stream_limits limits = {}, capture_route route = capture_route::x11);
    /// Stops the stream (waiting at most output_stop_limit for the output to stop) and
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

    /// Ends a running stream that cannot go on (its capture ended): the stopped handler
    /// hears why, once. Any thread; before the start has finished it takes effect then.
    void end(const std::string& reason);

    /// Installs the handler for a stream that stops on its own; call before or after start().
    void set_stopped_handler(stopped_handler handler);

    /// Stops the stream now (the destructor does the same); false when the output did
    /// not report stopping within output_stop_limit and was forced.
    bool stop();

    // The pieces of a stream, each an owning handle.
    static source_handle create_screen_source(const screen_entry& entry);
    static source_handle create_window_source(const window_entry& entry);
    static source_handle create_audio_source(const audio_entry& entry);
    static source_handle create_video_source(const video_entry& entry);
    static service_handle create_service(const std::string& server, const std::string& key);
    static output_handle create_output();
    /// Attaches the encoders and the service to the output. Always true.
    static bool prepare_output(const encoder_handle& video, const encoder_handle& audio,
                               const service_handle& service, const output_handle& output);
    /// Bounds every item of the scene to width x height, scaled to fit inside.
    static void set_scene_bounds(obs_scene_t* scene, int width, int height);

private:
    struct watch;

    /// One attempt with the prepared source; true when the output became active.
    bool attempt(const pipe::stream_order& order, const source_handle& source, callback::source_type::type kind,
                 bool with_audio, bool software);
    /// A screen (or the window the user picks) of the portal route: the desktop's cast of
    /// it; a screen is checked against the one asked for.
    source_handle create_portal_source(const screen_entry* entry, const std::string& restore_token);
    /// Makes sure the canvas is width x height at the stream frame rate.
    bool ensure_video(int width, int height);
    /// The watchdog's thread: shuts a connection that stalls for the send stall limit down,
    /// and ends the stream once it has been reconnecting for the outage limit.
    void watch_outage();
    void release();

    // Declared in this order; released in reverse order of declaration after the output.
    encoder_handle video_encoder_;
    encoder_handle audio_encoder_;
    service_handle service_;
    output_handle output_;
    // The scene on output channel 0 while this stream runs.
    scene_handle scene_;

    std::unique_ptr<watch> watch_;
    stream_limits limits_;
    std::thread watchdog_;
    // The process's TCP sockets before the output started: any other is the stream's.
    std::vector<ino_t> sockets_before_;
    std::string error_;
    std::pair<int, int> frame_size_{0, 0};
    bool started_ = false;
    capture_route route_;
    bool rejected_ = false;
    std::string restore_token_;
    std::unique_ptr<portal_session> portal_;
    // A capture that ends: told to the stopped handler once the stream runs.
    std::mutex end_mutex_;
    stopped_handler end_handler_;
    bool running_ = false;
    bool ended_ = false;
    std::string early_end_;
};

} // namespace orbweave::obs
