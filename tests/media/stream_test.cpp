// Streams end to end: a real media worker process (started without a canvas, as a
// stream worker is) captures a screen, window or audio device of a private Xvfb /
// PulseAudio, encodes it and pushes it over RTMP to a private nginx ingest; ffprobe
// and ffmpeg check what arrived. Everything runs on loopback and is started here.

#include "core/obs/child_process.hpp"
#include "core/obs/worker.hpp"
#include "media/capture_source.hpp"
#include "media/encoders.hpp"
#include "media/output.hpp"
#include "media/runtime.hpp"
#include "media/screen_feed.hpp"
#include "tests/support/blocking_queue.hpp"
#include "tests/support/client_harness.hpp"
#include "tests/support/eventually.hpp"
#include "tests/support/fault_proxy.hpp"
#include "tests/support/media_fixtures.hpp"
#include "tests/support/processes.hpp"
#include "tests/support/rtmp_chunks.hpp"
#include "tests/support/rtmp_ingest.hpp"
#include "tests/support/scoped_environment.hpp"
#include "tests/support/stderr_capture.hpp"
#include "tests/support/temp_dir.hpp"

#include <gtest/gtest.h>

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/cursorfont.h>
#include <media-io/video-io.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <atomic>
#include <chrono>
#include <iostream>
#include <limits>
#include <memory>
#include <mutex>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <sstream>
#include <thread>
#include <vector>

namespace orbweave::obs {
namespace {

using namespace std::chrono_literals;
using clock = std::chrono::steady_clock;
using test::colour_at;
using test::describe;
using test::near;
using test::order_for;

[[maybe_unused]] auto* const environment = ::testing::AddGlobalTestEnvironment(new test::media_environment);

// An activation may take: 5 s for the source's size, then two attempts of 10 s each.
constexpr auto activation_limit = 26s;

std::unique_ptr<worker> stream_worker()
{
    worker::options options;
    options.stream_worker = true;
    return std::make_unique<worker>(options);
}

struct activation {
    pipe::stream_result result;
    std::chrono::milliseconds took;
};

activation activate(worker& media, const pipe::stream_order& order)
{
    auto begun = clock::now();
    pipe::stream_result result = media.stream(order);
    return {result, std::chrono::duration_cast<std::chrono::milliseconds>(clock::now() - begun)};
}

/// A fresh stream key per use, so recordings never overwrite each other.
std::string new_key(const std::string& label)
{
    static std::atomic<int> counter{0};
    return "k" + std::to_string(++counter) + "-" + label;
}

// One ingest and the catalogue's screens for every case.
class Streaming : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        ingest_ = new test::rtmp_ingest;
        worker listing;
        screens_ = new std::vector<screen_entry>(obs::entries_of<screen_entry>(listing.list(callback::source_type::screen)));
    }
    static void TearDownTestSuite()
    {
        delete ingest_;
        delete screens_;
        ingest_ = nullptr;
    }

    static const screen_entry& screen(std::size_t index)
    {
        if (index >= screens_->size())
            throw std::runtime_error("no screen " + std::to_string(index));
        return (*screens_)[index];
    }

    static test::rtmp_ingest* ingest_;
    static std::vector<screen_entry>* screens_;
};
test::rtmp_ingest* Streaming::ingest_ = nullptr;
std::vector<screen_entry>* Streaming::screens_ = nullptr;

// Also read off the wire between the worker and the ingest: a player that joins at the
// start decodes from the very first coded frame.
TEST_F(Streaming, ScreenAtMediumArrivesAsH264AndAacDecodableFromItsFirstFrameAndStopsWithItsWorker)
{
    using test::rtmp_chunks;
    std::mutex mutex;
    std::vector<rtmp_chunks::message> seen; // audio and video, the first two payload bytes
    std::atomic<bool> readable{true};
    rtmp_chunks reader([&](const rtmp_chunks::message& m) {
        if (m.type != rtmp_chunks::audio && m.type != rtmp_chunks::video)
            return;
        rtmp_chunks::message head = m;
        head.payload.resize(std::min<std::size_t>(head.payload.size(), 2));
        std::lock_guard<std::mutex> lock(mutex);
        seen.push_back(head);
    });
    test::fault_proxy wire(ingest_->rtmp_port());
    wire.tap([&](int, std::string_view bytes) {
        if (!reader.feed(bytes))
            readable = false;
    });
    std::string key = new_key("screen-medium");
    std::string secret_key = key; // must never appear in the worker's log
    test::stderr_capture log;
    auto media = stream_worker();
    auto order = order_for(screen(0), {{"profile", "medium"}}, "rtmp://127.0.0.1:" + std::to_string(wire.port()) + "/live", key);
    auto [result, took] = activate(*media, order);
    ASSERT_TRUE(result.started) << result.error;
    std::cout << "[ measured ] screen 1280x720 activation (request to started): " << took.count() << " ms\n";
    RecordProperty("activation_ms", static_cast<int>(took.count()));
    // "started" means sending: the ingest already has the publisher.
    EXPECT_TRUE(ingest_->publishing(key));

    auto live = ingest_->probe_live(key, 15s);
    ASSERT_TRUE(live.error.empty()) << live.error;
    ASSERT_NE(live.video(), nullptr);
    EXPECT_EQ(live.video()->codec_name, "h264");
    EXPECT_EQ(live.video_size(), std::make_pair(1280, 720));
    EXPECT_NEAR(live.video()->frame_rate, 30.0, 0.5);
    ASSERT_NE(live.audio(), nullptr);
    EXPECT_EQ(live.audio()->codec_name, "aac");
    EXPECT_EQ(live.audio()->sample_rate, 44100);
    EXPECT_EQ(live.audio()->channels, 2);

    // A worker carries one stream for its life, and shutting it down ends the stream
    // with every libobs object released and no process left.
    EXPECT_THROW(media->stream(order), std::runtime_error);
    pid_t pid = media->pid();
    auto begun = clock::now();
    auto leaks = media->shutdown();
    EXPECT_LT(clock::now() - begun, 10s);
    ASSERT_TRUE(leaks) << "the worker did not answer shutdown (it was killed)";
    EXPECT_EQ(*leaks, 0) << "libobs objects of the stream were not released";
    EXPECT_TRUE(test::process_gone(pid));
    EXPECT_TRUE(ingest_->wait_until_not_publishing(key, 5s));

    // The recording holds both tracks, and the screen's picture rather than a black frame.
    auto recorded = ingest_->probe_recording(key);
    ASSERT_TRUE(recorded.error.empty()) << recorded.error;
    ASSERT_NE(recorded.video(), nullptr);
    EXPECT_EQ(recorded.video()->codec_name, "h264");
    EXPECT_EQ(recorded.video()->width, 1280);
    EXPECT_EQ(recorded.codec("audio"), "aac");
    EXPECT_GT(recorded.duration, 0.5);
    auto frame = ingest_->recording_frame(key, std::max(0.0, recorded.duration - 0.5), 64, 36);
    ASSERT_EQ(frame.size(), 64u * 36u);
    auto [darkest, brightest] = std::minmax_element(frame.begin(), frame.end());
    EXPECT_GT(*brightest - *darkest, 40) << "the picture is flat: the screen was not captured";

    std::string text = log.text();
    // The order is logged whole, with the stream key masked.
    EXPECT_NE(text.find(json::dump(json::redacted(order.to_json()))), std::string::npos);
    EXPECT_NE(text.find("\"key\":\"***\""), std::string::npos);
    EXPECT_EQ(text.find(secret_key), std::string::npos) << "the stream key reached the log";
    EXPECT_EQ(log.count_lines_starting(software_fallback_line), 0);
    ASSERT_TRUE(readable) << "the chunk stream did not read as RTMP";
    std::lock_guard<std::mutex> lock(mutex);
    auto nth = [&](std::uint8_t type, std::size_t n) -> std::string {
        for (const auto& m : seen)
            if (m.type == type && n-- == 0)
                return m.payload;
        return {};
    };
    // Video: key frame + AVC; the decoder configuration (packet type 0), then a coded key frame.
    EXPECT_EQ(nth(rtmp_chunks::video, 0), std::string("\x17\x00", 2));
    EXPECT_EQ(nth(rtmp_chunks::video, 1), std::string("\x17\x01", 2));
    // Audio: AAC (sound format 10), its configuration (packet type 0), then raw frames.
    ASSERT_EQ(nth(rtmp_chunks::audio, 0).size(), 2u);
    ASSERT_EQ(nth(rtmp_chunks::audio, 1).size(), 2u);
    EXPECT_EQ(static_cast<std::uint8_t>(nth(rtmp_chunks::audio, 0)[0]) >> 4, 10);
    EXPECT_EQ(nth(rtmp_chunks::audio, 0)[1], 0);
    EXPECT_EQ(nth(rtmp_chunks::audio, 1)[1], 1);
}

