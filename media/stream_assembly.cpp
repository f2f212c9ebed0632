#include "media/stream_assembly.hpp"

#include "core/log.hpp"
#include "media/catalogue.hpp"
#include "media/encoders.hpp"
#include "media/runtime.hpp"

#include <obs.h>

#include <algorithm>

namespace orbweave::obs {

namespace {

/// libobs encodes widths that are a multiple of 4 and even heights, trimming anything else
/// (an 853 x 480 canvas streams as 852 x 480, scaled). The canvas gets that size itself,
/// so what is captured is what is sent, pixel for pixel.
std::pair<int, int> encodable_size(std::pair<int, int> size)
{
    return {std::max(size.first & ~3, 4), std::max(size.second & ~1, 2)};
}

bool canvas_is(int width, int height)
{
    obs_video_info info{};
    return obs_get_video_info(&info) && static_cast<int>(info.base_width) == width &&
           static_cast<int>(info.base_height) == height && info.fps_num == stream_fps && info.fps_den == 1;
}

/// Bounds every item of the scene to width x height, scaled to fit inside.
void set_scene_bounds(obs_scene_t* scene, int width, int height)
{
    vec2 bounds;
    vec2_set(&bounds, static_cast<float>(width), static_cast<float>(height));
    obs_scene_enum_items(
        scene,
        [](obs_scene_t*, obs_sceneitem_t* item, void* data) {
            obs_sceneitem_set_bounds(item, static_cast<const vec2*>(data));
            obs_sceneitem_set_bounds_type(item, OBS_BOUNDS_SCALE_INNER);
            return true;
        },
        &bounds);
}

/// A scene of source, and of the sound that goes with it, shown on output channel 0.
scene_handle show_scene(obs_source_t* source, callback::source_type::type kind)
{
    using callback::source_type;
    scene_handle scene(obs_scene_create("scene"));
    if (source)
        obs_scene_add(scene.get(), source);
    if (kind != source_type::audio) {
        // A camera takes the default microphone along; a screen or window the machine's playback.
        const char* companion_id = kind == source_type::video ? capture_id::audio_input : capture_id::audio_output;
        source_handle companion(obs_source_create(companion_id, "source", nullptr, nullptr));
        if (companion)
            obs_scene_add(scene.get(), companion.get());
    }
    obs_set_output_source(0, obs_scene_get_source(scene.get()));
    return scene;
}

service_handle create_service(const std::string& server, const std::string& key)
{
    data_handle settings(obs_data_create());
    obs_data_set_string(settings.get(), "key", key.c_str());
    obs_data_set_string(settings.get(), "server", server.c_str());
    return service_handle(obs_service_create(rtmp_service_id, "rtmp_service", settings.get(), nullptr));
}

output_handle create_output()
{
    output_handle stream(obs_output_create("rtmp_output", "rtmp_output", nullptr, nullptr));
    if (stream)
        obs_output_set_reconnect_settings(stream.get(), 2147483647, 3);
    return stream;
}

/// What could not be made, when something could not.
const char* missing_part(const stream_parts& parts)
{
    return !parts.video_encoder   ? "cannot create the video encoder"
           : !parts.audio_encoder ? "cannot create the audio encoder"
           : !parts.service       ? "cannot create the rtmp service"
           : !parts.output        ? "cannot create the rtmp output"
                                  : nullptr;
}

void attach(const stream_parts& parts)
{
    data_handle service_settings(obs_service_get_settings(parts.service.get()));
    // The service's own settings go in the video encoder settings' place, on purpose.
    obs_service_apply_encoder_settings(parts.service.get(), service_settings.get(), nullptr);
    obs_output_set_video_encoder(parts.output.get(), parts.video_encoder.get());
    obs_output_set_audio_encoder(parts.output.get(), parts.audio_encoder.get(), 0);
    obs_output_set_service(parts.output.get(), parts.service.get());
}

} // namespace

bool ensure_canvas(std::pair<int, int> size)
{
    if (canvas_is(size.first, size.second))
        return true;
    return initialize_video(static_cast<unsigned>(size.first), static_cast<unsigned>(size.second), stream_fps);
}

std::pair<int, int> stream_frame_size(const pipe::stream_order& order, std::pair<int, int> source_size,
                                      bool has_video)
{
    if (!has_video)
        return encodable_size({no_video_size, no_video_size});
    auto target = target_frame_size(order);
    return encodable_size(scale_dimensions(source_size.first, source_size.second, target.first, target.second));
}

void clear_channel(obs_scene_t* scene)
{
    source_handle shown(obs_get_output_source(0));
    if (shown && shown.get() == obs_scene_get_source(scene))
        obs_set_output_source(0, nullptr);
}

void stream_parts::release()
{
    output.reset();
    service.reset();
    audio_encoder.reset();
    video_encoder.reset();
    if (scene) {
        clear_channel(scene.get());
        scene.reset();
    }
}

std::optional<stream_parts> assemble_stream(const pipe::stream_order& order, obs_source_t* source,
                                            callback::source_type::type kind, std::pair<int, int> frame,
                                            bool software, std::string& error, video_t* feed,
                                            const char* fed_from)
{
    stream_parts parts;
    parts.scene = show_scene(source, kind);
    // The whole order, stream key hidden, once per attempt.
    log::line(json::dump(json::redacted(order.to_json())));
    set_scene_bounds(parts.scene.get(), frame.first, frame.second);

    parts.video_encoder = create_video_encoder(software, order.level, order.bitrate, feed);
    parts.audio_encoder = create_audio_encoder();
    parts.service = create_service(order.server, order.key);
    parts.output = create_output();
    if (const char* missing = missing_part(parts)) {
        clear_channel(parts.scene.get());
        error = missing;
        return std::nullopt;
    }
    attach(parts);
    // Which path this stream's pictures take, for whoever reads the log on a machine
    // with or without a GPU.
    const video_path& path = current_video_path();
    std::string drawn = feed ? std::string(fed_from ? fed_from : "grabbed straight from the X server") + " (no canvas)"
                             : "drawn by " + (path.renderer.empty() ? std::string("an unknown renderer") : path.renderer);
    log::line("media: stream " + drawn + ", colour conversion on the " +
              to_string(feed ? colour_conversion::cpu : path.conversion) + ", video encoder " +
              obs_encoder_get_id(parts.video_encoder.get()));
    return parts;
}

} // namespace orbweave::obs
