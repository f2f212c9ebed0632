// Capture on a Wayland desktop: the headless sway fixture with PipeWire and the
// desktop portal, real media workers, nginx-rtmp and ffprobe. What every desktop must
// do (list, the picker once, restore) runs on sway, GNOME and KDE Plasma alike
// (WaylandDesktops); the rest uses what only sway's fixture can do (a scripted chooser
// that declines or stalls, outputs resized).

#include "core/obs/requests.hpp"
#include "core/obs/worker.hpp"
#include "core/obs/worker_manager.hpp"
#include "tests/support/client_harness.hpp"
#include "tests/support/eventually.hpp"
#include "tests/support/line_reader.hpp"
#include "tests/support/media_fixtures.hpp"
#include "tests/support/rtmp_ingest.hpp"
#include "tests/support/scoped_environment.hpp"
#include "tests/support/temp_dir.hpp"
#include "tools/service-sim/service_sim.hpp"
#include "tests/support/stderr_capture.hpp"
#include "tests/support/wayland_desktop.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <sstream>
#include <tuple>
#include <cstdlib>
#include <utility>
#include <vector>

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

/// A listing worker on the portal route.
obs::worker listing_worker()
{
    obs::worker::options options;
    options.capture = obs::capture_route::portal;
    return obs::worker(options);
}

obs::worker::options stream_options()
{
    obs::worker::options options = obs::worker_manager::stream_worker_options();
    options.capture = obs::capture_route::portal;
    return options;
}

/// A "#rrggbb" colour's channels.
test::colour rgb(const std::string& colour)
{
    auto channel = [&](int at) { return std::stoi(colour.substr(1 + 2 * at, 2), nullptr, 16); };
    return {channel(0), channel(1), channel(2)};
}

// How far a colour may drift through the cast, H.264 and the scale-down.
constexpr int tolerance = 24;

/// An output (by its index) streamed by one route: "direct" (the cast's buffers converted
/// straight to the encoder's frames, a software renderer's route) or "canvas".
class WaylandStream : public ::testing::TestWithParam<std::tuple<std::size_t, const char*>> {};

// The first output keeps changing (a clock over a blue background); the second never
// changes (plain green), so the portal sends it one frame and then nothing.
TEST_P(WaylandStream, AScreenArrivesAtTheProfilesSizeWithTheCompositorsPicture)
{
    auto [index, route] = GetParam();
    bool direct = std::string(route) == "direct";
    const auto& output = session->desktop->outputs()[index];
    session->desktop->choose(output.name);
    test::rtmp_ingest ingest;
    auto screens = obs::entries_of<obs::screen_entry>(listing_worker().list(callback::source_type::screen));
    ASSERT_GT(screens.size(), index);
    test::scoped_environment verbose("ORBWEAVE_OBS_LOG", "info");
    test::scoped_environment capture("ORBWEAVE_SCREEN_CAPTURE", std::string(route));
    test::stderr_capture log; // the worker inherits our standard error
    obs::worker media(stream_options());
    std::string key = output.name + "-" + route;
    auto result = media.stream(test::order_for(screens[index], {{"profile", "medium"}}, ingest.url(), key));
    ASSERT_TRUE(result.started) << result.error;
    // Graphics on the compositor itself, not through XWayland (the fixture has none).
    EXPECT_NE(log.text().find("Using EGL/Wayland"), std::string::npos);
    EXPECT_FALSE(result.restore_token.empty());
    EXPECT_EQ(log.text().find("taken straight from the screen cast's PipeWire buffers (no canvas)") != std::string::npos,
              direct)
        << "the stream's route is not the one asked for";

    auto live = ingest.probe_live(key, 15s);
    ASSERT_NE(live.video(), nullptr) << live.error;
    EXPECT_EQ(live.video()->codec_name, "h264");
    // "medium" fits the screen inside 1280x720.
    EXPECT_EQ(live.video_size(), std::make_pair(index == 0 ? 1280 : 960, 720));
    EXPECT_NEAR(live.video()->frame_rate, 30.0, 0.5) << "a still screen keeps the stream's frame rate";
    EXPECT_EQ(live.codec("audio"), "aac");
    auto leaks = media.shutdown();
    EXPECT_EQ(leaks.value_or(-1), 0);
    // Stopped on purpose: the cast closes only once the capture showing it is gone, so
    // nothing takes the closing for the desktop ending the cast.
    EXPECT_EQ(log.text().find("media: the screen cast ended"), std::string::npos) << log.text();

    // The background of the output, far from the clock, in the last frame sent, out to
    // the frame's edges: the picture fills the frame, neither shifted nor cut.
    auto frame = ingest.last_frame(key);
    for (auto [x, y] : {std::pair{60, 32}, std::pair{62, 34}, std::pair{62, 18}, std::pair{32, 34}})
        EXPECT_TRUE(test::near(test::colour_at(frame, x, y), rgb(output.background), tolerance))
            << "at " << x << "," << y << " instead of " << output.background << ":" << test::describe(frame);
    if (direct && index == 1) {
        // A still screen is converted once and then sent again as it is.
        std::string text = log.text();
        auto at = text.find("media: the screen cast's frames: ");
        ASSERT_NE(at, std::string::npos) << text;
        std::istringstream counts(text.substr(at + 33));
        long long whole = 0, partial = 0, unchanged = 0;
        std::string word;
        counts >> whole >> word >> word >> partial >> word >> word >> unchanged;
        EXPECT_LE(whole + partial, 5) << text.substr(at, 120);
        EXPECT_GT(unchanged, 30) << text.substr(at, 120);
    }
}

