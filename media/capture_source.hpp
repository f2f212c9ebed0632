#pragma once

// The capture source of one stream, made from the source's catalogue entry: a screen,
// a window, an audio device or a camera through the X11, PulseAudio and V4L2 plug-ins,
// or on the portal route a screen (or the window the user picks) as the desktop's
// screen cast, shown by our PipeWire source.

#include "core/obs/capture_route.hpp"
#include "core/obs/entries.hpp"
#include "core/obs/media_limits.hpp"
#include "media/pipewire_feed.hpp"
#include "media/portal_session.hpp"
#include "media/unique_handle.hpp"
#include "media/x11_screens.hpp"

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace orbweave::obs {

/// How long the second dimension of a source's size may lag behind the first.
inline constexpr std::chrono::milliseconds source_half_size_grace{500};

/// Reads the source's size until both dimensions are known, at most until deadline; (0, 0)
/// when it has none by then. A PipeWire screen once reported its height before its
/// width, and the stream went out 4 pixels wide: once one dimension is known the other
/// gets source_half_size_grace to follow, and the stream then goes on with what there is.
std::pair<int, int> wait_for_size(obs_source_t* source, std::chrono::steady_clock::time_point deadline);
/// The same for any capture whose size read() tells.
std::pair<int, int> wait_for_size(const std::function<std::pair<int, int>()>& read,
                                  std::chrono::steady_clock::time_point deadline);

/// A libobs source of type id with settings; none when the type's create failed (libobs
/// still returns an object then, one that never gets a size).
source_handle create_source(const char* id, const data_handle& settings);

/// Made in two steps around the canvas, which is made once at the stream's final size:
/// open() makes the source and learns its size, create_after_canvas() makes what needs
/// the canvas once it has that size. Destroying it waits until libobs has destroyed the
/// source, then closes the cast.
class capture_source {
public:
    /// Told why, once, on whichever thread noticed it, when the desktop ends the cast.
    using ended_handler = std::function<void(const std::string& reason)>;

    /// Waits for the desktop's picker and for the source's size at most as long as limits say.
    /// direct: on the portal route, the cast is fed to the encoder past the canvas
    /// (feed()) instead of being shown by a libobs source.
    capture_source(capture_route route, const stream_limits& limits, ended_handler on_ended, bool direct = false);
    ~capture_source();

    capture_source(const capture_source&) = delete;
    capture_source& operator=(const capture_source&) = delete;

    /// Makes the source for entry and learns its size (an X11 window is only measured: its
    /// source needs the canvas). On the portal route the desktop shows its picker unless
    /// restore_token brings the user's earlier choice back. False with error() set.
    bool open(const source_entry& entry, const std::string& restore_token);
    /// With the canvas at the stream's size: makes an X11 window's source, or has a source
    /// made before the canvas set its capture up again. False with error() set.
    bool create_after_canvas();

    obs_source_t* get() const { return source_.get(); }
    /// The screen cast's feed past the canvas, when made direct on the portal route.
    pipewire_feed* feed() const { return feed_.get(); }
    /// Gives the reference to the source to whoever keeps it from here (the follower of a
    /// stream's audio devices, which may make the source again); get() is null afterwards.
    source_handle hand_over() { return std::move(source_); }
    /// The size the source reported (or its window has); meaningless for audio.
    std::pair<int, int> size() const { return size_; }
    /// Why open() or create_after_canvas() failed: a short reason.
    const std::string& error() const { return error_; }
    /// open() failed because the user declined in the desktop's picker.
    bool rejected() const { return rejected_; }
    /// The desktop portal's token for the cast, for next time; "" for none.
    const std::string& restore_token() const { return restore_token_; }

private:
    /// The desktop's cast of a screen (checked against the one asked for) or, without
    /// one, of the window the user picks.
    source_handle open_portal(const screen_entry* screen, const std::string& restore_token);
    /// The same cast, fed past the canvas; false with error_ set.
    bool open_portal_feed(const screen_entry* screen, const std::string& restore_token);
    /// A portal session that started a cast, or none with error_ (and rejected_) set.
    std::unique_ptr<portal_session> start_cast(const screen_entry* screen, const std::string& restore_token);
    /// Makes the source, or measures the window, of the X11, PulseAudio and V4L2 plug-ins.
    void open_plugin_source(const source_entry& entry);
    /// Follows X11 screen index while the source shows it: a new size or place is passed
    /// on to the source, a screen that goes away ends the capture.
    void watch_screen(int index);
    static void on_capture_ended(void* data, calldata_t* params) noexcept;

    capture_route route_;
    bool direct_;
    std::chrono::milliseconds portal_start_;
    std::chrono::milliseconds source_size_;
    ended_handler on_ended_;
    // Declared before the source: the cast is closed after the source showing it is gone
    // (the destructor waits for libobs to destroy it).
    std::unique_ptr<portal_session> portal_;
    source_handle source_;
    // Declared after the cast too: it disconnects from the cast before the cast is closed.
    std::unique_ptr<pipewire_feed> feed_;
    // Declared after the source: it stops telling the source of changes before it goes.
    std::unique_ptr<x11_screen_watch> screen_watch_;
    std::pair<int, int> size_{0, 0};
    // An X11 window waits for the canvas before its source is made.
    std::optional<window_entry> window_;
    bool restart_after_canvas_ = false;
    std::string error_;
    bool rejected_ = false;
    std::string restore_token_;
};

} // namespace orbweave::obs
