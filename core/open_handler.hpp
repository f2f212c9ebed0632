#pragma once

#include "core/app_callbacks.hpp"
#include "core/websocket/connection.hpp"
#include "core/websocket/message_handler.hpp"
#include "core/websocket/websocket_client.hpp"

#include <functional>
#include <system_error>

namespace orbweave {

/// Runs each time a link to the service opens: tells the client (which resets its
/// reconnection state), reports `pairing`, keeps one keep-alive chain pinging the
/// latest link, and asks for a pairing code, presenting the stored secret when there
/// is one.
class open_handler final : public websocket::message_handler {
public:
    open_handler(app_callbacks& app, websocket::websocket_client& transport, long keepalive_interval_ms,
                 std::function<void()> on_link_open);
    void handle(const websocket::connection& connection, const Json& message) override;

private:
    void keep_alive(const std::error_code& ec);

    app_callbacks& app_;
    websocket::websocket_client& transport_;
    const long keepalive_interval_ms_;
    const std::function<void()> on_link_open_;
    // The link the keep-alive pings; touched only on the network thread.
    websocket::connection current_;
    bool keep_alive_running_ = false;
};

} // namespace orbweave
