#pragma once

// What every capture fed to the video encoder past libobs's canvas shares: whether a
// capture goes that way, where its picture sits in the stream's frame, the stream's
// NV12 picture it is fitted into, and the libobs video output that hands that picture
// to the encoder on the stream's frame grid. On a software renderer the canvas costs
// about 0.55 of a core per 720p30 stream before x264 (README, "Performance"); a picture
// converted on the CPU straight from the capture's pixels costs a fraction of that.

#include "core/callback.hpp"
#include "core/obs/capture_route.hpp"

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

struct video_output;
typedef struct video_output video_t;
struct video_scaler;
typedef struct video_scaler video_scaler_t;

namespace orbweave::obs {

/// Whether a capture of kind on route skips the canvas: an X11 screen or window, or a
/// desktop portal's screen or window cast (its buffers in shared memory), when the
/// renderer is a software rasteriser. ORBWEAVE_SCREEN_CAPTURE=direct|canvas decides
/// instead (the tests and benchmarks compare both).
bool feeds_directly(capture_route route, callback::source_type::type kind);

/// Frames the feeds past the canvas (other than the X11 screen's) sent again because
/// their picture was not ready by the next frame's time.
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

/// The stream's current picture: NV12 at the frame's size, in the stream's limited
/// range, into which captured pixels are scaled and placed. Kept between frames, so a
/// capture that did not change is sent again without converting anything.
class fitted_picture {
public:
    /// The pixel layouts captures hand over, 4 bytes a pixel.
    enum class pixels { bgrx, rgbx };

    explicit fitted_picture(std::pair<int, int> frame);
    ~fitted_picture();
    fitted_picture(const fitted_picture&) = delete;
    fitted_picture& operator=(const fitted_picture&) = delete;

    /// Readies the picture for captures of width x height in layout: their placement,
    /// the bars around it, the scaler. Nothing to do when they are as before; false when
    /// no scaler can be made (the picture then stays as it was).
    bool fit(int width, int height, pixels layout);
    /// Whether the picture is ready for captures of width x height in layout.
    bool fitted(int width, int height, pixels layout) const
    {
        return scaler_ && width == width_ && height == height_ && layout == layout_;
    }
    /// Scales a capture of the size last fitted (rows of stride bytes) into its place.
    void draw(const std::uint8_t* pixels, std::uint32_t stride);
    /// Only rows [top, bottom) of the capture changed: at the frame's own size only
    /// those rows are converted (the rest of the picture is kept), else all of it.
    void draw_rows(const std::uint8_t* pixels, std::uint32_t stride, int top, int bottom);

    const placement& place() const { return place_; }
    std::pair<int, int> frame() const { return frame_; }
    /// The picture's planes (Y, then interleaved UV), each frame().first bytes a row.
    const std::uint8_t* luma() const { return planes_.data(); }
    const std::uint8_t* chroma() const { return planes_.data() + static_cast<std::size_t>(frame_.first) * frame_.second; }

private:
    void clear();

    std::pair<int, int> frame_;
    std::vector<std::uint8_t> planes_;
    placement place_;
    int width_ = 0, height_ = 0;
    pixels layout_ = pixels::bgrx;
    video_scaler_t* scaler_ = nullptr;
    // Converts a band of rows at the frame's own size; made with the whole scaler.
    video_scaler_t* band_scaler_ = nullptr;
    int band_height_ = 0;
};

/// A libobs video output at the frame's size that the video encoder takes instead of the
/// canvas, and the thread that fills it: at each frame's time it asks the capture to
/// bring the picture up to date (refresh) and sends the picture on that timestamp. A
/// refresh later than the next frame's time sends the picture for the frames missed, so
/// the stream keeps its rate and its timestamps their grid.
class paced_video {
public:
    /// refresh runs on the pacing thread only; it may update picture, nothing else may.
    paced_video(const char* name, fitted_picture& picture, std::function<void()> refresh);
    /// Stops the thread and closes the output; the encoder must have let go of it.
    ~paced_video();
    paced_video(const paced_video&) = delete;
    paced_video& operator=(const paced_video&) = delete;

    video_t* video() const { return video_; }

private:
    void run();

    fitted_picture& picture_;
    std::function<void()> refresh_;
    video_t* video_ = nullptr;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::thread thread_;
};

} // namespace orbweave::obs
