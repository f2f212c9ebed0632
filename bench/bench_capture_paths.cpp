// The CPU of a stream by the way its pictures reach the encoder, on a software renderer:
// past the canvas (converted on the CPU straight from the capture) against through
// libobs's canvas, and against ffmpeg. The same moving test pattern (testsrc2 at 30 fps,
// 1280x720) is shown in every case; each stream is 1280x720 at 1500 kbps. One line per
// figure:
//
//   x11_window_cpu_s_per_s ours=.. screen_feed=.. ratio=..: a stream worker streaming the
//     pattern's window, past the canvas, against the X11 screen feed streaming the screen
//     the window covers (the same pixels).
//   x11_window_canvas_cpu_s_per_s ours=.. screen_feed=.. ratio=..: the same window
//     through the canvas.
//   x11_screen_cpu_s_per_s ours=.. ffmpeg=.. ratio=..: the screen feed against ffmpeg
//     (x11grab + libx264 veryfast + AAC).
//   wayland_screen_cpu_s_per_s ours=.. ffmpeg=.. ratio=..: a sway output showing the
//     pattern, streamed through the desktop portal past the canvas, against ffmpeg's
//     x11grab of the X11 screen of the same size showing the same pattern.
//   wayland_screen_canvas_cpu_s_per_s ours=.. ffmpeg=.. ratio=..: the same output
//     through the canvas.
//   machine_load_1m: how busy the machine was (2 cores here).
//
// Arguments name the parts to run (x11, wayland); without any, both. The Wayland part
// needs the headless sway fixture's packages, and is left out (said so) without them.
// With ORBWEAVE_BENCH_JSON set, the figures are also written there as one JSON object.

#include "core/obs/child_process.hpp"
#include "core/obs/requests.hpp"
#include "core/obs/worker.hpp"
#include "core/obs/worker_manager.hpp"
#include "tests/support/media_fixtures.hpp"
#include "tests/support/processes.hpp"
#include "tests/support/rtmp_ingest.hpp"
#include "tests/support/wayland_desktop.hpp"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace orbweave;
using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

constexpr auto deadline = 20s;
constexpr auto warm_up = 3s;
constexpr auto window = 20s;
constexpr int width = 1280;
constexpr int height = 720;

Json summary = Json::object();

void figure(const std::string& name, double value, const char* format = "%.2f")
{
    summary[name] = value;
    std::printf("%s ", name.c_str());
    std::printf(format, value);
    std::printf("\n");
    std::fflush(stdout);
}

void side_by_side(const std::string& name, double ours, const char* other_name, double other)
{
    double ratio = other > 0 ? ours / other : 0.0;
    summary[name] = {{"ours", ours}, {other_name, other}, {"ratio", ratio}};
    std::printf("%s ours=%.3f %s=%.3f ratio=%.2f\n", name.c_str(), ours, other_name, other, ratio);
    std::fflush(stdout);
}

void progress(const std::string& text)
{
    std::fprintf(stderr, "bench: %s\n", text.c_str());
}

/// utime + stime of pid in seconds.
double cpu_seconds(pid_t pid)
{
    std::string file = "/proc/" + std::to_string(pid) + "/stat";
    if (std::optional<double> seconds = test::cpu_seconds_in(file))
        return *seconds;
    throw std::runtime_error("cannot read " + file);
}

/// CPU seconds per second of pid over the window, after the warm-up.
double cpu_rate(pid_t pid)
{
    std::this_thread::sleep_for(warm_up); // past the start-up burst
    double before = cpu_seconds(pid);
    auto start = clock_type::now();
    std::this_thread::sleep_for(window); // the measuring window itself
    double seconds = std::chrono::duration<double>(clock_type::now() - start).count();
    return (cpu_seconds(pid) - before) / seconds;
}