/// Checks a decoded 64x36 RGB frame of the colour stripes (a red, a green and a blue
/// stripe from top to bottom, each a ramp from black on the left to full on the right,
/// over the whole first screen): each stripe's middle row at the columns given (of 64),
/// within what H.264 at 4:2:0 keeps of a smooth ramp.
void expect_colour_stripes(const std::vector<std::uint8_t>& frame, std::vector<int> stripes, std::vector<int> columns)
{
    const std::array<std::array<int, 3>, 3> stripes_rgb{{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}};
    for (int stripe : stripes) {
        int y = stripe * 12 + 6;
        for (int x : columns) {
            test::colour pixel = colour_at(frame, x, y);
            // Pixel px of the 1280 is at level px * 256 / 1280; x is the middle of 20 of them.
            int level = (x * 2 + 1) * 256 / 128;
            for (int channel = 0; channel < 3; ++channel)
                EXPECT_NEAR(pixel[channel], stripes_rgb[stripe][channel] * level, 24)
                    << "stripe " << stripe << " at x " << x << ", channel " << channel;
        }
    }
}

// How far a colour may drift through H.264 and the scale-down, at the ingest.
constexpr int tolerance = 48;

constexpr test::colour black{0, 0, 0};
constexpr test::colour red{255, 0, 0};
constexpr test::colour green{0, 255, 0};
constexpr test::colour blue{0, 0, 255};

struct video_frame {
    double time;
    long long bytes;
    bool key;
    char type; ///< 'I', 'P' or 'B'
};

/// The video frames of the first `seconds` of a live stream, as ffprobe decodes them.
std::vector<video_frame> video_frames(const std::string& url, int seconds)
{
    std::string text = test::run_program({"ffprobe", "-v", "error", "-select_streams", "v:0", "-show_entries",
                                          "frame=key_frame,pts_time,pkt_size,pict_type", "-of", "csv=p=0",
                                          "-read_intervals", "%+" + std::to_string(seconds), url},
                                         std::chrono::seconds(seconds + 20));
    std::vector<video_frame> frames;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        video_frame frame{};
        int key = 0;
        if (std::sscanf(line.c_str(), "%d,%lf,%lld,%c", &key, &frame.time, &frame.bytes, &frame.type) == 4) {
            frame.key = key != 0;
            frames.push_back(frame);
        }
    }
    return frames;
}

/// Calls tick on a thread of its own every interval until it is destroyed: a screen
/// that changes at a pace, not a wait for anything.
class ticker {
public:
    ticker(std::chrono::milliseconds interval, std::function<void()> tick)
        : thread_([this, interval, tick = std::move(tick)] {
              std::unique_lock<std::mutex> lock(mutex_);
              while (!stopping_) {
                  tick();
                  stop_.wait_for(lock, interval, [this] { return stopping_; });
              }
          })
    {
    }
    ~ticker()
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
        }
        stop_.notify_all();
        thread_.join();
    }

private:
    std::mutex mutex_;
    std::condition_variable stop_;
    bool stopping_ = false;
    std::thread thread_; // last: it runs on the members above
};

/// The colour stripes over the whole first screen, as a window's background (drawn by the
/// X server itself: no program redraws them), with a white square that a thread moves along
/// the top of the screen every 100 ms while moving() is on. Nothing else changes.
class still_stripes_and_a_moving_square {
public:
    static constexpr int square = 160;

