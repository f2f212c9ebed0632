#include "core/obs/pipe_protocol.hpp"

namespace orbweave::obs::pipe {

Json stream_order::to_json() const
{
    Json value{{"source", obs::to_json(source)}, {"request", request.to_json()}, {"bitrate", bitrate}};
    if (!restore_token.empty())
        value["restoreToken"] = restore_token;
    return value;
}

std::optional<stream_order> stream_order::from_json(const Json& value)
{
    std::optional<source_entry> source = source_entry_from_json(json::at(value, {"source"}));
    if (!source)
        return std::nullopt;
    return stream_order{std::move(*source), activate_request::parse(json::at(value, {"request"})),
                        json::int_at(value, {"bitrate"}), json::string_at(value, {"restoreToken"})};
}

Json stream_result::to_json() const
{
    Json value = started ? Json{{"started", true}} : Json{{"started", false}, {"error", error}};
    if (rejected)
        value["rejected"] = true;
    if (!restore_token.empty())
        value["restoreToken"] = restore_token;
    return value;
}

stream_result stream_result::from_json(const Json& value)
{
    return {json::bool_at(value, {"started"}), json::string_at(value, {"error"}), json::bool_at(value, {"rejected"}),
            json::string_at(value, {"restoreToken"})};
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
