#include "media/encoders.hpp"

#include <cmath>

namespace orbweave::obs {

namespace {

// Frame sizes of medium, high and extreme; low's 854x480 is written in place.
constexpr int default_widths[3] = {1280, 1920, 3840};
constexpr int default_heights[3] = {720, 1080, 2160};

const char* qpmax_suffix(profile_type::type level)
{
    switch (level) {
    case profile_type::medium: return " qpmax=40";
    case profile_type::high: return " qpmax=35";
    case profile_type::extreme: return " qpmax=30";
    case profile_type::low: break;
    }
    return " qpmax=51";
}

} // namespace

int bitrate_cap(profile_type::type level)
{
    switch (level) {
    case profile_type::medium: return 1500;
    case profile_type::high: return 2500;
    case profile_type::extreme: return 3500;
    case profile_type::low: break;
    }
    return 600;
}

std::pair<int, int> default_frame_size(profile_type::type level)
{
    if (level >= profile_type::medium && level <= profile_type::extreme)
        return {default_widths[level - 1], default_heights[level - 1]};
    return {854, 480};
}

std::pair<int, int> target_frame_size(const pipe::stream_order& order)
{
    auto size = default_frame_size(order.level);
    return {order.width.value_or(size.first), order.height.value_or(size.second)};
}

std::pair<int, int> scale_dimensions(int width, int height, int max_width, int max_height)
{
    double sx = static_cast<double>(max_width) / static_cast<double>(width);
    double sy = static_cast<double>(max_height) / static_cast<double>(height);
    // A zero dimension gives an infinite (or NaN) ratio, which never wins.
    double s = 1.0;
    if (sx < s)
        s = sx;
    if (sy < s)
        s = sy;
    return {static_cast<int>(std::round(width * s)), static_cast<int>(std::round(height * s))};
}

video_encoder_plan plan_video_encoder(bool software, profile_type::type level, int bitrate,
                                      const std::string& hardware_id)
{
    video_encoder_plan plan;
    Json& settings = plan.settings;
    settings = Json::object();
    settings["keyint_sec"] = 2;
    settings["cbr"] = false;

    int cap = bitrate_cap(level);
    int chosen = bitrate > cap ? cap : bitrate;
    bool use_software = software || bitrate < hardware_threshold || hardware_id.empty();
    if (use_software && chosen <= software_minimum)
        chosen = software_minimum;
    settings["bitrate"] = chosen;

    if (use_software) {
        std::string options = std::string(x264_options) + qpmax_suffix(level) + x264_pipeline_options;
        settings["preset"] = level == profile_type::extreme ? "faster" : "veryfast";
        settings["x264opts"] = options;
        // x264 ignores a false "cbr" and would run its default, CBR with filler data,
        // padding a still screen to the full bitrate; average bitrate is what it meant.
        settings["rate_control"] = "ABR";
        settings["use_bufsize"] = true;
        // Written with the capital S, as always: not a key the plug-in reads, so its
        // default buffer applies.
        settings["buffer_Size"] = chosen;
        plan.id = software_encoder_id;
    } else {
        settings["bitrate"] = hardware_bitrate;
        plan.id = hardware_id;
    }
    return plan;
}

std::string hardware_encoder_id()
{
    // Creating an unregistered encoder id still returns an object, so ask first.
    for (const char* id : {"ffmpeg_vaapi", "ffmpeg_nvenc"})
        if (obs_get_encoder_codec(id) != nullptr)
            return id;
    return {};
}

data_handle to_obs_data(const Json& object)
{
    data_handle data(obs_data_create());
    if (!object.is_object())
        return data;
    for (const auto& [key, value] : object.items()) {
        if (value.is_boolean())
            obs_data_set_bool(data.get(), key.c_str(), value.get<bool>());
        else if (value.is_number_integer())
            obs_data_set_int(data.get(), key.c_str(), value.get<long long>());
        else if (value.is_number())
            obs_data_set_double(data.get(), key.c_str(), value.get<double>());
        else if (value.is_string())
            obs_data_set_string(data.get(), key.c_str(), value.get_ref<const std::string&>().c_str());
    }
    return data;
}

encoder_handle create_video_encoder(bool software, profile_type::type level, int bitrate, video_t* video)
{
    video_encoder_plan plan = plan_video_encoder(software, level, bitrate, hardware_encoder_id());
    data_handle settings = to_obs_data(plan.settings);
    encoder_handle encoder(obs_video_encoder_create(plan.id.c_str(), "video_encoder", settings.get(), nullptr));
    if (!video)
        video = obs_get_video();
    if (encoder && video)
        obs_encoder_set_video(encoder.get(), video);
    return encoder;
}

encoder_handle create_audio_encoder()
{
    data_handle settings(obs_data_create());
    encoder_handle encoder(obs_audio_encoder_create(audio_encoder_id, "audio_encoder", settings.get(), 0, nullptr));
    if (encoder && obs_get_audio())
        obs_encoder_set_audio(encoder.get(), obs_get_audio());
    return encoder;
}

} // namespace orbweave::obs
