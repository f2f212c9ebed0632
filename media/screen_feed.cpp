#include "media/screen_feed.hpp"

#include "core/log.hpp"
#include "media/catalogue.hpp"
#include "media/encoders.hpp"
#include "media/runtime.hpp"
#include "media/unique_handle.hpp"

#include <obs.h>
#include <media-io/video-frame.h>
#include <media-io/video-io.h>
#include <media-io/video-scaler.h>
#include <util/platform.h>

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XShm.h>
#include <X11/extensions/Xfixes.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>

namespace orbweave::obs {

namespace {

constexpr std::uint64_t frame_interval_ns = 1'000'000'000 / stream_fps;

std::atomic<long long> late_frames{0};

bool has_extension(Display* display, const char* name)
{
    int opcode = 0, event = 0, error = 0;
    return XQueryExtension(display, name, &opcode, &event, &error);
}

/// Where on which root window libobs's screen capture finds screen index, so that both
/// paths send the same picture: with RandR or Xinerama, an area of the first screen's
/// root at the origin the capture lists; without, the index is an X screen of its own.
struct screen_area {
    int screen = 0;
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
};

screen_area area_of(Display* display, const screen_entry& entry)
{
    screen_area area;
    area.width = static_cast<int>(entry.width);
    area.height = static_cast<int>(entry.height);
    if (has_extension(display, "RANDR") || has_extension(display, "XINERAMA")) {
        auto origin = x11_screen_origin(entry.index);
        if (!origin)
            throw std::runtime_error("screen " + std::to_string(entry.index) + " is not on the X display");
        area.x = static_cast<int>(origin->first);
        area.y = static_cast<int>(origin->second);
    } else {
        area.screen = entry.index;
    }
    if (area.screen < 0 || area.screen >= ScreenCount(display))
        throw std::runtime_error("screen " + std::to_string(entry.index) + " is not on the X display");
    return area;
}

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

/// Draws the pointer's image (premultiplied ARGB) over the grabbed picture, as the
/// canvas's screen capture does.
void draw_pointer(const XFixesCursorImage& pointer, int left, int top, XImage& image)
{
    for (int row = 0; row < static_cast<int>(pointer.height); ++row) {
        int y = top + row;
        if (y < 0 || y >= image.height)
            continue;
        auto* line = reinterpret_cast<std::uint32_t*>(image.data + static_cast<long>(y) * image.bytes_per_line);
        for (int column = 0; column < static_cast<int>(pointer.width); ++column) {
            int x = left + column;
            if (x < 0 || x >= image.width)
                continue;
            auto source = static_cast<std::uint32_t>(pointer.pixels[row * pointer.width + column]);
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
    return late_frames.load();
}

/// The X side: the display connection, the shared-memory picture of the screen's area,
/// and the scaler that turns it into the stream's NV12 frames. Used by the feed's thread
/// alone once made.
struct screen_feed::grabber {
    Display* display = nullptr;
    Window root = 0;
    screen_area area;
    XShmSegmentInfo segment{};
    XImage* image = nullptr;
    bool attached = false;
    bool pointer = false;
    bool failed = false;
    video_scaler_t* scaler = nullptr;

    grabber(const screen_entry& entry, std::pair<int, int> frame)
    {
        display = XOpenDisplay(nullptr);
        if (!display)
            throw std::runtime_error("cannot open the X display (is DISPLAY set?)");
        try {
            open(entry, frame);
        } catch (...) {
            close();
            throw;
        }
    }
    ~grabber() { close(); }
    grabber(const grabber&) = delete;
    grabber& operator=(const grabber&) = delete;

    void open(const screen_entry& entry, std::pair<int, int> frame)
    {
        if (!XShmQueryExtension(display))
            throw std::runtime_error("the X server shares no memory (MIT-SHM)");
        area = area_of(display, entry);
        root = RootWindow(display, area.screen);
        int fixes_event = 0, fixes_error = 0;
        pointer = XFixesQueryExtension(display, &fixes_event, &fixes_error);

        Visual* visual = DefaultVisual(display, area.screen);
        image = XShmCreateImage(display, visual, static_cast<unsigned>(DefaultDepth(display, area.screen)), ZPixmap,
                                nullptr, &segment, static_cast<unsigned>(area.width),
                                static_cast<unsigned>(area.height));
        if (!image || image->bits_per_pixel != 32)
            throw std::runtime_error("the screen's pixels are not 32-bit");
        segment.shmid = shmget(IPC_PRIVATE, static_cast<std::size_t>(image->bytes_per_line) * image->height,
                               IPC_CREAT | 0600);
        if (segment.shmid < 0)
            throw std::runtime_error("cannot make shared memory for the screen");
        segment.shmaddr = image->data = static_cast<char*>(shmat(segment.shmid, nullptr, 0));
        // Gone with the last detach: nothing is left behind, also if we die.
        shmctl(segment.shmid, IPC_RMID, nullptr);
        if (segment.shmaddr == reinterpret_cast<char*>(-1)) {
            segment.shmaddr = image->data = nullptr;
            throw std::runtime_error("cannot map shared memory for the screen");
        }
        segment.readOnly = False;
        attached = XShmAttach(display, &segment);
        XSync(display, False);
        if (!attached)
            throw std::runtime_error("the X server cannot attach the shared memory");

        video_scale_info from = scale_info(VIDEO_FORMAT_BGRX, {area.width, area.height}, VIDEO_RANGE_FULL);
        video_scale_info to = scale_info(VIDEO_FORMAT_NV12, frame, VIDEO_RANGE_DEFAULT);
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
            XShmDetach(display, &segment);
        if (image) {
            image->data = nullptr;
            XDestroyImage(image);
        }
        if (segment.shmaddr)
            shmdt(segment.shmaddr);
        if (display)
            XCloseDisplay(display);
        scaler = nullptr;
        attached = false;
        image = nullptr;
        segment.shmaddr = nullptr;
        display = nullptr;
    }

    /// The screen's picture now, with the pointer on it. A failed grab keeps the last
    /// picture (logged once): the stream goes on, as the canvas's capture does.
    void grab()
    {
        if (!XShmGetImage(display, root, image, area.x, area.y, AllPlanes)) {
            if (!failed)
                log::line("media: cannot grab the screen; the last picture is sent again");
            failed = true;
            return;
        }
        failed = false;
        if (!pointer)
            return;
        Window pointer_root = 0, child = 0;
        int root_x = 0, root_y = 0, x = 0, y = 0;
        unsigned mask = 0;
        // The pointer is on another X screen, or nowhere near this one.
        if (!XQueryPointer(display, root, &pointer_root, &child, &root_x, &root_y, &x, &y, &mask))
            return;
        XFixesCursorImage* cursor = XFixesGetCursorImage(display);
        if (!cursor)
            return;
        draw_pointer(*cursor, root_x - cursor->xhot - area.x, root_y - cursor->yhot - area.y, *image);
        XFree(cursor);
    }

    void convert(video_frame& frame) const
    {
        const std::uint8_t* planes[] = {reinterpret_cast<const std::uint8_t*>(image->data)};
        const std::uint32_t lines[] = {static_cast<std::uint32_t>(image->bytes_per_line)};
        video_scaler_scale(scaler, frame.data, frame.linesize, planes, lines);
    }
};

screen_feed::screen_feed(const screen_entry& screen, std::pair<int, int> frame)
    : grabber_(std::make_unique<grabber>(screen, frame))
{
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
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    thread_.join();
    video_output_close(video_);
}

video_t* screen_feed::video() const
{
    return video_;
}

void screen_feed::run()
{
    std::uint64_t due = os_gettime_ns();
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopping_) {
        lock.unlock();
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
        lock.lock();
        // Pacing, not synchronisation: the next frame is due then, and a stop wakes us.
        now = os_gettime_ns();
        auto wait = std::chrono::nanoseconds(due > now ? due - now : 0);
        wake_.wait_for(lock, wait, [this] { return stopping_; });
    }
}

} // namespace orbweave::obs
