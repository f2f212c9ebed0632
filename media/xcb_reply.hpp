#pragma once

// Small helpers for XCB, whose replies are malloc'ed and whose errors come back with them.

#include <xcb/xcb.h>

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

} // namespace orbweave::obs
