#pragma once

// Small helpers for XCB, whose replies are malloc'ed and whose errors come back with them.

#include <xcb/damage.h>
#include <xcb/xcb.h>
#include <xcb/xfixes.h>

#include <cstdint>
#include <cstdlib>

namespace orbweave::obs {

/// An XCB reply (or nothing), freed when it goes.
template <class T>
struct xcb_reply {
    T* reply;
    ~xcb_reply() { std::free(reply); }
    xcb_reply(const xcb_reply&) = delete;
    xcb_reply& operator=(const xcb_reply&) = delete;
    T* operator->() const { return reply; }
    explicit operator bool() const { return reply != nullptr; }
};

/// X screen number of the connection's display; nullptr when there is none.
inline xcb_screen_t* root_screen(xcb_connection_t* xcb, int number)
{
    xcb_screen_iterator_t roots = xcb_setup_roots_iterator(xcb_get_setup(xcb));
    for (int i = 0; roots.rem; ++i, xcb_screen_next(&roots))
        if (i == number)
            return roots.data;
    return nullptr;
}

/// Whether pixels of depth take 32 bits in images of the display (BGRX in memory).
inline bool has_32_bit_pixels(xcb_connection_t* xcb, std::uint8_t depth)
{
    xcb_format_iterator_t formats = xcb_setup_pixmap_formats_iterator(xcb_get_setup(xcb));
    for (; formats.rem; xcb_format_next(&formats))
        if (formats.data->depth == depth)
            return formats.data->bits_per_pixel == 32;
    return false;
}

/// What the X server says changed on a drawable (a damage object), read through a region.
/// Both extensions must have been told their versions on the connection first.
struct xcb_damage {
    xcb_damage_damage_t damage = 0;
    xcb_xfixes_region_t region = 0;

    explicit operator bool() const { return damage != 0; }

    /// Starts watching drawable: one event when its damage becomes non-empty. False, with
    /// nothing kept, when the server refuses.
    bool watch(xcb_connection_t* xcb, xcb_drawable_t drawable)
    {
        damage = xcb_generate_id(xcb);
        region = xcb_generate_id(xcb);
        auto made = xcb_damage_create_checked(xcb, damage, drawable, XCB_DAMAGE_REPORT_LEVEL_NON_EMPTY);
        auto region_made = xcb_xfixes_create_region_checked(xcb, region, 0, nullptr);
        xcb_generic_error_t* damage_error = xcb_request_check(xcb, made);
        xcb_generic_error_t* region_error = xcb_request_check(xcb, region_made);
        bool watching = !damage_error && !region_error;
        if (damage_error)
            damage = 0;
        if (region_error)
            region = 0;
        std::free(damage_error);
        std::free(region_error);
        if (!watching)
            forget(xcb);
        return watching;
    }

    void forget(xcb_connection_t* xcb)
    {
        if (damage)
            xcb_damage_destroy(xcb, damage);
        if (region)
            xcb_xfixes_destroy_region(xcb, region);
        damage = 0;
        region = 0;
    }

    /// Takes what changed since the last call and hands each rectangle to visit; false when
    /// the server did not say (then everything should count as changed). Taken before a
    /// grab, what is drawn after it is told again next time.
    template <class Visit>
    bool take(xcb_connection_t* xcb, Visit visit)
    {
        xcb_damage_subtract(xcb, damage, XCB_NONE, region);
        xcb_reply<xcb_xfixes_fetch_region_reply_t> parts{
            xcb_xfixes_fetch_region_reply(xcb, xcb_xfixes_fetch_region(xcb, region), nullptr)};
        if (!parts)
            return false;
        const xcb_rectangle_t* rectangles = xcb_xfixes_fetch_region_rectangles(parts.reply);
        int count = xcb_xfixes_fetch_region_rectangles_length(parts.reply);
        for (int i = 0; i < count; ++i)
            visit(rectangles[i]);
        return true;
    }
};

} // namespace orbweave::obs