    still_stripes_and_a_moving_square() : display_(XOpenDisplay(nullptr))
    {
        if (!display_)
            throw std::runtime_error("cannot open the display");
        Window root = RootWindow(display_, 0);
        int depth = DefaultDepth(display_, 0);
        Pixmap stripes = XCreatePixmap(display_, root, 1280, 720, static_cast<unsigned>(depth));
        std::vector<std::uint32_t> pixels(1280 * 720);
        for (int y = 0; y < 720; ++y)
            for (int x = 0; x < 1280; ++x)
                pixels[static_cast<std::size_t>(y) * 1280 + x] = static_cast<std::uint32_t>(x * 256 / 1280)
                                                                 << (16 - 8 * (y / 240));
        XImage* image = XCreateImage(display_, DefaultVisual(display_, 0), static_cast<unsigned>(depth), ZPixmap, 0,
                                     reinterpret_cast<char*>(pixels.data()), 1280, 720, 32, 0);
        XPutImage(display_, stripes, DefaultGC(display_, 0), image, 0, 0, 0, 0, 1280, 720);
        image->data = nullptr; // the vector owns it
        XDestroyImage(image);
        // Both above everything, the test windows included, outside the window manager.
        XSetWindowAttributes attributes{};
        attributes.override_redirect = True;
        attributes.background_pixmap = stripes;
        backdrop_ = XCreateWindow(display_, root, 0, 0, 1280, 720, 0, CopyFromParent, InputOutput, CopyFromParent,
                                  CWOverrideRedirect | CWBackPixmap, &attributes);
        XFreePixmap(display_, stripes);
        XMapRaised(display_, backdrop_);
        attributes.background_pixel = WhitePixel(display_, 0);
        square_ = XCreateWindow(display_, root, 0, 0, square, square / 4 * 3, 0, CopyFromParent, InputOutput,
                                CopyFromParent, CWOverrideRedirect | CWBackPixel, &attributes);
        // The pointer in the corner, away from every pixel looked at.
        XWarpPointer(display_, None, root, 0, 0, 0, 0, 1278, 718);
        XSync(display_, False);
        // Along the left half of the red stripe only: the right half stays still.
        mover_ = std::make_unique<ticker>(100ms, [this, step = 0]() mutable {
            if (!moving_)
                return;
            if (step == 0)
                XMapRaised(display_, square_);
            XMoveWindow(display_, square_, (step++ * 40) % (640 - square), 0);
            XFlush(display_);
        });
    }
    ~still_stripes_and_a_moving_square()
    {
        mover_.reset();
        XDestroyWindow(display_, square_);
        XDestroyWindow(display_, backdrop_);
        XCloseDisplay(display_);
    }

    void moving(bool on) { moving_ = on; }

private:
    Display* display_;
    Window backdrop_ = 0;
    Window square_ = 0;
    std::atomic<bool> moving_{false};
    std::unique_ptr<ticker> mover_;
};

/// One way a screen becomes the encoder's frames: through the canvas with either colour
/// conversion, or grabbed straight from the X server.
struct screen_path {
    const char* name;
    const char* capture;    // ORBWEAVE_SCREEN_CAPTURE
    const char* conversion; // ORBWEAVE_COLOUR_CONVERSION
    const char* log_line;
};

class ScreenPaths : public Streaming, public ::testing::WithParamInterface<screen_path> {};

// Every path (the canvas converting by shader, or reading back BGRA for the CPU to
// convert; no canvas at all is the next test's) must send the screen's colours: a wrong
// format, range or plane order shows as a swapped, dimmed or flat stripe.
TEST_P(ScreenPaths, TheScreensColoursArriveAtTheIngest)
{
    const screen_path& path = GetParam();
    test::scoped_environment capture("ORBWEAVE_SCREEN_CAPTURE", std::string(path.capture));
    test::scoped_environment conversion("ORBWEAVE_COLOUR_CONVERSION", std::string(path.conversion));
    still_stripes_and_a_moving_square stripes;
    test::stderr_capture log;
    std::string key = new_key(std::string("stripes-") + path.name);
    {
        auto media = stream_worker();
        auto [result, took] = activate(*media, order_for(screen(0), {{"profile", "medium"}}, ingest_->url(), key));
        ASSERT_TRUE(result.started) << result.error;
        ASSERT_TRUE(ingest_->probe_live(key, 15s).error.empty());
        ASSERT_TRUE(media->shutdown());
    }
    EXPECT_NE(log.text().find(path.log_line), std::string::npos) << "no line names the stream's path";

    auto frame = ingest_->last_frame(key);
    ASSERT_EQ(frame.size(), 64u * 36u * 3u);
    expect_colour_stripes(frame, {0, 1, 2}, {16, 48});
}

INSTANTIATE_TEST_SUITE_P(
    Paths, ScreenPaths,
    ::testing::Values(screen_path{"canvas_gpu", "canvas", "gpu", ", colour conversion on the GPU, video encoder obs_x264"},
                      screen_path{"canvas_cpu", "canvas", "cpu", ", colour conversion on the CPU, video encoder obs_x264"}),
    [](const ::testing::TestParamInfo<screen_path>& info) { return std::string(info.param.name); });

/// Frames a live stream carries, on its own timestamps.
void expect_thirty_frames_a_second(const std::vector<video_frame>& frames, const char* phase)
{
    ASSERT_GT(frames.size(), 60u) << phase;
    for (std::size_t i = 1; i < frames.size(); ++i)
        ASSERT_NEAR(frames[i].time - frames[i - 1].time, 1.0 / 30, 0.002)
            << phase << ": a gap or a doubled frame at " << frames[i].time;
}

// The screen feed grabs only what the X server says changed: a still screen is sent
// again without grabbing it, and a moving square only brings its own rows. At the
// ingest that must look exactly like grabbing everything: 30 frames a second, the still
// part right, the square where it moved to, no trail behind it.
TEST_F(Streaming, AScreenFedByWhatChangedArrivesWholeAtThirtyFramesASecond)
{
    test::scoped_environment capture("ORBWEAVE_SCREEN_CAPTURE", std::string("direct"));
    still_stripes_and_a_moving_square screen_content;
    std::string key = new_key("damage");
    test::stderr_capture log;
    auto media = stream_worker();
    ASSERT_TRUE(activate(*media, order_for(screen(0), {{"profile", "high"}}, ingest_->url(), key)).result.started);
    EXPECT_EQ(log.count_lines_starting("media: stream grabbed straight from the X server (no canvas), colour "
                                       "conversion on the CPU, video encoder obs_x264"), 1);

    // Still, then moving: the stream keeps its rate through both.
    expect_thirty_frames_a_second(video_frames(ingest_->stream_url(key), 3), "still");
    screen_content.moving(true);
    expect_thirty_frames_a_second(video_frames(ingest_->stream_url(key), 3), "moving");
    ASSERT_TRUE(media->shutdown());
    ASSERT_TRUE(ingest_->wait_until_not_publishing(key, 5s));

    auto recorded = ingest_->probe_recording(key);
    ASSERT_TRUE(recorded.error.empty()) << recorded.error;
    auto first = ingest_->recording_frame(key, 1.0, 64, 36, 20s, true);
    ASSERT_EQ(first.size(), 64u * 36u * 3u);
    expect_colour_stripes(first, {0, 1, 2}, {8, 16, 32, 48, 56});

    // Two frames 0.5 s apart while it moves: the square is at two places, nothing of it
    // is left where it was, and every still row is as it was.
    std::vector<int> square_at;
    for (double before_end : {1.0, 0.5}) {
        auto frame = ingest_->recording_frame(key, recorded.duration - before_end, 64, 36, 20s, true);
        ASSERT_EQ(frame.size(), 64u * 36u * 3u);
        expect_colour_stripes(frame, {1, 2}, {8, 16, 32, 48, 56});
        expect_colour_stripes(frame, {0}, {40, 48, 56});
        std::vector<int> white;
        for (int x = 0; x < 64; ++x)
            if (near(colour_at(frame, x, 2), {255, 255, 255}, tolerance))
                white.push_back(x);
        // 160 pixels of 1280: 8 columns of 64, give or take the edges.
        ASSERT_GE(white.size(), 6u) << "the square is not in the picture";
        EXPECT_LE(white.size(), 10u) << "the square leaves a trail";
        EXPECT_EQ(white.back() - white.front() + 1, static_cast<int>(white.size())) << "the square is in pieces";
        square_at.push_back(white.front());
    }
    EXPECT_NE(square_at[0], square_at[1]) << "the square's moves did not arrive";
}