// The still output is cast once only: xdg-desktop-portal-wlr 0.7 on sway sends a later
// cast of an output nothing changed on no frame at all (through either route) until
// something on it changes.
INSTANTIATE_TEST_SUITE_P(Outputs, WaylandStream,
                         ::testing::Values(std::tuple<std::size_t, const char*>{0u, "direct"},
                                           std::tuple<std::size_t, const char*>{0u, "canvas"},
                                           std::tuple<std::size_t, const char*>{1u, "direct"}),
                         [](const ::testing::TestParamInfo<std::tuple<std::size_t, const char*>>& info) {
                             return "output" + std::to_string(std::get<0>(info.param)) + "_" + std::get<1>(info.param);
                         });

TEST(WaylandStreamResize, AnOutputThatChangesSizeKeepsStreamingAtTheStreamsSize)
{
    auto& desktop = *session->desktop;
    const auto& output = desktop.outputs()[0];
    desktop.choose(output.name);
    test::rtmp_ingest ingest;
    auto screens = obs::entries_of<obs::screen_entry>(listing_worker().list(callback::source_type::screen));
    obs::worker media(stream_options());
    auto result = media.stream(test::order_for(screens[0], {{"profile", "medium"}}, ingest.url(), "resized"));
    ASSERT_TRUE(result.started) << result.error;

    ASSERT_TRUE(desktop.resize_output(output.name, 1024, 768));
    // Still live, at the size it started with, after the change.
    auto live = ingest.probe_live("resized", 15s);
    EXPECT_EQ(live.video_size(), std::make_pair(1280, 720)) << live.error;
    EXPECT_TRUE(ingest.publishing("resized"));
    media.shutdown();
    EXPECT_TRUE(desktop.resize_output(output.name, output.width, output.height));

    // The last frame shows the output's background, scaled in (not a frozen or black picture).
    auto frame = ingest.last_frame("resized");
    auto seen = test::colour_at(frame, 40, 32);
    EXPECT_TRUE(test::near(seen, rgb(output.background), tolerance)) << "saw " << test::describe(seen);
    // 4:3 now, fitted into 16:9: bars at the sides show the new size was followed.
    auto side = test::colour_at(frame, 2, 18);
    EXPECT_TRUE(test::near(side, {0, 0, 0}, tolerance)) << "saw " << test::describe(side) << " at the side";
}

