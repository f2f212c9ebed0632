// The floor under a stream's CPU: libobs in this process capturing screen 0 of a private
// Xvfb (1280x720) into a 1280x720 canvas at 30 fps with no encoder, so that a stream's
// cost (bench_streaming's stream_cpu_s_per_s) splits into capturing and compositing,
// converting to NV12 and reading it back, and encoding. Capture and GL cost the same
// whatever the screen shows, so the screen is left still. One line per figure, CPU
// seconds per second over 20 s (this process; no other work of ours runs in it):
//
//   floor_idle_canvas_cpu_s_per_s  the canvas runs and shows nothing
//   floor_composite_cpu_s_per_s    the canvas shows the screen; nothing takes its frames
//   floor_nv12_cpu_s_per_s         the same, with a consumer of raw NV12 frames (what an
//                                  encoder is given; libobs converts and reads back only then)

#include "media/catalogue.hpp"
#include "media/runtime.hpp"
#include "media/unique_handle.hpp"
#include "tests/support/media_fixtures.hpp"

#include <obs.h>

#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <thread>

namespace {

using namespace orbweave;
using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

constexpr auto window = 20s;
constexpr auto warm_up = 3s;

double cpu_seconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& time) { return static_cast<double>(time.tv_sec) + time.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

/// CPU seconds per second of this process over the window, after a warm-up.
double cpu_rate()
{
    std::this_thread::sleep_for(warm_up);
    double before = cpu_seconds();
    auto start = clock_type::now();
    std::this_thread::sleep_for(window);
    double used = cpu_seconds() - before;
    return used / std::chrono::duration<double>(clock_type::now() - start).count();
}

void print(const char* name, double value)
{
    std::printf("%s %.2f\n", name, value);
    std::fflush(stdout);
}

void measure()
{
    obs::runtime_options options;
    options.video = obs::canvas{1280, 720, 30};
    obs::runtime libobs(options);
    print("floor_idle_canvas_cpu_s_per_s", cpu_rate());

    obs::data_handle settings(obs_data_create());
    obs_data_set_int(settings.get(), "screen", 0);
    obs::source_handle screen(obs_source_create(obs::capture_id::screen, "screen", settings.get(), nullptr));
    if (!screen)
        throw std::runtime_error("cannot create the screen source");
    obs_set_output_source(0, screen.get());
    print("floor_composite_cpu_s_per_s", cpu_rate());

    video_scale_info nv12{};
    nv12.format = VIDEO_FORMAT_NV12;
    nv12.width = 1280;
    nv12.height = 720;
    nv12.range = VIDEO_RANGE_DEFAULT;
    nv12.colorspace = VIDEO_CS_DEFAULT;
    auto ignore = [](void*, video_data*) {};
    obs_add_raw_video_callback(&nv12, ignore, nullptr);
    print("floor_nv12_cpu_s_per_s", cpu_rate());
    obs_remove_raw_video_callback(ignore, nullptr);
    obs_set_output_source(0, nullptr);
}

} // namespace

int main()
{
    test::media_environment::options settings;
    settings.screens = {{1280, 720}};
    settings.windows = {};
    test::media_environment environment(settings);
    int status = 0;
    try {
        environment.SetUp();
        obs::route_log_to_stderr(LOG_ERROR);
        measure();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_libobs_floor: %s\n", error.what());
        status = 1;
    }
    environment.TearDown();
    return status;
}
