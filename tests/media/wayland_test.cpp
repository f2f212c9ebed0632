// Capture on a Wayland desktop: the headless sway fixture with PipeWire and the
// desktop portal, real media workers, nginx-rtmp and ffprobe.

#include "core/obs/requests.hpp"
#include "core/obs/worker.hpp"
#include "core/obs/worker_manager.hpp"
#include "tests/support/rtmp_ingest.hpp"
#include "tests/support/stderr_capture.hpp"
#include "tests/support/wayland_desktop.hpp"

#include <gtest/gtest.h>

namespace orbweave {
namespace {

using namespace std::chrono_literals;

class wayland_environment : public ::testing::Environment {
public:
    void SetUp() override
    {
        desktop = std::make_unique<test::wayland_desktop>();
        desktop->export_environment();
    }
    void TearDown() override { desktop.reset(); }
    std::unique_ptr<test::wayland_desktop> desktop;
};

auto* const session = static_cast<wayland_environment*>(::testing::AddGlobalTestEnvironment(new wayland_environment));

TEST(WaylandDesktop, ThePortalOffersScreenCasts)
{
    std::string reply = test::run_program({"dbus-send", "--session", "--print-reply", "--dest=org.freedesktop.portal.Desktop",
                                           "/org/freedesktop/portal/desktop", "org.freedesktop.DBus.Properties.Get",
                                           "string:org.freedesktop.portal.ScreenCast", "string:AvailableSourceTypes"},
                                          10s);
    EXPECT_NE(reply.find("uint32 1"), std::string::npos) << reply;
}

TEST(WaylandWorker, StartsItsGraphicsOnTheCompositorAndHearsPipeWire)
{
    obs::worker::options options;
    options.capture = obs::capture_route::portal;
    ::setenv("ORBWEAVE_OBS_LOG", "info", 1);
    test::stderr_capture log; // the worker inherits our standard error
    auto audios = obs::worker(options).list_audios();
    ::unsetenv("ORBWEAVE_OBS_LOG");
    // On the compositor itself, not through XWayland (the fixture has none).
    EXPECT_NE(log.text().find("Using EGL/Wayland"), std::string::npos) << log.text();
    // PipeWire's PulseAudio server serves the audio sources.
    EXPECT_NE(log.text().find("on PipeWire"), std::string::npos);
    ASSERT_FALSE(audios.empty());
}

TEST(WaylandWorker, ListsTheCompositorsOutputsAsScreensAndNoXWaylandWindows)
{
    obs::worker::options options;
    options.capture = obs::capture_route::portal;
    auto list = [&] { return obs::worker(options).list_screens(); };
    auto screens = list();
    const auto& outputs = session->desktop->outputs();
    ASSERT_EQ(screens.size(), outputs.size());
    for (std::size_t i = 0; i < outputs.size(); ++i) {
        SCOPED_TRACE(outputs[i].name);
        EXPECT_EQ(screens[i].index, static_cast<int>(i));
        EXPECT_EQ(screens[i].name, outputs[i].name);
        EXPECT_FALSE(screens[i].description.empty());
        EXPECT_EQ(screens[i].left, static_cast<std::uint64_t>(outputs[i].left));
        EXPECT_EQ(screens[i].top, static_cast<std::uint64_t>(outputs[i].top));
        EXPECT_EQ(screens[i].width, static_cast<std::uint64_t>(outputs[i].width));
        EXPECT_EQ(screens[i].height, static_cast<std::uint64_t>(outputs[i].height));
        EXPECT_EQ(screens[i].id.size(), 64u);
    }
    EXPECT_NE(screens[0].id, screens[1].id);
    // The ids come from the outputs' names: another worker (another run) gives the same.
    auto again = list();
    for (std::size_t i = 0; i < screens.size(); ++i)
        EXPECT_EQ(again[i].id, screens[i].id);
    // The JSON shape is the X11 route's.
    Json first = screens[0].to_json();
    for (const char* key : {"description", "id", "index", "isActive", "name", "properties", "type"})
        EXPECT_TRUE(first.contains(key)) << key;
    EXPECT_TRUE(obs::worker(options).list_windows().empty());
}

obs::pipe::stream_order order_for(const obs::screen_entry& screen, const test::rtmp_ingest& ingest,
                                  const std::string& key, const std::string& token = "")
{
    Json message{{"payload",
                  {{"options", {{"profile", "medium"}}}, {"service", {{"server", ingest.url()}, {"key", key}}}}}};
    return {screen, obs::activate_request::parse(message), 1500, token};
}

obs::worker::options stream_options()
{
    obs::worker::options options = obs::worker_manager::stream_worker_options();
    options.capture = obs::capture_route::portal;
    return options;
}

TEST(WaylandStream, AScreenArrivesWithTheCompositorsPicture)
{
    test::rtmp_ingest ingest;
    obs::worker::options listing;
    listing.capture = obs::capture_route::portal;
    auto screens = obs::worker(listing).list_screens();
    ASSERT_FALSE(screens.empty());
    int calls = session->desktop->chooser_calls();
    obs::worker media(stream_options());
    auto result = media.stream(order_for(screens[0], ingest, "wayland"));
    ASSERT_TRUE(result.started) << result.error;
    EXPECT_FALSE(result.restore_token.empty());
    EXPECT_EQ(session->desktop->chooser_calls(), calls + 1);
    auto live = ingest.probe_live("wayland", 15s);
    ASSERT_NE(live.video(), nullptr) << live.error;
    EXPECT_EQ(live.video()->codec_name, "h264");
    EXPECT_EQ(live.video()->width, 1280);
    EXPECT_EQ(live.video()->height, 720);
    ASSERT_NE(live.audio(), nullptr);
    EXPECT_EQ(live.audio()->codec_name, "aac");
    media.shutdown();
    auto recorded = ingest.probe_recording("wayland");
    auto frame = ingest.recording_frame("wayland", std::max(0.0, recorded.duration - 0.5), 64, 36);
    ASSERT_EQ(frame.size(), 64u * 36u);
    std::cerr << "corner " << int(frame[64 * 35 + 63]) << "\n";
}

} // namespace
} // namespace orbweave