TEST(WaylandAudio, PipeWireServesTheAudioStreamsAndTheVirtualOutput)
{
    // Our virtual output, made through PipeWire's PulseAudio server.
    auto server = test::command({ORBWEAVE_AUDIO_SERVER_PROGRAM});
    server.pipe_stdout = true;
    obs::child_process audio_server(server);
    ASSERT_EQ(test::line_reader(audio_server.stdout_fd()).next(10s), "ready orbweave_virtual");

    std::vector<obs::audio_entry> audios;
    {
        test::scoped_environment verbose("ORBWEAVE_OBS_LOG", "info");
        test::stderr_capture log; // the worker inherits our standard error
        audios = obs::entries_of<obs::audio_entry>(listing_worker().list(callback::source_type::audio));
        // Listing starts no graphics (the stream test sees them start on the compositor).
        EXPECT_EQ(log.text().find("Using EGL"), std::string::npos) << log.text();
        EXPECT_NE(log.text().find("on PipeWire"), std::string::npos);
    }
    auto virtual_output = std::find_if(audios.begin(), audios.end(), [](const obs::audio_entry& audio) {
        return !audio.input && audio.name == "Orbweave Virtual Audio Driver";
    });
    ASSERT_NE(virtual_output, audios.end()) << "the virtual output is not listed";

    test::rtmp_ingest ingest;
    obs::worker media(stream_options());
    auto result = media.stream(test::order_for(*virtual_output, {{"profile", "medium"}}, ingest.url(), "sound"));
    ASSERT_TRUE(result.started) << result.error;
    auto live = ingest.probe_live("sound", 15s);
    EXPECT_EQ(live.codec("audio"), "aac") << live.error;
    media.shutdown();
    audio_server.kill(SIGTERM);
    EXPECT_TRUE(audio_server.wait_for(10s));
}

/// A client paired with the service simulator, capturing through the portal and
/// keeping its restore tokens in tokens_file; all kinds allowed.
class portal_client {
public:
    portal_client(sim::service_sim& service, const std::string& tokens_file,
                  obs::capture_route route = obs::capture_route::portal,
                  std::chrono::milliseconds portal_limit = std::chrono::milliseconds(0),
                  std::chrono::milliseconds call_limit = std::chrono::milliseconds(0))
        : service_(service), app_(service, false, [&](client_options& options) {
              options.media.listing.capture = route;
              options.media.stream.capture = route;
              options.media.stream.portal_start_limit = portal_limit;
              if (call_limit.count() > 0)
                  options.media.stream.call_timeout = call_limit;
              options.media.restore_tokens = tokens_file;
          })
    {
        app_.allow_all();
        EXPECT_TRUE(app_.start_paired(deadline));
    }

    Json reply(const std::optional<std::string>& state) { return service_.reply_payload(state, deadline); }
    Json list(const std::string& kind) { return reply(service_.list(kind)); }
    Json activate(const std::string& id, const test::rtmp_ingest& ingest, const std::string& key)
    {
        return reply(service_.activate(sim::activation::of(id, ingest.url(), key)));
    }
    Json deactivate(const std::string& id) { return reply(service_.deactivate(id)); }
    /// The first listed screen's id; empty when none is listed.
    std::string first_screen()
    {
        Json screens = list("screen")["results"];
        return screens.empty() ? std::string() : screens[0]["id"].get<std::string>();
    }
    sim::service_sim& service() { return service_; }
    test::client_harness& app() { return app_; }

    static constexpr std::chrono::seconds deadline{30};

private:
    sim::service_sim& service_;
    test::client_harness app_;
};

/// What a portal client works with: its state folder, the service and an ingest.
struct portal_services {
    test::temp_dir dir;
    std::string tokens = dir.file("state/restore-tokens.json");
    sim::service_sim service;
    test::rtmp_ingest ingest;
};

class PortalClient : public ::testing::Test, protected portal_services {
protected:
    test::wayland_desktop& desktop = *session->desktop;
};

TEST_F(PortalClient, DecliningInThePickerRejectsAndAnotherOutputFails)
{
    portal_client client(service, tokens);
    std::string screen = client.first_screen();
    ASSERT_FALSE(screen.empty());
    // Nothing picked: the user cancelled the desktop's dialog.
    desktop.choose("");
    EXPECT_EQ(client.activate(screen, ingest, "declined"), Json({{"status", "Rejected"}}));
    EXPECT_FALSE(ingest.publishing("declined"));
    // The second output picked for the first screen: nothing streams, and the service hears why.
    desktop.choose("HEADLESS-2");
    Json other = client.activate(screen, ingest, "other");
    EXPECT_EQ(other["status"], "Failure");
    EXPECT_NE(other.value("error", "").find("another screen"), std::string::npos) << other;
    EXPECT_FALSE(ingest.publishing("other"));
    EXPECT_TRUE(test::eventually([] { return test::stream_workers().empty(); }, 15s))
        << "a stream worker was left";

    // The second screen, picked as itself, streams (wlroots' portal says 0,0 for every output).
    Json second = client.list("screen")["results"][1];
    EXPECT_EQ(client.activate(second["id"], ingest, "second"), Json({{"status", "Success"}}));
    EXPECT_TRUE(ingest.wait_for_publishing("second", 10s));
    desktop.choose("HEADLESS-1");
}

