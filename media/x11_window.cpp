#include "media/x11_window.hpp"

#include <xcb/xcb.h>

#include <cstdlib>

namespace orbweave::obs {

std::pair<int, int> x11_window_size(long long xid)
{
    xcb_connection_t* connection = xcb_connect(nullptr, nullptr);
    std::pair<int, int> size{0, 0};
    if (xcb_connection_has_error(connection) == 0 && xid > 0) {
        xcb_get_geometry_reply_t* geometry = xcb_get_geometry_reply(
            connection, xcb_get_geometry(connection, static_cast<xcb_drawable_t>(xid)), nullptr);
        if (geometry)
            size = {geometry->width, geometry->height};
        std::free(geometry);
    }
    xcb_disconnect(connection);
    return size;
}

} // namespace orbweave::obs
