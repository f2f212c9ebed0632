// Encoder choice and settings, checked both as pure decisions and on the real
// libobs encoder objects that the stream output will use.

#include "media/encoders.hpp"
#include "media/runtime.hpp"
#include "tests/support/media_fixtures.hpp"

#include <obs.h>
#include <util/base.h>
#include <util/bmem.h>

#include <gtest/gtest.h>

#include <memory>

namespace orbweave::obs {
namespace {

// libobs for the whole program, started after the display and shut down before it.
class libobs_environment : public ::testing::Environment {
public:
    void SetUp() override
    {
        route_log_to_stderr(LOG_WARNING);
        // Encoders are made on the global video, as in a stream worker once it has its canvas.
        runtime_options options;
        options.video = canvas{320, 180, 30};
        runtime_ = std::make_unique<runtime>(options);
    }
    void TearDown() override
    {
        runtime_.reset();
        EXPECT_EQ(bnum_allocs(), 0) << "libobs leaked allocations";
    }

private:
    std::unique_ptr<runtime> runtime_;
};

test::media_environment::options display_only()
{
    test::media_environment::options options;
    options.windows.clear();
    options.audio = false;
    return options;
}

[[maybe_unused]] auto* const display = ::testing::AddGlobalTestEnvironment(new test::media_environment(display_only()));
[[maybe_unused]] auto* const libobs = ::testing::AddGlobalTestEnvironment(new libobs_environment);

pipe::stream_order with_options(const Json& options)
{
    return test::order_for(screen_entry{}, options, "", "");
}

struct read_back {
    std::string id;
    Json settings;
    bool on_global_video = false;
};

read_back inspect(const encoder_handle& encoder)
{
    read_back result;
    if (!encoder)
        return result;
    result.id = obs_encoder_get_id(encoder.get());
    result.on_global_video = obs_encoder_video(encoder.get()) == obs_get_video();
    data_handle settings(obs_encoder_get_settings(encoder.get()));
    const char* text = obs_data_get_json(settings.get());
    result.settings = json::parse(text ? text : "null");
    return result;
}

TEST(VideoEncoderDecision, HardwareFromFiveThousandWhenRegistered)
{
    auto at_threshold = plan_video_encoder(false, profile_type::high, 5000, "ffmpeg_vaapi");
    EXPECT_EQ(at_threshold.id, "ffmpeg_vaapi");
    EXPECT_EQ(at_threshold.settings["keyint_sec"], 2);
    EXPECT_EQ(at_threshold.settings["cbr"], false);
    EXPECT_FALSE(at_threshold.settings.contains("preset"));
    EXPECT_FALSE(at_threshold.settings.contains("x264opts"));

    EXPECT_EQ(plan_video_encoder(false, profile_type::high, 4999, "ffmpeg_vaapi").id, "obs_x264");
    // Cameras, audio and the retry after a failed start always use software.
    EXPECT_EQ(plan_video_encoder(true, profile_type::medium, 8000, "ffmpeg_nvenc").id, "obs_x264");
    // Without a registered hardware encoder software is chosen directly.
    EXPECT_EQ(plan_video_encoder(false, profile_type::high, 9000, "").id, "obs_x264");
}

TEST(VideoEncoderObjects, CarryThePlannedSettingsAndOnlyKeysThePluginReads)
{
    // This machine's hardware encoder, if any, decides what 5000 kbps gets.
    std::string hardware = hardware_encoder_id();
    EXPECT_EQ(inspect(create_video_encoder(false, profile_type::high, 5000)).id,
              hardware.empty() ? "obs_x264" : hardware);

    auto extreme = inspect(create_video_encoder(false, profile_type::extreme, 3000));
    EXPECT_EQ(extreme.id, "obs_x264");
    EXPECT_TRUE(extreme.on_global_video);
    EXPECT_EQ(extreme.settings, plan_video_encoder(false, profile_type::extreme, 3000, "").settings);

    // Every key we set is one the plug-in reads (it has a default for it), but the two
    // kept as they have always been written: a false "cbr" and "buffer_Size".
    data_handle defaults(obs_encoder_defaults("obs_x264"));
    for (const auto& [key, value] : extreme.settings.items()) {
        if (key == "cbr" || key == "buffer_Size")
            continue;
        EXPECT_TRUE(obs_data_has_default_value(defaults.get(), key.c_str())) << key << " is not an x264 setting";
    }
}

TEST(AudioEncoderObject, IsAacOnTheGlobalAudio)
{
    encoder_handle encoder = create_audio_encoder();
    ASSERT_TRUE(encoder);
    EXPECT_STREQ(obs_encoder_get_id(encoder.get()), "ffmpeg_aac");
    EXPECT_EQ(obs_encoder_audio(encoder.get()), obs_get_audio());
}

TEST(StreamFrameSize, LevelDefaultWithNumericOverrides)
{
    using size = std::pair<int, int>;
    EXPECT_EQ(target_frame_size(with_options({{"profile", "high"}})), size(1920, 1080));
    EXPECT_EQ(target_frame_size(with_options(Json::object())), size(854, 480));
    EXPECT_EQ(target_frame_size(with_options({{"profile", "extreme"}, {"width", "1280"}})), size(3840, 2160));
    EXPECT_EQ(target_frame_size(with_options({{"profile", "medium"}, {"height", 600}})), size(1280, 600));
    EXPECT_EQ(target_frame_size(with_options({{"width", 640}, {"height", 360}, {"fps", 60}})), size(640, 360));
}

TEST(ScaleDimensions, FitsInsideWithoutEnlarging)
{
    using size = std::pair<int, int>;
    EXPECT_EQ(scale_dimensions(1920, 1080, 1280, 720), size(1280, 720));
    EXPECT_EQ(scale_dimensions(1280, 720, 1920, 1080), size(1280, 720));
    EXPECT_EQ(scale_dimensions(1000, 1000, 854, 480), size(480, 480));
    EXPECT_EQ(scale_dimensions(3, 3, 2, 2), size(2, 2));
    // Halves round away from zero: 5 x 0.5 = 2.5 -> 3.
    EXPECT_EQ(scale_dimensions(10, 5, 5, 100), size(5, 3));
    // A zero dimension never decides the scale.
    EXPECT_EQ(scale_dimensions(0, 1080, 1280, 720), size(0, 720));
}

} // namespace
} // namespace orbweave::obs
