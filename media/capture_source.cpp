#include "media/capture_source.hpp"

#include "core/log.hpp"
#include "media/c_boundary.hpp"
#include "media/catalogue.hpp"
#include "media/pipewire_source.hpp"
#include "media/stream_assembly.hpp"
#include "media/x11_screens.hpp"
#include "media/x11_window.hpp"

#include <obs.h>

#include <unistd.h>

#include <algorithm>
#include <thread>

namespace orbweave::obs {

namespace {

using namespace std::chrono_literals;
using clock = std::chrono::steady_clock;

// How often a source's size is read again while it has none.
constexpr auto size_poll_interval = 1ms;

source_handle create_screen_source(const screen_entry& entry)
{
    data_handle settings(obs_data_create());
    obs_data_set_int(settings.get(), "screen", entry.index);
    return create_source(capture_id::screen, settings);
}

source_handle create_window_source(const window_entry& entry)
{
    // The value the window list offers: "XID\r\ntitle\r\nclass".
    std::string window = std::to_string(entry.pid) + "\r\n" + entry.description + "\r\n" + entry.name;
    data_handle settings(obs_data_create());
    obs_data_set_string(settings.get(), "capture_window", window.c_str());
    return create_source(capture_id::window, settings);
}

source_handle create_audio_source(const audio_entry& entry)
{
    data_handle settings(obs_data_create());
    obs_data_set_string(settings.get(), "device_id", entry.device_id.c_str());
    return create_source(entry.input ? capture_id::audio_input : capture_id::audio_output, settings);
}

source_handle create_video_source(const video_entry& entry)
{
    data_handle settings(obs_data_create());
    obs_data_set_string(settings.get(), "device_id", entry.device.c_str());
    return create_source(capture_id::camera, settings);
}

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

std::string another_screen(const portal_session::cast& cast, const screen_entry& entry)
{
    return "the desktop shared another screen (" + std::to_string(cast.width) + "x" + std::to_string(cast.height) +
           " at " + std::to_string(cast.left) + "," + std::to_string(cast.top) + ") than " + entry.name + " (" +
           std::to_string(entry.width) + "x" + std::to_string(entry.height) + " at " + std::to_string(entry.left) +
           "," + std::to_string(entry.top) + ")";
}

} // namespace

source_handle create_source(const char* id, const data_handle& settings)
{
    source_handle source(obs_source_create(id, "source", settings.get(), nullptr));
    // libobs keeps a source whose type's create failed, as one without data that never
    // gets a size.
    if (source && !obs_obj_get_data(source.get()))
        return {};
    return source;
}

std::pair<int, int> wait_for_size(obs_source_t* source, clock::time_point deadline)
{
    return wait_for_size(
        [source] {
            return std::pair<int, int>(static_cast<int>(obs_source_get_width(source)),
                                       static_cast<int>(obs_source_get_height(source)));
        },
        deadline);
}

std::pair<int, int> wait_for_size(const std::function<std::pair<int, int>()>& read, clock::time_point deadline)
{
    std::optional<clock::time_point> half_known_until;
    for (;;) {
        auto [width, height] = read();
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

capture_source::capture_source(capture_route route, const stream_limits& limits, ended_handler on_ended,
                               bool direct)
    : route_(route), direct_(direct), portal_start_(limits.portal_start), source_size_(limits.source_size), on_ended_(std::move(on_ended))
{
}

capture_source::~capture_source()
{
    if (!source_ || !portal_)
        return;
    // libobs holds the signal handler's lock while calling, so no callback outlasts this.
    signal_handler_disconnect(obs_source_get_signal_handler(source_.get()), portal_source_ended_signal,
                              &capture_source::on_capture_ended, this);
    // libobs destroys sources on a queue of its own; the cast must close only after the
    // source showing it is gone, or its capture takes the closing for the desktop ending
    // the cast. A scene released before still holds the source until the queue destroys
    // it: that first, then the source itself.
    obs_wait_for_destroy_queue();
    source_.reset();
    obs_wait_for_destroy_queue();
}

bool capture_source::open(const source_entry& entry, const std::string& restore_token)
{
    using callback::source_type;
    source_type::type kind = entry_kind(entry);
    // The canvas is made once, at the stream's final size, so the source's size must be
    // known first.
    if (route_ == capture_route::portal && (kind == source_type::screen || kind == source_type::window) && direct_) {
        if (!open_portal_feed(std::get_if<screen_entry>(&entry), restore_token))
            return false;
        size_ = wait_for_size([this] { return feed_->size(); }, clock::now() + source_size_);
    } else if (route_ == capture_route::portal && (kind == source_type::screen || kind == source_type::window)) {
        source_ = open_portal(std::get_if<screen_entry>(&entry), restore_token);
        if (!source_)
            return false;
        // The stream's format brings the size: the desktop may take its time to agree it.
        size_ = wait_for_size(source_.get(), clock::now() + source_size_);
    } else {
        open_plugin_source(entry);
    }
    if (kind != source_type::window && !source_ && !feed_) {
        error_ = "cannot create the capture source";
        return false;
    }
    if (kind != source_type::audio && size_.first == 0 && size_.second == 0) {
        error_ = kind == source_type::window ? "window not found" : "source has no size";
        return false;
    }
    return true;
}

void capture_source::open_plugin_source(const source_entry& entry)
{
    // A screen reports its size without a canvas; a window is measured through X (window
    // capture needs the graphics context to exist before it is created); a camera only
    // learns its size from frames, which need a running canvas, so it gets a small one first.
    auto deadline = clock::now() + source_size_;
    if (auto* screen = std::get_if<screen_entry>(&entry)) {
        source_ = create_screen_source(*screen);
        if (source_)
            size_ = wait_for_size(source_.get(), deadline);
        restart_after_canvas_ = true;
        if (size_.first > 0 && size_.second > 0)
            watch_screen(screen->index);
    } else if (auto* window = std::get_if<window_entry>(&entry)) {
        size_ = x11_window_size(window->pid);
        window_ = *window;
    } else if (auto* audio = std::get_if<audio_entry>(&entry)) {
        source_ = create_audio_source(*audio);
    } else if (auto* camera = std::get_if<video_entry>(&entry)) {
        ensure_canvas({no_video_size, no_video_size});
        source_ = create_video_source(*camera);
        if (source_)
            size_ = wait_for_size(source_.get(), deadline);
    }
}

void capture_source::watch_screen(int index)
{
    // The capture reads where its screen is only when its settings change: told so when
    // the screen changes, it captures the screen's new size, which the scene fits into
    // the canvas with the aspect kept. Its own index may change as monitors come and go.
    auto moved = [this](const x11_screen& now) {
        data_handle settings(obs_data_create());
        obs_data_set_int(settings.get(), "screen", now.index);
        obs_source_update(source_.get(), settings.get());
    };
    try {
        screen_watch_ = std::make_unique<x11_screen_watch>(index, moved, on_ended_);
    } catch (const std::exception& failure) {
        log::line(std::string("media: the screen's changes are not followed: ") + failure.what());
    }
}

bool capture_source::create_after_canvas()
{
    if (window_) {
        source_ = create_window_source(*window_);
        if (!source_) {
            error_ = "cannot create the capture source";
            return false;
        }
    } else if (restart_after_canvas_) {
        // Made before the canvas existed: let it set up its capture again with graphics.
        obs_source_update(source_.get(), nullptr);
    }
    return true;
}

std::unique_ptr<portal_session> capture_source::start_cast(const screen_entry* screen,
                                                           const std::string& restore_token)
{
    // Shown the desktop's picker unless the token restores the user's earlier choice.
    auto portal = std::make_unique<portal_session>(restore_token, screen == nullptr, portal_start_);
    const portal_session::cast& cast = portal->started();
    if (cast.result != portal_session::outcome::started) {
        rejected_ = cast.result == portal_session::outcome::cancelled;
        error_ = cast.error;
        return nullptr;
    }
    if (screen && cast.has_geometry && !same_screen(cast, *screen)) {
        error_ = another_screen(cast, *screen);
        ::close(cast.pipewire_fd);
        return nullptr;
    }
    return portal;
}

source_handle capture_source::open_portal(const screen_entry* screen, const std::string& restore_token)
{
    portal_ = start_cast(screen, restore_token);
    if (!portal_)
        return {};
    const portal_session::cast& cast = portal_->started();
    restore_token_ = cast.restore_token;
    portal_->set_closed_handler(on_ended_);

    data_handle settings(obs_data_create());
    obs_data_set_int(settings.get(), "fd", cast.pipewire_fd); // the source owns it from here
    obs_data_set_int(settings.get(), "node", cast.node);
    source_handle source = create_source(portal_source_id, settings);
    if (!source) {
        error_ = "cannot connect to the screen cast's PipeWire stream";
        return {};
    }
    signal_handler_connect(obs_source_get_signal_handler(source.get()), portal_source_ended_signal,
                           &capture_source::on_capture_ended, this);
    return source;
}

bool capture_source::open_portal_feed(const screen_entry* screen, const std::string& restore_token)
{
    portal_ = start_cast(screen, restore_token);
    if (!portal_)
        return false;
    const portal_session::cast& cast = portal_->started();
    restore_token_ = cast.restore_token;
    portal_->set_closed_handler(on_ended_);
    try {
        feed_ = std::make_unique<pipewire_feed>(cast.pipewire_fd, cast.node, on_ended_); // owns the fd from here
    } catch (const std::exception& failure) {
        log::line(std::string("media: ") + failure.what());
        error_ = "cannot connect to the screen cast's PipeWire stream";
        return false;
    }
    return true;
}

void capture_source::on_capture_ended(void* data, calldata_t* params) noexcept
{
    guarded("the screen cast source's ended signal", [&] {
        const char* reason = calldata_string(params, "reason");
        static_cast<capture_source*>(data)->on_ended_(reason ? reason : "the screen cast ended");
    });
}

} // namespace orbweave::obs
