// The floor under a stream's CPU: libobs in this process capturing screen 0 of a private
// Xvfb (1280x720) into a 1280x720 canvas at 30 fps with no encoder, so that a stream's
// cost (bench_streaming's stream_cpu_s_per_s) splits into capturing and compositing,
// converting to NV12 and reading it back, and encoding. Capture and GL cost the same
// whatever the screen shows, so the screen is left still. CPU seconds per second over
// 20 s (this process; no other work of ours runs in it):
//
//   floor_renderer NAME              the GL renderer libobs draws with
//   floor_idle_canvas_cpu_s_per_s    the canvas runs and shows nothing
//   floor_composite_cpu_s_per_s      the canvas shows the screen; nothing takes its frames
//   floor_nv12_gpu_cpu_s_per_s       the same with a consumer of raw NV12 frames (what an
//                                    encoder is given), converted by shaders and read back
//   floor_nv12_cpu_cpu_s_per_s       the same, the canvas read back as BGRA and converted
//                                    by libobs's scaler on the CPU
//   floor_chosen_conversion GPU|CPU  the one a canvas stream takes
//   floor_direct_nv12_cpu_s_per_s    no canvas: the screen grabbed through shared memory
//                                    and converted to NV12 by libobs's scaler for a
//                                    consumer (media/screen_feed, what a screen stream
//                                    takes on a software renderer)
//                                    (the screen still: XDamage says nothing changed)
//   floor_direct_nv12_moving_cpu_s_per_s  the same with a moving test pattern over the
//                                    whole screen (everything grabbed every frame)
//   floor_direct_chosen yes|no       whether a screen stream on this machine takes it
//
// And for each of the three, from libobs's own profiler, what one frame goes through:
//
//   split_<phase> capture=.. composite=.. output_pass=.. conversion=.. readback=..
//                 cpu_conversion=.. frame=..   (milliseconds per frame on the thread that
//                                               does it)
//   passes_<phase> main=.. output=.. convert=.. readback=..   (per frame)
//
// capture is the source's tick (the screen grabbed and uploaded), composite the canvas
// drawn, output_pass the pass libobs draws when the output differs from the canvas (for
// BGRA it always does), conversion the two shader passes to NV12, readback the copy to
// memory, cpu_conversion libobs's scaler on its video thread. A software renderer
// rasterises a pass when its pixels are next read, so a pass's cost shows where the next
// one reads it; the CPU figures above are the totals to trust.

#include "core/obs/child_process.hpp"
#include "media/catalogue.hpp"
#include "media/direct_video.hpp"
#include "media/runtime.hpp"
#include "media/screen_feed.hpp"
#include "media/unique_handle.hpp"
#include "tests/support/media_fixtures.hpp"

#include <obs.h>
#include <media-io/video-io.h>
#include <util/profiler.h>

#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

using namespace orbweave;
using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

constexpr auto window = 20s;
constexpr auto warm_up = 3s;
constexpr unsigned width = 1280;
constexpr unsigned height = 720;
constexpr unsigned fps = 30;