/// A screen whose mode changes under a running stream: Xorg with the dummy driver
/// (Xvfb cannot change its size), streamed by either route (ORBWEAVE_SCREEN_CAPTURE).
class ScreenChanges : public Streaming, public ::testing::WithParamInterface<const char*> {
protected:
    void SetUp() override
    {
        directory_ = std::make_unique<test::temp_dir>("orbweave-xorg");
        xorg_ = std::make_unique<test::xorg_display>(directory_->path());
        display_ = std::make_unique<test::scoped_environment>("DISPLAY", xorg_->name());
        capture_ = std::make_unique<test::scoped_environment>("ORBWEAVE_SCREEN_CAPTURE", std::string(GetParam()));
    }

    void set_mode(const std::string& mode)
    {
        xorg_->run({"xrandr", "--output", test::xorg_display::output, "--mode", mode});
    }

    /// Paints the whole screen (its root window) in colour, and returns once X shows it.
    void paint(const std::string& name, const test::colour& colour)
    {
        xorg_->run({"xsetroot", "-solid", name});
        Display* x = XOpenDisplay(xorg_->name().c_str());
        ASSERT_NE(x, nullptr);
        unsigned long expected = static_cast<unsigned long>(colour[0] << 16 | colour[1] << 8 | colour[2]);
        bool shown = test::eventually(
            [&] {
                XImage* image = XGetImage(x, DefaultRootWindow(x), 100, 100, 1, 1, AllPlanes, ZPixmap);
                if (!image)
                    return false;
                bool same = XGetPixel(image, 0, 0) == expected;
                XDestroyImage(image);
                return same;
            },
            10s);
        XCloseDisplay(x);
        ASSERT_TRUE(shown) << name << " did not show on the screen";
    }

    /// Waits until the ingest's live picture is colour in the middle and bar at the sides
    /// (the colour too when the screen fills the frame), at the stream's first size; how
    /// long that took from the call.
    void expect_at_ingest(const std::string& key, const test::colour& colour, const test::colour& bar)
    {
        auto begun = clock::now();
        std::vector<std::uint8_t> frame;
        bool arrived = test::eventually(
            [&] {
                frame = ingest_->live_frame(key, 64, 36);
                return !frame.empty() && near(colour_at(frame, 32, 18), colour, tolerance) &&
                       near(colour_at(frame, 2, 18), bar, tolerance);
            },
            30s);
        ASSERT_FALSE(frame.empty()) << "no live frame of " << key;
        ASSERT_TRUE(arrived) << "middle " << describe(colour_at(frame, 32, 18)) << ", left edge "
                             << describe(colour_at(frame, 2, 18));
        // A player starts at the newest key frame (one every 2 s): an upper bound.
        std::cout << "[ measured ] " << GetParam() << ": a player of the stream sees the screen's new picture "
                  << std::chrono::duration_cast<std::chrono::milliseconds>(clock::now() - begun).count()
                  << " ms after it was painted\n";
        // The bars are beside the picture only: its aspect is kept, its height fills the frame.
        EXPECT_TRUE(near(colour_at(frame, 61, 18), bar, tolerance)) << "right edge " << describe(colour_at(frame, 61, 18));
        EXPECT_TRUE(near(colour_at(frame, 12, 1), colour, tolerance))
            << "top, inside the picture " << describe(colour_at(frame, 12, 1));
        EXPECT_TRUE(near(colour_at(frame, 51, 34), colour, tolerance))
            << "bottom, inside the picture " << describe(colour_at(frame, 51, 34));
        auto live = ingest_->probe_live(key, 15s);
        EXPECT_EQ(live.video_size(), std::make_pair(1280, 720)) << live.error;
    }

    std::unique_ptr<test::temp_dir> directory_;
    std::unique_ptr<test::xorg_display> xorg_;
    std::unique_ptr<test::scoped_environment> display_;
    std::unique_ptr<test::scoped_environment> capture_;
};

// A screen that changes its mode keeps streaming at the size the stream started with,
// its new picture fitted inside with the aspect kept (800x600 in 1280x720: bars of 160
// pixels left and right), and fills the frame again once back at its old size.
TEST_P(ScreenChanges, AStreamKeepsItsSizeAndFitsTheScreensNewPicture)
{
    test::stderr_capture log;
    paint("#00ff00", green);
    worker listing;
    auto screens = obs::entries_of<obs::screen_entry>(listing.list(callback::source_type::screen));
    ASSERT_EQ(screens.size(), 1u);
    ASSERT_EQ(screens[0].width, 1280u);
    std::string key = new_key(std::string("mode-") + GetParam());
    auto media = stream_worker();
    ASSERT_TRUE(activate(*media, order_for(screens[0], {{"profile", "medium"}}, ingest_->url(), key)).result.started);
    expect_at_ingest(key, green, green);

    set_mode("800x600");
    paint("#0000ff", blue);
    expect_at_ingest(key, blue, black);

    set_mode("1280x720");
    paint("#ff0000", red);
    expect_at_ingest(key, red, red);
    EXPECT_TRUE(media->alive());
    ASSERT_TRUE(media->shutdown());

    // X errors of a grab that no longer fits are counted, not logged once a frame.
    std::string text = log.text();
    std::size_t failures = 0;
    for (std::size_t at = text.find("cannot grab screen"); at != std::string::npos;
         at = text.find("cannot grab screen", at + 1))
        ++failures;
    EXPECT_LE(failures, 2u) << text;
    EXPECT_EQ(text.find("X Error"), std::string::npos) << text;
}

