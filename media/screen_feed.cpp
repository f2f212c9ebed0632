#include "media/screen_feed.hpp"

#include "core/log.hpp"
#include "media/direct_video.hpp"
#include "media/encoders.hpp"
#include "media/runtime.hpp"
#include "media/unique_handle.hpp"
#include "media/x11_screens.hpp"
#include "media/xcb_reply.hpp"

#include <obs.h>
#include <media-io/video-frame.h>
#include <media-io/video-io.h>
#include <media-io/video-scaler.h>
#include <util/platform.h>

#include <xcb/shm.h>
#include <xcb/xcb.h>
#include <xcb/xfixes.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace orbweave::obs {

namespace {

constexpr std::uint64_t frame_interval_ns = 1'000'000'000 / stream_fps;

std::atomic<long long> late_frames{0};

video_scale_info scale_info(video_format format, std::pair<int, int> size, video_range_type range)
{
    video_scale_info info{};
    info.format = format;
    info.width = static_cast<std::uint32_t>(size.first);
    info.height = static_cast<std::uint32_t>(size.second);
    info.range = range;
    info.colorspace = VIDEO_CS_DEFAULT;
    return info;
}

/// Draws the pointer's image (premultiplied ARGB) over the grabbed picture (BGRX rows of
/// stride bytes), as the canvas's screen capture does.
void draw_pointer(const std::uint32_t* pointer, int pointer_width, int pointer_height, int left, int top,
                  std::uint8_t* picture, int width, int height, int stride)
{
    for (int row = 0; row < pointer_height; ++row) {
        int y = top + row;
        if (y < 0 || y >= height)
            continue;
        auto* line = reinterpret_cast<std::uint32_t*>(picture + static_cast<long>(y) * stride);
        for (int column = 0; column < pointer_width; ++column) {
            int x = left + column;
            if (x < 0 || x >= width)
                continue;
            std::uint32_t source = pointer[row * pointer_width + column];
            std::uint32_t alpha = source >> 24;
            if (alpha == 0)
                continue;
            std::uint32_t target = line[x];
            std::uint32_t blended = 0;
            for (int shift = 0; shift < 24; shift += 8) {
                std::uint32_t over = (source >> shift) & 0xff;
                std::uint32_t under = (target >> shift) & 0xff;
                blended |= std::min<std::uint32_t>(255, over + under * (255 - alpha) / 255) << shift;
            }
            line[x] = blended;
        }
    }
}

} // namespace

bool feeds_screens_directly(capture_route route)
{
    if (route != capture_route::x11)
        return false;
    const char* asked = std::getenv("ORBWEAVE_SCREEN_CAPTURE");
    if (asked && std::string_view(asked) == "direct")
        return true;
    if (asked && std::string_view(asked) == "canvas")
        return false;
    return software_renderer(current_video_path().renderer);
}

long long screen_feed_late_frames()
{
    return late_frames.load() + direct_feed_late_frames();
}

/// The X side: the connection, the shared memory the screen's area is grabbed into, and
/// the scaler that turns it into the stream's NV12 frames. Used by the feed's thread
/// alone once made. Requests go through XCB, whose errors come back with their replies:
/// a grab that fails while the screen changes is counted here, not reported by the
/// process's X error handler once a frame.
struct screen_feed::grabber {
    xcb_connection_t* xcb = nullptr;
    xcb_window_t root = 0;
    x11_screen area;
    std::pair<int, int> frame;
    placement place;
    xcb_shm_seg_t segment = 0;
    int shmid = -1;
    std::uint8_t* pixels = nullptr;
    bool attached = false;
    bool pointer = false;
    video_scaler_t* scaler = nullptr;
    // Grabs failed since the last one that worked.
    long failed = 0;

    grabber(const x11_screen& screen, std::pair<int, int> frame_size) : frame(frame_size)
    {
        xcb = xcb_connect(nullptr, nullptr);
        if (xcb_connection_has_error(xcb)) {
            xcb_disconnect(xcb);
            throw std::runtime_error("cannot open the X display (is DISPLAY set?)");
        }
        try {
            const xcb_query_extension_reply_t* shm = xcb_get_extension_data(xcb, &xcb_shm_id);
            if (!shm || !shm->present)
                throw std::runtime_error("the X server shares no memory (MIT-SHM)");
            const xcb_query_extension_reply_t* fixes = xcb_get_extension_data(xcb, &xcb_xfixes_id);
            if (fixes && fixes->present) {
                // XFixes answers only clients that said which version they speak.
                std::free(xcb_xfixes_query_version_reply(xcb, xcb_xfixes_query_version(xcb, 4, 0), nullptr));
                pointer = true;
            }
            open(screen);
        } catch (...) {
            close();
            xcb_disconnect(xcb);
            throw;
        }
    }
    ~grabber()
    {
        close();
        xcb_disconnect(xcb);
    }
    grabber(const grabber&) = delete;
    grabber& operator=(const grabber&) = delete;

