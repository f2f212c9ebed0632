// What a started libobs offers the worker: the allow-listed plug-ins only, and our
// own RTMP service type in place of the stock one.

#include "media/catalogue.hpp"
#include "media/runtime.hpp"
#include "media/unique_handle.hpp"

#include <obs.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <type_traits>

namespace orbweave::obs {
namespace {

static_assert(!std::is_copy_constructible_v<source_handle> && std::is_nothrow_move_constructible_v<source_handle> &&
              std::is_nothrow_move_assignable_v<source_handle>);

std::set<std::string> loaded_module_names()
{
    std::set<std::string> names;
    obs_enum_modules(
        [](void* param, obs_module_t* module) {
            std::string file = obs_get_module_file_name(module);
            static_cast<std::set<std::string>*>(param)->insert(file.substr(0, file.rfind('.')));
        },
        &names);
    return names;
}

TEST(Runtime, LoadsExactlyTheAllowedModules)
{
    std::set<std::string> allowed(allowed_modules().begin(), allowed_modules().end());
    EXPECT_EQ(loaded_module_names(), allowed);
    EXPECT_FALSE(allowed.count("rtmp-services")) << "rtmp-services fetches a services list from the internet";
    EXPECT_TRUE(std::filesystem::is_directory(config_directory()));
    EXPECT_EQ(config_directory(), std::string(std::getenv("XDG_CACHE_HOME")) + "/orbweave/obs");
}

TEST(Runtime, OffersTheCaptureSourcesEncodersAndOutput)
{
    auto has_source = [](const char* id) {
        const char* found = nullptr;
        for (std::size_t i = 0; obs_enum_input_types(i, &found); ++i)
            if (std::string(found) == id)
                return true;
        return false;
    };
    for (const char* id : {"xshm_input", "xcomposite_input", "pulse_output_capture", "pulse_input_capture", "v4l2_input"})
        EXPECT_TRUE(has_source(id)) << id;
    EXPECT_STREQ(obs_get_encoder_codec("obs_x264"), "h264");
    EXPECT_NE(obs_get_encoder_codec("ffmpeg_aac"), nullptr);
    output_handle output(obs_output_create("rtmp_output", "rtmp_output", nullptr, nullptr));
    ASSERT_TRUE(output);
    EXPECT_STREQ(obs_output_get_id(output.get()), "rtmp_output");
}

TEST(Runtime, VideoAndAudioResetsUseTheStreamFormat)
{
    ASSERT_TRUE(initialize_video(1920, 1080, 30));
    obs_video_info video{};
    ASSERT_TRUE(obs_get_video_info(&video));
    EXPECT_EQ(video.base_width, 1920u);
    EXPECT_EQ(video.base_height, 1080u);
    EXPECT_EQ(video.output_width, 1920u);
    EXPECT_EQ(video.output_height, 1080u);
    EXPECT_EQ(video.fps_num, 30u);
    EXPECT_EQ(video.fps_den, 1u);
    EXPECT_EQ(video.output_format, VIDEO_FORMAT_NV12);
    EXPECT_TRUE(video.gpu_conversion);
    EXPECT_EQ(video.colorspace, VIDEO_CS_DEFAULT);
    EXPECT_EQ(video.range, VIDEO_RANGE_DEFAULT);
    EXPECT_EQ(video.scale_type, OBS_SCALE_DISABLE);
    // Back to the listing canvas for the other cases.
    ASSERT_TRUE(initialize_video(4, 4, 10));

    obs_audio_info audio{};
    ASSERT_TRUE(obs_get_audio_info(&audio));
    EXPECT_EQ(audio.samples_per_sec, 44100u);
    EXPECT_EQ(audio.speakers, SPEAKERS_STEREO);
}

TEST(Runtime, RtmpServiceCarriesServerAndKey)
{
    data_handle settings(obs_data_create());
    obs_data_set_string(settings.get(), "server", "rtmp://127.0.0.1:1935/live");
    obs_data_set_string(settings.get(), "key", "stream-key");
    service_handle service(obs_service_create(rtmp_service_id, "rtmp_service", settings.get(), nullptr));
    ASSERT_TRUE(service);
    EXPECT_STREQ(obs_service_get_url(service.get()), "rtmp://127.0.0.1:1935/live");
    EXPECT_STREQ(obs_service_get_key(service.get()), "stream-key");
    EXPECT_STREQ(obs_service_get_output_type(service.get()), "rtmp_output");

    // A moved handle releases once, from its new owner.
    service_handle moved = std::move(service);
    EXPECT_FALSE(service);
    EXPECT_TRUE(moved);
    moved.reset();
    EXPECT_FALSE(moved);
}

} // namespace
} // namespace orbweave::obs

namespace orbweave::obs {
namespace {

TEST(CaptureItems, ScreenSizesAndWindowItemsAreReadFromThePluginFormats)
{
    unsigned long width = 0, height = 0;
    EXPECT_TRUE(detail::size_from_screen_label("Screen 1 (1024x768 @ 1280,0)", width, height));
    EXPECT_EQ(width, 1024u);
    EXPECT_EQ(height, 768u);
    EXPECT_TRUE(detail::size_from_screen_label("Screen DP-1 (2560x1440 @ 0,0)", width, height));
    EXPECT_EQ(width, 2560u);
    EXPECT_FALSE(detail::size_from_screen_label("Screen 0", width, height));

    long long xid = 0;
    std::string title, window_class;
    ASSERT_TRUE(detail::split_window_item("2097200\r\nOrb One\r\norbone", xid, title, window_class));
    EXPECT_EQ(xid, 2097200);
    EXPECT_EQ(title, "Orb One");
    EXPECT_EQ(window_class, "orbone");
    ASSERT_TRUE(detail::split_window_item("12\r\n\r\n", xid, title, window_class)) << "no title, no class";
    EXPECT_TRUE(title.empty() && window_class.empty());
    EXPECT_FALSE(detail::split_window_item("12\r\nno class", xid, title, window_class));
    EXPECT_FALSE(detail::split_window_item("x\r\nt\r\nc", xid, title, window_class));
}

} // namespace
} // namespace orbweave::obs
