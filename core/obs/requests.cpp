#include "core/obs/requests.hpp"

namespace orbweave::obs {

namespace {

std::optional<int> number_at(const Json& message, std::string_view key)
{
    if (!json::is_number_at(message, {"payload", "options", key}))
        return std::nullopt;
    return json::int_at(message, {"payload", "options", key});
}

} // namespace

activate_request activate_request::parse(const Json& message)
{
    activate_request request;
    request.source.kind = callback::source_type::map(json::string_at(message, {"payload", "source", "type"}));
    request.source.id = json::string_at(message, {"payload", "source", "id"});
    request.profile = profile_type::parse(json::string_at(message, {"payload", "options", "profile"}));
    request.width = number_at(message, "width");
    request.height = number_at(message, "height");
    request.server = json::string_at(message, {"payload", "service", "server"});
    request.key = json::string_at(message, {"payload", "service", "key"});
    return request;
}

deactivate_request deactivate_request::parse(const Json& message)
{
    deactivate_request request;
    request.all = !json::at(message, {"payload"}).is_object();
    request.id = json::string_at(message, {"payload", "source", "id"});
    return request;
}

} // namespace orbweave::obs