// A screen that goes away (its RandR monitor removed) ends its stream as a window that
// closes or a screen cast the desktop ends: the client reports the stream gone and says
// why, the ingest loses it and its worker ends.
TEST_P(ScreenChanges, AScreenThatGoesAwayEndsItsStream)
{
    xorg_->run({"xrandr", "--setmonitor", "orbweave-extra", "640/170x360/100+640+360", "none"});
    test::stderr_capture log;
    sim::service_sim service;
    {
        test::client_harness app(service);
        app.allow_all();
        ASSERT_TRUE(app.start_paired(30s));
        auto listed = service.wait_for_reply(service.list("screen").value_or(""), 30s);
        ASSERT_TRUE(listed);
        Json screens = listed->message["payload"]["results"];
        ASSERT_EQ(screens.size(), 2u) << screens;
        std::string id = screens[1]["id"];

        auto request = sim::activation::of(id, ingest_->url(), new_key(std::string("gone-") + GetParam()));
        auto activated = service.wait_for_reply(service.activate(request).value_or(""), 60s);
        ASSERT_TRUE(activated);
        ASSERT_EQ(activated->message["payload"], Json({{"status", "Success"}}));
        ASSERT_TRUE(ingest_->wait_for_publishing(request.key, 15s));

        xorg_->run({"xrandr", "--delmonitor", "orbweave-extra"});
        EXPECT_TRUE(app.wait_for_state(callback::state_type::connected, 30s));
        EXPECT_TRUE(app.wait_for_streams({}, 30s));
        EXPECT_TRUE(ingest_->wait_until_not_publishing(request.key, 15s));
        EXPECT_TRUE(test::eventually([] { return test::stream_workers().empty(); }, 15s)) << "the stream's worker was left";
        EXPECT_NE(log.text().find("The stream of source " + id + " ended: screen 2 is gone from the X display"),
                  std::string::npos)
            << log.text();
    }
    EXPECT_EQ(log.text().find("killed by signal"), std::string::npos) << "a worker crashed:\n" << log.text();
}

INSTANTIATE_TEST_SUITE_P(Routes, ScreenChanges, ::testing::Values("direct", "canvas"),
                         [](const ::testing::TestParamInfo<const char*>& info) { return std::string(info.param); });

// The sound of the ingest's decoded stream, in dBFS (RMS over about 100 ms): the test
// tone measures about -25, silence -inf or below -90.
constexpr double heard_level = -40;
constexpr double silent_level = -70;
// A device back (or a new default) is heard again within 2 s; what the ingest hears
// also waits for the encoder, the ingest and the decoder, and a loaded machine.
constexpr auto device_back_limit = 2s;
constexpr auto ingest_latency_allowance = 2s;

using test::pactl;

/// A microphone hearing a 440 Hz tone: a PulseAudio source of its own (a remapped monitor
/// of a sink that pacat plays the tone into, at a real device's pace), loaded as a module
/// of its own. Unloading that module is the microphone unplugged, loading it again (same
/// name) the microphone plugged back.
class tone_device {
public:
    static constexpr const char* name = "orbweave_tone";
    tone_device() { reload(); }
    ~tone_device()
    {
        try {
            unload();
            if (feed_module_ >= 0)
                pactl({"unload-module", std::to_string(feed_module_)});
        } catch (...) {
        }
    }
    void load()
    {
        module_ = std::stoi(pactl({"load-module", "module-remap-source", std::string("source_name=") + name,
                                   std::string("master=") + feed + ".monitor"}));
    }
    void unload()
    {
        if (module_ >= 0)
            pactl({"unload-module", std::to_string(module_)});
        module_ = -1;
    }
    /// Loads everything (again, after the sound server restarted and took it all along).
    void reload()
    {
        feed_module_ = std::stoi(pactl({"load-module", "module-null-sink", std::string("sink_name=") + feed}));
        auto options = test::command({"pacat", "--playback", "-d", feed, "--latency-msec=20", "--raw", "--format=s16le",
                                      "--rate=44100", "--channels=1", tone_file()});
        options.quiet = true;
        player_ = std::make_unique<obs::child_process>(options);
        load();
    }
    static audio_entry entry() { return audio_entry("Tone", "Tone", name, true); }

private:
    static constexpr const char* feed = "orbweave_tone_feed";
    /// Two minutes of the tone, made once per test program.
    static std::string tone_file()
    {
        auto path = test::media_environment::current().directory() / "tone.raw";
        if (!std::filesystem::exists(path))
            test::run_program({"ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", "sine=frequency=440:duration=120",
                               "-f", "s16le", "-ac", "1", "-ar", "44100", path.string()},
                              30s);
        return path.string();
    }

    int module_ = -1;
    int feed_module_ = -1;
    std::unique_ptr<obs::child_process> player_;
};

std::chrono::milliseconds since(clock::time_point begun)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(clock::now() - begun);
}

TEST_F(Streaming, AnAudioDeviceOrTheSoundServerThatGoesLeavesSilenceAndIsHeardAgainWhenBack)
{
    tone_device tone;
    std::string key = new_key("unplugged");
    test::stderr_capture log;
    auto media = stream_worker();
    auto [result, took] = activate(*media, order_for(tone_device::entry(), {{"profile", "high"}}, ingest_->url(), key, 8000));
    ASSERT_TRUE(result.started) << result.error;
    std::cout << "[ measured ] audio device activation: " << took.count() << " ms\n";
    // An audio device arrives as AAC beside a tiny video track, whatever the level asks.
    auto live = ingest_->probe_live(key, 15s);
    EXPECT_EQ(live.codec("audio"), "aac") << live.error;
    EXPECT_EQ(live.codec("video"), "h264");
    EXPECT_EQ(live.video_size(), std::make_pair(4, 4));
    test::live_loudness sound(*ingest_, key);
    ASSERT_TRUE(sound.wait_for_sound(heard_level, 20s)) << "the tone never arrived";

    // Unplugged: the stream goes on, silent.
    auto gone = clock::now();
    tone.unload();
    ASSERT_TRUE(sound.wait_for_silence(silent_level, 10s)) << "still loud after the device went";
    // What the ingest hears lags by the whole path (encoder, ingest, decoder): this much.
    std::cout << "[ measured ] device gone to silence at the ingest: " << since(gone).count() << " ms\n";
    EXPECT_TRUE(ingest_->publishing(key));

    // Plugged back under the same name: heard again.
    auto back = clock::now();
    tone.load();
    auto level = sound.wait_for_sound(heard_level, device_back_limit + ingest_latency_allowance);
    ASSERT_TRUE(level) << "the device came back but the stream stayed silent";
    std::cout << "[ measured ] device back to tone at the ingest: " << since(back).count() << " ms (" << *level
              << " dB)\n";
    EXPECT_TRUE(ingest_->publishing(key));
    // Told once each way.
    EXPECT_EQ(log.count_lines_starting("media: the audio device 'orbweave_tone' is gone"), 1) << log.text();
    EXPECT_EQ(log.count_lines_starting("media: the audio device 'orbweave_tone' is back"), 1) << log.text();

    // The sound server itself goes (as a crash would take it) and comes back: silence, then
    // the device is found again within the follower's longest pause between attempts.
    auto& server = test::media_environment::current().audio();
    server.stop();
    ASSERT_TRUE(sound.wait_for_silence(silent_level, 10s)) << "still loud with no sound server";
    EXPECT_TRUE(ingest_->publishing(key));
    server.start();
    back = clock::now();
    tone.reload();
    level = sound.wait_for_sound(heard_level, obs::limits::sound_server_retry + device_back_limit +
                                                  ingest_latency_allowance);
    ASSERT_TRUE(level) << "the sound server came back but the stream stayed silent";
    std::cout << "[ measured ] sound server back to tone at the ingest: " << since(back).count() << " ms\n";
    EXPECT_TRUE(ingest_->publishing(key));
    media->shutdown();
    EXPECT_EQ(log.count_lines_starting("media: the sound server is gone"), 1) << log.text();
    EXPECT_EQ(log.count_lines_starting("media: the sound server is back"), 1) << log.text();
}

