#include "core/open_handler.hpp"

#include "core/pairing_handlers.hpp"

namespace orbweave {

open_handler::open_handler(app_callbacks& app, websocket::websocket_client& transport, long keepalive_interval_ms,
                           std::function<void()> on_link_open)
    : message_handler("open"), app_(app), transport_(transport), keepalive_interval_ms_(keepalive_interval_ms),
      on_link_open_(std::move(on_link_open))
{
}

void open_handler::handle(const websocket::connection& connection, const Json&)
{
    on_link_open_();
    app_.state_changed(callback::state_type::pairing);
    current_ = connection;

    if (!keep_alive_running_) {
        keep_alive_running_ = true;
        transport_.add_timer(keepalive_interval_ms_, [this](const std::error_code& ec) { keep_alive(ec); });
    }

    std::string secret = app_.secret();
    connection.send(secret.empty() ? code_request_without_secret() : code_request_with_secret(secret));
}

void open_handler::keep_alive(const std::error_code& ec)
{
    if (ec)
        return;
    // Re-arm first: a ping that fails must not end the chain. A dead link is
    // reported by its close or by the missing pong, not here.
    transport_.add_timer(keepalive_interval_ms_, [this](const std::error_code& next) { keep_alive(next); });
    std::error_code ignored;
    current_.ping(ignored);
}

} // namespace orbweave
