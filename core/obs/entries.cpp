#include "core/obs/entries.hpp"

#include "core/system_info.hpp"

#include <iterator>

namespace orbweave::obs {

namespace {

Json value_object(std::uint64_t value)
{
    // The service reads these as 32-bit signed integers.
    return Json{{"value", static_cast<std::int32_t>(value)}};
}

std::uint64_t property_value(const Json& entry, std::string_view property)
{
    return static_cast<std::uint64_t>(static_cast<std::uint32_t>(json::int_at(entry, {"properties", property, "value"})));
}

} // namespace

screen_entry::screen_entry(int index, const std::string& name, const std::string& description, unsigned long top,
                           unsigned long left, unsigned long width, unsigned long height)
    : index(index), name(name), description(description), top(top), left(left), width(width), height(height),
      id(create_unique_hash("Screen" + std::to_string(index)))
{
}

Json screen_entry::to_json() const
{
    return Json{
        {"type", "Screen"},
        {"id", id},
        {"index", index},
        {"name", name},
        {"description", description},
        {"isActive", is_active},
        {"properties",
         {{"Top", value_object(top)},
          {"Left", value_object(left)},
          {"Width", value_object(width)},
          {"Height", value_object(height)}}},
    };
}

screen_entry screen_entry::from_json(const Json& value)
{
    screen_entry entry;
    entry.index = json::int_at(value, {"index"});
    entry.name = json::string_at(value, {"name"});
    entry.description = json::string_at(value, {"description"});
    entry.top = property_value(value, "Top");
    entry.left = property_value(value, "Left");
    entry.width = property_value(value, "Width");
    entry.height = property_value(value, "Height");
    entry.is_active = json::bool_at(value, {"isActive"});
    entry.id = json::string_at(value, {"id"});
    return entry;
}

window_entry::window_entry(const std::string& name, const std::string& description, int pid)
    : name(name), description(description), pid(pid), id(create_unique_hash("Window" + std::to_string(pid)))
{
}

Json window_entry::to_json() const
{
    return Json{
        {"type", "Window"}, {"id", id}, {"name", name}, {"description", description}, {"pid", pid},
        {"isActive", is_active},
    };
}

window_entry window_entry::from_json(const Json& value)
{
    window_entry entry;
    entry.name = json::string_at(value, {"name"});
    entry.description = json::string_at(value, {"description"});
    entry.pid = json::int_at(value, {"pid"});
    entry.is_active = json::bool_at(value, {"isActive"});
    entry.id = json::string_at(value, {"id"});
    return entry;
}

audio_entry::audio_entry(const std::string& name, const std::string& description, const std::string& device_id,
                         bool input)
    : name(name), description(description), device_id(device_id), input(input),
      id(create_unique_hash(std::string("Audio") + (input ? "Input" : "Output") + name))
{
}

Json audio_entry::to_json() const
{
    return Json{
        {"type", "Audio"}, {"id", id}, {"name", name}, {"description", description}, {"device_id", device_id},
        {"input", input},  {"isActive", is_active},
    };
}

audio_entry audio_entry::from_json(const Json& value)
{
    audio_entry entry;
    entry.name = json::string_at(value, {"name"});
    entry.description = json::string_at(value, {"description"});
    entry.device_id = json::string_at(value, {"device_id"});
    entry.input = json::bool_at(value, {"input"});
    entry.is_active = json::bool_at(value, {"isActive"});
    entry.id = json::string_at(value, {"id"});
    return entry;
}

video_entry::video_entry(const std::string& name, const std::string& description, const std::string& device,
                         const std::string& device_name)
    : name(name), description(description), device(device), device_name(device_name),
      id(create_unique_hash("Video" + device))
{
}

Json video_entry::to_json() const
{
    return Json{
        {"type", "Video"},        {"id", id},         {"name", name}, {"description", description},
        {"device", device}, {"device_name", device_name}, {"isActive", is_active},
    };
}

video_entry video_entry::from_json(const Json& value)
{
    video_entry entry;
    entry.name = json::string_at(value, {"name"});
    entry.description = json::string_at(value, {"description"});
    entry.device = json::string_at(value, {"device"});
    entry.device_name = json::string_at(value, {"device_name"});
    entry.is_active = json::bool_at(value, {"isActive"});
    entry.id = json::string_at(value, {"id"});
    return entry;
}

callback::source_type::type entry_kind(const source_entry& entry)
{
    using callback::source_type;
    static constexpr source_type::type kinds[] = {source_type::screen, source_type::window, source_type::audio,
                                                  source_type::video};
    static_assert(std::size(kinds) == std::variant_size_v<source_entry>);
    return kinds[entry.index()];
}

const std::string& entry_name(const source_entry& entry)
{
    return std::visit([](const auto& e) -> const std::string& { return e.name; }, entry);
}

const std::string& entry_description(const source_entry& entry)
{
    return std::visit([](const auto& e) -> const std::string& { return e.description; }, entry);
}

const std::string& entry_id(const source_entry& entry)
{
    return std::visit([](const auto& e) -> const std::string& { return e.id; }, entry);
}

Json to_json(const source_entry& entry)
{
    return std::visit([](const auto& e) { return e.to_json(); }, entry);
}

std::optional<source_entry> source_entry_from_json(const Json& value)
{
    using callback::source_type;
    switch (source_type::map(json::string_at(value, {"type"}))) {
    case source_type::screen: return screen_entry::from_json(value);
    case source_type::window: return window_entry::from_json(value);
    case source_type::audio: return audio_entry::from_json(value);
    case source_type::video: return video_entry::from_json(value);
    case source_type::none: break;
    }
    return std::nullopt;
}

} // namespace orbweave::obs