TEST_F(Streaming, TheDefaultEntryFollowsTheDefaultDevice)
{
    tone_device tone;
    pactl({"set-default-source", test::pulse_server::source_name});
    std::string key = new_key("default");
    auto media = stream_worker();
    audio_entry default_input("Default", "Default", "default", true);
    ASSERT_TRUE(activate(*media, order_for(default_input, {{"profile", "low"}}, ingest_->url(), key)).result.started);
    test::live_loudness sound(*ingest_, key);
    // The silent microphone is the default.
    ASSERT_TRUE(sound.wait_for_silence(silent_level, 20s));

    for (const char* device : {tone_device::name, test::pulse_server::source_name, tone_device::name}) {
        SCOPED_TRACE(device);
        bool loud = device == std::string(tone_device::name);
        auto changed = clock::now();
        pactl({"set-default-source", device});
        auto level = loud ? sound.wait_for_sound(heard_level, device_back_limit + ingest_latency_allowance)
                          : sound.wait_for_silence(silent_level, device_back_limit + ingest_latency_allowance);
        ASSERT_TRUE(level) << "the stream did not follow the default to " << device;
        std::cout << "[ measured ] default to " << device << " at the ingest: " << since(changed).count() << " ms ("
                  << *level << " dB)\n";
    }
    EXPECT_TRUE(ingest_->publishing(key));
    media->shutdown();
    pactl({"set-default-source", test::pulse_server::source_name});
}

/// A top-level window of the test's own, shown by the window manager: its left half red,
/// its right half blue (a child window), 640x400.
class two_colour_window {
public:
    two_colour_window()
    {
        x_ = XOpenDisplay(nullptr);
        if (!x_)
            throw std::runtime_error("cannot open the X display");
        Window root = DefaultRootWindow(x_);
        window_ = XCreateSimpleWindow(x_, root, 100, 100, 640, 400, 0, 0, 0xff0000);
        right_ = XCreateSimpleWindow(x_, window_, 320, 0, 320, 400, 0, 0, 0x0000ff);
        // Not a multiple of four long: libobs's window capture (the canvas route) copies a
        // title with one byte more than X sent, past the reply when no padding follows,
        // which stops the worker in the sanitizer run.
        XStoreName(x_, window_, "Orbweave two colours.");
        XMapWindow(x_, right_);
        XMapWindow(x_, window_);
        XSync(x_, False);
        bool shown = test::eventually(
            [&] {
                XWindowAttributes attributes{};
                return XGetWindowAttributes(x_, window_, &attributes) && attributes.map_state == IsViewable;
            },
            10s);
        if (!shown)
            throw std::runtime_error("the two-colour window did not show");
    }
    ~two_colour_window()
    {
        close();
        XCloseDisplay(x_);
    }
    two_colour_window(const two_colour_window&) = delete;
    two_colour_window& operator=(const two_colour_window&) = delete;

    window_entry entry() const { return window_entry("two-colours", "Orbweave two colours.", static_cast<int>(window_)); }
    /// Repaints the right half (the child window) in colour (0xRRGGBB).
    void paint_right(unsigned long colour)
    {
        XSetWindowBackground(x_, right_, colour);
        XClearWindow(x_, right_);
        XSync(x_, False);
    }
    void resize(int width, int height)
    {
        XResizeWindow(x_, window_, static_cast<unsigned>(width), static_cast<unsigned>(height));
        XSync(x_, False);
    }
    void close()
    {
        if (window_)
            XDestroyWindow(x_, window_);
        XSync(x_, False);
        window_ = 0;
    }

private:
    Display* x_ = nullptr;
    Window window_ = 0;
    Window right_ = 0;
};

// A window streams at its own size through the canvas, as where a GPU draws. On a
// software renderer it goes past the canvas: its own picture, grabbed from the X server,
// arrives whole and in its colours, follows what changes in it, keeps the stream's size
// when the window is made narrower (fitted in, aspect kept, bars beside it), and closing
// the window ends the stream.
TEST_F(Streaming, AWindowStreamsAtItsSizeAndPastTheCanvasKeepsItsColoursFollowsItsSizeAndEndsWithIt)
{
    two_colour_window window;
    {
        test::scoped_environment capture("ORBWEAVE_SCREEN_CAPTURE", "canvas");
        std::string key = new_key("window");
        auto media = stream_worker();
        auto [result, took] = activate(*media, order_for(window.entry(), {{"profile", "medium"}}, ingest_->url(), key));
        ASSERT_TRUE(result.started) << result.error;
        std::cout << "[ measured ] window activation: " << took.count() << " ms\n";
        auto live = ingest_->probe_live(key, 15s);
        // A window is never enlarged: the stream is its size.
        EXPECT_EQ(live.video_size(), std::make_pair(640, 400)) << live.error;
        ASSERT_NE(live.audio(), nullptr);
    }
    test::scoped_environment capture("ORBWEAVE_SCREEN_CAPTURE", "direct");
    test::stderr_capture log;
    std::string key = new_key("window-direct");
    auto media = stream_worker();
    test::blocking_queue<std::string> events;
    media->set_event_handler([&](const std::string& event, const std::string& reason) { events.push(event + ": " + reason); });
    ASSERT_TRUE(activate(*media, order_for(window.entry(), {{"profile", "medium"}}, ingest_->url(), key)).result.started);
    EXPECT_NE(log.text().find("media: stream grabbed straight from the window's picture on the X server (no canvas)"),
              std::string::npos)
        << "no line names the window's path";
    auto live = ingest_->probe_live(key, 15s);
    EXPECT_EQ(live.video_size(), std::make_pair(640, 400)) << live.error;

    auto shows = [&](std::vector<std::pair<int, test::colour>> columns) {
        std::vector<std::uint8_t> frame;
        bool seen = test::eventually(
            [&] {
                frame = ingest_->live_frame(key, 64, 36);
                if (frame.empty())
                    return false;
                for (const auto& [x, colour] : columns)
                    for (int y : {1, 18, 34})
                        if (!near(colour_at(frame, x, y), colour, tolerance))
                            return false;
                return true;
            },
            30s);
        std::string seen_text;
        for (const auto& column : columns)
            seen_text += " x " + std::to_string(column.first) + ": " + describe(colour_at(frame, column.first, 18));
        return seen ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << seen_text;
    };
    // Red to the left edge, blue to the right one, the halves meeting in the middle.
    EXPECT_TRUE(shows({{1, red}, {29, red}, {35, blue}, {62, blue}}));
    // Only what the X server says changed is grabbed again: a change drawn in a child
    // window arrives, the still half stays.
    window.paint_right(0x00ff00);
    EXPECT_TRUE(shows({{1, red}, {29, red}, {35, green}, {62, green}}));

    // 320x400 in 640x400: the red half alone, in the middle, with bars of 160 pixels.
    window.resize(320, 400);
    EXPECT_TRUE(shows({{4, black}, {18, red}, {45, red}, {59, black}}));
    EXPECT_TRUE(ingest_->publishing(key));

    window.close();
    auto ended = events.pop(10s);
    ASSERT_TRUE(ended) << "closing the window did not end the stream";
    EXPECT_NE(ended->find("the window was closed"), std::string::npos) << *ended;
    media->shutdown();
}

