#include "core/obs/capture_route.hpp"

#include <cstdlib>
#include <cstring>

namespace orbweave::obs {

std::optional<capture_route> parse_capture_route(const std::string& text)
{
    if (text == "auto")
        return capture_route::automatic;
    if (text == "x11")
        return capture_route::x11;
    if (text == "portal")
        return capture_route::portal;
    return std::nullopt;
}

const char* capture_route_name(capture_route route)
{
    switch (route) {
    case capture_route::automatic: return "auto";
    case capture_route::x11: return "x11";
    case capture_route::portal: return "portal";
    }
    return "auto";
}

capture_route resolve_capture_route(capture_route requested)
{
    if (requested != capture_route::automatic)
        return requested;
    const char* display = std::getenv("WAYLAND_DISPLAY");
    const char* session = std::getenv("XDG_SESSION_TYPE");
    bool wayland = (display && *display) || (session && !std::strcmp(session, "wayland"));
    return wayland ? capture_route::portal : capture_route::x11;
}

std::string describe_capture_route(capture_route resolved)
{
    return resolved == capture_route::portal
               ? "Screens are captured through the desktop portal and PipeWire (Wayland)"
               : "Screens are captured through X11";
}

} // namespace orbweave::obs