/// The CPU of a stream worker streaming source by route ("direct" or "canvas").
double stream_cpu(const obs::source_entry& source, const char* route, obs::worker::options options,
                  test::rtmp_ingest& ingest, const std::string& key)
{
    ::setenv("ORBWEAVE_SCREEN_CAPTURE", route, 1);
    obs::worker stream(options);
    auto started = stream.stream(test::order_for(source, {{"profile", "medium"}}, ingest.url(), key));
    ::unsetenv("ORBWEAVE_SCREEN_CAPTURE");
    if (!started.started)
        throw std::runtime_error("the stream of " + key + " did not start: " + started.error);
    double rate = cpu_rate(stream.pid());
    if (!ingest.publishing(key))
        throw std::runtime_error(key + " was not publishing at the end of the window");
    stream.shutdown();
    return rate;
}

/// testsrc2 at 30 fps shown by ffplay, without a border, width x height at the top left.
std::unique_ptr<obs::child_process> moving_pattern(std::vector<std::pair<std::string, std::string>> environment)
{
    obs::child_process::options options;
    options.argv = {"ffplay", "-loglevel", "error", "-an", "-f", "lavfi", "-i",
                    "testsrc2=size=" + std::to_string(width) + "x" + std::to_string(height) + ":rate=30", "-vf",
                    "format=rgb0", "-x", std::to_string(width), "-y", std::to_string(height), "-noborder", "-left",
                    "0", "-top", "0", "-window_title", "orbweave-pattern"};
    environment.emplace_back("SDL_AUDIODRIVER", "dummy");
    options.environment = environment;
    return std::make_unique<obs::child_process>(options);
}

std::unique_ptr<obs::child_process> ffmpeg_pusher(const std::string& url)
{
    obs::child_process::options options;
    std::string display = std::getenv("DISPLAY");
    options.argv = {"ffmpeg", "-nostdin", "-loglevel", "error", "-f", "x11grab", "-video_size",
                    std::to_string(width) + "x" + std::to_string(height), "-framerate", "30", "-i", display + ".0",
                    "-f", "pulse", "-i", "default", "-c:a", "aac", "-pix_fmt", "yuv420p", "-c:v", "libx264",
                    "-preset", "veryfast", "-b:v", "1500k", "-maxrate", "1500k", "-bufsize", "1500k", "-g", "60",
                    "-f", "flv", url};
    return std::make_unique<obs::child_process>(options);
}

/// The X11 part; ffmpeg's CPU on the pattern, for the Wayland part to compare with.
double x11_part()
{
    progress("X11: the pattern's window past the canvas and through it, the screen feed, ffmpeg; 20 s each");
    test::media_environment::options settings;
    settings.screens = {{width, height}};
    settings.windows = {};
    test::media_environment environment(settings);
    environment.SetUp();
    test::rtmp_ingest ingest;
    auto pattern = moving_pattern({{"DISPLAY", std::getenv("DISPLAY")}});
    std::string found;
    bool shown = false;
    for (auto end = clock_type::now() + deadline; !shown && clock_type::now() < end;) {
        found = test::run_program({"xdotool", "search", "--onlyvisible", "--name", "orbweave-pattern"}, 5s);
        shown = !found.empty() && std::isdigit(static_cast<unsigned char>(found[0]));
        if (!shown)
            std::this_thread::sleep_for(100ms); // polling for the window, bounded by the deadline
    }
    if (!shown)
        throw std::runtime_error("the pattern's window did not show");
    int xid = std::stoi(found);
    auto screens = obs::worker().list_screens();
    if (screens.empty())
        throw std::runtime_error("no screen listed");
    obs::window_entry pattern_window("ffplay", "orbweave-pattern", xid);
    auto options = obs::worker_manager::stream_worker_options();
    options.capture = obs::capture_route::x11;

    double screen_feed = stream_cpu(screens[0], "direct", options, ingest, "x11-screen");
    double window_direct = stream_cpu(pattern_window, "direct", options, ingest, "x11-window-direct");
    double window_canvas = stream_cpu(pattern_window, "canvas", options, ingest, "x11-window-canvas");
    auto pusher = ffmpeg_pusher(ingest.stream_url("x11-ffmpeg"));
    if (!ingest.wait_for_publishing("x11-ffmpeg", deadline))
        throw std::runtime_error("the ffmpeg pusher did not publish");
    double ffmpeg = cpu_rate(pusher->pid());
    pusher->kill(SIGINT);
    if (!pusher->wait_for(5s))
        pusher->kill_and_wait();
    pattern->kill_and_wait();
    environment.TearDown();

    side_by_side("x11_window_cpu_s_per_s", window_direct, "screen_feed", screen_feed);
    side_by_side("x11_window_canvas_cpu_s_per_s", window_canvas, "screen_feed", screen_feed);
    side_by_side("x11_screen_cpu_s_per_s", screen_feed, "ffmpeg", ffmpeg);
    return ffmpeg;
}

