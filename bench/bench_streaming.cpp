// Streaming figures, ours side by side with ffmpeg in the same run, on the same screen
// content and the same private nginx-rtmp ingest. One line per figure:
//
//   list_first_after_connect_ms, list_KIND_ms: list request to reply, the first one right
//     after the client connected, then per kind (median of 5).
//   activation_to_first_frame_ms ours=.. ffmpeg=.. ratio=..   (median of 5)
//     ours: the simulator sends "activate" (screen 0, "medium") to the client over loopback
//     TLS, until the first coded video frame (not the decoder configuration) has reached the
//     ingest, as a proxy in front of nginx reads the RTMP chunk stream; ffmpeg: spawning the
//     reference pusher (x11grab + libx264 veryfast, video only) until the same.
//   activation_to_first_frame_vs_ffmpeg_with_audio_ms: the same, against ffmpeg with the
//     PulseAudio input as well.
//   activation_client_in_ms, _worker_ready_ms, _rtmp_connected_ms, _reply_ms,
//     _first_packet_ms: where ours stands (medians, from the request): the client has the
//     request; the stream worker has its canvas and source and starts the output (it logs
//     the order); its RTMP connection reaches the ingest; the "Success" reply is at the
//     service (the output is active); the first audio or video message is at the ingest.
//   worker_start_deferred_ms, worker_activate_op_ms: a stream worker driven directly, spawn
//     to ready, and the activate request to its answer (medians): what the spare saves.
//   stream_cpu_s_per_s ours=.. ffmpeg=.. ratio=..: CPU seconds per second of the stream
//     worker and of the ffmpeg pusher, 1280x720 at 1500 kbps, each over 60 s of a moving
//     test pattern.
//   stream_frames_60s, stream_dropped_frames_60s, stream_lagged_frames_60s,
//     stream_skipped_frames_60s: our stream over the same 60 s (the worker's "stats").
//   test_pattern_cpu_s_per_s, machine_load_1m: what else ran meanwhile (2 cores here).
//   still_desktop_cpu_s_per_s ours=.. ffmpeg=.. ratio=..: a still desktop with a clock
//     ticking, 30 s each, ours against ffmpeg x11grab + libx264 veryfast + AAC on the same
//     screen; still_desktop_threads: where each goes, by thread; still_desktop_fps: our
//     frames a second meanwhile.
//   change_to_decoded_at_ingest_ms ours=.. ffmpeg=.. ratio=..: a square turned white or
//     black on the screen (over the moving pattern) until a low-delay player at the ingest
//     decodes the change, after two seconds of frames; medians of 10; ffmpeg video only.
//   outside_activation_reply_first_after_connect_ms, outside_activation_reply_ms (_min,
//     _max): activate -> "Success" as a service sees it: orbweave-service-sim and
//     orbweave-agent as programs of their own over TLS, a moving screen; the first right
//     after the agent connected, then the median of 10 taken 1.5 s apart.
//   scaling_N_streams_cpu_s_per_s_per_stream, scaling_N_streams_rss_kib_per_stream,
//   scaling_N_streams_lagged_frames (late frames of all N over the window): N = 1,
//     2 and 4 streams of the screen at once, one worker each (10 s).
//   agent_idle_cpu_s_per_s, agent_rss_kib, spare_worker_*, listing_worker_*: orbweave-agent
//     paired with the simulator and idle (10 s) after one list, and its two workers.
//
// Arguments name the parts to run (listing, activation, still, reply, latency, steady,
// scaling, idle), for
// working on one figure; without any, all of them run.
// With ORBWEAVE_BENCH_JSON set, the figures are also written there as one JSON object.
// Everything is started here on a private display, PulseAudio, nginx and free ports, and
// stopped at the end. Standard error of this program and everything it starts goes to a
// log file while it runs; its tail is shown when something fails.

#include "core/obs/child_process.hpp"
#include "core/obs/worker.hpp"
#include "core/orbweave_client.hpp"
#include "tests/support/client_harness.hpp"
#include "tests/support/fault_proxy.hpp"
#include "tests/support/line_reader.hpp"
#include "tests/support/media_fixtures.hpp"
#include "tests/support/processes.hpp"
#include "tests/support/rtmp_chunks.hpp"
#include "tests/support/rtmp_ingest.hpp"
#include "tests/support/temp_dir.hpp"
#include "tools/service-sim/service_sim.hpp"

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
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

constexpr int activation_runs = 5;
constexpr int outside_runs = 10;
constexpr int latency_changes = 10;
constexpr auto still_window = 30s;
constexpr auto deadline = 20s;
constexpr auto warm_up = 2s;
constexpr auto steady_window = 60s;
constexpr auto scaling_window = 10s;
constexpr auto idle_window = 10s;
constexpr int width = 1280;
constexpr int height = 720;

FILE* out = stdout;  // figures
FILE* note = stderr; // progress and failures (the real standard error)

double ms_between(clock_type::time_point from, clock_type::time_point to)
{
    return std::chrono::duration<double, std::milli>(to - from).count();
}

double median(std::vector<double> values)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    std::size_t middle = values.size() / 2;
    return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

// Every figure printed, for the machine-readable summary.
Json summary = Json::object();

void figure(const std::string& name, double value, const char* format = "%.0f")
{
    summary[name] = value;
    std::fprintf(out, "%s ", name.c_str());
    std::fprintf(out, format, value);
    std::fprintf(out, "\n");
    std::fflush(out);
}

void side_by_side(const std::string& name, double ours, double theirs, const char* format)
{
    summary[name] = {{"ours", ours}, {"ffmpeg", theirs}, {"ratio", theirs > 0 ? ours / theirs : 0.0}};
    std::fprintf(out, "%s ours=", name.c_str());
    std::fprintf(out, format, ours);
    std::fprintf(out, " ffmpeg=");
    std::fprintf(out, format, theirs);
    std::fprintf(out, " ratio=%.2f\n", theirs > 0 ? ours / theirs : 0.0);
    std::fflush(out);
}

void progress(const std::string& text)
{
    std::fprintf(note, "bench: %s\n", text.c_str());
    std::fflush(note);
}

/// Polls check every period until it holds (true) or timeout passes (false).
bool poll_until(const std::function<bool()>& check, std::chrono::milliseconds timeout,
                std::chrono::milliseconds period = 10ms)
{
    auto end = clock_type::now() + timeout;
    for (;;) {
        if (check())
            return true;
        if (clock_type::now() >= end)
            return false;
        std::this_thread::sleep_for(period);
    }
}

