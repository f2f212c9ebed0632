#pragma once

// An X11 screen fed to the video encoder without libobs's canvas. On a machine whose GL
// renderer is the CPU itself (llvmpipe: cloud machines and capture racks without a
// GPU), showing the screen on the canvas, converting it by shader and reading it back
// costs about 0.6 of a core per 720p30 stream; grabbing the screen through shared
// memory and converting it with libobs's scaler costs under 0.1 (bench_libobs_floor).
// The feed is a libobs video output of its own that the encoder takes instead of the
// canvas; sound still goes through libobs's mixer as for every stream.

#include "core/obs/capture_route.hpp"
#include "core/obs/entries.hpp"
#include "media/x11_screens.hpp"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

struct video_output;
typedef struct video_output video_t;

namespace orbweave::obs {

/// Frames the feeds of this process sent again because a grab came later than the next
/// frame's time (the canvas's "lagged" frames, for a screen fed past it).
long long screen_feed_late_frames();

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

    void run();
    void end(const std::string& reason);

    ended_handler on_ended_;
    std::unique_ptr<grabber> grabber_;
    video_t* video_ = nullptr;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    // Where the screen went, for the feed's thread to follow.
    std::optional<x11_screen> moved_;
    std::unique_ptr<x11_screen_watch> watch_;
    std::thread thread_;
};

} // namespace orbweave::obs
