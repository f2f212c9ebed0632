#pragma once

// The catalogue of local capture sources. Each kind is discovered by creating a
// temporary libobs capture source, walking the list property its plug-in offers
// for choosing a device, and reading back what the plug-in reports per item.

#include "core/json.hpp"
#include "core/obs/entries.hpp"

#include <obs.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace orbweave::obs {

/// The capture source ids of this platform.
namespace capture_id {
inline constexpr const char* screen = "xshm_input";
inline constexpr const char* window = "xcomposite_input";
inline constexpr const char* audio_output = "pulse_output_capture";
inline constexpr const char* audio_input = "pulse_input_capture";
inline constexpr const char* camera = "v4l2_input";
} // namespace capture_id

/// What the property walk hands each visitor; all owned by the walk.
struct prop_info {
    obs_source_t* source;
    obs_properties_t* properties;
    obs_data_t* settings;
    obs_property_t* property;
};

/// Creates a temporary source_id source and calls visitor for each item of its list
/// property property_name, in order. Nothing is visited when the source type or the
/// property does not exist.
void enumerate_props(const std::string& source_id, const std::string& property_name,
                     const std::function<void(prop_info&, std::size_t)>& visitor);

std::vector<screen_entry> list_screens();
/// The compositor's outputs, as screens of the portal route: named after the output,
/// with its logical position and size, and an id from its name (stable across runs
/// and across changes of the layout).
std::vector<screen_entry> list_portal_screens();
std::vector<window_entry> list_windows();
/// The portal route's windows: one entry standing for "a window the user picks" (pid 0,
/// an id that never changes) when the desktop's portal casts windows, none otherwise.
std::vector<window_entry> list_portal_windows();
/// Outputs (what the machine plays) first, then inputs.
std::vector<audio_entry> list_audios();
std::vector<video_entry> list_videos();

/// Where on the X display libobs's screen capture finds screen index: the "@ X,Y" of its
/// item (with RandR or Xinerama the screens are areas of one root window). None when the
/// capture lists no such screen.
std::optional<std::pair<long, long>> x11_screen_origin(int index);
/// The width and height of that item; none when the capture lists no such screen.
std::optional<std::pair<int, int>> x11_screen_size(int index);

namespace detail {
/// Width and height from an xshm screen item name such as "Screen 1 (1024x768 @ 1280,0)".
bool size_from_screen_label(const std::string& label, unsigned long& width, unsigned long& height);
/// The "@ X,Y" of such a name.
bool origin_from_screen_label(const std::string& label, long& x, long& y);
/// An xcomposite item value "XID\r\ntitle\r\nclass" split into its parts; false when malformed.
bool split_window_item(const std::string& value, long long& xid, std::string& title, std::string& window_class);
} // namespace detail

} // namespace orbweave::obs
