#include "media/catalogue.hpp"

#include "core/system_info.hpp"
#include "media/portal_session.hpp"
#include "media/unique_handle.hpp"
#include "media/wayland_outputs.hpp"

#include <algorithm>
#include <cstdio>

namespace orbweave::obs {

void enumerate_props(const std::string& source_id, const std::string& property_name,
                     const std::function<void(prop_info&, std::size_t)>& visitor)
{
    source_handle source(obs_source_create(source_id.c_str(), "source_name", nullptr, nullptr));
    if (!source)
        return;
    properties_handle properties(obs_source_properties(source.get()));
    if (!properties)
        return;
    obs_property_t* property = obs_properties_get(properties.get(), property_name.c_str());
    if (!property)
        return;
    std::size_t count = obs_property_list_item_count(property);
    data_handle settings(obs_source_get_settings(source.get()));
    prop_info info{source.get(), properties.get(), settings.get(), property};
    for (std::size_t i = 0; i < count; ++i)
        visitor(info, i);
}

namespace detail {

bool size_from_screen_label(const std::string& label, unsigned long& width, unsigned long& height)
{
    auto open = label.find('(');
    if (open == std::string::npos)
        return false;
    return std::sscanf(label.c_str() + open, "(%lux%lu", &width, &height) == 2;
}

bool origin_from_screen_label(const std::string& label, long& x, long& y)
{
    auto at = label.rfind(" @ ");
    return at != std::string::npos && std::sscanf(label.c_str() + at, " @ %ld,%ld", &x, &y) == 2;
}

bool split_window_item(const std::string& value, long long& xid, std::string& title, std::string& window_class)
{
    auto first = value.find("\r\n");
    if (first == std::string::npos)
        return false;
    auto second = value.find("\r\n", first + 2);
    if (second == std::string::npos)
        return false;
    try {
        xid = std::stoll(value.substr(0, first));
    } catch (const std::exception&) {
        return false;
    }
    title = value.substr(first + 2, second - first - 2);
    window_class = value.substr(second + 2);
    return true;
}

} // namespace detail

std::optional<std::pair<long, long>> x11_screen_origin(int index)
{
    std::optional<std::pair<long, long>> origin;
    enumerate_props(capture_id::screen, "screen", [&](prop_info& info, std::size_t i) {
        const char* label = obs_property_list_item_name(info.property, i);
        long x = 0, y = 0;
        if (static_cast<int>(i) == index && label && detail::origin_from_screen_label(label, x, y))
            origin = std::make_pair(x, y);
    });
    return origin;
}

std::optional<std::pair<int, int>> x11_screen_size(int index)
{
    std::optional<std::pair<int, int>> size;
    enumerate_props(capture_id::screen, "screen", [&](prop_info& info, std::size_t i) {
        const char* label = obs_property_list_item_name(info.property, i);
        unsigned long width = 0, height = 0;
        if (static_cast<int>(i) == index && label && detail::size_from_screen_label(label, width, height))
            size = std::make_pair(static_cast<int>(width), static_cast<int>(height));
    });
    return size;
}

std::vector<screen_entry> list_screens()
{
    std::vector<screen_entry> screens;
    enumerate_props(capture_id::screen, "screen", [&](prop_info& info, std::size_t i) {
        obs_data_set_int(info.settings, "screen", static_cast<long long>(i));
        obs_properties_apply_settings(info.properties, info.settings);
        unsigned long width = obs_source_get_width(info.source);
        unsigned long height = obs_source_get_height(info.source);
        // The temporary source is never updated, so it cannot report another screen's
        // size; xshm names each item with its geometry, which is exact.
        const char* label = obs_property_list_item_name(info.property, i);
        unsigned long label_width = 0, label_height = 0;
        if (label && detail::size_from_screen_label(label, label_width, label_height)) {
            width = label_width;
            height = label_height;
        }
        int index = static_cast<int>(i);
        screens.emplace_back(index, "Display " + std::to_string(index + 1),
                             std::to_string(width) + "x" + std::to_string(height), 0, 0, width, height);
    });
    return screens;
}

std::vector<screen_entry> list_portal_screens()
{
    std::vector<screen_entry> screens;
    for (const wayland_output& output : list_wayland_outputs()) {
        int index = static_cast<int>(screens.size());
        std::string name = output.name.empty() ? "Display " + std::to_string(index + 1) : output.name;
        std::string description = output.description.empty()
                                      ? std::to_string(output.width) + "x" + std::to_string(output.height)
                                      : output.description;
        screen_entry screen(index, name, description, static_cast<unsigned long>(std::max(output.top, 0)),
                            static_cast<unsigned long>(std::max(output.left, 0)),
                            static_cast<unsigned long>(std::max(output.width, 0)),
                            static_cast<unsigned long>(std::max(output.height, 0)));
        screen.id = create_unique_hash("Screen" + name);
        screens.push_back(std::move(screen));
    }
    return screens;
}

std::vector<window_entry> list_portal_windows()
{
    if (!(portal_source_types() & portal_windows))
        return {};
    // Wayland lets no client see other clients' windows: the entry stands for the one
    // the user picks in the desktop's window picker when it is activated.
    return {window_entry("A window you pick", "Asks you on the desktop which window to share", 0)};
}

std::vector<window_entry> list_windows()
{
    // The source type's own properties, not a source's: a window capture source made
    // for listing would start capturing the first window, which needs graphics that the
    // listing worker does not have.
    std::vector<window_entry> windows;
    properties_handle properties(obs_get_source_properties(capture_id::window));
    obs_property_t* list = properties ? obs_properties_get(properties.get(), "capture_window") : nullptr;
    std::size_t count = list ? obs_property_list_item_count(list) : 0;
    for (std::size_t i = 0; i < count; ++i) {
        const char* value = obs_property_list_item_string(list, i);
        long long xid = 0;
        std::string title, window_class;
        if (!value || !detail::split_window_item(value, xid, title, window_class))
            continue;
        if (window_class.empty() && title.empty() && xid == 0)
            continue;
        windows.emplace_back(window_class, title, static_cast<int>(xid));
    }
    return windows;
}

std::vector<audio_entry> list_audios()
{
    std::vector<audio_entry> audios;
    auto visitor = [&](bool input) {
        return [&audios, input](prop_info& info, std::size_t i) {
            const char* device = obs_property_list_item_string(info.property, i);
            const char* label = obs_property_list_item_name(info.property, i);
            obs_data_set_string(info.settings, "device_id", device ? device : "");
            obs_properties_apply_settings(info.properties, info.settings);
            std::string name = label ? label : "";
            audios.emplace_back(name, name, device ? device : "", input);
        };
    };
    enumerate_props(capture_id::audio_output, "device_id", visitor(false));
    enumerate_props(capture_id::audio_input, "device_id", visitor(true));
    return audios;
}

std::vector<video_entry> list_videos()
{
    std::vector<video_entry> videos;
    enumerate_props(capture_id::camera, "device_id", [&](prop_info& info, std::size_t i) {
        const char* device = obs_property_list_item_string(info.property, i);
        const char* label = obs_property_list_item_name(info.property, i);
        obs_data_set_string(info.settings, "device_id", device ? device : "");
        obs_properties_apply_settings(info.properties, info.settings);
        if (!device || !*device)
            return;
        std::string name = label ? label : "";
        videos.emplace_back(name, name, device, name);
    });
    return videos;
}

} // namespace orbweave::obs
