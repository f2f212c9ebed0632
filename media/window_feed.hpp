#pragma once

// An X11 window fed to the video encoder without libobs's canvas, on a software
// renderer: the window's own picture, which the X server keeps off screen for it
// (XComposite), is grabbed through shared memory (MIT-SHM) where the X server says it
// changed (XDamage), converted on the CPU and handed to the encoder on the stream's frame
// grid as the X11 screen feed does; a still window costs next to nothing. Covered or
// partly off the screen, the window is still whole in its picture. A
// window that changes its size is fitted into the stream's frame with its aspect kept;
// a window that is closed ends the stream.

#include "core/obs/entries.hpp"
#include "media/direct_video.hpp"

#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace orbweave::obs {

class window_feed {
public:
    /// Told why, once, on the feed's thread, when the window is gone.
    using ended_handler = std::function<void(const std::string& reason)>;

    /// Starts grabbing window at 30 fps into frames of the stream's size; throws
    /// std::runtime_error with the reason when the window cannot be grabbed.
    window_feed(const window_entry& window, std::pair<int, int> frame, ended_handler on_ended = {});
    /// Stops grabbing and closes the video output; the encoder must have let go of it.
    ~window_feed();
    window_feed(const window_feed&) = delete;
    window_feed& operator=(const window_feed&) = delete;

    /// What the video encoder takes instead of the canvas.
    video_t* video() const;

private:
    struct grabber;

    void refresh();

    ended_handler on_ended_;
    std::unique_ptr<grabber> grabber_;
    fitted_picture picture_;
    bool gone_ = false;
    std::unique_ptr<paced_video> paced_;
};

} // namespace orbweave::obs
