#include "media/output.hpp"

#include "core/log.hpp"
#include "media/catalogue.hpp"
#include "media/encoders.hpp"
#include "media/runtime.hpp"

#include <obs.h>

#include <xcb/xcb.h>

#include <dirent.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <thread>

namespace orbweave::obs {

namespace {

using namespace std::chrono_literals;
using clock = std::chrono::steady_clock;

// The size of the canvas of a stream without video (an audio device).
constexpr int no_video_size = 4;
// How often a source's size is read again while it has none.
constexpr auto size_poll_interval = 1ms;
// How long an output whose connection was shut down may take to report that it stopped.
constexpr auto interrupt_limit = 2s;

const char* output_code_text(long long code)
{
    switch (code) {
    case OBS_OUTPUT_SUCCESS: return "stopped";
    case OBS_OUTPUT_BAD_PATH: return "bad server address";
    case OBS_OUTPUT_CONNECT_FAILED: return "connect failed";
    case OBS_OUTPUT_INVALID_STREAM: return "stream rejected";
    case OBS_OUTPUT_DISCONNECTED: return "disconnected";
    case OBS_OUTPUT_UNSUPPORTED: return "unsupported";
    case OBS_OUTPUT_NO_SPACE: return "no space";
    case OBS_OUTPUT_ENCODE_ERROR: return "encoder failed";
    default: return "failed";
    }
}

/// "rtmp connect failed: <what libobs said>" and the like.
std::string describe_stop(long long code, const std::string& last_error)
{
    std::string text = std::string("rtmp ") + output_code_text(code);
    if (!last_error.empty())
        text += ": " + last_error;
    return text;
}

/// Reads the source's size until either dimension is non-zero, at most until deadline.
std::pair<int, int> wait_for_size(obs_source_t* source, clock::time_point deadline)
{
    for (;;) {
        int width = static_cast<int>(obs_source_get_width(source));
        int height = static_cast<int>(obs_source_get_height(source));
        if (width != 0 || height != 0)
            return {width, height};
        if (clock::now() >= deadline)
            return {0, 0};
        // The source has no event for "size known"; poll it, bounded by the deadline.
        std::this_thread::sleep_for(size_poll_interval);
    }
}

/// libobs encodes widths that are a multiple of 4 and even heights, trimming anything else
/// (an 853 x 480 canvas streams as 852 x 480, scaled). The canvas gets that size itself,
/// so what is captured is what is sent, pixel for pixel.
std::pair<int, int> encodable_size(std::pair<int, int> size)
{
    return {std::max(size.first & ~3, 4), std::max(size.second & ~1, 2)};
}

bool canvas_is(int width, int height)
{
    obs_video_info info{};
    return obs_get_video_info(&info) && static_cast<int>(info.base_width) == width &&
           static_cast<int>(info.base_height) == height && info.fps_num == stream_fps && info.fps_den == 1;
}

/// Takes scene off output channel 0 when it is what the channel shows, stopping its capture.
void clear_channel(obs_scene_t* scene)
{
    source_handle shown(obs_get_output_source(0));
    if (shown && shown.get() == obs_scene_get_source(scene))
        obs_set_output_source(0, nullptr);
}

source_handle create_source(const char* id, const data_handle& settings)
{
    return source_handle(obs_source_create(id, "source", settings.get(), nullptr));
}

/// This process's TCP sockets (IPv4 and IPv6): descriptor and inode.
std::vector<std::pair<int, ino_t>> tcp_sockets()
{
    std::vector<std::pair<int, ino_t>> sockets;
    DIR* directory = ::opendir("/proc/self/fd");
    if (!directory)
        return sockets;
    int own = ::dirfd(directory);
    while (dirent* item = ::readdir(directory)) {
        char* end = nullptr;
        long fd = std::strtol(item->d_name, &end, 10);
        if (end == item->d_name || *end != '\0' || fd == own)
            continue;
        struct stat status;
        if (::fstat(static_cast<int>(fd), &status) < 0 || !S_ISSOCK(status.st_mode))
            continue;
        int domain = 0, type = 0;
        socklen_t length = sizeof domain;
        if (::getsockopt(static_cast<int>(fd), SOL_SOCKET, SO_DOMAIN, &domain, &length) < 0)
            continue;
        length = sizeof type;
        if (::getsockopt(static_cast<int>(fd), SOL_SOCKET, SO_TYPE, &type, &length) < 0)
            continue;
        if ((domain == AF_INET || domain == AF_INET6) && type == SOCK_STREAM)
            sockets.emplace_back(static_cast<int>(fd), status.st_ino);
    }
    ::closedir(directory);
    return sockets;
}

std::vector<ino_t> tcp_socket_inodes()
{
    std::vector<ino_t> inodes;
    for (const auto& socket : tcp_sockets())
        inodes.push_back(socket.second);
    return inodes;
}

/// Shuts down the TCP sockets made since `before` was taken. libobs's RTMP output
/// cannot be stopped while it connects (stopping joins its connect thread), and a
/// server that accepts the connection and never answers holds that thread in a
/// blocking read for half a minute; a shut-down socket ends the read at once, and
/// the connection then fails the ordinary way. The worker carries one stream, so the
/// new sockets are that stream's.
void interrupt_connections_since(const std::vector<ino_t>& before)
{
    for (const auto& [fd, inode] : tcp_sockets())
        if (std::find(before.begin(), before.end(), inode) == before.end())
            ::shutdown(fd, SHUT_RDWR);
}

} // namespace

// Follows the libobs output's "activate" and "stop" signals.
struct output::watch {
    std::mutex mutex;
    std::condition_variable changed;
    bool activated = false;
    bool stopped = false;
    bool stop_requested = false;
    long long code = 0;
    std::string last_error;
    stopped_handler on_stopped;
    obs_output_t* connected = nullptr;