// ---- /proc --------------------------------------------------------------------------

/// utime + stime of pid in seconds.
double cpu_seconds(pid_t pid)
{
    std::string file = "/proc/" + std::to_string(pid) + "/stat";
    if (std::optional<double> seconds = test::cpu_seconds_in(file))
        return *seconds;
    throw std::runtime_error("cannot read " + file);
}

/// CPU seconds of each thread of pid by its name (threads of one name added up).
std::map<std::string, double> thread_cpu_seconds(pid_t pid)
{
    std::map<std::string, double> seconds;
    std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    for (const auto& task : std::filesystem::directory_iterator(tasks)) {
        std::ifstream comm(task.path() / "comm");
        std::string name;
        std::getline(comm, name);
        if (std::optional<double> used = test::cpu_seconds_in((task.path() / "stat").string()))
            seconds[name] += *used;
        // else it ended meanwhile
    }
    return seconds;
}

/// CPU seconds per second of pid over window, and the same by thread name as
/// "name 0.012, ..." (largest first, threads under a hundredth of a core left out).
std::pair<double, std::string> cpu_rate_by_thread(pid_t pid, std::chrono::milliseconds window)
{
    auto before = thread_cpu_seconds(pid);
    double total_before = cpu_seconds(pid);
    auto start = clock_type::now();
    std::this_thread::sleep_for(window); // the measuring window itself
    auto after = thread_cpu_seconds(pid);
    double total = cpu_seconds(pid) - total_before;
    double seconds = std::chrono::duration<double>(clock_type::now() - start).count();
    std::vector<std::pair<double, std::string>> rates;
    for (const auto& [name, used] : after)
        rates.emplace_back((used - before[name]) / seconds, name);
    std::sort(rates.rbegin(), rates.rend());
    std::string split;
    for (const auto& [rate, name] : rates) {
        if (rate < 0.01)
            break;
        char text[80];
        std::snprintf(text, sizeof text, "%s%s %.3f", split.empty() ? "" : ", ", name.c_str(), rate);
        split += text;
    }
    return {total / seconds, split};
}

long rss_kib(pid_t pid)
{
    long kib = test::status_field(pid, "VmRSS");
    if (kib < 0)
        throw std::runtime_error("no VmRSS for " + std::to_string(pid));
    return kib;
}

/// CPU seconds per second of each pid over window.
std::vector<double> cpu_rates(const std::vector<pid_t>& pids, std::chrono::milliseconds window)
{
    std::vector<double> before;
    for (pid_t pid : pids)
        before.push_back(cpu_seconds(pid));
    auto start = clock_type::now();
    std::this_thread::sleep_for(window); // the measuring window itself
    double seconds = std::chrono::duration<double>(clock_type::now() - start).count();
    std::vector<double> rates;
    for (std::size_t i = 0; i < pids.size(); ++i)
        rates.push_back((cpu_seconds(pids[i]) - before[i]) / seconds);
    return rates;
}

// ---- standard error to a timestamped log ------------------------------------------------

/// Moves this process's standard error (inherited by every child) into a pipe; a thread
/// timestamps each line as it arrives and appends it to a file.
class stderr_log {
public:
    explicit stderr_log(const std::string& path) : file_(path)
    {
        int fds[2];
        if (::pipe2(fds, O_CLOEXEC) < 0)
            throw std::runtime_error("pipe2 failed");
        saved_ = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
        ::dup2(fds[1], STDERR_FILENO);
        ::close(fds[1]);
        read_fd_ = fds[0];
        note = ::fdopen(::fcntl(saved_, F_DUPFD_CLOEXEC, 3), "w");
        reader_ = std::thread([this] { read_loop(); });
    }

    ~stderr_log()
    {
        // Children keep copies of the pipe's write end only while they live; ours goes now.
        ::dup2(saved_, STDERR_FILENO);
        stopping_ = true;
        reader_.join();
        ::close(read_fd_);
        ::close(saved_);
        if (note && note != stderr)
            std::fclose(note);
        note = stderr;
    }

    /// The time the first line matching arrived at or after since; nullopt when none did.
    std::optional<clock_type::time_point> first(const std::function<bool(const std::string&)>& match,
                                                clock_type::time_point since) const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& [at, line] : lines_)
            if (at >= since && match(line))
                return at;
        return std::nullopt;
    }

    /// The last lines, for a failure message.
    std::string tail(std::size_t count) const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        std::string text;
        for (std::size_t i = lines_.size() > count ? lines_.size() - count : 0; i < lines_.size(); ++i)
            text += "  " + lines_[i].second.substr(0, 300) + "\n";
        return text;
    }

private:
    void read_loop()
    {
        std::string buffer;
        char chunk[8192];
        for (;;) {
            pollfd entry{read_fd_, POLLIN, 0};
            int ready = ::poll(&entry, 1, 100);
            if (ready < 0 && errno == EINTR)
                continue;
            if (ready == 0) {
                if (stopping_)
                    return;
                continue;
            }
            ssize_t got = ::read(read_fd_, chunk, sizeof chunk);
            if (got <= 0)
                return;
            auto now = clock_type::now();
            buffer.append(chunk, static_cast<std::size_t>(got));
            std::size_t end;
            while ((end = buffer.find('\n')) != std::string::npos) {
                std::string line = buffer.substr(0, end);
                buffer.erase(0, end + 1);
                file_ << line << '\n';
                std::lock_guard<std::mutex> lock(mutex_);
                lines_.emplace_back(now, std::move(line));
            }
            file_.flush();
        }
    }

    std::ofstream file_;
    int saved_ = -1;
    int read_fd_ = -1;
    std::atomic<bool> stopping_{false};
    mutable std::mutex mutex_;
    std::vector<std::pair<clock_type::time_point, std::string>> lines_;
    std::thread reader_;
};

// ---- the ingest's side of the wire --------------------------------------------------------

/// A proxy in front of the ingest that reads what each publisher sends and notes when its
/// connection opened, its first audio or video message arrived whole, and its first coded
/// video frame (not the decoder configuration) arrived whole.
class wire_watch {
public:
    struct arrival {
        clock_type::time_point connected;
        std::optional<clock_type::time_point> first_media;
        std::optional<clock_type::time_point> first_frame;
    };

