#pragma once

// The libobs objects of one stream attempt, made and attached to each other: the canvas
// at the stream's size, a scene showing the capture source (and the sound that goes
// with it) on output channel 0, an H.264 and an AAC encoder, the RTMP service holding
// the server address and stream key, and the RTMP output that pushes them.

#include "core/callback.hpp"
#include "core/obs/pipe_protocol.hpp"
#include "media/unique_handle.hpp"

#include <optional>
#include <string>
#include <utility>

namespace orbweave::obs {

/// The side of the canvas of a stream without video (an audio device), and of the
/// canvas a source that learns its size from frames first runs on.
inline constexpr int no_video_size = 4;

/// Makes sure the canvas is width x height at the stream frame rate; false when it cannot be.
bool ensure_canvas(std::pair<int, int> size);

/// The size of a stream's canvas and frames: the source's size fitted into what the order
/// asks for and trimmed to what libobs encodes; no_video_size square without video.
std::pair<int, int> stream_frame_size(const pipe::stream_order& order, std::pair<int, int> source_size,
                                      bool has_video);

/// Takes scene off output channel 0 when it is what the channel shows, stopping its capture.
void clear_channel(obs_scene_t* scene);

/// One attempt's objects. Declared so that, left to themselves, they go in the reverse
/// order: the output first, the scene last.
struct stream_parts {
    scene_handle scene;
    encoder_handle video_encoder;
    encoder_handle audio_encoder;
    service_handle service;
    output_handle output;

    /// Releases the output, the service and the encoders, then takes the scene (and with
    /// it the capture) off the canvas, unless another stream replaced it, and releases it.
    void release();
};

/// Builds the stream the order describes around source, a capture of the given kind: the
/// scene bounded to frame on channel 0 (logging the order, key hidden), the encoders
/// (software or the level's choice), the service and the output, attached. With feed,
/// the video encoder takes its frames instead of the canvas's and the scene carries the
/// sound alone (source is then null), and fed_from says in the log where the frames
/// come from ("grabbed straight from the X server"). Nothing, with error set and the scene off the
/// channel again, when an object cannot be made.
std::optional<stream_parts> assemble_stream(const pipe::stream_order& order, obs_source_t* source,
                                            callback::source_type::type kind, std::pair<int, int> frame,
                                            bool software, std::string& error, video_t* feed = nullptr,
                                            const char* fed_from = nullptr);

} // namespace orbweave::obs
