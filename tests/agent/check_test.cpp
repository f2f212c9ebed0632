// orbweave-agent --check on real machines in miniature: an X11 desktop (Xvfb, openbox,
// PulseAudio), the same without a sound server, without any display, with a service
// whose certificate it is not told to trust, and a headless sway desktop with PipeWire
// and the portal. Each run's lines, exit status and JSON form are checked.

#include "core/check/checks.hpp"
#include "core/check/report.hpp"
#include "core/json.hpp"
#include "core/obs/child_process.hpp"
#include "tests/support/processes.hpp"
#include "tests/support/media_fixtures.hpp"
#include "tests/support/temp_dir.hpp"
#include "tests/support/wayland_desktop.hpp"
#include "tools/service-sim/service_sim.hpp"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <sstream>

namespace orbweave {
namespace {

using namespace std::chrono_literals;
using environment_list = std::vector<std::pair<std::string, std::string>>;

struct check_run {
    int exit_status = -1;
    std::vector<std::string> lines;
    Json json;              ///< the parsed object, for --json runs
    std::map<std::string, Json> checks; ///< by name, for --json runs

    /// The line of one check in a text run ("" when none).
    std::string line(const std::string& name) const
    {
        for (const auto& text : lines)
            if (text.size() > 6 && text.compare(6, name.size() + 1, name + " ") == 0)
                return text;
        return {};
    }
    std::string status(const std::string& name) const { return json::string_at(checks.at(name), {"status"}); }
    std::string found(const std::string& name) const { return json::string_at(checks.at(name), {"found"}); }
};

/// Runs orbweave-agent --check with arguments in an environment of its own (set on top
/// of ours, unset removed) and reads everything it prints.
check_run run_check(std::vector<std::string> arguments, const environment_list& environment,
                    const std::vector<std::string>& unset, const std::string& label)
{
    auto options = test::command({obs::beside_this_program("orbweave-agent"), "--check"});
    options.argv.insert(options.argv.end(), arguments.begin(), arguments.end());
    options.environment = environment;
    options.unset_environment = unset;
    auto started = std::chrono::steady_clock::now();
    check_run run;
    std::string text = test::output_of(options, 30s, &run.exit_status);
    auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    std::printf("[ time     ] --check on %s: %.1f s\n", label.c_str(), seconds);

    if (std::find(arguments.begin(), arguments.end(), "--json") == arguments.end()) {
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            run.lines.push_back(line);
            std::printf("    %s\n", line.c_str());
        }
        return run;
    }
    run.json = json::parse(text);
    for (const Json& check : json::at(run.json, {"checks"})) {
        run.checks[json::string_at(check, {"name"})] = check;
        std::printf("    %s %s: %s\n", json::string_at(check, {"status"}).c_str(),
                    json::string_at(check, {"name"}).c_str(), json::string_at(check, {"found"}).c_str());
    }
    return run;
}

/// An X11 desktop with a window and PulseAudio, and the service simulator; each case
/// runs the check against it with something taken away.
class CheckOnX11 : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        shared = new fixture;
    }
    static void TearDownTestSuite()
    {
        delete shared;
        shared = nullptr;
    }

    struct fixture {
        test::temp_dir dir{"orbweave-check"};
        test::xvfb_display display{{{1280, 720}}};
        test::window_manager window_manager{display.name(), dir.path()};
        test::test_window window{display.name(), "Orbweave Check Window", "orbweave-check"};
        test::pulse_server pulse{dir.path() / "pulse"};
        sim::service_sim service;

        fixture() { service.identity().write(dir.path()); }
    };
    static fixture* shared;

    environment_list desktop() const
    {
        return {{"DISPLAY", shared->display.name()},
                {"XDG_SESSION_TYPE", "x11"},
                {"PULSE_SERVER", shared->pulse.server()},
                {"PULSE_RUNTIME_PATH", shared->pulse.runtime_path().string()},
                {"XDG_CACHE_HOME", (shared->dir.path() / "cache").string()},
                {"ORBWEAVE_CA_FILE", ""}};
    }
    std::vector<std::string> service(bool trusted = true) const
    {
        std::vector<std::string> arguments{"--service", shared->service.url(), "--state-dir", state.file("state")};
        if (trusted)
            arguments.insert(arguments.end(), {"--ca-file", shared->dir.file("ca.pem")});
        return arguments;
    }
    static std::vector<std::string> with(std::vector<std::string> arguments, std::vector<std::string> more)
    {
        arguments.insert(arguments.end(), more.begin(), more.end());
        return arguments;
    }

    test::temp_dir state;
};