// A server that refuses the connection, none at all, and one that takes the connection
// and never answers: each start fails with its reason within its bound, after one retry
// in software, and the worker carries on.
TEST_F(Streaming, ServersThatTakeNoStreamFailWithinTheBoundAfterOneSoftwareRetry)
{
    test::silent_server silent;
    struct bad_server {
        const char* what;
        std::string server;
        std::string error; // how the reason begins
        std::chrono::milliseconds bound;
        bool whole_reason = false;
    };
    for (const bad_server& bad :
         {bad_server{"closed port", "rtmp://127.0.0.1:" + std::to_string(test::free_loopback_port()) + "/live",
                     "rtmp connect failed", activation_limit},
          bad_server{"no server at all", "", "rtmp ", activation_limit},
          bad_server{"silent server", silent.url(), "rtmp connect timed out",
                     limits::connect_attempts * limits::output_start + 3s, true}}) {
        SCOPED_TRACE(bad.what);
        std::string key = new_key("refused");
        test::stderr_capture log;
        auto media = stream_worker();
        auto [result, took] = activate(*media, order_for(screen(0), {{"profile", "low"}}, bad.server, key));
        std::cout << "[ measured ] " << bad.what << ": " << took.count() << " ms, " << result.error << "\n";
        EXPECT_FALSE(result.started);
        EXPECT_EQ(result.error.rfind(bad.error, 0), 0u) << result.error;
        if (bad.whole_reason) {
            EXPECT_EQ(result.error, bad.error);
        }
        EXPECT_LT(took, bad.bound);
        EXPECT_FALSE(ingest_->publishing(key));
        EXPECT_FALSE(media->list(callback::source_type::screen).empty());
        media->shutdown();
        EXPECT_EQ(log.count_lines_starting(software_fallback_line), 1) << log.text();
    }
}

/// Flips the X root window between black and white every 700 ms: hard cuts 21 frames apart
/// (beyond the encoder's look-ahead, so none is taken for a flash).
class hard_cuts {
public:
    hard_cuts() : display_(XOpenDisplay(nullptr))
    {
        if (!display_)
            throw std::runtime_error("cannot open the display");
        flips_ = std::make_unique<ticker>(700ms, [this, white = false]() mutable { paint(white = !white); });
    }
    ~hard_cuts()
    {
        flips_.reset();
        paint(false);
        XCloseDisplay(display_);
    }

private:
    void paint(bool white)
    {
        Window root = DefaultRootWindow(display_);
        XSetWindowBackground(display_, root, white ? WhitePixel(display_, 0) : BlackPixel(display_, 0));
        XClearWindow(display_, root);
        XFlush(display_);
    }

    Display* display_;
    std::unique_ptr<ticker> flips_;
};

TEST_F(Streaming, X264SettingsTakeEffectAndTheLevelsSizeArrivesFittedToTheScreen)
{
    test::stderr_capture log;
    ::setenv("ORBWEAVE_OBS_LOG", "info", 1);
    auto still_worker = stream_worker();
    auto cut_worker = stream_worker();
    ::unsetenv("ORBWEAVE_OBS_LOG");

    // A still screen at medium (1500 kbps) costs what it needs, not filler up to the target.
    std::string still = new_key("still");
    ASSERT_TRUE(activate(*still_worker, order_for(screen(1), {{"profile", "medium"}}, ingest_->url(), still))
                    .result.started);
    // The level's size fitted to the screen: the 1024x768 screen at medium is 960x720.
    auto live = ingest_->probe_live(still, 15s);
    EXPECT_EQ(live.video_size(), std::make_pair(960, 720)) << live.error;
    auto frames = video_frames(ingest_->stream_url(still), 4);
    ASSERT_GT(frames.size(), 60u);
    long long bytes = 0;
    for (std::size_t i = 1; i < frames.size(); ++i) // past the first key frame
        bytes += frames[i].bytes;
    double kbps = bytes * 8.0 / 1000.0 / (frames.back().time - frames.front().time);
    std::cout << "[ measured ] still screen streamed at 1500 kbps: " << kbps << " kbps\n";
    EXPECT_LT(kbps, 300) << "a still screen is padded towards the full bitrate";
    still_worker->shutdown();

    // Hard cuts: intra frames come only with the key frames, every 2 s (60 frames), never at a cut.
    hard_cuts cuts;
    std::string cut = new_key("cuts");
    ASSERT_TRUE(activate(*cut_worker, order_for(screen(0), {{"profile", "low"}}, ingest_->url(), cut)).result.started);
    // 1280x720 fitted into low's 854x480 is 853x480, sent as 852x480 (a multiple of 4 wide).
    live = ingest_->probe_live(cut, 15s);
    EXPECT_EQ(live.video_size(), std::make_pair(852, 480)) << live.error;
    frames = video_frames(ingest_->stream_url(cut), 7);
    std::vector<double> intra;
    for (const auto& frame : frames) {
        if (frame.type == 'I' || frame.key)
            intra.push_back(frame.time);
        EXPECT_EQ(frame.key, frame.type == 'I') << "at " << frame.time;
    }
    ASSERT_GE(intra.size(), 3u);
    for (std::size_t i = 1; i < intra.size(); ++i)
        EXPECT_NEAR(intra[i] - intra[i - 1], 2.0, 0.05) << "an intra frame at " << intra[i];
    cut_worker->shutdown();

    // The plug-in took every option we gave it, and runs the rate control we meant.
    EXPECT_EQ(log.text().find("ignoring invalid x264 option"), std::string::npos);
    EXPECT_EQ(log.text().find("x264 param:"), std::string::npos);
    EXPECT_NE(log.text().find("rate_control: ABR"), std::string::npos);
}

