#pragma once

// What every capture fed to the video encoder past libobs's canvas shares: whether a
// capture goes that way, where its picture sits in the stream's frame, the stream's
// NV12 picture it is fitted into, and the libobs video output that hands that picture
// to the encoder on the stream's frame grid. On a software renderer the canvas costs
// about 0.55 of a core per 720p30 stream before x264 (README, "Performance"); a picture
// converted on the CPU straight from the capture's pixels costs a fraction of that.
//
// Nothing is done twice for a picture that did not change: a capture converts only the
// rows it says changed, and the output's frames (a small ring of buffers that libobs
// hands out in turn) are brought up to date stripe by stripe, so a still picture is
// sent again without converting or copying a byte.

#include "core/callback.hpp"
#include "core/obs/capture_route.hpp"

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

struct video_output;
typedef struct video_output video_t;
struct video_scaler;
typedef struct video_scaler video_scaler_t;
struct video_frame;

namespace orbweave::obs {

/// Whether a capture of kind on route skips the canvas: an X11 screen or window, or a
/// desktop portal's screen or window cast (its buffers in shared memory), when the
/// renderer is a software rasteriser. ORBWEAVE_SCREEN_CAPTURE=direct|canvas decides
/// instead (the tests and benchmarks compare both).
bool feeds_directly(capture_route route, callback::source_type::type kind);

/// Frames the feeds past the canvas of this process sent again because their picture
/// was not ready by the next frame's time (the canvas's "lagged" frames, for a capture
/// fed past it).
long long direct_feed_late_frames();

/// Where in the stream's frame a capture's picture goes: all of it when the capture has
/// the frame's shape (within what rounding to an encodable size loses), else as large
/// as fits with the capture's aspect kept, centred, with black bars beside or above and
/// below. Offsets and sizes are even, as the frame's half-resolution colour needs.
struct placement {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;

    bool fills(std::pair<int, int> frame) const { return width == frame.first && height == frame.second; }
};

placement place_in(int width, int height, std::pair<int, int> frame);

/// Rows [top, bottom) of a capture that changed since it was last taken: what a feed
/// grabs or converts at its next frame. Empty when top >= bottom.
struct row_span {
    int top = 0;
    int bottom = 0;

    bool empty() const { return top >= bottom; }
    /// Grows to cover rows [from, to) too; an empty range adds nothing.
    void add(int from, int to)
    {
        if (from >= to)
            return;
        bool was_empty = empty();
        top = was_empty ? from : std::min(top, from);
        bottom = was_empty ? to : std::max(bottom, to);
    }
    /// All rows of a picture height rows high.
    void all(int height) { top = 0, bottom = height; }
    void clear() { top = bottom = 0; }
};

/// The stream's current picture: NV12 at the frame's size, in the stream's limited
/// range, into which captured pixels are scaled and placed. Kept between frames, so a
/// capture that did not change is sent again without converting anything. Its rows are
/// kept in stripes, each with the number of the last change that wrote it; copy_to()
/// brings one of the output's frames up to date by those.
class fitted_picture {
public:
    /// The pixel layouts captures hand over, 4 bytes a pixel.
    enum class pixels { bgrx, rgbx };
    /// Rows converted and copied together: even, as NV12's colour rows cover two, and
    /// few enough that a ticking clock costs a sliver of the screen.
    static constexpr int stripe_rows = 16;

    explicit fitted_picture(std::pair<int, int> frame);
    ~fitted_picture();
    fitted_picture(const fitted_picture&) = delete;
    fitted_picture& operator=(const fitted_picture&) = delete;

    /// Readies the picture for captures of width x height in layout: their placement,
    /// the bars around it, the scalers. Nothing to do when they are as before; false when
    /// no scaler can be made (the picture then stays as it was).
    bool fit(int width, int height, pixels layout);
    /// Whether the picture is ready for captures of width x height in layout.
    bool fitted(int width, int height, pixels layout) const
    {
        return scaler_ && width == width_ && height == height_ && layout == layout_;
    }
    /// Whether rows of a capture are converted alone (at the frame's own size, where the
    /// picture is not scaled), so a change costs only its own stripes.
    bool in_stripes() const { return stripe_scaler_ != nullptr; }
    /// Scales a capture of the size last fitted (rows of stride bytes) into its place.
    void draw(const std::uint8_t* pixels, std::uint32_t stride);
    /// Only rows [top, bottom) of the capture changed: in stripes, only the stripes
    /// holding them are converted (the rest of the picture is kept); else all of it.
    void draw_rows(const std::uint8_t* pixels, std::uint32_t stride, int top, int bottom);

    /// Brings one of the video output's frames up to date with the picture: the stripes
    /// changed since that frame last held it, nothing when nothing changed.
    void copy_to(const video_frame& frame);

    const placement& place() const { return place_; }
    std::pair<int, int> frame() const { return frame_; }
    /// The picture's planes (Y, then interleaved UV), each frame().first bytes a row.
    const std::uint8_t* luma() const { return planes_.data(); }
    const std::uint8_t* chroma() const { return planes_.data() + static_cast<std::size_t>(frame_.first) * frame_.second; }

private:
    void clear();
    /// Rows [top, bottom) of the frame were written.
    void changed(int top, int bottom);
    void convert(video_scaler_t* scaler, const std::uint8_t* pixels, std::uint32_t stride, int row);

    std::pair<int, int> frame_;
    std::vector<std::uint8_t> planes_;
    placement place_;
    int width_ = 0, height_ = 0;
    pixels layout_ = pixels::bgrx;
    video_scaler_t* scaler_ = nullptr;
    // At the frame's own size: one stripe of rows, and the shorter last one.
    video_scaler_t* stripe_scaler_ = nullptr;
    video_scaler_t* last_stripe_scaler_ = nullptr;
    // The last change that wrote each stripe of the frame's rows.
    std::vector<std::uint64_t> versions_;
    std::uint64_t version_ = 0;
    // What each of the output's frames holds, by its first plane's address.
    std::map<const std::uint8_t*, std::vector<std::uint64_t>> held_;
};

/// A libobs video output at the frame's size that the video encoder takes instead of the
/// canvas, and the thread that fills it: at each frame's time it asks the capture to
/// bring the picture up to date (refresh) and sends the picture on that timestamp. A
/// refresh later than the next frame's time sends the picture for the frames missed, so
/// the stream keeps its rate and its timestamps their grid.
class paced_video {
public:
    /// refresh runs on the pacing thread only (named name, so a profile tells it from the
    /// encoder's); it may update picture, nothing else may.
    paced_video(const std::string& name, fitted_picture& picture, std::function<void()> refresh);
    /// Stops the thread and closes the output; the encoder must have let go of it.
    ~paced_video();
    paced_video(const paced_video&) = delete;
    paced_video& operator=(const paced_video&) = delete;

    video_t* video() const { return video_; }

private:
    void run();

    std::string name_;
    fitted_picture& picture_;
    std::function<void()> refresh_;
    video_t* video_ = nullptr;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::thread thread_;
};

} // namespace orbweave::obs
