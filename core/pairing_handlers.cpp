#include "core/pairing_handlers.hpp"

#include "core/obs/restore_tokens.hpp"
#include "core/obs/worker_manager.hpp"
#include "core/websocket/connection.hpp"

namespace orbweave {

namespace {
constexpr const char* connect_path = "/api/client/connect";
}

Json code_request_without_secret()
{
    return Json{{"id", "code"}, {"url", connect_path}, {"method", "GET"}};
}

Json code_request_with_secret(const std::string& secret)
{
    return Json{{"id", "code"}, {"url", connect_path}, {"payload", {{"secret", secret}}}};
}

code_handler::code_handler(app_callbacks& app) : message_handler("code"), app_(app)
{
}

void code_handler::handle(const websocket::connection&, const Json& message)
{
    std::string code = json::string_at(message, {"payload", "code"});
    if (!code.empty())
        app_.new_code(code);
}

ready_handler::ready_handler(app_callbacks& app, obs::worker_manager& media, obs::restore_tokens& consent)
    : message_handler("ready"), app_(app), media_(media), consent_(consent)
{
}

void ready_handler::handle(const websocket::connection&, const Json& message)
{
    callback::msg::ready ready{
        json::string_at(message, {"payload", "secret"}),
        json::string_at(message, {"payload", "owner", "displayName"}),
        json::string_at(message, {"payload", "owner", "avatar"}),
    };
    // Before anything can be activated under this pairing.
    consent_.paired_with(ready.displayName);
    app_.state_changed(media_.is_empty() ? callback::state_type::connected : callback::state_type::streaming);
    app_.ready(ready);
}

reset_handler::reset_handler(app_callbacks& app, obs::worker_manager& media, obs::restore_tokens& consent)
    : message_handler("reset"), app_(app), media_(media), consent_(consent)
{
}

void reset_handler::handle(const websocket::connection& connection, const Json&)
{
    media_.clear();
    consent_.forget();
    app_.activity().stopped_all("ended", "the service reset this machine");
    activity_event line;
    line.event = "reset";
    line.outcome = "unpaired";
    app_.activity().record(line);
    app_.reset();
    app_.state_changed(callback::state_type::disconnected);
    connection.send(code_request_without_secret());
}

} // namespace orbweave
