#include "core/obs/pipe_protocol.hpp"

namespace orbweave::obs::pipe {

stream_order stream_order::of(const activate_request& request, source_entry source, int bitrate,
                              std::string restore_token)
{
    return {std::move(source), request.server,  request.key, request.profile,
            request.width,     request.height,  bitrate,     std::move(restore_token)};
}

Json stream_order::to_json() const
{
    Json value{{"source", obs::to_json(source)},
               {"server", server},
               {"key", key},
               {"level", profile_type::name(level)},
               {"bitrate", bitrate}};
    if (width)
        value["width"] = *width;
    if (height)
        value["height"] = *height;
    if (!restore_token.empty())
        value["restoreToken"] = restore_token;
    return value;
}

std::optional<stream_order> stream_order::from_json(const Json& value)
{
    std::optional<source_entry> source = source_entry_from_json(json::at(value, {"source"}));
    if (!source)
        return std::nullopt;
    auto dimension = [&](std::string_view name) -> std::optional<int> {
        if (!json::is_number_at(value, {name}))
            return std::nullopt;
        return json::int_at(value, {name});
    };
    return stream_order{std::move(*source),
                        json::string_at(value, {"server"}),
                        json::string_at(value, {"key"}),
                        profile_type::parse(json::string_at(value, {"level"})),
                        dimension("width"),
                        dimension("height"),
                        json::int_at(value, {"bitrate"}),
                        json::string_at(value, {"restoreToken"})};
}

const char* list_op(callback::source_type::type kind)
{
    using callback::source_type;
    switch (kind) {
    case source_type::screen: return op::list_screens;
    case source_type::window: return op::list_windows;
    case source_type::audio: return op::list_audios;
    case source_type::video: return op::list_videos;
    case source_type::none: break;
    }
    return nullptr;
}

Json find_request(const source_ref& source)
{
    return Json{{"op", op::find}, {"source", {{"type", callback::source_type::name(source.kind)}, {"id", source.id}}}};
}

source_ref find_target(const Json& request)
{
    return {callback::source_type::map(json::string_at(request, {"source", "type"})),
            json::string_at(request, {"source", "id"})};
}

Json stream_result::to_json() const
{
    Json value = started ? Json{{"started", true}} : Json{{"started", false}, {"error", error}};
    if (rejected)
        value["rejected"] = true;
    if (!restore_token.empty())
        value["restoreToken"] = restore_token;
    if (started) {
        value["width"] = width;
        value["height"] = height;
    }
    return value;
}

stream_result stream_result::from_json(const Json& value)
{
    return {json::bool_at(value, {"started"}),    json::string_at(value, {"error"}),
            json::bool_at(value, {"rejected"}),   json::string_at(value, {"restoreToken"}),
            json::int_at(value, {"width"}),       json::int_at(value, {"height"})};
}

request_line request_line::parse(std::string_view text)
{
    Json body = json::parse(text);
    if (!body.is_object())
        return {};
    return {json::string_at(body, {"op"}), std::move(body)};
}

worker_line worker_line::parse(std::string_view text)
{
    Json value = json::parse(text);
    worker_line line;
    if (!value.is_object())
        return line;
    line.error = json::string_at(value, {"error"});
    if (value.contains("event")) {
        line.type = kind::event;
        line.event = json::string_at(value, {"event"});
        line.body = std::move(value);
        return line;
    }
    line.type = kind::reply;
    line.ok = json::bool_at(value, {"ok"});
    if (line.ok)
        line.result = json::at(value, {"result"});
    return line;
}

Json ok_reply(Json result)
{
    return Json{{"ok", true}, {"result", std::move(result)}};
}

Json error_reply(const std::string& error)
{
    return Json{{"ok", false}, {"error", error}};
}

Json event_line(const char* name, const std::string& error)
{
    return Json{{"event", name}, {"error", error}};
}

} // namespace orbweave::obs::pipe
