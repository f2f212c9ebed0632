#include "media/window_feed.hpp"

#include "core/log.hpp"
#include "media/xcb_reply.hpp"

#include <xcb/composite.h>
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

namespace orbweave::obs {

/// The X side, used by the feed's thread alone once made: a connection of its own that
/// hears the window's changes, the window's off-screen picture (named again whenever X
/// gives the window a new one: a new size, mapped again) and the shared memory it is
/// grabbed into. Requests go through XCB, whose errors come back with their replies: a
/// window that goes between two requests is an answer here, not a process-wide X error.
///
/// The X server says which rows of the window changed (XDamage, its children's drawing
/// included): only those are grabbed and converted, and a still window costs a request
/// that answers "nothing" once a frame. Without the extension every frame is grabbed whole.
struct window_feed::grabber {
    enum class news { none, resized, gone };

    xcb_connection_t* xcb = nullptr;
    xcb_window_t window = 0;
    xcb_pixmap_t pixmap = 0;
    int width = 0, height = 0, border = 0;
    xcb_shm_seg_t segment = 0;
    std::uint8_t* pixels = nullptr;
    std::size_t capacity = 0;
    // Grabs failed since the last one that worked.
    long failed = 0;

    // What changed, from the X server: the rows to grab.
    const xcb_query_extension_reply_t* damage_extension = nullptr;
    xcb_damage damage;
    bool damaged = true;
    row_span changed;

    explicit grabber(xcb_window_t id) : window(id)
    {
        xcb = xcb_connect(nullptr, nullptr);
        if (xcb_connection_has_error(xcb)) {
            xcb_disconnect(xcb);
            throw std::runtime_error("cannot open the X display (is DISPLAY set?)");
        }
        try {
            open();
        } catch (...) {
            release();
            xcb_disconnect(xcb);
            throw;
        }
    }
    ~grabber()
    {
        release();
        xcb_disconnect(xcb);
    }
    grabber(const grabber&) = delete;
    grabber& operator=(const grabber&) = delete;

    void open()
    {
        const xcb_query_extension_reply_t* shm = xcb_get_extension_data(xcb, &xcb_shm_id);
        if (!shm || !shm->present)
            throw std::runtime_error("the X server shares no memory (MIT-SHM)");
        const xcb_query_extension_reply_t* composite = xcb_get_extension_data(xcb, &xcb_composite_id);
        if (!composite || !composite->present)
            throw std::runtime_error("the X server keeps no window pictures (XComposite)");
        // Naming a window's picture came with version 0.2; the server answers only
        // clients that said which version they speak.
        xcb_reply<xcb_composite_query_version_reply_t> version{
            xcb_composite_query_version_reply(xcb, xcb_composite_query_version(xcb, 0, 2), nullptr)};
        if (!version || (version->major_version == 0 && version->minor_version < 2))
            throw std::runtime_error("the X server's XComposite is too old to name a window's picture");

        xcb_reply<xcb_get_geometry_reply_t> geometry{xcb_get_geometry_reply(xcb, xcb_get_geometry(xcb, window), nullptr)};
        if (!geometry)
            throw std::runtime_error("window not found");
        if (!has_32_bit_pixels(xcb, geometry->depth))
            throw std::runtime_error("the window's pixels are not 32-bit");
        width = geometry->width;
        height = geometry->height;
        border = geometry->border_width;
        // Its changes of size, and its end, come to this connection.
        const std::uint32_t events[] = {XCB_EVENT_MASK_STRUCTURE_NOTIFY};
        xcb_change_window_attributes(xcb, window, XCB_CW_EVENT_MASK, events);
        watch_damage();
        // Kept off screen for us while this connection lasts; still shown by the server.
        if (xcb_generic_error_t* error = xcb_request_check(
                xcb, xcb_composite_redirect_window_checked(xcb, window, XCB_COMPOSITE_REDIRECT_AUTOMATIC))) {
            std::free(error);
            throw std::runtime_error("the X server cannot keep the window's picture");
        }
        // A window not shown now (on another desktop, minimised) has no picture until
        // it is: the stream is black until then.
        if (!name_picture())
            log::line("media: the window is not shown; the stream stays black until it is");
        all_changed();
    }

