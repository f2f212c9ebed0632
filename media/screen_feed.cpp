#include "media/screen_feed.hpp"

#include "core/log.hpp"
#include "media/xcb_reply.hpp"

#include <xcb/damage.h>
#include <xcb/shm.h>
#include <xcb/xcb.h>
#include <xcb/xfixes.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace orbweave::obs {

namespace {

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

/// The pointer as last seen: where its image's top left corner is on the screen's area,
/// and the image (premultiplied ARGB).
struct pointer_image {
    bool shown = false;
    int left = 0;
    int top = 0;
    int width = 0;
    int height = 0;
    std::uint32_t serial = 0;

    bool operator==(const pointer_image& other) const
    {
        return shown == other.shown && (!shown || (left == other.left && top == other.top && width == other.width &&
                                                   height == other.height && serial == other.serial));
    }
    bool operator!=(const pointer_image& other) const { return !(*this == other); }
};

/// The X side: the connection, and the shared memory the screen's area is grabbed into
/// before it is converted into the stream's picture. Used by the pacing thread alone
/// once made. Requests go through XCB, whose errors come back with their replies:
/// a grab that fails while the screen changes is counted here, not reported by the
/// process's X error handler once a frame.
///
/// The X server says what changed (XDamage), so only the stripes of rows it touched are
/// grabbed again and, when the picture is not scaled, converted again; where nothing
/// changed and the pointer stayed, nothing is grabbed at all. Without the extension every
/// frame is grabbed whole, as before.
struct screen_feed::grabber {
    // Grabbed in the picture's stripes, so a grabbed stripe converts alone.
    static constexpr int stripe_rows = fitted_picture::stripe_rows;

    xcb_connection_t* xcb = nullptr;
    xcb_window_t root = 0;
    x11_screen area;
    fitted_picture& picture;
    xcb_shm_seg_t segment = 0;
    int shmid = -1;
    std::uint8_t* pixels = nullptr;
    bool attached = false;
    bool pointer = false;
    // Grabs failed since the last one that worked.
    long failed = 0;

    // What changed, from the X server.
    const xcb_query_extension_reply_t* damage_extension = nullptr;
    const xcb_query_extension_reply_t* fixes_extension = nullptr;
    xcb_damage damage;
    bool damaged = true;
    // Stripes of the screen's area to grab again.
    std::vector<bool> dirty;

    // The pointer drawn into the picture, and its image while it stays the same.
    pointer_image drawn;
    pointer_image cursor;
    std::vector<std::uint32_t> cursor_pixels;
    int cursor_xhot = 0;
    int cursor_yhot = 0;
    bool cursor_changed = true;

    grabber(const x11_screen& screen, fitted_picture& into) : picture(into)
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
            fixes_extension = xcb_get_extension_data(xcb, &xcb_xfixes_id);
            if (fixes_extension && fixes_extension->present) {
                // XFixes answers only clients that said which version they speak.
                std::free(xcb_xfixes_query_version_reply(xcb, xcb_xfixes_query_version(xcb, 4, 0), nullptr));
                pointer = true;
                damage_extension = xcb_get_extension_data(xcb, &xcb_damage_id);
                if (damage_extension && damage_extension->present)
                    std::free(xcb_damage_query_version_reply(xcb, xcb_damage_query_version(xcb, 1, 1), nullptr));
                else
                    damage_extension = nullptr;
            } else {
                fixes_extension = nullptr;
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

    /// Shared memory for the screen's area where it is now, and the picture fitted to it.
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

        if (!picture.fit(area.width, area.height, fitted_picture::pixels::bgrx))
            throw std::runtime_error("cannot make the scaler for the screen");

        if (damage_extension) {
            // One event when the damage becomes non-empty; what it covers is fetched
            // when the frame is made. Without damage every frame is grabbed whole: a
            // missed change would freeze the picture.
            if (!damage.watch(xcb, root))
                log::line("media: the X server tells nothing of what changed on the screen; every frame is "
                          "grabbed whole");
        }
        if (pointer)
            xcb_xfixes_select_cursor_input(xcb, root, XCB_XFIXES_CURSOR_NOTIFY_MASK_DISPLAY_CURSOR);
        // Everything is grabbed once, and the pointer drawn afresh.
        dirty.assign(static_cast<std::size_t>((area.height + stripe_rows - 1) / stripe_rows), true);
        damaged = true;
        cursor_changed = true;
        drawn = {};
    }

