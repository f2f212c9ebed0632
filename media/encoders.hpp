#pragma once

// How a stream's quality is chosen and how its two encoders are made. The
// decisions (level, frame size, encoder id and settings) are pure functions;
// create_video_encoder and create_audio_encoder turn them into libobs objects.

#include "core/encode_profile.hpp"
#include "core/json.hpp"
#include "core/obs/pipe_protocol.hpp"
#include "media/unique_handle.hpp"

#include <string>
#include <utility>

namespace orbweave::obs {

/// The lowest bitrate (kbps) ever given to the software encoder.
inline constexpr int software_minimum = 600;
/// Measured bitrates (kbps) from this one up may use the hardware encoder.
inline constexpr int hardware_threshold = 5000;
/// The hardware encoder's fixed bitrate (kbps).
inline constexpr int hardware_bitrate = 3000;
/// Every stream's frame rate.
inline constexpr unsigned stream_fps = 30;

inline constexpr const char* software_encoder_id = "obs_x264";
inline constexpr const char* audio_encoder_id = "ffmpeg_aac";

/// The level's bitrate cap in kbps: 600, 1500, 2500, 3500.
int bitrate_cap(profile_type::type level);

/// The level's default frame size: 854x480, 1280x720, 1920x1080, 3840x2160.
std::pair<int, int> default_frame_size(profile_type::type level);

/// The request's level's default frame size, with the requested width and height
/// replacing either dimension when given.
std::pair<int, int> target_frame_size(const pipe::stream_order& order);

/// (width, height) shrunk to fit inside (max_width, max_height) keeping its aspect
/// ratio, never enlarged; rounded half away from zero.
std::pair<int, int> scale_dimensions(int width, int height, int max_width, int max_height);

/// The x264 options of every software stream, before the level's " qpmax=N".
/// "scenecut=0" keeps key frames at the fixed interval: the plug-in takes name=value
/// pairs only and drops a bare "no-scenecut" with a warning.
inline constexpr const char* x264_options =
    "deblock=0:0 level=3.1 me=hex merange=16 min-keyint=60 mixed-refs=1 profile=main qcomp=0.6 qpmin=1 "
    "qpstep=4 scenecut=0";

/// Appended to every software stream's x264 options, after the level's: x264 runs its
/// look-ahead on the encoding thread instead of buffering frames for a look-ahead thread
/// of its own. The coded stream is the same bit for bit; its first frame comes about four
/// frames (130 ms) sooner, for the same CPU.
inline constexpr const char* x264_pipeline_options = " sync-lookahead=0";

/// Which video encoder to create and with what settings.
struct video_encoder_plan {
    std::string id;
    Json settings; ///< an object of int, bool and string members
};

/// The video encoder decision. hardware_id is the registered hardware encoder, or ""
/// when this machine has none (software is then chosen directly).
video_encoder_plan plan_video_encoder(bool software, profile_type::type level, int bitrate,
                                      const std::string& hardware_id);

/// The first registered of ffmpeg_vaapi and ffmpeg_nvenc; "" when neither is.
std::string hardware_encoder_id();

/// A libobs settings object holding the members of a JSON object (ints, bools, strings, doubles).
data_handle to_obs_data(const Json& object);

/// The H.264 encoder for a stream, attached to the global video output.
encoder_handle create_video_encoder(bool software, profile_type::type level, int bitrate, video_t* video = nullptr);

/// The AAC encoder (its own default bitrate), attached to the global audio output.
encoder_handle create_audio_encoder();

} // namespace orbweave::obs
