#pragma once

// How screens are captured. On an X11 session libobs's X sources read the screen
// directly. On a Wayland session they would see only XWayland's empty root, so screens
// go through the desktop portal (the desktop's own consent and picker) and PipeWire.

#include <optional>
#include <string>

namespace orbweave::obs {

enum class capture_route { automatic, x11, portal };

/// "auto", "x11" or "portal"; none for anything else.
std::optional<capture_route> parse_capture_route(const std::string& text);
const char* capture_route_name(capture_route route);

/// The route this session calls for: portal when the session is Wayland
/// (WAYLAND_DISPLAY set, or XDG_SESSION_TYPE=wayland), even when DISPLAY also names
/// XWayland; X11 otherwise. A forced route is kept as it is.
capture_route resolve_capture_route(capture_route requested);

/// The line the front ends log once at start.
std::string describe_capture_route(capture_route resolved);

} // namespace orbweave::obs
