#include "media/output.hpp"

#include "core/log.hpp"
#include "media/catalogue.hpp"
#include "media/encoders.hpp"
#include "media/portal_capture.hpp"
#include "media/runtime.hpp"
#include "media/tcp_sockets.hpp"
#include "media/x11_window.hpp"

#include <obs.h>

#include <unistd.h>

#include <algorithm>
#include <optional>
#include <thread>

namespace orbweave::obs {

namespace {

using namespace std::chrono_literals;
using clock = std::chrono::steady_clock;

// The size of the canvas of a stream without video (an audio device).
constexpr int no_video_size = 4;
// How often a source's size is read again while it has none.
constexpr auto size_poll_interval = 1ms;
// How often the socket of a stream that is connecting is looked at: every millisecond
// for the first connecting_quick_looks, then every connecting_slow_look_interval.
constexpr auto connecting_look_interval = 1ms;
constexpr auto connecting_quick_looks = 200ms;
constexpr auto connecting_slow_look_interval = 10ms;
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

} // namespace

// Follows the libobs output's "activate" and "stop" signals.
struct output::watch {
    std::mutex mutex;
    std::condition_variable changed;
    bool activated = false;
    bool stopped = false;
    bool stop_requested = false;
    // Since when libobs has been reconnecting (none while connected).
    std::optional<clock::time_point> reconnecting_since;
    bool watchdog_closing = false;
    std::string gave_up; // why the watchdog ended the stream
    long long code = 0;
    std::string last_error;
    stopped_handler on_stopped;
    obs_output_t* connected = nullptr;

