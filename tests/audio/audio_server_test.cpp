// orbweave-audio-server against a private PulseAudio, checked with pactl.

#include "core/obs/child_process.hpp"
#include "tests/support/line_reader.hpp"
#include "tests/support/media_fixtures.hpp"
#include "tests/support/processes.hpp"
#include "tests/support/rtmp_ingest.hpp"
#include "tests/support/stderr_capture.hpp"
#include "tests/support/temp_dir.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>

namespace orbweave {
namespace {

using namespace std::chrono_literals;
constexpr auto deadline = 10s;

using test::pactl;

std::unique_ptr<obs::child_process> start_server()
{
    auto options = test::command({ORBWEAVE_AUDIO_SERVER_PROGRAM});
    options.pipe_stdout = true;
    return std::make_unique<obs::child_process>(options);
}

TEST(AudioServer, MakesTheVirtualOutputLoopsItBackAndRemovesItOnSigterm)
{
    test::temp_dir dir;
    test::pulse_server pulse(dir.path());
    ::setenv("PULSE_SERVER", pulse.server().c_str(), 1);
    std::string before_modules = pactl({"list", "modules", "short"});
    std::string default_sink = pactl({"get-default-sink"});
    ASSERT_FALSE(default_sink.empty());

    auto server = start_server();
    test::line_reader output(server->stdout_fd());
    ASSERT_EQ(output.next(deadline), "ready orbweave_virtual");
    std::string sinks = pactl({"list", "sinks"});
    EXPECT_NE(sinks.find("Description: Orbweave Virtual Audio Driver"), std::string::npos) << sinks;
    EXPECT_NE(sinks.find("device.vendor.name = \"ORBVirtualAudio\""), std::string::npos) << sinks;
    std::string modules = pactl({"list", "modules", "short"});
    EXPECT_NE(modules.find("source=orbweave_virtual.monitor sink=" + default_sink), std::string::npos) << modules;
    EXPECT_EQ(pactl({"get-default-sink"}), default_sink) << "the user's default output was changed";

    // A second one finds the device and leaves everything as it is.
    {
        test::stderr_capture log;
        auto second = start_server();
        EXPECT_EQ(test::how_it_ended(*second, deadline), "exited with code 0");
        EXPECT_EQ(log.count_lines_starting("orbweave-audio-server: the virtual output exists already"), 1);
        EXPECT_EQ(pactl({"list", "modules", "short"}), modules);
    }

    server->kill(SIGTERM);
    EXPECT_EQ(test::how_it_ended(*server, deadline), "exited with code 0");
    EXPECT_EQ(pactl({"list", "modules", "short"}), before_modules) << "something it loaded is left";
    EXPECT_EQ(pactl({"list", "sinks"}).find("Orbweave Virtual Audio Driver"), std::string::npos);

    // Without a sound server it says so and ends.
    ::setenv("PULSE_SERVER", ("unix:" + dir.file("nobody-listens")).c_str(), 1);
    test::stderr_capture log;
    auto lonely = start_server();
    EXPECT_EQ(test::how_it_ended(*lonely, deadline), "exited with code 0");
    EXPECT_EQ(log.count_lines_starting("orbweave-audio-server: no sound server answers"), 1);
    ::unsetenv("PULSE_SERVER");
}

} // namespace
} // namespace orbweave
