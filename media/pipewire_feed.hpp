#pragma once

// A desktop portal's screen or window cast fed to the video encoder without libobs's
// canvas, on a software renderer: the cast's newest frame (in shared memory) is
// converted on the CPU into the stream's NV12 picture, only where the compositor says
// it changed, and handed to the encoder on the stream's frame grid as the X11 screen
// feed does. The crop region of a window cast is honoured, and a capture whose size
// changes is fitted into the stream's frame with its aspect kept. The pointer is in
// the picture where the portal embeds it (media/portal_session asks for that).

#include "media/direct_video.hpp"
#include "media/pipewire_capture.hpp"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace orbweave::obs {

class pipewire_feed {
public:
    using ended_handler = pipewire_capture::ended_handler;

    /// Connects to the cast's node over the PipeWire remote fd (taken over); throws
    /// std::runtime_error when it cannot. on_ended hears, once, when the cast ends.
    pipewire_feed(int fd, std::uint32_t node, ended_handler on_ended);
    /// Stops feeding and disconnects; the encoder must have let go of video().
    ~pipewire_feed();
    pipewire_feed(const pipewire_feed&) = delete;
    pipewire_feed& operator=(const pipewire_feed&) = delete;

    /// The size of the cast's picture; zeros until the cast tells it.
    std::pair<int, int> size() const { return capture_.size(); }
    /// Starts feeding frames of the stream's size; throws std::runtime_error when the
    /// video output cannot be opened.
    void start(std::pair<int, int> frame);
    /// What the video encoder takes instead of the canvas; null before start().
    video_t* video() const;

private:
    void refresh();

    pipewire_capture capture_;
    std::unique_ptr<fitted_picture> picture_;
    std::unique_ptr<paced_video> paced_;
    // Frames converted whole, in stripes and not at all, for the log when the feed stops.
    long long whole_ = 0, partial_ = 0, kept_ = 0;
};

} // namespace orbweave::obs