    explicit wire_watch(const test::rtmp_ingest& ingest) : proxy_(ingest.rtmp_port())
    {
        proxy_.tap([this](int connection, std::string_view bytes) { on_bytes(connection, bytes); });
    }

    /// The server to publish to through the watch.
    std::string url() const { return "rtmp://127.0.0.1:" + std::to_string(proxy_.port()) + "/live"; }

    /// Connections opened from now on are the ones wait_first_frame() looks at.
    void expect_new() { std::lock_guard<std::mutex> lock(mutex_); from_ = proxy_.accepted() + 1; }

    /// The first connection since expect_new() that carried a coded video frame.
    arrival wait_first_frame(std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        std::optional<arrival> found;
        bool arrived = changed_.wait_for(lock, timeout, [&] {
            for (auto it = connections_.lower_bound(from_); it != connections_.end(); ++it)
                if (it->second.times.first_frame) {
                    found = it->second.times;
                    return true;
                }
            return false;
        });
        if (!arrived)
            throw std::runtime_error("no coded video frame reached the ingest in time");
        return *found;
    }

private:
    struct connection {
        explicit connection(std::function<void(const test::rtmp_chunks::message&)> on_message)
            : reader(std::move(on_message))
        {
        }
        test::rtmp_chunks reader;
        arrival times;
    };

    void on_bytes(int number, std::string_view bytes)
    {
        auto now = clock_type::now();
        std::lock_guard<std::mutex> lock(mutex_);
        auto found = connections_.find(number);
        if (found == connections_.end()) {
            found = connections_
                        .emplace(std::piecewise_construct, std::forward_as_tuple(number),
                                 std::forward_as_tuple([this, number](const test::rtmp_chunks::message& m) {
                                     on_message(number, m);
                                 }))
                        .first;
            found->second.times.connected = now;
        }
        found->second.reader.feed(bytes);
        changed_.notify_all();
    }

    /// Called from feed(), with mutex_ held.
    void on_message(int number, const test::rtmp_chunks::message& m)
    {
        arrival& times = connections_.at(number).times;
        auto now = clock_type::now();
        if (!times.first_media && (m.type == test::rtmp_chunks::audio || m.type == test::rtmp_chunks::video))
            times.first_media = now;
        if (!times.first_frame && test::rtmp_chunks::is_coded_video(m))
            times.first_frame = now;
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<int, connection> connections_;
    int from_ = 1;
    test::fault_proxy proxy_;
};

// ---- players and pushers ----------------------------------------------------------------

/// The reference: ffmpeg capturing the screen (and the default PulseAudio source unless
/// video only), x264 veryfast (and AAC), pushed to the ingest. 4:2:0 like ours (x11grab's
/// BGR0 would otherwise make libx264 encode 4:4:4).
std::unique_ptr<obs::child_process> start_ffmpeg_pusher(const std::string& url, bool with_audio = true)
{
    obs::child_process::options options;
    std::string display = std::getenv("DISPLAY");
    options.argv = {"ffmpeg", "-nostdin", "-loglevel", "error", "-f", "x11grab", "-video_size",
                    std::to_string(width) + "x" + std::to_string(height), "-framerate", "30", "-i",
                    display + ".0"};
    if (with_audio)
        options.argv.insert(options.argv.end(), {"-f", "pulse", "-i", "default", "-c:a", "aac"});
    options.argv.insert(options.argv.end(), {"-pix_fmt", "yuv420p", "-c:v", "libx264", "-preset", "veryfast", "-b:v",
                                             "1500k", "-maxrate", "1500k", "-bufsize", "1500k", "-g", "60", "-f", "flv",
                                             url});
    return std::make_unique<obs::child_process>(options);
}

void stop_process(obs::child_process& process)
{
    process.kill(SIGINT);
    if (!process.wait_for(5s))
        process.kill_and_wait();
}

/// A moving test pattern covering screen 0; returns once the screen is seen to change.
std::unique_ptr<obs::child_process> start_moving_content()
{
    obs::child_process::options options;
    options.argv = {"ffplay", "-loglevel", "error", "-an", "-f", "lavfi", "-i",
                    "testsrc2=size=" + std::to_string(width) + "x" + std::to_string(height) + ":rate=30",
                    // RGB frames reach the window as they are: the pattern costs ~0.4 of a core, not ~0.7.
                    "-vf", "format=rgb0", "-x",
                    std::to_string(width), "-y", std::to_string(height), "-noborder", "-left", "0", "-top", "0"};
    options.environment = {{"SDL_AUDIODRIVER", "dummy"}};
    auto content = std::make_unique<obs::child_process>(options);
    std::string display = std::getenv("DISPLAY");
    bool changing = poll_until(
        [&] {
            // Three grabs a tenth of a second apart must all differ.
            std::string hashes = test::run_program(
                {"ffmpeg", "-nostdin", "-loglevel", "error", "-f", "x11grab", "-framerate", "10", "-video_size",
                 std::to_string(width) + "x" + std::to_string(height), "-i", display + ".0", "-frames:v", "3",
                 "-f", "framemd5", "-"},
                10s);
            std::vector<std::string> seen;
            std::istringstream lines(hashes);
            std::string line;
            while (std::getline(lines, line))
                if (!line.empty() && line[0] != '#')
                    seen.push_back(line.substr(line.rfind(',') + 1));
            return seen.size() == 3 && seen[0] != seen[1] && seen[1] != seen[2];
        },
        deadline, 100ms);
    if (!changing)
        throw std::runtime_error("the test pattern did not show on screen 0");
    return content;
}

// ---- screen content drawn here --------------------------------------------------------

/// A still desktop over the whole first screen (colour ramps, drawn by the X server from
/// a window's background), with a clock ticking in its top right corner: the time and a
/// bar of the seconds, redrawn once a second. Above every other window while it lives.
class still_desktop_with_a_clock {
public:
    still_desktop_with_a_clock() : display_(XOpenDisplay(nullptr))
    {
        if (!display_)
            throw std::runtime_error("cannot open the display");
        Window root = RootWindow(display_, 0);
        int depth = DefaultDepth(display_, 0);
        Pixmap ramps = XCreatePixmap(display_, root, width, height, static_cast<unsigned>(depth));
        std::vector<std::uint32_t> pixels(static_cast<std::size_t>(width) * height);
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
                pixels[static_cast<std::size_t>(y) * width + x] = static_cast<std::uint32_t>(x * 256 / width)
                                                                  << (16 - 8 * (y * 3 / height));
        XImage* image = XCreateImage(display_, DefaultVisual(display_, 0), static_cast<unsigned>(depth), ZPixmap, 0,
                                     reinterpret_cast<char*>(pixels.data()), width, height, 32, 0);
        XPutImage(display_, ramps, DefaultGC(display_, 0), image, 0, 0, 0, 0, width, height);
        image->data = nullptr; // the vector owns it
        XDestroyImage(image);
        XSetWindowAttributes attributes{};
        attributes.override_redirect = True;
        attributes.background_pixmap = ramps;
        desktop_ = XCreateWindow(display_, root, 0, 0, width, height, 0, CopyFromParent, InputOutput, CopyFromParent,
                                 CWOverrideRedirect | CWBackPixmap, &attributes);
        XFreePixmap(display_, ramps);
        XMapRaised(display_, desktop_);
        attributes.background_pixel = BlackPixel(display_, 0);
        clock_ = XCreateWindow(display_, root, width - 200, 8, 180, 40, 0, CopyFromParent, InputOutput, CopyFromParent,
                               CWOverrideRedirect | CWBackPixel, &attributes);
        XMapRaised(display_, clock_);
        XSync(display_, False);
        thread_ = std::thread([this] { run(); });
    }
    ~still_desktop_with_a_clock()
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stop_ = true;
        }
        tick_.notify_all();
        thread_.join();
        XDestroyWindow(display_, clock_);
        XDestroyWindow(display_, desktop_);
        XCloseDisplay(display_);
    }
    still_desktop_with_a_clock(const still_desktop_with_a_clock&) = delete;
    still_desktop_with_a_clock& operator=(const still_desktop_with_a_clock&) = delete;

