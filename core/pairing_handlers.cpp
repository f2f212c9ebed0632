#include "core/pairing_handlers.hpp"

#include "core/orbweave_client_impl.hpp"

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

code_handler::code_handler(orbweave_client_impl* client)
    : message_handler("code"), client_(client)
{
}

void code_handler::handle(const websocket::connection&, const Json& message)
{
    std::string code = json::string_at(message, {"payload", "code"});
    if (!code.empty())
        client_->signal_on_new_code(code);
}

ready_handler::ready_handler(orbweave_client_impl* client)
    : message_handler("ready"), client_(client)
{
}

void ready_handler::handle(const websocket::connection&, const Json& message)
{
    callback::msg::ready ready{
        json::string_at(message, {"payload", "secret"}),
        json::string_at(message, {"payload", "owner", "displayName"}),
        json::string_at(message, {"payload", "owner", "avatar"}),
    };
    client_->signal_on_state_change(client_->work_manager().is_empty() ? callback::state_type::connected
                                                                       : callback::state_type::streaming);
    client_->signal_on_ready(ready);
}

reset_handler::reset_handler(orbweave_client_impl* client)
    : message_handler("reset"), client_(client)
{
}

void reset_handler::handle(const websocket::connection& connection, const Json&)
{
    client_->work_manager().clear();
    client_->signal_on_reset();
    client_->signal_on_state_change(callback::state_type::disconnected);
    connection.send(code_request_without_secret());
}

} // namespace orbweave
