#pragma once

// Where a screen of libobs's X11 screen capture lies on the X display, and a watch that
// follows it while a stream runs: a mode set with xrandr changes its size, an output
// turned off or a RandR monitor removed takes it away. The screens are counted as the
// capture counts them (RandR monitors, or CRTCs before RandR 1.5; X screens without
// RandR), so a screen's index means the same to both.

#include "core/end_notice.hpp"
#include "core/obs/media_limits.hpp"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

namespace orbweave::obs {

struct x11_screen {
    /// The index the screen capture lists it under.
    int index = 0;
    /// The X screen whose root window holds it.
    int root_screen = 0;
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    /// What stays the same while it changes: its RandR monitor's name (an atom) or its
    /// CRTC; 0 for a screen that cannot change (an X screen of its own).
    std::uint32_t identity = 0;

    bool same_place(const x11_screen& other) const
    {
        return index == other.index && root_screen == other.root_screen && x == other.x && y == other.y &&
               width == other.width && height == other.height;
    }
};

/// "800x600 at 0,0".
std::string describe(const x11_screen& screen);

/// Follows one screen on its own X connection and thread. Handlers run on that thread;
/// a screen that is gone is told once and no more is told after it.
class x11_screen_watch {
public:
    using moved_handler = std::function<void(const x11_screen& now)>;
    using gone_handler = std::function<void(const std::string& reason)>;

    /// Finds screen index now; throws std::runtime_error with the reason when the X
    /// display cannot be opened or has no such screen.
    x11_screen_watch(int index, moved_handler on_moved, gone_handler on_gone);
    ~x11_screen_watch();

    x11_screen_watch(const x11_screen_watch&) = delete;
    x11_screen_watch& operator=(const x11_screen_watch&) = delete;

    /// Where the screen was when the watch began.
    const x11_screen& initial() const { return initial_; }

private:
    struct connection;

    void run();
    /// Looks the screen up again; false once it is gone.
    bool check();

    using clock = std::chrono::steady_clock;
    /// How long a screen may be missing (a mode set turns it off and on) before it is gone.
    static constexpr std::chrono::milliseconds gone_grace = limits::screen_gone_grace;
    /// How often RandR monitors, which come and go without an event, are looked at.
    static constexpr std::chrono::milliseconds monitor_recheck{1000};

    std::unique_ptr<connection> connection_;
    x11_screen initial_;
    x11_screen last_;
    moved_handler on_moved_;
    end_notice gone_;
    std::optional<clock::time_point> missing_since_;
    int stop_fd_ = -1;
    std::thread thread_;
};

} // namespace orbweave::obs