struct wayland_figures {
    double direct = 0;
    double canvas = 0;
};

/// Runs first, in a clean environment, and leaves it as it found it.
std::optional<wayland_figures> wayland_part()
{
    auto missing = test::wayland_desktop::missing_packages(test::wayland_desktop::kind::sway);
    if (!missing.empty()) {
        progress("Wayland: left out, sway's fixture is missing " + missing.front());
        return std::nullopt;
    }
    progress("Wayland: a sway output showing the pattern, past the canvas and through it; 20 s each");
    test::wayland_desktop::options settings;
    settings.busy = false;
    test::wayland_desktop desktop(settings);
    std::vector<std::pair<std::string, std::optional<std::string>>> before;
    for (const auto& [name, value] : desktop.environment()) {
        const char* old = std::getenv(name.c_str());
        before.emplace_back(name, old ? std::optional<std::string>(old) : std::nullopt);
    }
    desktop.export_environment();
    test::rtmp_ingest ingest;
    const auto& output = desktop.outputs()[0];
    // On its own on the output, sway gives the pattern's window all of it.
    auto pattern = moving_pattern({{"SDL_VIDEODRIVER", "wayland"}});
    desktop.choose(output.name);
    obs::worker::options listing_options;
    listing_options.capture = obs::capture_route::portal;
    obs::worker listing(listing_options);
    auto screens = listing.list_screens();
    if (screens.empty())
        throw std::runtime_error("no Wayland output listed");
    auto options = obs::worker_manager::stream_worker_options();
    options.capture = obs::capture_route::portal;
    wayland_figures figures;
    figures.direct = stream_cpu(screens[0], "direct", options, ingest, "wayland-direct");
    figures.canvas = stream_cpu(screens[0], "canvas", options, ingest, "wayland-canvas");
    pattern->kill_and_wait();
    for (const auto& [name, value] : before) {
        if (value)
            ::setenv(name.c_str(), value->c_str(), 1);
        else
            ::unsetenv(name.c_str());
    }
    return figures;
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> parts(argv + 1, argv + argc);
    auto wanted = [&](const std::string& part) {
        return parts.empty() || std::find(parts.begin(), parts.end(), part) != parts.end();
    };
    try {
        std::optional<wayland_figures> wayland;
        if (wanted("wayland"))
            wayland = wayland_part();
        std::optional<double> ffmpeg;
        if (wanted("x11"))
            ffmpeg = x11_part();
        if (wayland && ffmpeg) {
            side_by_side("wayland_screen_cpu_s_per_s", wayland->direct, "ffmpeg", *ffmpeg);
            side_by_side("wayland_screen_canvas_cpu_s_per_s", wayland->canvas, "ffmpeg", *ffmpeg);
        } else if (wayland) {
            side_by_side("wayland_screen_cpu_s_per_s", wayland->direct, "canvas", wayland->canvas);
        }
        std::ifstream load("/proc/loadavg");
        double one_minute = 0;
        if (load >> one_minute)
            figure("machine_load_1m", one_minute);
        if (const char* path = std::getenv("ORBWEAVE_BENCH_JSON"))
            std::ofstream(path) << summary.dump(2) << '\n';
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_capture_paths: %s\n", error.what());
        return 1;
    }
    return 0;
}