TEST_F(PortalClient, WaitingForThePickerIsBoundedAndHoldsUpNothingElse)
{
    portal_client client(service, tokens, obs::capture_route::portal, 3000ms);
    std::string screen = client.first_screen();
    desktop.choose("slow");
    auto activated = service.activate(sim::activation::of(screen, ingest.url(), "slow"));
    ASSERT_TRUE(test::eventually([&] { return !desktop.chooser_idle(); }, 10s)) << "the picker was not shown";
    // While the desktop waits for the user, the client answers other requests.
    Json listed = client.list("audio");
    EXPECT_EQ(listed["status"], "Success");
    EXPECT_FALSE(service.wait_for_reply(activated.value_or(""), 0ms)) << "answered before the wait ended";
    Json answer = client.reply(activated);
    EXPECT_EQ(answer["status"], "Failure");
    EXPECT_NE(answer.value("error", "").find("did not start the screen cast within 3 s"), std::string::npos) << answer;
    EXPECT_FALSE(ingest.publishing("slow"));
    // The picker's late answer finds nothing waiting, and leaves nothing behind.
    EXPECT_TRUE(test::eventually([&] { return desktop.chooser_idle(); }, 10s));
    EXPECT_TRUE(test::eventually([] { return test::stream_workers().empty(); }, 15s));
    desktop.choose("HEADLESS-1");
}

TEST_F(PortalClient, APickerAnsweredAfterAnOrdinaryCallsTimeStillStreams)
{
    // Shortened in the relation the defaults have (the picker may take 120 s, an ordinary
    // call to a worker 60 s): the user answers after the call time, within the picker's.
    portal_client client(service, tokens, obs::capture_route::portal, 10000ms, 2000ms);
    std::string screen = client.first_screen();
    desktop.choose("delay 5 HEADLESS-1");
    EXPECT_EQ(client.activate(screen, ingest, "patient"), Json({{"status", "Success"}}));
    EXPECT_TRUE(ingest.wait_for_publishing("patient", 10s));
    EXPECT_EQ(client.deactivate(screen), Json({{"status", "Success"}}));
    desktop.choose("HEADLESS-1");
}

TEST_F(PortalClient, ACastTheDesktopEndsStopsTheStreamAndTheClientSaysSo)
{
    desktop.choose("HEADLESS-1");
    // Heard by the feed past the canvas, and by our libobs source on the canvas.
    for (std::string route : {"direct", "canvas"}) {
        SCOPED_TRACE(route);
        test::scoped_environment capture("ORBWEAVE_SCREEN_CAPTURE", route);
        test::stderr_capture log; // until the client is gone: how its workers ended
        std::string key = "ended-" + route;
        {
            portal_client client(service, tokens);
            std::string screen = client.first_screen();
            ASSERT_EQ(client.activate(screen, ingest, key), Json({{"status", "Success"}}));
            ASSERT_TRUE(client.app().wait_for_state(callback::state_type::streaming, portal_client::deadline));
            ASSERT_TRUE(ingest.wait_for_publishing(key, 10s));

            desktop.restart_portal_backend(); // the desktop's side of every cast goes away
            EXPECT_TRUE(client.app().wait_for_state(callback::state_type::connected, portal_client::deadline));
            EXPECT_TRUE(client.app().wait_for_streams({}, portal_client::deadline));
            EXPECT_TRUE(ingest.wait_until_not_publishing(key, 10s));
            EXPECT_TRUE(test::eventually([] { return test::stream_workers().empty(); }, 15s))
                << "the stream's worker was left";
            EXPECT_NE(log.text().find("The stream of source " + screen + " ended: "), std::string::npos) << log.text();
            Json listed = client.list("screen")["results"][0];
            EXPECT_FALSE(listed["isActive"].get<bool>());
        }
        EXPECT_EQ(log.text().find("killed by signal"), std::string::npos) << "a worker crashed:\n" << log.text();
    }
}