    void close()
    {
        damage.forget(xcb);
        if (attached)
            xcb_shm_detach(xcb, segment);
        if (pixels)
            shmdt(pixels);
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
        const placement& place = picture.place();
        auto [width, height] = picture.frame();
        if (place.fills(picture.frame()))
            log::line("media: the screen fills the stream's " + std::to_string(width) + "x" +
                      std::to_string(height) + " frame");
        else
            log::line("media: the screen is shown at " + std::to_string(place.width) + "x" +
                      std::to_string(place.height) + " in the middle of the stream's " +
                      std::to_string(width) + "x" + std::to_string(height) + " frame, its aspect kept");
        return true;
    }

    /// Marks the stripes holding rows [top, bottom) of the screen's area.
    void mark(int top, int bottom)
    {
        top = std::max(0, top);
        bottom = std::min(area.height, bottom);
        for (int stripe = top / stripe_rows; stripe * stripe_rows < bottom; ++stripe)
            dirty[static_cast<std::size_t>(stripe)] = true;
    }

    bool any_dirty(int top, int bottom) const
    {
        top = std::max(0, top);
        bottom = std::min(area.height, bottom);
        for (int stripe = top / stripe_rows; stripe * stripe_rows < bottom; ++stripe)
            if (dirty[static_cast<std::size_t>(stripe)])
                return true;
        return false;
    }

    /// Reads what the X server told since the last frame: damage, a new pointer image.
    void read_events()
    {
        while (xcb_generic_event_t* event = xcb_poll_for_event(xcb)) {
            std::uint8_t type = event->response_type & 0x7f;
            if (damage_extension && type == damage_extension->first_event + XCB_DAMAGE_NOTIFY)
                damaged = true;
            else if (fixes_extension && type == fixes_extension->first_event + XCB_XFIXES_CURSOR_NOTIFY)
                cursor_changed = true;
            std::free(event);
        }
    }

    /// The rows the X server says changed since it was last asked, marked to grab.
    void take_damage()
    {
        if (!damage) {
            mark(0, area.height);
            return;
        }
        if (!damaged)
            return;
        damaged = false;
        bool told = damage.take(xcb, [&](const xcb_rectangle_t& changed) {
            if (changed.x + changed.width <= area.x || changed.x >= area.x + area.width)
                return;
            mark(changed.y - area.y, changed.y + changed.height - area.y);
        });
        if (!told)
            mark(0, area.height);
    }

    /// Where the pointer is now and its image; the rows it left and the rows it covers
    /// are marked when either changed.
    pointer_image where_pointer_is()
    {
        if (!pointer)
            return {};
        auto where_cookie = xcb_query_pointer(xcb, root);
        if (cursor_changed) {
            cursor_changed = false;
            xcb_reply<xcb_xfixes_get_cursor_image_reply_t> image{
                xcb_xfixes_get_cursor_image_reply(xcb, xcb_xfixes_get_cursor_image(xcb), nullptr)};
            if (image) {
                const std::uint32_t* data = xcb_xfixes_get_cursor_image_cursor_image(image.reply);
                cursor_pixels.assign(data, data + static_cast<std::size_t>(image->width) * image->height);
                cursor.width = image->width;
                cursor.height = image->height;
                cursor.serial = image->cursor_serial;
                cursor_xhot = image->xhot;
                cursor_yhot = image->yhot;
            } else {
                cursor_pixels.clear();
            }
        }
        xcb_reply<xcb_query_pointer_reply_t> where{xcb_query_pointer_reply(xcb, where_cookie, nullptr)};
        pointer_image now = cursor;
        // The pointer is on another X screen, or nowhere near this one.
        now.shown = where && where->same_screen && !cursor_pixels.empty();
        if (now.shown) {
            now.left = where->root_x - cursor_xhot - area.x;
            now.top = where->root_y - cursor_yhot - area.y;
            now.shown = now.left < area.width && now.top < area.height && now.left + now.width > 0 &&
                        now.top + now.height > 0;
        }
        return now;
    }

