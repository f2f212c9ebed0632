#include "media/x11_screens.hpp"

#include "core/log.hpp"
#include "media/c_boundary.hpp"
#include "media/catalogue.hpp"
#include "media/xcb_reply.hpp"

#include <xcb/randr.h>
#include <xcb/xcb.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <vector>

namespace orbweave::obs {

namespace {

bool has_extension(xcb_connection_t* xcb, const char* name)
{
    xcb_reply<xcb_query_extension_reply_t> reply{xcb_query_extension_reply(
        xcb, xcb_query_extension(xcb, static_cast<std::uint16_t>(std::strlen(name)), name), nullptr)};
    return reply && reply->present;
}

} // namespace

std::string describe(const x11_screen& screen)
{
    return std::to_string(screen.width) + "x" + std::to_string(screen.height) + " at " + std::to_string(screen.x) +
           "," + std::to_string(screen.y);
}

/// The watch's X connection and what it learnt of the server once.
struct x11_screen_watch::connection {
    xcb_connection_t* xcb = nullptr;
    bool randr = false;
    // RandR 1.5 lists monitors, which the screen capture counts; before, CRTCs.
    bool monitors = false;
    bool xinerama = false;
    std::uint8_t randr_event_base = 0;

    connection()
    {
        xcb = xcb_connect(nullptr, nullptr);
        if (xcb_connection_has_error(xcb)) {
            xcb_disconnect(xcb);
            throw std::runtime_error("cannot open the X display (is DISPLAY set?)");
        }
        const xcb_query_extension_reply_t* extension = xcb_get_extension_data(xcb, &xcb_randr_id);
        randr = extension && extension->present;
        if (randr) {
            randr_event_base = extension->first_event;
            xcb_reply<xcb_randr_query_version_reply_t> version{xcb_randr_query_version_reply(
                xcb, xcb_randr_query_version(xcb, XCB_RANDR_MAJOR_VERSION, XCB_RANDR_MINOR_VERSION), nullptr)};
            monitors = version && (version->major_version > 1 || version->minor_version >= 5);
        } else {
            xinerama = has_extension(xcb, "XINERAMA");
        }
    }
    ~connection() { xcb_disconnect(xcb); }
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;

    std::vector<x11_screen> list() const
    {
        std::vector<x11_screen> screens;
        xcb_screen_t* first = root_screen(xcb, 0);
        if (!first)
            return screens;
        if (monitors) {
            xcb_reply<xcb_randr_get_monitors_reply_t> reply{
                xcb_randr_get_monitors_reply(xcb, xcb_randr_get_monitors(xcb, first->root, 1), nullptr)};
            if (!reply)
                return screens;
            auto each = xcb_randr_get_monitors_monitors_iterator(reply.reply);
            for (int i = 0; each.rem; ++i, xcb_randr_monitor_info_next(&each))
                screens.push_back({i, 0, each.data->x, each.data->y, each.data->width, each.data->height,
                                   each.data->name});
        } else if (randr) {
            xcb_reply<xcb_randr_get_screen_resources_current_reply_t> resources{
                xcb_randr_get_screen_resources_current_reply(
                    xcb, xcb_randr_get_screen_resources_current(xcb, first->root), nullptr)};
            if (!resources)
                return screens;
            int count = xcb_randr_get_screen_resources_current_crtcs_length(resources.reply);
            xcb_randr_crtc_t* crtcs = xcb_randr_get_screen_resources_current_crtcs(resources.reply);
            for (int i = 0; i < count; ++i) {
                xcb_reply<xcb_randr_get_crtc_info_reply_t> crtc{xcb_randr_get_crtc_info_reply(
                    xcb, xcb_randr_get_crtc_info(xcb, crtcs[i], resources->config_timestamp), nullptr)};
                if (crtc)
                    screens.push_back({i, 0, crtc->x, crtc->y, crtc->width, crtc->height, crtcs[i]});
                else
                    screens.push_back({i, 0, 0, 0, 0, 0, crtcs[i]});
            }
        } else {
            xcb_screen_iterator_t roots = xcb_setup_roots_iterator(xcb_get_setup(xcb));
            for (int i = 0; roots.rem; ++i, xcb_screen_next(&roots))
                screens.push_back({i, i, 0, 0, roots.data->width_in_pixels, roots.data->height_in_pixels, 0});
        }
        return screens;
    }

    /// Screen index as the capture lists it now.
    std::optional<x11_screen> find(int index) const
    {
        if (!randr && xinerama) {
            // Areas of the first root that never change without RandR; where the capture
            // itself puts them.
            auto origin = x11_screen_origin(index);
            auto size = x11_screen_size(index);
            if (!origin || !size)
                return std::nullopt;
            return x11_screen{index,
                              0,
                              static_cast<int>(origin->first),
                              static_cast<int>(origin->second),
                              size->first,
                              size->second,
                              0};
        }
        std::vector<x11_screen> screens = list();
        if (index < 0 || index >= static_cast<int>(screens.size()) || screens[index].width == 0 ||
            screens[index].height == 0)
            return std::nullopt;
        return screens[index];
    }