    /// One event when the window's damage becomes non-empty; what it covers is fetched
    /// when the frame is made. Without XDamage (or XFixes, whose regions carry it) every
    /// frame is grabbed whole: a missed change would freeze the picture.
    void watch_damage()
    {
        const xcb_query_extension_reply_t* fixes = xcb_get_extension_data(xcb, &xcb_xfixes_id);
        damage_extension = xcb_get_extension_data(xcb, &xcb_damage_id);
        if (!fixes || !fixes->present || !damage_extension || !damage_extension->present) {
            damage_extension = nullptr;
            return;
        }
        // Both answer only clients that said which version they speak.
        std::free(xcb_xfixes_query_version_reply(xcb, xcb_xfixes_query_version(xcb, 4, 0), nullptr));
        std::free(xcb_damage_query_version_reply(xcb, xcb_damage_query_version(xcb, 1, 1), nullptr));
        if (!damage.watch(xcb, window))
            damage_extension = nullptr;
    }

    /// The rows of the window that changed since it was last asked, all of them without
    /// damage; none when nothing changed.
    void take_damage()
    {
        if (!damage) {
            all_changed();
            return;
        }
        if (!damaged)
            return;
        damaged = false;
        bool told = damage.take(xcb, [&](const xcb_rectangle_t& area) {
            // In the window's coordinates, its border outside them.
            changed.add(std::max(0, static_cast<int>(area.y)), std::min(height, area.y + static_cast<int>(area.height)));
        });
        if (!told)
            all_changed();
    }

    /// Everything is grabbed at the next frame.
    void all_changed() { changed.all(height); }

    /// Names the window's off-screen picture as it is now, with shared memory that holds
    /// it; false when the window has none (it is not mapped).
    bool name_picture()
    {
        if (pixmap)
            xcb_free_pixmap(xcb, pixmap);
        pixmap = xcb_generate_id(xcb);
        if (xcb_generic_error_t* error =
                xcb_request_check(xcb, xcb_composite_name_window_pixmap_checked(xcb, window, pixmap))) {
            std::free(error);
            pixmap = 0;
            return false;
        }
        std::size_t bytes = static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4;
        return bytes <= capacity || share(bytes);
    }

    bool share(std::size_t bytes)
    {
        release_memory();
        int shmid = shmget(IPC_PRIVATE, bytes, IPC_CREAT | 0600);
        if (shmid < 0)
            return false;
        void* mapped = shmat(shmid, nullptr, 0);
        // Gone with the last detach: nothing is left behind, also if we die.
        shmctl(shmid, IPC_RMID, nullptr);
        if (mapped == reinterpret_cast<void*>(-1))
            return false;
        pixels = static_cast<std::uint8_t*>(mapped);
        segment = xcb_generate_id(xcb);
        if (xcb_generic_error_t* error =
                xcb_request_check(xcb, xcb_shm_attach_checked(xcb, segment, static_cast<std::uint32_t>(shmid), 0))) {
            std::free(error);
            shmdt(pixels);
            pixels = nullptr;
            return false;
        }
        capacity = bytes;
        return true;
    }

    void release_memory()
    {
        if (pixels) {
            xcb_shm_detach(xcb, segment);
            shmdt(pixels);
        }
        pixels = nullptr;
        capacity = 0;
    }

    void release()
    {
        damage.forget(xcb);
        if (pixmap)
            xcb_free_pixmap(xcb, pixmap);
        pixmap = 0;
        release_memory();
    }

    /// What happened to the window since the last frame.
    news follow()
    {
        news heard = news::none;
        bool renamed = false;
        while (xcb_generic_event_t* event = xcb_poll_for_event(xcb)) {
            switch (event->response_type & 0x7f) {
            case XCB_CONFIGURE_NOTIFY: {
                auto* configured = reinterpret_cast<xcb_configure_notify_event_t*>(event);
                if (configured->window == window &&
                    (configured->width != width || configured->height != height || configured->border_width != border)) {
                    width = configured->width;
                    height = configured->height;
                    border = configured->border_width;
                    heard = heard == news::gone ? heard : news::resized;
                    renamed = true;
                }
                break;
            }
            case XCB_MAP_NOTIFY:
                renamed = true;
                break;
            case XCB_DESTROY_NOTIFY:
                if (reinterpret_cast<xcb_destroy_notify_event_t*>(event)->window == window)
                    heard = news::gone;
                break;
            default:
                if (damage_extension && (event->response_type & 0x7f) ==
                                            damage_extension->first_event + XCB_DAMAGE_NOTIFY)
                    damaged = true;
                break;
            }
            std::free(event);
        }
        if (xcb_connection_has_error(xcb))
            return news::gone;
        if (renamed && heard != news::gone) {
            name_picture();
            all_changed();
        }
        return heard;
    }