    void connect(obs_output_t* output)
    {
        signal_handler_t* signals = obs_output_get_signal_handler(output);
        signal_handler_connect(signals, "activate", &watch::on_activate, this);
        signal_handler_connect(signals, "stop", &watch::on_stop, this);
        signal_handler_connect(signals, "reconnect", &watch::on_reconnect, this);
        signal_handler_connect(signals, "reconnect_success", &watch::on_reconnect_success, this);
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
        signal_handler_disconnect(signals, "reconnect", &watch::on_reconnect, this);
        signal_handler_disconnect(signals, "reconnect_success", &watch::on_reconnect_success, this);
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

    static void on_reconnect(void* data, calldata_t*) noexcept
    {
        auto* self = static_cast<watch*>(data);
        {
            std::lock_guard<std::mutex> lock(self->mutex);
            if (!self->reconnecting_since)
                self->reconnecting_since = clock::now();
        }
        self->changed.notify_all();
    }

    static void on_reconnect_success(void* data, calldata_t*) noexcept
    {
        auto* self = static_cast<watch*>(data);
        {
            std::lock_guard<std::mutex> lock(self->mutex);
            self->reconnecting_since.reset();
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
                handler = self->on_stopped;
                reason = self->gave_up.empty() ? describe_stop(self->code, self->last_error) : self->gave_up;
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

output::output(stream_limits limits, capture_route route) : limits_(limits), route_(route)
{
}

output::~output()
{
    release();
}

void output::end(const std::string& reason)
{
    stopped_handler handler;
    {
        std::lock_guard<std::mutex> lock(end_mutex_);
        if (ended_)
            return;
        if (!running_) {
            if (early_end_.empty())
                early_end_ = reason;
            return;
        }
        ended_ = true;
        handler = end_handler_;
    }
    log::line("media: the stream ends: " + reason);
    if (!handler)
        return;
    try {
        handler(reason);
    } catch (...) {
        log::line("media: the stopped handler failed");
    }
}

void output::set_stopped_handler(stopped_handler handler)
{
    std::lock_guard<std::mutex> lock(end_mutex_);
    end_handler_ = std::move(handler);
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

void output::watch_outage()
{
    // What the ingest had acknowledged when last looked at, and when it last took more.
    tcp_progress taken;
    auto progressed = clock::now();
    auto check_interval = std::clamp<std::chrono::milliseconds>(limits_.send_stall / 4, 10ms, 1000ms);
    std::unique_lock<std::mutex> lock(watch_->mutex);
    for (;;) {
        if (watch_->watchdog_closing || watch_->stopped)
            return;
        auto now = clock::now();
        if (!watch_->reconnecting_since) {
            // Connected. A path that takes nothing while data waits has stalled: libobs
            // would block in its send for as long as the socket stays open.
            lock.unlock();
            tcp_progress seen = tcp_progress_since(sockets_before_);
            if (!seen.waiting || seen.sockets != taken.sockets || seen.acknowledged != taken.acknowledged) {
                if (seen.sockets != taken.sockets) // connected again on a new socket, or the first look
                    send_without_delay(tcp_descriptors_since(sockets_before_));
                taken = std::move(seen);
                progressed = now;
            } else if (now - progressed >= limits_.send_stall) {
                log::line("media: the ingest took nothing for " + std::to_string(limits_.send_stall.count()) +
                          " ms; closing the connection to reconnect");
                interrupt_connections_since(sockets_before_);
                progressed = now;
            }
            lock.lock();
            watch_->changed.wait_for(lock, check_interval);
            continue;
        }
        progressed = now; // a new connection starts its own count
        auto until = *watch_->reconnecting_since + limits_.ingest_outage;
        if (now >= until)
            break;
        watch_->changed.wait_until(lock, until);
    }
    watch_->gave_up = "rtmp disconnected: the ingest did not come back within " +
                      std::to_string(limits_.ingest_outage.count()) + " ms";
    lock.unlock();
    log::line("media: ", watch_->gave_up);
    // A reconnection attempt may hang in a connection that takes bytes and never answers;
    // it is of no use any more, and stopping the output would wait for it.
    interrupt_connections_since(sockets_before_);
    // Not a stop we were asked for: the "stop" signal reports it as the stream's end,
    // or, should libobs not send one for an output between attempts, we do (once).
    obs_output_force_stop(output_.get());
    lock.lock();
    bool asked = watch_->stop_requested;
    lock.unlock();
    if (!asked)
        end(watch_->gave_up);
}

void output::release()
{
    {
        // Stopping on purpose: a capture ending now is no news.
        std::lock_guard<std::mutex> lock(end_mutex_);
        ended_ = true;
    }
    if (watchdog_.joinable()) {
        {
            std::lock_guard<std::mutex> lock(watch_->mutex);
            watch_->watchdog_closing = true;
        }
        watch_->changed.notify_all();
        watchdog_.join();
    }
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
    // The desktop stops casting once the capture is gone.
    portal_.reset();
}

source_handle output::create_screen_source(const screen_entry& entry)
{
    data_handle settings(obs_data_create());
    obs_data_set_int(settings.get(), "screen", entry.index);
    return create_source(capture_id::screen, settings);
}

source_handle output::create_window_source(const window_entry& entry)
{
    // The value the window list offers: "XID\r\ntitle\r\nclass".
    std::string window = std::to_string(entry.pid) + "\r\n" + entry.description + "\r\n" + entry.name;
    data_handle settings(obs_data_create());
    obs_data_set_string(settings.get(), "capture_window", window.c_str());
    return create_source(capture_id::window, settings);
}

source_handle output::create_audio_source(const audio_entry& entry)
{
    data_handle settings(obs_data_create());
    obs_data_set_string(settings.get(), "device_id", entry.device_id.c_str());
    return create_source(entry.input ? capture_id::audio_input : capture_id::audio_output, settings);
}

source_handle output::create_video_source(const video_entry& entry)
{
    data_handle settings(obs_data_create());
    obs_data_set_string(settings.get(), "device_id", entry.device.c_str());
    return create_source(capture_id::camera, settings);
}

service_handle output::create_service(const std::string& server, const std::string& key)
{
    data_handle settings(obs_data_create());
    obs_data_set_string(settings.get(), "key", key.c_str());
    obs_data_set_string(settings.get(), "server", server.c_str());
    return service_handle(obs_service_create(rtmp_service_id, "rtmp_service", settings.get(), nullptr));
}

output_handle output::create_output()
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

std::pair<int, int> wait_for_size(obs_source_t* source, clock::time_point deadline)
{
    std::optional<clock::time_point> half_known_until;
    for (;;) {
        int width = static_cast<int>(obs_source_get_width(source));
        int height = static_cast<int>(obs_source_get_height(source));
        if (width != 0 && height != 0)
            return {width, height};
        auto now = clock::now();
        if ((width != 0 || height != 0) && !half_known_until)
            half_known_until = std::min(deadline, now + source_half_size_grace);
        if (now >= half_known_until.value_or(deadline))
            return {width, height};
        // The source has no event for "size known"; poll it, bounded by the deadline.
        std::this_thread::sleep_for(size_poll_interval);
    }
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

bool output::ensure_video(int width, int height)
{
    if (canvas_is(width, height))
        return true;
    return initialize_video(static_cast<unsigned>(width), static_cast<unsigned>(height), stream_fps);
}

bool output::start(const pipe::stream_order& order)
{
    using callback::source_type;
    error_.clear();
    if (started_) {
        error_ = "stream already started";
        return false;
    }
    const source_entry& entry = order.source;
    source_type::type kind = entry_kind(entry);
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
    bool portal_kind = kind == source_type::screen || kind == source_type::window;
    if (route_ == capture_route::portal && portal_kind) {
        // Frames reach an asynchronous source through a running canvas, as for a camera.
        ensure_video(no_video_size, no_video_size);
        source = create_portal_source(std::get_if<screen_entry>(&entry), order.restore_token);
        if (!source)
            return false;
        // The first frame brings the size: the desktop may take its time to send it.
        source_size = wait_for_size(source.get(), clock::now() + source_size_limit);
        // Once the canvas is remade at the stream's size, the newest frame is shown again.
        restart_capture = true;
    } else if (auto* screen = std::get_if<screen_entry>(&entry)) {
        source = create_screen_source(*screen);
        if (source)
            source_size = wait_for_size(source.get(), deadline);
        restart_capture = true;
    } else if (auto* window = std::get_if<window_entry>(&entry)) {
        source_size = x11_window_size(window->pid);
    } else if (auto* audio = std::get_if<audio_entry>(&entry)) {
        source = create_audio_source(*audio);
    } else if (auto* camera = std::get_if<video_entry>(&entry)) {
        ensure_video(no_video_size, no_video_size);
        source = create_video_source(*camera);
        if (source)
            source_size = wait_for_size(source.get(), deadline);
    }
    if (kind != source_type::window && !source) {
        error_ = "cannot create the capture source";
        return false;
    }
    if (with_video && source_size.first == 0 && source_size.second == 0) {
        error_ = kind == source_type::window ? "window not found" : "source has no size";
        return false;
    }

    auto target = target_frame_size(order);
    frame_size_ = with_video ? scale_dimensions(source_size.first, source_size.second, target.first, target.second)
                             : std::pair<int, int>{no_video_size, no_video_size};
    frame_size_ = encodable_size(frame_size_);
    if (!ensure_video(frame_size_.first, frame_size_.second)) {
        error_ = "cannot set up video at " + std::to_string(frame_size_.first) + "x" +
                 std::to_string(frame_size_.second);
        return false;
    }
    if (auto* window = std::get_if<window_entry>(&entry); window && route_ != capture_route::portal) {
        source = create_window_source(*window);
        if (!source) {
            error_ = "cannot create the capture source";
            return false;
        }
    } else if (restart_capture) {
        // Made before the canvas existed: let it set up its capture again with graphics.
        obs_source_update(source.get(), nullptr);
    }

    if (attempt(order, source, kind, with_audio, software))
        return true;
    log::line(software_fallback_line);
    std::string first_error = error_;
    if (attempt(order, source, kind, with_audio, true))
        return true;
    if (error_.empty())
        error_ = first_error;
    return false;
}

bool output::attempt(const pipe::stream_order& order, const source_handle& source, callback::source_type::type kind,
                     bool with_audio, bool software)
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

    // The whole order, stream key hidden, once per attempt.
    log::line(json::dump(json::redacted(order.to_json())));
    set_scene_bounds(scene.get(), frame_size_.first, frame_size_.second);

    encoder_handle video = create_video_encoder(software, order.level, order.bitrate);
    encoder_handle audio = create_audio_encoder();
    service_handle service = create_service(order.server, order.key);
    output_handle stream = create_output();
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
    // Every way a stream ends unasked is told through end(), once.
    observed->on_stopped = [this](const std::string& reason) { end(reason); };
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
        auto decided_now = [&] { return observed->activated || observed->stopped; };
        auto connecting_since = clock::now();
        auto until = connecting_since + output_start_limit;
        std::unique_lock<std::mutex> lock(observed->mutex);
        // While the output connects, its socket sends each write at once and acknowledges
        // each read at once: the handshake and the publish commands are short messages in
        // a row, and coalescing on either side holds each for the other side's delayed
        // acknowledgement (40 ms on Linux, several times over with nginx-rtmp). The socket
        // appears only once libobs's RTMP library has loaded the system's certificates, so
        // it is looked for; and the kernel drops quick acknowledgement by itself, so it is
        // asked for again on every look.
        std::vector<int> connection;
        while (!decided_now() && clock::now() < until) {
            lock.unlock();
            if (connection.empty()) {
                connection = tcp_descriptors_since(sockets_before_);
                send_without_delay(connection);
            }
            acknowledge_at_once(connection);
            lock.lock();
            // A connection that takes longer is slow on the network's side, where looking
            // less often costs no more than the path's own round trips.
            bool early = clock::now() - connecting_since < connecting_quick_looks;
            observed->changed.wait_for(lock, early ? connecting_look_interval : connecting_slow_look_interval,
                                       decided_now);
        }
        bool decided = observed->changed.wait_until(lock, until, decided_now);
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

    video_encoder_ = std::move(video);
    audio_encoder_ = std::move(audio);
    service_ = std::move(service);
    output_ = std::move(stream);
    scene_ = std::move(scene);
    watch_ = std::move(observed);
    started_ = true;
    watchdog_ = std::thread([this] { watch_outage(); });
    std::string ended_meanwhile;
    {
        std::lock_guard<std::mutex> lock(end_mutex_);
        running_ = true;
        ended_meanwhile = early_end_;
    }
    if (!ended_meanwhile.empty())
        end(ended_meanwhile);
    return true;
}

namespace {

/// Whether the cast shows the screen asked for. The user may pick another one. Some
/// portals (wlroots') place every stream at 0,0: a position counts only when given.
bool same_screen(const portal_session::cast& cast, const screen_entry& entry)
{
    auto differs = [](int cast_value, std::uint64_t entry_value) {
        return static_cast<long long>(cast_value) != static_cast<long long>(entry_value);
    };
    bool placed = cast.left != 0 || cast.top != 0;
    return !differs(cast.width, entry.width) && !differs(cast.height, entry.height) &&
           (!placed || (!differs(cast.left, entry.left) && !differs(cast.top, entry.top)));
}

} // namespace

source_handle output::create_portal_source(const screen_entry* screen, const std::string& restore_token)
{
    // Shown the desktop's picker unless the token restores the user's earlier choice.
    portal_ = std::make_unique<portal_session>(restore_token, screen == nullptr, limits_.portal_start);
    const portal_session::cast& cast = portal_->started();
    if (cast.result != portal_session::outcome::started) {
        rejected_ = cast.result == portal_session::outcome::cancelled;
        error_ = cast.error;
        portal_.reset();
        return {};
    }
    if (screen && cast.has_geometry && !same_screen(cast, *screen)) {
        const screen_entry& entry = *screen;
        error_ = "the desktop shared another screen (" + std::to_string(cast.width) + "x" +
                 std::to_string(cast.height) + " at " + std::to_string(cast.left) + "," + std::to_string(cast.top) +
                 ") than " + entry.name + " (" + std::to_string(entry.width) + "x" + std::to_string(entry.height) +
                 " at " + std::to_string(entry.left) + "," + std::to_string(entry.top) + ")";
        ::close(cast.pipewire_fd);
        portal_.reset();
        return {};
    }
    restore_token_ = cast.restore_token;
    portal_->set_closed_handler([this](const std::string& reason) { end(reason); });

    data_handle settings(obs_data_create());
    obs_data_set_int(settings.get(), "fd", cast.pipewire_fd); // the source owns it from here
    obs_data_set_int(settings.get(), "node", cast.node);
    source_handle source = create_source(portal_source_id, settings);
    if (!source) {
        error_ = "cannot show the screen cast's PipeWire stream";
        return {};
    }
    signal_handler_connect(
        obs_source_get_signal_handler(source.get()), "orbweave_capture_ended",
        [](void* data, calldata_t* call) {
            const char* reason = calldata_string(call, "reason");
            static_cast<output*>(data)->end(reason ? reason : "the screen cast ended");
        },
        this);
    return source;
}

} // namespace orbweave::obs