    /// Shared memory for the screen's area where it is now, and the scaler that places it
    /// in the frame.
    void open(const x11_screen& screen)
    {
        area = screen;
        xcb_screen_t* holder = root_screen(xcb, area.root_screen);
        if (!holder)
            throw std::runtime_error("screen " + std::to_string(area.index + 1) + " is not on the X display");
        if (!has_32_bit_pixels(xcb, holder->root_depth))
            throw std::runtime_error("the screen's pixels are not 32-bit");
        root = holder->root;

        std::size_t bytes = static_cast<std::size_t>(area.width) * static_cast<std::size_t>(area.height) * 4;
        shmid = shmget(IPC_PRIVATE, bytes, IPC_CREAT | 0600);
        if (shmid < 0)
            throw std::runtime_error("cannot make shared memory for the screen");
        void* mapped = shmat(shmid, nullptr, 0);
        // Gone with the last detach: nothing is left behind, also if we die.
        shmctl(shmid, IPC_RMID, nullptr);
        if (mapped == reinterpret_cast<void*>(-1))
            throw std::runtime_error("cannot map shared memory for the screen");
        pixels = static_cast<std::uint8_t*>(mapped);
        segment = xcb_generate_id(xcb);
        xcb_generic_error_t* error =
            xcb_request_check(xcb, xcb_shm_attach_checked(xcb, segment, static_cast<std::uint32_t>(shmid), 0));
        if (error) {
            std::free(error);
            throw std::runtime_error("the X server cannot attach the shared memory");
        }
        attached = true;

        place = place_in(area.width, area.height, frame);
        video_scale_info from = scale_info(VIDEO_FORMAT_BGRX, {area.width, area.height}, VIDEO_RANGE_FULL);
        video_scale_info to = scale_info(VIDEO_FORMAT_NV12, {place.width, place.height}, VIDEO_RANGE_DEFAULT);
        // Bicubic where the picture is scaled; at the screen's own size the filter only
        // halves the chroma, where the fastest one is as good.
        bool scaled = from.width != to.width || from.height != to.height;
        if (video_scaler_create(&scaler, &to, &from, scaled ? VIDEO_SCALE_BICUBIC : VIDEO_SCALE_FAST_BILINEAR) !=
            VIDEO_SCALER_SUCCESS)
            throw std::runtime_error("cannot make the scaler for the screen");
    }

    void close()
    {
        if (scaler)
            video_scaler_destroy(scaler);
        if (attached)
            xcb_shm_detach(xcb, segment);
        if (pixels)
            shmdt(pixels);
        scaler = nullptr;
        attached = false;
        pixels = nullptr;
        shmid = -1;
    }

    /// Follows the screen to where it is now; false (logged) when it cannot be grabbed
    /// there, and the stream then ends.
    bool move_to(const x11_screen& screen)
    {
        close();
        try {
            open(screen);
        } catch (const std::exception& failure) {
            log::line(std::string("media: cannot follow the screen: ") + failure.what());
            return false;
        }
        if (place.fills(frame))
            log::line("media: the screen fills the stream's " + std::to_string(frame.first) + "x" +
                      std::to_string(frame.second) + " frame");
        else
            log::line("media: the screen is shown at " + std::to_string(place.width) + "x" +
                      std::to_string(place.height) + " in the middle of the stream's " +
                      std::to_string(frame.first) + "x" + std::to_string(frame.second) +
                      " frame, its aspect kept");
        return true;
    }

    /// The screen's picture now, with the pointer on it. A failed grab keeps the last
    /// picture: the stream goes on, as the canvas's capture does. Failures are counted
    /// and told once when they begin and once when they end, never once a frame.
    void grab()
    {
        xcb_generic_error_t* error = nullptr;
        xcb_reply<xcb_shm_get_image_reply_t> image{xcb_shm_get_image_reply(
            xcb,
            xcb_shm_get_image(xcb, root, static_cast<std::int16_t>(area.x), static_cast<std::int16_t>(area.y),
                              static_cast<std::uint16_t>(area.width), static_cast<std::uint16_t>(area.height),
                              ~0u, XCB_IMAGE_FORMAT_Z_PIXMAP, segment, 0),
            &error)};
        if (!image) {
            if (failed++ == 0)
                log::line("media: cannot grab screen " + std::to_string(area.index + 1) + " at " + describe(area) +
                          " (X error " + std::to_string(error ? error->error_code : 0) +
                          "); the last picture is sent until it can");
            std::free(error);
            return;
        }
        if (failed > 0)
            log::line("media: screen " + std::to_string(area.index + 1) + " is grabbed again after " +
                      std::to_string(failed) + " failed grabs");
        failed = 0;
        if (!pointer)
            return;
        // Both asked at once: one round trip.
        auto where_cookie = xcb_query_pointer(xcb, root);
        auto cursor_cookie = xcb_xfixes_get_cursor_image(xcb);
        xcb_reply<xcb_query_pointer_reply_t> where{xcb_query_pointer_reply(xcb, where_cookie, nullptr)};
        xcb_reply<xcb_xfixes_get_cursor_image_reply_t> cursor{
            xcb_xfixes_get_cursor_image_reply(xcb, cursor_cookie, nullptr)};
        // The pointer is on another X screen, or nowhere near this one.
        if (!where || !where->same_screen || !cursor)
            return;
        draw_pointer(xcb_xfixes_get_cursor_image_cursor_image(cursor.reply), cursor->width, cursor->height,
                     where->root_x - cursor->xhot - area.x, where->root_y - cursor->yhot - area.y, pixels,
                     area.width, area.height, area.width * 4);
    }

