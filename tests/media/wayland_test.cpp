// Capture on a Wayland desktop: the headless sway fixture with PipeWire and the
// desktop portal, real media workers, nginx-rtmp and ffprobe.

#include "tests/support/rtmp_ingest.hpp"
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

} // namespace
} // namespace orbweave