// In this process: a catalogue entry can only name a screen that exists, so a source
// that never reports a size is made up here.
/// A video source whose width reads zero until it has been read width_after times.
struct late_width_source {
    static inline std::atomic<int> reads{0};
    static inline int width_after = 0;

    static void register_once()
    {
        static bool registered = [] {
            obs_source_info info{};
            info.id = "orbweave_test_late_width";
            info.type = OBS_SOURCE_TYPE_INPUT;
            info.output_flags = OBS_SOURCE_VIDEO;
            info.get_name = [](void*) { return "late width"; };
            info.create = [](obs_data_t*, obs_source_t*) -> void* { return &reads; };
            info.destroy = [](void*) {};
            info.get_width = [](void*) { return reads.fetch_add(1) >= width_after ? 1280u : 0u; };
            info.get_height = [](void*) { return 720u; };
            obs_register_source(&info);
            return true;
        }();
        (void)registered;
    }

    static source_handle make(int width_after_reads)
    {
        register_once();
        reads = 0;
        width_after = width_after_reads;
        return source_handle(obs_source_create("orbweave_test_late_width", "late", nullptr, nullptr));
    }
};

TEST(OutputInProcess, ASizeIsReadUntilBothDimensionsAreKnownOrTheSecondIsLate)
{
    runtime libobs;
    auto far = clock::now() + 1h;

    // The height first, the width on the fifth read: the wait takes both.
    auto source = late_width_source::make(4);
    EXPECT_EQ(wait_for_size(source.get(), far), std::make_pair(1280, 720));
    EXPECT_GE(late_width_source::reads.load(), 5);

    // A width that never comes: after the grace the stream goes on with the height,
    // long before the deadline.
    source = late_width_source::make(std::numeric_limits<int>::max());
    auto begun = clock::now();
    EXPECT_EQ(wait_for_size(source.get(), far), std::make_pair(0, 720));
    EXPECT_GE(clock::now() - begun, source_half_size_grace);
    EXPECT_LT(clock::now() - begun, limits::source_size);
}

TEST(OutputInProcess, ASourceThatNeverReportsASizeFailsAfterFiveSeconds)
{
    runtime libobs; // without a canvas, as a stream worker starts
    output stream;
    screen_entry made_up(9, "Display 10", "", 0, 0, 0, 0);
    auto begun = clock::now();
    EXPECT_FALSE(stream.start(order_for(made_up, {{"profile", "medium"}}, "rtmp://127.0.0.1:1/live", "k")));
    auto took = clock::now() - begun;
    EXPECT_EQ(stream.error(), "source has no size");
    EXPECT_GE(took, limits::source_size);
    EXPECT_LT(took, limits::source_size + 2s);
}

// The screen feed draws the pointer, as the canvas's screen capture does: a presenter's
// pointer is part of the picture. On a still screen nothing is grabbed again but what
// the pointer leaves and where it goes: it moves with nothing left behind.
TEST(ScreenFeedInProcess, FramesCarryTheScreenAndThePointerWhereverItMoves)
{
    runtime libobs; // libobs's video outputs run inside it
    // The second screen, made flat black with a crosshair pointer in its middle.
    Display* x = XOpenDisplay(nullptr);
    ASSERT_NE(x, nullptr);
    Window root = RootWindow(x, 1);
    XSetWindowBackground(x, root, BlackPixel(x, 1));
    XClearWindow(x, root);
    Cursor crosshair = XCreateFontCursor(x, XC_crosshair);
    XDefineCursor(x, root, crosshair);
    XWarpPointer(x, None, root, 0, 0, 0, 0, 512, 384);
    XSync(x, False);

    // The latest frame's luma.
    struct taken {
        std::mutex mutex;
        std::condition_variable arrived;
        std::vector<std::uint8_t> luma;
        std::uint32_t width = 0;
    } frame;
    auto keep = [](void* data, video_data* video) {
        auto* into = static_cast<taken*>(data);
        std::lock_guard<std::mutex> lock(into->mutex);
        into->width = video->linesize[0];
        into->luma.assign(video->data[0], video->data[0] + static_cast<std::size_t>(video->linesize[0]) * 768);
        into->arrived.notify_all();
    };
    // The brightest luma within 8 pixels of a point; black is 16 in the stream's limited
    // range, and the crosshair is drawn white around its hot spot.
    auto brightest_around = [&](int cx, int cy) {
        int brightest = 0;
        for (int py = cy - 8; py <= cy + 8; ++py)
            for (int px = cx - 8; px <= cx + 8; ++px)
                brightest = std::max<int>(brightest, frame.luma[static_cast<std::size_t>(py) * frame.width + px]);
        return brightest;
    };
    {
        screen_feed feed(screen_entry(1, "Display 2", "1024x768", 0, 0, 1024, 768), {1024, 768});
        EXPECT_EQ(video_output_get_width(feed.video()), 1024u);
        EXPECT_EQ(video_output_get_format(feed.video()), VIDEO_FORMAT_NV12);
        ASSERT_TRUE(video_output_connect(feed.video(), nullptr, keep, &frame));
        std::unique_lock<std::mutex> lock(frame.mutex);
        EXPECT_TRUE(frame.arrived.wait_for(lock, 5s, [&] {
            return !frame.luma.empty() && brightest_around(100, 100) <= 20 && brightest_around(512, 384) > 200;
        })) << "the screen and the pointer are not in the picture";
        lock.unlock();

        XWarpPointer(x, None, root, 0, 0, 0, 0, 200, 600);
        XSync(x, False);
        lock.lock();
        EXPECT_TRUE(frame.arrived.wait_for(lock, 5s, [&] {
            return brightest_around(200, 600) > 200 && brightest_around(512, 384) <= 20;
        })) << "the pointer did not move in the picture, or left itself behind";
        lock.unlock();
        video_output_disconnect(feed.video(), keep, &frame);
    }
    XUndefineCursor(x, root);
    XFreeCursor(x, crosshair);
    XCloseDisplay(x);
}

} // namespace
} // namespace orbweave::obs