CheckOnX11::fixture* CheckOnX11::shared = nullptr;

TEST_F(CheckOnX11, EverythingAStreamNeedsIsFoundAndChangedNothing)
{
    check_run run = run_check(with(service(), {"--json"}), desktop(), {"WAYLAND_DISPLAY"}, "X11 with PulseAudio");
    ASSERT_TRUE(run.json.is_object()) << "not one JSON object";
    EXPECT_EQ(run.exit_status, 0);
    EXPECT_TRUE(json::bool_at(run.json, {"can_stream"}));
    for (const char* name : {"display", "pipewire", "sound", "catalogue", "renderer", "capture", "h264", "aac",
                             "service", "bandwidth", "state"})
        EXPECT_EQ(run.checks.count(name), 1u) << name;
    for (const auto& [name, check] : run.checks) {
        std::string status = json::string_at(check, {"status"});
        EXPECT_TRUE(status == "ok" || status == "warn") << name << ": " << status;
        if (status != "ok") {
            EXPECT_FALSE(json::string_at(check, {"fix"}).empty()) << name << " says nothing to do";
        }
    }
    EXPECT_EQ(run.status("display"), "ok");
    EXPECT_NE(run.found("display").find("X11 " + shared->display.name() + ": 1 screen"), std::string::npos);
    // The sound server's defaults, by the names the user knows.
    EXPECT_EQ(run.status("sound"), "ok");
    EXPECT_NE(run.found("sound").find(test::pulse_server::sink_description), std::string::npos) << run.found("sound");
    EXPECT_NE(run.found("sound").find(test::pulse_server::source_description), std::string::npos);
    // The catalogue as the service would list it.
    const Json& counts = json::at(run.checks["catalogue"], {"details"});
    EXPECT_EQ(json::int_at(counts, {"screens"}), 1);
    EXPECT_GE(json::int_at(counts, {"windows"}), 1);
    EXPECT_GE(json::int_at(counts, {"audio_inputs"}), 1);
    EXPECT_GE(json::int_at(counts, {"audio_outputs"}), 1);
    // x264 was tried on frames; hardware encoders this machine lacks are not counted as failing.
    bool x264 = false;
    for (const Json& encoder : json::at(run.checks["h264"], {"details", "encoders"}))
        if (json::string_at(encoder, {"id"}) == "obs_x264") {
            x264 = true;
            EXPECT_TRUE(json::bool_at(encoder, {"works"}));
            EXPECT_GE(json::int_at(encoder, {"packets"}), 3);
        }
    EXPECT_TRUE(x264);
    EXPECT_NE(run.found("h264").find("streams use obs_x264"), std::string::npos) << run.found("h264");
    EXPECT_EQ(run.status("aac"), "ok");
    // The service: trusted through the given CA, named and dated, measured.
    // (ok, or warn only because the test certificate expires within days)
    EXPECT_NE(run.status("service"), "fail");
    EXPECT_NE(run.found("service").find(", trusted by "), std::string::npos) << run.found("service");
    EXPECT_NE(run.found("service").find("CN="), std::string::npos) << run.found("service");
    EXPECT_NE(run.found("service").find("expires 20"), std::string::npos);
    EXPECT_TRUE(json::bool_at(run.checks["bandwidth"], {"details", "measured"}));
    EXPECT_EQ(run.status("state"), "ok");

    // Nothing was paired, streamed or written: no code asked for, no state folder made.
    EXPECT_TRUE(shared->service.messages().empty());
    EXPECT_FALSE(std::filesystem::exists(state.file("state")));
}