    void convert(video_frame& frame_out) const
    {
        std::uint8_t* planes[MAX_AV_PLANES] = {frame_out.data[0], frame_out.data[1]};
        if (!place.fills(frame)) {
            // Black, in the stream's limited range, around the picture.
            for (int row = 0; row < frame.second; ++row)
                std::memset(frame_out.data[0] + static_cast<std::size_t>(row) * frame_out.linesize[0], 16,
                            static_cast<std::size_t>(frame.first));
            for (int row = 0; row < frame.second / 2; ++row)
                std::memset(frame_out.data[1] + static_cast<std::size_t>(row) * frame_out.linesize[1], 128,
                            static_cast<std::size_t>(frame.first));
            planes[0] += static_cast<std::size_t>(place.y) * frame_out.linesize[0] + place.x;
            planes[1] += static_cast<std::size_t>(place.y / 2) * frame_out.linesize[1] + place.x;
        }
        const std::uint8_t* input[] = {pixels};
        const std::uint32_t lines[] = {static_cast<std::uint32_t>(area.width * 4)};
        video_scaler_scale(scaler, planes, frame_out.linesize, input, lines);
    }
};

screen_feed::screen_feed(const screen_entry& screen, std::pair<int, int> frame, ended_handler on_ended)
    : on_ended_(std::move(on_ended))
{
    // Told on the watch's thread; the feed's own thread moves the grab at its next frame.
    watch_ = std::make_unique<x11_screen_watch>(
        screen.index,
        [this](const x11_screen& now) {
            std::lock_guard<std::mutex> lock(mutex_);
            moved_ = now;
        },
        [this](const std::string& reason) { end(reason); });
    grabber_ = std::make_unique<grabber>(watch_->initial(), frame);
    video_output_info info{};
    info.name = "screen feed";
    info.format = VIDEO_FORMAT_NV12;
    info.fps_num = stream_fps;
    info.fps_den = 1;
    info.width = static_cast<std::uint32_t>(frame.first);
    info.height = static_cast<std::uint32_t>(frame.second);
    info.range = VIDEO_RANGE_DEFAULT;
    info.colorspace = VIDEO_CS_DEFAULT;
    info.cache_size = 6;
    if (video_output_open(&video_, &info) != VIDEO_OUTPUT_SUCCESS)
        throw std::runtime_error("cannot open the screen's video output");
    thread_ = std::thread([this] { run(); });
}

screen_feed::~screen_feed()
{
    // No more news of the screen once stopping.
    watch_.reset();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    thread_.join();
    video_output_close(video_);
}

void screen_feed::end(const std::string& reason)
{
    if (on_ended_)
        on_ended_(reason);
}

video_t* screen_feed::video() const
{
    return video_;
}

void screen_feed::run()
{
    std::uint64_t due = os_gettime_ns();
    bool grabbing = true;
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopping_) {
        std::optional<x11_screen> moved = std::exchange(moved_, std::nullopt);
        lock.unlock();
        if (moved && grabbing && !grabber_->move_to(*moved)) {
            grabbing = false;
            end("screen " + std::to_string(moved->index + 1) + " cannot be grabbed at " + describe(*moved));
        }
        if (grabbing) {
            grabber_->grab();
            // A grab later than the next frame's time sends this picture for the frames
            // missed, so the stream keeps its rate and its timestamps their grid.
            std::uint64_t now = os_gettime_ns();
            int count = 1;
            if (now > due + frame_interval_ns)
                count += static_cast<int>((now - due) / frame_interval_ns);
            video_frame frame{};
            if (video_output_lock_frame(video_, &frame, count, due)) {
                grabber_->convert(frame);
                video_output_unlock_frame(video_);
            }
            late_frames += count - 1;
            due += frame_interval_ns * static_cast<std::uint64_t>(count);
        } else {
            due += frame_interval_ns;
        }
        lock.lock();
        // Pacing, not synchronisation: the next frame is due then, and a stop wakes us.
        std::uint64_t now = os_gettime_ns();
        auto wait = std::chrono::nanoseconds(due > now ? due - now : 0);
        wake_.wait_for(lock, wait, [this] { return stopping_; });
    }
}

} // namespace orbweave::obs