double cpu_seconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& time) { return static_cast<double>(time.tv_sec) + time.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

/// Calls and microseconds per profiler entry (by name, wherever it sits in the tree).
struct profile {
    struct totals {
        double calls = 0;
        double microseconds = 0;
    };
    std::map<std::string, totals> entries;

    static profile now()
    {
        profile taken;
        profiler_snapshot_t* snapshot = profile_snapshot_create();
        profiler_snapshot_enumerate_roots(snapshot, add, &taken);
        profile_snapshot_free(snapshot);
        return taken;
    }

    profile since(const profile& earlier) const
    {
        profile delta = *this;
        for (const auto& [name, before] : earlier.entries) {
            delta.entries[name].calls -= before.calls;
            delta.entries[name].microseconds -= before.microseconds;
        }
        return delta;
    }

    /// The first entry whose name starts with prefix (the graphics thread's root carries its interval).
    totals of(const std::string& prefix) const
    {
        auto found = entries.lower_bound(prefix);
        if (found == entries.end() || found->first.compare(0, prefix.size(), prefix) != 0)
            return {};
        return found->second;
    }

private:
    static bool add(void* data, profiler_snapshot_entry_t* entry)
    {
        auto* taken = static_cast<profile*>(data);
        profiler_time_entries_t* times = profiler_snapshot_entry_times(entry);
        totals& sum = taken->entries[profiler_snapshot_entry_name(entry)];
        for (size_t i = 0; i < times->num; ++i) {
            sum.calls += static_cast<double>(times->array[i].count);
            sum.microseconds += static_cast<double>(times->array[i].count * times->array[i].time_delta);
        }
        profiler_snapshot_enumerate_children(entry, add, data);
        return true;
    }
};

void print(const char* name, double value)
{
    std::printf("%s %.2f\n", name, value);
    std::fflush(stdout);
}

/// CPU seconds per second of this process over the window, after a warm-up; given a
/// phase, also prints what one frame went through under that name.
double measure(const char* phase = nullptr)
{
    std::this_thread::sleep_for(warm_up);
    profile before = profile::now();
    double cpu_before = cpu_seconds();
    auto start = clock_type::now();
    std::this_thread::sleep_for(window);
    double used = cpu_seconds() - cpu_before;
    double rate = used / std::chrono::duration<double>(clock_type::now() - start).count();
    if (!phase)
        return rate;

    profile frame = profile::now().since(before);
    double frames = frame.of("obs_graphics_thread(").calls;
    if (frames <= 0)
        throw std::runtime_error("the graphics thread rendered no frame");
    auto ms = [&](const char* name) { return frame.of(name).microseconds / 1000.0 / frames; };
    auto per_frame = [&](const char* name) { return frame.of(name).calls / frames; };
    std::printf("split_%s capture=%.2f composite=%.2f output_pass=%.2f conversion=%.2f readback=%.2f "
                "cpu_conversion=%.2f frame=%.2f\n",
                phase, ms("tick_sources"), ms("render_main_texture"), ms("render_output_texture"),
                ms("render_convert_texture"), ms("stage_output_texture") + ms("download_frame"),
                ms("video_thread("), ms("obs_graphics_thread("));
    std::printf("passes_%s main=%.2f output=%.2f convert=%.2f readback=%.2f\n", phase,
                per_frame("render_main_texture"), per_frame("render_output_texture"),
                per_frame("render_convert_texture"), per_frame("stage_output_texture"));
    std::fflush(stdout);
    return rate;
}

/// A consumer of raw NV12 frames at the canvas's size, as an encoder is.
class nv12_consumer {
public:
    nv12_consumer()
    {
        video_scale_info nv12{};
        nv12.format = VIDEO_FORMAT_NV12;
        nv12.width = width;
        nv12.height = height;
        nv12.range = VIDEO_RANGE_DEFAULT;
        nv12.colorspace = VIDEO_CS_DEFAULT;
        obs_add_raw_video_callback(&nv12, ignore, nullptr);
    }
    ~nv12_consumer() { obs_remove_raw_video_callback(ignore, nullptr); }
    nv12_consumer(const nv12_consumer&) = delete;
    nv12_consumer& operator=(const nv12_consumer&) = delete;

private:
    static void ignore(void*, video_data*) {}
};

void run()
{
    obs::runtime_options options;
    options.video = obs::canvas{width, height, fps};
    obs::runtime libobs(options);
    obs::colour_conversion chosen = obs::current_video_path().conversion;
    std::printf("floor_renderer %s\n", obs::current_video_path().renderer.c_str());
    print("floor_idle_canvas_cpu_s_per_s", measure());

    obs::data_handle settings(obs_data_create());
    obs_data_set_int(settings.get(), "screen", 0);
    obs::source_handle screen(obs_source_create(obs::capture_id::screen, "screen", settings.get(), nullptr));
    if (!screen)
        throw std::runtime_error("cannot create the screen source");
    obs_set_output_source(0, screen.get());
    print("floor_composite_cpu_s_per_s", measure("composite"));

    for (auto conversion : {obs::colour_conversion::gpu, obs::colour_conversion::cpu}) {
        if (!obs::initialize_video(width, height, fps, conversion))
            throw std::runtime_error("cannot reset the canvas");
        nv12_consumer consumer;
        bool gpu = conversion == obs::colour_conversion::gpu;
        print(gpu ? "floor_nv12_gpu_cpu_s_per_s" : "floor_nv12_cpu_cpu_s_per_s",
              measure(gpu ? "nv12_gpu" : "nv12_cpu"));
    }
    std::printf("floor_chosen_conversion %s\n", obs::to_string(chosen));
    obs_set_output_source(0, nullptr);
    screen.reset();

    // The canvas goes on running (a stream's sound is mixed there) but shows nothing.
    obs::screen_entry entry(0, "Display 1", "1280x720", 0, 0, width, height);
    obs::screen_feed feed(entry, {static_cast<int>(width), static_cast<int>(height)});
    auto ignore = [](void*, video_data*) {};
    if (!video_output_connect(feed.video(), nullptr, ignore, nullptr))
        throw std::runtime_error("cannot take the screen feed's frames");
    print("floor_direct_nv12_cpu_s_per_s", measure());
    {
        // The whole screen changing every frame: everything grabbed and converted.
        obs::child_process::options options;
        options.argv = {"ffplay", "-loglevel", "error", "-an", "-f", "lavfi", "-i", "testsrc2=size=1280x720:rate=30",
                        "-vf", "format=rgb0", "-noborder", "-left", "0", "-top", "0"};
        options.environment = {{"SDL_AUDIODRIVER", "dummy"}};
        obs::child_process content(options);
        print("floor_direct_nv12_moving_cpu_s_per_s", measure());
        content.kill_and_wait();
    }
    video_output_disconnect(feed.video(), ignore, nullptr);
    std::printf("floor_direct_chosen %s\n", obs::feeds_directly(obs::capture_route::x11, callback::source_type::screen) ? "yes" : "no");
}

} // namespace

int main()
{
    test::media_environment::options settings;
    settings.screens = {{static_cast<int>(width), static_cast<int>(height)}};
    settings.windows = {};
    test::media_environment environment(settings);
    int status = 0;
    // libobs profiles its graphics and video threads only while the profiler runs.
    profiler_start();
    try {
        environment.SetUp();
        obs::route_log_to_stderr(LOG_ERROR);
        run();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_libobs_floor: %s\n", error.what());
        status = 1;
    }
    environment.TearDown();
    profiler_stop();
    profiler_free();
    return status;
}