private:
    void run()
    {
        GC gc = XCreateGC(display_, clock_, 0, nullptr);
        XSetForeground(display_, gc, WhitePixel(display_, 0));
        std::unique_lock<std::mutex> lock(mutex_);
        while (!stop_) {
            std::time_t now = std::time(nullptr);
            std::tm local{};
            localtime_r(&now, &local);
            char text[16];
            std::strftime(text, sizeof text, "%H:%M:%S", &local);
            XClearWindow(display_, clock_);
            XDrawString(display_, clock_, gc, 10, 18, text, static_cast<int>(std::strlen(text)));
            XFillRectangle(display_, clock_, gc, 10, 26, static_cast<unsigned>(local.tm_sec * 160 / 60 + 1), 6);
            XFlush(display_);
            // A clock's pace, not a wait for anything.
            tick_.wait_for(lock, 1s, [this] { return stop_; });
        }
        XFreeGC(display_, gc);
    }

    Display* display_;
    Window desktop_ = 0;
    Window clock_ = 0;
    std::mutex mutex_;
    std::condition_variable tick_;
    bool stop_ = false;
    std::thread thread_;
};

/// A square at the top left of the first screen, above everything, that turns black or
/// white when told.
class flipping_square {
public:
    static constexpr int size = 160;

    flipping_square() : display_(XOpenDisplay(nullptr))
    {
        if (!display_)
            throw std::runtime_error("cannot open the display");
        XSetWindowAttributes attributes{};
        attributes.override_redirect = True;
        attributes.background_pixel = BlackPixel(display_, 0);
        window_ = XCreateWindow(display_, RootWindow(display_, 0), 0, 0, size, size, 0, CopyFromParent, InputOutput,
                                CopyFromParent, CWOverrideRedirect | CWBackPixel, &attributes);
        XMapRaised(display_, window_);
        XSync(display_, False);
    }
    ~flipping_square()
    {
        XDestroyWindow(display_, window_);
        XCloseDisplay(display_);
    }
    flipping_square(const flipping_square&) = delete;
    flipping_square& operator=(const flipping_square&) = delete;

    /// Turns it white or black; returns once the X server has drawn it.
    void show(bool white)
    {
        XSetWindowBackground(display_, window_, white ? WhitePixel(display_, 0) : BlackPixel(display_, 0));
        XClearWindow(display_, window_);
        XSync(display_, False);
    }

private:
    Display* display_;
    Window window_ = 0;
};

/// A player of a live stream at the ingest, as a viewer's would be (ffmpeg, low delay):
/// the brightness of the flipping square in every frame it decodes, with when it did.
class square_watcher {
public:
    explicit square_watcher(const std::string& url)
    {
        obs::child_process::options options;
        options.argv = {"ffmpeg", "-nostdin", "-loglevel", "error", "-fflags", "nobuffer", "-flags", "low_delay",
                        "-i", url, "-an", "-vf",
                        "crop=" + std::to_string(flipping_square::size / 2) + ":" +
                            std::to_string(flipping_square::size / 2) + ":" + std::to_string(flipping_square::size / 4) +
                            ":" + std::to_string(flipping_square::size / 4) + ",scale=2:2",
                        "-pix_fmt", "gray", "-f", "rawvideo", "-flush_packets", "1", "-"};
        options.pipe_stdout = true;
        process_ = std::make_unique<obs::child_process>(options);
        reader_ = std::thread([this] { read(); });
    }
    ~square_watcher()
    {
        process_->kill_and_wait();
        reader_.join();
    }
    square_watcher(const square_watcher&) = delete;
    square_watcher& operator=(const square_watcher&) = delete;

    /// Waits for `count` decoded frames from now on; false when they do not come in time.
    bool wait_frames(int count, std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        std::size_t until = frames_ + static_cast<std::size_t>(count);
        return arrived_.wait_for(lock, timeout, [&] { return frames_ >= until; });
    }

    /// How many frames it has decoded so far.
    std::size_t decoded()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return frames_;
    }

    /// When the first frame after the `from`th decoded the square white (or black).
    std::optional<clock_type::time_point> wait_for(bool white, std::size_t from, std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        std::optional<clock_type::time_point> seen;
        arrived_.wait_for(lock, timeout, [&] {
            for (std::size_t i = from; i < frames_; ++i)
                if ((brightness_[i].second > 128) == white) {
                    seen = brightness_[i].first;
                    return true;
                }
            return false;
        });
        return seen;
    }