// The choice made in the desktop's picker is consent given while paired with one account:
// after the service's reset the picker asks again, also when the same account pairs anew.
TEST_F(PortalClient, AfterAResetTheDesktopAsksAgain)
{
    desktop.choose("HEADLESS-1");
    portal_client client(service, tokens);
    std::string screen = client.first_screen();
    ASSERT_FALSE(screen.empty());
    int before = desktop.chooser_calls();
    ASSERT_EQ(client.activate(screen, ingest, "consented"), Json({{"status", "Success"}}));
    EXPECT_EQ(desktop.chooser_calls(), before + 1);
    ASSERT_EQ(client.deactivate(screen), Json({{"status", "Success"}}));
    EXPECT_TRUE(ingest.wait_until_not_publishing("consented", 10s));

    ASSERT_TRUE(service.reset());
    ASSERT_TRUE(client.app().wait_for_state(callback::state_type::disconnected, portal_client::deadline));
    auto code = client.app().codes().pop(portal_client::deadline);
    ASSERT_TRUE(code);
    ASSERT_TRUE(service.claim(*code, {"Ann", ""}));
    ASSERT_TRUE(client.app().wait_for_state(callback::state_type::connected, portal_client::deadline));
    ASSERT_EQ(client.activate(client.first_screen(), ingest, "asked-again"), Json({{"status", "Success"}}));
    EXPECT_EQ(desktop.chooser_calls(), before + 2) << "the consent outlived the reset";
    EXPECT_TRUE(ingest.wait_for_publishing("asked-again", 10s));
}

TEST_F(PortalClient, ForcedX11TakesTheX11RouteWhereAutoTakesThePortal)
{
    // An X server beside the compositor, as XWayland would be: DISPLAY is set too.
    test::xvfb_display x11({{800, 600}});
    Json automatic, forced;
    test::scoped_environment display("DISPLAY", x11.name());
    {
        portal_client client(service, tokens, obs::capture_route::automatic);
        automatic = client.list("screen")["results"];
    }
    {
        portal_client client(service, tokens, obs::capture_route::x11);
        forced = client.list("screen")["results"];
    }
    ASSERT_EQ(automatic.size(), desktop.outputs().size()) << automatic;
    EXPECT_EQ(automatic[0]["name"], "HEADLESS-1");
    ASSERT_EQ(forced.size(), 1u) << forced;
    EXPECT_EQ(forced[0]["name"], "Display 1");
    EXPECT_EQ(forced[0]["description"], "800x600");
}

// ---------------------------------------------------------------------------------
// What every desktop does, on sway (the session's desktop), GNOME and KDE Plasma (each
// started for its own suite, and stopped at the suite's end).

using desktop_kind = test::wayland_desktop::kind;

class WaylandDesktops : public ::testing::TestWithParam<desktop_kind>, protected portal_services {
protected:
    static void TearDownTestSuite()
    {
        other_.reset();
        other_failure_.clear();
        session->desktop->export_environment();
    }

    void SetUp() override
    {
        desktop_kind kind = GetParam();
        if (kind == desktop_kind::sway) {
            desktop_ = session->desktop.get();
            return;
        }
        // One desktop per suite; a desktop that did not come up fails each case at once.
        ASSERT_TRUE(other_failure_.empty()) << other_failure_;
        if (!other_) {
            try {
                test::wayland_desktop::options options;
                options.desktop = kind;
                other_ = std::make_unique<test::wayland_desktop>(options);
            } catch (const std::exception& error) {
                other_failure_ = test::wayland_desktop::name(kind) + " did not start: " + error.what();
                FAIL() << other_failure_;
            }
        }
        other_->export_environment();
        desktop_ = other_.get();
    }

    test::wayland_desktop& desktop() { return *desktop_; }

private:
    test::wayland_desktop* desktop_ = nullptr;
    static std::unique_ptr<test::wayland_desktop> other_;
    static std::string other_failure_;
};

std::unique_ptr<test::wayland_desktop> WaylandDesktops::other_;
std::string WaylandDesktops::other_failure_;

