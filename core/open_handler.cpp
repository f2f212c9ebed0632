#include "core/open_handler.hpp"

#include "core/orbweave_client_impl.hpp"
#include "core/pairing_handlers.hpp"

namespace orbweave {

open_handler::open_handler(orbweave_client_impl* client)
    : message_handler("open"), client_(client)
{
}

void open_handler::handle(const websocket::connection& connection, const Json&)
{
    client_->reset_reconnection();
    client_->signal_on_state_change(callback::state_type::pairing);
    client_->set_current_connection(connection);

    if (!keep_alive_running_) {
        keep_alive_running_ = true;
        client_->websocket().add_timer(client_->options().keepalive_interval_ms,
                                       [this](const std::error_code& ec) { keep_alive(ec); });
    }

    std::string secret = client_->signal_on_secret();
    connection.send(secret.empty() ? code_request_without_secret() : code_request_with_secret(secret));
}

void open_handler::keep_alive(const std::error_code& ec)
{
    if (ec)
        return;
    // Re-arm first: a ping that fails must not end the chain. A dead link is
    // reported by its close or by the missing pong, not here.
    client_->websocket().add_timer(client_->options().keepalive_interval_ms,
                                   [this](const std::error_code& next) { keep_alive(next); });
    std::error_code ignored;
    client_->current_connection().ping(ignored);
}

} // namespace orbweave