    void connect(obs_output_t* output)
    {
        signal_handler_t* signals = obs_output_get_signal_handler(output);
        signal_handler_connect(signals, "activate", &watch::on_activate, this);
        signal_handler_connect(signals, "stop", &watch::on_stop, this);
        connected = output;
    }

    /// After this returns no callback runs any more (libobs holds the handler's lock while calling).
    void disconnect()
    {
        if (!connected)
            return;
        signal_handler_t* signals = obs_output_get_signal_handler(connected);
        signal_handler_disconnect(signals, "activate", &watch::on_activate, this);
        signal_handler_disconnect(signals, "stop", &watch::on_stop, this);
        connected = nullptr;
    }

    static void on_activate(void* data, calldata_t*) noexcept
    {
        auto* self = static_cast<watch*>(data);
        {
            std::lock_guard<std::mutex> lock(self->mutex);
            self->activated = true;
        }
        self->changed.notify_all();
    }

    static void on_stop(void* data, calldata_t* params) noexcept
    {
        auto* self = static_cast<watch*>(data);
        stopped_handler handler;
        std::string reason;
        try {
            std::lock_guard<std::mutex> lock(self->mutex);
            self->stopped = true;
            self->code = calldata_int(params, "code");
            const char* error = calldata_string(params, "last_error");
            self->last_error = error ? error : "";
            // A stream that was sending and stops without being asked to.
            if (self->activated && !self->stop_requested && self->on_stopped) {
                handler = std::move(self->on_stopped);
                reason = describe_stop(self->code, self->last_error);
            }
        } catch (...) {
            // Called from libobs (C): nothing may escape.
        }
        self->changed.notify_all();
        if (handler) {
            try {
                handler(reason);
            } catch (...) {
            }
        }
    }
};

output::output() = default;

output::~output()
{
    release();
}

bool output::active() const
{
    return output_ && (obs_output_active(output_.get()) || obs_output_reconnecting(output_.get()));
}

void output::set_stopped_handler(stopped_handler handler)
{
    if (!watch_)
        watch_ = std::make_unique<watch>();
    std::lock_guard<std::mutex> lock(watch_->mutex);
    watch_->on_stopped = std::move(handler);
}

bool output::stop()
{
    if (!output_ || !watch_)
        return true;
    obs_output_t* stream = output_.get();
    bool stopped = true;
    if (obs_output_active(stream) || obs_output_reconnecting(stream)) {
        std::unique_lock<std::mutex> lock(watch_->mutex);
        watch_->stop_requested = true;
        watch_->stopped = false;
        lock.unlock();
        obs_output_stop(stream);
        lock.lock();
        stopped = watch_->changed.wait_for(lock, output_stop_limit, [this] { return watch_->stopped; });
        lock.unlock();
        if (!stopped) {
            // A server that stopped reading holds the send thread in a full socket.
            log::line("media: the stream did not stop in time; closing its connection");
            interrupt_connections_since(sockets_before_);
            lock.lock();
            watch_->changed.wait_for(lock, interrupt_limit, [this] { return watch_->stopped; });
        }
    }
    return stopped;
}

void output::release()
{
    stop();
    if (watch_)
        watch_->disconnect();
    output_.reset();
    service_.reset();
    audio_encoder_.reset();
    video_encoder_.reset();
    if (scene_) {
        // Take the scene (and with it the capture) off the canvas, unless another stream replaced it.
        clear_channel(scene_.get());
        scene_.reset();
    }
}

source_handle output::create_screen_source(const Json&, const Json& entry)
{
    data_handle settings(obs_data_create());
    obs_data_set_int(settings.get(), "screen", json::int_at(entry, {"index"}));
    return create_source(capture_id::screen, settings);
}

source_handle output::create_window_source(const Json&, const Json& entry)
{
    // The value the window list offers: "XID\r\ntitle\r\nclass".
    std::string window = std::to_string(json::int_at(entry, {"pid"})) + "\r\n" +
                         json::string_at(entry, {"description"}) + "\r\n" + json::string_at(entry, {"name"});
    data_handle settings(obs_data_create());
    obs_data_set_string(settings.get(), "capture_window", window.c_str());
    return create_source(capture_id::window, settings);
}

source_handle output::create_audio_source(const Json&, const Json& entry)
{
    data_handle settings(obs_data_create());
    obs_data_set_string(settings.get(), "device_id", json::string_at(entry, {"device_id"}).c_str());
    return create_source(json::bool_at(entry, {"input"}) ? capture_id::audio_input : capture_id::audio_output,
                         settings);
}

source_handle output::create_video_source(const Json&, const Json& entry)
{
    data_handle settings(obs_data_create());
    obs_data_set_string(settings.get(), "device_id", json::string_at(entry, {"device"}).c_str());
    return create_source(capture_id::camera, settings);
}

service_handle output::create_service(const Json& request)
{
    data_handle settings(obs_data_create());
    obs_data_set_string(settings.get(), "key", json::string_at(request, {"payload", "service", "key"}).c_str());
    obs_data_set_string(settings.get(), "server",
                        json::string_at(request, {"payload", "service", "server"}).c_str());
    return service_handle(obs_service_create(rtmp_service_id, "rtmp_service", settings.get(), nullptr));
}

output_handle output::create_output(const Json&)
{
    output_handle stream(obs_output_create("rtmp_output", "rtmp_output", nullptr, nullptr));
    if (stream)
        obs_output_set_reconnect_settings(stream.get(), 2147483647, 3);
    return stream;
}

bool output::prepare_output(const encoder_handle& video, const encoder_handle& audio, const service_handle& service,
                            const output_handle& output)
{
    data_handle service_settings(obs_service_get_settings(service.get()));
    // The service's own settings go in the video encoder settings' place, on purpose.
    obs_service_apply_encoder_settings(service.get(), service_settings.get(), nullptr);
    obs_output_set_video_encoder(output.get(), video.get());
    obs_output_set_audio_encoder(output.get(), audio.get(), 0);
    obs_output_set_service(output.get(), service.get());
    return true;
}

void output::set_scene_bounds(obs_scene_t* scene, int width, int height)
{
    vec2 bounds;
    vec2_set(&bounds, static_cast<float>(width), static_cast<float>(height));
    obs_scene_enum_items(
        scene,
        [](obs_scene_t*, obs_sceneitem_t* item, void* data) {
            obs_sceneitem_set_bounds(item, static_cast<const vec2*>(data));
            obs_sceneitem_set_bounds_type(item, OBS_BOUNDS_SCALE_INNER);
            return true;
        },
        &bounds);
}

std::pair<int, int> output::window_size(long long xid)
{
    // A connection of our own: X errors (a window that is gone) come back as values.
    xcb_connection_t* connection = xcb_connect(nullptr, nullptr);
    std::pair<int, int> size{0, 0};
    if (xcb_connection_has_error(connection) == 0 && xid > 0) {
        xcb_get_geometry_reply_t* geometry = xcb_get_geometry_reply(
            connection, xcb_get_geometry(connection, static_cast<xcb_drawable_t>(xid)), nullptr);
        if (geometry)
            size = {geometry->width, geometry->height};
        std::free(geometry);
    }
    xcb_disconnect(connection);
    return size;
}

bool output::ensure_video(int width, int height)
{
    if (canvas_is(width, height))
        return true;
    return initialize_video(static_cast<unsigned>(width), static_cast<unsigned>(height), stream_fps);
}

bool output::start(const Json& request, const Json& entry, int bitrate)
{
    using callback::source_type;
    error_.clear();
    if (started_) {
        error_ = "stream already started";
        return false;
    }
    std::string kind_text = json::string_at(request, {"payload", "source", "type"});
    source_type::type kind = source_type::map(kind_text);
    if (kind_text.empty() || kind == source_type::none) {
        error_ = "unknown source type";
        return false;
    }
    bool with_audio = kind != source_type::audio;
    bool with_video = kind != source_type::audio;
    bool software = kind == source_type::audio || kind == source_type::video;

    // The canvas is made once, at the stream's final size, so the source's size must be
    // known first. A screen reports it without a canvas; a window is measured through X
    // (window capture needs the graphics context to exist before it is created); a camera
    // only learns its size from frames, which need a running canvas, so it gets a small
    // one first.
    auto deadline = clock::now() + source_size_limit;
    source_handle source;
    std::pair<int, int> source_size{no_video_size, no_video_size};
    bool restart_capture = false;
    switch (kind) {
    case source_type::screen:
        source = create_screen_source(request, entry);
        if (source)
            source_size = wait_for_size(source.get(), deadline);
        restart_capture = true;
        break;
    case source_type::window:
        source_size = window_size(json::int_at(entry, {"pid"}));
        break;
    case source_type::audio:
        source = create_audio_source(request, entry);
        break;
    case source_type::video:
        ensure_video(no_video_size, no_video_size);
        source = create_video_source(request, entry);
        if (source)
            source_size = wait_for_size(source.get(), deadline);
        break;
    default:
        break;
    }
    if (kind != source_type::window && !source) {
        error_ = "cannot create the capture source";
        return false;
    }
    if (with_video && source_size.first == 0 && source_size.second == 0) {
        error_ = kind == source_type::window ? "window not found" : "source has no size";
        return false;
    }

    auto target = target_frame_size(request);
    // "fps" may be sent; streams run at 30 frames per second whatever it says.
    [[maybe_unused]] bool has_fps = json::is_number_at(request, {"payload", "options", "fps"});
    frame_size_ = with_video ? scale_dimensions(source_size.first, source_size.second, target.first, target.second)
                             : std::pair<int, int>{no_video_size, no_video_size};
    frame_size_ = encodable_size(frame_size_);
    if (!ensure_video(frame_size_.first, frame_size_.second)) {
        error_ = "cannot set up video at " + std::to_string(frame_size_.first) + "x" +
                 std::to_string(frame_size_.second);
        return false;
    }
    if (kind == source_type::window) {
        source = create_window_source(request, entry);
        if (!source) {
            error_ = "cannot create the capture source";
            return false;
        }
    } else if (restart_capture) {
        // Made before the canvas existed: let it set up its capture again with graphics.
        obs_source_update(source.get(), nullptr);
    }

    if (attempt(request, source, kind, with_audio, software, bitrate))
        return true;
    log::line(software_fallback_line);
    std::string first_error = error_;
    if (attempt(request, source, kind, with_audio, true, bitrate))
        return true;
    if (error_.empty())
        error_ = first_error;
    return false;
}

bool output::attempt(const Json& request, const source_handle& source, callback::source_type::type kind,
                     bool with_audio, bool software, int bitrate)
{
    using callback::source_type;
    error_.clear();
    scene_handle scene(obs_scene_create("scene"));
    obs_scene_add(scene.get(), source.get());
    if (with_audio) {
        // A camera takes the default microphone along; a screen or window the machine's playback.
        const char* companion_id = kind == source_type::video ? capture_id::audio_input : capture_id::audio_output;
        source_handle companion(obs_source_create(companion_id, "source", nullptr, nullptr));
        if (companion)
            obs_scene_add(scene.get(), companion.get());
    }
    obs_set_output_source(0, obs_scene_get_source(scene.get()));

    profile_type::type level = profile_from_request(request);
    log::line(json::dump(json::redacted(request)));
    set_scene_bounds(scene.get(), frame_size_.first, frame_size_.second);

    encoder_handle video = create_video_encoder(request, kind, software, level, bitrate);
    encoder_handle audio = create_audio_encoder(request);
    service_handle service = create_service(request);
    output_handle stream = create_output(request);
    if (!video || !audio || !service || !stream) {
        clear_channel(scene.get());
        error_ = !video ? "cannot create the video encoder"
                 : !audio ? "cannot create the audio encoder"
                 : !service ? "cannot create the rtmp service"
                            : "cannot create the rtmp output";
        return false;
    }
    prepare_output(video, audio, service, stream);

    auto observed = std::make_unique<watch>();
    if (watch_) {
        std::lock_guard<std::mutex> lock(watch_->mutex);
        observed->on_stopped = watch_->on_stopped;
    }
    observed->connect(stream.get());

    sockets_before_ = tcp_socket_inodes();
    bool started = obs_output_start(stream.get());
    bool active = false;
    if (!started) {
        const char* last = obs_output_get_last_error(stream.get());
        error_ = std::string("rtmp output did not start") + (last && *last ? std::string(": ") + last : "");
    } else {
        // Started only means connecting: the stream runs once the output activates
        // (connected and sending); a refused connection arrives as "stop".
        std::unique_lock<std::mutex> lock(observed->mutex);
        bool decided = observed->changed.wait_for(lock, output_start_limit,
                                                  [&] { return observed->activated || observed->stopped; });
        if (observed->stopped)
            error_ = describe_stop(observed->code, observed->last_error);
        else if (!decided)
            error_ = "rtmp connect timed out";
        else
            active = true;
        if (!decided) {
            // Still connecting: end the connection so the output can be released promptly.
            lock.unlock();
            interrupt_connections_since(sockets_before_);
            lock.lock();
            if (!observed->changed.wait_for(lock, interrupt_limit, [&] { return observed->stopped; }))
                log::line("media: the rtmp output is still connecting; releasing it may take a while");
        }
    }
    if (!active) {
        observed->disconnect();
        clear_channel(scene.get());
        return false;
    }

    // The new stream runs: keep it, letting go of whatever was held before.
    release();
    video_encoder_ = std::move(video);
    audio_encoder_ = std::move(audio);
    service_ = std::move(service);
    output_ = std::move(stream);
    scene_ = std::move(scene);
    watch_ = std::move(observed);
    started_ = true;
    return true;
}

Json activate_stream(std::unique_ptr<output>& current, const Json& request, int bitrate,
                     output::stopped_handler on_stopped)
{
    using callback::source_type;
    auto refuse = [](const std::string& error) { return Json{{"started", false}, {"error", error}}; };
    source_type::type kind = source_type::map(json::string_at(request, {"payload", "source", "type"}));
    if (kind == source_type::none)
        return refuse("unknown source type");
    // Window capture crashes when it is created (listing creates one too) before the
    // graphics context exists; a worker started without a canvas gets a small one first,
    // which the stream then resets to its own size (a reset at 30 fps costs ~30 ms).
    obs_video_info video{};
    if (kind == source_type::window && !obs_get_video_info(&video))
        initialize_video(no_video_size, no_video_size, stream_fps);
    Json entry = get_source_info(request);
    if (!entry.is_object() || entry.empty())
        return refuse("source not found");

    current.reset();
    auto stream = std::make_unique<output>();
    if (on_stopped)
        stream->set_stopped_handler(std::move(on_stopped));
    if (!stream->start(request, entry, bitrate))
        return refuse(stream->error());
    current = std::move(stream);
    return Json{{"started", true}};
}

} // namespace orbweave::obs
