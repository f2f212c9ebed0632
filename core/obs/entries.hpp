#pragma once

// The catalogue's records of local capture sources, as the service sees them.
// The media worker process builds them with libobs; the parent reads them back
// from the worker's replies, so each converts to and from its JSON form.

#include "core/json.hpp"

#include <cstdint>
#include <string>
#include <vector>

namespace orbweave::obs {

/// A display. Its id is the hash of "Screen" + index.
struct screen_entry {
    screen_entry() = default;
    screen_entry(int index, const std::string& name, const std::string& description, unsigned long top,
                 unsigned long left, unsigned long width, unsigned long height);

    std::int32_t index = 0;
    std::string name;
    std::string description;
    std::uint64_t top = 0;
    std::uint64_t left = 0;
    std::uint64_t width = 0;
    std::uint64_t height = 0;
    bool is_active = false;
    std::string id;

    Json to_json() const;
    static screen_entry from_json(const Json& value);
};

/// A top-level window. "pid" carries the X window id; the id is the hash of "Window" + pid.
struct window_entry {
    window_entry() = default;
    window_entry(const std::string& name, const std::string& description, int pid);

    std::string name;        ///< the window's class (its application)
    std::string description; ///< the window's title
    std::int32_t pid = 0;
    bool is_active = false;
    std::string id;

    Json to_json() const;
    static window_entry from_json(const Json& value);
};

/// An audio device. The id is the hash of "Audio" + "Input"/"Output" + name.
struct audio_entry {
    audio_entry() = default;
    audio_entry(const std::string& name, const std::string& description, const std::string& device_id, bool input);

    std::string name;
    std::string description;
    std::string device_id;
    bool input = false;
    bool is_active = false;
    std::string id;

    Json to_json() const;
    static audio_entry from_json(const Json& value);
};

/// A camera. The id is the hash of "Video" + device.
struct video_entry {
    video_entry() = default;
    video_entry(const std::string& name, const std::string& description, const std::string& device,
                const std::string& device_name);

    std::string name;
    std::string description;
    std::string device;
    std::string device_name;
    bool is_active = false;
    std::string id;

    Json to_json() const;
    static video_entry from_json(const Json& value);
};

/// The entries as a JSON array, in order.
template <class Entry>
Json to_json(const std::vector<Entry>& entries)
{
    Json array = Json::array();
    for (const auto& entry : entries)
        array.push_back(entry.to_json());
    return array;
}

/// Entries read back from a JSON array; anything but an array gives none.
template <class Entry>
std::vector<Entry> entries_from_json(const Json& array)
{
    std::vector<Entry> entries;
    if (!array.is_array())
        return entries;
    entries.reserve(array.size());
    for (const auto& value : array)
        entries.push_back(Entry::from_json(value));
    return entries;
}

/// The JSON form of the first entry whose id is id; an empty object when none is.
template <class Entry>
Json get_source_info(const std::vector<Entry>& entries, const std::string& id)
{
    for (const auto& entry : entries) {
        Json rendered = entry.to_json();
        if (rendered["id"] == id)
            return rendered;
    }
    return Json::object();
}

} // namespace orbweave::obs
