#pragma once

// One outgoing live stream inside the media worker: a capture source placed in
// a scene, an H.264 and an AAC encoder, the RTMP service holding the server
// address and stream key, and the RTMP output pushing them to the server.
//
// start() builds the stream from an activate request and the source's catalogue
// entry and returns only once the output has reported itself active (connected
// to the ingest and sending) or has failed; a failed first attempt is retried
// once with the software encoder. Destroying the object stops the stream.

#include "core/callback.hpp"
#include "core/encode_profile.hpp"
#include "core/json.hpp"
#include "media/unique_handle.hpp"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace orbweave::obs {

/// The line written to standard error before the software retry of a failed start.
inline constexpr const char* software_fallback_line =
    "Failed to start stream; attempting to fallback to software encoder";

/// How long a capture source may take to report its size.
inline constexpr std::chrono::seconds source_size_limit{5};
/// How long the output may take to connect and start sending, or to fail.
inline constexpr std::chrono::seconds output_start_limit{10};
/// How long a stopping output may take to report that it stopped.
inline constexpr std::chrono::seconds output_stop_limit{10};

class output {
public:
    /// Called once, on a libobs thread, when an active stream stops without being asked
    /// to (its retries used up or the output failing), with the reason.
    using stopped_handler = std::function<void(const std::string& error)>;

    output();
    /// Stops the stream (waiting at most output_stop_limit for the output to stop) and
    /// releases everything it holds.
    ~output();

    output(const output&) = delete;
    output& operator=(const output&) = delete;

    /// Builds and starts the stream for request and the source's catalogue entry.
    /// bitrate is the measured uplink bitrate (kbps). True once the output is active;
    /// false with error() set otherwise. Called at most once per object.
    bool start(const Json& request, const Json& entry, int bitrate);

    /// Why the last start failed: a short reason.
    const std::string& error() const { return error_; }

    /// Whether the stream is connected and sending (or reconnecting after a drop).
    bool active() const;

    /// The frame size the stream was started with (0 x 0 before): the source's size fitted
    /// into the requested one, width trimmed to a multiple of 4 and height to even.
    std::pair<int, int> frame_size() const { return frame_size_; }

    /// Installs the handler for a stream that stops on its own; call before or after start().
    void set_stopped_handler(stopped_handler handler);

    /// Stops the stream now (the destructor does the same); false when the output did
    /// not report stopping within output_stop_limit and was forced.
    bool stop();

    // The pieces of a stream, each an owning handle; request is not read by the sources.
    static source_handle create_screen_source(const Json& request, const Json& entry);
    static source_handle create_window_source(const Json& request, const Json& entry);
    static source_handle create_audio_source(const Json& request, const Json& entry);
    static source_handle create_video_source(const Json& request, const Json& entry);
    static service_handle create_service(const Json& request);
    static output_handle create_output(const Json& request);
    /// Attaches the encoders and the service to the output. Always true.
    static bool prepare_output(const encoder_handle& video, const encoder_handle& audio,
                               const service_handle& service, const output_handle& output);
    /// Bounds every item of the scene to width x height, scaled to fit inside.
    static void set_scene_bounds(obs_scene_t* scene, int width, int height);

    /// The window's size as X reports it for the window id xid; (0, 0) when there is no such window.
    static std::pair<int, int> window_size(long long xid);

private:
    struct watch;

    /// One attempt with the prepared source; true when the output became active.
    bool attempt(const Json& request, const source_handle& source, callback::source_type::type kind,
                 bool with_audio, bool software, int bitrate);
    /// Makes sure the canvas is width x height at the stream frame rate.
    bool ensure_video(int width, int height);
    void release();

    // Declared in this order; released in reverse order of declaration after the output.
    encoder_handle video_encoder_;
    encoder_handle audio_encoder_;
    service_handle service_;
    output_handle output_;
    // The scene on output channel 0 while this stream runs.
    scene_handle scene_;

    std::unique_ptr<watch> watch_;
    // The process's TCP sockets before the output started: any other is the stream's.
    std::vector<ino_t> sockets_before_;
    std::string error_;
    std::pair<int, int> frame_size_{0, 0};
    bool started_ = false;
};

/// The worker's "activate": looks the source up in this worker's own catalogue, stops
/// the stream current carries (if any: one canvas, one stream), starts a new one and
/// keeps it in current when it runs. {"started": true}, or {"started": false, "error":
/// "<short reason>"}. on_stopped goes to the new stream (output::set_stopped_handler).
Json activate_stream(std::unique_ptr<output>& current, const Json& request, int bitrate,
                     output::stopped_handler on_stopped);

} // namespace orbweave::obs