// Without a sound server audio is a warning only: what fails this run is the service.
TEST_F(CheckOnX11, AnUntrustedServiceFailsWithTheFixOnItsLineAndNoSoundServerOnlyWarns)
{
    environment_list environment = desktop();
    for (auto& [name, value] : environment)
        if (name == "PULSE_SERVER")
            value = "unix:" + shared->dir.file("no-such-socket");
    check_run run = run_check(with(service(/*trusted=*/false), {"--bitrate", "2000"}), environment, {"WAYLAND_DISPLAY"},
                              "X11, service not trusted, no sound server");
    EXPECT_EQ(run.exit_status, 1);
    std::string line = run.line("service");
    EXPECT_EQ(line.rfind("fail  service", 0), 0u) << line;
    EXPECT_NE(line.find("NOT trusted"), std::string::npos) << line;
    EXPECT_NE(line.find("to fix: give --ca-file"), std::string::npos) << line;
    // The bitrate given is reported, not measured; the media side is still fine.
    EXPECT_EQ(run.line("bandwidth").rfind("ok", 0), 0u) << run.line("bandwidth");
    EXPECT_NE(run.line("bandwidth").find("--bitrate 2000 kbps given"), std::string::npos) << run.line("bandwidth");
    EXPECT_EQ(run.line("display").rfind("ok", 0), 0u) << run.line("display");
    EXPECT_EQ(run.line("sound").rfind("warn  sound      no sound server answers", 0), 0u) << run.line("sound");
    EXPECT_NE(run.line("sound").find("PulseAudio"), std::string::npos) << run.line("sound");
    EXPECT_EQ(run.line("aac").rfind("ok", 0), 0u) << run.line("aac"); // streams carry silence
    // Nothing was started in its place.
    EXPECT_FALSE(std::filesystem::exists(shared->dir.file("no-such-socket")));
    ASSERT_FALSE(run.lines.empty());
    EXPECT_EQ(run.lines.back().rfind("a stream cannot work here", 0), 0u) << run.lines.back();
}

TEST_F(CheckOnX11, WithoutADisplayNothingCanStreamAndTheLineSaysWhy)
{
    check_run run = run_check(with(service(), {"--bitrate", "1500"}),
                              {{"XDG_CACHE_HOME", state.file("cache")}, {"PULSE_SERVER", "unix:" + state.file("none")}},
                              {"DISPLAY", "WAYLAND_DISPLAY", "XDG_SESSION_TYPE"}, "no display");
    EXPECT_EQ(run.exit_status, 1);
    std::string display = run.line("display");
    EXPECT_EQ(display.rfind("fail  display", 0), 0u) << display;
    EXPECT_NE(display.find("DISPLAY is not set"), std::string::npos) << display;
    EXPECT_NE(display.find("to fix: "), std::string::npos) << display;
    // What needs no display is still checked: the sound server here is missing.
    EXPECT_EQ(run.line("sound").rfind("warn  sound      no sound server answers", 0), 0u) << run.line("sound");
    EXPECT_EQ(run.line("catalogue").rfind("warn  catalogue  not checked", 0), 0u) << run.line("catalogue");
    // The service side is still checked.
    EXPECT_NE(run.line("service").find(", trusted by "), std::string::npos) << run.line("service");
}

/// A check of a reachable, trusted service whose media workers never answer (the fake
/// worker does not know the check's orders).
class HungWorkers : public ::testing::Test {
protected:
    HungWorkers()
    {
        service.identity().write(dir.path());
        settings.service_url = service.url();
        settings.ca_file = dir.file("ca.pem");
        settings.worker_executable = ORBWEAVE_FAKE_MEDIA_WORKER;
    }

    test::temp_dir dir;
    sim::service_sim service;
    check::settings settings;
};

