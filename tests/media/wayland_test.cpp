// Capture on a Wayland desktop: the headless sway fixture with PipeWire and the
// desktop portal, real media workers, nginx-rtmp and ffprobe.

#include "core/obs/worker.hpp"
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

} // namespace
} // namespace orbweave
