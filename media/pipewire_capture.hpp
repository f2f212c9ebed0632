#pragma once

// The PipeWire stream of a desktop portal's screen cast, on a thread loop of its own:
// it keeps the newest frame's buffer (in shared memory: memfd or mapped buffers, never
// DMA-BUF) until the next arrives, and tells, once, when the cast ends. Both ways a cast
// reaches the encoder read its frames here: our libobs source, which draws the frame on
// the canvas (media/pipewire_source), and the feed past the canvas on a software
// renderer (media/pipewire_feed).
//
// What is shown is the part of each frame the compositor marks with its crop region,
// where it marks one: GNOME casts a window in monitor-sized frames with the window at
// the top left, and the region follows the window as it is resized. The capture's size
// is that part's size. Without a crop region the whole frame is shown, and the size is
// the negotiated format's, known before the first frame; with one, the first frame
// brings it. Where the compositor marks what changed (its damage), the rows changed
// since the frame was last taken are told with it.

#include "media/direct_video.hpp"
#include "media/pipewire_frames.hpp"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace orbweave::obs {

class pipewire_capture {
public:
    /// Told why, once, when the stream ends without being asked to (the desktop ended the
    /// cast, PipeWire failed): on a thread of the capture's own, never under PipeWire's
    /// lock, so it may block (write to a pipe, signal libobs). It must not destroy the
    /// capture.
    using ended_handler = std::function<void(const std::string& reason)>;

    /// The newest frame, as use() sees it: valid only during the call.
    struct frame {
        frame_view view;
        /// Whether its pixels are R, G, B, x (else B, G, R, x), and whether x is alpha.
        bool rgb_order = false;
        bool alpha = false;
        /// Whether it arrived since the frame was last taken, and which of its rows
        /// changed since then (the whole frame after a new format or size).
        bool fresh = false;
        row_span changed;
    };

    /// Takes over the PipeWire remote fd and connects to the cast's node; throws
    /// std::runtime_error when it cannot.
    pipewire_capture(int fd, std::uint32_t node, ended_handler on_ended);
    /// Disconnects; an end being told is waited for, and nothing is told after it returns.
    ~pipewire_capture();
    pipewire_capture(const pipewire_capture&) = delete;
    pipewire_capture& operator=(const pipewire_capture&) = delete;

    /// The size of what is shown; zeros while unknown. Any thread.
    std::pair<int, int> size() const;
    /// Calls use with the newest frame, when there is one; the frame counts as taken. The
    /// stream's lock is held only to take the frame's buffer: PipeWire goes on meanwhile,
    /// and keeps the buffer (neither refilled nor freed) until use returns. One thread
    /// at a time.
    void take_newest(const std::function<void(const frame&)>& use);

private:
    struct impl;
    std::unique_ptr<impl> impl_;
};

} // namespace orbweave::obs