TEST_F(HungWorkers, AMediaWorkerThatNeverAnswersIsKilledAndNamed)
{
    settings.bitrate = 1500;
    auto started = std::chrono::steady_clock::now();
    auto checked = std::async(std::launch::async, [&] { return check::run_common(settings); });
    ASSERT_EQ(checked.wait_for(check::whole_check_limit + 10s), std::future_status::ready);
    std::printf("[ time     ] --check with hung media workers: %.1f s\n",
                std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
    std::map<std::string, check::item> items;
    for (auto& entry : checked.get())
        items[entry.name] = entry;
    EXPECT_EQ(items["display"].level, check::status::fail);
    EXPECT_NE(items["display"].found.find("the media worker could not look"), std::string::npos)
        << items["display"].found;
    EXPECT_EQ(items["h264"].level, check::status::fail);
    EXPECT_NE(items["h264"].found.find("could not be tried"), std::string::npos) << items["h264"].found;
    // The service part is not held up by them.
    EXPECT_NE(items["service"].level, check::status::fail) << items["service"].found;
}

TEST_F(HungWorkers, ACancelledCheckEndsAtOnceThoughItsWorkersHang)
{
    // The app quitting while its window checks: every part ends without waiting out a bound.
    settings.cancelled = [] { return true; };
    auto checked = std::async(std::launch::async, [&] { return check::run_common(settings); });
    // Well inside the hung workers' 6 s call bound.
    ASSERT_EQ(checked.wait_for(4s), std::future_status::ready);
    for (const auto& entry : checked.get()) {
        if (entry.name == "h264" || entry.name == "display") {
            EXPECT_EQ(entry.level, check::status::fail) << entry.name << ": " << entry.found;
        }
    }
}

TEST(Check, WhichEncoderAStreamTakesAndWhatABitrateCarries)
{
    EXPECT_EQ(check::stream_encoder_text("", false, 20000), "streams use obs_x264");
    EXPECT_EQ(check::stream_encoder_text("ffmpeg_vaapi", true, 20000), "streams use ffmpeg_vaapi (20000 kbps)");
    EXPECT_EQ(check::stream_encoder_text("ffmpeg_vaapi", true, 4999).rfind("streams use obs_x264 (4999 kbps", 0), 0u);
    // A hardware encoder that is offered but fails costs every fast stream a failed attempt.
    EXPECT_NE(check::stream_encoder_text("ffmpeg_nvenc", false, 8000).find("which fails, then obs_x264"),
              std::string::npos);
    EXPECT_EQ(check::quality_for(2000), "every level up to medium at its full bitrate");
    EXPECT_EQ(check::quality_for(3500), "every level up to extreme at its full bitrate");
    EXPECT_EQ(check::quality_for(400).rfind("below low's 600 kbps", 0), 0u);
    // Warnings alone leave a stream possible: the commands exit 0.
    check::item sound;
    sound.level = check::status::warn;
    EXPECT_EQ((check::report{{sound, check::item{}}, 0}.exit_status()), 0);
}

TEST(Check, TheStateFolderAndTheSecretsModes)
{
    test::temp_dir dir;
    std::string state = dir.file("state");
    EXPECT_EQ(check::state_folder_check(state).level, check::status::ok); // made at the first pairing
    std::filesystem::create_directories(state);
    ::chmod(state.c_str(), 0700);
    std::ofstream(state + "/secret") << "s";
    ::chmod((state + "/secret").c_str(), 0600);
    check::item paired = check::state_folder_check(state);
    EXPECT_EQ(paired.level, check::status::ok);
    EXPECT_NE(paired.found.find("paired (secret mode 0600)"), std::string::npos) << paired.found;
    // A secret others can read lets them stream this machine.
    ::chmod((state + "/secret").c_str(), 0644);
    check::item open = check::state_folder_check(state);
    EXPECT_EQ(open.level, check::status::warn);
    EXPECT_EQ(open.fix.rfind("chmod 600 " + state + "/secret", 0), 0u) << open.fix;
    // A file where the folder should be cannot hold the secret.
    std::ofstream(dir.file("file")) << "x";
    EXPECT_EQ(check::state_folder_check(dir.file("file")).level, check::status::fail);
}

TEST(Check, OnSwayThePortalIsDescribed)
{
    if (auto missing = test::wayland_desktop::missing_packages(test::wayland_desktop::kind::sway); !missing.empty())
        GTEST_SKIP() << "sway's packages are missing: " << missing.front();
    test::wayland_desktop desktop;
    test::temp_dir dir;
    sim::service_sim service;
    service.identity().write(dir.path());
    environment_list environment = desktop.environment();
    environment.push_back({"XDG_CACHE_HOME", dir.file("cache")});
    check_run run = run_check({"--json", "--service", service.url(), "--ca-file", dir.file("ca.pem"), "--state-dir",
                               dir.file("state"), "--bitrate", "1500"},
                              environment, {"DISPLAY"}, "sway with the portal");
    ASSERT_TRUE(run.json.is_object());
    EXPECT_EQ(run.exit_status, 0);
    EXPECT_EQ(run.status("display"), "ok");
    EXPECT_NE(run.found("display").find("Wayland"), std::string::npos);
    ASSERT_EQ(run.checks.count("portal"), 1u);
    EXPECT_NE(run.status("portal"), "fail") << run.found("portal");
    const Json& portal = json::at(run.checks["portal"], {"details"});
    EXPECT_GE(json::int_at(portal, {"version"}), 1);
    EXPECT_TRUE(json::int_at(portal, {"source_types"}) & 1);
    EXPECT_NE(run.found("portal").find("screens only"), std::string::npos) << run.found("portal");
    EXPECT_EQ(run.status("pipewire"), "ok") << run.found("pipewire");
    EXPECT_EQ(run.status("sound"), "ok") << run.found("sound");
    EXPECT_EQ(json::int_at(run.checks["catalogue"], {"details", "screens"}),
              static_cast<int>(desktop.outputs().size()));
    EXPECT_NE(run.found("capture").find("desktop portal and PipeWire"), std::string::npos);
    // No cast was started, so the picker never asked.
    EXPECT_EQ(desktop.chooser_calls(), 0);
}

} // namespace
} // namespace orbweave