TEST_P(WaylandDesktops, ListsTheCompositorsOutputsAsScreensAndWindowsOnlyWhereThePortalCastsThem)
{
    auto list = [] { return obs::entries_of<obs::screen_entry>(listing_worker().list(callback::source_type::screen)); };
    auto screens = list();
    const auto& outputs = desktop().outputs();
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
    if (screens.size() > 1) {
        EXPECT_NE(screens[0].id, screens[1].id);
    }
    // The ids come from the outputs' names: another worker (another run) gives the same.
    auto again = list();
    for (std::size_t i = 0; i < screens.size(); ++i)
        EXPECT_EQ(again[i].id, screens[i].id);
    // The JSON shape is the X11 route's.
    Json first = screens[0].to_json();
    for (const char* key : {"description", "id", "index", "isActive", "name", "properties", "type"})
        EXPECT_TRUE(first.contains(key)) << key;

    // Windows: one entry for "a window the user picks" where the portal casts windows
    // (GNOME, KDE), none on wlroots (XWayland's windows are never listed).
    auto windows = obs::entries_of<obs::window_entry>(listing_worker().list(callback::source_type::window));
    if (GetParam() == desktop_kind::sway) {
        EXPECT_TRUE(windows.empty());
        return;
    }
    ASSERT_EQ(windows.size(), 1u);
    EXPECT_EQ(windows[0].pid, 0);
    EXPECT_EQ(windows[0].id.size(), 64u);
    auto windows_again = obs::entries_of<obs::window_entry>(listing_worker().list(callback::source_type::window));
    EXPECT_EQ(windows_again[0].id, windows[0].id) << "the window entry's id is not stable";
}

TEST_P(WaylandDesktops, TheDesktopAsksOnceAndRestoresTheChoiceAfterwardsAlsoAfterARestart)
{
    auto& desktop = this->desktop();
    if (std::string limitation = desktop.picker_limitation(); !limitation.empty())
        GTEST_SKIP() << "the first pick (and so the restored one) is not tested on "
                     << test::wayland_desktop::name(desktop.desktop()) << ": " << limitation;
    const auto& output = desktop.outputs()[0];
    desktop.choose(output.name);
    int before = desktop.chooser_calls();
    test::stderr_capture log; // the workers inherit our standard error
    {
        portal_client client(service, tokens);
        std::string screen = client.first_screen();
        ASSERT_FALSE(screen.empty());
        ASSERT_EQ(client.activate(screen, ingest, "first"), Json({{"status", "Success"}}));
        EXPECT_EQ(desktop.chooser_calls(), before + 1) << "the first activation asks the user";
        EXPECT_TRUE(ingest.wait_for_publishing("first", 10s));
        // The token is kept, private to the user.
        EXPECT_EQ(test::mode_of(tokens), 0600u);

        ASSERT_EQ(client.deactivate(screen), Json({{"status", "Success"}}));
        EXPECT_TRUE(ingest.wait_until_not_publishing("first", 10s));
        ASSERT_EQ(client.activate(screen, ingest, "again"), Json({{"status", "Success"}}));
        EXPECT_TRUE(ingest.wait_for_publishing("again", 10s));
        EXPECT_EQ(desktop.chooser_calls(), before + 1) << "a stored choice was asked again";
    }
    // A restarted client restores the choice as well.
    {
        portal_client restarted(service, tokens);
        std::string screen = restarted.first_screen();
        ASSERT_EQ(restarted.activate(screen, ingest, "restarted"), Json({{"status", "Success"}}));
        EXPECT_TRUE(ingest.wait_for_publishing("restarted", 10s));
        EXPECT_EQ(desktop.chooser_calls(), before + 1);
        auto live = ingest.probe_live("restarted", 15s);
        EXPECT_EQ(live.video_size(), std::make_pair(1280, 720)) << live.error;
    }
    // Every desktop here embeds the pointer, so a presenter's pointer is in the picture.
    EXPECT_NE(log.text().find("media: the screen cast shows the pointer embedded in the picture"), std::string::npos);
    // What arrived is the compositor's picture: the output's background (the clock sits
    // at the top left), in the last frame sent.
    auto seen = test::colour_at(ingest.last_frame("restarted"), 60, 32);
    EXPECT_TRUE(test::near(seen, rgb(output.background), tolerance))
        << "saw " << test::describe(seen) << " instead of " << output.background;
}