    /// Grabs the marked stripes, one request for each run of them, all sent before the
    /// first answer is read. False when one failed: the stripes stay marked for the next
    /// frame.
    bool grab_marked()
    {
        struct run {
            int top;
            int bottom;
            xcb_shm_get_image_cookie_t cookie;
        };
        std::vector<run> runs;
        for (std::size_t stripe = 0; stripe < dirty.size();) {
            if (!dirty[stripe]) {
                ++stripe;
                continue;
            }
            std::size_t end = stripe;
            while (end < dirty.size() && dirty[end])
                ++end;
            int top = static_cast<int>(stripe) * stripe_rows;
            int bottom = std::min(area.height, static_cast<int>(end) * stripe_rows);
            runs.push_back({top, bottom,
                            xcb_shm_get_image(xcb, root, static_cast<std::int16_t>(area.x),
                                              static_cast<std::int16_t>(area.y + top),
                                              static_cast<std::uint16_t>(area.width),
                                              static_cast<std::uint16_t>(bottom - top), ~0u,
                                              XCB_IMAGE_FORMAT_Z_PIXMAP, segment,
                                              static_cast<std::uint32_t>(top) * area.width * 4)});
            stripe = end;
        }
        int error_code = -1;
        for (const run& each : runs) {
            xcb_generic_error_t* error = nullptr;
            xcb_reply<xcb_shm_get_image_reply_t> image{xcb_shm_get_image_reply(xcb, each.cookie, &error)};
            if (!image && error_code < 0)
                error_code = error ? error->error_code : 0;
            std::free(error);
        }
        if (error_code >= 0) {
            if (failed++ == 0)
                log::line("media: cannot grab screen " + std::to_string(area.index + 1) + " at " + describe(area) +
                          " (X error " + std::to_string(error_code) + "); the last picture is sent until it can");
            return false;
        }
        if (failed > 0)
            log::line("media: screen " + std::to_string(area.index + 1) + " is grabbed again after " +
                      std::to_string(failed) + " failed grabs");
        failed = 0;
        return true;
    }

    /// Brings the picture up to the screen's: what changed is grabbed (with the pointer
    /// drawn over it) and converted; nothing is when nothing changed. A failed grab keeps
    /// the last picture: the stream goes on, as the canvas's capture does. Failures are
    /// counted and told once when they begin and once when they end, never once a frame.
    void refresh()
    {
        read_events();
        pointer_image now = where_pointer_is();
        // What was drawn before the pointer's answer came is told by now.
        read_events();
        take_damage();
        if (now != drawn) {
            // The old pointer is wiped by grabbing its rows again, the new one drawn.
            if (drawn.shown)
                mark(drawn.top, drawn.top + drawn.height);
            if (now.shown)
                mark(now.top, now.top + now.height);
        }
        // Rows under the pointer are grabbed all together or not at all: it is drawn
        // over the fresh pixels once, never blended twice.
        if (now.shown && any_dirty(now.top, now.top + now.height))
            mark(now.top, now.top + now.height);
        if (std::find(dirty.begin(), dirty.end(), true) == dirty.end())
            return;
        if (!grab_marked())
            return;
        if (now.shown)
            draw_pointer(cursor_pixels.data(), now.width, now.height, now.left, now.top, pixels, area.width,
                         area.height, area.width * 4);
        drawn = now;
        convert_marked();
        std::fill(dirty.begin(), dirty.end(), false);
    }

    /// The grabbed stripes into the picture: each run of them alone at the screen's own
    /// size, the whole picture again when it is scaled.
    void convert_marked()
    {
        const std::uint32_t stride = static_cast<std::uint32_t>(area.width * 4);
        if (!picture.in_stripes()) {
            picture.draw(pixels, stride);
            return;
        }
        for (std::size_t stripe = 0; stripe < dirty.size();) {
            if (!dirty[stripe]) {
                ++stripe;
                continue;
            }
            std::size_t end = stripe;
            while (end < dirty.size() && dirty[end])
                ++end;
            picture.draw_rows(pixels, stride, static_cast<int>(stripe) * stripe_rows,
                              static_cast<int>(end) * stripe_rows);
            stripe = end;
        }
    }
};

screen_feed::screen_feed(const screen_entry& screen, std::pair<int, int> frame, ended_handler on_ended)
    : ended_(std::move(on_ended)), picture_(frame)
{
    // Told on the watch's thread; the pacing thread moves the grab at its next frame.
    watch_ = std::make_unique<x11_screen_watch>(
        screen.index,
        [this](const x11_screen& now) {
            std::lock_guard<std::mutex> lock(mutex_);
            moved_ = now;
        },
        [this](const std::string& reason) { ended_.end(reason); });
    grabber_ = std::make_unique<grabber>(watch_->initial(), picture_);
    paced_ = std::make_unique<paced_video>("screen feed", picture_, [this] { refresh(); });
}

screen_feed::~screen_feed()
{
    // No more news of the screen once stopping, then no more frames.
    watch_.reset();
    paced_.reset();
}

video_t* screen_feed::video() const
{
    return paced_->video();
}

void screen_feed::refresh()
{
    std::optional<x11_screen> moved;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        moved = std::exchange(moved_, std::nullopt);
    }
    if (moved && grabbing_ && !grabber_->move_to(*moved)) {
        // The last picture is sent until the stream has ended.
        grabbing_ = false;
        ended_.end("screen " + std::to_string(moved->index + 1) + " cannot be grabbed at " + describe(*moved));
    }
    if (grabbing_)
        grabber_->refresh();
}

} // namespace orbweave::obs