private:
    void read()
    {
        unsigned char frame[4];
        std::size_t have = 0;
        for (;;) {
            ssize_t got = ::read(process_->stdout_fd(), frame + have, sizeof frame - have);
            if (got < 0 && errno == EINTR)
                continue;
            if (got <= 0)
                return;
            have += static_cast<std::size_t>(got);
            if (have < sizeof frame)
                continue;
            have = 0;
            auto now = clock_type::now();
            std::lock_guard<std::mutex> lock(mutex_);
            brightness_.emplace_back(now, (frame[0] + frame[1] + frame[2] + frame[3]) / 4);
            ++frames_;
            arrived_.notify_all();
        }
    }

    std::unique_ptr<obs::child_process> process_;
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<std::pair<clock_type::time_point, int>> brightness_;
    std::size_t frames_ = 0;
    std::thread reader_;
};

// ---- the benchmark ----------------------------------------------------------------------

/// Milliseconds from the activate request, each step as it is seen.
struct activation_times {
    double client_in = 0;     // the client has the request ("In: ")
    double worker_ready = 0;  // the stream worker has its canvas and source, and starts the output
    double connected = 0;     // the worker's RTMP connection reaches the ingest
    double reply = 0;         // "Success" at the service: the output is active
    double first_packet = 0;  // the first audio or video message is at the ingest
    double first_frame = 0;   // the first coded video frame is at the ingest
};

class bench {
public:
    bench(stderr_log& log)
        : log_(log), wire_(ingest_), app_(service_, false, [](client_options& options) {
              options.keepalive_interval_ms = 5000; // production pace: keep the log quiet
              options.media.warm = true;            // as the front ends run it
          })
    {
        app_.set_secret(service_.issue_secret({"Bench", ""}));
        app_.on_permission([](callback::source_type::type, const std::string&, const std::string&,
                              callback::request_type::type, const callback::request& request) {
            request.answer(true);
        });
        app_.start();
        if (!app_.wait_for_state(callback::state_type::connected, deadline) || !service_.wait_for_connection(deadline))
            throw std::runtime_error("the client did not connect to the simulator");
        // As the service does: list first (right after connecting), then activate what it listed.
        auto sent = clock_type::now();
        auto state = service_.list("screen");
        auto reply = state ? service_.wait_for_reply(*state, deadline) : std::nullopt;
        if (!reply || json::string_at(reply->message, {"payload", "status"}) != "Success")
            throw std::runtime_error("listing the screens failed");
        first_list_ms_ = ms_between(sent, reply->at);
        screen_entry_ = reply->message["payload"]["results"][0];
        screen_id_ = json::string_at(screen_entry_, {"id"});
    }

    /// The parts named (all when none are).
    void run(const std::vector<std::string>& parts)
    {
        auto wanted = [&](const char* part) {
            return parts.empty() || std::find(parts.begin(), parts.end(), part) != parts.end();
        };
        if (wanted("listing"))
            listing();
        if (wanted("activation"))
            activation();
        if (wanted("still"))
            still_desktop();
        if (wanted("reply") || wanted("latency") || wanted("steady") || wanted("scaling")) {
            auto content = start_moving_content();
            if (wanted("reply"))
                reply_from_outside();
            if (wanted("latency"))
                latency();
            if (wanted("steady"))
                steady_state(*content);
            if (wanted("scaling"))
                scaling();
        }
        if (wanted("idle"))
            agent_idle();
    }

private:
    sim::activation request_for(const std::string& key, const std::string& server) const
    {
        sim::activation request;
        request.source_id = screen_id_;
        request.profile = "medium";
        request.server = server;
        request.key = key;
        return request;
    }

    /// List request to reply, per kind: the first one after connecting, then the median of 5.
    void listing()
    {
        figure("list_first_after_connect_ms", first_list_ms_, "%.1f");
        for (const char* kind : {"screen", "window", "audio", "video"}) {
            std::vector<double> times;
            for (int run = 0; run < 5; ++run) {
                auto sent = clock_type::now();
                auto state = service_.list(kind);
                auto reply = state ? service_.wait_for_reply(*state, deadline) : std::nullopt;
                if (!reply)
                    throw std::runtime_error(std::string("list ") + kind + " was not answered");
                times.push_back(ms_between(sent, reply->at));
            }
            figure(std::string("list_") + kind + "_ms", median(times), "%.1f");
        }
    }

    activation_times activate_ours(int run)
    {
        std::string key = "ours-" + std::to_string(run);
        wire_.expect_new();
        auto sent = clock_type::now();
        auto state = service_.activate(request_for(key, wire_.url()));
        if (!state)
            throw std::runtime_error("the simulator could not send activate");
        auto reply = service_.wait_for_reply(*state, deadline);
        if (!reply || json::string_at(reply->message, {"payload", "status"}) != "Success")
            throw std::runtime_error("activate was not answered Success: " + (reply ? reply->text : "no reply"));
        activation_times times;
        wire_watch::arrival arrived = wire_.wait_first_frame(deadline);
        times.connected = ms_between(sent, arrived.connected);
        times.first_packet = ms_between(sent, *arrived.first_media);
        times.first_frame = ms_between(sent, *arrived.first_frame);
        times.reply = ms_between(sent, reply->at);
        auto client_in = log_.first(
            [](const std::string& line) {
                return line.rfind("In: ", 0) == 0 && line.find("\"activate\"") != std::string::npos;
            },
            sent);
        auto worker_ready = log_.first(
            [](const std::string& line) {
                // The worker logs the stream order it starts.
                return line.rfind("{", 0) == 0 && line.find("\"level\":") != std::string::npos &&
                       line.find("\"server\":") != std::string::npos;
            },
            sent);
        times.client_in = client_in ? ms_between(sent, *client_in) : -1;
        times.worker_ready = worker_ready ? ms_between(sent, *worker_ready) : -1;

        auto stop = service_.deactivate(screen_id_);
        if (!stop || !service_.wait_for_reply(*stop, deadline))
            throw std::runtime_error("deactivate was not answered");
        return times;
    }

    /// ffmpeg started cold, until its first coded video frame is at the ingest.
    double activate_ffmpeg(const std::string& key, bool with_audio)
    {
        wire_.expect_new();
        auto spawned = clock_type::now();
        auto pusher = start_ffmpeg_pusher(wire_.url() + "/" + key, with_audio);
        wire_watch::arrival arrived = wire_.wait_first_frame(deadline);
        stop_process(*pusher);
        return ms_between(spawned, *arrived.first_frame);
    }

