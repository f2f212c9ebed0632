#pragma once

// An X11 screen fed to the video encoder without libobs's canvas. On a machine whose GL
// renderer is the CPU itself (llvmpipe: cloud machines and capture racks without a
// GPU), showing the screen on the canvas, converting it by shader and reading it back
// costs about 0.6 of a core per 720p30 stream; grabbing the screen through shared
// memory and converting it with libobs's scaler costs under 0.1 (bench_libobs_floor).
// The feed is a libobs video output of its own (media/direct_video's paced_video) that
// the encoder takes instead of the canvas; sound still goes through libobs's mixer as
// for every stream.

#include "core/end_notice.hpp"
#include "core/obs/capture_route.hpp"
#include "core/obs/entries.hpp"
#include "media/direct_video.hpp"
#include "media/x11_screens.hpp"

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

namespace orbweave::obs {

class screen_feed {
public:
    /// Told why, once, on whichever thread noticed it, when the screen goes away.
    using ended_handler = std::function<void(const std::string& reason)>;

    /// Starts grabbing screen at 30 fps, scaled to frame; throws std::runtime_error with
    /// the reason when the screen cannot be grabbed. The frame keeps its size while the
    /// screen changes its own: the picture is fitted inside with its aspect kept.
    screen_feed(const screen_entry& screen, std::pair<int, int> frame, ended_handler on_ended = {});
    /// Stops grabbing and closes the video output; the encoder must have let go of it.
    ~screen_feed();

    screen_feed(const screen_feed&) = delete;
    screen_feed& operator=(const screen_feed&) = delete;

    /// What the video encoder takes instead of the canvas.
    video_t* video() const;

private:
    struct grabber;

    /// On the pacing thread, at each frame's time.
    void refresh();

    // The screen's end: it went away (told by the watch) or cannot be grabbed where it went.
    end_notice ended_;
    fitted_picture picture_;
    std::unique_ptr<grabber> grabber_;
    // Where the screen went, for the pacing thread to follow.
    std::mutex mutex_;
    std::optional<x11_screen> moved_;
    bool grabbing_ = true;
    std::unique_ptr<x11_screen_watch> watch_;
    std::unique_ptr<paced_video> paced_;
};

} // namespace orbweave::obs
