#pragma once

// The compositor's outputs, read over the Wayland protocol (wl_output and the
// xdg-output extension): what the portal route lists as screens.

#include <string>
#include <vector>

namespace orbweave::obs {

struct wayland_output {
    std::string name;        ///< the connector, "DP-1", "HEADLESS-1"
    std::string description; ///< what the compositor calls it, "Dell U2720Q (DP-1)"
    int left = 0;            ///< logical position and size, as the desktop lays outputs out
    int top = 0;
    int width = 0;
    int height = 0;
};

/// The outputs in the compositor's order; throws std::runtime_error when there is no
/// compositor or it lacks xdg-output.
std::vector<wayland_output> list_wayland_outputs();

} // namespace orbweave::obs