    void activation()
    {
        progress("activation, " + std::to_string(activation_runs) + " runs each");
        std::vector<activation_times> ours;
        std::vector<double> video_only, with_audio;
        for (int run = 0; run < activation_runs; ++run) {
            ours.push_back(activate_ours(run));
            video_only.push_back(activate_ffmpeg("ffmpeg-video-" + std::to_string(run), false));
            with_audio.push_back(activate_ffmpeg("ffmpeg-audio-" + std::to_string(run), true));
        }
        auto step = [&](double activation_times::*field) {
            std::vector<double> values;
            for (const auto& times : ours)
                values.push_back(times.*field);
            return median(values);
        };
        side_by_side("activation_to_first_frame_ms", step(&activation_times::first_frame), median(video_only), "%.0f");
        side_by_side("activation_to_first_frame_vs_ffmpeg_with_audio_ms", step(&activation_times::first_frame),
                     median(with_audio), "%.0f");
        // Where our time goes, each step from the request (medians).
        figure("activation_client_in_ms", step(&activation_times::client_in), "%.1f");
        figure("activation_worker_ready_ms", step(&activation_times::worker_ready));
        figure("activation_rtmp_connected_ms", step(&activation_times::connected));
        figure("activation_reply_ms", step(&activation_times::reply));
        figure("activation_first_packet_ms", step(&activation_times::first_packet));

        // The stream worker alone, as the client drives it.
        std::vector<double> starts, activations;
        for (int run = 0; run < activation_runs; ++run) {
            std::string key = "direct-" + std::to_string(run);
            obs::worker::options options;
            options.stream_worker = true;
            auto spawned = clock_type::now();
            obs::worker stream(options);
            auto ready = clock_type::now();
            obs::pipe::stream_result started = stream.stream(order_for(key));
            auto answered = clock_type::now();
            if (!started.started)
                throw std::runtime_error("the worker did not start the stream: " + started.error);
            starts.push_back(ms_between(spawned, ready));
            activations.push_back(ms_between(ready, answered));
        }
        figure("worker_start_deferred_ms", median(starts));
        figure("worker_activate_op_ms", median(activations));
    }

    /// The stream order the client sends a stream worker for screen 0.
    obs::pipe::stream_order order_for(const std::string& key) const
    {
        auto source = obs::source_entry_from_json(screen_entry_);
        if (!source)
            throw std::runtime_error("the listed screen is not a catalogue entry");
        return obs::pipe::stream_order::of(
            obs::activate_request::parse(service_.activate_message(request_for(key, ingest_.url()), "bench")), *source,
            1500, "");
    }

    /// CPU of a stream of a still desktop with a clock ticking, ours against ffmpeg
    /// grabbing and encoding the same screen (x11grab + libx264 veryfast + AAC from the
    /// same sound server), one after the other.
    void still_desktop()
    {
        progress("still desktop with a clock, " + std::to_string(still_window.count()) + " s each");
        still_desktop_with_a_clock desktop;
        obs::worker::options options;
        options.stream_worker = true;
        obs::worker stream(options);
        obs::pipe::stream_result started = stream.stream(order_for("still-ours"));
        if (!started.started)
            throw std::runtime_error("the worker did not start the stream: " + started.error);
        std::this_thread::sleep_for(warm_up); // past the start-up burst
        Json before = stream.call(Json{{"op", "stats"}});
        auto [ours, our_split] = cpu_rate_by_thread(stream.pid(), still_window);
        Json after = stream.call(Json{{"op", "stats"}});
        stream.shutdown();

        auto pusher = start_ffmpeg_pusher(ingest_.stream_url("still-ffmpeg"), true);
        if (!ingest_.wait_for_publishing("still-ffmpeg", deadline))
            throw std::runtime_error("the ffmpeg pusher did not publish");
        std::this_thread::sleep_for(warm_up);
        auto [theirs, their_split] = cpu_rate_by_thread(pusher->pid(), still_window);
        stop_process(*pusher);
        side_by_side("still_desktop_cpu_s_per_s", ours, theirs, "%.3f");
        // Where it goes, by thread (x264's own threads are unnamed: they carry the program's name).
        std::fprintf(out, "still_desktop_threads ours: %s; ffmpeg: %s\n", our_split.c_str(), their_split.c_str());
        double frames = static_cast<double>(json::at(after, {"frames"}).get<long long>() -
                                            json::at(before, {"frames"}).get<long long>());
        figure("still_desktop_fps", frames / static_cast<double>(still_window.count()), "%.2f");
    }

    /// Time from a change on the screen (a square turning white or black, drawn by the
    /// X server) to the first frame a player at the ingest decodes with it, in the steady
    /// state (each player has had a key frame and two seconds of frames); medians of 10,
    /// ours against ffmpeg's pusher (video only) at the same bitrate, on the moving pattern.
    /// Both stream at once and each change is timed on both, so both see the same load.
    void latency()
    {
        progress("change on screen -> decoded at the ingest, " + std::to_string(latency_changes) + " changes");
        flipping_square square;
        obs::worker::options options;
        options.stream_worker = true;
        obs::worker stream(options);
        obs::pipe::stream_result started = stream.stream(order_for("latency-ours"));
        if (!started.started)
            throw std::runtime_error("the worker did not start the stream: " + started.error);
        auto pusher = start_ffmpeg_pusher(ingest_.stream_url("latency-ffmpeg"), false);
        if (!ingest_.wait_for_publishing("latency-ffmpeg", deadline))
            throw std::runtime_error("the ffmpeg pusher did not publish");
        square_watcher ours_player(ingest_.stream_url("latency-ours"));
        square_watcher their_player(ingest_.stream_url("latency-ffmpeg"));
        for (auto* player : {&ours_player, &their_player})
            if (!player->wait_frames(2 * 30, deadline))
                throw std::runtime_error("a player decoded no frames");
        std::vector<double> ours, theirs;
        bool white = false;
        for (int change = 0; change < latency_changes; ++change) {
            // Changes land anywhere within a frame's 33 ms, not on one phase of it.
            std::this_thread::sleep_for(600ms + std::chrono::milliseconds(7 * change));
            white = !white;
            std::size_t our_from = ours_player.decoded();
            std::size_t their_from = their_player.decoded();
            square.show(white);
            auto drawn = clock_type::now();
            auto our_decoded = ours_player.wait_for(white, our_from, deadline);
            auto their_decoded = their_player.wait_for(white, their_from, deadline);
            if (!our_decoded || !their_decoded)
                throw std::runtime_error("a change never reached a player");
            ours.push_back(ms_between(drawn, *our_decoded));
            theirs.push_back(ms_between(drawn, *their_decoded));
        }
        stop_process(*pusher);
        stream.shutdown();
        side_by_side("change_to_decoded_at_ingest_ms", median(ours), median(theirs), "%.0f");
    }

