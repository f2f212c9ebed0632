#pragma once

// The catalogue's records of local capture sources, as the service sees them.
// The media worker process builds them with libobs; the parent reads them back
// from the worker's replies, so each converts to and from its JSON form.

#include "core/callback.hpp"
#include "core/json.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
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

/// One catalogue entry of any kind; the alternative tells the kind.
using source_entry = std::variant<screen_entry, window_entry, audio_entry, video_entry>;

/// The kind of source the entry is.
callback::source_type::type entry_kind(const source_entry& entry);
const std::string& entry_id(const source_entry& entry);
/// The entry's name and description, as a permission prompt shows them.
const std::string& entry_name(const source_entry& entry);
const std::string& entry_description(const source_entry& entry);

/// The entry in its JSON form (its "type" names the kind).
Json to_json(const source_entry& entry);
/// An entry read back from its JSON form; none when "type" names no kind.
std::optional<source_entry> source_entry_from_json(const Json& value);

/// The entries of type Entry among entries, in order: a listing of one kind typed.
template <class Entry>
std::vector<Entry> entries_of(const std::vector<source_entry>& entries)
{
    std::vector<Entry> typed;
    for (const source_entry& entry : entries)
        if (const Entry* one = std::get_if<Entry>(&entry))
            typed.push_back(*one);
    return typed;
}

/// The first entry whose id is id.
template <class Entry>
std::optional<source_entry> find_entry(const std::vector<Entry>& entries, const std::string& id)
{
    for (const auto& entry : entries)
        if (entry.id == id)
            return source_entry(entry);
    return std::nullopt;
}

} // namespace orbweave::obs