    /// Grabs the rows of the window's picture that changed into pixels (at their place
    /// in it); false (the last picture stays) when nothing changed or it cannot. The rows
    /// stay to grab after a failure. Failures are told once when they begin and once
    /// when they end.
    bool grab()
    {
        take_damage();
        changed.top = std::max(0, changed.top);
        changed.bottom = std::min(height, changed.bottom);
        if (changed.empty())
            return false;
        xcb_generic_error_t* error = nullptr;
        bool grabbed = false;
        if (pixmap && pixels) {
            xcb_reply<xcb_shm_get_image_reply_t> image{xcb_shm_get_image_reply(
                xcb,
                xcb_shm_get_image(xcb, pixmap, static_cast<std::int16_t>(border),
                                  static_cast<std::int16_t>(border + changed.top), static_cast<std::uint16_t>(width),
                                  static_cast<std::uint16_t>(changed.bottom - changed.top), ~0u,
                                  XCB_IMAGE_FORMAT_Z_PIXMAP, segment,
                                  static_cast<std::uint32_t>(changed.top) * static_cast<std::uint32_t>(width) * 4),
                &error)};
            grabbed = static_cast<bool>(image);
        }
        if (!grabbed) {
            if (failed++ == 0 && pixmap)
                log::line("media: cannot grab the window (X error " + std::to_string(error ? error->error_code : 0) +
                          "); the last picture is sent until it can");
            std::free(error);
            return false;
        }
        if (failed > 0)
            log::line("media: the window is grabbed again after " + std::to_string(failed) + " failed grabs");
        failed = 0;
        return true;
    }

    /// Marks the rows grabbed as taken; the next frame grabs only what changes after.
    void taken()
    {
        changed.clear();
    }
};

window_feed::window_feed(const window_entry& window, std::pair<int, int> frame, ended_handler on_ended)
    : on_ended_(std::move(on_ended)),
      grabber_(std::make_unique<grabber>(static_cast<xcb_window_t>(window.pid))),
      picture_(frame)
{
    if (!picture_.fit(grabber_->width, grabber_->height, fitted_picture::pixels::bgrx))
        throw std::runtime_error("cannot make the scaler for the window");
    paced_ = std::make_unique<paced_video>("window feed", picture_, [this] { refresh(); });
}

window_feed::~window_feed()
{
    paced_.reset();
}

video_t* window_feed::video() const
{
    return paced_->video();
}

void window_feed::refresh()
{
    if (gone_)
        return;
    auto heard = grabber_->follow();
    if (heard == grabber::news::gone) {
        gone_ = true;
        if (on_ended_)
            on_ended_("the window was closed");
        return;
    }
    if (heard == grabber::news::resized) {
        if (!picture_.fit(grabber_->width, grabber_->height, fitted_picture::pixels::bgrx))
            return;
        const placement& place = picture_.place();
        log::line("media: the window is now " + std::to_string(grabber_->width) + "x" +
                  std::to_string(grabber_->height) + ", shown at " + std::to_string(place.width) + "x" +
                  std::to_string(place.height) + " in the stream's " + std::to_string(picture_.frame().first) + "x" +
                  std::to_string(picture_.frame().second) + " frame");
    }
    // Drawn only with a scaler made for the window's size now.
    if (picture_.fitted(grabber_->width, grabber_->height, fitted_picture::pixels::bgrx) && grabber_->grab()) {
        picture_.draw_rows(grabber_->pixels, static_cast<std::uint32_t>(grabber_->width) * 4, grabber_->changed.top,
                           grabber_->changed.bottom);
        grabber_->taken();
    }
}

} // namespace orbweave::obs