    /// activate -> "Success" as a service sees it: the simulator as a program of its own,
    /// the agent as another, the request and reply over TLS between them, a moving screen.
    /// Timed here from writing the request into the simulator's console to reading its
    /// line saying the reply arrived. The first activation right after the agent connected
    /// (and the service listed) apart from the following ones, 1.5 s apart.
    void reply_from_outside()
    {
        progress("activate -> Success from an outside service, 1 + " + std::to_string(outside_runs) + " runs");
        test::temp_dir directory("orbweave-bench-outside");
        obs::child_process::options spawn;
        spawn.argv = {obs::beside_this_program("orbweave-service-sim"), "--ca-dir", directory.file("ca"),
                      "--auto-claim", "Bench"};
        spawn.pipe_stdin = true;
        spawn.pipe_stdout = true;
        obs::child_process service(spawn);
        test::line_reader events(service.stdout_fd());
        auto listening = events.wait_for_prefix("listening ", deadline);
        if (!listening)
            throw std::runtime_error("the simulator did not listen");
        std::string url = listening->substr(std::strlen("listening "));

        spawn = {};
        spawn.argv = {obs::beside_this_program("orbweave-agent"), "--service", url, "--ca-file",
                      directory.file("ca") + "/ca.pem", "--state-dir", directory.file("state"), "--allow", "screen",
                      "--bitrate", "1500"};
        spawn.pipe_stdout = true;
        obs::child_process agent(spawn);
        test::line_reader agent_lines(agent.stdout_fd());
        if (!agent_lines.wait_for_prefix("state connected", deadline))
            throw std::runtime_error("the agent did not pair");

        // One console command; its reply (by the state the simulator gave it) and when it came.
        auto request = [&](const std::string& command) {
            std::string line = command + "\n";
            auto sent = clock_type::now();
            if (::write(service.stdin_fd(), line.data(), line.size()) != static_cast<ssize_t>(line.size()))
                throw std::runtime_error("cannot write to the simulator");
            // The reply can be told before the console says which state the request had:
            // every reply read meanwhile is kept with when it came.
            std::string state;
            std::vector<std::pair<std::string, clock_type::time_point>> replies;
            auto end = clock_type::now() + deadline;
            std::optional<std::pair<std::string, clock_type::time_point>> reply;
            while (!reply) {
                auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - clock_type::now());
                auto line = events.next(std::max(left, std::chrono::milliseconds(0)));
                if (!line)
                    throw std::runtime_error("no reply to " + command);
                if (line->rfind("reply ", 0) == 0)
                    replies.emplace_back(line->substr(std::strlen("reply ")), clock_type::now());
                else if (line->find(" sent state ") != std::string::npos)
                    state = line->substr(line->rfind(' ') + 1);
                if (state.empty())
                    continue;
                for (const auto& each : replies)
                    if (each.first.find("\"state\":\"" + state + "\"") != std::string::npos)
                        reply = each;
            }
            return std::make_pair(Json::parse(reply->first), ms_between(sent, reply->second));
        };
        auto [listed, list_ms] = request("list screen");
        std::string id = json::string_at(listed["payload"]["results"][0], {"id"});
        if (id.empty())
            throw std::runtime_error("the agent listed no screen");
        auto activate = [&](int run) {
            auto [reply, took] = request("activate " + id + " medium " + ingest_.url() + " outside-" +
                                         std::to_string(run));
            if (json::string_at(reply, {"payload", "status"}) != "Success")
                throw std::runtime_error("activate was not answered Success: " + reply.dump());
            request("deactivate " + id);
            return took;
        };
        double first = activate(0);
        std::vector<double> later;
        for (int run = 1; run <= outside_runs; ++run) {
            // The outside peer's pace: a producer switching sources.
            std::this_thread::sleep_for(1500ms);
            later.push_back(activate(run));
        }
        figure("outside_activation_reply_first_after_connect_ms", first);
        figure("outside_activation_reply_ms", median(later));
        figure("outside_activation_reply_min_ms", *std::min_element(later.begin(), later.end()));
        figure("outside_activation_reply_max_ms", *std::max_element(later.begin(), later.end()));
        agent.kill(SIGTERM);
        if (!agent.wait_for(15s))
            agent.kill_and_wait();
        stop_process(service);
    }

    void steady_state(const obs::child_process& content)
    {
        progress("steady state, 60 s each on a moving pattern");

        // Ours: the stream worker exactly as the client starts it, driven directly so its
        // counters can be read.
        obs::worker::options options;
        options.stream_worker = true;
        obs::worker stream(options);
        obs::pipe::stream_result started = stream.stream(order_for("steady-ours"));
        if (!started.started)
            throw std::runtime_error("the worker did not start the stream: " + started.error);
        std::this_thread::sleep_for(warm_up); // past the start-up burst
        Json before = stream.call(Json{{"op", "stats"}});
        auto rates = cpu_rates({stream.pid(), content.pid()}, steady_window);
        Json after = stream.call(Json{{"op", "stats"}});
        if (!ingest_.publishing("steady-ours"))
            throw std::runtime_error("our stream was not publishing at the end of the window");
        stream.shutdown();
        double ours = rates[0];
        double content_ours = rates[1];
        // A CPU figure only counts for a stream that carries the picture: a flat one (a
        // broken colour conversion, say) encodes for almost nothing.
        if (ingest_.wait_until_not_publishing("steady-ours", deadline)) {
            auto recorded = ingest_.probe_recording("steady-ours");
            auto frame = ingest_.recording_frame("steady-ours", std::max(0.0, recorded.duration - 1.0), 64, 36);
            auto [darkest, brightest] = std::minmax_element(frame.begin(), frame.end());
            if (frame.empty() || *brightest - *darkest <= 40)
                throw std::runtime_error("our stream's picture is flat: its CPU figure would mean nothing");
        }

        auto pusher = start_ffmpeg_pusher(ingest_.stream_url("steady-ffmpeg"));
        if (!ingest_.wait_for_publishing("steady-ffmpeg", deadline))
            throw std::runtime_error("the ffmpeg pusher did not publish");
        std::this_thread::sleep_for(warm_up);
        rates = cpu_rates({pusher->pid(), content.pid()}, steady_window);
        if (!ingest_.publishing("steady-ffmpeg"))
            throw std::runtime_error("the ffmpeg pusher was not publishing at the end of the window");
        stop_process(*pusher);

        side_by_side("stream_cpu_s_per_s", ours, rates[0], "%.2f");
        auto delta = [&](const char* key) {
            return static_cast<double>(json::at(after, {key}).get<long long>() -
                                       json::at(before, {key}).get<long long>());
        };
        figure("stream_frames_60s", delta("frames"));
        figure("stream_dropped_frames_60s", delta("dropped"));
        figure("stream_lagged_frames_60s", delta("lagged"));
        figure("stream_skipped_frames_60s", delta("skipped"));
        figure("test_pattern_cpu_s_per_s", (content_ours + rates[1]) / 2, "%.2f");
        // Other work on the machine skews both figures (and lags our renders): say how busy it was.
        std::ifstream load("/proc/loadavg");
        double one_minute = 0;
        if (load >> one_minute)
            figure("machine_load_1m", one_minute, "%.2f");
    }

    /// 1, 2 and 4 streams of the same screen at once, each in a worker of its own as the
    /// client runs them: CPU (of one core) and RSS per stream.
    void scaling()
    {
        progress("scaling: 1, 2 and 4 streams at once, 10 s each");
        for (int count : {1, 2, 4}) {
            std::vector<std::unique_ptr<obs::worker>> streams;
            std::vector<pid_t> pids;
            for (int i = 0; i < count; ++i) {
                obs::worker::options options;
                options.stream_worker = true;
                streams.push_back(std::make_unique<obs::worker>(options));
                std::string key = "scale-" + std::to_string(count) + "-" + std::to_string(i);
                obs::pipe::stream_result started = streams.back()->stream(order_for(key));
                if (!started.started)
                    throw std::runtime_error("stream " + key + " did not start: " + started.error);
                pids.push_back(streams.back()->pid());
            }
            std::this_thread::sleep_for(warm_up); // past the start-up burst
            auto lagged = [&] {
                long long total = 0;
                for (auto& stream : streams)
                    total += json::at(stream->call(Json{{"op", "stats"}}), {"lagged"}).get<long long>();
                return total;
            };
            long long lagged_before = lagged();
            auto rates = cpu_rates(pids, scaling_window);
            long long lagged_during = lagged() - lagged_before;
            double cpu = 0, rss = 0;
            for (std::size_t i = 0; i < pids.size(); ++i) {
                cpu += rates[i];
                rss += static_cast<double>(rss_kib(pids[i]));
            }
            std::string prefix = "scaling_" + std::to_string(count) + "_streams_";
            figure(prefix + "cpu_s_per_s_per_stream", cpu / count, "%.2f");
            figure(prefix + "rss_kib_per_stream", rss / count);
            // Frames rendered or grabbed late, all streams together: a machine that keeps up has none.
            figure(prefix + "lagged_frames", static_cast<double>(lagged_during));
            for (auto& stream : streams)
                stream->shutdown();
        }
    }

    void agent_idle()
    {
        progress("agent idle, 10 s");
        sim::options options;
        options.auto_claim = sim::owner{"Bench", ""};
        sim::service_sim service(options);
        test::temp_dir state("orbweave-bench-agent");
        service.identity().write(state.path());

        obs::child_process::options spawn;
        spawn.argv = {obs::beside_this_program("orbweave-agent"), "--service", service.url(), "--ca-file",
                      state.file("ca.pem"), "--state-dir", state.file("state"), "--allow", "screen",
                      "--bitrate", "1500"};
        spawn.pipe_stdout = true;
        obs::child_process agent(spawn);
        test::line_reader lines(agent.stdout_fd());
        if (!lines.wait_for_prefix("state connected", deadline))
            throw std::runtime_error("the agent did not pair");
        if (!service.wait_for_connection(deadline))
            throw std::runtime_error("the simulator saw no connection");
        auto listed = service.list("screen");
        if (!listed || !service.wait_for_reply(*listed, deadline))
            throw std::runtime_error("the agent did not answer list");

        // Its workers: the listing worker, and the spare stream worker (started without a canvas).
        std::vector<int> spare;
        if (!poll_until([&] { return !(spare = test::children_running(agent.pid(), {"--stream-worker"})).empty(); },
                        deadline))
            throw std::runtime_error("the agent started no spare stream worker");
        std::vector<pid_t> pids{agent.pid(), spare.front()};
        for (int pid : test::children_running(agent.pid(), {"orbweave-media-worker"}))
            if (pid != spare.front())
                pids.push_back(pid);
        if (pids.size() != 3)
            throw std::runtime_error("the agent does not run one listing worker");
        auto rates = cpu_rates(pids, idle_window);
        figure("agent_idle_cpu_s_per_s", rates[0], "%.3f");
        figure("agent_rss_kib", static_cast<double>(rss_kib(agent.pid())));
        figure("spare_worker_idle_cpu_s_per_s", rates[1], "%.3f");
        figure("spare_worker_rss_kib", static_cast<double>(rss_kib(pids[1])));
        figure("listing_worker_idle_cpu_s_per_s", rates[2], "%.3f");
        figure("listing_worker_rss_kib", static_cast<double>(rss_kib(pids[2])));
        agent.kill(SIGTERM);
        if (!agent.wait_for(15s))
            agent.kill_and_wait();
    }

    stderr_log& log_;
    test::rtmp_ingest ingest_;
    wire_watch wire_;
    sim::service_sim service_;
    test::client_harness app_;
    std::string screen_id_;
    Json screen_entry_;
    double first_list_ms_ = 0;
};

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> parts(argv + 1, argv + argc);
    test::temp_dir directory("orbweave-bench-streaming");
    std::string log_path = directory.file("bench.log");
    int status = 0;
    {
        stderr_log log(log_path);
        test::media_environment::options settings;
        settings.screens = {{width, height}};
        settings.windows = {};
        test::media_environment environment(settings);
        try {
            environment.SetUp();
            bench(log).run(parts);
            // The figures again, machine-readable, where scripts/bench asks for them.
            if (const char* path = std::getenv("ORBWEAVE_BENCH_JSON")) {
                std::ofstream(path) << summary.dump(2) << '\n';
            }
        } catch (const std::exception& error) {
            std::fprintf(note, "bench_streaming: %s\nlast lines of the log:\n%s", error.what(), log.tail(30).c_str());
            status = 1;
        }
        environment.TearDown();
    }
    return status;
}