    /// The screen that has identity now, wherever it is listed; none once it is gone
    /// (its monitor removed, its CRTC turned off).
    std::optional<x11_screen> follow(std::uint32_t identity) const
    {
        for (const x11_screen& screen : list())
            if (screen.identity == identity && screen.width > 0 && screen.height > 0)
                return screen;
        return std::nullopt;
    }
};

x11_screen_watch::x11_screen_watch(int index, moved_handler on_moved, gone_handler on_gone)
    : connection_(std::make_unique<connection>()), on_moved_(std::move(on_moved)), gone_(std::move(on_gone))
{
    std::optional<x11_screen> found = connection_->find(index);
    if (!found)
        throw std::runtime_error("screen " + std::to_string(index) + " is not on the X display");
    initial_ = last_ = *found;
    // A screen without RandR never changes: nothing to follow.
    if (!connection_->randr || initial_.identity == 0)
        return;
    xcb_screen_t* first = root_screen(connection_->xcb, 0);
    xcb_randr_select_input(connection_->xcb, first->root,
                           XCB_RANDR_NOTIFY_MASK_SCREEN_CHANGE | XCB_RANDR_NOTIFY_MASK_CRTC_CHANGE |
                               XCB_RANDR_NOTIFY_MASK_OUTPUT_CHANGE);
    xcb_flush(connection_->xcb);
    // A change between the look-up and the selection would go unseen: look again.
    if (auto again = connection_->follow(initial_.identity))
        initial_ = last_ = *again;
    stop_fd_ = ::eventfd(0, EFD_CLOEXEC);
    if (stop_fd_ < 0)
        throw std::runtime_error("cannot make the screen watch's stop event");
    thread_ = std::thread([this] { run(); });
}

x11_screen_watch::~x11_screen_watch()
{
    if (thread_.joinable()) {
        std::uint64_t one = 1;
        [[maybe_unused]] auto written = ::write(stop_fd_, &one, sizeof one);
        thread_.join();
    }
    if (stop_fd_ >= 0)
        ::close(stop_fd_);
}

void x11_screen_watch::run()
{
    xcb_connection_t* xcb = connection_->xcb;
    for (;;) {
        // RandR tells of no monitor added or removed (xrandr --setmonitor, --delmonitor):
        // where monitors are the screens, they are looked at again every so often.
        int timeout = connection_->monitors ? static_cast<int>(monitor_recheck.count()) : -1;
        if (missing_since_) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(*missing_since_ + gone_grace -
                                                                              clock::now());
            timeout = static_cast<int>(std::max<long long>(0, left.count()));
        }
        pollfd waits[2] = {{xcb_get_file_descriptor(xcb), POLLIN, 0}, {stop_fd_, POLLIN, 0}};
        int ready = ::poll(waits, 2, timeout);
        if (ready < 0)
            continue;
        if (waits[1].revents)
            return;
        bool changed = ready == 0; // time to look again
        while (xcb_generic_event_t* event = xcb_poll_for_event(xcb)) {
            std::uint8_t type = event->response_type & 0x7f;
            changed |= type == connection_->randr_event_base + XCB_RANDR_SCREEN_CHANGE_NOTIFY ||
                       type == connection_->randr_event_base + XCB_RANDR_NOTIFY;
            std::free(event);
        }
        if (xcb_connection_has_error(xcb)) {
            log::line("media: the X connection that follows the screen broke; its changes are no longer followed");
            return;
        }
        if (changed && !check())
            return;
    }
}

bool x11_screen_watch::check()
{
    std::optional<x11_screen> now = connection_->follow(initial_.identity);
    if (!now) {
        // A mode set turns the screen's CRTC off and on again: only a screen still
        // missing after the grace is gone.
        if (!missing_since_) {
            missing_since_ = clock::now();
            return true;
        }
        if (clock::now() - *missing_since_ < gone_grace)
            return true;
        std::string reason = "screen " + std::to_string(initial_.index + 1) + " is gone from the X display";
        guarded("the screen watch's gone handler", [&] { gone_.end(reason); });
        return false;
    }
    missing_since_.reset();
    if (now->same_place(last_))
        return true;
    log::line("media: screen " + std::to_string(initial_.index + 1) + " is now " + describe(*now) + " (was " +
              describe(last_) + ")");
    last_ = *now;
    guarded("the screen watch's moved handler", [&] { on_moved_(last_); });
    return true;
}

} // namespace orbweave::obs