// A window picked on the desktop: its picker asks for windows only, the window streams
// filling the picture (GNOME casts it in monitor-sized frames and marks where it is) and
// is fitted into it whole when resized, comes back without the picker, and closing it
// ends the stream.
TEST_P(WaylandDesktops, TheWindowEntryAsksForAWindowThenRestoresItAndItsClosingEndsTheStream)
{
    auto& desktop = this->desktop();
    if (desktop.desktop() == desktop_kind::sway)
        GTEST_SKIP() << "wlroots' portal casts no windows (its empty window list is checked with the listing)";
    if (std::string limitation = desktop.picker_limitation(); !limitation.empty())
        GTEST_SKIP() << "no window is picked on " << test::wayland_desktop::name(desktop.desktop()) << ": "
                     << limitation;
    // Smaller than the 1280x720 monitor, and of another shape.
    const std::string colour = "#22aa44";
    const int window_width = 640, window_height = 400;
    desktop.open_window("orbweave-window", colour, window_width, window_height);
    desktop.choose("orbweave-window");
    portal_client client(service, tokens);
    Json windows = client.list("window")["results"];
    ASSERT_EQ(windows.size(), 1u) << windows;
    EXPECT_EQ(windows[0]["pid"], 0);
    std::string window = windows[0]["id"];

    int before = desktop.chooser_calls();
    Json first = client.activate(window, ingest, "window");
    EXPECT_EQ(desktop.chooser_calls(), before + 1);
    EXPECT_EQ(desktop.last_picker().rfind("window ", 0), 0u) << "the picker asked for " << desktop.last_picker();
    ASSERT_EQ(first, Json({{"status", "Success"}}));
    ASSERT_TRUE(ingest.wait_for_publishing("window", 10s));
    ASSERT_EQ(client.deactivate(window), Json({{"status", "Success"}}));
    ASSERT_EQ(client.activate(window, ingest, "restored"), Json({{"status", "Success"}}));
    EXPECT_EQ(desktop.chooser_calls(), before + 1) << "the window was not restored without the picker";
    auto live = ingest.probe_live("restored", 15s);
    // The stream has the window's size, not the monitor's.
    EXPECT_EQ(live.video_size(), std::make_pair(window_width, window_height)) << live.error;

    // A still window sends one frame: it is the picture, the window's colour from edge to
    // edge (its corners and the middle of each side) and in the middle.
    const test::colour green = rgb(colour), black{0, 0, 0};
    std::vector<std::uint8_t> frame;
    auto shows = [&](std::initializer_list<std::pair<int, int>> points, test::colour expected) {
        return std::all_of(points.begin(), points.end(),
                           [&](auto point) { return test::near(test::colour_at(frame, point.first, point.second), expected, tolerance); });
    };
    auto fills = [&] {
        frame = ingest.last_frame("restored");
        return shows({{1, 1}, {32, 1}, {62, 1}, {1, 18}, {32, 18}, {62, 18}, {1, 34}, {32, 34}, {62, 34}}, green);
    };
    EXPECT_TRUE(test::eventually(fills, 20s, 250ms)) << "the window does not fill the picture: " << test::describe(frame);

    // Made square, it is fitted into the stream whole, its aspect kept: 400 of the 640
    // columns (40 of 64) in its colour from top to bottom, bars left and right.
    desktop.resize_window("orbweave-window", 400, 400);
    auto fitted = [&] {
        frame = ingest.last_frame("restored");
        return shows({{2, 18}, {61, 18}}, black) && shows({{13, 1}, {13, 34}, {32, 18}, {50, 1}, {50, 34}}, green);
    };
    EXPECT_TRUE(test::eventually(fitted, 20s, 250ms)) << "the resized window is not fitted: " << test::describe(frame);

    // The window closed: the desktop ends the cast, and the stream with it.
    desktop.close_window("orbweave-window");
    EXPECT_TRUE(client.app().wait_for_streams({}, portal_client::deadline));
    EXPECT_TRUE(ingest.wait_until_not_publishing("restored", 10s));
}

std::string desktop_name(const ::testing::TestParamInfo<desktop_kind>& info)
{
    switch (info.param) {
    case desktop_kind::sway: return "sway";
    case desktop_kind::gnome: return "GNOME";
    case desktop_kind::kde: return "KDE";
    }
    return "unknown";
}

// One instantiation per desktop, so each desktop's cases run together (its desktop is
// started once for them).
INSTANTIATE_TEST_SUITE_P(Sway, WaylandDesktops, ::testing::Values(desktop_kind::sway), desktop_name);
INSTANTIATE_TEST_SUITE_P(Gnome, WaylandDesktops, ::testing::Values(desktop_kind::gnome), desktop_name);
INSTANTIATE_TEST_SUITE_P(Kde, WaylandDesktops, ::testing::Values(desktop_kind::kde), desktop_name);

} // namespace
} // namespace orbweave
